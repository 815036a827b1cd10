// Where a package keeps its log: the package's script may name its own file
// (`start-stop-status log`), else the platform's package log.
#include <system_error>

#include "base/layout.h"
#include "base/result.h"
#include "base/system_root.h"
#include "base/text.h"
#include "quorpkg/scripts/script_runner.h"
#include "quorpkg/service/services.h"
#include "quorpkg/store/store.h"

namespace fs = std::filesystem;

namespace quor {
namespace {

// The first line the script printed, blanks trimmed.
std::string firstLine(const std::string& output) {
    const std::string_view line = std::string_view(output).substr(0, output.find('\n'));
    return std::string(trimBlanks(line, " \t\r"));
}

// The script names a system path (or a host path under the root, which it
// can build from QUOR_ROOT), or a path relative to its working directory.
fs::path hostPathOf(const std::string& name, const fs::path& printed) {
    if (printed.is_relative()) return (layout::packageDir(name) / printed).lexically_normal();
    if (isUnderRoot(printed)) return printed.lexically_normal();
    return hostPath(printed.string()).lexically_normal();
}

}  // namespace

std::string packageLogPath(const std::string& name, int& code) {
    if (!isInstalled(name)) {
        code = refuse(kNoSuchPackage, name + " is not installed");
        return {};
    }
    code = kOk;
    std::error_code ec;
    const fs::path script = layout::scriptsDir(name) / kServiceScript;
    if (fs::exists(script, ec)) {
        Manifest manifest;
        readInstalledManifest(name, manifest);
        ScriptRun run;
        run.script = script;
        run.args = {"log"};
        run.packageName = name;
        run.packageVersion = manifest.version;
        run.target = layout::targetLink(name);
        run.captureStdout = true;
        run.lockHeld = false;
        ScriptOutcome outcome = runScript(run);
        std::string printed = firstLine(outcome.output);
        if (outcome.launched && !outcome.timedOut && outcome.exitCode == 0 && !printed.empty())
            return hostPathOf(name, printed).string();
    }
    return layout::logFile(name).string();
}

}  // namespace quor
