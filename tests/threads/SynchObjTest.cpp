#include "TQLib/platform/Win32.h"
#include "TQLib/threads/TQEvent.h"
#include "TQLib/threads/TQMutex.h"
#include "TQLib/threads/TQSignalLockSynch.h"
#include "TQLib/threads/TQWaitList.h"
#include "platform/PlatformTest.h"
#include "support/DataLines.h"
#include "support/FailCall.h"
#include "support/Worker.h"

#include <array>
#include <chrono>
#include <gtest/gtest.h>
#include <iomanip>
#include <optional>
#include <sstream>
#include <string>

using namespace Quellan::Corvel;
using namespace Quellan::Corvel::Test;

namespace {

using Version = TQSynchObj::PlatformVersion;

std::wstring UniqueName(const wchar_t* what) {
    return TQString::Format(L"tqlib-test-%u-%s", GetCurrentProcessId(), what).c_str();
}

// Whether another thread could take the mutex now.
bool IsFree(const TQMutex& mutex) {
    bool isFree = false;
    Worker([&] { isFree = TQMutex::TQMutexLock(mutex, 0).IsLocked(); }).Join();
    return isFree;
}

TEST(KernelObjectName, HasAPrefixWhereSessionsAreTold) {
    for (const std::string& line : DataLines("KernelObjectPrefixes.txt")) {
        SCOPED_TRACE(line);
        std::istringstream words(line);
        unsigned platform, major, suites, product;
        std::string prefix;
        words >> std::setbase(0) >> platform >> major >> suites >> product >> prefix;
        const Version version{platform, major, static_cast<WORD>(suites), static_cast<BYTE>(product)};
        const bool hasPrefix = prefix == "prefix";
        EXPECT_STREQ(TQSynchObj::KernelObjectPrefix(version, true), hasPrefix ? L"Global\\" : L"");
        EXPECT_STREQ(TQSynchObj::KernelObjectPrefix(version, false), hasPrefix ? L"Local\\" : L"");
    }
}

TEST(KernelObjectName, FollowsThePlatformsVersion) {
    OSVERSIONINFOEXW record = {};
    record.dwOSVersionInfoSize = sizeof record;
    ASSERT_TRUE(GetVersionExW(reinterpret_cast<OSVERSIONINFOW*>(&record)));
    const Version version{record.dwPlatformId, record.dwMajorVersion, record.wSuiteMask, record.wProductType};
    for (const bool global : {false, true})
        EXPECT_EQ(TQSynchObj::KernelObjectName(L"name", global),
                  TQSynchObj::KernelObjectPrefix(version, global) + TQString(L"name"));

    const FailCall fail("GetVersionExW", ERROR_GEN_FAILURE);
    EXPECT_EQ(ThrownCode([] { static_cast<void>(TQSynchObj::KernelObjectName(L"name", true)); }),
              DWORD{ERROR_GEN_FAILURE});
}

TEST(Event, TakesSecurityAttributes) {
    const std::wstring name = UniqueName(L"secured");
    Quellan::Sarvek::SecAttr security;
    const TQEvent first(name.c_str(), true, security, true, true), second(name.c_str(), true, true, false);
    EXPECT_EQ(first, second);
    EXPECT_TRUE(second.Wait(0));
    if (OnWine()) return;
    Quellan::Sarvek::SecAttr inherited(Quellan::Sarvek::SecDesc(), true);
    EXPECT_EQ(ThrownCode([&] { TQEvent event(nullptr, false, inherited, true, false); }),
              DWORD{ERROR_NOT_SUPPORTED})
        << "they go to the platform, which knows no such handles on Linux";
}

TEST(Mutex, IsHeldUntilTheLastLockGoes) {
    const TQMutex mutex;
    TQMutex::TQMutexLock lock = mutex.Acquire(INFINITE);
    std::optional<TQMutex::TQMutexLock> copy(lock);
    lock = TQMutex::TQMutexLock();
    EXPECT_FALSE(IsFree(mutex));
    lock = *std::move(copy);
    copy.reset();
    EXPECT_FALSE(IsFree(mutex));
    TQMutex::TQMutexLock(std::move(lock)) = TQMutex::TQMutexLock();
    EXPECT_TRUE(IsFree(mutex)) << "moved on, not copied";
}

TEST(Mutex, TellsWhichOfSeveralObjectsWasSignalled) {
    const TQMutex mutex;
    const TQEvent first(true), second(true);
    void* const extra[] = {first.Handle(), second.Handle()};
    TQMutex::TQMutexLock lock;
    EXPECT_EQ(mutex.Acquire(lock, 0, extra, 2), 0u);
    EXPECT_TRUE(lock.IsLocked());

    const TQMutex::TQMutexLock held = lock;
    Worker([&] {
        TQMutex::TQMutexLock other;
        EXPECT_EQ(mutex.Acquire(other, 1, extra, 2), DWORD{WAIT_TIMEOUT});
        second.Set();
        EXPECT_EQ(mutex.Acquire(other, INFINITE, extra, 2), 2u);
        first.Set();
        EXPECT_EQ(mutex.Acquire(other, INFINITE, extra, 2), 1u);
        EXPECT_FALSE(other.IsLocked());
        DWORD result = 77;
        EXPECT_FALSE(TQMutex::TQMutexLock(mutex, INFINITE, extra, 2, result).IsLocked());
        EXPECT_EQ(result, 1u);
    }).Join();
}

TEST(Mutex, WaitsForAllTogether) {
    const TQMutex mutex;
    const TQEvent event(false);
    void* const extra[] = {event.Handle()};
    DWORD result = 77;
    EXPECT_FALSE(TQMutex::TQMutexLock(mutex, true, 1, extra, 1, result).IsLocked());
    EXPECT_EQ(result, DWORD{WAIT_TIMEOUT});
    EXPECT_TRUE(IsFree(mutex)) << "all or nothing";
    event.Set();
    const TQMutex::TQMutexLock lock(mutex, true, INFINITE, extra, 1, result);
    EXPECT_TRUE(lock.IsLocked());
    EXPECT_EQ(result, 0u);
    EXPECT_FALSE(event.Wait(0));
}

TEST(Mutex, GivesUpWhatTheLockHeldBefore) {
    const TQMutex mutex, other;
    const TQEvent event(true);
    event.Set();
    void* const extra[] = {event.Handle()};
    const TQMutex::TQMutexLock held(mutex, 0);
    Worker([&] {
        TQMutex::TQMutexLock lock(other, 0);
        EXPECT_EQ(mutex.Acquire(lock, INFINITE, extra, 1), 1u);
        EXPECT_TRUE(IsFree(other));
    }).Join();
}

TEST(Mutex, ThatWasAbandonedIsAcquired) {
    const TQMutex mutex, extraMutex;
    Worker([&] {
        WaitForSingleObject(mutex.Handle(), INFINITE);
        WaitForSingleObject(extraMutex.Handle(), INFINITE);
    }).Join();
    EXPECT_TRUE(mutex.Wait(INFINITE));
    EXPECT_FALSE(IsFree(mutex));
    mutex.Release();
    EXPECT_TRUE(IsFree(mutex));

    Worker([&] { WaitForSingleObject(mutex.Handle(), INFINITE); }).Join();
    TQMutex::TQMutexLock lock;
    void* const extra[] = {extraMutex.Handle()};
    EXPECT_EQ(mutex.Acquire(lock, INFINITE, extra, 1), 0u);
    Worker([&] { EXPECT_EQ(mutex.Acquire(lock, INFINITE, extra, 1), 1u); }).Join();
}

TEST(Mutex, ThrowsAndHoldsNothingWhereSomethingFails) {
    const TQMutex mutex;
    TQMutex::TQMutexLock lock;
    void* const extra[64] = {};
    EXPECT_EQ(ThrownCode([&] { static_cast<void>(mutex.Acquire(lock, 0, extra, 64)); }),
              DWORD{ERROR_INVALID_PARAMETER});
    EXPECT_EQ(ThrownCode([&] { static_cast<void>(mutex.Acquire(lock, 0, nullptr, 1)); }),
              DWORD{ERROR_INVALID_PARAMETER});
    EXPECT_EQ(ThrownCode([&] { static_cast<void>(mutex.Acquire(lock, 0, extra, 1)); }),
              DWORD{ERROR_INVALID_HANDLE});
    {
        const FailCall fail("CreateMutexW", ERROR_NOT_ENOUGH_MEMORY);
        EXPECT_EQ(ThrownText([] { TQMutex failing; }), L"Attempt to open mutex object failed.");
    }
    {
        const FailCall fail("WaitForMultipleObjects", ERROR_NOT_ENOUGH_MEMORY, 1, WAIT_FAILED);
        EXPECT_EQ(ThrownText([&] { static_cast<void>(mutex.Acquire(0)); }), L"Wait on synch object failed.");
    }
    SweepAllocations([&] { TQMutex::TQMutexLock acquired(mutex, 0); }, [&] { EXPECT_TRUE(IsFree(mutex)); });
}

TEST(MutexLock, LeavesTheLastErrorAlone) {
    const TQMutex mutex;
    {
        const TQMutex::TQMutexLock lock(mutex, 0);
        mutex.Release();
        SetLastError(1234);
    }
    EXPECT_EQ(GetLastError(), 1234u) << "although there was nothing left to release";
}

TEST(SynchObj, WaitsForTheStandardLibrarysDurations) {
    using namespace std::chrono_literals;
    const TQEvent event(true);
    const TQMutex mutex;
    TQThreadSynch section;
    TQSignalLockSynch signal(section, false);
    TQWaitList list;
    list.Add(event.Handle());
    const auto look = [&](TQTimeSpan time) {
        return std::array{event.Wait(time), static_cast<bool>(list.Wait(time)),
                          static_cast<bool>(signal.GetLock(time))};
    };
    EXPECT_EQ(look(1ms), (std::array{false, false, false}));
    event.Set();
    signal.Set();
    EXPECT_EQ(look(TQTimeSpan::Infinite()), (std::array{true, true, true}));
    EXPECT_TRUE(mutex.Acquire(0s));
}

}  // namespace
