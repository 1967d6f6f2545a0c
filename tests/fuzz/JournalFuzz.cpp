// What a killed service manager left behind the header of this boot. What could be read is written anew, and
// is then read as it was written.
#include "../../tools/tqscm/Journal.h"

#include <cstdint>
#include <cstdlib>
#include <filesystem>
#include <fstream>
#include <iterator>

namespace {

std::string Bytes(const std::string& path) {
    std::ifstream file(path, std::ios::binary);
    return {std::istreambuf_iterator<char>(file), {}};
}

// The journal's file of this process, in memory where the system has a place for that.
class JournalFile {
  public:
    JournalFile() {
        std::filesystem::remove(m_path);
        m_header = WrittenAnew();
    }
    ~JournalFile() { std::filesystem::remove(m_path); }

    void WriteBehindHeader(std::string_view bytes) const {
        std::ofstream(m_path, std::ios::binary) << m_header << bytes;
    }
    std::string WrittenAnew() const {
        tqscm::Journal{m_path};
        return Bytes(m_path);
    }

  private:
    const std::filesystem::path m_folder =
        std::filesystem::exists("/dev/shm") ? "/dev/shm" : std::filesystem::temp_directory_path();
    const std::string m_path = m_folder / ("tqscm-journal-fuzz-" + std::to_string(getpid()));
    std::string m_header;
};

}  // namespace

extern "C" int LLVMFuzzerTestOneInput(const std::uint8_t* data, std::size_t size) {
    static const JournalFile file;
    file.WriteBehindHeader({reinterpret_cast<const char*>(data), size});
    const std::string once = file.WrittenAnew();
    if (file.WrittenAnew() != once) std::abort();
    return 0;
}
