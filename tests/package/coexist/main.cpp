// Uses TQLib and a library that has names of the platform: each calls its own. Ends with the number of the first check
// that fails.
#include <TQLib.h>
#include <TQLib/platform/Platform.h>
using namespace Quellan::Corvel;

namespace InC {
extern "C" {
extern int other_c_calls;
unsigned GetTickCount();
int CloseHandle(void* handle);
unsigned other_c_sum();
}
}  // namespace InC
extern int other_calls;
unsigned GetTickCount();
int CloseHandle(void* handle);
unsigned other_sum();

int main() {
    // Waits, closes handles and reads the clock.
    {
        const TQEvent event(true);
        event.Set();
        if (!event.Wait(0)) return 1;
    }
    const auto event = Quellan::Platform::CreateEventW(nullptr, 1, 0, nullptr);
    if (Quellan::Platform::CloseHandle(event) != 1) return 2;
    if (Quellan::Platform::CloseHandle(event) != 0) return 3;  // closed
    if (Quellan::Platform::GetTickCount64() == 0) return 4;
    if (InC::other_c_calls != 0 || other_calls != 0) return 5;

    if (InC::other_c_sum() != 3 || InC::GetTickCount() != 1 || InC::CloseHandle(&InC::other_c_calls) != 2)
        return 6;
    if (other_sum() != 7 || GetTickCount() != 3 || CloseHandle(&other_calls) != 4) return 7;
    return InC::other_c_calls == 4 && other_calls == 4 ? 0 : 8;
}
