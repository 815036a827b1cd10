#include "quorpkg/service/all_services.h"

#include <algorithm>
#include <unordered_map>
#include <unordered_set>

#include "base/package_log.h"
#include "base/result.h"
#include "base/settings.h"
#include "quorpkg/service/firmware_limits.h"
#include "quorpkg/service/parallel_order.h"
#include "quorpkg/service/service_steps.h"
#include "quorpkg/store/dependencies.h"
#include "quorpkg/store/lock.h"
#include "quorpkg/store/store.h"

namespace quor {
namespace {

struct Selected {
    std::string name;
    std::vector<std::string> requires_;
};

// The packages to act on, requirements first, each with its requirements.
std::vector<Selected> select(const std::vector<std::string>& names, const BulkRequest& request) {
    std::vector<Selected> selected;
    for (const std::string& name : names) {
        Manifest manifest;
        const bool readable = readInstalledManifest(name, manifest) == kOk;
        if (request.start) {
            if (request.enabledOnly && !isEnabled(name)) continue;
            if (readable && firmwareLimitStatus(name, manifest.version) != 0) {
                logPackageEvent(name, "not started: version " + manifest.version +
                                          " is blocked by the firmware limit");
                continue;
            }
        }
        Selected entry{name, {}};
        if (readable)
            for (const Dependency& dependency : manifest.depends)
                entry.requires_.push_back(dependency.name);
        selected.push_back(std::move(entry));
    }
    return selected;
}

// Jobs in the order a single worker would take them: requirements first to
// start, dependents first to stop.
std::vector<OrderedJob> jobsFor(std::vector<Selected> selected, bool start) {
    if (!start) std::reverse(selected.begin(), selected.end());
    std::unordered_map<std::string, size_t> index;
    std::vector<OrderedJob> jobs;
    for (const Selected& entry : selected) {
        index.emplace(entry.name, jobs.size());
        jobs.push_back({entry.name, {}});
    }
    for (size_t i = 0; i < selected.size(); ++i) {
        for (const std::string& required : selected[i].requires_) {
            auto found = index.find(required);
            if (found == index.end() || found->second == i) continue;
            if (start) {
                jobs[i].after.push_back(found->second);
            } else {
                jobs[found->second].after.push_back(i);
            }
        }
    }
    return jobs;
}

int control(const std::vector<std::string>& names, const BulkRequest& request) {
    int code = kOk;
    std::optional<StoreLock> lock = StoreLock::acquire(code);
    if (!lock) return code;

    std::vector<OrderedJob> jobs = jobsFor(select(names, request), request.start);
    ServiceRequest step;
    step.event = request.event;
    step.param = request.param;
    // The order is this function's business: each step acts on one package.
    step.withDependencies = false;
    // A start runs only after the jobs it waits for succeeded, and the
    // store lock keeps anyone else from stopping them meanwhile: a
    // requirement among the jobs is running when its dependent starts.
    std::unordered_set<std::string> jobNames;
    for (const OrderedJob& job : jobs) jobNames.insert(job.name);
    if (request.start) step.knownRunning = &jobNames;
    auto action = [&](const std::string& name) {
        return request.start ? startLocked(name, step) : stopOneLocked(name, step);
    };
    const int workers =
        effectiveParallelJobs(loadSettings(), static_cast<int>(dependencyWidth(jobs)));
    // A failed stop does not keep the packages it needs from stopping: at
    // shutdown everything goes.
    std::vector<int> codes =
        runInOrder(jobs, workers, request.start, kMissingDependency, kDependencyCycle, action);
    for (size_t i = 0; i < codes.size(); ++i) {
        if (codes[i] == kDependencyCycle)
            refuse(kDependencyCycle, jobs[i].name + " is in a requirement cycle");
        else if (codes[i] == kMissingDependency)
            refuse(kMissingDependency,
                   "cannot start " + jobs[i].name + ": a package it needs is missing or failed");
    }
    for (int result : codes)
        if (result != kOk) return result;
    return kOk;
}

}  // namespace

int controlAllPackages(const BulkRequest& request) {
    return control(installOrder(), request);
}

int controlPackagesByService(const std::set<std::string>& services, const BulkRequest& request) {
    std::set<std::string> chosen;
    for (const std::string& name : installedPackages()) {
        Manifest manifest;
        if (readInstalledManifest(name, manifest) != kOk) continue;
        bool needs = std::any_of(manifest.services.begin(), manifest.services.end(),
                                 [&](const std::string& s) { return services.count(s) > 0; });
        if (!needs) continue;
        for (std::string& dependent : dependentsOf(name, true)) chosen.insert(std::move(dependent));
    }
    std::vector<std::string> names;
    for (const std::string& name : installOrder())
        if (chosen.count(name)) names.push_back(name);
    return control(names, request);
}

}  // namespace quor
