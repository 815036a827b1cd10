// PackageManager: set-up, package records, and the changes of the package
// store (install, uninstall). Selector and volume arguments of the lookups
// are accepted and ignored: every installed package is visible everywhere.
#include <system_error>

#include "base/layout.h"
#include "base/result.h"
#include "base/system_root.h"
#include "manager_state.h"
#include "pkg_manager.h"
#include "quorpkg/package/package_file.h"
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
    if (!quor::isValidPackageName(name)) return quor::fail(quor::kBadArgument);
    // Right after a listing (list asks for each listed package), the index
    // it read answers while the store has not changed.
    int code = quor::kNoSuchPackage;
    if (auto index = quor::currentInstalledIndex()) {
        if (const quor::IndexedPackage* package = index->find(name))
            code = quor::indexedInfo(*package, out);
    } else {
        code = quor::readInstalledInfo(name, out);
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
    std::error_code ec;
    for (const fs::path& dir : quor::layout::requiredDirs()) {
        fs::create_directories(dir, ec);
        if (ec) return quor::fail(quor::kStoreUnusable);
    }
    // A change that was cut short is finished or undone now, unless some
    // process is in the middle of one (its own recovery comes first anyway).
    if (!quor::pendingJournals().empty()) {
        if (auto lock = quor::StoreLock::tryAcquireFresh()) quor::recoverUnfinishedChange();
    }
    state_->initialized = true;
    return true;
}

int PackageManager::getResult() {
    return quor::lastResult();
}

bool PackageManager::getPackageInfo(const std::string& name, PackageInfo& out, const char*,
                                    unsigned long long) {
    return lookUp(name, out);
}

bool PackageManager::getInstallPackageInfo(const std::string& name, PackageInfo& out, const char*,
                                           unsigned long long) {
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
        if (quor::indexedInfo(package, info) == quor::kOk) out.push_back(std::move(info));
    }
    return true;
}

bool PackageManager::getDependencyOrder(const char* name, std::vector<std::string>& out,
                                        bool recursive) {
    out.clear();
    if (name == nullptr || !quor::isValidPackageName(name)) return quor::fail(quor::kBadArgument);
    out = quor::dependentsOf(name, recursive);
    return quor::isInstalled(name) || quor::fail(quor::kNoSuchPackage);
}

bool PackageManager::queryPackageFileInfo(const std::string& path, PackageInfo& out,
                                          PKG_INSTALLATION_TYPE, const char*) {
    if (path.empty()) return quor::fail(quor::kBadArgument);
    quor::PackageFileHead head;
    int code = quor::readPackageHead(path, head);
    if (code != quor::kOk) return quor::fail(code);
    quor::fillPackageInfo(head.manifest, head.scriptMask, out);
    return true;
}

bool PackageManager::topologicalSortPkgs(std::vector<PackageInfo>* packages,
                                         std::vector<std::string>& out) {
    if (packages == nullptr) return quor::fail(quor::kBadArgument);
    int code = quor::topologicalSort(*packages, out);
    return code == quor::kOk || quor::fail(code);
}

bool PackageManager::installZPK(const char* volume, std::string path, const std::string&) {
    if (path.empty()) return quor::fail(quor::kBadArgument);
    quor::InstallRequest request;
    request.file = path;
    request.volume = volumeHostPath(volume);
    int code = quor::installPackage(request);
    return code == quor::kOk || quor::fail(code);
}

bool PackageManager::uninstallPKGs(const std::vector<std::string>& names, bool runScripts) {
    int code = quor::removePackages(names, runScripts);
    return code == quor::kOk || quor::fail(code);
}

std::string PackageManager::getPackageLog(const std::string& name) {
    int code = quor::kOk;
    std::string path = quor::packageLogPath(name, code);
    if (path.empty()) quor::fail(code == quor::kOk ? quor::kNoSuchPackage : code);
    return path;
}

}  // namespace QUORPackageTool
