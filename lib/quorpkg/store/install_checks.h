// What an install verifies about the store before it changes anything.
#pragma once

#include <cstdint>
#include <filesystem>

#include "quorpkg/package/manifest.h"

namespace quor {

// Required packages installed at a suitable version (kMissingDependency), no
// conflict either way (kConflict), and no installed package left with a
// requirement the new version does not meet (kHasDependents).
int checkRequirements(const Manifest& manifest);

// Room on the volume for the package: at least the size of its file
// (kNoSpace otherwise). Unpacking reports a full disk on its own.
int checkSpace(const std::filesystem::path& volume, const std::filesystem::path& file);

// How much of the volume's free space a payload may take: all but a reserve
// of 5% of the volume's size, at most 64 MiB, kept for the packages that run
// there and for the system.
std::uint64_t unpackAllowance(const std::filesystem::path& volume);

}  // namespace quor
