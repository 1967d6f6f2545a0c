#include "TQLib/services/internal/InsideService.h"

#include "TQLib/core/base/TQThreadSynch.h"
#include "TQLib/core/internal/Insist.h"
#include "TQLib/threads/TQEvent.h"

namespace Quellan::Corvel {

namespace {

struct Threads {
    TQThreadSynch lock;
    int inside TQ_GUARDED_BY(lock) = 0;
    const TQEvent left{false};
};

// Never destroyed: the last thread still signals when whoever waits for it may have gone on already.
Threads& TheThreads() {
    static Threads* const threads = new Threads;
    return *threads;
}

}  // namespace

InsideService::InsideService() {
    Threads& threads = TheThreads();
    const TQThreadSynch::TQSynchLock guard(threads.lock);
    ++threads.inside;
}

InsideService::~InsideService() {
    Threads& threads = TheThreads();
    bool isLast;
    {
        const TQThreadSynch::TQSynchLock guard(threads.lock);
        isLast = --threads.inside == 0;
    }
    if (isLast) SetSurely(threads.left.Handle());
}

void InsideService::WaitForNone() {
    Threads& threads = TheThreads();
    for (;;) {
        {
            const TQThreadSynch::TQSynchLock guard(threads.lock);
            if (threads.inside == 0) return;
        }
        AwaitSurely({threads.left.Handle()});
    }
}

}  // namespace Quellan::Corvel
