#include "TQLib/text/TQEncoding.h"

#include "TQLib/platform/Platform.h"
#include "TQLib/platform/UnicodeData.h"
#include "TQLib/platform/Utf.h"
#include "TQLib/text/internal/CodePoints.h"
#include "TQLib/text/memory/TQStdExceptions.h"
#include "TQLib/text/memory/internal/Translated.h"

#include <algorithm>
#include <iterator>
#include <span>
#include <string>
#include <utility>

namespace Quellan::Corvel {

namespace {

struct CodePage {
    UINT number;
    char16_t upper[128];  // of the bytes 80 to FF
    BYTE order[128];      // these bytes in the order of their characters
};

#include "TQLib/text/internal/CodePages.inc"

constexpr char32_t MarkCharacter = 0xFEFF;
constexpr char32_t FirstUpper = 0x80;
constexpr char32_t FirstBehindControls = 0xA0;
constexpr char Unknown = '?';

constexpr const CodePage* PageOf(UINT number) {
    return std::ranges::find(CodePages, number, &CodePage::number);
}

constexpr bool IsFirstHalf(char32_t unit) noexcept {
    return (unit & 0xFFFFFC00) == 0xD800;
}

// How far a conversion came: to the end, to a character that goes on behind it, or to one that strict rules refuse.
struct Progress {
    std::size_t taken;
    bool isRefused = false;
};

}  // namespace

struct _TQEncodingFacts {
    UINT codePage;
    const wchar_t* name;
    const wchar_t* otherName;
    std::string_view mark;
    Progress (*decode)(const _TQEncodingFacts&, std::string_view, bool isStrict, std::wstring&);
    Progress (*encode)(const _TQEncodingFacts&, std::wstring_view, bool isStrict, std::string&);
    const CodePage* page;
};

namespace {

using Facts = _TQEncodingFacts;

// The size of the character at the end of `text` that may go on, 0 if there is none.
std::size_t CutSize(std::string_view text) noexcept {
    const auto byte = [text](std::size_t back) {
        return static_cast<unsigned char>(text[text.size() - back]);
    };
    for (std::size_t back = 1; back <= std::min<std::size_t>(3, text.size()); ++back) {
        const unsigned lead = byte(back);
        if ((lead & 0xC0) == 0x80) continue;
        const std::size_t whole = lead >= 0xF0 ? 4 : lead >= 0xE0 ? 3 : 2;
        if (lead < 0xC2 || lead > 0xF4 || back >= whole) return 0;
        // The second byte rules out overlong forms, surrogates and values above 0x10FFFF.
        const unsigned lowest = lead == 0xE0 ? 0xA0 : lead == 0xF0 ? 0x90 : 0x80;
        const unsigned highest = lead == 0xED ? 0x9F : lead == 0xF4 ? 0x8F : 0xBF;
        return back == 1 || (byte(back - 1) >= lowest && byte(back - 1) <= highest) ? back : 0;
    }
    return 0;
}

Progress DecodeUtf8(const Facts&, std::string_view bytes, bool isStrict, std::wstring& text) {
    bytes.remove_suffix(CutSize(bytes));
    Progress progress{bytes.size()};
    if (isStrict) {
        progress.taken = Platform::ValidLength(bytes);
        progress.isRefused = progress.taken != bytes.size();
        bytes = bytes.substr(0, progress.taken);
    }
    const std::size_t before = text.size();
    text.resize(before + bytes.size());
    text.resize(before + Platform::Utf8ToWide(bytes, std::span(text).subspan(before)));
    return progress;
}

Progress EncodeUtf8(const Facts&, std::wstring_view text, bool isStrict, std::string& bytes) {
    Progress progress{text.size()};
    if (isStrict) {
        progress.taken = Platform::ValidLength(text);
        progress.isRefused = progress.taken != text.size();
        text = text.substr(0, progress.taken);
    }
    const std::size_t before = bytes.size();
    bytes.resize(before + Platform::Utf8Length(text));
    Platform::WideToUtf8(text, std::span(bytes).subspan(before));
    return progress;
}

template <std::size_t Size, bool IsBig>
char32_t ReadUnit(const char* bytes) noexcept {
    char32_t unit = 0;
    for (std::size_t i = 0; i < Size; ++i)
        unit |= static_cast<char32_t>(static_cast<unsigned char>(bytes[i])) << 8 * (IsBig ? Size - 1 - i : i);
    return unit;
}

template <std::size_t Size, bool IsBig>
void AppendUnit(std::string& bytes, char32_t unit) {
    char parts[Size];
    for (std::size_t i = 0; i < Size; ++i)
        parts[i] = static_cast<char>(unit >> 8 * (IsBig ? Size - 1 - i : i));
    bytes.append(parts, Size);
}

template <std::size_t Size, bool IsBig>
Progress DecodeUnits(const Facts&, std::string_view bytes, bool isStrict, std::wstring& text) {
    text.reserve(text.size() + bytes.size() / Size);
    std::size_t at = 0;
    while (bytes.size() - at >= Size) {
        char32_t code = ReadUnit<Size, IsBig>(bytes.data() + at);
        std::size_t size = Size;
        if (Size == 2 && IsFirstHalf(code)) {
            if (bytes.size() - at < 2 * Size) break;
            const char32_t second = ReadUnit<Size, IsBig>(bytes.data() + at + Size);
            if ((second & 0xFC00) == 0xDC00) {
                code = 0x10000 + ((code & 0x3FF) << 10) + (second & 0x3FF);
                size = 2 * Size;
            }
        }
        if (!IsCodePoint(code)) {
            if (isStrict) return {at, true};
            code = ReplacementCode;
        }
        Platform::AppendCode(text, code);
        at += size;
    }
    return {at};
}

template <std::size_t Size, bool IsBig>
Progress EncodeUnits(const Facts&, std::wstring_view text, bool isStrict, std::string& bytes) {
    bytes.reserve(bytes.size() + text.size() * Size);
    for (Platform::CodeReader reader(text); !reader.IsAtEnd();) {
        const wchar_t* const at = reader.Place();
        char32_t code = reader.Next();
        if (!IsCodePoint(code)) {
            if (isStrict) return {static_cast<std::size_t>(at - text.data()), true};
            code = ReplacementCode;
        }
        if (Size == 2 && code > 0xFFFF) {
            AppendUnit<Size, IsBig>(bytes, 0xD7C0 + (code >> 10));
            code = 0xDC00 | (code & 0x3FF);
        }
        AppendUnit<Size, IsBig>(bytes, code);
    }
    return {text.size()};
}

Progress DecodePage(const Facts& facts, std::string_view bytes, bool isStrict, std::wstring& text) {
    const std::size_t before = text.size();
    text.resize(before + bytes.size());
    wchar_t* out = text.data() + before;
    for (std::size_t at = 0; at < bytes.size(); ++at) {
        const char32_t byte = static_cast<unsigned char>(bytes[at]);
        char32_t code = byte < FirstUpper ? byte : facts.page->upper[byte - FirstUpper];
        if (code == ReplacementCode) {
            if (isStrict) {
                text.resize(before + at);
                return {at, true};
            }
            if (byte < FirstBehindControls) code = byte;
        }
        *out++ = static_cast<wchar_t>(code);
    }
    return {bytes.size()};
}

// The byte of a character, 0 if there is none.
unsigned ByteIn(const CodePage& page, char32_t code, bool isStrict) noexcept {
    if (code == ReplacementCode) return 0;
    const auto upper = [&page](BYTE byte) -> char32_t { return page.upper[byte - FirstUpper]; };
    const auto found = std::ranges::lower_bound(page.order, code, {}, upper);
    if (found != std::end(page.order) && upper(*found) == code) return *found;
    const bool isControl = code >= FirstUpper && code < FirstBehindControls;
    return isControl && !isStrict && page.upper[code - FirstUpper] == ReplacementCode
               ? static_cast<unsigned>(code)
               : 0;
}

Progress EncodePage(const Facts& facts, std::wstring_view text, bool isStrict, std::string& bytes) {
    bytes.reserve(bytes.size() + text.size());
    for (Platform::CodeReader reader(text); !reader.IsAtEnd();) {
        const wchar_t* const at = reader.Place();
        const char32_t code = reader.Next();
        if (code < FirstUpper) {
            bytes += static_cast<char>(code);
            continue;
        }
        const unsigned byte = ByteIn(*facts.page, code, isStrict);
        if (byte == 0 && isStrict) return {static_cast<std::size_t>(at - text.data()), true};
        bytes += byte == 0 ? Unknown : static_cast<char>(byte);
    }
    return {text.size()};
}

constexpr Facts Page(UINT codePage, const wchar_t* name, const wchar_t* otherName = L"") {
    return {codePage, name, otherName, {}, &DecodePage, &EncodePage, PageOf(codePage)};
}

template <std::size_t Size, bool IsBig>
constexpr Facts Units(UINT codePage, const wchar_t* name, std::string_view mark) {
    return {codePage, name, L"", mark, &DecodeUnits<Size, IsBig>, &EncodeUnits<Size, IsBig>, nullptr};
}

using namespace std::string_view_literals;

// UTF-32 before UTF-16, whose mark begins the other's.
constexpr Facts Encodings[] = {
    {65001, L"UTF-8", L"", "\xEF\xBB\xBF"sv, &DecodeUtf8, &EncodeUtf8, nullptr},
    Units<4, false>(12000, L"UTF-32LE", "\xFF\xFE\0\0"sv),
    Units<4, true>(12001, L"UTF-32BE", "\0\0\xFE\xFF"sv),
    Units<2, false>(1200, L"UTF-16LE", "\xFF\xFE"sv),
    Units<2, true>(1201, L"UTF-16BE", "\xFE\xFF"sv),
    Page(437, L"IBM437"),
    Page(850, L"IBM850"),
    Page(852, L"IBM852"),
    Page(866, L"IBM866"),
    Page(1250, L"windows-1250"),
    Page(1251, L"windows-1251"),
    Page(1252, L"windows-1252"),
    Page(1253, L"windows-1253"),
    Page(1254, L"windows-1254"),
    Page(1255, L"windows-1255"),
    Page(1256, L"windows-1256"),
    Page(1257, L"windows-1257"),
    Page(1258, L"windows-1258"),
    Page(28591, L"ISO-8859-1", L"latin1"),
    Page(28592, L"ISO-8859-2", L"latin2"),
    Page(28593, L"ISO-8859-3", L"latin3"),
    Page(28594, L"ISO-8859-4", L"latin4"),
    Page(28595, L"ISO-8859-5"),
    Page(28596, L"ISO-8859-6"),
    Page(28597, L"ISO-8859-7"),
    Page(28598, L"ISO-8859-8"),
    Page(28599, L"ISO-8859-9", L"latin5"),
    Page(28600, L"ISO-8859-10", L"latin6"),
    Page(28601, L"ISO-8859-11"),
    Page(28603, L"ISO-8859-13", L"latin7"),
    Page(28604, L"ISO-8859-14", L"latin8"),
    Page(28605, L"ISO-8859-15", L"latin9"),
    Page(28606, L"ISO-8859-16", L"latin10"),
};

// The characters of a name that count, one by one; 0 at its end.
class NameReader {
  public:
    explicit NameReader(std::wstring_view name) noexcept : m_rest(name) {}

    wchar_t Next() noexcept {
        while (!m_rest.empty()) {
            const wchar_t character = m_rest.front();
            m_rest.remove_prefix(1);
            if (character != L'-' && character != L'_' && character != L' ')
                return character >= L'A' && character <= L'Z' ? static_cast<wchar_t>(character - L'A' + L'a')
                                                              : character;
        }
        return 0;
    }

  private:
    std::wstring_view m_rest;
};

bool IsSameName(std::wstring_view a, std::wstring_view b) noexcept {
    NameReader left(a);
    NameReader right(b);
    for (wchar_t character; (character = left.Next()) == right.Next();)
        if (character == 0) return true;
    return false;
}

bool IsNumberName(std::wstring_view name, UINT codePage) noexcept {
    wchar_t text[16] = L"cp";
    std::size_t size = 2;
    for (UINT unit = 10000; unit != 0; unit /= 10)
        if (codePage >= unit) text[size++] = static_cast<wchar_t>(L'0' + codePage / unit % 10);
    return IsSameName(name, {text, size});
}

bool HasName(const Facts& facts, std::wstring_view name) noexcept {
    return IsSameName(name, facts.name) || (facts.otherName[0] != 0 && IsSameName(name, facts.otherName)) ||
           IsNumberName(name, facts.codePage);
}

const Facts* Found(const Facts* facts) noexcept {
    return facts == std::end(Encodings) ? nullptr : facts;
}

const Facts* FindFacts(UINT codePage) noexcept {
    return Found(std::ranges::find(Encodings, codePage, &Facts::codePage));
}

const Facts* FindFacts(std::wstring_view name) noexcept {
    return Found(std::ranges::find_if(Encodings, [&](const Facts& facts) { return HasName(facts, name); }));
}

const Facts* Known(const Facts* facts) {
    if (!facts) TQStdExceptions::ThrowParameterInvalidError(L"TQEncoding::TQEncoding");
    return facts;
}

[[noreturn]] void Refuse(const wchar_t* where, const wchar_t* unit, ULONGLONG place) {
    const std::wstring message = std::wstring(where) + L": " + unit + L" " + std::to_wstring(place);
    SetLastError(ERROR_NO_UNICODE_TRANSLATION);
    TQStdExceptions::ThrowLastError(message.c_str());
}

}  // namespace

TQEncoding::TQEncoding(UINT codePage) : m_facts(Known(FindFacts(codePage))) {}

TQEncoding::TQEncoding(std::wstring_view name) : m_facts(Known(FindFacts(name))) {}

std::optional<TQEncoding> TQEncoding::Find(UINT codePage) noexcept {
    const Facts* const facts = FindFacts(codePage);
    return facts ? std::optional(TQEncoding(facts)) : std::nullopt;
}

std::optional<TQEncoding> TQEncoding::Find(std::wstring_view name) noexcept {
    const Facts* const facts = FindFacts(name);
    return facts ? std::optional(TQEncoding(facts)) : std::nullopt;
}

std::optional<TQEncoding> TQEncoding::FindByMark(std::string_view bytes) noexcept {
    const Facts* const facts = Found(std::ranges::find_if(Encodings, [bytes](const Facts& each) {
        return !each.mark.empty() && bytes.starts_with(each.mark);
    }));
    return facts ? std::optional(TQEncoding(facts)) : std::nullopt;
}

UINT TQEncoding::CodePage() const noexcept {
    return m_facts->codePage;
}

const wchar_t* TQEncoding::Name() const noexcept {
    return m_facts->name;
}

std::string_view TQEncoding::Mark() const noexcept {
    return m_facts->mark;
}

TQString TQEncoding::Decode(std::string_view bytes, TQEncodingRules rules) const {
    TQDecoder decoder(*this, rules);
    TQString text = decoder.Decode(bytes);
    text += decoder.Finish();
    return text;
}

std::string TQEncoding::Encode(std::wstring_view text, TQEncodingRules rules) const {
    return Translated(L"TQEncoding::Encode", [&] {
        TQEncoder encoder(*this, rules);
        std::string bytes = encoder.Encode(text);
        bytes += encoder.Finish();
        return bytes;
    });
}

TQDecoder::TQDecoder(TQEncoding encoding, TQEncodingRules rules) noexcept
    : m_encoding(encoding), m_rules(rules) {}

// Takes all but a character that goes on.
void TQDecoder::Take(State& state, std::string_view& bytes, std::wstring& text) const {
    const Facts& facts = *m_encoding.m_facts;
    const Progress progress = facts.decode(facts, bytes, m_rules.isStrict, text);
    state.taken += progress.taken;
    if (progress.isRefused) Refuse(L"TQDecoder::Decode", L"byte", state.taken);
    bytes.remove_prefix(progress.taken);
}

void TQDecoder::SkipMark(State& state, std::wstring& text) const {
    if (!state.isAtBegin || text.empty()) return;
    state.isAtBegin = false;
    const bool isMarked = m_rules.hasMark && !m_encoding.Mark().empty();
    if (isMarked && static_cast<char32_t>(text[0]) == MarkCharacter) text.erase(0, 1);
}

TQString TQDecoder::Decode(std::string_view bytes) {
    return Translated(L"TQDecoder::Decode", [&] {
        State state = m_state;
        std::wstring text;
        while (state.cutSize != 0 && !bytes.empty()) {
            state.cut[state.cutSize++] = bytes.front();
            bytes.remove_prefix(1);
            std::string_view cut(state.cut.data(), state.cutSize);
            Take(state, cut, text);
            state.cutSize = cut.copy(state.cut.data(), cut.size());
        }
        if (state.cutSize == 0) {
            Take(state, bytes, text);
            state.cutSize = bytes.copy(state.cut.data(), bytes.size());
        }
        SkipMark(state, text);
        m_state = state;
        return TQString(std::move(text));
    });
}

TQString TQDecoder::Finish() {
    return Translated(L"TQDecoder::Finish", [&] {
        if (m_state.cutSize != 0 && m_rules.isStrict) Refuse(L"TQDecoder::Finish", L"byte", m_state.taken);
        TQString text;
        if (m_state.cutSize != 0) text += static_cast<wchar_t>(ReplacementCode);
        m_state = {};
        return text;
    });
}

TQEncoder::TQEncoder(TQEncoding encoding, TQEncodingRules rules) noexcept
    : m_encoding(encoding), m_rules(rules) {}

void TQEncoder::Take(State& state, std::wstring_view text, std::string& bytes) const {
    const Facts& facts = *m_encoding.m_facts;
    if (std::exchange(state.isAtBegin, false) && m_rules.hasMark) bytes += facts.mark;
    const Progress progress = facts.encode(facts, text, m_rules.isStrict, bytes);
    state.taken += progress.taken;
    if (progress.isRefused) Refuse(L"TQEncoder::Encode", L"character", state.taken);
}

std::string TQEncoder::Encode(std::wstring_view text) {
    return Translated(L"TQEncoder::Encode", [&] {
        State state = m_state;
        std::string bytes;
        if (state.cut != 0 && !text.empty()) {
            // Alone if it is not followed by the other half.
            const wchar_t pair[] = {std::exchange(state.cut, L'\0'), text.front()};
            const bool isPair = (text.front() & 0xFC00) == 0xDC00;
            Take(state, {pair, isPair ? std::size_t{2} : std::size_t{1}}, bytes);
            if (isPair) text.remove_prefix(1);
        }
        if (Platform::WideIsUtf16 && !text.empty() && IsFirstHalf(static_cast<char16_t>(text.back()))) {
            state.cut = text.back();
            text.remove_suffix(1);
        }
        if (!text.empty()) Take(state, text, bytes);
        m_state = state;
        return bytes;
    });
}

std::string TQEncoder::Finish() {
    return Translated(L"TQEncoder::Finish", [&] {
        State state = m_state;
        std::string bytes;
        if (state.cut != 0 || state.isAtBegin)
            Take(state, {&state.cut, state.cut != 0 ? std::size_t{1} : 0}, bytes);
        m_state = {};
        return bytes;
    });
}

}  // namespace Quellan::Corvel
