// What a loss of power may leave of a folder, built from the record of the steps by which it came to be.
//
// On the disk is what was synced. Of the rest each 512-byte piece of each write is there or not, on its own;
// a file is as long as it was at any time since its sync, and what nobody wrote in it is zero or rubbish;
// each name is as it was before or after. A file that was moved to another folder, which alone was synced,
// may have its old name as well.
#pragma once

#include "TQLib/platform/linux/base/Durable.h"

#include <filesystem>
#include <functional>
#include <vector>

namespace Quellan::Corvel::Test {

// Keeps record of what is done in a new folder until `End`. One at a time.
class PowerCut {
  public:
    PowerCut();
    ~PowerCut();
    PowerCut(const PowerCut&) = delete;
    PowerCut& operator=(const PowerCut&) = delete;

    const std::filesystem::path& Folder() const { return m_folder; }
    // Who asked for what was done up to here was told that it is done.
    void Acknowledge() { m_acknowledged.push_back(m_steps.size()); }
    void End();
    // After that: calls `check` with each state in which the folder could have been left, and the number of
    // acknowledgements before.
    void ForEachImage(const std::function<void(std::size_t acknowledged)>& check);

  private:
    const std::filesystem::path m_folder;
    std::vector<Platform::Durable::Step> m_steps;
    std::vector<std::size_t> m_acknowledged;  // the number of steps before each
};

}  // namespace Quellan::Corvel::Test
