// Linked into a test program: ends it where a thread waits for a kernel object while it holds a lock.
#include "TQLib/platform/linux/base/LockWatch.h"

#include <gtest/gtest.h>

namespace {

class LockWatch : public testing::Environment {
    void SetUp() override { Quellan::Platform::AbortOnWaitUnderLock(true); }
};

testing::Environment* const g_watch = testing::AddGlobalTestEnvironment(new LockWatch);

}  // namespace
