// The safety rules for the names and kinds of archive entries, shared by the
// package-file reader (members and payload entries alike). Internal to this
// folder.
#pragma once

#include <archive_entry.h>

#include <optional>
#include <set>
#include <string>
#include <string_view>

namespace quor {

// The entry name without "." components and repeated or trailing slashes
// ("./bin//x/" is "bin/x"; "." and "./" are ""), or nothing when the name is
// unsafe: absolute, with a ".." component, or with a control character.
std::optional<std::string> normalizeEntryName(std::string_view name);

// Whether a symbolic link at `linkPath` (normalized) pointing at `target`
// stays inside its tree. Targets must be relative, free of control
// characters, and use ".." only as leading components, so that resolving
// them by name gives the same place as the file system will.
bool linkStaysInside(std::string_view linkPath, std::string_view target);

// Checks the entries of one tree in archive order: each must be a regular
// file, a directory or a symbolic link that stays inside (no hard link, no
// device, FIFO or socket node), and no entry may lie at or below an earlier
// symbolic link, which the file system would follow.
class TreeChecker {
public:
    // The normalized name of a safe entry, or nothing with a reason.
    std::optional<std::string> check(archive_entry* entry, std::string& why);

private:
    std::set<std::string> links_;
};

// The entry's path name as stored, or "" when it has none that can be read.
std::string_view entryName(archive_entry* entry);

}  // namespace quor
