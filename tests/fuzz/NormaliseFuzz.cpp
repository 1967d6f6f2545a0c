// Text in UTF-8 for normalisation, case and order.
#include "Require.h"
#include "TQLib/text/TQUnicode.h"

using namespace Quellan::Corvel;

namespace {

using Form = TQUnicode::Form;

void CheckForm(std::wstring_view text, const TQString& normal, Form form) {
    Require(TQUnicode::IsNormalised(text, form) == (normal == text));
    Require(TQUnicode::IsNormalised(normal, form));
    Require(TQUnicode::Normalise(normal, form) == normal);
}

}  // namespace

extern "C" int LLVMFuzzerTestOneInput(const std::uint8_t* data, std::size_t size) {
    const TQString text = TQString::FromUtf8(std::string_view(reinterpret_cast<const char*>(data), size));
    const TQString composed = TQUnicode::Normalise(text, Form::Composed);
    const TQString decomposed = TQUnicode::Normalise(text, Form::Decomposed);
    CheckForm(text, composed, Form::Composed);
    CheckForm(text, decomposed, Form::Decomposed);
    Require(TQUnicode::Normalise(composed, Form::Decomposed) == decomposed);
    Require(TQUnicode::Normalise(decomposed, Form::Composed) == composed);

    const TQString folded = TQUnicode::FoldCase(text);
    Require(TQUnicode::FoldCase(folded) == folded);
    Require(TQUnicode::CompareNoCase(text, folded) == 0);
    const std::wstring_view left = text.View().substr(0, text.Length() / 2);
    const std::wstring_view right = text.View().substr(text.Length() / 2);
    for (const TQUnicode::Case how : {TQUnicode::Case::Exact, TQUnicode::Case::Ignored})
        Require(TQUnicode::CompareNatural(left, right, how) == -TQUnicode::CompareNatural(right, left, how));
    Require(TQUnicode::Width(left) + TQUnicode::Width(right) == TQUnicode::Width(text));
    return 0;
}
