// Running a package's lifecycle scripts: a clean environment, the package's
// directory as working directory, output appended to the package log, and a
// time limit after which the script's whole process group is killed.
#pragma once

#include <filesystem>
#include <string>
#include <vector>

namespace quor {

struct ScriptRun {
    std::filesystem::path script;   // host path of the script
    std::vector<std::string> args;  // e.g. {"start"}
    std::string packageName;
    std::string packageVersion;
    std::string oldVersion;         // set on upgrade: QUOR_PKG_OLD_VERSION
    std::filesystem::path target;   // QUOR_PKG_TARGET (host path)
    std::string event;              // QUOR_PKG_EVENT
    std::string param;              // QUOR_PKG_PARAM
    std::filesystem::path workDir;  // defaults to /var/packages/<name>
    bool captureStdout = false;     // keep stdout in ScriptOutcome instead of the log
    int timeoutSeconds = 0;         // 0: the script_timeout setting
    bool lockHeld = true;           // QUOR_PKG_LOCK_HELD=1: the caller holds the store lock
    // The start of the package's service: under systemd it runs in a scope
    // unit of its own (service_scope.h), so its daemon outlives the caller's.
    bool startsService = false;
};

struct ScriptOutcome {
    int exitCode = 0;  // the script's status; 128+N when killed by signal N
    bool timedOut = false;
    bool launched = true;  // false when the script could not be started
    std::string output;    // stdout when captureStdout
};

// Runs the script and waits for it; it is always reaped. Past the time limit
// its whole process group is killed (timedOut), so nothing it started is
// left behind; a script that ends in time may leave a service it started.
ScriptOutcome runScript(const ScriptRun& run);

// The script and its arguments, as log lines name them ("postinst", "start-stop-status start").
std::string describeRun(const ScriptRun& run);

}  // namespace quor
