// Package services: starting, stopping and asking after a package's service
// through its start-stop-status script.
#pragma once

#include <string>

#include "pkg_manager.h"

namespace quor {

struct ServiceRequest {
    QUORPackageTool::PKG_INSTALLATION_TYPE type = QUORPackageTool::PKG_INSTALLATION_TYPE_NONE;
    const char* event = nullptr;
    const char* param = nullptr;
    bool withDependencies = true;  // start required packages first / stop dependents first
};

// Starts the package (required packages first). Type 8 writes the enabled
// flag and remakes a missing web-interface link. Starting a running package
// succeeds. kOk or a result code (kNoSuchPackage, kFirmwareBlocked,
// kMissingDependency, kScriptFailed, kScriptTimeout, kBroken).
int startPackage(const std::string& name, const ServiceRequest& request);

// Stops the package (running dependents first). Type 16 removes the enabled
// flag. Stopping a stopped package succeeds.
int stopPackage(const std::string& name, const ServiceRequest& request);

// 0 when running; otherwise kNoSuchPackage, kBroken, kStoppedButActive or the
// script's own code (normally kStopped).
int packageStatus(const std::string& name);

// Whether the package is marked active (started by the platform, not stopped since).
bool isMarkedActive(const std::string& name);

}  // namespace quor
