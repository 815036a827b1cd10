// Removing packages: all named ones or none, dependents first.
#include <set>
#include <system_error>

#include "base/package_log.h"
#include "base/result.h"
#include "quorpkg/service/script_runner.h"
#include "quorpkg/service/services.h"
#include "quorpkg/store/commit.h"
#include "quorpkg/store/dependencies.h"
#include "quorpkg/store/failpoint.h"
#include "quorpkg/store/installer.h"
#include "quorpkg/store/journal.h"
#include "quorpkg/store/lock.h"
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
    std::vector<QUORPackageTool::PackageInfo> records;
    for (const std::string& name : names) {
        QUORPackageTool::PackageInfo info;
        // A broken package has no known requirements; it still goes.
        if (readInstalledInfo(name, info) != kOk) info.name = name;
        records.push_back(std::move(info));
    }
    std::vector<std::string> order;
    return topologicalSort(records, order) == kOk ? order : names;
}

int removeOne(const std::string& name, bool runScripts) {
    Change change;
    change.op = "remove";
    change.name = name;
    change.step = "prepare";
    change.volume = installedVolume(name);
    if (!writeJournal(change)) return refuse(kStoreUnusable, "cannot write the journal of " + name);

    Manifest manifest;
    readInstalledManifest(name, manifest);
    const bool wasEnabled = isEnabled(name);
    int code = stopPackage(name, {});
    // A package whose service will not stop still goes; its files are
    // taken from under it.
    if (code != kOk)
        logPackageEvent(name, "stop before removal failed (" + std::to_string(code) + ")");
    ScriptRun base;
    base.packageVersion = manifest.version;
    if (runScripts) {
        code = runPackageScript(name, "preuninst", {}, base);
        if (code != kOk) {
            // Nothing was removed: the package runs again as it did.
            clearJournal(name);
            if (wasEnabled) startPackage(name, {});
            logPackageEvent(name, "removal refused by preuninst (" + std::to_string(code) + ")");
            return code;
        }
    }
    failpoint("remove-prepare");
    change.step = "commit";
    if (!writeJournal(change)) return refuse(kStoreUnusable, "cannot write the journal of " + name);
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
    if (runScripts && fs::exists(postuninst, ec)) {
        ScriptRun run = base;
        run.script = postuninst;
        run.packageName = name;
        ScriptOutcome outcome = runScript(run);
        if (outcome.timedOut || !outcome.launched || outcome.exitCode != 0)
            logPackageEvent(name,
                            "postuninst failed with status " + std::to_string(outcome.exitCode));
    }
    finishRemoval(change);
    logPackageEvent(name, "removed version " + manifest.version);
    return kOk;
}

}  // namespace

int removePackages(const std::vector<std::string>& names, bool runScripts) {
    if (names.empty()) return refuse(kBadArgument, "no package named");
    int code = kOk;
    std::optional<StoreLock> lock = StoreLock::acquire(code);
    if (!lock) return code;
    if (lock->fresh()) recoverUnfinishedChange();
    std::vector<std::string> unique;
    code = checkRequest(names, unique);
    if (code != kOk) return code;
    for (const std::string& name : removalOrder(unique)) {
        code = removeOne(name, runScripts);
        if (code != kOk) return code;
    }
    return kOk;
}

}  // namespace quor
