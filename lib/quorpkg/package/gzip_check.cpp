#include "quorpkg/package/gzip_check.h"

namespace quor {
namespace {

constexpr size_t kScratchSize = 64 * 1024;
// zlib's window bits plus 16: a gzip header and trailer, both checked.
constexpr int kGzipWindowBits = 16 + MAX_WBITS;

}  // namespace

GzipTrailerCheck::GzipTrailerCheck() : scratch_(std::make_unique<unsigned char[]>(kScratchSize)) {
    ready_ = inflateInit2(&stream_, kGzipWindowBits) == Z_OK;
    failed_ = !ready_;
}

GzipTrailerCheck::~GzipTrailerCheck() {
    if (ready_) inflateEnd(&stream_);
}

void GzipTrailerCheck::update(const void* data, size_t size) {
    // zlib counts in uInt: feed a huge block in parts.
    const auto* bytes = static_cast<const unsigned char*>(data);
    while (size > 0 && !failed_) {
        const uInt part = size > kScratchSize ? uInt(kScratchSize) : uInt(size);
        stream_.next_in = const_cast<unsigned char*>(bytes);
        stream_.avail_in = part;
        while (stream_.avail_in > 0 && !failed_) {
            // More bytes after a member's trailer must be another member.
            if (memberEnded_) {
                failed_ = inflateReset(&stream_) != Z_OK;
                memberEnded_ = false;
                continue;
            }
            stream_.next_out = scratch_.get();
            stream_.avail_out = uInt(kScratchSize);
            int result = inflate(&stream_, Z_NO_FLUSH);
            if (result == Z_STREAM_END)
                memberEnded_ = true;
            else if (result != Z_OK)
                failed_ = true;
        }
        bytes += part;
        size -= part;
    }
}

}  // namespace quor
