// tq error: what an error code means.
#include "Command.h"
#include "TQLib/platform/SystemCodes.h"

#include <cerrno>
#include <cwchar>
#include <limits>
#include <optional>

using namespace Quellan::Corvel;

namespace tq {

namespace {

constexpr const wchar_t* ErrorHelp =
    L"usage: tq error [--json] [--module FILE] CODE...\n"
    L"\n"
    L"A code is a Win32 error number, an HRESULT or an NTSTATUS: decimal (5, -2147024891), hexadecimal "
    L"(0x80070005) or\n"
    L"a name (ERROR_ACCESS_DENIED).\n"
    L"\n"
    L"  --module FILE   take the texts from that module's message table\n"
    L"  --json          print JSON in place of a table\n"
    L"\n"
    L"Ends with 1 when one of the codes has neither a name nor a text.\n";

struct ErrorDescription {
    unsigned int code;
    std::vector<const wchar_t*> names;
    std::optional<TQString> text;
};

bool IsNumber(const TQString& text) {
    const wchar_t first = text.IsEmpty() ? L'\0' : text[text[0] == L'-' && text.Length() > 1 ? 1 : 0];
    return first >= L'0' && first <= L'9';
}

// Digits in base 10 or 16, all of them, in the range of 32 bits.
unsigned int Parse32Bits(const TQString& text) {
    const bool isNegative = text[0] == L'-';
    const std::size_t begin = isNegative ? 1 : 0;
    const bool isHex = text.Length() > begin + 2 && text[begin] == L'0' &&
                       (text[begin + 1] == L'x' || text[begin + 1] == L'X');
    wchar_t* end = nullptr;
    errno = 0;
    const unsigned long long number = std::wcstoull(text.c_str() + begin, &end, isHex ? 16 : 10);
    constexpr unsigned long long lowest = 0x80000000ULL;
    if (*end != L'\0' || errno != 0 ||
        number > (isNegative ? lowest : std::numeric_limits<unsigned int>::max()))
        throw UsageError(TQString::Format(L"'%s' is no 32-bit error code", text.c_str()));
    return static_cast<unsigned int>(isNegative ? 0 - number : number);
}

unsigned int ParseCode(const TQString& text) {
    if (IsNumber(text)) return Parse32Bits(text);
    const Quellan::Platform::SystemCode* const known = Quellan::Platform::FindSystemCode(text.View());
    if (!known)
        throw UsageError(
            TQString::Format(L"'%s' is neither a number nor the name of an error code", text.c_str()));
    return known->code;
}

std::optional<TQString> ReadText(HMODULE module, unsigned int code) {
    wchar_t* buffer = nullptr;
    const DWORD source = module ? FORMAT_MESSAGE_FROM_HMODULE : FORMAT_MESSAGE_FROM_SYSTEM;
    const DWORD length = FormatMessageW(source | FORMAT_MESSAGE_ALLOCATE_BUFFER |
                                            FORMAT_MESSAGE_IGNORE_INSERTS | FORMAT_MESSAGE_MAX_WIDTH_MASK,
                                        module, code, 0, reinterpret_cast<wchar_t*>(&buffer), 0, nullptr);
    if (length == 0) return std::nullopt;
    const TQUniqueHandle<_TQLocalMemClose> owner(buffer);
    TQString text(buffer, length);
    // A line break that a message insists on would break the table.
    text.Replace(L"\r\n", L" ");
    text.Trim();
    return text;
}

ErrorDescription Describe(HMODULE module, unsigned int code) {
    ErrorDescription description{code, {}, ReadText(module, code)};
    for (const Quellan::Platform::SystemCode& known : Quellan::Platform::SystemCodesOf(code))
        description.names.push_back(known.Name());
    return description;
}

TQString Joined(const std::vector<const wchar_t*>& names) {
    TQString text;
    for (const wchar_t* name : names) {
        if (!text.IsEmpty()) text.Append(L", ");
        text.Append(name);
    }
    return text;
}

void PrintTable(const std::vector<ErrorDescription>& all, TQConsole& out) {
    Table table;
    table.Add({L"Code", L"Number", L"Name", L"Level", L"Source", L"Facility", L"Text"});
    for (const ErrorDescription& each : all) {
        const unsigned short facility = _TQExceptionRoot::CodeFacility(each.code);
        table.Add({TQString::Format(L"0x%08X", each.code), TQString::Format(L"%d", each.code),
                   each.names.empty() ? TQString(L"-") : Joined(each.names),
                   _TQExceptionRoot::LevelName(_TQExceptionRoot::CodeLevel(each.code)),
                   _TQExceptionRoot::SourceName(_TQExceptionRoot::CodeSource(each.code)),
                   TQString::Format(L"%hu %s", facility, _TQExceptionRoot::FacilityName(facility)),
                   each.text.value_or(L"unknown")});
    }
    table.Print(out);
}

void PrintJson(const std::vector<ErrorDescription>& all, TQConsole& out) {
    TQString json = L"[";
    for (const ErrorDescription& each : all) {
        const unsigned short facility = _TQExceptionRoot::CodeFacility(each.code);
        json.Append(json.Length() == 1 ? L"\n" : L",\n");
        json.AppendFormat(L"  {\"code\": \"0x%08X\", \"number\": %d, \"names\": [", each.code, each.code);
        for (std::size_t i = 0; i < each.names.size(); ++i)
            json.AppendFormat(L"%s%s", i == 0 ? L"" : L", ", JsonString(each.names[i]).c_str());
        json.AppendFormat(
            L"], \"level\": %s, \"source\": %s, \"facility\": {\"number\": %hu, \"name\": %s}, \"text\": %s}",
            JsonString(_TQExceptionRoot::LevelName(_TQExceptionRoot::CodeLevel(each.code))).c_str(),
            JsonString(_TQExceptionRoot::SourceName(_TQExceptionRoot::CodeSource(each.code))).c_str(),
            facility, JsonString(_TQExceptionRoot::FacilityName(facility)).c_str(),
            each.text ? JsonString(each.text->View()).c_str() : L"null");
    }
    out.Write(json.Append(L"\n]\n"));
}

}  // namespace

int RunError(Arguments arguments, TQConsole& out) {
    std::vector<unsigned int> codes;
    TQUniqueHandle<_TQModuleClose> module;
    bool isJson = false;
    while (!arguments.AtEnd()) {
        const TQString argument = arguments.Next();
        if (argument == L"--help") {
            out.Write(ErrorHelp);
            return ExitOk;
        }
        if (argument == L"--json") {
            isJson = true;
        } else if (argument == L"--module") {
            const TQString file = arguments.ValueOf(argument);
            module.Attach(LoadLibraryExW(file.c_str(), nullptr,
                                         LOAD_LIBRARY_AS_DATAFILE | LOAD_LIBRARY_AS_IMAGE_RESOURCE));
            if (!module.IsValid()) {
                const TQSysException failure(GetLastError(), L"LoadLibraryExW");
                throw UsageError(TQString::Format(L"%s can't be read as a module: %s", file.c_str(),
                                                  failure.ExcCodeString().c_str()));
            }
        } else if (argument.StartsWith(L"--")) {
            throw UsageError(TQString::Format(L"'%s' is no option of tq error", argument.c_str()));
        } else {
            codes.push_back(ParseCode(argument));
        }
    }
    if (codes.empty()) throw UsageError(L"name at least one error code; tq error --help tells how");

    std::vector<ErrorDescription> all;
    bool isComplete = true;
    for (const unsigned int code : codes) {
        all.push_back(Describe(module.Get(), code));
        isComplete = isComplete && (!all.back().names.empty() || all.back().text);
    }
    if (isJson)
        PrintJson(all, out);
    else
        PrintTable(all, out);
    return isComplete ? ExitOk : ExitNotFound;
}

}  // namespace tq
