// Many packages at once: all of them (system start-up and shutdown), or
// those that need one of a set of system services. Packages go in
// dependency order, and packages that do not depend on each other go in
// parallel (setting parallel_jobs, default the dependency graph's width).
#pragma once

#include <set>
#include <string>

namespace quor {

struct BulkRequest {
    bool start = true;
    bool enabledOnly = true;      // start only turned-on packages (stops take every running one)
    const char* event = nullptr;  // QUOR_PKG_EVENT of the scripts run
    const char* param = nullptr;  // QUOR_PKG_PARAM of the scripts run
};

// Start: every enabled package that the firmware limit does not block,
// requirements first; a package whose requirement failed is not started
// (kMissingDependency). Stop: every running package, dependents first.
// Enabled flags are left alone. Every package is attempted; kOk, or the
// code of the first failure in dependency order.
int controlAllPackages(const BulkRequest& request);

// The same for the packages whose install_dep_services names one of
// `services`, together with the packages that depend on them.
int controlPackagesByService(const std::set<std::string>& services, const BulkRequest& request);

}  // namespace quor
