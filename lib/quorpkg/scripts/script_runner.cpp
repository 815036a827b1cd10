#include "quorpkg/scripts/script_runner.h"

#include <fcntl.h>
#include <unistd.h>

#include <csignal>
#include <cstring>
#include <system_error>

#include "base/file_util.h"
#include "base/layout.h"
#include "base/package_log.h"
#include "base/result.h"
#include "base/settings.h"
#include "base/system_root.h"
#include "quorpkg/scripts/process_group.h"
#include "quorpkg/scripts/service_scope.h"
#include "quorpkg/scripts/script_record.h"

namespace fs = std::filesystem;

namespace quor {
namespace {

std::vector<std::string> scriptEnvironment(const ScriptRun& run) {
    std::vector<std::string> env = {
        "PATH=/usr/sbin:/usr/bin:/sbin:/bin",
        "QUOR_ROOT=" + rootDir().string(),
        "QUOR_PKG_NAME=" + run.packageName,
        "QUOR_PKG_VERSION=" + run.packageVersion,
        "QUOR_PKG_TARGET=" + run.target.string(),
        "QUOR_PKG_VAR=" + layout::varDir(run.packageName).string(),
        "QUOR_PKG_CONF=" + layout::confDir(run.packageName).string(),
        "QUOR_PKG_LOG=" + layout::logFile(run.packageName).string(),
        "QUOR_PKG_EVENT=" + run.event,
        "QUOR_PKG_PARAM=" + run.param,
    };
    if (!run.oldVersion.empty()) env.push_back("QUOR_PKG_OLD_VERSION=" + run.oldVersion);
    if (run.lockHeld) env.push_back("QUOR_PKG_LOCK_HELD=1");
    return env;
}

UniqueFd openLog(const std::string& name) {
    const fs::path path = layout::logFile(name);
    std::error_code ec;
    fs::create_directories(path.parent_path(), ec);
    capPackageLog(name);
    // Never through a link planted at the log's place.
    return openRegularFile(path, O_WRONLY | O_APPEND | O_CREAT);
}

// The script's working directory: the one asked for, else the package's
// folder; the root when that does not exist (yet, as before an install).
std::string workingDirectory(const ScriptRun& run) {
    std::error_code ec;
    fs::path dir = run.workDir.empty() ? layout::packageDir(run.packageName) : run.workDir;
    return fs::is_directory(dir, ec) ? dir.string() : rootDir().string();
}

}  // namespace

std::string describeRun(const ScriptRun& run) {
    std::string text = run.script.filename().string();
    for (const auto& arg : run.args) text += " " + arg;
    return text;
}

ScriptOutcome runScript(const ScriptRun& run) {
    ScriptOutcome outcome;
    int timeout = run.timeoutSeconds > 0 ? run.timeoutSeconds : loadSettings().script_timeout;

    UniqueFd log = openLog(run.packageName);
    UniqueFd readEnd, writeEnd;
    if (run.captureStdout) {
        int fds[2];
        if (::pipe2(fds, O_CLOEXEC) != 0) {
            outcome.launched = false;
            outcome.exitCode = 255;
            return outcome;
        }
        readEnd = UniqueFd(fds[0]);
        writeEnd = UniqueFd(fds[1]);
    }

    SpawnRequest spawn;
    spawn.argv.push_back(run.script.string());
    spawn.argv.insert(spawn.argv.end(), run.args.begin(), run.args.end());
    spawn.env = scriptEnvironment(run);
    if (run.startsService) {
        if (std::optional<ScopedCommand> scoped =
                inServiceScope(run.packageName, spawn.argv, spawn.env)) {
            logPackageEvent(run.packageName, describeRun(run) + " runs in " + scoped->unit);
            spawn.argv = std::move(scoped->argv);
        }
    }
    spawn.program = spawn.argv.front();
    spawn.workDir = workingDirectory(run);
    spawn.stdoutFd = run.captureStdout ? writeEnd.get() : log.get();
    spawn.stderrFd = log.get();

    // Under the lock, a change is under way: should this process be killed,
    // the next one to take the lock ends what the script left running.
    std::optional<ScriptRecord> record;
    if (run.lockHeld)
        spawn.beforeRun = [&](pid_t pgid) {
            record.emplace(pgid, run.packageName, describeRun(run));
        };

    int error = 0;
    std::optional<ProcessGroup> child = ProcessGroup::spawn(spawn, error);
    // Only the child may hold the write end now, so the pipe ends with it.
    writeEnd = UniqueFd();
    if (!child) {
        outcome.launched = false;
        outcome.exitCode = 255;
        logPackageEvent(run.packageName,
                        "cannot run " + describeRun(run) + ": " + std::strerror(error));
        return outcome;
    }

    std::optional<int> status =
        child->wait(std::chrono::seconds(std::max(timeout, 0)), readEnd.get(), &outcome.output);
    capPackageLog(run.packageName);
    if (!status) {
        child->killGroup();
        outcome.timedOut = true;
        outcome.exitCode = 128 + SIGKILL;
        logPackageEvent(run.packageName, describeRun(run) + " timed out after " +
                                             std::to_string(timeout) + " s and was killed");
        return outcome;
    }
    outcome.exitCode = *status;
    return outcome;
}

}  // namespace quor
