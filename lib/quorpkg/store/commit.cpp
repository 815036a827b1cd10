#include "quorpkg/store/commit.h"

#include <fcntl.h>
#include <unistd.h>

#include <system_error>

#include "base/file_util.h"
#include "base/layout.h"
#include "base/operation_log.h"
#include "base/result.h"
#include "quorpkg/scripts/script_record.h"
#include "quorpkg/store/failpoint.h"
#include "quorpkg/store/installed_index.h"
#include "quorpkg/store/installer.h"
#include "quorpkg/store/store.h"

namespace fs = std::filesystem;

namespace quor {
namespace {

bool present(const fs::path& path) {
    std::error_code ec;
    return !path.empty() && fs::symlink_status(path, ec).type() != fs::file_type::not_found;
}

bool move(const fs::path& from, const fs::path& to) {
    std::error_code ec;
    fs::rename(from, to, ec);
    return !ec;
}

void discard(const fs::path& path) {
    std::error_code ec;
    if (!path.empty()) fs::remove_all(path, ec);
}

void syncParents(const ChangePaths& paths) {
    syncDirectory(layout::packagesDir());
    if (!paths.app.empty()) syncDirectory(paths.app.parent_path());
    if (!paths.oldApp.empty()) syncDirectory(paths.oldApp.parent_path());
}

}  // namespace

// One syncfs per file system instead of an fsync per unpacked file: the
// staged trees only need to be on disk before the commit renames, not each
// file as it is written, and a single flush lets the file system write them
// in one go. It also writes other dirty data of those file systems; that is
// the price of not fsync'ing hundreds of files one by one.
void flushStaging(const ChangePaths& paths) {
    for (const fs::path& dir : {paths.packageNew, paths.appNew}) {
        UniqueFd fd(::open(dir.c_str(), O_RDONLY | O_DIRECTORY | O_CLOEXEC));
        if (fd) ::syncfs(fd.get());
    }
}

bool commitStaged(const Change& change) {
    const ChangePaths paths = changePaths(change);
    // The payload first and the package directory last: the package counts
    // as installed once its directory is there.
    if (present(paths.appNew)) {
        if (present(paths.oldApp) && !present(paths.appOld) && !move(paths.oldApp, paths.appOld))
            return false;
        if (!move(paths.appNew, paths.app)) return false;
    }
    failpoint("install-payload");
    if (present(paths.packageNew)) {
        if (present(paths.package) && !present(paths.packageOld) &&
            !move(paths.package, paths.packageOld))
            return false;
        if (!move(paths.packageNew, paths.package)) return false;
    }
    failpoint("install-package");
    const fs::path oldVar = paths.packageOld / "var";
    if (present(oldVar) && !present(paths.package / "var") && !move(oldVar, paths.package / "var"))
        return false;
    // Nothing in place means the staging was lost: there is nothing to commit.
    if (!present(paths.package)) return false;
    std::error_code ec;
    fs::create_directories(paths.package / "var", ec);
    syncParents(paths);
    return !ec;
}

void finishInstall(const Change& change) {
    const ChangePaths paths = changePaths(change);
    discard(paths.packageOld);
    discard(paths.appOld);
    // An upgrade keeps the web entry only when the old package had one (a
    // paused package has none).
    if (change.op == "install" || change.webEntry) {
        if (change.uiDir.empty()) {
            removeWebEntry(change.name);
        } else {
            makeWebEntry(change.name, change.uiDir);
        }
    }
    updateInstalledIndex(change.name);
    clearJournal(change.name);
}

void rollBackInstall(const Change& change) {
    const ChangePaths paths = changePaths(change);
    if (change.op == "upgrade") {
        if (present(paths.packageOld)) {
            const fs::path var = paths.package / "var";
            if (present(var) && !present(paths.packageOld / "var"))
                move(var, paths.packageOld / "var");
            if (present(paths.package)) {
                discard(paths.packageNew);
                move(paths.package, paths.packageNew);
            }
            move(paths.packageOld, paths.package);
        }
        failpoint("install-rollback");
        if (present(paths.appOld)) {
            if (present(paths.app)) {
                discard(paths.appNew);
                move(paths.app, paths.appNew);
            }
            move(paths.appOld, paths.oldApp);
        }
    } else {
        // An install had nothing before it: whatever is in place is new.
        if (present(paths.package)) {
            discard(paths.packageNew);
            move(paths.package, paths.packageNew);
        }
        failpoint("install-rollback");
        if (present(paths.app)) {
            discard(paths.appNew);
            move(paths.app, paths.appNew);
        }
    }
    syncParents(paths);
    discard(paths.packageNew);
    discard(paths.appNew);
    updateInstalledIndex(change.name);
    clearJournal(change.name);
}

bool commitRemoval(const Change& change) {
    const ChangePaths paths = changePaths(change);
    if (present(paths.package) && !present(paths.packageOld) &&
        !move(paths.package, paths.packageOld))
        return false;
    failpoint("remove-package");
    if (present(paths.oldApp) && !present(paths.appOld) && !move(paths.oldApp, paths.appOld))
        return false;
    syncParents(paths);
    return true;
}

void finishRemoval(const Change& change) {
    const ChangePaths paths = changePaths(change);
    removeWebEntry(change.name);
    std::error_code ec;
    fs::remove(layout::activeMark(change.name), ec);
    discard(paths.packageOld);
    discard(paths.appOld);
    updateInstalledIndex(change.name);
    clearJournal(change.name);
}

// Finishes or undoes the change a journal names; says which way it went.
static const char* recover(const Change& change) {
    const bool removal = change.op == "remove";
    if (change.step == "commit") {
        // The staged files were complete before the step was written: finish.
        if (removal ? commitRemoval(change) : commitStaged(change)) {
            removal ? finishRemoval(change) : finishInstall(change);
            return "rolled forward";
        }
        if (removal) return "not finished yet, left for the next change";
        rollBackInstall(change);
    } else if (change.step == "rollback" || (!removal && change.step == "stage")) {
        rollBackInstall(change);
    } else {
        // A removal that had not committed yet: the package is still whole.
        clearJournal(change.name);
    }
    return "rolled back";
}

// The history line of a recovered change, with what is installed now.
static void logRecovery(const Change& change, const char* outcome) {
    std::string words = "recovered an interrupted " +
                        (change.op == "remove" ? std::string("removal") : change.op) + " (step " +
                        change.step + "): " + outcome;
    Manifest manifest;
    if (!isInstalled(change.name))
        words += ", not installed";
    else if (readInstalledManifest(change.name, manifest) == kOk)
        words += ", " + manifest.version + " installed";
    logPackageChange(change.name, words);
}

void recoverUnfinishedChange() {
    // What a killed change's script started must not go on beside the
    // recovery, nor after it.
    for (const EndedScript& script : endAbandonedScripts())
        logPackageChange(script.package, "ended " + script.script + " (process group " +
                                             std::to_string(script.processGroup) +
                                             "), left running by a killed process");
    removeJournalLeftovers();
    for (const std::string& name : pendingJournals()) {
        Change change;
        if (readJournal(name, change)) {
            logRecovery(change, recover(change));
        } else {
            // Not a journal we wrote: nothing can be done with it.
            clearJournal(name);
        }
    }
}

}  // namespace quor
