#include "TQLib/threads/TQProcessLock.h"

#include "TQLib/core/base/TQThreadSynch.h"
#include "TQLib/platform/Platform.h"

#include <cstddef>
#include <new>

namespace Quellan::Corvel {

namespace {

struct ServerLock {
    TQThreadSynch lock;
    DWORD count TQ_GUARDED_BY(lock) = 0;
};

// Never destroyed: destructors of static objects may still give their locks back.
ServerLock& TheServerLock() noexcept {
    alignas(ServerLock) static std::byte memory[sizeof(ServerLock)];
    static ServerLock& server = *new (memory) ServerLock;
    return server;
}

}  // namespace

DWORD TQProcessLock::Lock() {
    ServerLock& server = TheServerLock();
    const TQThreadSynch::TQSynchLock guard(server.lock);
    CoAddRefServerProcess();
    return ++server.count;
}

DWORD TQProcessLock::Unlock() {
    ServerLock& server = TheServerLock();
    const TQThreadSynch::TQSynchLock guard(server.lock);
    if (server.count == 0) return 0;
    CoReleaseServerProcess();
    return --server.count;
}

DWORD TQProcessLock::LockCount() {
    ServerLock& server = TheServerLock();
    const TQThreadSynch::TQSynchLock guard(server.lock);
    return server.count;
}

}  // namespace Quellan::Corvel
