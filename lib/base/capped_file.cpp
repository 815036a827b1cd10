#include "base/capped_file.h"

#include <fcntl.h>
#include <sys/file.h>
#include <sys/stat.h>
#include <unistd.h>

#include <cerrno>
#include <cstdio>

#include "base/file_util.h"

namespace quor {
namespace {

bool lockExclusive(int fd) {
    while (::flock(fd, LOCK_EX) != 0) {
        if (errno != EINTR) return false;
    }
    return true;
}

bool sameFile(const struct stat& a, const struct stat& b) {
    return a.st_dev == b.st_dev && a.st_ino == b.st_ino;
}

}  // namespace

bool appendCapped(const std::filesystem::path& path, std::string_view text, uintmax_t cap,
                  mode_t mode) {
    const std::string rotated = path.string() + ".1";
    // Another writer may move the file between our open and our lock (each
    // time it does, it got its text in), and a full file is moved before the
    // text goes in: a round is repeated only when someone made progress.
    for (int round = 0; round < 64; ++round) {
        UniqueFd fd(
            ::open(path.c_str(), O_WRONLY | O_APPEND | O_CREAT | O_CLOEXEC | O_NOFOLLOW, mode));
        if (!fd || !lockExclusive(fd.get())) return false;
        struct stat opened {};
        struct stat named {};
        if (::fstat(fd.get(), &opened) != 0) return false;
        if (::lstat(path.c_str(), &named) != 0 || !sameFile(opened, named)) continue;
        const auto size = static_cast<uintmax_t>(opened.st_size);
        if (size > 0 && size + text.size() > cap) {
            if (::rename(path.c_str(), rotated.c_str()) != 0) return false;
            continue;  // the waiters and we reopen a fresh file
        }
        return writeAll(fd.get(), text);
    }
    return false;
}

}  // namespace quor
