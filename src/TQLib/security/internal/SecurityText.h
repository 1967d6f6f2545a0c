// Reading and writing the texts of identifiers, entries and descriptors.
#pragma once

#include "TQLib/platform/Types.h"
#include "TQLib/security/SecID.h"
#include "TQLib/security/internal/EntryParts.h"
#include "TQLib/text/TQString.h"
#include "TQLib/text/memory/TQDataBuf.h"

#include <cstddef>
#include <string_view>

namespace Quellan::Sarvek {

// Goes through a text once, from its beginning to its end. The text must outlive it.
class TextReader {
  public:
    TextReader(std::wstring_view text, const wchar_t* where) noexcept : m_text(text), m_where(where) {}

    [[nodiscard]] bool IsAtEnd() const noexcept { return m_at == m_text.size(); }
    [[nodiscard]] std::size_t Offset() const noexcept { return m_at; }
    // The character `ahead` of the next one; a zero behind the end.
    [[nodiscard]] wchar_t Peek(std::size_t ahead = 0) const noexcept {
        return ahead < m_text.size() - m_at ? m_text[m_at + ahead] : L'\0';
    }
    [[nodiscard]] std::wstring_view Rest() const noexcept { return m_text.substr(m_at); }
    void Skip(std::size_t count) noexcept { m_at += count; }
    // Goes over what comes next if it is that.
    bool Take(wchar_t c) noexcept { return Take(std::wstring_view(&c, 1)); }
    bool Take(std::wstring_view token) noexcept {
        if (!Rest().starts_with(token)) return false;
        m_at += token.size();
        return true;
    }
    void Need(wchar_t c, DWORD code, const wchar_t* what) {
        if (!Take(c)) Refuse(code, what);
    }
    // Digits of that base, at least one, up to `most`.
    ULONGLONG TakeNumber(unsigned base, ULONGLONG most, DWORD code, const wchar_t* what);

    // Throws `TQSysException` with the message "where: what at offset N.".
    [[noreturn]] void Refuse(DWORD code, const wchar_t* what) const { RefuseAt(code, what, m_at); }
    [[noreturn]] void RefuseAt(DWORD code, const wchar_t* what, std::size_t offset) const;

  private:
    std::wstring_view m_text;
    std::size_t m_at = 0;
    const wchar_t* m_where;
};

// The value of a hexadecimal digit, 16 for what is none.
unsigned DigitOf(wchar_t c) noexcept;

// S-1-... or a name of two letters. Refuses with 1337.
SecID TakeIdentifier(TextReader& reader);
// The name where it has one that is the same everywhere, else S-1-...; throws 50 (ERROR_NOT_SUPPORTED) for
// one without sub-authorities, whose text means nothing.
void AppendIdentifier(Corvel::_TQwString& text, Bytes id);

// The next character, as one unit of UTF-16 or two, at the end of the units. Refuses with 1336.
void TakeUtf16(TextReader& reader, Corvel::BYTEBuf& units);
// Four hexadecimal digits as one unit. Refuses with 1336.
void TakeEncodedUnit(TextReader& reader, Corvel::BYTEBuf& units);
// The units as a text in quotes; throws 50 (ERROR_NOT_SUPPORTED) where they are none or hold a quote.
void AppendQuoted(Corvel::_TQwString& text, Bytes units);

// A condition in parentheses, as the data of an entry. Refuses with 1336.
Corvel::BYTEBuf TakeCondition(TextReader& reader);
// Throws 50 (ERROR_NOT_SUPPORTED) for data that is no condition.
void AppendCondition(Corvel::_TQwString& text, Bytes data);

// An attribute in parentheses, likewise.
Corvel::BYTEBuf TakeAttribute(TextReader& reader);
void AppendAttribute(Corvel::_TQwString& text, Bytes data);

// Rights as their names one after the other, or as a number where one has none.
void AppendRights(Corvel::_TQwString& text, DWORD rights, bool isLabel);

}  // namespace Quellan::Sarvek
