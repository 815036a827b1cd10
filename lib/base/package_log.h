// The package log: /var/log/packages/<name>.log collects script output and
// the platform's own events for a package.
#pragma once

#include <string>
#include <string_view>

namespace quor {

// A package log grows to at most this size before it is rotated.
constexpr long long kPackageLogCap = 1 << 20;

// Rotates the log once it has reached the cap: its newest part (whole lines)
// replaces the one older copy, <name>.log.1, and the log starts empty. Done
// before and after every script run and before every event line, so a log
// and its copy stay near 2 MiB whatever the scripts print.
void capPackageLog(const std::string& name);

// Appends one time-stamped line, never through a link ("2026-11-22 03:49:04 <message>").
void logPackageEvent(const std::string& name, std::string_view message);

}  // namespace quor
