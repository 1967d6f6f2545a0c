#include "TQLib/platform/linux/texts/MessageFormat.h"

#include "TQLib/platform/Utf.h"
#include "TQLib/platform/linux/base/ErrorCodes.h"

#include <algorithm>
#include <cstdlib>
#include <cstring>
#include <limits>

namespace Quellan::Platform {

namespace {

constexpr std::size_t None = std::wstring::npos;
constexpr std::wstring_view NullText = L"(null)";

// Collects the result within its limit and breaks its lines.
class Lines {
  public:
    // `expected` is how many characters the result may well have.
    Lines(const MessageLayout& layout, std::size_t expected) : m_layout(layout) {
        m_text.reserve(std::min(layout.limit, expected));
    }

    bool Overflowed() const { return m_overflowed; }
    std::wstring Take() { return std::move(m_text); }

    void Put(wchar_t c, std::size_t count = 1) {
        if (m_overflowed || count > m_layout.limit - m_text.size()) {
            m_overflowed = true;
            return;
        }
        m_text.append(count, c);
        if (c == L'\n')
            StartLine(m_text.size());
        else if (c != L'\r')
            EndWordAt(m_text.size());
    }

    void Put(std::wstring_view text) {
        for (const wchar_t c : text)
            Put(c);
    }

    // Characters without a line break among them, and without a blank where lines are broken.
    void PutWord(std::wstring_view word) {
        if (m_overflowed) return;
        m_text.append(word);
        EndWordAt(m_text.size());
        if (m_text.size() > m_layout.limit) m_overflowed = true;
    }

    // A blank or regular line break of the message text: the places where a line may be broken.
    void PutBlank() {
        const std::size_t start = m_text.size();
        if (m_overflowed || start == m_layout.limit) {
            m_overflowed = true;
            return;
        }
        m_text += L' ';
        if (m_leading) return;
        if (m_blank == None || m_blankEnd != start) m_blank = start;
        m_blankEnd = start + 1;
    }

    void PutLineBreak() { Put(L"\r\n"); }

  private:
    void StartLine(std::size_t start) {
        m_lineStart = start;
        m_blank = None;
        m_leading = true;
    }

    void EndWordAt(std::size_t end) {
        m_leading = false;
        if (!m_layout.Wraps() || end - m_lineStart <= m_layout.width || m_blank == None) return;
        m_text.replace(m_blank, m_blankEnd - m_blank, L"\r\n");
        if (m_text.size() > m_layout.limit) m_overflowed = true;
        StartLine(m_blank + 2);
        m_leading = false;
    }

    const MessageLayout& m_layout;
    bool m_overflowed = false;
    std::wstring m_text;
    std::size_t m_lineStart = 0;
    bool m_leading = true;       // nothing but blanks in the line so far
    std::size_t m_blank = None;  // the last run of blanks in the line
    std::size_t m_blankEnd = 0;
};

// One insert's format, as between its exclamation marks.
struct Format {
    enum class Size { Default, Byte, Short, Long, Wide, Int64 };

    bool left = false;
    bool plus = false;
    bool blank = false;
    bool alternate = false;
    bool zero = false;
    std::size_t width = 0;
    std::optional<std::size_t> precision;
    Size size = Size::Default;
    wchar_t type = L's';
};

class Expansion {
  public:
    Expansion(std::wstring_view text, const MessageLayout& layout, MessageArguments* arguments)
        : m_text(text), m_layout(layout), m_arguments(arguments), m_out(m_layout, text.size()) {}

    DWORD Run(std::wstring& out) {
        while (m_at < m_text.size() && !m_out.Overflowed()) {
            if (const std::wstring_view word = Word(); !word.empty()) {
                m_out.PutWord(word);
                m_at += word.size();
                continue;
            }
            const wchar_t c = m_text[m_at++];
            if (c == L'%') {
                if (m_at == m_text.size()) return ERROR_INVALID_PARAMETER;
                if (m_text[m_at] == L'0') break;
                if (!Escape()) return ERROR_INVALID_PARAMETER;
            } else if (c == L'\r' || c == L'\n') {
                if (c == L'\r' && Next(L'\n')) ++m_at;
                if (m_layout.width == 0)
                    m_out.PutLineBreak();
                else
                    m_out.PutBlank();
            } else {
                m_out.PutBlank();
            }
        }
        if (m_out.Overflowed()) return ERROR_INSUFFICIENT_BUFFER;
        out = m_out.Take();
        return ERROR_SUCCESS;
    }

  private:
    // What stands here up to the next escape or line break, and up to the next blank where lines are broken.
    std::wstring_view Word() const {
        const auto bit = [](wchar_t c) { return std::uint64_t{1} << c; };
        const std::uint64_t enders = bit(L'%') | bit(L'\r') | bit(L'\n') | (m_layout.Wraps() ? bit(L' ') : 0);
        const auto ends = [enders](wchar_t c) {
            return static_cast<char32_t>(c) < 64 && (enders >> c & 1) != 0;
        };
        const auto begin = m_text.begin() + static_cast<std::ptrdiff_t>(m_at);
        return {begin, std::find_if(begin, m_text.end(), ends)};
    }

    bool Next(wchar_t c) const { return m_at < m_text.size() && m_text[m_at] == c; }
    bool NextDigit() const { return m_at < m_text.size() && m_text[m_at] >= L'0' && m_text[m_at] <= L'9'; }
    bool Skip(wchar_t c) {
        const bool there = Next(c);
        m_at += there;
        return there;
    }

    bool Escape() {
        if (NextDigit()) return Insert();
        switch (const wchar_t c = m_text[m_at++]) {
            case L'n':
                m_out.PutLineBreak();
                break;
            case L'r':
                m_out.Put(L'\r');
                break;
            case L't':
                m_out.Put(L'\t');
                break;
            case L'b':
                m_out.Put(L' ');
                break;
            default:
                if (m_layout.keepInserts) m_out.Put(L'%');
                m_out.Put(c);
        }
        return true;
    }

    bool Insert() {
        const std::size_t start = m_at;
        unsigned number = static_cast<unsigned>(m_text[m_at++] - L'0');
        if (NextDigit()) number = number * 10 + static_cast<unsigned>(m_text[m_at++] - L'0');
        if (m_layout.keepInserts) {
            m_out.Put(L'%');
            m_out.Put(m_text.substr(start, m_at - start));
            return true;
        }
        Format format;
        if (Skip(L'!') && !ReadFormat(format, number)) return false;
        const auto value = Argument(number);
        return value && PutValue(format, *value);
    }

    std::optional<std::uint64_t> Argument(unsigned number) {
        if (!m_arguments || number > MaxMessageInserts) return std::nullopt;
        return m_arguments->Get(number);
    }

    // Each asterisk takes the argument of the insert's number and moves the value to the following one.
    bool ReadFormat(Format& format, unsigned& number) {
        while (m_at < m_text.size() && std::wstring_view(L"-+ #0").find(m_text[m_at]) != None) {
            switch (m_text[m_at++]) {
                case L'-':
                    format.left = true;
                    break;
                case L'+':
                    format.plus = true;
                    break;
                case L' ':
                    format.blank = true;
                    break;
                case L'#':
                    format.alternate = true;
                    break;
                default:
                    format.zero = true;
            }
        }
        const auto width = ReadCount(number);
        if (!width) return false;
        if (*width < 0) format.left = true;
        format.width = static_cast<std::size_t>(std::abs(*width));
        if (Skip(L'.')) {
            const auto precision = ReadCount(number);
            if (!precision) return false;
            if (*precision >= 0) format.precision = static_cast<std::size_t>(*precision);
        }
        ReadSize(format);
        if (m_at == m_text.size()) return false;
        format.type = m_text[m_at++];
        return Skip(L'!');
    }

    // A width or precision; 0 where none is written, none where its argument is lacking.
    std::optional<std::int64_t> ReadCount(unsigned& number) {
        if (Skip(L'*')) {
            const auto argument = Argument(number++);
            if (!argument) return std::nullopt;
            return static_cast<std::int32_t>(*argument);
        }
        std::int64_t count = 0;
        while (NextDigit())
            count = std::min<std::int64_t>(count * 10 + (m_text[m_at++] - L'0'),
                                           std::numeric_limits<std::int32_t>::max());
        return count;
    }

    // As the platform writes sizes: "long" has 32 bits, I and z the size of a pointer.
    void ReadSize(Format& format) {
        using Size = Format::Size;
        if (Skip(L'h')) {
            format.size = Skip(L'h') ? Size::Byte : Size::Short;
        } else if (Skip(L'l')) {
            format.size = Skip(L'l') ? Size::Int64 : Size::Long;
        } else if (Skip(L'w')) {
            format.size = Size::Wide;
        } else if (m_text.substr(m_at, 3) == L"I32") {
            m_at += 3;
        } else if (m_text.substr(m_at, 3) == L"I64") {
            m_at += 3;
            format.size = Size::Int64;
        } else if (Skip(L'I') || Skip(L'z') || Skip(L't') || Skip(L'j')) {
            format.size = Size::Int64;
        }
    }

    bool PutValue(const Format& format, std::uint64_t value) {
        using Size = Format::Size;
        const bool narrow = format.size == Size::Short;
        const bool wide = format.size == Size::Long || format.size == Size::Wide;
        switch (format.type) {
            case L's':
                PutText(format, value, narrow);
                return true;
            case L'S':
                PutText(format, value, !wide);
                return true;
            case L'c':
                PutCharacter(format, value, narrow);
                return true;
            case L'C':
                PutCharacter(format, value, !wide);
                return true;
            case L'd':
            case L'i':
                PutSigned(format, value);
                return true;
            case L'u':
                PutNumber(format, {}, Sized(format.size, value), 10, false);
                return true;
            case L'o':
                PutNumber(format, {}, Sized(format.size, value), 8, false);
                return true;
            case L'x':
                PutNumber(format, L"0x", Sized(format.size, value), 16, false);
                return true;
            case L'X':
                PutNumber(format, L"0X", Sized(format.size, value), 16, true);
                return true;
            case L'p': {
                Format pointer = format;
                pointer.precision = 2 * sizeof(void*);
                PutNumber(pointer, L"0X", value, 16, true);
                return true;
            }
            default:
                return false;
        }
    }

    static std::uint64_t Sized(Format::Size size, std::uint64_t value) {
        switch (size) {
            case Format::Size::Byte:
                return static_cast<std::uint8_t>(value);
            case Format::Size::Short:
                return static_cast<std::uint16_t>(value);
            case Format::Size::Int64:
                return value;
            default:
                return static_cast<std::uint32_t>(value);
        }
    }

    void PutSigned(const Format& format, std::uint64_t value) {
        std::uint64_t bits = Sized(format.size, value);
        const std::uint64_t sign = Sized(format.size, ~std::uint64_t{0}) / 2 + 1;
        const bool negative = (bits & sign) != 0;
        if (negative) bits = Sized(format.size, ~bits + 1);
        PutDigits(format, negative ? L"-" : format.plus ? L"+" : format.blank ? L" " : L"", bits, 10, false);
    }

    void PutNumber(const Format& format, std::wstring_view prefix, std::uint64_t value, unsigned base,
                   bool upper) {
        PutDigits(format, format.alternate && value != 0 ? prefix : std::wstring_view{}, value, base, upper);
    }

    void PutDigits(const Format& format, std::wstring_view prefix, std::uint64_t value, unsigned base,
                   bool upper) {
        const wchar_t* const symbols = upper ? L"0123456789ABCDEF" : L"0123456789abcdef";
        wchar_t digits[24];
        std::size_t count = 0;
        for (; value != 0; value /= base)
            digits[count++] = symbols[value % base];
        std::size_t least = format.precision.value_or(1);
        if (base == 8 && format.alternate) least = std::max(least, count + 1);
        std::size_t zeros = least > count ? least - count : 0;
        const std::size_t size = prefix.size() + zeros + count;
        const std::size_t padding = format.width > size ? format.width - size : 0;
        if (format.zero && !format.left && !format.precision)
            zeros += padding;
        else if (!format.left)
            m_out.Put(L' ', padding);
        m_out.Put(prefix);
        m_out.Put(L'0', zeros);
        while (count > 0)
            m_out.Put(digits[--count]);
        if (format.left) m_out.Put(L' ', padding);
    }

    void PutPadded(const Format& format, std::wstring_view text) {
        const std::size_t padding = format.width > text.size() ? format.width - text.size() : 0;
        if (!format.left) m_out.Put(L' ', padding);
        m_out.Put(text);
        if (format.left) m_out.Put(L' ', padding);
    }

    // With a precision the text need not be terminated, so no character past it is looked at.
    void PutText(const Format& format, std::uint64_t value, bool narrow) {
        const std::size_t most = format.precision.value_or(None);
        if (value == 0) {
            PutPadded(format, NullText.substr(0, most));
        } else if (narrow) {
            const char* const text = reinterpret_cast<const char*>(static_cast<std::uintptr_t>(value));
            const std::string_view bytes(text, format.precision ? strnlen(text, most) : std::strlen(text));
            std::wstring wide(bytes.size(), L'\0');
            wide.resize(Utf8ToWide(bytes, wide));
            PutPadded(format, wide);
        } else {
            const wchar_t* const text = reinterpret_cast<const wchar_t*>(static_cast<std::uintptr_t>(value));
            std::size_t size = 0;
            while (size < most && text[size] != L'\0')
                ++size;
            PutPadded(format, {text, size});
        }
    }

    void PutCharacter(const Format& format, std::uint64_t value, bool narrow) {
        wchar_t wide = static_cast<wchar_t>(value);
        if (narrow) {
            const char byte = static_cast<char>(value);
            Utf8ToWide({&byte, 1}, {&wide, 1});
        }
        PutPadded(format, {&wide, 1});
    }

    std::wstring_view m_text;
    MessageLayout m_layout;
    MessageArguments* m_arguments;
    Lines m_out;
    std::size_t m_at = 0;
};

}  // namespace

DWORD FormatMessageText(std::wstring_view text, const MessageLayout& layout, MessageArguments* arguments,
                        std::wstring& out) {
    return Expansion(text, layout, arguments).Run(out);
}

}  // namespace Quellan::Platform
