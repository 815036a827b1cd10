#include "quorpkg/store/package_scripts.h"

#include <system_error>

#include "base/layout.h"
#include "base/package_log.h"
#include "base/result.h"
#include "quorpkg/store/store.h"

namespace fs = std::filesystem;

namespace quor {

int runPackageScript(const std::string& name, const std::string& script,
                     const std::vector<std::string>& args, const ScriptRun& base) {
    ScriptRun run = base;
    run.script = layout::scriptsDir(name) / script;
    run.args = args;
    run.packageName = name;
    std::error_code ec;
    if (!fs::exists(run.script, ec)) return kOk;
    if (run.packageVersion.empty()) {
        Manifest manifest;
        if (readInstalledManifest(name, manifest) == kOk) run.packageVersion = manifest.version;
    }
    if (run.target.empty()) run.target = layout::targetLink(name);

    ScriptOutcome outcome = runScript(run);
    if (outcome.timedOut)
        return refuse(kScriptTimeout, name + ": " + describeRun(run) + " timed out and was killed");
    if (!outcome.launched || outcome.exitCode != 0) {
        if (outcome.launched)
            logPackageEvent(
                name, describeRun(run) + " failed with status " + std::to_string(outcome.exitCode));
        return refuse(kScriptFailed, name + ": " + describeRun(run) +
                                         (outcome.launched ? " failed with exit code " +
                                                                 std::to_string(outcome.exitCode)
                                                           : " could not be run"));
    }
    return kOk;
}

}  // namespace quor
