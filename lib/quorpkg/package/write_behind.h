// Puts unpacked data on disk while unpacking goes on. The store flushes a
// package's file system (syncfs) before it commits; left to the end, that
// flush waits for every byte of a large payload after the CPU work is done.
// A thread of its own flushes after every few megabytes instead, so that the
// disk writes while the next files are decompressed and the final flush finds
// little left. Nothing depends on these flushes for safety: the store's own
// flush before the commit still decides.
#pragma once

#include <condition_variable>
#include <cstdint>
#include <mutex>
#include <thread>

#include "base/file_util.h"

namespace quor {

class WriteBehind {
public:
    // Flushes the file system that holds the open directory `dirFd` (taken
    // over) after every `step` bytes reported.
    explicit WriteBehind(UniqueFd dirFd, std::uint64_t step = std::uint64_t(16) << 20);
    WriteBehind(const WriteBehind&) = delete;
    WriteBehind& operator=(const WriteBehind&) = delete;
    // Waits for a flush under way, starts no other.
    ~WriteBehind();

    void wrote(std::uint64_t bytes);

private:
    void run(std::stop_token stop);

    UniqueFd dir_;
    const std::uint64_t step_;
    std::uint64_t sinceFlush_ = 0;  // the unpacking thread's own count
    std::mutex mutex_;
    std::condition_variable_any wanted_;
    bool flushWanted_ = false;
    std::jthread thread_;  // last: stopped and joined before the members go
};

}  // namespace quor
