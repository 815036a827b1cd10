// The system root: the directory that plays the part of "/" for everything
// the platform reads, writes and runs (QUOR_ROOT, default "/"), so that a
// whole device can live in a folder.
#pragma once

#include <filesystem>
#include <string_view>

namespace quor {

// The root as an absolute host path without a trailing slash ("/" itself
// stays "/"). Read from the environment on every call, so a process that
// changes QUOR_ROOT sees the new root.
std::filesystem::path rootDir();

// Whether the root is an existing folder. A missing one is a wrong
// QUOR_ROOT or an unmounted device, never to be created as a new device.
bool rootExists();

// The host path of a system path such as "/var/packages/foo".
std::filesystem::path hostPath(std::string_view systemPath);

// True when `path` (a host path, absolute or not) lies inside the root.
bool isUnderRoot(const std::filesystem::path& path);

}  // namespace quor
