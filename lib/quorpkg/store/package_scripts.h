// Running an installed package's own lifecycle scripts (the scripts/ folder
// of its package directory).
#pragma once

#include <string>
#include <vector>

#include "quorpkg/scripts/script_runner.h"

namespace quor {

// Runs /var/packages/<name>/scripts/<script> when it exists (kOk when it
// does not), with `base` for everything but script, args and name; an empty
// version is read from the installed manifest, an empty target is the
// package's target link. kOk, kScriptFailed or kScriptTimeout.
int runPackageScript(const std::string& name, const std::string& script,
                     const std::vector<std::string>& args, const ScriptRun& base = {});

}  // namespace quor
