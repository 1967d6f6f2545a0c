// Waiting for any of many objects.
#pragma once

#include "TQLib/core/base/TQObject.h"
#include "TQLib/core/base/TQThreadSynch.h"
#include "TQLib/platform/StandingWaits.h"
#include "TQLib/platform/Types.h"
#include "TQLib/threads/TQEvent.h"

#include <list>
#include <map>
#include <memory>
#include <vector>

namespace Quellan::Corvel {

// A list of kernel objects of which a thread waits for any, beyond the platform's limit of 64. It belongs to
// the thread that made it, which alone may change it and wait on it: "Only the owning thread can call this
// method on the wait list.", 1 (ERROR_INVALID_FUNCTION), for everybody else. Any thread may copy it, and owns
// the copy.
//
// The owner waits for up to 63 objects itself, those with the lowest handles. For the others there is one
// auxiliary thread, from the first wait that needs it to the first that does not; on Linux both sleep on
// mutexes and objects with a name alone then, as whoever signals one of the others tells the owner at once.
// What is seen is kept until it is returned, each object once; it looks at an object again from the wait on
// that follows the one which returned it, and at those behind it first: what stays signalled hides no other
// object. A mutex is acquired by the thread that sees it: the owner has it for
// certain only in a list of up to 63.
//
// Handles are borrowed: remove one before closing it. A wait that comes upon a closed handle throws "Wait on
// synch object failed.", 6 (ERROR_INVALID_HANDLE), again and again until it is removed; nothing that was seen
// is lost.
class TQLIB_API TQWaitList : public TQObject {
  public:
    // How many objects it can hold.
    static constexpr DWORD MaxSize = 65'536;

    TQWaitList();
    // Watches the same objects; what the other has seen and not yet returned stays with the other.
    TQWaitList(const TQWaitList& other);
    // What this list has seen of objects that stay in it is still returned.
    TQWaitList& operator=(const TQWaitList& other);
    ~TQWaitList() override;

    // Does nothing for a handle that is in the list. Throws 111 (ERROR_BUFFER_OVERFLOW) "Too many elements in
    // the wait list." beyond `MaxSize`, and 14 (ERROR_OUTOFMEMORY). Takes logarithmic time.
    void Add(HANDLE handle);
    // From its return on nobody waits for the object on behalf of this list, and it is not returned any more.
    // Does nothing for a handle that is not in the list. Takes logarithmic time; the first removal after a
    // wait may have to wait for the auxiliary thread to look up.
    void Remove(HANDLE handle);

    // Waits up to `ms` milliseconds (INFINITE: without end) for an object and returns its handle, the one
    // seen first first; null when the time is up. Throws "Wait on synch object failed.", "Unable to allocate
    // wait list thread.", 14 (ERROR_OUTOFMEMORY), and what starting a thread throws; the list is as before
    // then.
    HANDLE Wait(DWORD ms);
    HANDLE Wait(TQTimeSpan time) { return Wait(time.TimeoutMs()); }

    [[nodiscard]] DWORD Size() const;
    // Whether there is an auxiliary thread at present. For the owner.
    [[nodiscard]] bool HasWaitThread() const noexcept { return m_waitThread != nullptr; }

  private:
    class TQWaitThread;

    static constexpr std::size_t NoSlot = ~std::size_t{0};
    struct Watch {
        HANDLE handle;
        std::list<Watch*>::iterator place;  // in the list of quiet objects or in that of found ones
        std::size_t slot = NoSlot;          // among those that the auxiliary thread waits for
        Platform::StandingWaits::WatchPtr standing = nullptr;
        bool isStanding = false;
        bool isFound = false;
        bool isOwn = false;  // among those that the owner waits for itself
    };
    using WatchMap = std::map<HANDLE, Watch>;

    // Whether the auxiliary thread waits for anything. It is asked to pause, and has paused, before an object
    // is taken away from it.
    enum class Phase { Watching, PauseAsked, Paused };

    void CheckOwner() const;
    [[nodiscard]] std::vector<HANDLE> Handles() const;
    void Insert(HANDLE handle);
    HANDLE NextSignal();
    HANDLE LookAgainAtReturned();
    void SetFound(HANDLE handle);
    void CollectReady() TQ_REQUIRES(m_lock);
    void MarkFound(Watch& watch) TQ_REQUIRES(m_lock);
    void ArmStanding() TQ_REQUIRES(m_lock);
    bool BeginStanding(Watch& watch) noexcept;
    void SettleOwn();
    void PrepareWaitThread();
    void AwaitPause();
    void Arm(Watch& watch) TQ_REQUIRES(m_lock);
    bool Disarm(Watch& watch) TQ_REQUIRES(m_lock);

    const DWORD m_owner;
    std::vector<HANDLE> m_first;  // what need not be left to the auxiliary thread, in order
    std::vector<HANDLE> m_own;    // those of them that the owner waits for itself, in order
    bool m_isOwnSettled = false;  // whether the last is so
    Watch* m_returned = nullptr;  // by the last wait

    mutable TQThreadSynch m_lock;
    // For the owner: the auxiliary thread has found something or failed, or something is ready.
    const TQEvent m_changed;
    Platform::StandingWaits m_standing;
    WatchMap m_handles TQ_GUARDED_BY(m_lock);
    std::list<Watch*> m_quiet TQ_GUARDED_BY(m_lock);
    std::list<Watch*> m_found
        TQ_GUARDED_BY(m_lock);  // seen signalled and not yet returned, in the order seen
    std::vector<HANDLE> m_rest TQ_GUARDED_BY(m_lock);  // what the auxiliary thread waits for
    Phase m_phase TQ_GUARDED_BY(m_lock) = Phase::Paused;
    DWORD m_failure TQ_GUARDED_BY(m_lock) = 0;  // of the auxiliary thread's wait

    const TQEvent m_wake;    // for the auxiliary thread
    const TQEvent m_paused;  // in answer to `Phase::PauseAsked`
    std::unique_ptr<TQWaitThread> m_waitThread;
};

}  // namespace Quellan::Corvel
