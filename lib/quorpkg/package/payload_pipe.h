// The payload member of a package file, read, hashed and decompressed on a
// thread of its own while the caller unpacks the tar inside, as
// `gzip -d | tar -x` overlaps the two: decompressing and writing files each
// take about half of an install. The hashes cover every byte of the member,
// also what the caller does not read.
#pragma once

#include <archive.h>

#include <condition_variable>
#include <cstddef>
#include <memory>
#include <mutex>
#include <string>
#include <thread>

#include "quorpkg/package/digest_worker.h"
#include "quorpkg/package/stream_decoder.h"

namespace quor {

class PayloadPipe {
public:
    // Reads the current member of `outer`, which nobody else may touch
    // until finish() returns.
    PayloadPipe(archive* outer, StreamDecoder::Codec codec);
    PayloadPipe(const PayloadPipe&) = delete;
    PayloadPipe& operator=(const PayloadPipe&) = delete;
    // Stops the thread (after finish(), or abandoning the member).
    ~PayloadPipe();

    // libarchive's read callback for the reader of the tar inside:
    // decompressed blocks in order, 0 at the end, -1 with the error set.
    static la_ssize_t read(archive* inner, void* self, const void** block);

    struct Outcome {
        std::string readError;  // the member could not be read
        bool whole = false;     // the compressed stream was complete
        FileDigests digests;    // of the member as read
    };
    // After the caller is done with the tar: reads and hashes the rest of
    // the member, and says how it went.
    Outcome finish();

    const char* codecName() const { return decoder_.codecName(); }

private:
    static constexpr size_t kBlocks = 4;
    static constexpr size_t kBlockSize = 256 * 1024;

    void run(std::stop_token stop);
    // Gives the next decompressed block to the reader, false once nobody
    // wants them any more.
    bool publish(size_t size, std::stop_token& stop);
    char* freeBlock();

    archive* outer_;
    DigestWorker digests_;
    StreamDecoder decoder_;
    std::unique_ptr<char[]> blocks_;
    size_t sizes_[kBlocks] = {};

    std::mutex mutex_;
    std::condition_variable_any changed_;
    size_t published_ = 0;  // blocks handed to the reader
    size_t taken_ = 0;      // blocks the reader took (the last one it holds)
    bool ended_ = false;    // no more blocks: the member ended or could not be read
    bool decodeFailed_ = false;
    bool draining_ = false;  // the reader is done: only read and hash
    std::string readError_;
    std::jthread thread_;  // last: stopped and joined before the members go
};

}  // namespace quor
