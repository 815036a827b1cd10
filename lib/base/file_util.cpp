#include "base/file_util.h"

#include <dirent.h>
#include <fcntl.h>
#include <sys/stat.h>
#include <unistd.h>

#include <cerrno>
#include <memory>

namespace fs = std::filesystem;

namespace quor {

UniqueFd& UniqueFd::operator=(UniqueFd&& other) noexcept {
    if (this != &other) {
        if (fd_ >= 0) ::close(fd_);
        fd_ = other.release();
    }
    return *this;
}

UniqueFd::~UniqueFd() {
    if (fd_ >= 0) ::close(fd_);
}

UniqueFd openRegularFile(const fs::path& path, int flags, mode_t mode) {
    UniqueFd fd(::open(path.c_str(), flags | O_NOFOLLOW | O_CLOEXEC, mode));
    struct stat st {};
    if (fd && (::fstat(fd.get(), &st) != 0 || !S_ISREG(st.st_mode))) return UniqueFd();
    return fd;
}

// Plain reads into one string: an iostream costs more than the read itself
// for the small files (manifests, journals) this mostly serves. Like a
// stream, a read error ends the content where it happened.
namespace {

std::optional<std::string> readAll(const UniqueFd& fd) {
    if (!fd) return std::nullopt;
    // Most files fit the first block; larger ones double the room.
    std::string content(4096, '\0');
    size_t have = 0;
    for (;;) {
        if (have == content.size()) content.resize(content.size() * 2);
        ssize_t n = ::read(fd.get(), content.data() + have, content.size() - have);
        if (n < 0 && errno == EINTR) continue;
        // A read that fails (a folder, an I/O error) is no whole file.
        if (n < 0) return std::nullopt;
        if (n == 0) break;
        have += static_cast<size_t>(n);
    }
    content.resize(have);
    return content;
}

}  // namespace

std::optional<std::string> readFile(const fs::path& path) {
    return readAll(UniqueFd(::open(path.c_str(), O_RDONLY | O_CLOEXEC)));
}

std::optional<std::string> readRegularFile(const fs::path& path) {
    return readAll(openRegularFile(path, O_RDONLY));
}

namespace {

struct DirCloser {
    void operator()(DIR* dir) const { ::closedir(dir); }
};

}  // namespace

// readdir's entry types spare a stat per entry; only links (followed, as a
// path would be) and file systems that give no type need one.
std::vector<std::string> entriesOfType(const fs::path& dir, mode_t type) {
    std::vector<std::string> names;
    std::unique_ptr<DIR, DirCloser> stream(::opendir(dir.c_str()));
    if (!stream) return names;
    while (const dirent* entry = ::readdir(stream.get())) {
        const char* name = entry->d_name;
        if (name[0] == '.' && (name[1] == '\0' || (name[1] == '.' && name[2] == '\0'))) continue;
        mode_t found = DTTOIF(entry->d_type);
        if (entry->d_type == DT_LNK || entry->d_type == DT_UNKNOWN) {
            struct stat st {};
            found = ::fstatat(::dirfd(stream.get()), name, &st, 0) == 0 ? st.st_mode : 0;
        }
        if ((found & S_IFMT) == type) names.emplace_back(name);
    }
    return names;
}

bool writeAll(int fd, std::string_view data) {
    while (!data.empty()) {
        ssize_t n = ::write(fd, data.data(), data.size());
        if (n < 0 && errno == EINTR) continue;
        if (n <= 0) {
            if (n == 0) errno = EIO;  // no progress: give up rather than spin
            return false;
        }
        data.remove_prefix(static_cast<size_t>(n));
    }
    return true;
}

fs::path absolutePath(const fs::path& path) {
    std::error_code ec;
    const fs::path full = path.empty() ? path : fs::absolute(path, ec);
    if (ec) return path;
    fs::path out;
    for (const fs::path& part : full)
        if (part != ".") out /= part;
    return out;
}

bool syncDirectory(const fs::path& dir) {
    UniqueFd fd(::open(dir.c_str(), O_RDONLY | O_DIRECTORY | O_CLOEXEC));
    return fd && ::fsync(fd.get()) == 0;
}

bool writeFileAtomic(const fs::path& path, std::string_view content, mode_t mode) {
    const fs::path dir = path.has_parent_path() ? path.parent_path() : fs::path(".");
    std::string name = ".";
    name += path.filename().string();
    name += ".XXXXXX";
    std::string temp = (dir / name).string();
    UniqueFd fd(::mkstemp(temp.data()));
    if (!fd) return false;
    bool ok =
        ::fchmod(fd.get(), mode) == 0 && writeAll(fd.get(), content) && ::fsync(fd.get()) == 0;
    fd = UniqueFd();
    if (ok) ok = ::rename(temp.c_str(), path.c_str()) == 0;
    if (!ok) {
        ::unlink(temp.c_str());
        return false;
    }
    syncDirectory(dir);
    return true;
}

}  // namespace quor
