#include "quorpkg/package/digest_worker.h"

#include <algorithm>

namespace quor {

DigestWorker::DigestWorker() : buffers_(std::make_unique<char[]>(kBuffers * kBufferSize)) {
    // Started once every member is ready.
    md5_.thread = std::thread([this] { run(md5_); });
    sha256_.thread = std::thread([this] { run(sha256_); });
}

DigestWorker::~DigestWorker() {
    {
        std::lock_guard<std::mutex> lock(mutex_);
        stopping_ = true;
    }
    changed_.notify_all();
    md5_.thread.join();
    sha256_.thread.join();
}

char* DigestWorker::buffer() {
    std::unique_lock<std::mutex> lock(mutex_);
    // The buffer's earlier block, kBuffers blocks back, must be hashed by both.
    changed_.wait(lock, [this] { return submitted_ < slowest() + kBuffers; });
    return buffers_.get() + (submitted_ % kBuffers) * kBufferSize;
}

void DigestWorker::submit(size_t size) {
    {
        std::lock_guard<std::mutex> lock(mutex_);
        sizes_[submitted_ % kBuffers] = size;
        ++submitted_;
    }
    changed_.notify_all();
}

void DigestWorker::run(Lane& lane) {
    std::unique_lock<std::mutex> lock(mutex_);
    for (;;) {
        changed_.wait(lock, [&] { return stopping_ || lane.hashed < submitted_; });
        if (lane.hashed == submitted_) return;  // stopping, nothing left
        const size_t slot = lane.hashed % kBuffers;
        const size_t size = sizes_[slot];
        lock.unlock();
        lane.digest.update(buffers_.get() + slot * kBufferSize, size);
        lock.lock();
        ++lane.hashed;
        changed_.notify_all();
    }
}

void DigestWorker::drain() {
    std::unique_lock<std::mutex> lock(mutex_);
    changed_.wait(lock, [this] { return slowest() == submitted_; });
}

void DigestWorker::update(const void* data, size_t size) {
    drain();
    md5_.digest.update(data, size);
    sha256_.digest.update(data, size);
}

FileDigests DigestWorker::finish() {
    drain();
    return FileDigests{md5_.digest.hex(), sha256_.digest.hex()};
}

}  // namespace quor
