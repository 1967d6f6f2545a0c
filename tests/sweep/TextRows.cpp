#include "sweep/Rows.h"
#include "text/TQDataBuf.h"
#include "text/TQFormat.h"
#include "text/TQString.h"
#include "text/TQStringArray.h"

namespace Quellan::Corvel::Test {

namespace {

const wchar_t Long[] = L"a text that no string keeps within itself, whatever its class";

TQString MakeText() {
    return TQString(Long);
}

}  // namespace

std::vector<SweptOperation> TextRows() {
    return {
        Swept("TQString copy", MakeText, [](const TQString& text) { const TQString copy(text); }),
        Swept(
            "TQString append", MakeText, [](TQString& text) { text += Long; }, Promise::Unchanged),
    };
}

}  // namespace Quellan::Corvel::Test
