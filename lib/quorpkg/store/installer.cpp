#include "quorpkg/store/installer.h"

#include <system_error>

#include "base/file_util.h"
#include "base/layout.h"
#include "base/operation_log.h"
#include "base/package_log.h"
#include "base/result.h"
#include "base/settings.h"
#include "quorpkg/package/package_file.h"
#include "quorpkg/package/trust.h"
#include "quorpkg/package/version.h"
#include "quorpkg/store/commit.h"
#include "quorpkg/store/conf_files.h"
#include "quorpkg/store/dependencies.h"
#include "quorpkg/store/failpoint.h"
#include "quorpkg/store/install_checks.h"
#include "quorpkg/store/lock.h"
#include "quorpkg/store/origin.h"
#include "quorpkg/store/package_scripts.h"
#include "quorpkg/store/store.h"

namespace fs = std::filesystem;

namespace quor {
namespace {

// One install or upgrade, from the checks to the start of the new package.
class Installation {
public:
    Installation(const InstallRequest& request, ServiceHooks& services)
        : request_(request), services_(services) {}

    int run() {
        int code = prepare();
        if (code != kOk) return code;
        if (!writeJournal(change_))
            return refuse(kStoreUnusable, "cannot write the journal of " + name());
        code = stage();
        if (code == kOk) code = runPreScript();
        // After preupgrade: what it changed in the installed conf/ counts
        // as the administrator's.
        if (code == kOk)
            code = stageConfFiles(paths_.package, paths_.packageNew, upgrade(), confNotes_);
        if (code == kOk) {
            flushStaging(paths_);
            failpoint("install-staged");
            change_.step = "commit";
            if (!writeJournal(change_))
                code = refuse(kStoreUnusable, "cannot write the journal of " + name());
        }
        if (code != kOk) return undo(code);
        failpoint("install-commit");
        if (!commitStaged(change_))
            return undo(refuse(kStoreUnusable, "cannot move the staged " + name() + " into place"));
        failpoint("install-committed");
        code = runPostScript();
        if (code != kOk) return undo(code);
        failpoint("install-finish");
        finishInstall(change_);
        std::string change = changeWords();
        logPackageEvent(name(), change);
        for (const std::string& note : confNotes_) {
            logPackageEvent(name(), note);
            change += "; " + note;
        }
        logPackageChange(name(), change);
        startAfterwards();
        return kOk;
    }

private:
    const std::string& name() const { return head_.manifest.name; }
    const std::string& version() const { return head_.manifest.version; }
    bool upgrade() const { return change_.op == "upgrade"; }

    // What the change did, as the package log and the history say it.
    std::string changeWords() const {
        if (!upgrade()) return "installed " + version();
        if (oldVersion_.empty()) return "installed " + version() + " over a broken package";
        const int order = compareVersions(version(), oldVersion_);
        if (order == 0) return "reinstalled " + version();
        return (order > 0 ? "upgraded from " : "downgraded from ") + oldVersion_ + " to " +
               version();
    }

    // Everything that can refuse the package, before anything is written.
    int prepare() {
        int code = readPackageHead(request_.file, head_);
        if (code == kOk) code = checkTrust();
        if (code == kOk) code = checkVersionDirection();
        if (code == kOk) code = checkPlatformFit(head_.manifest, loadSettings());
        if (code == kOk) code = checkRequirements(head_.manifest);
        if (code != kOk) return code;
        // A script of this very package's change in progress may not change it.
        Change pending;
        if (readJournal(name(), pending))
            return refuse(kLocked,
                          "a change of " + name() + " is in progress (" + pending.op + ")");
        change_.name = name();
        change_.op = isInstalled(name()) ? "upgrade" : "install";
        change_.step = "stage";
        code = chooseVolume(name(), request_.volume, change_.volume);
        if (code == kOk) code = checkSpace(change_.volume, request_.file);
        if (code != kOk) return code;
        change_.uiDir = head_.manifest.ui_dir;
        // The web entry links into the payload: never anywhere else.
        if (!change_.uiDir.empty() && !isInsideFolder(change_.uiDir))
            return refuse(kBadManifest, name() + ": ui_dir \"" + change_.uiDir +
                                            "\" must name a folder inside the payload");
        if (upgrade()) {
            change_.oldVolume = installedVolume(name());
            std::error_code ec;
            change_.webEntry = fs::is_symlink(fs::symlink_status(layout::webEntry(name()), ec));
            Manifest old;
            if (readInstalledManifest(name(), old) == kOk) oldVersion_ = old.version;
            wasEnabled_ = isEnabled(name());
        }
        paths_ = changePaths(change_);
        return kOk;
    }

    // The file's signature, told in the package log when it is refused.
    int checkTrust() {
        std::string why;
        int code = checkPackageTrust(head_, request_.file.string(), why, request_.root.get(),
                                     &origin_.key);
        origin_.source = request_.origin;
        if (code == kOk) return kOk;
        logPackageEvent(name(), "refused: " + why);
        return refuse(code, why);
    }

    // A server never lowers an installed version.
    int checkVersionDirection() {
        Manifest installed;
        if (!request_.refuseDowngrade || readInstalledManifest(name(), installed) != kOk ||
            compareVersions(version(), installed.version) >= 0)
            return kOk;
        const std::string why = "refused: " + name() + " " + version() + " from " +
                                request_.origin + " would lower the installed version " +
                                installed.version;
        logPackageEvent(name(), why);
        return refuse(kDowngradeRefused, why);
    }

    // The new package directory and payload, complete, beside their places.
    int stage() {
        std::error_code ec;
        fs::remove_all(paths_.packageNew, ec);
        fs::remove_all(paths_.appNew, ec);
        // A payload that no installed package owns is a leftover.
        if (!upgrade()) fs::remove_all(paths_.app, ec);
        UnpackTargets targets{paths_.appNew, paths_.packageNew / "scripts",
                              paths_.packageNew / "conf"};
        targets.spaceAllowance = unpackAllowance(change_.volume);
        std::string why;
        int code = unpackPackage(request_.file, head_, targets, &why);
        if (code == kSignatureRefused)
            logPackageEvent(name(), "refused: " + request_.file.string() + ": " + why);
        if (code != kOk) return code;
        failpoint("install-stage");
        if (!writeFileAtomic(paths_.packageNew / "INFO", formatManifest(head_.manifest)))
            return refuse(kStoreUnusable, "cannot write " + (paths_.packageNew / "INFO").string());
        fs::create_symlink(targetLinkText(change_.volume, name()), paths_.packageNew / "target",
                           ec);
        if (!ec && !upgrade()) fs::create_directory(paths_.packageNew / "var", ec);
        if (ec)
            return refuse(writeFailure(ec.value()), "cannot stage " + name() + ": " + ec.message());
        if (!writeFileAtomic(paths_.packageNew / "origin", formatOrigin(origin_)))
            return refuse(kStoreUnusable,
                          "cannot write " + (paths_.packageNew / "origin").string());
        if (wasEnabled_ && !writeFileAtomic(paths_.packageNew / "enabled", ""))
            return refuse(kStoreUnusable,
                          "cannot write " + (paths_.packageNew / "enabled").string());
        return kOk;
    }

    // preinst, or on upgrade preupgrade once the old service is stopped: the
    // new package's script, run from the staging folder.
    int runPreScript() {
        if (upgrade()) stopOld();
        const std::string script = upgrade() ? "preupgrade" : "preinst";
        const fs::path file = paths_.packageNew / "scripts" / script;
        std::error_code ec;
        if (!fs::exists(file, ec)) return kOk;
        ScriptRun run = scriptBase();
        run.script = file;
        run.packageName = name();
        run.target = paths_.app;
        run.workDir = upgrade() ? paths_.package : paths_.packageNew;
        ScriptOutcome outcome = runScript(run);
        if (outcome.timedOut)
            return refuse(kScriptTimeout, name() + ": " + script + " timed out and was killed");
        if (!outcome.launched || outcome.exitCode != 0) {
            logPackageEvent(name(),
                            script + " failed with status " + std::to_string(outcome.exitCode));
            return refuse(kScriptFailed, name() + ": " + script + " failed with exit code " +
                                             std::to_string(outcome.exitCode));
        }
        return kOk;
    }

    int runPostScript() {
        return runPackageScript(name(), upgrade() ? "postupgrade" : "postinst", {}, scriptBase());
    }

    ScriptRun scriptBase() const {
        ScriptRun run;
        run.packageVersion = version();
        run.oldVersion = oldVersion_;
        run.event = request_.event ? request_.event : "";
        return run;
    }

    // Stops the old service and, first, the running packages that need it;
    // they are started again when the change is over, whichever way it went.
    void stopOld() {
        std::vector<std::string> dependents = dependentsOf(name(), true);
        dependents.pop_back();
        for (const std::string& dependent : dependents)
            if (services_.isActive(dependent)) stoppedDependents_.push_back(dependent);
        int code = services_.stop(name(), request_.event);
        // The upgrade replaces the scripts that failed; it goes on.
        if (code != kOk)
            logPackageEvent(name(),
                            "stop before the upgrade failed (" + std::to_string(code) + ")");
        stoppedOld_ = true;
    }

    int undo(int code) {
        change_.step = "rollback";
        writeJournal(change_);
        rollBackInstall(change_);
        if (stoppedOld_) restart();
        logPackageEvent(name(), (upgrade() ? "upgrade to version " : "install of version ") +
                                    version() + " failed (" + std::to_string(code) + ")");
        return code;
    }

    // The upgraded (or restored) package again if it was turned on, then the
    // dependents it had to stop, requirements first.
    void restart() {
        if (wasEnabled_) services_.start(name(), request_.event, false);
        for (auto it = stoppedDependents_.rbegin(); it != stoppedDependents_.rend(); ++it)
            services_.start(*it, request_.event, false);
    }

    void startAfterwards() {
        if (upgrade()) {
            restart();
            return;
        }
        if (!request_.startService || (head_.scriptMask & kStartStopStatus) == 0) return;
        int code = services_.start(name(), request_.event, true);
        if (code != kOk) {
            // Installed, but turned off: it would not run.
            std::error_code ec;
            fs::remove(layout::enabledFlag(name()), ec);
            logPackageEvent(name(), "installed but could not be started (" + std::to_string(code) +
                                        "); turned off");
            logPackageChange(name(), "start failed (" + std::to_string(code) + "), turned off");
        }
    }

    const InstallRequest& request_;
    ServiceHooks& services_;
    PackageFileHead head_;
    Change change_;
    ChangePaths paths_;
    std::string oldVersion_;
    PackageOrigin origin_;
    bool wasEnabled_ = false;
    bool stoppedOld_ = false;
    std::vector<std::string> stoppedDependents_;
    std::vector<std::string> confNotes_;  // conf files where the new version did not go in
};

}  // namespace

int installPackage(const InstallRequest& request, ServiceHooks& services) {
    if (request.file.empty()) return refuse(kBadArgument, "no package file named");
    int code = kOk;
    std::optional<StoreLock> lock = StoreLock::acquire(code);
    if (!lock) return code;
    if (lock->fresh()) recoverUnfinishedChange();
    return Installation(request, services).run();
}

}  // namespace quor
