// Records of fields in a text, as spreadsheets and databases exchange them: a record a line, a separator between fields,
// and quotation marks around fields that have a separator, a quotation mark or a line's end in them, where a quotation
// mark stands twice for itself.
//
//     TQFieldReader reader(text);
//     while (reader.NextRecord())
//         while (const auto field = reader.NextField()) ...
#pragma once

#include "TQLib/platform/Types.h"
#include "TQLib/text/TQSplit.h"
#include "TQLib/text/TQString.h"

#include <cstddef>
#include <optional>
#include <ranges>
#include <string>
#include <string_view>

namespace Quellan::Corvel {

// Which characters divide and quote fields; neither is a line's end, and they differ.
template <class C>
struct _TQFieldMarksT {
    C separator = C{','};
    C quote = C{'"'};
};

// Reads records one after the other, fields one after the other. A line ends with a line feed, a carriage return or
// both; the last one need not. An empty line is a record of one empty field.
//
// Failures: 13 (ERROR_INVALID_DATA) with the offset for a quotation mark inside a field that does not begin with one,
// for one that is never closed, and for what follows a closed one; exhausted memory as the strings. After a failure the
// reader can only be destroyed.
//
// Threads: one reader on one thread at a time.
template <class C>
class _TQFieldReaderT {
  public:
    // `text` must outlive the reader.
    explicit _TQFieldReaderT(_TQTextT<C> text, _TQFieldMarksT<C> marks = {}) noexcept;

    // Goes to the next record, over what is left of the present one; false where there is none.
    bool NextRecord();
    // The next field of the present record, none behind its last. Valid until the next call.
    [[nodiscard]] std::optional<std::basic_string_view<C>> NextField();
    // How many characters were read.
    [[nodiscard]] std::size_t Offset() const noexcept;

  private:
    [[nodiscard]] bool AtFieldEnd() const noexcept;
    [[nodiscard]] std::basic_string_view<C> ReadQuoted();

    std::basic_string_view<C> m_text;
    _TQFieldMarksT<C> m_marks;
    std::size_t m_at = 0;
    bool m_inRecord = false;
    std::basic_string<C> m_unquoted;
};

extern template class TQLIB_API _TQFieldReaderT<wchar_t>;
extern template class TQLIB_API _TQFieldReaderT<char>;

using TQFieldReader = _TQFieldReaderT<wchar_t>;
using TQaFieldReader = _TQFieldReaderT<char>;
using TQFieldMarks = _TQFieldMarksT<wchar_t>;
using TQaFieldMarks = _TQFieldMarksT<char>;

// Appends a field, quoted where it must be. Fails as the strings do.
TQLIB_API void TQAppendField(_TQwString& record, std::wstring_view field, TQFieldMarks marks = {});
TQLIB_API void TQAppendField(_TQaString& record, std::string_view field, TQaFieldMarks marks = {});

// One record without a line's end, which a reader gives back as it was. Fails as the strings do.
template <class R, class C = _TQCharacterOf<std::ranges::range_reference_t<R>>>
requires _TQTexts<R, C>
[[nodiscard]] _TQStringT<C> TQJoinFields(R&& fields, _TQFieldMarksT<std::type_identity_t<C>> marks = {}) {
    _TQStringT<C> record;
    bool isFirst = true;
    for (auto&& field : fields) {
        if (!isFirst) record += marks.separator;
        TQAppendField(record, _TQTextT<C>(field).View(), marks);
        isFirst = false;
    }
    return record;
}

}  // namespace Quellan::Corvel
