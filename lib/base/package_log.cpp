#include "base/package_log.h"

#include <fcntl.h>
#include <sys/stat.h>
#include <unistd.h>

#include <ctime>
#include <string>
#include <system_error>

#include "base/file_util.h"
#include "base/layout.h"

namespace quor {

void capPackageLog(const std::string& name) {
    const auto path = layout::logFile(name);
    UniqueFd fd = openRegularFile(path, O_RDWR);
    struct stat st {};
    if (!fd || ::fstat(fd.get(), &st) != 0 || st.st_size < kPackageLogCap) return;
    // The newest bytes, from the first whole line on, become the older copy.
    std::string tail(static_cast<size_t>(kPackageLogCap), '\0');
    ssize_t n = ::pread(fd.get(), tail.data(), tail.size(), st.st_size - kPackageLogCap);
    if (n < 0) return;
    tail.resize(static_cast<size_t>(n));
    size_t lineStart = tail.find('\n');
    if (lineStart != std::string::npos && lineStart + 1 < tail.size()) tail.erase(0, lineStart + 1);
    std::filesystem::path older = path;
    older += ".1";
    if (!writeFileAtomic(older, tail)) return;
    // Emptied in place, not replaced: a service that keeps the log open for
    // appending goes on writing at its new end.
    bool emptied = ::ftruncate(fd.get(), 0) == 0;
    (void)emptied;
}

void logPackageEvent(const std::string& name, std::string_view message) {
    const auto path = layout::logFile(name);
    std::error_code ec;
    std::filesystem::create_directories(path.parent_path(), ec);
    capPackageLog(name);
    std::time_t now = std::time(nullptr);
    std::tm local{};
    localtime_r(&now, &local);
    char stamp[32];
    std::strftime(stamp, sizeof stamp, "%Y-%m-%d %H:%M:%S", &local);
    std::string line = std::string(stamp) + ' ' + std::string(message) + '\n';
    UniqueFd fd = openRegularFile(path, O_WRONLY | O_APPEND | O_CREAT);
    if (!fd) return;
    bool written = ::write(fd.get(), line.data(), line.size()) == ssize_t(line.size());
    (void)written;  // a log that cannot be written loses the line, nothing else
}

}  // namespace quor
