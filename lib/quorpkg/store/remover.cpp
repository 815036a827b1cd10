// Removing packages: all named ones or none, dependents first.
#include <set>
#include <system_error>

#include "base/operation_log.h"
#include "base/package_log.h"
#include "base/result.h"
#include "quorpkg/store/commit.h"
#include "quorpkg/store/dependencies.h"
#include "quorpkg/store/failpoint.h"
#include "quorpkg/store/installer.h"
#include "quorpkg/store/journal.h"
#include "quorpkg/store/lock.h"
#include "quorpkg/store/package_scripts.h"
#include "quorpkg/store/store.h"

namespace fs = std::filesystem;

namespace quor {
namespace {

// The request without repeats, or the code that refuses it.
int checkRequest(const std::vector<std::string>& names, std::vector<std::string>& unique) {
    std::set<std::string> seen;
    for (const std::string& name : names) {
        if (!isValidPackageName(name)) return refuse(kBadArgument, "not a package name: " + name);
        if (!isInstalled(name)) return refuse(kNoSuchPackage, name + " is not installed");
        // A script of this very package's change in progress may not remove it.
        Change pending;
        if (readJournal(name, pending))
            return refuse(kLocked, "a change of " + name + " is in progress (" + pending.op + ")");
        if (seen.insert(name).second) unique.push_back(name);
    }
    for (const std::string& other : installedPackages()) {
        Manifest manifest;
        if (seen.count(other) || readInstalledManifest(other, manifest) != kOk) continue;
        for (const Dependency& required : manifest.depends)
            if (seen.count(required.name))
                return refuse(kHasDependents, required.name + " is required by installed " + other);
    }
    return kOk;
}

// The request, each package before the ones it requires.
std::vector<std::string> removalOrder(const std::vector<std::string>& names) {
    std::vector<Manifest> manifests;
    for (const std::string& name : names) {
        Manifest manifest;
        // A broken package has no known requirements; it still goes.
        if (readInstalledManifest(name, manifest) != kOk) manifest.name = name;
        manifests.push_back(std::move(manifest));
    }
    std::vector<std::string> order;
    return topologicalSort(manifests, order) == kOk ? order : names;
}

// A package on its way out, from its pre-removal checks on.
struct Leaving {
    Change change;
    Manifest manifest;
    bool wasEnabled = false;
};

// Removes the named packages together: every package is stopped and asked
// (preuninst) first, and only when all agree is any of them removed.
class Removal {
public:
    Removal(ServiceHooks& services, bool runScripts)
        : services_(services), runScripts_(runScripts) {}

    int run(const std::vector<std::string>& order) {
        for (const std::string& name : order) {
            int code = prepare(name);
            if (code != kOk) {
                giveBack(0);
                if (refused_)
                    logPackageEvent(name,
                                    "removal refused by preuninst (" + std::to_string(code) + ")");
                return code;
            }
        }
        for (size_t i = 0; i < leaving_.size(); ++i) {
            int code = remove(leaving_[i]);
            if (code != kOk) {
                giveBack(i + 1);
                return code;
            }
        }
        return kOk;
    }

private:
    // Stops the package and runs its preuninst; kOk when it may go.
    int prepare(const std::string& name) {
        Leaving package;
        Change& change = package.change;
        change.op = "remove";
        change.name = name;
        change.step = "prepare";
        change.volume = installedVolume(name);
        if (!writeJournal(change))
            return refuse(kStoreUnusable, "cannot write the journal of " + name);
        readInstalledManifest(name, package.manifest);
        package.wasEnabled = isEnabled(name);
        leaving_.push_back(std::move(package));

        int code = services_.stop(name, nullptr);
        // A package whose service will not stop still goes; its files are
        // taken from under it.
        if (code != kOk)
            logPackageEvent(name, "stop before removal failed (" + std::to_string(code) + ")");
        if (runScripts_) {
            code = runPackageScript(name, "preuninst", {}, scriptBase(leaving_.back()));
            if (code != kOk) {
                refused_ = true;
                return code;
            }
        }
        failpoint("remove-prepare");
        return kOk;
    }

    // Nothing of the packages from `first` on was removed: they run again as
    // they did, requirements first.
    void giveBack(size_t first) {
        for (size_t i = leaving_.size(); i-- > first;) {
            clearJournal(leaving_[i].change.name);
            if (leaving_[i].wasEnabled) services_.start(leaving_[i].change.name, nullptr, false);
        }
    }

    static ScriptRun scriptBase(const Leaving& package) {
        ScriptRun base;
        base.packageVersion = package.manifest.version;
        return base;
    }

    int remove(Leaving& package) {
        Change& change = package.change;
        const std::string& name = change.name;
        change.step = "commit";
        if (!writeJournal(change))
            return refuse(kStoreUnusable, "cannot write the journal of " + name);
        failpoint("remove-commit");
        if (!commitRemoval(change)) {
            // Undone here; the journal is left for the next change otherwise.
            const ChangePaths paths = changePaths(change);
            std::error_code ec;
            if (!fs::exists(paths.package, ec)) fs::rename(paths.packageOld, paths.package, ec);
            if (!paths.oldApp.empty() && !fs::exists(paths.oldApp, ec))
                fs::rename(paths.appOld, paths.oldApp, ec);
            if (!ec) clearJournal(name);
            return refuse(kStoreUnusable, "cannot move the files of " + name + " aside");
        }
        removeWebEntry(name);
        failpoint("remove-finish");
        // postuninst runs from the set-aside copy: the package is gone by now.
        const fs::path postuninst = changePaths(change).packageOld / "scripts" / "postuninst";
        std::error_code ec;
        if (runScripts_ && fs::exists(postuninst, ec)) {
            ScriptRun run = scriptBase(package);
            run.script = postuninst;
            run.packageName = name;
            ScriptOutcome outcome = runScript(run);
            if (outcome.timedOut || !outcome.launched || outcome.exitCode != 0)
                logPackageEvent(
                    name, "postuninst failed with status " + std::to_string(outcome.exitCode));
        }
        finishRemoval(change);
        const std::string& version = package.manifest.version;
        logPackageEvent(name, "removed version " + version);
        logPackageChange(name, version.empty() ? "removed a broken package" : "removed " + version);
        return kOk;
    }

    ServiceHooks& services_;
    const bool runScripts_;
    std::vector<Leaving> leaving_;
    bool refused_ = false;
};

}  // namespace

int removePackages(const std::vector<std::string>& names, ServiceHooks& services, bool runScripts) {
    if (names.empty()) return refuse(kBadArgument, "no package named");
    int code = kOk;
    std::optional<StoreLock> lock = StoreLock::acquire(code);
    if (!lock) return code;
    if (lock->fresh()) recoverUnfinishedChange();
    std::vector<std::string> unique;
    code = checkRequest(names, unique);
    if (code != kOk) return code;
    return Removal(services, runScripts).run(removalOrder(unique));
}

}  // namespace quor
