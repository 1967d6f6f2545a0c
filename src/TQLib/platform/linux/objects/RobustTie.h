// Words of shared memory that the kernel changes when the thread that owns them ends, however it ends: it puts
// FUTEX_OWNER_DIED in place of the owner's id, and wakes one of those who sleep on the word.
//
// It finds them through a list that each thread has, which the C library made and uses for its own robust
// mutexes. An entry has a fixed distance from its word. So that nobody who may write the word may write the
// entry, the word stands at the end of a shared page, and the entry in a page of the process's own behind it.
#pragma once

#include "TQLib/platform/linux/base/Base.h"
#include "TQLib/platform/linux/base/Futex.h"

#include <cstddef>

namespace Quellan::Platform {

// The entry of one word. It lies in memory that is zero at first. The thread that owns the word ties and
// unties it; the memory stays until it has, or has ended.
class RobustTie {
  public:
    // Where the entry begins a page: by how much the word stands before it.
    static constexpr std::size_t BytesFromWord = 24;

    // False where the kernel does not tell where the list is, or has no pages of `pageBytes`.
    static bool IsSupported(std::size_t pageBytes) noexcept;

    // The owning thread if it is one of this process, otherwise 0.
    DWORD Owner() const noexcept { return m_owner; }
    // Before the word is changed, so that one thread at a time has the entry, whatever somebody writes into the
    // word. False where another one has.
    bool Claim(DWORD thread) noexcept {
        DWORD nobody = 0;
        return m_owner.compare_exchange_strong(nobody, thread);
    }
    void GiveUp() noexcept { m_owner = 0; }

    void Tie() noexcept;
    // Does nothing where it is not tied.
    void Untie() noexcept;
    // In the child of a fork, where the list is empty and nobody owns the word.
    void Forget() noexcept;

    // While one exists the thread's end frees the word as that of an owner would, if it says that the thread is
    // the owner; if nobody is, it wakes another one who sleeps on the word, as this thread may have been woken in
    // his place. The innermost counts. `tie` may be null.
    class Pending {
      public:
        explicit Pending(RobustTie* tie) noexcept;
        ~Pending();
        Pending(const Pending&) = delete;
        Pending& operator=(const Pending&) = delete;

      private:
        const bool m_isSet;
        void* m_before = nullptr;
    };

  private:
    // In the C library's form: pointers lead to the `m_next` of another entry, and their lowest bit tells of
    // words of another kind.
    void* m_previous;
    void* m_next;
    std::atomic<DWORD> m_owner;
};

}  // namespace Quellan::Platform
