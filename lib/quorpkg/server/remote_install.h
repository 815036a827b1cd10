// Installing a package from a server: download it and the required packages
// it lacks into the volume's staging folder, verify them all, then install
// them in order through the package store.
#pragma once

#include <cstdint>
#include <filesystem>
#include <functional>
#include <string>

#include "quorpkg/server/package_fetch.h"

namespace quor {

enum class RemoteStep { kDownloading, kInstalling };

struct RemoteInstall {
    PackageDownload package;
    std::filesystem::path volume;  // host path; downloads go to its @tmp/quorpkg
    std::string version;           // when set, the file must hold this version
    bool startService = true;
    bool withRequirements = true;  // fetch missing required packages first
    std::string lang;              // for the catalog lookups of requirements
    bool beta = false;             // requirements may be beta releases
    const char* event = nullptr;   // passed to the scripts
    // Told which package is being downloaded or installed, with the bytes
    // downloaded so far and the expected total (0 when not known).
    std::function<void(RemoteStep, const std::string& name, uint64_t bytes, uint64_t total)> report;
};

// kOk or the first failure's code, with a reason in `error`. Nothing is
// installed unless every file was downloaded and verified; the downloaded
// files are removed afterwards.
int installFromServer(const RemoteInstall& request, std::string* error = nullptr);

}  // namespace quor
