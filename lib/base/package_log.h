// The package log: /var/log/packages/<name>.log collects script output and
// the platform's own events for a package.
#pragma once

#include <string>
#include <string_view>

namespace quor {

// Appends one time-stamped line ("2026-11-22 03:49:04 <message>").
void logPackageEvent(const std::string& name, std::string_view message);

}  // namespace quor
