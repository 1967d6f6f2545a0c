// A module with code that leaves a trace while it is loaded as such.
#include "TQLib/platform/Win32.h"

#include <new>

namespace {

void Nothing() {
    throw std::bad_alloc();
}

class Trace {
  public:
    ~Trace() { std::set_new_handler(m_before); }

  private:
    std::new_handler m_before = std::set_new_handler(&Nothing);
};

const Trace g_trace;

}  // namespace

extern "C" TQLIB_API int CodeModuleAnswer() {
    return 42;
}
