// The store lock: a waiter gives up after exactly the configured time, and a
// released lock is free at once.
#include "quorpkg/store/lock.h"

#include <gtest/gtest.h>
#include <unistd.h>

#include <chrono>

#include "base/layout.h"
#include "base/result.h"
#include "test_support.h"

namespace quor {
namespace {

double secondsToAcquire(int& code, bool& acquired) {
    const auto start = std::chrono::steady_clock::now();
    acquired = StoreLock::acquire(code).has_value();
    return std::chrono::duration<double>(std::chrono::steady_clock::now() - start).count();
}

TEST(StoreLock, AWaiterGivesUpAfterTheLockTimeoutAndAFreedLockIsTakenAtOnce) {
    test::TempRoot root;
    for (int timeout : {1, 2}) {
        test::writeSettings("lock_timeout=\"" + std::to_string(timeout) + "\"\n");
        int code = kOk;
        bool acquired = true;
        double waited = 0;
        {
            test::LockHolder holder;
            ASSERT_TRUE(holder.locked());
            waited = secondsToAcquire(code, acquired);
        }
        EXPECT_FALSE(acquired);
        EXPECT_EQ(code, kLocked);
        // The pauses between tries are at most a tenth of a second.
        EXPECT_GE(waited, timeout) << timeout;
        EXPECT_LT(waited, timeout + 0.9) << timeout;

        code = kOk;
        EXPECT_LT(secondsToAcquire(code, acquired), 0.5);
        EXPECT_TRUE(acquired);
        EXPECT_EQ(readFile(layout::lockFile()), "");
    }
}

TEST(StoreLock, NestsWithinAThreadAndOnlyTheOutermostIsFresh) {
    test::TempRoot root;
    int code = kOk;
    auto outer = StoreLock::acquire(code);
    ASSERT_TRUE(outer);
    EXPECT_TRUE(outer->fresh());
    EXPECT_EQ(readFile(layout::lockFile()), std::to_string(::getpid()) + "\n");
    {
        auto inner = StoreLock::acquire(code);
        ASSERT_TRUE(inner);
        EXPECT_FALSE(inner->fresh());
        EXPECT_FALSE(StoreLock::tryAcquireFresh());
    }
    // The inner one's end does not free the outer lock.
    EXPECT_EQ(readFile(layout::lockFile()), std::to_string(::getpid()) + "\n");
    outer.reset();
    EXPECT_EQ(readFile(layout::lockFile()), "");
    EXPECT_TRUE(StoreLock::tryAcquireFresh());
}

}  // namespace
}  // namespace quor
