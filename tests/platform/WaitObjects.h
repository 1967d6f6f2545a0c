// Handles, waits and threads in short words, for the tests of what can be waited on.
#pragma once

#include "PlatformTest.h"
#include "TQLib/platform/Win32.h"

#include <functional>
#include <utility>
#include <vector>

namespace Quellan::Corvel::Test {

// Owns a handle.
class Owned {
  public:
    Owned() = default;
    explicit Owned(HANDLE handle) : m_handle(handle) {}
    Owned(Owned&& other) noexcept : m_handle(std::exchange(other.m_handle, nullptr)) {}
    Owned& operator=(Owned&& other) noexcept {
        std::swap(m_handle, other.m_handle);
        return *this;
    }
    ~Owned() { Close(); }

    operator HANDLE() const { return m_handle; }
    // For a call that gives a handle.
    HANDLE* Receive() { return &m_handle; }
    // Once somebody else has closed it.
    void Forget() { m_handle = nullptr; }
    void Close() {
        if (m_handle) CloseHandle(std::exchange(m_handle, nullptr));
    }

  private:
    HANDLE m_handle = nullptr;
};

inline Owned ManualEvent(bool set = false, const wchar_t* name = nullptr) {
    return Owned(CreateEventW(nullptr, TRUE, set, name));
}
inline Owned AutoEvent(bool set = false, const wchar_t* name = nullptr) {
    return Owned(CreateEventW(nullptr, FALSE, set, name));
}
inline Owned Mutex(bool owned = false, const wchar_t* name = nullptr) {
    return Owned(CreateMutexW(nullptr, owned, name));
}
inline Owned Semaphore(LONG count, LONG maximum = 1000, const wchar_t* name = nullptr) {
    return Owned(CreateSemaphoreW(nullptr, count, maximum, name));
}

// A second handle of the same object.
inline Owned Duplicate(HANDLE handle) {
    HANDLE copy = nullptr;
    DuplicateHandle(GetCurrentProcess(), handle, GetCurrentProcess(), &copy, 0, FALSE, DUPLICATE_SAME_ACCESS);
    return Owned(copy);
}

// How long a test waits for what must come: only a fault makes it take so long.
constexpr DWORD Patience = 60'000;

inline DWORD Poll(HANDLE handle) {
    return WaitForSingleObject(handle, 0);
}
inline DWORD Await(HANDLE handle) {
    return WaitForSingleObject(handle, Patience);
}
inline DWORD WaitAny(const std::vector<HANDLE>& handles, DWORD ms = 0) {
    return WaitForMultipleObjects(static_cast<DWORD>(handles.size()), handles.data(), FALSE, ms);
}
inline DWORD WaitAll(const std::vector<HANDLE>& handles, DWORD ms = 0) {
    return WaitForMultipleObjects(static_cast<DWORD>(handles.size()), handles.data(), TRUE, ms);
}

// The code of a wait that failed, 0 of one that did not.
inline DWORD WaitCode(DWORD status) {
    return status == WAIT_FAILED ? GetLastError() : 0;
}

// A thread that runs `body` and ends with its result; joined when this ends.
class Worker {
  public:
    explicit Worker(std::function<DWORD()> body) : m_body(std::move(body)) {
        m_thread = Owned(CreateThread(nullptr, 0, &Worker::Run, this, 0, &m_id));
        EXPECT_NE(m_thread, nullptr) << GetLastError();
    }
    Worker(const Worker&) = delete;
    Worker& operator=(const Worker&) = delete;
    ~Worker() { Result(); }

    HANDLE Thread() const { return m_thread; }
    DWORD Id() const { return m_id; }
    DWORD Result() const {
        DWORD code = 0;
        EXPECT_EQ(WaitForSingleObject(m_thread, INFINITE), WAIT_OBJECT_0);
        EXPECT_EQ(CodeOf(GetExitCodeThread(m_thread, &code)), 0u);
        return code;
    }

  private:
    static DWORD Run(void* worker) { return static_cast<Worker*>(worker)->m_body(); }

    std::function<DWORD()> m_body;
    DWORD m_id = 0;
    Owned m_thread;
};

// A thread waits, this one signals this or that of an event with a name and two without: each signal ends one
// wait, whichever side is faster. What `prepare` gives lives on the thread that waits.
template <class Prepare>
void ExchangeMixedSignals(const wchar_t* name, int rounds, Prepare prepare) {
    const Owned named = AutoEvent(false, name), mine = AutoEvent(), both = AutoEvent(), answer = AutoEvent();
    const Worker waiter([&] {
        [[maybe_unused]] const auto prepared = prepare();
        for (int i = 0; i < rounds; ++i) {
            const std::vector<HANDLE> all{named, both, mine};
            const DWORD status = i % 3 == 2 ? WaitAll(all, Patience) : WaitAny(all, Patience);
            if (status != (i % 3 == 1 ? 2u : 0u)) return static_cast<DWORD>(i + 1);
            SetEvent(answer);
        }
        return DWORD{0};
    });
    for (int i = 0; i < rounds; ++i) {
        if (i % 3 != 0) SetEvent(mine);
        if (i % 3 == 2) SetEvent(both);
        if (i % 3 != 1) SetEvent(named);
        ASSERT_EQ(WaitAny({answer, waiter.Thread()}, Patience), WAIT_OBJECT_0) << i;
    }
    EXPECT_EQ(waiter.Result(), 0u);
}

}  // namespace Quellan::Corvel::Test
