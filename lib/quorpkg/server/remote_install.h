// Installing a package from a server: download it and the required packages
// it lacks into the volume's staging folder, verify them all, then install
// them in order through the package store.
#pragma once

#include <cstdint>
#include <filesystem>
#include <functional>
#include <memory>
#include <string>

#include "quorpkg/package/channel_metadata.h"
#include "quorpkg/server/offers.h"
#include "quorpkg/server/package_fetch.h"

namespace quor {

enum class RemoteStep { kDownloading, kInstalling };

// One package file as a catalog entry offers it, with what vouches for it.
struct RemotePackage {
    PackageDownload download;
    std::string version;                     // the entry's: the file must hold it
    std::string arch;                        // likewise, when the entry names one
    std::shared_ptr<const SourceRoot> root;  // null: an unverified source
    std::string origin;                      // as the installed package records it
};

// The package an offer names, its link resolved. False when the link is not
// a usable URL.
bool remotePackageOf(const Offer& offer, RemotePackage& out);

struct RemoteInstall {
    RemotePackage package;
    std::filesystem::path volume;  // host path; downloads go to its @tmp/quorpkg
    bool startService = true;
    bool withRequirements = true;  // fetch missing required packages first
    std::string lang;              // for the catalog lookups of requirements
    bool beta = false;             // requirements may be beta releases
    const char* event = nullptr;   // passed to the scripts
    int64_t deadline = 0;          // seconds since the epoch; 0: none
    // Told which package is being downloaded or installed, with the bytes
    // downloaded so far and the expected total (0 when not known).
    std::function<void(RemoteStep, const std::string& name, uint64_t bytes, uint64_t total)> report;
};

// kOk or the first failure's code, with a reason in `error`. Nothing is
// installed unless every file was downloaded and verified; the downloaded
// files are removed afterwards. No installed package is lowered
// (kDowngradeRefused).
int installFromServer(const RemoteInstall& request, std::string* error = nullptr);

}  // namespace quor
