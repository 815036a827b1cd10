// The lock of all changes to the package store: flock on /run/quorpkg/lock.
// Scripts run with QUOR_PKG_LOCK_HELD=1; a process that inherits that does not
// lock again (its parent holds the lock on its behalf).
#pragma once

#include <optional>

#include "base/file_util.h"

namespace quor {

class StoreLock {
public:
    // Waits up to the lock_timeout setting. On failure returns nothing and
    // sets `code` (kLocked when another process holds it; the holder's pid
    // is logged to the system log).
    static std::optional<StoreLock> acquire(int& code);

    StoreLock(StoreLock&&) noexcept = default;
    StoreLock& operator=(StoreLock&&) noexcept = default;
    ~StoreLock();

private:
    explicit StoreLock(UniqueFd fd) : fd_(std::move(fd)) {}
    UniqueFd fd_;  // empty when the lock is inherited
};

}  // namespace quor
