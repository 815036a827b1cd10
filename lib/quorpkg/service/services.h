// Package services: starting, stopping and asking after a package's service
// through its start-stop-status script.
//
// Starting and stopping change the store (active marks, enabled flags), so
// they take the store lock; it nests within a thread, so a caller that holds
// it already (an install starting the new package) may call them.
#pragma once

#include <string>
#include <unordered_set>
#include <vector>

#include "pkg_manager.h"
#include "quorpkg/store/service_hooks.h"

namespace quor {

// The script that drives a package's service.
inline constexpr const char* kServiceScript = "start-stop-status";

struct ServiceRequest {
    QUORPackageTool::PKG_INSTALLATION_TYPE type = QUORPackageTool::PKG_INSTALLATION_TYPE_NONE;
    const char* event = nullptr;  // QUOR_PKG_EVENT of the scripts run
    const char* param = nullptr;  // QUOR_PKG_PARAM of the scripts run
    // Start required packages first / stop dependents first. Without it the
    // package is acted on alone: a start fails (kMissingDependency) when a
    // requirement is not running, and a stop leaves dependents running.
    bool withDependencies = true;
    // Run the start-stop-status script. Without it only the platform's
    // records change (active mark, enabled flag, web-interface link).
    bool runScripts = true;
    // Start even when the firmware limit blocks the package.
    bool ignoreFirmwareLimit = false;
    // When set, receives the name of every package started or stopped, in
    // the order they were acted on.
    std::vector<std::string>* affected = nullptr;
    // Without withDependencies: requirements known to be running, because
    // this run started them (or found them running) before this package.
    // Their status script is not asked again.
    const std::unordered_set<std::string>* knownRunning = nullptr;
};

// Starts the package (required packages first, with the same type, so a
// package turned on has its requirements turned on). Type 8 writes the
// enabled flag and remakes a missing web-interface link. Starting a running
// package succeeds. kOk or a result code (kBadArgument, kNoSuchPackage,
// kBroken, kFirmwareBlocked, kMissingDependency, kScriptFailed,
// kScriptTimeout, kLocked).
int startPackage(const std::string& name, const ServiceRequest& request);

// Stops the package (the packages that depend on it first, with the same
// type: turning a package off turns off what needs it). Type 16 removes the
// enabled flag. Stopping a stopped package succeeds.
int stopPackage(const std::string& name, const ServiceRequest& request);

// Stops the package and its running dependents, starts the package, then
// starts those dependents again. The enabled flags are left alone.
int restartPackage(const std::string& name);

// What a status query looks at.
struct StatusQuery {
    bool askScript = true;     // false: answer from the active mark alone
    bool reportActive = true;  // false: never kStoppedButActive
};

// 0 when running; otherwise kNoSuchPackage, kBroken, kStoppedButActive or the
// script's own code (normally kStopped).
int packageStatus(const std::string& name);
int packageStatus(const std::string& name, const StatusQuery& query);

// Whether the package is marked active (started by the platform, not stopped since).
bool isMarkedActive(const std::string& name);

// The package's log file (host path): the path its script prints for `log`
// (exit 0, non-empty), else /var/log/packages/<name>.log. Empty with `code`
// kNoSuchPackage (or kBadArgument) when it is not installed; `code` is kOk
// otherwise.
std::string packageLogPath(const std::string& name, int& code);

// Starting and stopping as the store's installs, upgrades and removals ask
// for them.
ServiceHooks& serviceHooks();

}  // namespace quor
