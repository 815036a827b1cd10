// The core helpers on our platform. Paths given to them are system paths:
// one that already lies under the system root is taken as it is, any other
// absolute path is looked up under the root.
#include "quor_core.h"

#include <sys/statvfs.h>

#include <cstring>
#include <string>
#include <system_error>

#include "base/file_util.h"
#include "base/key_value.h"
#include "base/layout.h"
#include "base/operation.h"
#include "base/result.h"
#include "base/system_root.h"

namespace fs = std::filesystem;

namespace {

// The helpers answer through their return value alone: their outcome goes
// to the platform log, never to a manager's getResult().
quor::ResultSlot& helperResults() {
    static quor::ResultSlot slot;
    return slot;
}

fs::path resolve(const char* path) {
    fs::path given(path);
    if (given.is_absolute() && quor::isUnderRoot(given)) return given;
    if (given.is_absolute()) return quor::hostPath(path);
    return given;
}

}  // namespace

int QLIBCFileExist(const char* path) {
    if (path == nullptr || *path == '\0') return 0;
    std::error_code ec;
    return fs::exists(fs::symlink_status(resolve(path), ec)) ? 1 : 0;
}

int QLIBCFileSetKeyValue(const char* file, const char* key, const char* value, int /*flags*/) {
    quor::Operation operation("QLIBCFileSetKeyValue",
                              file ? quor::absolutePath(resolve(file)).string() : "",
                              helperResults(), quor::LogPolicy::kAlways);
    auto refused = [](int code, const std::string& why) {
        quor::fail(code, why);
        return -1;
    };
    if (file == nullptr || key == nullptr || value == nullptr || *key == '\0')
        return refused(quor::kBadArgument, "no file, key or value given");
    const fs::path path = resolve(file);
    std::error_code ec;
    // A missing file is created; anything but a regular file is refused.
    std::optional<std::string> text;
    if (fs::exists(path, ec)) {
        if (!fs::is_regular_file(path, ec) || !(text = quor::readFile(path)))
            return refused(quor::kStoreUnusable, path.string() + " is not a readable file");
    } else {
        text.emplace();
    }
    std::optional<quor::KeyValues> pairs = quor::parseKeyValues(*text);
    if (!pairs) return refused(quor::kStoreUnusable, path.string() + " is not key=\"value\" text");
    quor::setValue(*pairs, key, value);
    if (!quor::writeFileAtomic(path, quor::formatKeyValues(*pairs)))
        return refused(quor::kStoreUnusable, "cannot write " + path.string());
    return 1;
}

int VolumePathParseEx(const char* text, VOLUME_PATH_INFO* info) {
    if (text == nullptr || info == nullptr || *text == '\0') return -1;
    // "volume1", "/volume1" and "/volume1/some/dir" all name volume 1; a host
    // path under the root (as PMSGetTmpDir returns) works too.
    std::string systemPath = text;
    const std::string root = quor::rootDir().string();
    if (root != "/" && systemPath.compare(0, root.size(), root) == 0 &&
        (systemPath.size() == root.size() || systemPath[root.size()] == '/'))
        systemPath.erase(0, root.size());
    while (!systemPath.empty() && systemPath.front() == '/') systemPath.erase(0, 1);
    const std::string volumeName = systemPath.substr(0, systemPath.find('/'));
    for (const fs::path& volume : quor::layout::volumes()) {
        if (volume.filename() != volumeName) continue;
        const std::string path = volume.string();
        if (path.size() >= sizeof info->path) return -1;
        std::memset(info, 0, sizeof *info);
        std::memcpy(info->path, path.c_str(), path.size() + 1);
        info->volume_number = std::stoi(volumeName.substr(6));
        struct statvfs stats {};
        if (::statvfs(path.c_str(), &stats) == 0) {
            info->free_bytes = static_cast<unsigned long long>(stats.f_bavail) * stats.f_frsize;
            info->total_bytes = static_cast<unsigned long long>(stats.f_blocks) * stats.f_frsize;
        }
        return 0;
    }
    return -1;
}
