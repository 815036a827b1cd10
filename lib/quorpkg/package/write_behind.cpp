#include "quorpkg/package/write_behind.h"

#include <unistd.h>

namespace quor {

WriteBehind::WriteBehind(UniqueFd dirFd, std::uint64_t step)
    : dir_(std::move(dirFd)), step_(step) {}

WriteBehind::~WriteBehind() {
    thread_.request_stop();
    // jthread joins: a flush under way finishes first.
}

void WriteBehind::wrote(std::uint64_t bytes) {
    sinceFlush_ += bytes;
    if (sinceFlush_ < step_ || !dir_) return;
    sinceFlush_ = 0;
    // Started by the first flush: most packages are smaller than a step.
    if (!thread_.joinable()) thread_ = std::jthread([this](std::stop_token stop) { run(stop); });
    {
        std::lock_guard guard(mutex_);
        flushWanted_ = true;
    }
    wanted_.notify_one();
}

void WriteBehind::run(std::stop_token stop) {
    std::unique_lock lock(mutex_);
    while (wanted_.wait(lock, stop, [this] { return flushWanted_; })) {
        flushWanted_ = false;
        lock.unlock();
        // A failed flush here costs nothing: the commit's flush reports.
        ::syncfs(dir_.get());
        lock.lock();
    }
}

}  // namespace quor
