#include "TQLib/services/internal/CommandLineText.h"

namespace Quellan::Corvel {

namespace {

// A quotation mark stands behind a backslash, and backslashes are doubled where a quotation mark follows
// them.
void AppendQuoted(TQString& line, const TQString& argument) {
    const bool isPlain = !argument.IsEmpty() && argument.View().find_first_of(L" \t\"") == TQString::NotFound;
    if (isPlain) {
        line += argument;
        return;
    }
    line += L"\"";
    std::size_t backslashes = 0;
    for (const wchar_t c : argument.View()) {
        if (c == L'"')
            for (std::size_t i = 0; i <= backslashes; ++i)
                line += L"\\";
        backslashes = c == L'\\' ? backslashes + 1 : 0;
        line += c;
    }
    for (; backslashes > 0; --backslashes)
        line += L"\\";
    line += L"\"";
}

}  // namespace

TQString CommandLineText(const TQString& program, const TQStringArray& arguments) {
    TQString line = TQString::Format(L"\"%s\"", program);
    for (const TQString& argument : arguments) {
        line += L" ";
        AppendQuoted(line, argument);
    }
    return line;
}

}  // namespace Quellan::Corvel
