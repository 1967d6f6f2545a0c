// A small disk of a test's own, where it may have one: temporary folders that are made while it lives lie
// there.
#pragma once

#include "PlatformTest.h"

#include <filesystem>
#include <fstream>
#include <optional>
#include <sys/mount.h>
#include <unistd.h>

namespace Quellan::Corvel::Test {

class SmallDisk {
  public:
    SmallDisk() {
        m_isMounted = geteuid() == 0 && mount("none", m_path.c_str(), "tmpfs", 0, "size=4m,mode=755") == 0;
        if (m_isMounted) m_temporary.emplace(L"TMPDIR", (m_folder.Path() + L"/").c_str());
    }
    ~SmallDisk() {
        if (m_isMounted) umount2(m_path.c_str(), MNT_DETACH);
    }
    SmallDisk(const SmallDisk&) = delete;
    SmallDisk& operator=(const SmallDisk&) = delete;

    bool IsThere() const { return m_isMounted; }
    void Fill() const {
        std::ofstream file(m_path + "/fill", std::ios::binary);
        const std::string block(4096, 'x');
        while (file.write(block.data(), 4096).flush()) {
        }
    }
    void Empty() const { std::filesystem::remove(m_path + "/fill"); }

  private:
    const TemporaryFolder m_folder;
    const std::string m_path = std::filesystem::path(m_folder.Path()).string();
    bool m_isMounted = false;
    std::optional<EnvironmentVariable> m_temporary;
};

}  // namespace Quellan::Corvel::Test
