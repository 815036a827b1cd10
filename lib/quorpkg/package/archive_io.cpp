#include "quorpkg/package/archive_io.h"

#include <sys/stat.h>
#include <unistd.h>

#include <cerrno>
#include <stdexcept>

namespace quor::archive_io {

std::string errorText(archive* a) {
    const char* text = a ? archive_error_string(a) : nullptr;
    return text ? text : "unknown archive error";
}

FdSource::FdSource(int fd) : fd_(fd), buffer_(64 * 1024) {}

int FdSource::open(archive* reader) {
    archive_read_set_read_callback(reader, &FdSource::read);
    archive_read_set_skip_callback(reader, &FdSource::skip);
    archive_read_set_callback_data(reader, this);
    return archive_read_open1(reader);
}

la_ssize_t FdSource::read(archive* a, void* self, const void** buffer) {
    auto* source = static_cast<FdSource*>(self);
    ssize_t n;
    do {
        n = ::read(source->fd_, source->buffer_.data(), source->buffer_.size());
    } while (n < 0 && errno == EINTR);
    if (n < 0) {
        archive_set_error(a, errno, "cannot read the package file");
        return -1;
    }
    source->bytesRead_ += n;
    *buffer = source->buffer_.data();
    return n;
}

la_int64_t FdSource::skip(archive*, void* self, la_int64_t request) {
    auto* source = static_cast<FdSource*>(self);
    struct stat st {};
    off_t at = ::lseek(source->fd_, 0, SEEK_CUR);
    if (at < 0 || ::fstat(source->fd_, &st) != 0 || !S_ISREG(st.st_mode)) return 0;
    // Skipping only up to the end lets libarchive read (and find nothing)
    // for the rest, which it reports as a truncated archive.
    la_int64_t room = st.st_size > at ? st.st_size - at : 0;
    la_int64_t step = request < room ? request : room;
    if (step <= 0 || ::lseek(source->fd_, step, SEEK_CUR) < 0) return 0;
    return step;
}

}  // namespace quor::archive_io
