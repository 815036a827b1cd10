#include "quorpkg/store/lock.h"

#include <fcntl.h>
#include <signal.h>
#include <sys/file.h>
#include <syslog.h>
#include <unistd.h>

#include <atomic>
#include <cerrno>
#include <charconv>
#include <chrono>
#include <cstdlib>
#include <cstring>
#include <string>
#include <system_error>
#include <thread>

#include "base/layout.h"
#include "base/result.h"
#include "base/settings.h"

namespace quor {
namespace {

thread_local int t_depth = 0;    // how many StoreLocks this thread holds
std::atomic<int> g_heldHere{0};  // StoreLocks in this process that hold the flock

bool inheritedFromParent() {
    const char* held = std::getenv("QUOR_PKG_LOCK_HELD");
    return held != nullptr && std::strcmp(held, "1") == 0;
}

UniqueFd openLockFile() {
    std::error_code ec;
    std::filesystem::create_directories(layout::lockFile().parent_path(), ec);
    // Never through a link: the holder truncates the file it opens.
    return openRegularFile(layout::lockFile(), O_RDWR | O_CREAT);
}

// Records the holder; the file keeps its inode so other waiters' flock
// stays on the same file.
void writeHolder(int fd) {
    // The pid is for diagnostics only: failing to write it changes nothing.
    std::string pid = std::to_string(::getpid()) + "\n";
    bool written = ::ftruncate(fd, 0) == 0 && ::pwrite(fd, pid.data(), pid.size(), 0) > 0;
    (void)written;
}

std::string readHolder(int fd) {
    char buffer[32] = {};
    ssize_t n = ::pread(fd, buffer, sizeof buffer - 1, 0);
    std::string pid(buffer, n > 0 ? static_cast<size_t>(n) : 0);
    while (!pid.empty() && (pid.back() == '\n' || pid.back() == ' ')) pid.pop_back();
    return pid.empty() ? "unknown" : pid;
}

bool tryLock(int fd) {
    while (::flock(fd, LOCK_EX | LOCK_NB) != 0) {
        if (errno != EINTR) return false;
    }
    return true;
}

// Whether the process the lock file names is gone. Whoever holds the lock
// then is a child it forked that has not reached exec yet (the lock file is
// closed on exec): it dies with its parent in a moment (PR_SET_PDEATHSIG).
bool holderIsGone(int fd) {
    const std::string holder = readHolder(fd);
    pid_t pid = 0;
    const auto [end, ec] = std::from_chars(holder.data(), holder.data() + holder.size(), pid);
    if (ec != std::errc() || end != holder.data() + holder.size() || pid <= 0) return false;
    return ::kill(pid, 0) != 0 && errno == ESRCH;
}

}  // namespace

std::optional<StoreLock> StoreLock::acquire(int& code) {
    if (t_depth > 0) {
        ++t_depth;
        return StoreLock(UniqueFd(), true);
    }
    if (inheritedFromParent()) return StoreLock(UniqueFd(), false);
    UniqueFd fd = openLockFile();
    if (!fd) {
        code = refuse(kStoreUnusable, "cannot open " + layout::lockFile().string());
        return std::nullopt;
    }
    // flock has no time limit of its own: poll, with a short pause that
    // grows to a tenth of a second.
    const int timeout = loadSettings().lock_timeout;
    const auto deadline = std::chrono::steady_clock::now() + std::chrono::seconds(timeout);
    auto pause = std::chrono::milliseconds(5);
    while (!tryLock(fd.get())) {
        const bool busy = errno == EWOULDBLOCK;
        if (!busy || std::chrono::steady_clock::now() >= deadline) {
            if (busy) {
                ::syslog(LOG_ERR, "quorpkg: package store is locked by pid %s; gave up after %d s",
                         readHolder(fd.get()).c_str(), timeout);
            }
            code = busy ? refuse(kLocked, "the package store is locked by pid " +
                                              readHolder(fd.get()) + "; gave up after " +
                                              std::to_string(timeout) + " s")
                        : refuse(kStoreUnusable, "cannot lock " + layout::lockFile().string());
            return std::nullopt;
        }
        std::this_thread::sleep_for(pause);
        pause = std::min(pause * 2, std::chrono::milliseconds(100));
    }
    writeHolder(fd.get());
    ++t_depth;
    ++g_heldHere;
    return StoreLock(std::move(fd), true);
}

std::optional<StoreLock> StoreLock::tryAcquireFresh() {
    if (t_depth > 0 || inheritedFromParent()) return std::nullopt;
    UniqueFd fd = openLockFile();
    if (!fd) return std::nullopt;
    // A killed change's children outlive it by the moment they take to
    // die; the change they leave is recovered once they are gone.
    constexpr auto kOrphanGrace = std::chrono::seconds(2);
    const auto deadline = std::chrono::steady_clock::now() + kOrphanGrace;
    while (!tryLock(fd.get())) {
        if (!holderIsGone(fd.get()) || std::chrono::steady_clock::now() > deadline)
            return std::nullopt;
        std::this_thread::sleep_for(std::chrono::milliseconds(5));
    }
    writeHolder(fd.get());
    ++t_depth;
    ++g_heldHere;
    return StoreLock(std::move(fd), true);
}

bool StoreLock::waitForOtherChange() {
    if (t_depth > 0 || g_heldHere > 0 || inheritedFromParent()) return false;
    int code = kOk;
    return StoreLock::acquire(code).has_value();
}

StoreLock::StoreLock(StoreLock&& other) noexcept
    : fd_(std::move(other.fd_)), counted_(other.counted_) {
    other.counted_ = false;
}

StoreLock::~StoreLock() {
    if (counted_) --t_depth;
    if (fd_) {
        --g_heldHere;
        // Clear the pid before the lock goes, so a stale pid never names a
        // process that no longer holds it.
        bool cleared = ::ftruncate(fd_.get(), 0) == 0;
        (void)cleared;
        ::flock(fd_.get(), LOCK_UN);
    }
}

}  // namespace quor
