// PackageManager: set-up, package records, and the changes of the package
// store (install, uninstall). Selector and volume arguments of the lookups
// are accepted and ignored: every installed package is visible everywhere.
#include <system_error>

#include "base/layout.h"
#include "base/operation.h"
#include "base/result.h"
#include "base/system_root.h"
#include "manager_state.h"
#include "pkg_manager.h"
#include "quorpkg/api/package_record.h"
#include "quorpkg/package/package_file.h"
#include "quorpkg/scripts/script_record.h"
#include "quorpkg/service/services.h"
#include "quorpkg/store/dependencies.h"
#include "quorpkg/store/installed_index.h"
#include "quorpkg/store/installer.h"
#include "quorpkg/store/journal.h"
#include "quorpkg/store/lock.h"
#include "quorpkg/store/store.h"

namespace fs = std::filesystem;

namespace QUORPackageTool {
namespace {

bool lookUp(const std::string& name, PackageInfo& out) {
    if (!quor::isValidPackageName(name))
        return quor::fail(quor::kBadArgument, "not a package name: \"" + name + "\"");
    // Right after a listing (list asks for each listed package), the index
    // it read answers while the store has not changed.
    int code = quor::kNoSuchPackage;
    if (auto index = quor::currentInstalledIndex()) {
        if (const quor::IndexedPackage* package = index->find(name))
            code = quor::indexedRecord(*package, out);
    } else {
        code = quor::readInstalledRecord(name, out);
    }
    return code == quor::kOk || quor::fail(code);
}

// A volume argument names a volume as a system path ("/volume1") or, when
// it already lies under the root, as a host path.
fs::path volumeHostPath(const char* volume) {
    if (volume == nullptr || *volume == '\0') return {};
    fs::path given(volume);
    if (given.is_absolute() && quor::rootDir() != "/" && quor::isUnderRoot(given)) return given;
    return quor::hostPath(volume);
}

}  // namespace

PackageManager::PackageManager() : state_(std::make_unique<State>()) {}

PackageManager::~PackageManager() = default;

bool PackageManager::init() {
    quor::Operation operation("init", "", state_->results, quor::LogPolicy::kOnFailure);
    // Nothing is made here, not even inside the root: a read needs no
    // folder (a missing one reads as empty), and each write makes the
    // folders it writes into. So a run that only reads, or a mistyped
    // command word, leaves the root as it was.
    if (!quor::rootExists())
        return quor::fail(quor::kStoreUnusable, quor::rootDir().string() + " does not exist");
    // A change that was cut short is finished or undone now, and what its
    // script left running is ended, unless some process is in the middle of
    // one (its own recovery comes first anyway).
    if (quor::anyJournalEntry() || quor::anyRecordedScript()) {
        if (auto lock = quor::StoreLock::tryAcquireFresh()) quor::recoverUnfinishedChange();
    }
    state_->initialized = true;
    return true;
}

int PackageManager::getResult() {
    return quor::latestOutcome(state_->results).code;
}

bool PackageManager::getPackageInfo(const std::string& name, PackageInfo& out, const char*,
                                    unsigned long long) {
    quor::Operation operation("getPackageInfo", name, state_->results, quor::LogPolicy::kNever);
    return lookUp(name, out);
}

bool PackageManager::getInstallPackageInfo(const std::string& name, PackageInfo& out, const char*,
                                           unsigned long long) {
    quor::Operation operation("getInstallPackageInfo", name, quor::freeFunctionResults(),
                              quor::LogPolicy::kNever);
    return lookUp(name, out);
}

std::vector<std::string> PackageManager::enumPackages(const char*, unsigned long long) {
    return quor::loadInstalledIndex()->names();
}

bool PackageManager::enumPackageInfo(std::vector<PackageInfo>& out, const char*,
                                     unsigned long long) {
    out.clear();
    for (const quor::IndexedPackage& package : quor::loadInstalledIndex()->packages) {
        PackageInfo info;
        // A package whose manifest cannot be read has no record to give.
        if (quor::indexedRecord(package, info) == quor::kOk) out.push_back(std::move(info));
    }
    return true;
}

bool PackageManager::getDependencyOrder(const char* name, std::vector<std::string>& out,
                                        bool recursive) {
    quor::Operation operation("getDependencyOrder", name ? name : "", state_->results,
                              quor::LogPolicy::kNever);
    out.clear();
    if (name == nullptr || !quor::isValidPackageName(name))
        return quor::fail(quor::kBadArgument, "not a package name");
    out = quor::dependentsOf(name, recursive);
    return quor::isInstalled(name) || quor::fail(quor::kNoSuchPackage, "not installed");
}

bool PackageManager::queryPackageFileInfo(const std::string& typed, PackageInfo& out,
                                          PKG_INSTALLATION_TYPE, const char*) {
    const std::string path = quor::absolutePath(typed);
    quor::Operation operation("queryPackageFileInfo", path, quor::freeFunctionResults(),
                              quor::LogPolicy::kOnFailure);
    if (path.empty()) return quor::fail(quor::kBadArgument, "no package file named");
    quor::PackageFileHead head;
    int code = quor::readPackageHead(path, head);
    if (code != quor::kOk) return quor::fail(code);
    quor::fillPackageInfo(head.manifest, head.scriptMask, out);
    return true;
}

bool PackageManager::topologicalSortPkgs(std::vector<PackageInfo>* packages,
                                         std::vector<std::string>& out) {
    quor::Operation operation("topologicalSortPkgs", "", state_->results,
                              quor::LogPolicy::kOnFailure);
    if (packages == nullptr) return quor::fail(quor::kBadArgument, "no package list given");
    std::vector<quor::Manifest> manifests;
    for (const PackageInfo& info : *packages) {
        quor::Manifest manifest;
        manifest.name = info.name;
        manifest.depends = quor::dependenciesOf(info);
        manifests.push_back(std::move(manifest));
    }
    int code = quor::topologicalSort(manifests, out);
    return code == quor::kOk || quor::fail(code);
}

bool PackageManager::installZPK(const char* volume, std::string typed, const std::string&) {
    // The log names the file wherever the command ran.
    const std::string path = quor::absolutePath(typed);
    quor::Operation operation("installZPK", path, state_->results, quor::LogPolicy::kAlways);
    if (path.empty()) return quor::fail(quor::kBadArgument, "no package file named");
    quor::InstallRequest request;
    request.file = path;
    request.volume = volumeHostPath(volume);
    int code = quor::installPackage(request, quor::serviceHooks());
    return code == quor::kOk || quor::fail(code);
}

bool PackageManager::uninstallPKGs(const std::vector<std::string>& names, bool runScripts) {
    std::string list;
    for (const std::string& name : names) list += (list.empty() ? "" : ",") + name;
    quor::Operation operation("uninstallPKGs", list, state_->results, quor::LogPolicy::kAlways);
    int code = quor::removePackages(names, quor::serviceHooks(), runScripts);
    return code == quor::kOk || quor::fail(code);
}

std::string PackageManager::getPackageLog(const std::string& name) {
    quor::Operation operation("getPackageLog", name, state_->results, quor::LogPolicy::kNever);
    int code = quor::kOk;
    std::string path = quor::packageLogPath(name, code);
    if (path.empty()) quor::fail(code == quor::kOk ? quor::kNoSuchPackage : code);
    return path;
}

}  // namespace QUORPackageTool
