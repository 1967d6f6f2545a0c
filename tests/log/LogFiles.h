// What tests of logs share.
#pragma once

#include "TQLib/log/TQLog.h"
#include "platform/PlatformTest.h"
#include "support/ReadBytes.h"

#include <filesystem>
#include <fstream>
#include <string>
#include <string_view>
#include <vector>

namespace Quellan::Corvel::Test {

namespace fs = std::filesystem;

inline void WriteBytes(const fs::path& path, std::string_view bytes) {
    std::ofstream(path, std::ios::binary) << bytes;
}

// A new folder for logs. A process keeps its logs open, and Windows keeps open files: there some may be left
// behind in the temporary folder.
class LogFolder {
  public:
    fs::path operator/(std::string_view name) const { return m_path / name; }
    const fs::path& Path() const { return m_path; }

  private:
    const TemporaryFolder m_folder;
    const fs::path m_path{m_folder.Path()};
};

inline TQLogPtr Open(const fs::path& path, ULONGLONG maxSize = 0) {
    return TQLog::GetLog(path.wstring().c_str(), maxSize);
}

inline std::vector<std::string> LinesOf(const std::string& bytes) {
    std::vector<std::string> lines;
    std::size_t begin = 0;
    for (std::size_t end; (end = bytes.find("\r\n", begin)) != bytes.npos; begin = end + 2)
        lines.push_back(bytes.substr(begin, end - begin));
    if (begin < bytes.size()) lines.push_back(bytes.substr(begin) + " (no line break)");
    return lines;
}

}  // namespace Quellan::Corvel::Test
