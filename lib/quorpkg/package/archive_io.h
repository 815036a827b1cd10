// Small RAII helpers around libarchive and OpenSSL used by the package-file
// reader and writer. Internal to this folder.
#pragma once

#include <archive.h>
#include <archive_entry.h>
#include <sys/types.h>

#include <memory>
#include <string>
#include <string_view>
#include <vector>

namespace quor::archive_io {

struct ReadDeleter {
    void operator()(archive* a) const { archive_read_free(a); }
};
struct WriteDeleter {
    void operator()(archive* a) const { archive_write_free(a); }
};
struct EntryDeleter {
    void operator()(archive_entry* e) const { archive_entry_free(e); }
};
using ReadArchive = std::unique_ptr<archive, ReadDeleter>;
using WriteArchive = std::unique_ptr<archive, WriteDeleter>;
using Entry = std::unique_ptr<archive_entry, EntryDeleter>;

// libarchive's message for the last error, or a fallback.
std::string errorText(archive* a);

// A seekable file as the source of an archive reader. Skipping moves the
// file offset with lseek, so data that is skipped is never read; a skip never
// goes past the end of the file, so that a truncated member is reported
// instead of passing as a clean end of archive.
class FdSource {
public:
    explicit FdSource(int fd);
    // Opens `reader` on the file from its current offset.
    int open(archive* reader);
    // Bytes actually read from the file so far (skipped bytes excluded).
    long long bytesRead() const { return bytesRead_; }

private:
    static la_ssize_t read(archive* a, void* self, const void** buffer);
    static la_int64_t skip(archive* a, void* self, la_int64_t request);

    int fd_;
    std::vector<char> buffer_;
    long long bytesRead_ = 0;
};

}  // namespace quor::archive_io
