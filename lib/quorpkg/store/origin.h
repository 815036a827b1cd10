// Where an installed package came from: the trusted source it was installed
// from (the source's own id, as its root names it), "unverified <url>" for
// an unverified source, or "local" for a package file installed by hand,
// with the key that signed the file. Kept in the package's folder
// (/var/packages/<name>/origin), staged and committed with the package, so
// that upgrades come from the same source only.
#pragma once

#include <string>

namespace quor {

inline constexpr const char* kLocalOrigin = "local";

struct PackageOrigin {
    std::string source = kLocalOrigin;
    std::string key;  // empty: the file was not signed
};

// The installed package's origin; "local" when none is recorded (a package
// installed before origins were kept, or by hand).
PackageOrigin readOrigin(const std::string& name);

// The file's text: key="value" lines.
std::string formatOrigin(const PackageOrigin& origin);

}  // namespace quor
