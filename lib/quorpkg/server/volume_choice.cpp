#include "quorpkg/server/volume_choice.h"

#include <sys/statvfs.h>

#include <cstring>
#include <system_error>

#include "base/layout.h"
#include "base/result.h"
#include "base/settings.h"
#include "quor_core.h"

namespace fs = std::filesystem;

namespace quor {
namespace {

uint64_t freeBytes(const fs::path& volume) {
    struct statvfs stats {};
    if (::statvfs(volume.c_str(), &stats) != 0) return 0;
    return static_cast<uint64_t>(stats.f_bavail) * stats.f_frsize;
}

// The volume the setting names, or empty.
fs::path configuredVolume(const std::string& setting) {
    VOLUME_PATH_INFO info;
    std::memset(&info, 0, sizeof info);
    if (setting.empty() || VolumePathParseEx(setting.c_str(), &info) < 0) return {};
    return info.path;
}

fs::path roomiestVolume() {
    fs::path best;
    uint64_t bestFree = 0;
    for (const fs::path& volume : layout::volumes()) {
        const uint64_t free = freeBytes(volume);
        if (best.empty() || free > bestFree) {
            best = volume;
            bestFree = free;
        }
    }
    return best;
}

}  // namespace

int defaultVolume(fs::path& out) {
    const Settings settings = loadSettings();
    out = settings.default_volume.empty() ? roomiestVolume()
                                          : configuredVolume(settings.default_volume);
    if (out.empty())
        return refuse(kNoVolume,
                      settings.default_volume.empty()
                          ? "there is no volume"
                          : "default_volume names no volume: " + settings.default_volume);
    return kOk;
}

int stagingDir(uint64_t size, fs::path& out) {
    fs::path volume = configuredVolume(loadSettings().default_volume);
    if (volume.empty() || freeBytes(volume) < size) volume = roomiestVolume();
    if (volume.empty()) return refuse(kNoVolume, "there is no volume");
    if (freeBytes(volume) < size)
        return refuse(kNoSpace, volume.string() + " has " + std::to_string(freeBytes(volume)) +
                                    " bytes free, " + std::to_string(size) + " needed");
    out = layout::volumeTmpDir(volume);
    std::error_code ec;
    fs::create_directories(out, ec);
    return ec ? refuse(kStoreUnusable, "cannot create " + out.string() + ": " + ec.message()) : kOk;
}

}  // namespace quor
