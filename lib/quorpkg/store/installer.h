// Changing the package store: installing, upgrading and removing packages.
// Every change takes the store lock, recovers an unfinished earlier change
// first, stages its files beside their final place and commits by rename,
// with a journal naming the step so that a killed process leaves the old
// package or the new one whole.
#pragma once

#include <filesystem>
#include <memory>
#include <string>
#include <vector>

#include "quorpkg/package/channel_metadata.h"
#include "quorpkg/store/service_hooks.h"

namespace quor {

struct InstallRequest {
    std::filesystem::path file;    // the package file
    std::filesystem::path volume;  // host path of a volume; empty: the default
    bool startService = true;      // start and turn on a new package with a service
    const char* event = nullptr;   // passed to the scripts as QUOR_PKG_EVENT
    // Where the file comes from: a trusted source's root vouches for it
    // (its publisher keys decide; null: the device's keys folder), and the
    // origin the installed package records ("local" for a file given by
    // hand; see origin.h).
    std::shared_ptr<const SourceRoot> root;
    std::string origin = "local";
    // Refuse (kDowngradeRefused) a version lower than the installed one:
    // nothing reached through a server may lower a package. A local file is
    // the administrator's own act and may.
    bool refuseDowngrade = false;
};

// Installs, reinstalls or upgrades (same name, any version) from a package
// file. kOk or a result code; the store is unchanged on failure. A new
// package whose start fails stays installed, turned off, and kOk is returned.
int installPackage(const InstallRequest& request, ServiceHooks& services);

// The volume a package goes to: the one it is installed on, else
// `requested` (a host path), else the default_volume setting, else the
// volume with the most free space. kOk, or kNoVolume.
int chooseVolume(const std::string& name, const std::filesystem::path& requested,
                 std::filesystem::path& out);

// Removes the named packages in reverse dependency order, all or none: every
// name must be valid (kBadArgument) and installed (kNoSuchPackage), and no
// other installed package may require one of them (kHasDependents). Every
// package is stopped and its preuninst run before any is removed; when one
// refuses, all are started again as they were and none is removed. Without
// `runScripts` the preuninst and postuninst scripts are skipped.
int removePackages(const std::vector<std::string>& names, ServiceHooks& services,
                   bool runScripts = true);

// Rolls an unfinished change back or forward. Called under the lock by every
// change; init() calls it too when the lock is free.
void recoverUnfinishedChange();

}  // namespace quor
