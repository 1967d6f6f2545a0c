// Prints FormatTable.txt, its argument, with what the Windows runtime prints in the last column.
#include "support/FormatRows.h"

#include <array>
#include <cstdarg>
#include <cstdio>
#include <fcntl.h>
#include <io.h>

namespace Quellan::Corvel::Test {
namespace {

constexpr std::size_t MaxLength = 4096;

template <class C, class Print>
std::string Recorded(const FormatRow& row, Print print) {
    std::vector<std::uint64_t> slots;
    for (const FormatArgument& argument : row.arguments)
        slots.push_back(argument.value);
    std::array<C, MaxLength> out;
    // A list of arguments is the place of the first, and each has eight bytes.
    const int length =
        print(out.data(), out.size(), std::basic_string<C>(row.format.begin(), row.format.end()).c_str(),
              reinterpret_cast<va_list>(slots.data()));
    std::string text;
    for (int i = 0; i < length; ++i)
        text += out[static_cast<std::size_t>(i)]
                    ? std::string(1, static_cast<char>(out[static_cast<std::size_t>(i)]))
                    : "\\0";
    return text;
}

}  // namespace
}  // namespace Quellan::Corvel::Test

int main(int, char** arguments) {
    using namespace Quellan::Corvel::Test;
    _setmode(_fileno(stdout), _O_BINARY);  // the table has the line ends of its repository
    std::ifstream file(arguments[1], std::ios::binary);
    for (std::string line; std::getline(file, line);) {
        if (!line.starts_with('#')) {
            const FormatRow row(line);
            line.erase(line.rfind('\t') + 1);
            line += row.isWide ? Recorded<wchar_t>(row, _vsnwprintf) : Recorded<char>(row, _vsnprintf);
        }
        std::printf("%s\n", line.c_str());
    }
}
