// Checks a gzip stream's trailers (CRC-32 and length of the data) while its
// compressed bytes go by. libarchive's gzip reader stops as soon as the tar
// inside it ends and never compares them, so damage that still inflates
// would otherwise pass.
#pragma once

#include <zlib.h>

#include <cstddef>
#include <memory>

namespace quor {

class GzipTrailerCheck {
public:
    GzipTrailerCheck();
    GzipTrailerCheck(const GzipTrailerCheck&) = delete;
    GzipTrailerCheck& operator=(const GzipTrailerCheck&) = delete;
    ~GzipTrailerCheck();

    // The next compressed bytes, in order.
    void update(const void* data, size_t size);
    // Whether everything given so far is one or more whole gzip members,
    // each ending with the trailer of its data, and nothing else.
    bool complete() const { return !failed_ && memberEnded_; }

private:
    z_stream stream_{};
    std::unique_ptr<unsigned char[]> scratch_;
    bool ready_ = false;
    bool failed_ = false;
    bool memberEnded_ = false;
};

}  // namespace quor
