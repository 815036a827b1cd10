#include "quorpkg/store/installer.h"

#include <cerrno>
#include <system_error>

#include "base/file_util.h"
#include "base/layout.h"
#include "base/package_log.h"
#include "base/result.h"
#include "base/settings.h"
#include "quorpkg/package/package_file.h"
#include "quorpkg/service/script_runner.h"
#include "quorpkg/service/services.h"
#include "quorpkg/store/commit.h"
#include "quorpkg/store/dependencies.h"
#include "quorpkg/store/failpoint.h"
#include "quorpkg/store/install_checks.h"
#include "quorpkg/store/lock.h"
#include "quorpkg/store/store.h"

namespace fs = std::filesystem;
using QUORPackageTool::PKG_INSTALLATION_TYPE_ENABLE;

namespace quor {
namespace {

int ioFailure(const std::error_code& ec) {
    return ec.value() == ENOSPC || ec.value() == EDQUOT ? kNoSpace : kStoreUnusable;
}

// One install or upgrade, from the checks to the start of the new package.
class Installation {
public:
    explicit Installation(const InstallRequest& request) : request_(request) {}

    int run() {
        int code = prepare();
        if (code != kOk) return code;
        if (!writeJournal(change_)) return kStoreUnusable;
        code = stage();
        if (code == kOk) code = runPreScript();
        if (code == kOk) {
            failpoint("install-staged");
            change_.step = "commit";
            if (!writeJournal(change_)) code = kStoreUnusable;
        }
        if (code != kOk) return undo(code);
        failpoint("install-commit");
        if (!commitStaged(change_)) return undo(kStoreUnusable);
        failpoint("install-committed");
        code = runPostScript();
        if (code != kOk) return undo(code);
        failpoint("install-finish");
        finishInstall(change_);
        logPackageEvent(name(), upgrade()
                                    ? "upgraded from version " + oldVersion_ + " to " + version()
                                    : "installed version " + version());
        startAfterwards();
        return kOk;
    }

private:
    const std::string& name() const { return head_.manifest.name; }
    const std::string& version() const { return head_.manifest.version; }
    bool upgrade() const { return change_.op == "upgrade"; }

    // Everything that can refuse the package, before anything is written.
    int prepare() {
        int code = readPackageHead(request_.file, head_);
        if (code == kOk) code = checkPlatformFit(head_.manifest, loadSettings());
        if (code == kOk) code = checkRequirements(head_.manifest);
        if (code != kOk) return code;
        // A script of this very package's change in progress may not change it.
        Change pending;
        if (readJournal(name(), pending)) return kLocked;
        change_.name = name();
        change_.op = isInstalled(name()) ? "upgrade" : "install";
        change_.step = "stage";
        code = chooseVolume(name(), request_.volume, change_.volume);
        if (code == kOk) code = checkSpace(change_.volume, request_.file);
        if (code != kOk) return code;
        change_.uiDir = head_.manifest.ui_dir;
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
        int code = unpackPackage(request_.file, head_, targets);
        if (code != kOk) return code;
        failpoint("install-stage");
        if (!writeFileAtomic(paths_.packageNew / "INFO", formatManifest(head_.manifest)))
            return kStoreUnusable;
        fs::create_symlink(targetLinkText(change_.volume, name()), paths_.packageNew / "target",
                           ec);
        if (!ec && !upgrade()) fs::create_directory(paths_.packageNew / "var", ec);
        if (ec) return ioFailure(ec);
        if (wasEnabled_ && !writeFileAtomic(paths_.packageNew / "enabled", ""))
            return kStoreUnusable;
        flushStaging(paths_);
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
        if (outcome.timedOut) return kScriptTimeout;
        if (!outcome.launched || outcome.exitCode != 0) {
            logPackageEvent(name(),
                            script + " failed with status " + std::to_string(outcome.exitCode));
            return kScriptFailed;
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
            if (isMarkedActive(dependent)) stoppedDependents_.push_back(dependent);
        ServiceRequest stop;
        stop.event = request_.event;
        int code = stopPackage(name(), stop);
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
        ServiceRequest start;
        start.event = request_.event;
        if (wasEnabled_) startPackage(name(), start);
        for (auto it = stoppedDependents_.rbegin(); it != stoppedDependents_.rend(); ++it)
            startPackage(*it, start);
    }

    void startAfterwards() {
        if (upgrade()) {
            restart();
            return;
        }
        if (!request_.startService || (head_.scriptMask & kStartStopStatus) == 0) return;
        ServiceRequest start;
        start.type = PKG_INSTALLATION_TYPE_ENABLE;
        start.event = request_.event;
        int code = startPackage(name(), start);
        if (code != kOk) {
            // Installed, but turned off: it would not run.
            std::error_code ec;
            fs::remove(layout::enabledFlag(name()), ec);
            logPackageEvent(name(), "installed but could not be started (" + std::to_string(code) +
                                        "); turned off");
        }
    }

    const InstallRequest& request_;
    PackageFileHead head_;
    Change change_;
    ChangePaths paths_;
    std::string oldVersion_;
    bool wasEnabled_ = false;
    bool stoppedOld_ = false;
    std::vector<std::string> stoppedDependents_;
};

}  // namespace

int installPackage(const InstallRequest& request) {
    if (request.file.empty()) return kBadArgument;
    int code = kOk;
    std::optional<StoreLock> lock = StoreLock::acquire(code);
    if (!lock) return code;
    if (lock->fresh()) recoverUnfinishedChange();
    return Installation(request).run();
}

}  // namespace quor
