// Where a package's service runs. On a device whose init is systemd, the
// start of a service runs in a transient scope unit of its own, so the
// daemon it leaves behind belongs to no caller's control group: systemd
// empties a oneshot unit's group when its run ends (the nightly upgrade,
// which restarts what it upgraded) and a login session's when it closes.
// Elsewhere (a device in a folder, another init) scripts run directly.
#pragma once

#include <optional>
#include <string>
#include <vector>

namespace quor {

struct ScopedCommand {
    std::string unit;               // quorpkg-pkg-<name>-<8 hex digits>.scope
    std::vector<std::string> argv;  // argv[0] is the program to run
};

// The command that runs `command` (program and arguments) with exactly the
// environment `env` in a new scope unit named after the package, or nothing
// when scripts run directly: the root is not "/", systemd is not the
// running init, or systemd-run is missing. A scope (not a service) keeps
// the caller waiting on the script itself, with its output, exit status,
// working directory, process group and time limit as without systemd; the
// scope lives on with what the script left running and is dropped once
// that ends. The random part lets a start succeed while a leftover of an
// earlier one still holds its scope.
std::optional<ScopedCommand> inServiceScope(const std::string& packageName,
                                            const std::vector<std::string>& command,
                                            const std::vector<std::string>& env);

}  // namespace quor
