// A whole file mapped read-only, for the large caches that commands read on
// every run (the index of installed packages, catalog digests): no heap
// buffer to fault in and fill, only the page-cache pages already there.
// Only for files that are replaced by rename and never cut short in place:
// reading a page beyond a file truncated under the mapping raises SIGBUS.
#pragma once

#include <sys/stat.h>

#include <filesystem>
#include <string_view>

namespace quor {

class MappedFile {
public:
    // Maps `path`; an empty view when it cannot be opened, is not a regular
    // file or is empty.
    explicit MappedFile(const std::filesystem::path& path);
    MappedFile(const MappedFile&) = delete;
    MappedFile& operator=(const MappedFile&) = delete;
    ~MappedFile();

    bool opened() const { return opened_; }
    std::string_view text() const { return {data_, size_}; }
    // The file's status when it was mapped.
    const struct stat& status() const { return status_; }

private:
    const char* data_ = nullptr;
    size_t size_ = 0;
    bool opened_ = false;
    struct stat status_ {};
};

}  // namespace quor
