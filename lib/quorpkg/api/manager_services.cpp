// PackageManager's service operations and the firmware-limit free functions,
// on top of the platform's services (quorpkg/service).
#include <set>
#include <string>
#include <vector>

#include "base/operation.h"
#include "base/result.h"
#include "base/system_root.h"
#include "pkg_manager.h"
#include "quorpkg/api/manager_state.h"
#include "quorpkg/service/all_services.h"
#include "quorpkg/service/firmware_limits.h"
#include "quorpkg/service/notifications.h"
#include "quorpkg/service/services.h"
#include "quorpkg/store/store.h"

namespace QUORPackageTool {

namespace {

bool report(int code) {
    if (code == quor::kOk) return true;
    return quor::fail(code);
}

std::string joined(const std::set<std::string>& names) {
    std::string text;
    for (const std::string& name : names) text += (text.empty() ? "" : ",") + name;
    return text;
}

}  // namespace

// Type 8 also turns the package on (start only), type 16 turns it off (stop
// only), type 0 leaves the flag alone. `withDependencies`: start required
// packages first / stop dependents first; without it the package is acted
// on alone. `runScripts`: without it only the platform's records change.
// `affected`, when given, receives the packages started or stopped.
bool PackageManager::serviceControl(PKG_INSTALLATION_TYPE type, const std::string& name, bool start,
                                    const char* event, const char* param,
                                    std::vector<std::string>* affected, bool withDependencies,
                                    bool runScripts) {
    quor::Operation operation(start ? "serviceControl start" : "serviceControl stop", name,
                              state_->results, quor::LogPolicy::kAlways);
    quor::ServiceRequest request;
    request.type = type;
    request.event = event;
    request.param = param;
    request.withDependencies = withDependencies;
    request.runScripts = runScripts;
    request.affected = affected;
    // The firmware limit is the check that the installed version must be
    // upgraded before it may run; setSkipUpgradeCheck lifts it for starts
    // made through this manager.
    request.ignoreFirmwareLimit = state_ && state_->skipUpgradeCheck;
    return report(start ? quor::startPackage(name, request) : quor::stopPackage(name, request));
}

bool PackageManager::serviceControlRestart(const std::string& name) {
    quor::Operation operation("serviceControlRestart", name, state_->results,
                              quor::LogPolicy::kAlways);
    return report(quor::restartPackage(name));
}

// `enabledOnly`: start only the packages that are turned on (false: every
// installed one). A stop always takes every running package.
bool PackageManager::serviceControlOnOffALL(bool start, bool enabledOnly, const char* event,
                                            const char* param) {
    quor::Operation operation(
        start ? "serviceControlOnOffALL start" : "serviceControlOnOffALL stop", "", state_->results,
        quor::LogPolicy::kAlways);
    quor::BulkRequest request;
    request.start = start;
    request.enabledOnly = enabledOnly;
    request.event = event;
    request.param = param;
    return report(quor::controlAllPackages(request));
}

// `includeDisabled`: start also the packages that are turned off.
bool PackageManager::serviceControlByService(const std::set<std::string>& services, bool start,
                                             bool includeDisabled) {
    quor::Operation operation(
        start ? "serviceControlByService start" : "serviceControlByService stop", joined(services),
        state_->results, quor::LogPolicy::kAlways);
    quor::BulkRequest request;
    request.start = start;
    request.enabledOnly = !includeDisabled;
    return report(quor::controlPackagesByService(services, request));
}

// The result code is always set: 0 when running, else the status code.
// `checkScript`: ask the package's script (false: the active mark alone).
// `checkActive`: report a package that is marked active but not running as
// 310 rather than with the script's code.
bool PackageManager::getServiceStatus(const std::string& name, bool& running, bool checkScript,
                                      bool checkActive) {
    quor::Operation operation("getServiceStatus", name, state_->results, quor::LogPolicy::kNever);
    const int code =
        quor::packageStatus(name, {.askScript = checkScript, .reportActive = checkActive});
    running = code == quor::kOk;
    quor::setLastResult(code);
    return code != quor::kNoSuchPackage && code != quor::kBroken;
}

bool PackageManager::getServiceStatus(const std::string& name, bool& running, bool checkScript) {
    return getServiceStatus(name, running, checkScript, true);
}

// False with 255 when the package is not installed, 103 when it is but is
// turned off.
bool PackageManager::isServiceEnabled(const char* name) {
    quor::Operation operation("isServiceEnabled", name ? name : "", state_->results,
                              quor::LogPolicy::kNever);
    if (name == nullptr || !quor::isInstalled(name))
        return quor::fail(quor::kNoSuchPackage, "not installed");
    if (!quor::isEnabled(name)) return quor::fail(quor::kNotEnabled, "turned off");
    return true;
}

void PackageManager::setSkipUpgradeCheck(bool skip) {
    if (state_) state_->skipUpgradeCheck = skip;
}

int PMSThirdPartyCheckLimit(const char* name, const char* version) {
    if (name == nullptr || version == nullptr) return 0;
    return quor::firmwareLimitStatus(name, version);
}

bool NotifyStoppedByFirmware(const std::string& displayName) {
    quor::Operation operation("NotifyStoppedByFirmware", displayName, quor::freeFunctionResults(),
                              quor::LogPolicy::kAlways);
    // Called without init(): the root is checked here.
    if (!quor::rootExists())
        return quor::fail(quor::kStoreUnusable, quor::rootDir().string() + " does not exist");
    if (quor::appendNotification("stopped_by_firmware", displayName)) return true;
    return quor::fail(quor::kStoreUnusable, "cannot append to the notification spool");
}

}  // namespace QUORPackageTool
