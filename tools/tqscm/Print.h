// What the manager tells its operator, a line each on standard error.
#pragma once

namespace tqscm {

[[gnu::format(printf, 1, 2)]] void Print(const char* format, ...);

}  // namespace tqscm
