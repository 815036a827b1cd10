// The store lock: a waiter gives up after exactly the configured time, and a
// released lock is free at once.
#include "quorpkg/store/lock.h"

#include <gtest/gtest.h>
#include <sys/wait.h>
#include <unistd.h>

#include <chrono>

#include "base/layout.h"
#include "base/result.h"
#include "test_support.h"

namespace quor {
namespace {

// Another process holding the store lock until the object goes.
class LockHolder {
public:
    LockHolder() {
        int held[2], release[2];
        if (::pipe(held) != 0 || ::pipe(release) != 0) throw std::runtime_error("pipe");
        pid_ = ::fork();
        if (pid_ == 0) {
            ::close(held[0]);
            ::close(release[1]);
            int code = kOk;
            auto lock = StoreLock::acquire(code);
            char byte = lock ? 1 : 0;
            if (::write(held[1], &byte, 1) != 1) ::_exit(2);
            ::_exit(::read(release[0], &byte, 1) == 0 ? 0 : 3);
        }
        ::close(held[1]);
        ::close(release[0]);
        release_ = release[1];
        char byte = 0;
        locked_ = ::read(held[0], &byte, 1) == 1 && byte == 1;
        ::close(held[0]);
    }
    ~LockHolder() {
        ::close(release_);
        ::waitpid(pid_, nullptr, 0);
    }
    bool locked() const { return locked_; }

private:
    pid_t pid_ = -1;
    int release_ = -1;
    bool locked_ = false;
};

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
            LockHolder holder;
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
