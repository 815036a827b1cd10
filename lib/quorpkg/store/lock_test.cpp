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

// A change killed while its child was between fork and exec: the child
// still holds the lock for a moment. Recovery waits for it; a live holder
// is never waited for.
TEST(StoreLock, AFreshLockWaitsOnlyForTheChildrenOfAHolderThatIsGone) {
    test::TempRoot root;
    int code = kOk;
    ASSERT_TRUE(StoreLock::acquire(code));  // makes the lock file
    int ready[2];
    ASSERT_EQ(::pipe(ready), 0);
    const pid_t holder = ::fork();
    ASSERT_GE(holder, 0);
    if (holder == 0) {
        // Only system calls between fork and exit.
        const int fd = ::open(layout::lockFile().c_str(), O_RDWR | O_CLOEXEC);
        if (fd < 0 || ::flock(fd, LOCK_EX) != 0) ::_exit(1);
        char pid[16];
        const int length = std::snprintf(pid, sizeof pid, "%d\n", ::getpid());
        if (::pwrite(fd, pid, length, 0) != length) ::_exit(1);
        if (::fork() == 0) {
            // The orphan: holds the lock a little longer, then is gone.
            const timespec pause{0, 300'000'000};
            ::nanosleep(&pause, nullptr);
            ::_exit(0);
        }
        ::_exit(::write(ready[1], "x", 1) == 1 ? 0 : 1);
    }
    ::close(ready[1]);
    char byte = 0;
    ASSERT_EQ(::read(ready[0], &byte, 1), 1);
    ::close(ready[0]);
    int status = 0;
    ASSERT_EQ(::waitpid(holder, &status, 0), holder);
    ASSERT_EQ(status, 0);
    EXPECT_TRUE(StoreLock::tryAcquireFresh());

    // A holder that is alive: no wait at all.
    const pid_t live = ::fork();
    ASSERT_GE(live, 0);
    if (live == 0) {
        const int fd = ::open(layout::lockFile().c_str(), O_RDWR | O_CLOEXEC);
        if (fd < 0 || ::flock(fd, LOCK_EX) != 0) ::_exit(1);
        char pid[16];
        const int length = std::snprintf(pid, sizeof pid, "%d\n", ::getpid());
        if (::pwrite(fd, pid, length, 0) != length) ::_exit(1);
        const timespec pause{1, 0};
        ::nanosleep(&pause, nullptr);
        ::_exit(0);
    }
    while (readFile(layout::lockFile()).value_or("") != std::to_string(live) + "\n")
        std::this_thread::sleep_for(std::chrono::milliseconds(5));
    EXPECT_FALSE(StoreLock::tryAcquireFresh());
    ::kill(live, SIGKILL);
    ::waitpid(live, &status, 0);
}

}  // namespace
}  // namespace quor
