#include "quorpkg/store/install_checks.h"

#include <sys/stat.h>
#include <sys/statvfs.h>

#include <algorithm>
#include <set>
#include <system_error>

#include "base/layout.h"
#include "base/result.h"
#include "base/settings.h"
#include "base/system_root.h"
#include "quorpkg/package/version.h"
#include "quorpkg/store/installer.h"
#include "quorpkg/store/store.h"

namespace fs = std::filesystem;

namespace quor {
namespace {

bool matches(const std::string& version, const Dependency& item) {
    return item.op.empty() || versionSatisfies(version, item.op, item.version);
}

unsigned long long freeBytes(const fs::path& dir) {
    struct statvfs info {};
    if (::statvfs(dir.c_str(), &info) != 0) return 0;
    return static_cast<unsigned long long>(info.f_bavail) * info.f_frsize;
}

// "base >=2" as the manifest says it.
std::string wanted(const Dependency& item) {
    return item.op.empty() ? item.name : item.name + " " + item.op + item.version;
}

std::string installedText(const std::string& name, const Manifest& installed) {
    return installed.name == name ? "installed: " + installed.version : "not installed";
}

bool isDirectory(const fs::path& path) {
    std::error_code ec;
    return !path.empty() && fs::is_directory(path, ec);
}

}  // namespace

int checkRequirements(const Manifest& manifest) {
    for (const Dependency& required : manifest.depends) {
        if (required.name == manifest.name) continue;
        Manifest installed;
        if (readInstalledManifest(required.name, installed) != kOk ||
            !matches(installed.version, required))
            return refuse(kMissingDependency, manifest.name + " requires " + wanted(required) +
                                                  ", " + installedText(required.name, installed));
    }
    for (const Dependency& conflict : manifest.conflicts) {
        Manifest installed;
        if (conflict.name != manifest.name &&
            readInstalledManifest(conflict.name, installed) == kOk &&
            matches(installed.version, conflict))
            return refuse(kConflict, manifest.name + " conflicts with " + wanted(conflict) +
                                         ", installed at " + installed.version);
    }
    // The installed packages' view of the new one.
    for (const std::string& other : installedPackages()) {
        Manifest installed;
        if (other == manifest.name || readInstalledManifest(other, installed) != kOk) continue;
        for (const Dependency& conflict : installed.conflicts)
            if (conflict.name == manifest.name && matches(manifest.version, conflict))
                return refuse(kConflict,
                              "installed " + other + " conflicts with " + wanted(conflict));
        for (const Dependency& required : installed.depends)
            if (required.name == manifest.name && !matches(manifest.version, required))
                return refuse(kHasDependents, "installed " + other + " requires " +
                                                  wanted(required) + ", not " + manifest.version);
    }
    return kOk;
}

int checkSpace(const fs::path& volume, const fs::path& file) {
    std::error_code ec;
    const auto size = fs::file_size(file, ec);
    if (ec) return refuse(kFileUnreadable, "cannot read the size of " + file.string());
    if (freeBytes(volume) >= size) return kOk;
    return refuse(kNoSpace, volume.string() + " has " + std::to_string(freeBytes(volume)) +
                                " bytes free, " + file.string() + " is " + std::to_string(size));
}

std::uint64_t unpackAllowance(const fs::path& volume) {
    constexpr std::uint64_t kMaxReserve = 64ull << 20;
    struct statvfs info {};
    if (::statvfs(volume.c_str(), &info) != 0) return 0;
    const std::uint64_t size = std::uint64_t(info.f_blocks) * info.f_frsize;
    const std::uint64_t free = std::uint64_t(info.f_bavail) * info.f_frsize;
    const std::uint64_t reserve = std::min(size / 20, kMaxReserve);
    return free > reserve ? free - reserve : 0;
}

int chooseVolume(const std::string& name, const fs::path& requested, fs::path& out) {
    // An installed package stays where it is.
    fs::path current = installedVolume(name);
    if (isDirectory(current)) {
        out = current;
        return kOk;
    }
    if (!requested.empty()) {
        if (!isDirectory(requested))
            return refuse(kNoVolume, "no such volume: " + requested.string());
        out = requested;
        return kOk;
    }
    const Settings settings = loadSettings();
    if (!settings.default_volume.empty()) {
        fs::path configured = hostPath(settings.default_volume);
        if (!isDirectory(configured))
            return refuse(kNoVolume, "default_volume names no volume: " + settings.default_volume);
        out = configured;
        return kOk;
    }
    // The most free space; on a tie the lowest volume number. Volumes on one
    // file system share their space: the first of them stands for all, so
    // writes elsewhere between two measurements cannot tip the choice.
    unsigned long long best = 0;
    bool found = false;
    std::set<dev_t> seen;
    for (const fs::path& volume : layout::volumes()) {
        struct stat info {};
        if (::stat(volume.c_str(), &info) != 0 || !seen.insert(info.st_dev).second) continue;
        unsigned long long room = freeBytes(volume);
        if (!found || room > best) {
            best = room;
            out = volume;
            found = true;
        }
    }
    return found ? kOk : refuse(kNoVolume, "there is no volume");
}

}  // namespace quor
