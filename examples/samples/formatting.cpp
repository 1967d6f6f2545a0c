#include "Samples.h"

#include <TQLib/TQLib.h>

using namespace Quellan::Corvel;

void FormattingSample() {
    const wchar_t* const name = L"CreateFileW";
    const unsigned code = 5;
    const TQString format(L"%s: %u");

    wchar_t line[200];
    const std::size_t length =
        FormatTo(line, L"%c %s [%lu]", L'E', name, code);  // no memory, cut off if too long
    const TQString text = TQString::Format(L"%s failed with 0x%08x", name, code);
    const TQString shown = TQString::FormatRuntime(format.c_str(), name, code);  // the format is no constant

    Expect(std::wstring_view(line, length) == L"E CreateFileW [5]", line);
    Expect(text == L"CreateFileW failed with 0x00000005", text.c_str());
    Expect(shown == L"CreateFileW: 5", shown.c_str());
}
