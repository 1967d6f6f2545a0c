#include "Command.h"

#include <algorithm>
#include <cwchar>

using namespace Quellan::Corvel;

namespace tq {

namespace {

constexpr std::size_t ColumnGap = 2;

// The colour of a cell that names a level, by the escape sequence's number; 0 for every other cell.
int ColourOf(const TQString& cell) {
    if (cell == L"Error") return 31;
    if (cell == L"Warning") return 33;
    if (cell == L"Success" || cell == L"Information") return 32;
    return 0;
}

}  // namespace

const TQString& Arguments::ValueOf(const TQString& option) {
    if (AtEnd()) throw UsageError(TQString::Format(L"%s needs a value", option.c_str()));
    return Next();
}

void Table::Print(TQConsole& out) const {
    std::vector<std::size_t> widths;
    std::vector<Row> rows = m_rows;
    for (Row& row : rows) {
        for (TQString& cell : row)
            cell = out.Shown(cell);
        widths.resize(std::max(widths.size(), row.size()));
        for (std::size_t i = 0; i < row.size(); ++i)
            widths[i] = std::max(widths[i], row[i].Length());
    }
    TQString text;
    for (const Row& row : rows) {
        for (std::size_t i = 0; i < row.size(); ++i) {
            const int colour = out.IsStyled() ? ColourOf(row[i]) : 0;
            if (colour) text.AppendFormat(L"\x1b[%dm", colour);
            text.Append(row[i]);
            if (colour) text.Append(L"\x1b[0m");
            if (i + 1 < row.size()) text.Append(std::wstring(widths[i] + ColumnGap - row[i].Length(), L' '));
        }
        text.Append(L"\n");
    }
    out.Write(text);
}

DWORD ParseNumber(const TQString& text, const wchar_t* what, DWORD last) {
    wchar_t* end = nullptr;
    const unsigned long long number = wcstoull(text.c_str(), &end, 10);
    if (text.IsEmpty() || text[0] < L'0' || text[0] > L'9' || *end != 0 || number > last)
        throw UsageError(TQString::Format(L"'%s' is no %s from 0 to %u", text.c_str(), what, last));
    return static_cast<DWORD>(number);
}

TQString OrDash(const TQString& text) {
    return text.IsEmpty() ? TQString(L"-") : text;
}

TQString JsonString(std::wstring_view text) {
    TQString json = L"\"";
    for (const wchar_t c : text) {
        if (c == L'"' || c == L'\\')
            json.AppendFormat(L"\\%c", c);
        else if (c < L' ' || (c >= 0x7F && c <= 0x9F))
            json.AppendFormat(L"\\u%04x", static_cast<unsigned>(c));
        else
            json += c;
    }
    return json.Append(L"\"");
}

}  // namespace tq
