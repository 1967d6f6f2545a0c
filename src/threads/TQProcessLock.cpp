#include "threads/TQProcessLock.h"

#include "core/TQThreadSynch.h"
#include "platform/Win32.h"

namespace Quellan::Corvel {

namespace {

struct ServerLock {
    TQThreadSynch lock;
    DWORD count TQ_GUARDED_BY(lock) = 0;
};

// Never destroyed: destructors of static objects may still give their locks back.
ServerLock& TheServerLock() {
    static ServerLock* const server = new ServerLock;
    return *server;
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
