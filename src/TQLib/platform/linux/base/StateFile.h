// Files of the state that are read as a whole and replaced as a whole, while one process at a time changes
// them.
#pragma once

#include "TQLib/platform/linux/base/Fork.h"
#include "TQLib/platform/linux/base/State.h"

#include <optional>
#include <string>

namespace Quellan::Platform {

// The exclusive right to change what stands in a folder, among all processes and threads that ask for it
// here. It ends with the process, however that ends and whomever it has forked meanwhile.
class StateLock {
  public:
    // Waits for as long as somebody else holds the lock of the file `name`, which is made where it is
    // missing.
    DWORD Take(const Descriptor& folder, const char* name) noexcept;

  private:
    std::optional<ProcessDescriptor> m_file;
};

// 2 (ERROR_FILE_NOT_FOUND), 5 (ERROR_ACCESS_DENIED) for a file that cannot be trusted, 1392
// (ERROR_FILE_CORRUPT) for one of more than `most` bytes. May throw std::bad_alloc.
DWORD ReadStateFile(const Descriptor& folder, const char* name, std::size_t most, std::string& text);

// Writes a new file, which does not last before it and its folder are synced. 80 (ERROR_FILE_EXISTS).
DWORD WriteNewStateFile(const Descriptor& folder, const char* name, unsigned mode, std::string_view text,
                        Descriptor& file) noexcept;

// Puts a file in place in one step, so that readers see the old one or the new one, and so does whoever comes
// after a crash. It is written as `stagedName` in `staging`, of the same file system, for which the caller
// holds a lock; what a killed process has left there is overwritten.
DWORD ReplaceStateFile(const Descriptor& staging, const char* stagedName, const Descriptor& folder,
                       const char* name, unsigned mode, std::string_view text) noexcept;

}  // namespace Quellan::Platform
