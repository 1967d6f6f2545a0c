// What events are compared to: the raw mechanisms, and an event as one writes it first.
#pragma once

#include "TQLib/platform/linux/base/Futex.h"

#include <condition_variable>
#include <cstdint>
#include <deque>
#include <mutex>
#include <sys/eventfd.h>
#include <unistd.h>
#include <utility>
#include <vector>

namespace Quellan::Corvel::Bench {

// An automatic event for one waiting thread: a word of memory, and the kernel only to sleep and to wake.
class FutexEvent {
  public:
    void Set() {
        if (m_word.exchange(Signalled) == Sleeping) Platform::FutexWake(&m_word, 1, Platform::Reach::Process);
    }

    void Wait() {
        for (;;) {
            std::uint32_t word = Signalled;
            if (m_word.compare_exchange_strong(word, Clear)) return;
            if (word == Clear && !m_word.compare_exchange_strong(word, Sleeping)) continue;
            Platform::FutexWait(m_word, Sleeping, Platform::Never, Platform::Reach::Process);
        }
    }

  private:
    enum : std::uint32_t { Clear, Signalled, Sleeping };
    Platform::Word m_word{Clear};
};

// An event behind a mutex and a condition variable, reached by its address, which nobody checks. A wait for
// one of several enters itself at each of them.
class PlainEvent {
  public:
    explicit PlainEvent(bool manualReset = false) : m_manualReset(manualReset) {}

    void Set() {
        {
            const std::scoped_lock lock(m_lock);
            for (const Entry& entry : m_entries)
                if (entry.wait->Claim(entry.index) && !m_manualReset) return;
            m_isSet = true;
        }
        if (m_manualReset)
            m_wasSet.notify_all();
        else
            m_wasSet.notify_one();
    }

    bool TryWait() {
        const std::scoped_lock lock(m_lock);
        return TakeLocked();
    }

    void Wait() {
        std::unique_lock lock(m_lock);
        m_wasSet.wait(lock, [this] { return m_isSet; });
        TakeLocked();
    }

    static std::size_t WaitForAny(std::deque<PlainEvent>& events) {
        AnyWait wait;
        std::size_t entered = 0;
        for (; entered < events.size(); ++entered) {
            PlainEvent& event = events[entered];
            const std::scoped_lock lock(event.m_lock);
            if (event.m_isSet) {
                if (wait.Claim(entered)) event.TakeLocked();
                break;
            }
            event.m_entries.push_back({&wait, entered});
        }
        const std::size_t index = wait.Outcome();
        for (std::size_t i = 0; i < entered; ++i) {
            const std::scoped_lock lock(events[i].m_lock);
            std::erase_if(events[i].m_entries, [&](const Entry& entry) { return entry.wait == &wait; });
        }
        return index;
    }

  private:
    class AnyWait {
      public:
        bool Claim(std::size_t index) {
            {
                const std::scoped_lock lock(m_lock);
                if (m_index != None) return false;
                m_index = index;
            }
            m_isOver.notify_one();
            return true;
        }

        std::size_t Outcome() {
            std::unique_lock lock(m_lock);
            m_isOver.wait(lock, [this] { return m_index != None; });
            return m_index;
        }

      private:
        static constexpr std::size_t None = ~std::size_t{0};

        std::mutex m_lock;
        std::condition_variable m_isOver;
        std::size_t m_index = None;
    };

    struct Entry {
        AnyWait* wait;
        std::size_t index;
    };

    bool TakeLocked() {
        const bool isSet = m_isSet;
        if (!m_manualReset) m_isSet = false;
        return isSet;
    }

    const bool m_manualReset;
    std::mutex m_lock;
    std::condition_variable m_wasSet;
    bool m_isSet = false;
    std::vector<Entry> m_entries;
};

// The kernel's own event, which `read` takes back.
class EventDescriptor {
  public:
    explicit EventDescriptor(int flags = 0) : m_descriptor(eventfd(0, flags)) {}
    EventDescriptor(EventDescriptor&& other) noexcept : m_descriptor(std::exchange(other.m_descriptor, -1)) {}
    ~EventDescriptor() {
        if (m_descriptor >= 0) close(m_descriptor);
    }

    int Get() const { return m_descriptor; }
    void Set() { eventfd_write(m_descriptor, 1); }
    bool Wait() {
        eventfd_t value;
        return eventfd_read(m_descriptor, &value) == 0;
    }

  private:
    int m_descriptor;
};

}  // namespace Quellan::Corvel::Bench
