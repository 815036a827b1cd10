// The steps of starting and stopping, for callers that already hold the
// store lock on behalf of the threads that run them (whole-system control
// runs them on worker threads, which cannot take the lock themselves).
#pragma once

#include <string>

#include "quorpkg/service/services.h"

namespace quor {

// startPackage without taking the lock.
int startLocked(const std::string& name, const ServiceRequest& request);

// Stops this one package, leaving its dependents alone.
int stopOneLocked(const std::string& name, const ServiceRequest& request);

}  // namespace quor
