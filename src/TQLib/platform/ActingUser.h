// Whom a thread acts as, for those who have to ask often.
#pragma once

#include "TQLib/platform/Types.h"

#include <cstring>

namespace Quellan::Platform {

// Tells users apart: equal for one user as long as the process lives, and different for two. One that was not
// found is nobody's.
struct UserKey {
#if defined(_WIN32)
    DWORD size = 0;
    BYTE sid[68];

    bool operator==(const UserKey& other) const noexcept {
        return size == other.size && std::memcmp(sid, other.sid, size) == 0;
    }
#else
    DWORD user = 0;
    bool isFound = false;

    bool operator==(const UserKey&) const noexcept = default;
#endif
};

// Finds the key of the user as whom the calling thread acts; the platform's code where it can't. On Linux the
// system is asked only where the thread could have become somebody else without the layer: who may take on no
// other user is asked for once. (A thread that enters another user namespace keeps the key that it had.)
DWORD FindActingUser(UserKey& key) noexcept;

}  // namespace Quellan::Platform
