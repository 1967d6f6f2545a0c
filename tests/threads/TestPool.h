// A pool whose handlers are functions that a test gives it.
#pragma once

#include "TQLib/core/TQException.h"
#include "TQLib/platform/Win32.h"
#include "TQLib/threads/TQThreadPool.h"
#include "support/Eventually.h"
#include "support/FailCall.h"
#include "support/Worker.h"

#include <atomic>
#include <cstdio>
#include <cstdlib>
#include <cstring>
#include <functional>
#include <gtest/gtest.h>
#include <memory>
#include <mutex>
#include <string>
#include <string_view>
#include <vector>

namespace Quellan::Corvel::Test {

// Waits for `condition`. A test in which it never holds has failed and ends: its pool might not.
template <class Condition>
void Until(Condition condition) {
    if (Eventually(condition)) return;
    std::fputs("a condition that a test waits for never holds\n", stderr);
    std::abort();
}

// Counts while it lives.
struct Running {
    std::atomic<int>& count;
    explicit Running(std::atomic<int>& c) : count(c) { ++count; }
    ~Running() { --count; }
};

struct PoolError {
    DWORD thread;
    unsigned code;
    std::wstring message;
    std::string work;
};

// What the threads of a pool do and what is known of them. It outlives the pool.
class Script {
  public:
    std::function<unsigned()> onStart = [] { return 0u; };
    std::function<void(const std::string& work)> onWork = [](const std::string&) {};

    std::atomic<int> handlers = 0;  // running
    std::atomic<int> started = 0;   // threads that came to OnStart

    void Add(PoolError error) {
        const std::lock_guard guard(m_lock);
        m_errors.push_back(std::move(error));
    }
    std::vector<PoolError> Errors() const {
        const std::lock_guard guard(m_lock);
        return m_errors;
    }
    // The items in the order in which their handlers began.
    void AddItem(const std::string& work) {
        const std::lock_guard guard(m_lock);
        m_items.push_back(work);
    }
    std::vector<std::string> Items() const {
        const std::lock_guard guard(m_lock);
        return m_items;
    }

  private:
    mutable std::mutex m_lock;
    std::vector<PoolError> m_errors;
    std::vector<std::string> m_items;
};

inline Script& ScriptIn(const void* poolData) {
    Script* script;
    std::memcpy(&script, poolData, sizeof script);
    return *script;
}

class ScriptedThread : public TQPoolThread {
  public:
    ScriptedThread() { ++s_objects; }
    ~ScriptedThread() override {
        EndThread();
        --s_objects;
    }
    // The objects alive, of all pools.
    static int Objects() { return s_objects; }
    // From within a handler: a fault that lives until the thread's next item.
    template <class FaultT, class... Arguments>
    static void FailNext(Arguments... arguments) {
        t_current->m_fault = std::make_shared<FaultT>(arguments...);
    }

    using TQPoolThread::PostPoolWork;
    using TQPoolThread::RunWork;
    static ScriptedThread& Current() { return *t_current; }

  protected:
    unsigned int OnStart(const BYTEBuf& data) override {
        m_script = &ScriptIn(data.Data());
        ++m_script->started;
        t_current = this;
        return m_script->onStart();
    }
    void OnWork(BYTEBuf& data) override {
        m_fault.reset();
        const std::string work(data.begin(), data.end());
        m_script->AddItem(work);
        const Running running(m_script->handlers);
        m_script->onWork(work);
    }
    unsigned int OnStop(const BYTEBuf&, const unsigned int& result) override {
        m_fault.reset();
        return result;
    }

  private:
    Script* m_script = nullptr;
    static inline thread_local ScriptedThread* t_current = nullptr;
    std::shared_ptr<void> m_fault;  // made and ended on the thread itself
    static inline std::atomic<int> s_objects = 0;
};

// Hands everything to the script.
struct ScriptPolicy {
    static void ReportException(DWORD thread, unsigned code, const wchar_t* message, const void* work,
                                ULONGLONG workSize, const void* poolData, ULONGLONG) {
        ScriptIn(poolData).Add(
            {thread, code, message,
             std::string(static_cast<const char*>(work), static_cast<std::size_t>(workSize))});
    }
};

template <DWORD N = 0, class Policy = ScriptPolicy>
class TestPool : public TQThreadPool<ScriptedThread, Policy, N> {
  public:
    using Base = TQThreadPool<ScriptedThread, Policy, N>;

    explicit TestPool(Script& script) : TestPool(&script) {}
    ~TestPool() override { this->CloseUp(); }

    bool Post(std::string_view work, DWORD requestor = 0) {
        return this->AddWork(work.data(), static_cast<DWORD>(work.size()), requestor);
    }
    void AwaitQuiet() const {
        Until([&] {
            return this->WorkCount() == 0 && this->ThreadsBusy() == 0 &&
                   this->ThreadsWaiting() == this->ThreadsAllocated();
        });
    }

    using _TQThreadPoolBase::AdjustPortObjects;
    using _TQThreadPoolBase::CanStop;

    // The clock of the pool, in milliseconds; with `idleWaitMs` threads look often whether it has moved.
    std::atomic<DWORD> idleWaitMs = 100'000;
    std::atomic<LONGLONG> idleMs = 0;

  protected:
    DWORD IdleWaitMs() const override { return idleWaitMs; }
    TQTimeSpan IdleTime() const override { return TQTimeSpan::FromMilliseconds(idleMs); }

  private:
    explicit TestPool(Script* script) : Base(&script, sizeof script) {}
};

// A pool of two that keeps the packets of others, and fails at those of 7 bytes.
class PortPool : public TestPool<2> {
  public:
    struct Packet {
        ULONGLONG key;
        DWORD bytes;
        void* record;
        DWORD error;
        bool operator==(const Packet&) const = default;
    };

    using TestPool::TestPool;
    ~PortPool() override { CloseUp(); }
    void PostPacket(const Packet& packet) {
        EXPECT_TRUE(PostQueuedCompletionStatus(Port(), packet.bytes, packet.key,
                                               static_cast<OVERLAPPED*>(packet.record)));
    }
    std::vector<Packet> Packets() const {
        const std::lock_guard guard(m_lock);
        return m_packets;
    }

  protected:
    void OnPortPacket(ULONGLONG key, DWORD bytes, void* record, DWORD error) override {
        const std::lock_guard guard(m_lock);
        m_packets.push_back({key, bytes, record, error});
        if (bytes == 7) throw TQException(7u, L"packet");
    }

  private:
    mutable std::mutex m_lock;
    std::vector<Packet> m_packets;
};

// Keeps threads of a pool inside handlers until it is opened.
class Gate {
  public:
    void Pass() {
        ++m_came;
        m_open.Wait(INFINITE);
    }
    void Open() { m_open.Set(); }
    // How many threads have come to it.
    int Came() const { return m_came; }

  private:
    TQEvent m_open{true};
    std::atomic<int> m_came = 0;
};

}  // namespace Quellan::Corvel::Test
