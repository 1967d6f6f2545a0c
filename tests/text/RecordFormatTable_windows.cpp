// Prints FormatTable.inc: what the Windows runtime prints for each row of FormatRows.inc.

#include "text/FormatRows.h"

#include <array>
#include <cstdarg>
#include <cstdio>
#include <fcntl.h>
#include <io.h>

namespace Quellan::Corvel::Test {
namespace {

constexpr std::size_t MaxLength = 4096;

FormatRow Record(const char* arguments, const wchar_t* format, ...) {
    std::array<wchar_t, MaxLength> out;
    va_list list;
    va_start(list, format);
    const int length = _vsnwprintf(out.data(), out.size(), format, list);
    va_end(list);
    return MakeFormatRow<wchar_t>(format, arguments, {out.data(), static_cast<std::size_t>(length)});
}

FormatRow Record(const char* arguments, const char* format, ...) {
    std::array<char, MaxLength> out;
    va_list list;
    va_start(list, format);
    const int length = _vsnprintf(out.data(), out.size(), format, list);
    va_end(list);
    return MakeFormatRow<char>(format, arguments, {out.data(), static_cast<std::size_t>(length)});
}

std::string Literal(const std::string& text) {
    std::string result = "\"";
    for (const char c : text) {
        if (c == '"' || c == '\\') result += '\\';
        result += c == '\0' ? "\\000" : std::string(1, c);
    }
    return result + "\"s";
}

}  // namespace
}  // namespace Quellan::Corvel::Test

int main() {
    using namespace Quellan::Corvel::Test;
    _setmode(_fileno(stdout), _O_BINARY);  // the table has the line ends of its repository
    const FormatRow rows[] = {
#define WIDE(format, ...) Record(#__VA_ARGS__, format __VA_OPT__(, ) __VA_ARGS__),
#define NARROW(format, ...) Record(#__VA_ARGS__, format __VA_OPT__(, ) __VA_ARGS__),
#include "text/FormatRows.inc"
#undef WIDE
#undef NARROW
    };
    for (const FormatRow& row : rows) {
        std::printf("{%s, %s},\n", Literal(row.name).c_str(), Literal(row.printed).c_str());
    }
}
