#include "quorpkg/package/md5_worker.h"

namespace quor {

Md5Worker::Md5Worker()
    : buffers_(std::make_unique<char[]>(kBuffers * kBufferSize)), thread_([this] { run(); }) {}

Md5Worker::~Md5Worker() {
    {
        std::lock_guard<std::mutex> lock(mutex_);
        stopping_ = true;
    }
    changed_.notify_all();
    thread_.join();
}

char* Md5Worker::buffer() {
    std::unique_lock<std::mutex> lock(mutex_);
    // The buffer's earlier block, kBuffers blocks back, must be hashed.
    changed_.wait(lock, [this] { return submitted_ < hashed_ + kBuffers; });
    return buffers_.get() + (submitted_ % kBuffers) * kBufferSize;
}

void Md5Worker::submit(size_t size) {
    {
        std::lock_guard<std::mutex> lock(mutex_);
        sizes_[submitted_ % kBuffers] = size;
        ++submitted_;
    }
    changed_.notify_all();
}

void Md5Worker::run() {
    std::unique_lock<std::mutex> lock(mutex_);
    for (;;) {
        changed_.wait(lock, [this] { return stopping_ || hashed_ < submitted_; });
        if (hashed_ == submitted_) return;  // stopping, nothing left
        const size_t slot = hashed_ % kBuffers;
        const size_t size = sizes_[slot];
        lock.unlock();
        md5_.update(buffers_.get() + slot * kBufferSize, size);
        lock.lock();
        ++hashed_;
        changed_.notify_all();
    }
}

void Md5Worker::drain() {
    std::unique_lock<std::mutex> lock(mutex_);
    changed_.wait(lock, [this] { return hashed_ == submitted_; });
}

void Md5Worker::update(const void* data, size_t size) {
    drain();
    md5_.update(data, size);
}

std::string Md5Worker::hex() {
    drain();
    return md5_.hex();
}

}  // namespace quor
