// What a killed service manager left behind the header of this boot: as it is, and as what a record with its
// checksum holds. What could be read is written anew, and is then whole.
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
    bool IsWhole() const { return !tqscm::Journal(m_path).WasDamaged(); }

  private:
    const std::filesystem::path m_folder =
        std::filesystem::exists("/dev/shm") ? "/dev/shm" : std::filesystem::temp_directory_path();
    const std::string m_path = m_folder / ("tqscm-journal-fuzz-" + std::to_string(getpid()));
    std::string m_header;
};

std::string Number(std::uint32_t number) {
    return {static_cast<char>(number), static_cast<char>(number >> 8), static_cast<char>(number >> 16),
            static_cast<char>(number >> 24)};
}

std::string Framed(std::string_view bytes) {
    std::uint32_t sum = ~0u;
    for (const char byte : bytes) {
        sum ^= static_cast<unsigned char>(byte);
        for (int bit = 0; bit < 8; ++bit)
            sum = sum >> 1 ^ (sum & 1 ? 0xEDB88320u : 0u);
    }
    return "TQJ2" + Number(static_cast<std::uint32_t>(bytes.size())) + Number(~sum) + std::string(bytes);
}

}  // namespace

extern "C" int LLVMFuzzerTestOneInput(const std::uint8_t* data, std::size_t size) {
    static const JournalFile file;
    const std::string_view bytes(reinterpret_cast<const char*>(data), size);
    for (const std::string& left : {std::string(bytes), Framed(bytes)}) {
        file.WriteBehindHeader(left);
        const std::string once = file.WrittenAnew();
        if (!file.IsWhole() || file.WrittenAnew() != once) std::abort();
    }
    return 0;
}
