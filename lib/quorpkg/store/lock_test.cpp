// The store lock: a waiter gives up after exactly the configured time, a
// released lock is free at once, and recovery waits only for the children
// of a holder that is gone.
#include "quorpkg/store/lock.h"

#include <fcntl.h>
#include <gtest/gtest.h>
#include <signal.h>
#include <sys/file.h>
#include <sys/wait.h>
#include <unistd.h>

#include <chrono>
#include <cstdio>
#include <thread>

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

// A process that takes the lock as a change does (its pid in the file),
// forks a child that holds it `orphanHolds` longer when that is not zero,
// then exits after `holds`. Only system calls between fork and exit.
pid_t forkLockHolder(timespec holds, timespec orphanHolds = {}) {
    const pid_t pid = ::fork();
    if (pid != 0) return pid;
    const int fd = ::open(layout::lockFile().c_str(), O_RDWR | O_CLOEXEC);
    if (fd < 0 || ::flock(fd, LOCK_EX) != 0) ::_exit(1);
    char text[16];
    const int length = std::snprintf(text, sizeof text, "%d\n", ::getpid());
    if (::pwrite(fd, text, length, 0) != length) ::_exit(1);
    if ((orphanHolds.tv_sec || orphanHolds.tv_nsec) && ::fork() == 0) {
        ::nanosleep(&orphanHolds, nullptr);
        ::_exit(0);
    }
    ::nanosleep(&holds, nullptr);
    ::_exit(0);
}

// A change killed while its child was between fork and exec: the child
// still holds the lock for a moment. Recovery waits for it; a live holder
// is never waited for.
TEST(StoreLock, AFreshLockWaitsOnlyForTheChildrenOfAHolderThatIsGone) {
    test::TempRoot root;
    int code = kOk;
    ASSERT_TRUE(StoreLock::acquire(code));  // makes the lock file
    int status = 0;
    const pid_t gone = forkLockHolder({}, {0, 300'000'000});
    ASSERT_EQ(::waitpid(gone, &status, 0), gone);
    ASSERT_EQ(status, 0);
    EXPECT_TRUE(StoreLock::tryAcquireFresh());

    const pid_t live = forkLockHolder({1, 0});
    while (readFile(layout::lockFile()).value_or("") != std::to_string(live) + "\n")
        std::this_thread::sleep_for(std::chrono::milliseconds(5));
    EXPECT_FALSE(StoreLock::tryAcquireFresh());
    ::kill(live, SIGKILL);
    ::waitpid(live, &status, 0);
}

}  // namespace
}  // namespace quor
