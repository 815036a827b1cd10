// The publisher's side of a source's update channel: the files `zpk` writes
// into the folder a web server serves (docs/server.md, "Publishing a
// source"). Every file but `root` and `timestamp` is written once under a
// name of its own and never changed; `timestamp` is written last, so that a
// device never sees a timestamp naming a file that is not there yet.
#pragma once

#include <cstdint>
#include <filesystem>
#include <optional>
#include <string>
#include <vector>

#include "quorpkg/package/channel_metadata.h"

namespace quor {

// File names in a source's folder.
std::string rootFileName(uint64_t version);  // "<N>.root"
inline constexpr const char* kNewestRootFile = "root";
inline constexpr const char* kTimestampFile = "timestamp";
// "catalog-<lang>.<V>.json"; its seal is the same name with ".sig", the
// catalog compressed the same name with ".zst".
std::string catalogFileName(const std::string& lang, uint64_t version);
// "catalog-<lang>.<V>.from-<U>.zst": version V as a patch of version U.
std::string catalogPatchFileName(const std::string& lang, uint64_t version, uint64_t from);

// The newest root of a source folder (`root`), read and holding its own
// threshold of signatures.
int readPublishedRoot(const std::filesystem::path& dir, SourceRoot& out, std::string& why);

// How far a root still is from counting: the signatures it lacks for its
// own threshold and, from version 2 on, for the previous root's.
struct RootProgress {
    int own = 0;       // valid signatures by its own root keys
    int previous = 0;  // by the previous root's root keys (version 2 on)
    bool complete = false;
};
int rootProgress(const std::filesystem::path& dir, const SourceRoot& root, RootProgress& out,
                 std::string& why);

// Adds `key`'s signature to the root draft `file`, kept in the source's
// folder under a name devices never ask for (`<N>.root.draft`): a key the
// root does not name for the root role, of it or of the previous root, is
// refused. When the root then counts, it is published as `<N>.root` and
// `root` in its folder, and the draft goes.
int signRoot(const std::filesystem::path& file, const SigningKey& key, RootProgress& progress,
             std::string& why);

struct ReleaseOptions {
    std::string lang = "enu";
    std::vector<SigningKey> catalogKeys;
    std::vector<SigningKey> timestampKeys;
    int64_t now = 0;
    int64_t catalogLifetime = 90 * 86400;
    int64_t timestampLifetime = 7 * 86400;
    int patches = 3;  // patches from this many earlier versions
};

struct ReleaseOutcome {
    uint64_t catalogVersion = 0;
    bool newCatalog = false;  // false: the packages did not change
    uint64_t timestampVersion = 0;
    // Package files a device would refuse: unsigned, or signed by a key the
    // root does not allow for the name.
    std::vector<std::string> warnings;
};

// A release of the packages in `dir` for one language: the catalog of the
// folder as a new version with its seal (unless it did not change), the
// version compressed and as patches from the last few versions, the plain
// catalog files of unverified sources, then a new timestamp naming it.
int releaseCatalog(const std::filesystem::path& dir, const ReleaseOptions& options,
                   ReleaseOutcome& out, std::string& why);

// The staged rollout of a package version: `percent` (0 to 100) of devices
// are offered it as an upgrade from the next release on. Kept in the
// folder's `phases` file ("<name> <version> <percent>" lines), which each
// release applies to the catalog's entries; 100 removes the line.
inline constexpr const char* kPhasesFile = "phases";
int setPhase(const std::filesystem::path& dir, const std::string& name, const std::string& version,
             int percent, std::string& why);

// A new timestamp naming the same catalogs, for the publisher's cron job:
// a timestamp expires within days, whether anything was released or not.
int renewTimestamp(const std::filesystem::path& dir, const ReleaseOptions& options,
                   uint64_t& version, std::string& why);

}  // namespace quor
