#include "quorpkg/package/stream_decoder.h"

#include <algorithm>

namespace quor {
namespace {

// zlib's window bits plus 16: a gzip header and trailer, both checked.
constexpr int kGzipWindowBits = 16 + MAX_WBITS;
// zlib counts in uInt.
constexpr size_t kZlibStep = 1 << 30;

}  // namespace

StreamDecoder::StreamDecoder(Codec codec) : codec_(codec) {
    if (codec_ == Codec::kGzip) {
        ready_ = inflateInit2(&zlib_, kGzipWindowBits) == Z_OK;
    } else {
        zstd_ = ZSTD_createDStream();
        ready_ = zstd_ != nullptr && !ZSTD_isError(ZSTD_initDStream(zstd_));
    }
    failed_ = !ready_;
}

StreamDecoder::~StreamDecoder() {
    if (codec_ == Codec::kGzip && ready_) inflateEnd(&zlib_);
    if (zstd_) ZSTD_freeDStream(zstd_);
}

void StreamDecoder::give(const void* data, size_t size) {
    input_ = static_cast<const unsigned char*>(data);
    inputLeft_ = size;
    if (size > 0) started_ = true;
}

size_t StreamDecoder::decode(char* out, size_t capacity) {
    size_t written = 0;
    while (hasWork() && written < capacity) {
        if (codec_ == Codec::kGzip) {
            // More bytes after a member's trailer must be another member.
            if (atBoundary_ && zlib_.total_in > 0 && inflateReset(&zlib_) != Z_OK) {
                failed_ = true;
                break;
            }
            zlib_.next_in = const_cast<unsigned char*>(input_);
            zlib_.avail_in = uInt(std::min(inputLeft_, kZlibStep));
            zlib_.next_out = reinterpret_cast<unsigned char*>(out + written);
            zlib_.avail_out = uInt(std::min(capacity - written, kZlibStep));
            const uInt inBefore = zlib_.avail_in, outBefore = zlib_.avail_out;
            const int result = inflate(&zlib_, Z_NO_FLUSH);
            input_ += inBefore - zlib_.avail_in;
            inputLeft_ -= inBefore - zlib_.avail_in;
            written += outBefore - zlib_.avail_out;
            // Output may wait in zlib while the buffer is full.
            outputPending_ = result == Z_OK && zlib_.avail_out == 0;
            if (result == Z_STREAM_END)
                atBoundary_ = true;
            else if (result == Z_OK)
                atBoundary_ = false;
            else if (result != Z_BUF_ERROR || inBefore != 0)
                failed_ = true;  // Z_BUF_ERROR without input: nothing was pending
        } else {
            ZSTD_inBuffer in{input_, inputLeft_, 0};
            ZSTD_outBuffer outBuffer{out + written, capacity - written, 0};
            const size_t result = ZSTD_decompressStream(zstd_, &outBuffer, &in);
            input_ += in.pos;
            inputLeft_ -= in.pos;
            written += outBuffer.pos;
            outputPending_ = outBuffer.pos == outBuffer.size;
            if (ZSTD_isError(result))
                failed_ = true;
            else
                atBoundary_ = result == 0;  // 0: a frame just ended and was flushed
        }
    }
    return written;
}

}  // namespace quor
