// Background installation from a package server: the request is checked and
// recorded in its task file, then a detached worker downloads, verifies and
// installs while the caller goes on (or exits).
#pragma once

#include <cstdint>
#include <string>

namespace quor {

struct BackgroundRequest {
    std::string user;
    std::string volume;  // a volume name or path ("volume1", a host path)
    std::string name;
    std::string displayName;
    std::string version;  // when set, the downloaded file must hold it
    std::string lang;
    std::string link;  // absolute URL of the package file
    std::string md5;
    uint64_t size = 0;
    bool noStart = false;  // install without starting the service
    bool withRequirements = true;
    bool beta = false;
};

// Checks the request (kBadArgument, kNoVolume), refuses one for a package
// whose installation is still running (kTaskRunning), writes the task file
// with state "queued" and starts the worker. kOk once the worker has taken
// the request.
int startBackgroundInstall(const BackgroundRequest& request, std::string* error = nullptr);

}  // namespace quor
