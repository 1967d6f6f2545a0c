// What the manager tells its operator, a line each on standard error.
#pragma once

namespace tqscm {

// On the loop's thread. Waits for nobody: a line that finds no room, or nobody who reads, is dropped, and how many
// were is said before the next that is written.
[[gnu::format(printf, 1, 2)]] void Print(const char* format, ...);

}  // namespace tqscm
