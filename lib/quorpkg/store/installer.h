// Changing the package store: installing, upgrading and removing packages.
// Every change takes the store lock, recovers an unfinished earlier change
// first, stages its files beside their final place and commits by rename,
// with a journal naming the step so that a killed process leaves the old
// package or the new one whole.
#pragma once

#include <filesystem>
#include <string>
#include <vector>

namespace quor {

struct InstallRequest {
    std::filesystem::path file;    // the package file
    std::filesystem::path volume;  // host path of a volume; empty: the default
    bool startService = true;      // start and turn on a new package with a service
    const char* event = nullptr;   // passed to the scripts as QUOR_PKG_EVENT
};

// Installs, reinstalls or upgrades (same name, any version) from a package
// file. kOk or a result code; the store is unchanged on failure.
int installPackage(const InstallRequest& request);

// Removes the named packages in reverse dependency order, all or none.
int removePackages(const std::vector<std::string>& names);

// Rolls an unfinished change back or forward. Called under the lock by every
// change; init() calls it too when the lock is free.
void recoverUnfinishedChange();

}  // namespace quor
