#include "quorpkg/service/services.h"

#include <algorithm>
#include <set>
#include <system_error>

#include "base/file_util.h"
#include "base/layout.h"
#include "base/package_log.h"
#include "base/result.h"
#include "quorpkg/package/version.h"
#include "quorpkg/scripts/script_runner.h"
#include "quorpkg/service/firmware_limits.h"
#include "quorpkg/service/service_steps.h"
#include "quorpkg/store/dependencies.h"
#include "quorpkg/store/journal.h"
#include "quorpkg/store/lock.h"
#include "quorpkg/store/package_scripts.h"
#include "quorpkg/store/store.h"

namespace fs = std::filesystem;
using QUORPackageTool::PKG_INSTALLATION_TYPE_DISABLE;
using QUORPackageTool::PKG_INSTALLATION_TYPE_ENABLE;

namespace quor {
namespace {

bool hasServiceScript(const std::string& name) {
    std::error_code ec;
    return fs::exists(layout::scriptsDir(name) / kServiceScript, ec);
}

// The manifest of an installed, whole package: kOk, kBadArgument,
// kNoSuchPackage or kBroken (no manifest, or no payload behind the target).
int readWhole(const std::string& name, Manifest& manifest) {
    int code = readInstalledManifest(name, manifest);
    if (code != kOk) return code;
    return installedTarget(name).empty() ? kBroken : kOk;
}

int loadInstalled(const std::string& name, Manifest& manifest) {
    if (!isValidPackageName(name)) return refuse(kBadArgument, "not a package name: " + name);
    int code = readWhole(name, manifest);
    // A change moves a package's payload and directory one after the other,
    // and readers do not take the store lock: one that finds the package
    // missing or half there while another process changes it waits for
    // that change to end and reads again.
    Change change;
    if ((code == kNoSuchPackage || code == kBroken) && readJournal(name, change) &&
        StoreLock::waitForOtherChange())
        code = readWhole(name, manifest);
    if (code == kBroken) return refuse(kBroken, name + " has no payload behind its target");
    return code;
}

// What a status script's exit code says. 0 runs, 150 is broken, and codes
// below 100 are the script's own stopped answers (3, or the LSB codes 1-4).
// The platform's result codes live from 100 up (255 is "not installed"): a
// script's 255 or 102 must not pass for them, so any other code from 100 up
// reads as 4, LSB's "status unknown".
int statusAnswer(int exitCode) {
    constexpr int kStatusUnknown = 4;
    if (exitCode == kOk || exitCode == kBroken || (exitCode > 0 && exitCode < 100)) return exitCode;
    return kStatusUnknown;
}

ScriptRun scriptRun(const std::string& version, const ServiceRequest& request) {
    ScriptRun run;
    run.packageVersion = version;
    run.event = request.event ? request.event : "";
    run.param = request.param ? request.param : "";
    return run;
}

void setMark(const fs::path& file, bool on) {
    std::error_code ec;
    if (on) {
        fs::create_directories(file.parent_path(), ec);
        writeFileAtomic(file, "");
    } else {
        fs::remove(file, ec);
    }
}

void record(const ServiceRequest& request, const std::string& name) {
    if (request.affected) request.affected->push_back(name);
}

class Starter {
public:
    explicit Starter(const ServiceRequest& request) : request_(request) {}

    int start(const std::string& name) {
        Manifest manifest;
        int code = loadInstalled(name, manifest);
        if (code != kOk) return code;
        if (!request_.ignoreFirmwareLimit && firmwareLimitStatus(name, manifest.version) != 0) {
            logPackageEvent(name, "not started: version " + manifest.version +
                                      " is blocked by the firmware limit");
            return refuse(kFirmwareBlocked,
                          name + " " + manifest.version + " is blocked by the firmware limit");
        }
        inProgress_.insert(name);
        for (const Dependency& dependency : manifest.depends) {
            code = startRequirement(name, dependency);
            if (code != kOk) return code;
        }
        return startSelf(name, manifest);
    }

private:
    int startRequirement(const std::string& name, const Dependency& dependency) {
        Manifest required;
        int code = readInstalledManifest(dependency.name, required);
        if (code == kNoSuchPackage ||
            (code == kOk &&
             !versionSatisfies(required.version, dependency.op, dependency.version))) {
            logPackageEvent(name, "not started: requires " + dependency.name + dependency.op +
                                      dependency.version);
            return refuse(kMissingDependency,
                          name + " requires " + dependency.name + " " + dependency.op +
                              dependency.version + ", " +
                              (code == kOk ? "installed: " + required.version : "not installed"));
        }
        // A requirement cycle (only a hand-edited store has one) ends here.
        if (inProgress_.count(dependency.name)) return kOk;
        if (request_.knownRunning && request_.knownRunning->count(dependency.name)) return kOk;
        if (!request_.withDependencies)
            return packageStatus(dependency.name) == kOk
                       ? kOk
                       : refuse(kMissingDependency,
                                name + " requires " + dependency.name + ", which is not running");
        return start(dependency.name);
    }

    int startSelf(const std::string& name, const Manifest& manifest) {
        const bool running =
            packageStatus(name, {.askScript = request_.runScripts, .reportActive = false}) == kOk;
        if (!running) {
            if (request_.runScripts) {
                ScriptRun run = scriptRun(manifest.version, request_);
                run.startsService = true;
                int code = runPackageScript(name, kServiceScript, {"start"}, run);
                if (code != kOk) {
                    setMark(layout::activeMark(name), false);
                    return code;
                }
            }
            record(request_, name);
            logPackageEvent(name, "started");
        }
        setMark(layout::activeMark(name), true);
        if (request_.type == PKG_INSTALLATION_TYPE_ENABLE) {
            setMark(layout::enabledFlag(name), true);
            std::error_code ec;
            if (!fs::exists(fs::symlink_status(layout::webEntry(name), ec)))
                makeWebEntry(name, manifest.ui_dir);
        }
        return kOk;
    }

    const ServiceRequest& request_;
    std::set<std::string> inProgress_;
};

int stopSelf(const std::string& name, const ServiceRequest& request) {
    const int status =
        packageStatus(name, {.askScript = request.runScripts, .reportActive = false});
    if (status == kNoSuchPackage || status == kBadArgument) return status;
    const bool running = status == kOk;
    const bool active = isMarkedActive(name);
    // A package that is marked active or broken may have left processes
    // behind: its script gets the chance to clean up, but only the stop of a
    // running service can fail.
    if ((running || active || status == kBroken) && request.runScripts) {
        Manifest manifest;
        readInstalledManifest(name, manifest);
        int code =
            runPackageScript(name, kServiceScript, {"stop"}, scriptRun(manifest.version, request));
        if (code != kOk && running) return code;
    }
    if (running || active) {
        record(request, name);
        logPackageEvent(name, "stopped");
    }
    setMark(layout::activeMark(name), false);
    if (request.type == PKG_INSTALLATION_TYPE_DISABLE) setMark(layout::enabledFlag(name), false);
    return kOk;
}

int stopUnlocked(const std::string& name, const ServiceRequest& request) {
    if (!isValidPackageName(name)) return refuse(kBadArgument, "not a package name: " + name);
    if (!isInstalled(name)) return refuse(kNoSuchPackage, name + " is not installed");
    if (request.withDependencies) {
        std::vector<std::string> order = dependentsOf(name, true);
        order.pop_back();  // the package itself
        for (const std::string& dependent : order) {
            // A dependent that keeps running still needs this package.
            int code = stopSelf(dependent, request);
            if (code != kOk) return code;
        }
    }
    return stopSelf(name, request);
}

}  // namespace

int startLocked(const std::string& name, const ServiceRequest& request) {
    return Starter(request).start(name);
}

int stopOneLocked(const std::string& name, const ServiceRequest& request) {
    if (!isValidPackageName(name)) return refuse(kBadArgument, "not a package name: " + name);
    return stopSelf(name, request);
}

int startPackage(const std::string& name, const ServiceRequest& request) {
    int code = kOk;
    std::optional<StoreLock> lock = StoreLock::acquire(code);
    if (!lock) return code;
    return Starter(request).start(name);
}

int stopPackage(const std::string& name, const ServiceRequest& request) {
    int code = kOk;
    std::optional<StoreLock> lock = StoreLock::acquire(code);
    if (!lock) return code;
    return stopUnlocked(name, request);
}

int restartPackage(const std::string& name) {
    int code = kOk;
    std::optional<StoreLock> lock = StoreLock::acquire(code);
    if (!lock) return code;
    std::vector<std::string> stopped;
    ServiceRequest request;
    request.affected = &stopped;
    code = stopUnlocked(name, request);
    if (code != kOk) return code;
    request.affected = nullptr;
    code = Starter(request).start(name);
    if (code != kOk) return code;
    // Dependents were stopped dependents-first; they come back requirements-first.
    for (auto it = stopped.rbegin(); it != stopped.rend(); ++it) {
        if (*it == name) continue;
        int again = Starter(request).start(*it);
        if (again != kOk && code == kOk) code = again;
    }
    return code;
}

int packageStatus(const std::string& name) {
    return packageStatus(name, StatusQuery{});
}

int packageStatus(const std::string& name, const StatusQuery& query) {
    if (!isValidPackageName(name)) return refuse(kNoSuchPackage, "not a package name: " + name);
    Manifest manifest;
    int code = loadInstalled(name, manifest);
    if (code != kOk) return code;
    const bool active = isMarkedActive(name);
    if (!query.askScript || !hasServiceScript(name)) return active ? kOk : kStopped;

    ScriptRun run = scriptRun(manifest.version, ServiceRequest{});
    run.script = layout::scriptsDir(name) / kServiceScript;
    run.args = {"status"};
    run.packageName = name;
    run.target = layout::targetLink(name);
    run.lockHeld = false;
    ScriptOutcome outcome = runScript(run);
    if (!outcome.launched) return refuse(kBroken, name + ": the status script cannot be run");
    code = outcome.timedOut ? kScriptTimeout : statusAnswer(outcome.exitCode);
    if (code == kOk || code == kBroken) return code;
    return query.reportActive && active ? kStoppedButActive : code;
}

bool isMarkedActive(const std::string& name) {
    std::error_code ec;
    return isValidPackageName(name) && fs::exists(layout::activeMark(name), ec);
}

}  // namespace quor
