#include "TQLib/text/TQBase64.h"
#include "TQLib/text/TQUnicode.h"
#include "text/Cases.h"

#include <absl/strings/escaping.h>
#include <memory>
#include <string>
#include <unicode/normalizer2.h>
#include <unicode/unistr.h>
#include <vector>

namespace Quellan::Corvel::Bench {
namespace {

struct Bytes {
    explicit Bytes(std::size_t size) : bytes(size) {
        unsigned value = 1;
        for (BYTE& byte : bytes)
            byte = static_cast<BYTE>((value = value * 1103515245 + 12345) >> 16);
        narrow.assign(bytes.begin(), bytes.end());
        text = TQBase64::EncodeNarrow(bytes);
    }

    std::vector<BYTE> bytes;
    std::string narrow;
    std::string text;
};

// The same text for both: ours in wide characters, ICU's in its own.
struct Text {
    explicit Text(const wchar_t* piece) {
        while (wide.Length() < 1000)
            wide += piece;
        const std::u16string units = wide.ToUtf16();
        icu = icu::UnicodeString(units.data(), static_cast<int32_t>(units.size()));
    }

    TQString wide;
    icu::UnicodeString icu;
};

void AddNormalisation(Contest& contest, const std::string& work, const wchar_t* piece) {
    const auto t = std::make_shared<Text>(piece);
    contest.Add("compose " + work, "TQUnicode",
                [t] { Keep(TQUnicode::Normalise(t->wide.View(), TQUnicode::Form::Composed).c_str()); });
    contest.Add("compose " + work, "ICU", [t] {
        UErrorCode code = U_ZERO_ERROR;
        Keep(icu::Normalizer2::getNFCInstance(code)->normalize(t->icu, code).getBuffer());
    });
    contest.Add("decompose " + work, "TQUnicode",
                [t] { Keep(TQUnicode::Normalise(t->wide.View(), TQUnicode::Form::Decomposed).c_str()); });
    contest.Add("decompose " + work, "ICU", [t] {
        UErrorCode code = U_ZERO_ERROR;
        Keep(icu::Normalizer2::getNFDInstance(code)->normalize(t->icu, code).getBuffer());
    });
    contest.Add("fold " + work, "TQUnicode", [t] { Keep(TQUnicode::FoldCase(t->wide.View()).c_str()); });
    contest.Add("fold " + work, "ICU", [t] { Keep(icu::UnicodeString(t->icu).foldCase().getBuffer()); });
    const auto upper = std::make_shared<Text>(TQUnicode::ToUpperFull(piece).c_str());
    contest.Add("compare without case " + work, "TQUnicode",
                [t, upper] { Keep(TQUnicode::CompareNoCase(t->wide.View(), upper->wide.View())); });
    contest.Add("compare without case " + work, "ICU",
                [t, upper] { Keep(t->icu.caseCompare(upper->icu, U_FOLD_CASE_DEFAULT)); });
}

}  // namespace

void AddUnicode(Contest& contest) {
    for (const std::size_t size : {24, 1000}) {
        const auto t = std::make_shared<Bytes>(size);
        const std::string work = std::to_string(size) + " bytes";
        contest.Add("base 64 of " + work, "TQBase64",
                    [t] { Keep(TQBase64::EncodeNarrow(t->bytes).c_str()); });
        contest.Add("base 64 of " + work, "absl::Base64Escape",
                    [t] { Keep(absl::Base64Escape(t->narrow).c_str()); });
        contest.Add("base 64 to " + work, "TQBase64", [t] { Keep(TQBase64::Decode(t->text).Data()); });
        contest.Add("base 64 to " + work, "absl::Base64Unescape", [t] {
            std::string bytes;
            Keep(absl::Base64Unescape(t->text, &bytes));
        });
    }
    AddNormalisation(contest, "1000 of ASCII", L"The service could not be started. ");
    AddNormalisation(contest, "1000 of French",
                     L"L\u2019\u00E9l\u00E8ve a pr\u00E9f\u00E9r\u00E9 No\u00EBl. ");
    AddNormalisation(contest, "1000 with marks", L"Ame\u0301lie re\u0302ve a\u0300 Noe\u0308l. ");
    AddNormalisation(contest, "1000 of Korean",
                     L"\uC11C\uBE44\uC2A4\uB97C \uC2DC\uC791\uD560 \uC218 \uC5C6\uB2E4. ");
}

}  // namespace Quellan::Corvel::Bench
