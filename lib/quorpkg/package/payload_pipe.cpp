#include "quorpkg/package/payload_pipe.h"

#include <cerrno>

#include "quorpkg/package/archive_io.h"

namespace quor {

PayloadPipe::PayloadPipe(archive* outer, StreamDecoder::Codec codec)
    : outer_(outer),
      decoder_(codec),
      blocks_(std::make_unique<char[]>(kBlocks * kBlockSize)),
      thread_([this](std::stop_token stop) { run(stop); }) {}

PayloadPipe::~PayloadPipe() {
    {
        std::lock_guard guard(mutex_);
        draining_ = true;
    }
    thread_.request_stop();
    changed_.notify_all();
}

char* PayloadPipe::freeBlock() {
    // The reader holds the block it took last; the others are free once read.
    return blocks_.get() + (published_ % kBlocks) * kBlockSize;
}

bool PayloadPipe::publish(size_t size, std::stop_token& stop) {
    std::unique_lock lock(mutex_);
    if (draining_) return false;
    sizes_[published_ % kBlocks] = size;
    ++published_;
    changed_.notify_all();
    // Wait for room for the next one.
    changed_.wait(lock, stop, [this] { return draining_ || published_ < taken_ + kBlocks - 1; });
    return !draining_ && !stop.stop_requested();
}

void PayloadPipe::run(std::stop_token stop) {
    bool reading = true;  // the reader still wants blocks
    while (!stop.stop_requested()) {
        char* in = digests_.buffer();
        la_ssize_t n = archive_read_data(outer_, in, DigestWorker::kBufferSize);
        if (n < 0) {
            std::lock_guard guard(mutex_);
            readError_ = archive_io::errorText(outer_);
            break;
        }
        digests_.submit(static_cast<size_t>(n));
        if (n == 0) break;
        decoder_.give(in, static_cast<size_t>(n));
        while (decoder_.hasWork() && !stop.stop_requested()) {
            if (reading) {
                const size_t size = decoder_.decode(freeBlock(), kBlockSize);
                if (size > 0) reading = publish(size, stop);
            } else {
                // Nobody reads blocks any more: only whether the stream is whole counts.
                decoder_.decode(blocks_.get(), kBlockSize);
            }
        }
        if (decoder_.failed() && reading) {
            std::lock_guard guard(mutex_);
            decodeFailed_ = true;
            reading = false;
            changed_.notify_all();
        }
    }
    std::lock_guard guard(mutex_);
    ended_ = true;
    changed_.notify_all();
}

la_ssize_t PayloadPipe::read(archive* inner, void* self, const void** block) {
    auto* pipe = static_cast<PayloadPipe*>(self);
    std::unique_lock lock(pipe->mutex_);
    pipe->changed_.notify_all();  // the block taken last is free again
    pipe->changed_.wait(lock, [pipe] {
        return pipe->published_ > pipe->taken_ || pipe->ended_ || pipe->decodeFailed_;
    });
    if (pipe->published_ > pipe->taken_) {
        const size_t slot = pipe->taken_ % kBlocks;
        ++pipe->taken_;
        pipe->changed_.notify_all();
        *block = pipe->blocks_.get() + slot * kBlockSize;
        return static_cast<la_ssize_t>(pipe->sizes_[slot]);
    }
    if (pipe->decodeFailed_) {
        archive_set_error(inner, EIO, "damaged %s data", pipe->decoder_.codecName());
        return -1;
    }
    if (!pipe->readError_.empty()) {
        archive_set_error(inner, EIO, "%s", pipe->readError_.c_str());
        return -1;
    }
    return 0;
}

PayloadPipe::Outcome PayloadPipe::finish() {
    {
        std::lock_guard guard(mutex_);
        draining_ = true;
    }
    changed_.notify_all();
    thread_.join();
    Outcome outcome;
    outcome.readError = readError_;
    outcome.whole = decoder_.complete();
    outcome.digests = digests_.finish();
    return outcome;
}

}  // namespace quor
