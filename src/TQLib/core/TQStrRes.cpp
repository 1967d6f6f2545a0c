#include "TQLib/core/TQStrRes.h"

#include "TQLib/core/TQException.h"
#include "TQLib/core/TQLib.h"
#include "TQLib/core/internal/CallFailure.h"
#include "TQLib/core/internal/LanguageNames.h"
#include "TQLib/platform/Platform.h"
#include "TQLib/text/memory/TQHandle.h"
#include "TQLib/text/memory/TQUniqueHandle.h"
#include "TQLib/text/memory/internal/Translated.h"

#include <array>
#include <memory>
#include <string>
#include <vector>

namespace Quellan::Corvel {

namespace {

constexpr std::array<const wchar_t*, TQStrResDestinationCount> DestinationNames = {L"User", L"System",
                                                                                   L"EventLog", L"Log"};

using LocalText = TQUniqueHandle<_TQLocalMemClose>;

constexpr const wchar_t* Where = L"TQBaseStrRes::Text";

// One insert of a message text: `%` number, then perhaps `!format!`.
struct Insert {
    std::size_t begin = 0, end = 0;  // in the text
    unsigned number = 0;             // 1 to 99
    unsigned stars = 0;              // arguments that its width and precision take before its own
    bool isText = true;
    bool isNarrow = false;  // asks for narrow text, which no argument is
};

bool IsDigit(wchar_t c) {
    return c >= L'0' && c <= L'9';
}

// The insert that begins at `at` (a percent sign), or one with number 0 if that is another escape.
Insert ParseInsert(std::wstring_view text, std::size_t at) {
    Insert insert{at, at + 1};
    while (insert.end < text.size() && insert.end - at <= 2 && IsDigit(text[insert.end]))
        insert.number = insert.number * 10 + static_cast<unsigned>(text[insert.end++] - L'0');
    if (insert.number == 0 || insert.end >= text.size() || text[insert.end] != L'!') return insert;
    const std::size_t close = text.find(L'!', insert.end + 1);
    if (close == std::wstring_view::npos) return insert;
    const std::wstring_view format = text.substr(insert.end + 1, close - insert.end - 1);
    for (wchar_t c : format)
        if (c == L'*') ++insert.stars;
    const wchar_t conversion = format.empty() ? L's' : format.back();
    insert.isText = conversion == L's';
    insert.isNarrow = conversion == L'S' || (insert.isText && format.find(L'h') != std::wstring_view::npos);
    insert.end = close + 1;
    return insert;
}

bool IsSatisfied(const Insert& insert, std::span<const TQMsgArg> args) {
    const std::size_t own = insert.number - 1 + insert.stars;
    if (own >= args.size() || insert.isNarrow || args[own].IsText() != insert.isText) return false;
    for (std::size_t i = insert.number - 1; i < own; ++i)
        if (args[i].IsText()) return false;
    return true;
}

// The platform reads as many arguments as the text asks for, whatever the caller passed: what it must not
// read becomes "<?>" first.
STLString WithoutUnsatisfiedInserts(std::wstring_view text, std::span<const TQMsgArg> args) {
    STLString result;
    std::size_t done = 0;
    for (std::size_t at = text.find(L'%'); at != std::wstring_view::npos && at + 1 < text.size();) {
        const Insert insert = ParseInsert(text, at);
        if (insert.number == 0) {
            at = text.find(L'%', at + 2);
            continue;
        }
        if (!IsSatisfied(insert, args)) {
            result.Append(text.substr(done, at - done));
            result.Append(L"<?>");
            done = insert.end;
        }
        at = text.find(L'%', insert.end);
    }
    result.Append(text.substr(done));
    return result;
}

// Behind a call that found nothing: whether there was nothing, or no memory to find it with.
void ThrowIfMemoryIsExhausted() {
    if (IsMemoryExhausted(GetLastError())) TQStdExceptions::ThrowMemAllocError(Where);
}

STLString ExpandInserts(std::wstring_view text, std::span<const TQMsgArg> args) {
    const STLString safe = WithoutUnsatisfiedInserts(text, args);
    // The platform wants its texts terminated, which a view need not be.
    std::vector<std::wstring> texts(args.size());
    std::vector<std::uintptr_t> values(args.size() + 1);
    for (std::size_t i = 0; i < args.size(); ++i) {
        texts[i] = args[i].Text();
        values[i] = args[i].IsText() ? reinterpret_cast<std::uintptr_t>(texts[i].c_str()) : args[i].Number();
    }
    wchar_t* buffer = nullptr;
    SetLastError(ERROR_SUCCESS);
    const DWORD length = FormatMessageW(
        FORMAT_MESSAGE_FROM_STRING | FORMAT_MESSAGE_ARGUMENT_ARRAY | FORMAT_MESSAGE_ALLOCATE_BUFFER,
        safe.c_str(), 0, 0, reinterpret_cast<wchar_t*>(&buffer), 0,
        reinterpret_cast<va_list*>(values.data()));
    if (length == 0) {
        // A text that expands to nothing is no failure, and one that can't be expanded says more than none.
        if (GetLastError() == ERROR_SUCCESS) return {};
        ThrowIfMemoryIsExhausted();
        return STLString(text);
    }
    const LocalText owner(buffer);
    return STLString(buffer, length);
}

// False when the module has no such message in that language; inserts are left as they stand.
bool ReadMessage(HMODULE module, unsigned int id, LANGID language, STLString& text) {
    wchar_t* buffer = nullptr;
    SetLastError(ERROR_SUCCESS);
    const DWORD length = FormatMessageW(
        FORMAT_MESSAGE_FROM_HMODULE | FORMAT_MESSAGE_IGNORE_INSERTS | FORMAT_MESSAGE_ALLOCATE_BUFFER, module,
        id, language, reinterpret_cast<wchar_t*>(&buffer), 0, nullptr);
    if (length == 0) {
        ThrowIfMemoryIsExhausted();
        return false;
    }
    const LocalText owner(buffer);
    std::wstring_view view(buffer, length);
    // A message file ends each text with a line break that is not part of the sentence.
    while (!view.empty() && (view.back() == L'\n' || view.back() == L'\r'))
        view.remove_suffix(1);
    text = STLString(view);
    return true;
}

bool ReadString(HMODULE module, unsigned int id, STLString& text) {
    // A result that fills the buffer may have been cut.
    for (std::vector<wchar_t> buffer(256);; buffer.resize(buffer.size() * 4)) {
        SetLastError(ERROR_SUCCESS);
        const int length = LoadStringW(module, id, buffer.data(), static_cast<int>(buffer.size()));
        if (length <= 0) {
            ThrowIfMemoryIsExhausted();
            return false;
        }
        if (static_cast<std::size_t>(length) + 1 == buffer.size()) continue;
        text = STLString(buffer.data(), static_cast<std::size_t>(length));
        return true;
    }
}

bool ReadResource(const TQBaseStrRes& resource, HMODULE module, LANGID language, STLString& text) {
    if (resource.ResourceKind() == TQBaseStrRes::Kind::String)
        return ReadString(module, resource.ResourceID(), text);
    return ReadMessage(module, resource.ResourceID(), language, text) ||
           ReadMessage(module, resource.ResourceID(), 0, text);
}

// The module of a store for a language; null where there is none. One that can't be loaded now leaves the
// failure and is passed over: the next language may have the text.
HMODULE ModuleOf(unsigned int storeId, const TQString& language, std::unique_ptr<TQCoreException>& failure) {
    try {
        return TQLib::GetResourceLanguageModule(storeId, language);
    } catch (const TQSysException& e) {
        if (!failure) failure.reset(e.AllocCopy());
        return nullptr;
    }
}

bool FindResource(const TQBaseStrRes& resource, TQStrResDestination destination, STLString& text,
                  std::unique_ptr<TQCoreException>& failure) {
    for (const LCID locale : TQLib::DestinationLocaleIDs(destination)) {
        for (const TQString& name : {LanguageName(locale), LanguageBaseName(locale)}) {
            const HMODULE module = ModuleOf(resource.StoreID(), name, failure);
            if (module && ReadResource(resource, module, static_cast<LANGID>(locale & 0xFFFF), text))
                return true;
        }
    }
    return false;
}

[[noreturn]] void ThrowNotFound(const TQBaseStrRes& resource, TQStrResDestination destination,
                                const TQCoreException* cause) {
    const bool isString = resource.ResourceKind() == TQBaseStrRes::Kind::String;
    const TQString sentence = TQString::Format(
        L"The %s resource (ID=%lu) could not be found in the specified store destination (%ld - %s).",
        isString ? L"string" : L"message", resource.ResourceID(), static_cast<LONG>(destination),
        TQStrResDestinationName(destination));
    if (cause) throw TQException(*cause, cause->ErrCode(), sentence.c_str());
    throw TQException(isString ? ERROR_RESOURCE_NAME_NOT_FOUND : ERROR_MR_MID_NOT_FOUND, sentence.c_str());
}

}  // namespace

const wchar_t* TQStrResDestinationName(TQStrResDestination destination) noexcept {
    const auto index = static_cast<std::size_t>(destination);
    return index < DestinationNames.size() ? DestinationNames[index] : L"Unknown";
}

STLString TQBaseStrRes::TextWith(TQStrResDestination destination, std::span<const TQMsgArg> args) const {
    return Translated(Where, [&] {
        STLString text;
        std::unique_ptr<TQCoreException> failure;
        if (!FindResource(*this, destination, text, failure))
            ThrowNotFound(*this, destination, failure.get());
        return m_kind == Kind::Message ? ExpandInserts(text.View(), args) : text;
    });
}

}  // namespace Quellan::Corvel
