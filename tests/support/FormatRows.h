// Tables of formats, arguments and what is to be printed: FormatTable.txt says what they are made of.
#pragma once

#include <bit>
#include <charconv>
#include <cstdint>
#include <deque>
#include <fstream>
#include <sstream>
#include <string>
#include <vector>

namespace Quellan::Corvel::Test {

struct FormatArgument {
    char kind;            // as in the table
    std::uint64_t value;  // of a real its bits, of a text its address
};

struct FormatRow {
    std::string line;
    std::string kind, format;
    bool isWide = false;
    std::vector<FormatArgument> arguments;
    std::string printed;
    std::deque<std::string> narrowTexts;
    std::deque<std::wstring> wideTexts;

    explicit FormatRow(std::string text) : line(std::move(text)) {
        std::istringstream cells(line);
        std::string all, argument;
        std::getline(cells, kind, '\t');
        std::getline(cells, format, '\t');
        std::getline(cells, all, '\t');
        std::getline(cells, printed);
        isWide = kind == "wide";
        if (const auto zero = printed.find("\\0"); zero != printed.npos) printed.replace(zero, 2, 1, '\0');
        for (std::istringstream rest(all); rest >> argument;)
            arguments.push_back({argument[0], ValueOf(argument[0], argument.substr(1))});
    }

  private:
    std::uint64_t ValueOf(char type, const std::string& text) {
        if (type == 'w')
            return std::bit_cast<std::uint64_t>(wideTexts.emplace_back(text.begin(), text.end()).c_str());
        if (type == 'n') return std::bit_cast<std::uint64_t>(narrowTexts.emplace_back(text).c_str());
        if (type == 'W' || type == 'N') return 0;
        if (type == 'r' && !text.starts_with("0x")) {
            double value = 0;
            std::from_chars(text.data(), text.data() + text.size(), value);
            return std::bit_cast<std::uint64_t>(value);
        }
        return text.starts_with('-') ? 0 - std::stoull(text.substr(1), nullptr, 0)
                                     : std::stoull(text, nullptr, 0);
    }
};

inline std::deque<FormatRow> ReadFormatRows(const char* path) {
    std::deque<FormatRow> rows;
    std::ifstream file(path, std::ios::binary);
    for (std::string line; std::getline(file, line);)
        if (!line.starts_with('#')) rows.emplace_back(line);
    return rows;
}

}  // namespace Quellan::Corvel::Test
