// Tables that tests read from the folder tests/data.
#pragma once

#include <fstream>
#include <gtest/gtest.h>
#include <sstream>
#include <string>
#include <vector>

namespace Quellan::Corvel::Test {

// The lines of the file, without empty ones and those that begin with '#'. Fails the test when there are
// none.
inline std::vector<std::string> DataLines(const char* name) {
    std::vector<std::string> lines;
    std::ifstream file(std::string(TQ_TEST_DATA "/") + name);
    for (std::string line; std::getline(file, line);)
        if (!line.empty() && line[0] != '#') lines.push_back(line);
    EXPECT_FALSE(lines.empty()) << name;
    return lines;
}

// The parts of a line between its tabs, or between others.
inline std::vector<std::string> Fields(const std::string& line, char between = '\t') {
    std::vector<std::string> fields;
    std::istringstream in(line + between);  // the last one may be empty
    for (std::string field; std::getline(in, field, between);)
        fields.push_back(field);
    return fields;
}

}  // namespace Quellan::Corvel::Test
