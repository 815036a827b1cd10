// The installed packages, as the package store holds them under
// /var/packages. Reading needs no lock.
#pragma once

#include <filesystem>
#include <string>
#include <vector>

#include "quorpkg/package/manifest.h"

namespace quor {

// Names of installed packages (directories under /var/packages holding an
// INFO, or broken ones without), in byte order.
std::vector<std::string> installedPackages();

bool isInstalled(const std::string& name);

// kOk with the manifest, kNoSuchPackage, or kBroken (unreadable manifest).
int readInstalledManifest(const std::string& name, Manifest& out);

// The script_mask of an installed package, from its scripts/ folder.
int installedScriptMask(const std::string& name);

// The package's payload directory (the target link resolved), empty if none.
std::filesystem::path installedTarget(const std::string& name);

// The volume the package is installed on (host path), empty if unknown.
std::filesystem::path installedVolume(const std::string& name);

bool isEnabled(const std::string& name);

// The text of the target link for a payload on `volume`: relative
// ("../../../volume1/@appstore/<name>"), so it holds on the device and
// under any system root.
std::filesystem::path targetLinkText(const std::filesystem::path& volume, const std::string& name);

// Makes /usr/quor/quorman/webman/3rdparty/<name> a relative link to
// /var/packages/<name>/target/<uiDir> (nothing to do for an empty uiDir).
bool makeWebEntry(const std::string& name, const std::string& uiDir);

// Whether a path taken from a manifest stays inside the folder it is
// relative to: not absolute, no ".." component.
bool isInsideFolder(const std::string& relative);
void removeWebEntry(const std::string& name);

}  // namespace quor
