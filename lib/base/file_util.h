// Small file helpers: whole-file reads, directory listings and crash-safe
// writes.
#pragma once

#include <sys/types.h>

#include <filesystem>
#include <optional>
#include <string>
#include <string_view>
#include <vector>

namespace quor {

// The whole file, or nothing when it cannot be read.
std::optional<std::string> readFile(const std::filesystem::path& path);

// The names in `dir` of entries that are, or link to, a file of `type`
// (S_IFDIR, S_IFREG), in directory order; none when `dir` cannot be read.
std::vector<std::string> entriesOfType(const std::filesystem::path& dir, mode_t type);

// `path` made absolute against the working directory, without "."
// components (".." stays: it may climb out of a link); empty stays empty.
std::filesystem::path absolutePath(const std::filesystem::path& path);

// Replaces `path` with `content` so that a crash leaves the old file or the
// new one: written to a temporary name beside it, fsync'ed, renamed over the
// old one, and the directory fsync'ed.
bool writeFileAtomic(const std::filesystem::path& path, std::string_view content,
                     mode_t mode = 0644);

// Flushes a directory's entries (after a rename or an unlink in it).
bool syncDirectory(const std::filesystem::path& dir);

// Writes all of `data` to `fd`, again after interruptions; false with
// errno set when a write fails.
bool writeAll(int fd, std::string_view data);

// A file descriptor that closes itself.
class UniqueFd {
public:
    UniqueFd() = default;
    explicit UniqueFd(int fd) : fd_(fd) {}
    UniqueFd(UniqueFd&& other) noexcept : fd_(other.release()) {}
    UniqueFd& operator=(UniqueFd&& other) noexcept;
    UniqueFd(const UniqueFd&) = delete;
    UniqueFd& operator=(const UniqueFd&) = delete;
    ~UniqueFd();

    int get() const { return fd_; }
    explicit operator bool() const { return fd_ >= 0; }
    int release() {
        int fd = fd_;
        fd_ = -1;
        return fd;
    }

private:
    int fd_ = -1;
};

// Opens `path` without following a symbolic link in its last component and
// only when it is a regular file (`flags` may add O_CREAT and the like); an
// invalid descriptor otherwise. For files the store keeps for itself, where
// a planted link must not redirect a write or a read.
UniqueFd openRegularFile(const std::filesystem::path& path, int flags, mode_t mode = 0644);

// The whole file, or nothing when it cannot be read, is a link or is not a
// regular file.
std::optional<std::string> readRegularFile(const std::filesystem::path& path);

}  // namespace quor
