// Files in one go.
#pragma once

#include <filesystem>
#include <fstream>
#include <iterator>
#include <string>

namespace Quellan::Corvel::Test {

// What is in the file; nothing where there is none.
inline std::string ReadBytes(const std::filesystem::path& path) {
    std::ifstream file(path, std::ios::binary);
    return {std::istreambuf_iterator<char>(file), {}};
}

}  // namespace Quellan::Corvel::Test
