// The package manifest (INFO): key="value" lines describing a package.
#pragma once

#include <optional>
#include <string>
#include <string_view>
#include <vector>

#include "base/key_value.h"
#include "base/settings.h"

namespace quor {

// One item of install_dep_packages / install_conflict_packages:
// "name", or "name" followed by an operator (>=, <=, >, <, =) and a version.
struct Dependency {
    std::string name;
    std::string op;       // empty: any version
    std::string version;  // empty when op is empty
};

struct Manifest {
    KeyValues pairs;  // every key as read, unknown ones included, in file order
    std::string name;
    std::string version;
    std::string displayname;  // defaults to the name
    std::string description;
    std::string maintainer;
    std::string manager_url;
    std::string ui_dir;
    std::string firmware;  // lowest firmware version that runs the package
    std::string arch;      // "noarch" or a `uname -m` name; empty means noarch
    std::string checksum;  // md5 of the payload member, lower-case hex
    std::string sha256;    // sha256 of the payload member, lower-case hex
    int admin_port = 0;
    bool beta = false;
    std::vector<Dependency> depends;
    std::vector<Dependency> conflicts;
    std::vector<std::string> services;  // install_dep_services, e.g. "pgsql"
};

bool isValidPackageName(std::string_view name);
bool isValidVersion(std::string_view version);

// kOk, or kBadManifest with a reason in `error`.
int parseManifest(std::string_view text, Manifest& out, std::string* error = nullptr);

// One broken rule of a manifest: the line it is on (1-based; 0 when it
// concerns the whole file, such as a missing key) and what is wrong. A
// warning (an unknown key that is no slip of a known one) does not make it invalid.
struct ManifestProblem {
    size_t line = 0;
    std::string message;
    bool warning = false;
};

// Every broken rule of the manifest text, by line. It applies the rules of
// parseManifest, so it holds an error whenever parseManifest refuses the
// text; it goes on past the first problem, for authors. One error is the
// authors' alone: an unknown key that is a slip of a known one, which a
// device keeps like any unknown key.
std::vector<ManifestProblem> checkManifest(std::string_view text);

// The manifest as INFO text (every pair, in order).
std::string formatManifest(const Manifest& manifest);

// "name>=1.2" and the like; nothing when the item is malformed, with the
// reason in `why`.
std::optional<Dependency> parseDependency(std::string_view item, std::string* why = nullptr);

// Whether this device can run the package: kOk, kWrongArch when the package
// is built for another machine (an empty arch or "noarch" fits any), or
// kFirmwareTooOld when its `firmware` is newer than settings.firmware_version.
int checkPlatformFit(const Manifest& manifest, const Settings& settings);

}  // namespace quor
