// A small file beside the kernel's own calls for it.
#include "TQLib/TQLib.h"
#include "TQLib/platform/Win32.h"
#include "support/Bench.h"

#include <cstdlib>
#include <fcntl.h>
#include <filesystem>
#include <string>
#include <unistd.h>

namespace {

using namespace Quellan::Corvel;
using namespace Quellan::Corvel::Bench;

constexpr std::size_t Size = 1'000;

// In the folder for temporary files, while it lives.
class SmallFile {
  public:
    SmallFile() {
        const int file = open(m_path.c_str(), O_WRONLY | O_CREAT | O_EXCL, 0600);
        const std::string text(Size, 'x');
        if (file < 0 || write(file, text.data(), Size) != static_cast<ssize_t>(Size)) std::abort();
        close(file);
    }
    SmallFile(const SmallFile&) = delete;
    SmallFile& operator=(const SmallFile&) = delete;
    ~SmallFile() { std::filesystem::remove(m_path); }
    const std::string& Path() const { return m_path; }

  private:
    static inline unsigned s_count = 0;
    const std::string m_path = std::filesystem::temp_directory_path() /
                               ("tqbench-" + std::to_string(getpid()) + "-" + std::to_string(s_count++));
};

class LibraryFile {
  public:
    void operator()() {
        _TQFile file(m_name, GENERIC_READ, OPEN_EXISTING, 0, _TQFile::FileShare::Read, {});
        if (file.Read(m_bytes, Size) != Size) std::abort();
    }

  private:
    SmallFile m_file;
    const TQFileName m_name{std::wstring(m_file.Path().begin(), m_file.Path().end()).c_str()};
    char m_bytes[Size];
};

class KernelFile {
  public:
    void operator()() {
        const int file = open(m_file.Path().c_str(), O_RDONLY | O_CLOEXEC);
        if (read(file, m_bytes, Size) != static_cast<ssize_t>(Size)) std::abort();
        close(file);
    }

  private:
    SmallFile m_file;
    char m_bytes[Size];
};

}  // namespace

int main(int argc, char** argv) {
    Contest contest;
    const char* const work = "open, read and close a small file";
    contest.AddMade<LibraryFile>(Setting::OneThread, work, "TQFile");
    contest.AddMade<KernelFile>(Setting::OneThread, work, "open, read, close");
    return contest.Run(argc, argv);
}
