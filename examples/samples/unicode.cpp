#include "Samples.h"

#include <TQLib/TQLib.h>

using namespace Quellan::Corvel;

void UnicodeSample() {
    const bool isSame = TQUnicode::CompareNoCase(L"Stra\u00DFe", L"STRASSE") == 0;
    const TQString loud = TQUnicode::ToUpperFull(L"Stra\u00DFe");  // STRASSE
    const bool isBefore = TQUnicode::CompareNatural(L"file9", L"file10") < 0;
    const TQString whole = TQUnicode::Normalise(L"cafe\u0301", TQUnicode::Form::Composed);
    const std::size_t columns = TQUnicode::Width(L"\u7CFB\u7EDF");  // 4

    const TQEncoding western(1252);
    const TQString price = western.Decode("5 \x80");
    const std::string bytes = western.Encode(price, {.isStrict = true});

    TQDecoder decoder(TQEncoding(L"UTF-16LE"), {.hasMark = true});
    TQString text = decoder.Decode(std::string_view("\xFF\xFEO\0k", 5));
    text += decoder.Decode(std::string_view("\0", 1));
    text += decoder.Finish();  // Ok

    const BYTEBuf key = TQBase64::Decode(L"Zm9vYg==");
    const TQString digits = TQHex::Encode({key.Data(), key.Size()});  // 666f6f62

    Expect(isSame && isBefore, L"order");
    Expect(loud == L"STRASSE", loud.c_str());
    Expect(whole == L"caf\u00E9", whole.c_str());
    Expect(columns == 4, L"width");
    Expect(price == L"5 \u20AC" && bytes == "5 \x80", price.c_str());
    Expect(text == L"Ok", text.c_str());
    Expect(digits == L"666f6f62", digits.c_str());
}
