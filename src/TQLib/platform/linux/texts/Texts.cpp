#include "TQLib/platform/linux/texts/Texts.h"

#include "TQLib/platform/SystemCodes.h"
#include "TQLib/platform/Utf.h"
#include "TQLib/platform/linux/base/ErrorCodes.h"
#include "TQLib/platform/linux/base/Fail.h"
#include "TQLib/platform/linux/base/FaultPoint.h"
#include "TQLib/platform/linux/base/Memory.h"
#include "TQLib/platform/linux/process/ModuleTables.h"
#include "TQLib/platform/linux/texts/Locale.h"
#include "TQLib/platform/linux/texts/MessageFormat.h"
#include "TQLib/platform/linux/texts/MessageTable.h"

#include <algorithm>
#include <array>
#include <cstddef>
#include <cstring>
#include <iterator>
#include <new>
#include <string>
#include <vector>

namespace Quellan::Platform {

namespace {

constexpr DWORD Sources =
    FORMAT_MESSAGE_FROM_STRING | FORMAT_MESSAGE_FROM_HMODULE | FORMAT_MESSAGE_FROM_SYSTEM;
constexpr DWORD KnownFlags = Sources | FORMAT_MESSAGE_ALLOCATE_BUFFER | FORMAT_MESSAGE_IGNORE_INSERTS |
                             FORMAT_MESSAGE_ARGUMENT_ARRAY | FORMAT_MESSAGE_MAX_WIDTH_MASK;
constexpr std::size_t MaxMessageSize = 65536;  // characters, the terminator included

constexpr LANGID NeutralLanguage = 0;
constexpr LANGID UserDefaultLanguage = 0x0400;
constexpr LANGID SystemDefaultLanguage = 0x0800;
constexpr LANGID EnglishLanguage = 0x0009;
constexpr LANGID UsEnglishLanguage = 0x0409;

// The texts of all codes in one object, and where each begins, in the order of `SystemCodes`.
struct AllTexts {
#define TQ_WIN32(code, name, text) char win32_##code[sizeof(text)] = text;
#define TQ_HRESULT(code, name, text) char result_##code[sizeof(text)] = text;
#define TQ_NTSTATUS(code, name, text) char status_##code[sizeof(text)] = text;
#include "TQLib/platform/SystemCodes.def"
#undef TQ_WIN32
#undef TQ_HRESULT
#undef TQ_NTSTATUS
};
constexpr AllTexts SystemTexts;

constexpr unsigned int TextBegins[] = {
#define TQ_WIN32(code, name, text) offsetof(AllTexts, win32_##code),
#define TQ_HRESULT(code, name, text) offsetof(AllTexts, result_##code),
#define TQ_NTSTATUS(code, name, text) offsetof(AllTexts, status_##code),
#include "TQLib/platform/SystemCodes.def"
#undef TQ_WIN32
#undef TQ_HRESULT
#undef TQ_NTSTATUS
};

const char* FindSystemText(DWORD code) noexcept {
    const SystemCode* known = FindSystemCode(SystemCodeFamily::Win32, code);
    if (!known && HRESULT_FACILITY(static_cast<HRESULT>(code)) == FACILITY_WIN32 &&
        FAILED(static_cast<HRESULT>(code)))
        known = FindSystemCode(SystemCodeFamily::Win32, code & 0xFFFF);
    if (!known) known = FindSystemCode(SystemCodeFamily::HResult, code);
    if (!known) known = FindSystemCode(SystemCodeFamily::NtStatus, code);
    if (!known) return nullptr;
    return reinterpret_cast<const char*>(&SystemTexts) + TextBegins[known - SystemCodes().data()];
}

bool IsDefaultLanguage(DWORD language) noexcept {
    return language == NeutralLanguage || language == UserDefaultLanguage ||
           language == SystemDefaultLanguage;
}

// The text of a message, in place where it is short.
struct MessageText {
    std::wstring_view view;
    std::wstring whole;
    std::array<wchar_t, 256> inPlace;
};

bool HasSystemTexts(DWORD language) noexcept {
    return IsDefaultLanguage(language) || language == EnglishLanguage || language == UsEnglishLanguage;
}

DWORD ReadSystemText(DWORD code, DWORD language, MessageText& text) {
    if (!HasSystemTexts(language)) return ERROR_RESOURCE_LANG_NOT_FOUND;
    const char* const found = FindSystemText(code);
    if (!found) return ERROR_MR_MID_NOT_FOUND;
    constexpr std::wstring_view End = L"\r\n";
    const std::string_view bytes(found);
    std::span<wchar_t> room = text.inPlace;
    if (const std::size_t needed = bytes.size() + End.size(); needed > room.size()) {
        text.whole.resize(needed);
        room = text.whole;
    }
    const std::size_t length = Utf8ToWide(bytes, room.first(bytes.size()));
    std::ranges::copy(End, room.begin() + static_cast<std::ptrdiff_t>(length));
    text.view = {room.data(), length + End.size()};
    return ERROR_SUCCESS;
}

// The text in the first language of an order that has it; in a default language any other will do as well.
DWORD ReadModuleText(HMODULE module, TableKind kind, DWORD id, DWORD language, std::wstring& text) {
    const bool any = IsDefaultLanguage(language);
    const std::vector<DWORD> order =
        any ? std::vector<DWORD>{NeutralLanguage, LANGIDFROMLCID(GetUserDefaultLCID()),
                                 LANGIDFROMLCID(GetSystemDefaultLCID()), UsEnglishLanguage}
            : std::vector<DWORD>{language};
    // A language's rank is its place in the order, behind all of them for any other.
    const std::ptrdiff_t ranks = std::ssize(order) + (any ? 1 : 0);
    std::ptrdiff_t best = ranks;
    bool hasTables = false;
    DWORD code = ERROR_RESOURCE_LANG_NOT_FOUND;
    const DWORD visited = VisitModuleTables(
        module,
        [&](LANGID offered, std::span<const std::byte> table) {
            hasTables = true;
            const std::ptrdiff_t rank = std::ranges::find(order, offered) - order.begin();
            if (rank >= best) return;
            if (const DWORD failure = FindMessage(table, id, text))
                code = failure;
            else
                best = rank;
        },
        kind);
    if (best != ranks) return ERROR_SUCCESS;
    if (visited) return visited;
    return hasTables ? code : ERROR_RESOURCE_DATA_NOT_FOUND;
}

DWORD ReadText(DWORD flags, const void* source, DWORD id, DWORD language, MessageText& text) {
    if (flags & FORMAT_MESSAGE_FROM_STRING) {
        text.view = static_cast<const wchar_t*>(source);
        return ERROR_SUCCESS;
    }
    DWORD code = ERROR_SUCCESS;
    if (flags & FORMAT_MESSAGE_FROM_HMODULE) {
        const HMODULE module = static_cast<HMODULE>(const_cast<void*>(source));
        code = ReadModuleText(module, TableKind::Messages, id, language, text.whole);
        text.view = text.whole;
        if (!code) return code;
    }
    return flags & FORMAT_MESSAGE_FROM_SYSTEM ? ReadSystemText(id, language, text) : code;
}

class ArrayArguments : public MessageArguments {
  public:
    explicit ArrayArguments(const ULONG_PTR* values) noexcept : m_values(values) {}
    std::optional<std::uint64_t> Get(unsigned number) override { return m_values[number - 1]; }

  private:
    const ULONG_PTR* m_values;
};

// Variable arguments can be read forwards only, so each one is kept once it has been reached.
class VariableArguments : public MessageArguments {
  public:
    explicit VariableArguments(va_list* list) noexcept : m_list(list) {}
    std::optional<std::uint64_t> Get(unsigned number) override {
        while (m_read < number)
            m_values[m_read++] = va_arg(*m_list, ULONG_PTR);
        return m_values[number - 1];
    }

  private:
    va_list* m_list;
    std::array<ULONG_PTR, MaxMessageInserts> m_values{};
    unsigned m_read = 0;
};

DWORD Expand(DWORD flags, std::wstring_view text, std::size_t limit, va_list* list, std::wstring& out) {
    const MessageLayout layout{.width = flags & FORMAT_MESSAGE_MAX_WIDTH_MASK,
                               .keepInserts = (flags & FORMAT_MESSAGE_IGNORE_INSERTS) != 0,
                               .limit = limit};
    if (!list) return FormatMessageText(text, layout, nullptr, out);
    if (flags & FORMAT_MESSAGE_ARGUMENT_ARRAY) {
        ArrayArguments arguments(reinterpret_cast<const ULONG_PTR*>(list));
        return FormatMessageText(text, layout, &arguments, out);
    }
    VariableArguments arguments(list);
    return FormatMessageText(text, layout, &arguments, out);
}

// A text of the system's without line breaks, as failures are told with it: most of them have nothing to expand
// and go straight into the buffer. 0 for one that does not.
DWORD CopyPlainSystemText(DWORD code, DWORD language, std::span<wchar_t> buffer) noexcept {
    const char* const found = HasSystemTexts(language) ? FindSystemText(code) : nullptr;
    if (!found || std::strpbrk(found, "%\r\n")) return 0;
    const std::string_view text(found);
    if (text.size() + 2 > buffer.size()) return 0;
    const std::size_t length = Utf8ToWide(text, buffer.first(text.size()));
    buffer[length] = L' ';  // for the line break that ends each text
    buffer[length + 1] = L'\0';
    return static_cast<DWORD>(length + 1);
}

DWORD Render(DWORD flags, const void* source, DWORD id, DWORD language, wchar_t*& buffer, DWORD size,
             va_list* list, DWORD& length) {
    const bool allocate = (flags & FORMAT_MESSAGE_ALLOCATE_BUFFER) != 0;
    const DWORD sources = flags & Sources;
    if (flags & ~KnownFlags || sources == 0) return ERROR_INVALID_PARAMETER;
    if (sources & FORMAT_MESSAGE_FROM_STRING && (sources != FORMAT_MESSAGE_FROM_STRING || !source))
        return ERROR_INVALID_PARAMETER;
    if (flags == (FORMAT_MESSAGE_FROM_SYSTEM | FORMAT_MESSAGE_MAX_WIDTH_MASK)) {
        length = CopyPlainSystemText(id, language, {buffer, size});
        if (length != 0) return ERROR_SUCCESS;
    }
    MessageText text;
    if (const DWORD code = ReadText(flags, source, id, language, text)) return code;
    const std::size_t room = allocate ? MaxMessageSize : std::min<std::size_t>(size, MaxMessageSize);
    if (room == 0) return ERROR_INSUFFICIENT_BUFFER;
    std::wstring out;
    if (const DWORD code = Expand(flags, text.view, room - 1, list, out))
        return allocate && code == ERROR_INSUFFICIENT_BUFFER ? ERROR_MORE_DATA : code;
    if (out.empty()) return ERROR_NO_WORK_DONE;
    if (allocate) {
        const std::size_t characters = std::max<std::size_t>(out.size() + 1, size);
        buffer = static_cast<wchar_t*>(LocalAlloc(LMEM_FIXED, characters * sizeof(wchar_t)));
        if (!buffer) return ERROR_NOT_ENOUGH_MEMORY;
    }
    std::copy_n(out.c_str(), out.size() + 1, buffer);
    length = static_cast<DWORD>(out.size());
    return ERROR_SUCCESS;
}

}  // namespace

DWORD FormatMessageW(DWORD flags, const void* source, DWORD messageId, DWORD languageId, wchar_t* buffer,
                     DWORD size, va_list* arguments) noexcept try {
    if (!buffer) return Fail(ERROR_INVALID_PARAMETER, DWORD{0});
    // With an allocated buffer the argument is in truth the address of the pointer to set.
    wchar_t** const allocated =
        flags & FORMAT_MESSAGE_ALLOCATE_BUFFER ? reinterpret_cast<wchar_t**>(buffer) : nullptr;
    if (allocated) *allocated = nullptr;
    if (const DWORD code = FaultDue("FormatMessageW")) return Fail(code, DWORD{0});
    DWORD length = 0;
    wchar_t*& target = allocated ? *allocated : buffer;
    if (const DWORD code = Render(flags, source, messageId, languageId, target, size, arguments, length))
        return Fail(code, DWORD{0});
    return length;
} catch (const std::bad_alloc&) {
    return Fail(ERROR_NOT_ENOUGH_MEMORY, DWORD{0});
}

int LoadStringW(HMODULE module, UINT id, wchar_t* buffer, int size) noexcept try {
    if (const DWORD code = FaultDue("LoadStringW")) return Fail(code, 0);
    if (!buffer || size < 0) return Fail(ERROR_INVALID_PARAMETER, 0);
    if (size == 0) return Fail(ERROR_NOT_SUPPORTED, 0);
    std::wstring text;
    if (const DWORD code = ReadModuleText(module, TableKind::Strings, id, NeutralLanguage, text))
        return Fail(code == ERROR_MR_MID_NOT_FOUND ? ERROR_RESOURCE_NAME_NOT_FOUND : code, 0);
    const std::size_t length = std::min(text.size(), static_cast<std::size_t>(size) - 1);
    std::copy_n(text.c_str(), length, buffer);
    buffer[length] = L'\0';
    return static_cast<int>(length);
} catch (const std::bad_alloc&) {
    return Fail(ERROR_NOT_ENOUGH_MEMORY, 0);
}

}  // namespace Quellan::Platform
