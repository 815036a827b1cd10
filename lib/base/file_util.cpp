#include "base/file_util.h"

#include <fcntl.h>
#include <sys/stat.h>
#include <unistd.h>

#include <cerrno>
#include <fstream>
#include <sstream>

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

std::optional<std::string> readFile(const fs::path& path) {
    std::ifstream in(path, std::ios::binary);
    if (!in) return std::nullopt;
    std::ostringstream content;
    content << in.rdbuf();
    if (in.bad()) return std::nullopt;
    return std::move(content).str();
}

static bool writeAll(int fd, std::string_view data) {
    while (!data.empty()) {
        ssize_t n = ::write(fd, data.data(), data.size());
        if (n < 0) {
            if (errno == EINTR) continue;
            return false;
        }
        data.remove_prefix(static_cast<size_t>(n));
    }
    return true;
}

bool syncDirectory(const fs::path& dir) {
    UniqueFd fd(::open(dir.c_str(), O_RDONLY | O_DIRECTORY | O_CLOEXEC));
    return fd && ::fsync(fd.get()) == 0;
}

bool writeFileAtomic(const fs::path& path, std::string_view content, mode_t mode) {
    const fs::path dir = path.has_parent_path() ? path.parent_path() : fs::path(".");
    std::string temp = (dir / ("." + path.filename().string() + ".XXXXXX")).string();
    UniqueFd fd(::mkstemp(temp.data()));
    if (!fd) return false;
    bool ok = ::fchmod(fd.get(), mode) == 0 && writeAll(fd.get(), content) &&
              ::fsync(fd.get()) == 0;
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
