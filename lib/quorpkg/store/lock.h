// The lock of all changes to the package store: flock on /run/quorpkg/lock,
// a file that stays in place and holds the holder's pid. Scripts run with
// QUOR_PKG_LOCK_HELD=1; a process that inherits that does not lock again
// (its parent holds the lock on its behalf). A thread that already holds
// the lock does not lock again either, so nested changes (an install that
// starts the package) do not wait for themselves.
#pragma once

#include <optional>

#include "base/file_util.h"

namespace quor {

class StoreLock {
public:
    // Waits up to the lock_timeout setting. On failure returns nothing and
    // sets `code` (kLocked when another process holds it, and the holder's
    // pid goes to the system log; kStoreUnusable when the lock file cannot
    // be opened).
    static std::optional<StoreLock> acquire(int& code);

    // Takes the lock only when it is free right now and nobody up the line
    // (this thread, or a parent through QUOR_PKG_LOCK_HELD) holds it: the
    // case in which an unfinished change may be recovered. A holder that is
    // gone is waited for a moment, as its forked children die with it.
    static std::optional<StoreLock> tryAcquireFresh();

    // For readers that never take the lock: waits until the change that
    // holds it (in another process) has ended, up to lock_timeout, and
    // lets it go again. False at once when this process holds or inherited
    // the lock, since no other change can be under way then; false too
    // when the wait runs out.
    static bool waitForOtherChange();

    // True when this object took the lock itself, rather than nesting in
    // this thread's lock or relying on a parent's: only then is no other
    // change under way, and an unfinished one may be recovered.
    bool fresh() const { return static_cast<bool>(fd_); }

    StoreLock(StoreLock&& other) noexcept;
    StoreLock& operator=(StoreLock&&) = delete;
    StoreLock(const StoreLock&) = delete;
    ~StoreLock();

private:
    StoreLock(UniqueFd fd, bool counted) : fd_(std::move(fd)), counted_(counted) {}
    UniqueFd fd_;           // empty when the lock is inherited or nested
    bool counted_ = false;  // adds to this thread's nesting depth
};

}  // namespace quor
