// Decompresses a payload with zlib or libzstd directly and says whether the
// compressed stream was whole: one or more complete gzip members (each with
// its trailer's CRC-32 and length checked) or zstd frames (each with its
// checksum, when it has one), and nothing after them. libarchive's own
// filters stop as soon as the tar inside ends and never check the rest, so
// damage that still decompresses would otherwise pass.
#pragma once

#include <zlib.h>
#include <zstd.h>

#include <cstddef>
#include <string>

namespace quor {

class StreamDecoder {
public:
    enum class Codec { kGzip, kZstd };

    explicit StreamDecoder(Codec codec);
    StreamDecoder(const StreamDecoder&) = delete;
    StreamDecoder& operator=(const StreamDecoder&) = delete;
    ~StreamDecoder();

    // Takes compressed input; it must be decoded before more is given.
    void give(const void* data, size_t size);
    // Whether decode has more to give before the next input.
    bool hasWork() const { return (inputLeft_ > 0 || outputPending_) && !failed_; }
    // Decodes what it can of the input into `out`: the bytes written.
    size_t decode(char* out, size_t capacity);

    bool failed() const { return failed_; }
    // Everything given so far is whole frames or members and nothing else.
    bool complete() const { return !failed_ && atBoundary_ && started_; }
    const char* codecName() const { return codec_ == Codec::kGzip ? "gzip" : "zstd"; }

private:
    Codec codec_;
    z_stream zlib_{};
    ZSTD_DStream* zstd_ = nullptr;
    bool ready_ = false;
    bool failed_ = false;
    bool started_ = false;        // any input at all
    bool atBoundary_ = true;      // between two members or frames
    bool outputPending_ = false;  // the last decode filled its buffer
    const unsigned char* input_ = nullptr;
    size_t inputLeft_ = 0;
};

}  // namespace quor
