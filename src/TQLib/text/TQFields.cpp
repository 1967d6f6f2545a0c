#include "TQLib/text/TQFields.h"

#include "TQLib/text/internal/Refuse.h"

#include <algorithm>
#include <array>

namespace Quellan::Corvel {
namespace {

template <class C>
bool IsLineEnd(C c) noexcept {
    return c == C{'\n'} || c == C{'\r'};
}

// What ends a field without quotation marks, or must not stand in it.
template <class C>
std::array<C, 4> Special(_TQFieldMarksT<C> marks) noexcept {
    return {marks.separator, marks.quote, C{'\n'}, C{'\r'}};
}

template <class C>
std::size_t FindSpecial(std::basic_string_view<C> text, std::size_t from, _TQFieldMarksT<C> marks) noexcept {
    const std::array<C, 4> special = Special(marks);
    return std::min(_TQCharacterSet<C>({special.data(), special.size()}).Find(text, from), text.size());
}

template <class C>
void AppendField(_TQStringT<C>& record, std::basic_string_view<C> field, _TQFieldMarksT<C> marks) {
    if (FindSpecial(field, 0, marks) == field.size()) {
        record += field;
        return;
    }
    const std::basic_string_view<C> quote(&marks.quote, 1);
    record += quote;
    for (;;) {
        const std::size_t mark = field.find(marks.quote);
        record += field.substr(0, mark);
        if (mark == field.npos) break;
        record += quote;
        record += quote;
        field.remove_prefix(mark + 1);
    }
    record += quote;
}

}  // namespace

template <class C>
_TQFieldReaderT<C>::_TQFieldReaderT(_TQTextT<C> text, _TQFieldMarksT<C> marks) noexcept
    : m_text(text.View()), m_marks(marks) {}

template <class C>
std::size_t _TQFieldReaderT<C>::Offset() const noexcept {
    return m_at;
}

template <class C>
bool _TQFieldReaderT<C>::AtFieldEnd() const noexcept {
    return m_at == m_text.size() || m_text[m_at] == m_marks.separator || IsLineEnd(m_text[m_at]);
}

template <class C>
bool _TQFieldReaderT<C>::NextRecord() {
    while (m_inRecord)
        (void)NextField();
    m_inRecord = m_at < m_text.size();
    return m_inRecord;
}

template <class C>
std::optional<std::basic_string_view<C>> _TQFieldReaderT<C>::NextField() {
    if (!m_inRecord) return std::nullopt;
    std::basic_string_view<C> field;
    if (m_at < m_text.size() && m_text[m_at] == m_marks.quote) {
        field = ReadQuoted();
    } else {
        const std::size_t end = FindSpecial(m_text, m_at, m_marks);
        field = m_text.substr(m_at, end - m_at);
        m_at = end;
        if (!AtFieldEnd()) RefuseAt(L"TQFieldReader", L"quotation mark inside a field", m_at);
    }
    m_inRecord = m_at < m_text.size() && m_text[m_at] == m_marks.separator;
    if (m_at < m_text.size()) {
        const bool isReturn = m_text[m_at] == C{'\r'};
        ++m_at;
        if (isReturn && m_at < m_text.size() && m_text[m_at] == C{'\n'}) ++m_at;
    }
    return field;
}

template <class C>
std::basic_string_view<C> _TQFieldReaderT<C>::ReadQuoted() {
    const std::size_t begin = m_at + 1;
    const auto findQuote = [&](std::size_t from) {
        const std::size_t at = m_text.find(m_marks.quote, from);
        if (at == m_text.npos) RefuseAt(L"TQFieldReader", L"quotation mark that is not closed", begin - 1);
        return at;
    };
    std::size_t end = findQuote(begin);
    std::basic_string_view<C> field = m_text.substr(begin, end - begin);
    if (end + 1 < m_text.size() && m_text[end + 1] == m_marks.quote) {
        Translated(L"TQFieldReader", [&] {
            m_unquoted.assign(field);
            while (end + 1 < m_text.size() && m_text[end + 1] == m_marks.quote) {
                // The second of the two, and what stands behind it.
                const std::size_t next = findQuote(end + 2);
                m_unquoted.append(m_text.substr(end + 1, next - end - 1));
                end = next;
            }
        });
        field = m_unquoted;
    }
    m_at = end + 1;
    if (!AtFieldEnd()) RefuseAt(L"TQFieldReader", L"text behind a closing quotation mark", m_at);
    return field;
}

template class _TQFieldReaderT<wchar_t>;
template class _TQFieldReaderT<char>;

void TQAppendField(_TQwString& record, std::wstring_view field, TQFieldMarks marks) {
    AppendField(record, field, marks);
}
void TQAppendField(_TQaString& record, std::string_view field, TQaFieldMarks marks) {
    AppendField(record, field, marks);
}

}  // namespace Quellan::Corvel
