// What tests of logs share.
#pragma once

#include "TQLib/log/TQLog.h"
#include "TQLib/platform/Win32.h"
#include "support/ReadBytes.h"

#include <atomic>
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
    LogFolder() : LogFolder(fs::temp_directory_path()) {}
    explicit LogFolder(const fs::path& in) : m_path(in / Name()) { fs::create_directory(m_path); }
    ~LogFolder() {
        std::error_code ignored;
        fs::remove_all(m_path, ignored);
    }
    LogFolder(const LogFolder&) = delete;
    LogFolder& operator=(const LogFolder&) = delete;

    fs::path operator/(std::string_view name) const { return m_path / name; }
    const fs::path& Path() const { return m_path; }

  private:
    static std::string Name() {
        static std::atomic<unsigned> count = 0;
        return "tqlog-" + std::to_string(GetCurrentProcessId()) + "-" + std::to_string(count++);
    }

    const fs::path m_path;
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
