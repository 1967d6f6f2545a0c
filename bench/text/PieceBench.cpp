#include "TQLib/text/TQSplit.h"
#include "TQLib/text/TQString.h"
#include "text/Cases.h"

#include <absl/strings/str_join.h>
#include <absl/strings/str_split.h>
#include <memory>
#include <string>
#include <string_view>
#include <vector>

namespace Quellan::Corvel::Bench {
namespace {

// A record of 20 fields, some of them empty.
struct Record {
    Record() {
        static constexpr std::string_view Words[] = {"service",         "",   "17", "C:\\Program Files",
                                                     "automatic start", "2.5"};
        for (std::size_t i = 0; i < 20; ++i)
            fields.emplace_back(Words[i % std::size(Words)]);
        text = absl::StrJoin(fields, ",");
        wide.assign(text.begin(), text.end());
        wideFields.reserve(fields.size());
        for (const std::string& field : fields)
            wideFields.emplace_back(field.begin(), field.end());
    }

    std::vector<std::string> fields;
    std::vector<std::wstring> wideFields;
    std::string text;
    std::wstring wide;
};

template <class Pieces>
std::size_t LengthsOf(const Pieces& pieces) {
    std::size_t length = 0;
    for (const auto piece : pieces)
        length += piece.size();
    return length;
}

// The loop that everybody writes.
template <class C>
std::size_t LengthsByFind(std::basic_string_view<C> text, C separator) {
    std::size_t length = 0;
    for (std::size_t begin = 0;;) {
        const std::size_t end = text.find(separator, begin);
        length += text.substr(begin, end - begin).size();
        if (end == text.npos) return length;
        begin = end + 1;
    }
}

template <class String>
void AppendCharacters() {
    String text;
    for (int i = 0; i < 20; ++i)
        text += L'x';
    Keep(text.c_str());
}

}  // namespace

void AddPieces(Contest& contest) {
    const auto r = std::make_shared<Record>();

    contest.Add("append 20 characters", "TQString", &AppendCharacters<TQString>);
    contest.Add("append 20 characters", "std::wstring", &AppendCharacters<std::wstring>);

    contest.Add("split at a character", "TQSplitAt", [r] { Keep(LengthsOf(TQSplitAt(r->text, ','))); });
    contest.Add("split at a character", "absl::StrSplit",
                [r] { Keep(LengthsOf(absl::StrSplit(r->text, ','))); });
    contest.Add("split at a character", "find and substr",
                [r] { Keep(LengthsByFind(std::string_view(r->text), ',')); });

    contest.Add("split wide text at a character", "TQSplitAt",
                [r] { Keep(LengthsOf(TQSplitAt(r->wide, L','))); });
    contest.Add("split wide text at a character", "find and substr",
                [r] { Keep(LengthsByFind(std::wstring_view(r->wide), L',')); });

    contest.Add("split at any of a set", "TQSplitAtAny",
                [r] { Keep(LengthsOf(TQSplitAtAny(r->text, ",;: "))); });
    contest.Add("split at any of a set", "absl::StrSplit",
                [r] { Keep(LengthsOf(absl::StrSplit(r->text, absl::ByAnyChar(",;: ")))); });

    contest.Add("join 20 texts", "TQJoin", [r] { Keep(TQJoin(r->fields, ", ").c_str()); });
    contest.Add("join 20 texts", "absl::StrJoin", [r] { Keep(absl::StrJoin(r->fields, ", ").c_str()); });

    contest.Add("join 20 wide texts", "TQJoin", [r] { Keep(TQJoin(r->wideFields, L", ").c_str()); });
    contest.Add("join 20 wide texts", "append each", [r] {
        std::wstring joined;
        for (const std::wstring& field : r->wideFields) {
            if (!joined.empty()) joined += L", ";
            joined += field;
        }
        Keep(joined.c_str());
    });
}

}  // namespace Quellan::Corvel::Bench
