// What an install verifies about the store before it changes anything.
#pragma once

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

}  // namespace quor
