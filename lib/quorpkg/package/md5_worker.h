// An md5 digest computed on a helper thread, so that hashing a payload
// overlaps with decompressing and writing it instead of adding to them.
#pragma once

#include <condition_variable>
#include <cstddef>
#include <memory>
#include <mutex>
#include <string>
#include <thread>

#include "quorpkg/package/md5.h"

namespace quor {

// The caller fills the worker's buffers in turn: `buffer()` gives the next
// one (waiting until the thread is done with its earlier content) and
// `submit(n)` hands its first n bytes over. The caller may keep reading a
// submitted buffer until it has submitted kBuffers - 1 more.
class Md5Worker {
public:
    static constexpr size_t kBuffers = 4;
    static constexpr size_t kBufferSize = 256 * 1024;

    Md5Worker();
    Md5Worker(const Md5Worker&) = delete;
    Md5Worker& operator=(const Md5Worker&) = delete;
    ~Md5Worker();

    char* buffer();
    void submit(size_t size);
    // Hashes `data` after everything submitted, on the calling thread.
    void update(const void* data, size_t size);
    // The digest of everything, in order; nothing can be added afterwards.
    std::string hex();

private:
    void run();
    void drain();

    Md5 md5_;
    std::unique_ptr<char[]> buffers_;
    size_t sizes_[kBuffers] = {};
    std::mutex mutex_;
    std::condition_variable changed_;
    size_t submitted_ = 0;  // blocks handed over
    size_t hashed_ = 0;     // blocks the thread is done with
    bool stopping_ = false;
    std::thread thread_;  // last: starts once everything above is ready
};

}  // namespace quor
