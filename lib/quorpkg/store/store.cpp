#include "quorpkg/store/store.h"

#include <sys/stat.h>

#include <algorithm>
#include <system_error>

#include "base/file_util.h"
#include "base/layout.h"
#include "base/result.h"
#include "base/system_root.h"
#include "quorpkg/package/package_file.h"

namespace fs = std::filesystem;

namespace quor {

std::vector<std::string> installedPackages() {
    // Staging, backup and journal entries start with '.', which no package
    // name does.
    std::vector<std::string> names = entriesOfType(layout::packagesDir(), S_IFDIR);
    std::erase_if(names, [](const std::string& name) { return !isValidPackageName(name); });
    std::sort(names.begin(), names.end());
    return names;
}

bool isInstalled(const std::string& name) {
    std::error_code ec;
    return isValidPackageName(name) && fs::is_directory(layout::packageDir(name), ec);
}

// The manifest of the package in `dir`. It is read first: only a package
// without a readable one needs the look whether it is installed at all.
static int readManifestIn(const fs::path& dir, const std::string& name, Manifest& out) {
    if (!isValidPackageName(name)) return refuse(kNoSuchPackage, "not a package name: " + name);
    std::optional<std::string> text = readFile(dir / "INFO");
    if (!text)
        return isInstalled(name)
                   ? refuse(kBroken, name + " has no readable " + (dir / "INFO").string())
                   : refuse(kNoSuchPackage, name + " is not installed");
    Manifest manifest;
    // A manifest that names another package is as good as none.
    if (parseManifest(*text, manifest) != kOk || manifest.name != name)
        return refuse(kBroken, (dir / "INFO").string() + " is not a valid manifest of " + name);
    out = std::move(manifest);
    return kOk;
}

int readInstalledManifest(const std::string& name, Manifest& out) {
    return readManifestIn(layout::packageDir(name), name, out);
}

static int scriptMaskIn(const fs::path& scriptsDir) {
    int mask = 0;
    for (const std::string& script : entriesOfType(scriptsDir, S_IFREG)) mask |= scriptBit(script);
    return mask;
}

int installedScriptMask(const std::string& name) {
    return scriptMaskIn(layout::scriptsDir(name));
}

// Where the target link points, as a host path (the link may dangle).
static fs::path targetLinkDestination(const std::string& name) {
    std::error_code ec;
    fs::path link = layout::targetLink(name);
    fs::path text = fs::read_symlink(link, ec);
    if (ec || text.empty()) return {};
    // Our links are relative so that the root can be moved; an absolute one
    // is a system path.
    if (text.is_absolute())
        return rootDir() != "/" && isUnderRoot(text) ? text : hostPath(text.string());
    return (link.parent_path() / text).lexically_normal();
}

fs::path installedTarget(const std::string& name) {
    fs::path target = targetLinkDestination(name);
    std::error_code ec;
    return !target.empty() && fs::is_directory(target, ec) ? target : fs::path();
}

fs::path installedVolume(const std::string& name) {
    fs::path target = targetLinkDestination(name);
    if (target.empty() || target.filename() != name) return {};
    fs::path appstore = target.parent_path();
    if (appstore.filename() != "@appstore") return {};
    return appstore.parent_path();
}

bool isEnabled(const std::string& name) {
    std::error_code ec;
    return isInstalled(name) && fs::exists(layout::enabledFlag(name), ec);
}

fs::path targetLinkText(const fs::path& volume, const std::string& name) {
    return layout::appstoreDir(volume, name).lexically_relative(layout::packageDir(name));
}

bool isInsideFolder(const std::string& relative) {
    const fs::path path(relative);
    if (path.is_absolute()) return false;
    for (const fs::path& part : path)
        if (part == "..") return false;
    return true;
}

bool makeWebEntry(const std::string& name, const std::string& uiDir) {
    if (uiDir.empty()) return true;
    if (!isInsideFolder(uiDir)) return false;
    const fs::path entry = layout::webEntry(name);
    const fs::path text =
        (layout::targetLink(name) / uiDir).lexically_relative(entry.parent_path());
    std::error_code ec;
    fs::create_directories(entry.parent_path(), ec);
    if (fs::read_symlink(entry, ec) == text) return true;
    // Made under a temporary name and renamed, so the entry is never missing
    // while it is replaced.
    const fs::path temp = entry.parent_path() / ("." + name + ".link");
    fs::remove(temp, ec);
    fs::create_symlink(text, temp, ec);
    if (ec) return false;
    fs::rename(temp, entry, ec);
    if (ec) fs::remove(temp, ec);
    return !ec;
}

void removeWebEntry(const std::string& name) {
    std::error_code ec;
    fs::remove(layout::webEntry(name), ec);
}

}  // namespace quor
