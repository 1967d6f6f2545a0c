// Waits that stand until they are over, for any number of objects and without a thread that sleeps on them.
#pragma once

#include "TQLib/platform/Types.h"

#include <memory>

namespace Quellan::Platform {

// Objects that are watched for one owner. Whoever signals one of them hands it over at once: the object is
// taken as a wait takes it, it stands in the list of what is ready, and the owner's event is set.
// From then on the object is watched no more, until it is watched anew.
//
// Events, semaphores and threads of this process can be watched so on Linux. Windows has waits of this kind
// only at the price of a thread for each 63 objects; there nothing can be watched, and one thread that looks
// at all of them in turn serves better. All members may be called by several threads at once, each object's
// own by one at a time.
class StandingWaits {
  public:
    struct Watch;
    struct Delete {
        void operator()(Watch* watch) const noexcept;
    };
    using WatchPtr = std::unique_ptr<Watch, Delete>;

    // `event` stays open for as long as this lives.
    explicit StandingWaits(HANDLE event);
    StandingWaits(const StandingWaits&) = delete;
    StandingWaits& operator=(const StandingWaits&) = delete;
    // All watches have ended before.
    ~StandingWaits();

    // Begins to watch the object, or begins anew with `watch` if that is one for it. `context` is the owner's
    // own. False where it can't be watched, for whatever reason: a wait for it tells why. May throw
    // std::bad_alloc.
    bool Begin(HANDLE handle, void* context, WatchPtr& watch);
    // The object is watched no more, as when the watch is deleted. True where it was ready, and is no longer
    // in the list.
    static bool End(Watch& watch) noexcept;
    // The context of what became ready first, or null.
    void* TakeReady() noexcept;

  private:
    struct Impl;
    std::unique_ptr<Impl> m_impl;
};

}  // namespace Quellan::Platform
