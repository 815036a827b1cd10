// Choosing volumes for packages that come from a server.
#pragma once

#include <cstdint>
#include <filesystem>

namespace quor {

// The volume a new package goes to, as a host path: the default_volume
// setting when set (kNoVolume when it names no volume), else the volume with
// the most free space (kNoVolume when there is none).
int defaultVolume(std::filesystem::path& out);

// A staging folder (<volume>/@tmp/quorpkg, created) on a volume with at
// least `size` bytes free: the default volume when it has the room, else
// the volume with the most free space. kNoVolume, kNoSpace or
// kStoreUnusable (the folder cannot be created).
int stagingDir(uint64_t size, std::filesystem::path& out);

}  // namespace quor
