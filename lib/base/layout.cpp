#include "base/layout.h"

#include <algorithm>
#include <cctype>
#include <system_error>

#include "base/system_root.h"

namespace fs = std::filesystem;

namespace quor::layout {

Path packagesDir() {
    return hostPath("/var/packages");
}
Path packageDir(const std::string& name) {
    return packagesDir() / name;
}
Path manifestFile(const std::string& name) {
    return packageDir(name) / "INFO";
}
Path enabledFlag(const std::string& name) {
    return packageDir(name) / "enabled";
}
Path scriptsDir(const std::string& name) {
    return packageDir(name) / "scripts";
}
Path targetLink(const std::string& name) {
    return packageDir(name) / "target";
}
Path varDir(const std::string& name) {
    return packageDir(name) / "var";
}
Path confDir(const std::string& name) {
    return packageDir(name) / "conf";
}
Path journalDir() {
    return packagesDir() / ".journal";
}

Path appstoreDir(const Path& volume, const std::string& name) {
    return volume / "@appstore" / name;
}
Path volumeTmpDir(const Path& volume) {
    return volume / "@tmp" / "quorpkg";
}

Path logFile(const std::string& name) {
    return hostPath("/var/log/packages") / (name + ".log");
}
Path runningScriptsDir() {
    return hostPath("/run/quorpkg/scripts");
}
Path lockFile() {
    return hostPath("/run/quorpkg/lock");
}
Path activeMark(const std::string& name) {
    return hostPath("/run/quorpkg/active") / name;
}
Path taskFile(const std::string& name) {
    return hostPath("/run/quorpkg/tasks") / (name + ".json");
}
Path listDir() {
    return hostPath("/var/cache/quorpkg/list");
}
Path settingsFile() {
    return hostPath("/etc/quorpkg/settings");
}
Path sourcesFile() {
    return hostPath("/etc/quorpkg/sources");
}
Path firmwareLimitsFile() {
    return hostPath("/etc/quorpkg/firmware-limits");
}
Path trustedKeysDir() {
    return hostPath("/etc/quorpkg/keys");
}
Path shippedRootsDir() {
    return hostPath("/etc/quorpkg/roots");
}
Path originFile(const std::string& name) {
    return packageDir(name) / "origin";
}
Path channelStateDir(const std::string& pin) {
    return hostPath("/var/lib/quorpkg/sources") / pin;
}
Path deviceIdFile() {
    return hostPath("/var/lib/quorpkg/device-id");
}
Path machineIdFile() {
    return hostPath("/etc/machine-id");
}
Path webEntry(const std::string& name) {
    return hostPath("/usr/quor/quorman/webman/3rdparty") / name;
}
Path notificationsFile() {
    return hostPath("/var/spool/quorpkg/notifications");
}
Path hwRequestsFile() {
    return hostPath("/run/hwcontrol/requests");
}

static long volumeNumber(const std::string& name) {
    if (name.size() <= 6 || name.compare(0, 6, "volume") != 0) return -1;
    if (!std::all_of(name.begin() + 6, name.end(), [](unsigned char c) { return std::isdigit(c); }))
        return -1;
    return name.size() > 15 ? -1 : std::stol(name.substr(6));
}

std::vector<Path> volumes() {
    std::vector<std::pair<long, Path>> found;
    std::error_code ec;
    for (const auto& entry : fs::directory_iterator(rootDir(), ec)) {
        long number = volumeNumber(entry.path().filename().string());
        if (number >= 0 && entry.is_directory(ec)) found.emplace_back(number, entry.path());
    }
    std::sort(found.begin(), found.end());
    std::vector<Path> paths;
    for (auto& [number, path] : found) paths.push_back(std::move(path));
    return paths;
}

}  // namespace quor::layout
