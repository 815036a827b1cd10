// Downloading one package file from a server into a volume's staging
// folder, with the checks the catalog makes possible.
#pragma once

#include <cstdint>
#include <filesystem>
#include <string>
#include <vector>

#include "quorpkg/server/http_client.h"

namespace quor {

struct PackageDownload {
    std::string name;
    std::string link;      // absolute URL
    uint64_t size = 0;     // 0 when not known
    std::string md5;       // empty when not known
    std::string sha256;    // empty when not known
    int64_t deadline = 0;  // seconds since the epoch by which it must be done; 0: none
    // The same file on the source's other mirrors, asked in turn when a
    // download fails or does not verify.
    std::vector<std::string> mirrorLinks;
};

// Downloads are expected at this rate at least: a package's request may
// take fetch_timeout plus its size at this rate, no longer.
inline constexpr uint64_t kFloorBytesPerSecond = 32 * 1024;

// Downloads into `dir` (created when missing) as <name>[-<md5>].zpk.part,
// continuing a part an earlier try left, then checks the size
// (kDownloadFailed) and the md5 and sha256 (kChecksumMismatch, both read in
// one pass) and renames the part to .zpk. A file that fails a check is removed; a broken transfer
// keeps its part for the next try (kDownloadFailed). kOk with `file` set.
int fetchPackage(const PackageDownload& download, const std::filesystem::path& dir,
                 const ProgressFn& progress, std::filesystem::path& file,
                 std::string* error = nullptr);

}  // namespace quor
