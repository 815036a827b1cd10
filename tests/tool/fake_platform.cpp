#include "fake_platform.h"

#include <cstdarg>
#include <cstdio>
#include <cstring>
#include <fstream>
#include <sstream>
#include <stdexcept>

#include "hw_control.h"
#include "pkg_server.h"
#include "quor_core.h"

namespace fake {
namespace {

std::string text(const char* value) {
    return value == nullptr ? "null" : "\"" + std::string(value) + "\"";
}
std::string text(const std::string& value) {
    return "\"" + value + "\"";
}
std::string flag(bool value) {
    return value ? "true" : "false";
}
std::string selector(unsigned long long value) {
    return value == ~0ULL ? "~0" : std::to_string(value);
}
std::string texts(const std::vector<std::string>& values) {
    std::string out = "[";
    for (std::size_t i = 0; i < values.size(); ++i) out += (i ? ", " : "") + text(values[i]);
    return out + "]";
}
std::string names(const std::vector<PackageInfo>& packages) {
    std::vector<std::string> all;
    for (const PackageInfo& p : packages) all.push_back(p.name);
    return texts(all);
}

// Records one call and throws when the test scripted a failure there.
void record(const std::string& operation, const std::string& line) {
    platform().calls.push_back(line);
    if (platform().throwIn == operation) throw std::runtime_error(platform().throwWhat);
}

bool answer(const std::string& operation) {
    return platform().failing.count(operation) == 0;
}

std::string baseName(const std::string& path) {
    const std::size_t slash = path.rfind('/');
    return slash == std::string::npos ? path : path.substr(slash + 1);
}

}  // namespace

Platform& platform() {
    static Platform state;
    return state;
}

void reset() {
    platform() = Platform{};
}

PackageInfo package(const std::string& name, const std::string& version,
                    const std::string& description) {
    PackageInfo info;
    info.name = name;
    info.version = version;
    info.description = description;
    return info;
}

}  // namespace fake

using fake::platform;

namespace QUORPackageTool {

// The records are plain values; the fake shares their definition with our
// platform (lib/quorpkg/api/package_info.cpp).

struct PackageManager::State {
    int id = 0;
    bool initialised = false;

    std::string tag() const {
        return "m" + std::to_string(id) + (initialised ? "" : "(uninit)") + ".";
    }
};

namespace {
std::string member(const PackageManager::State& state, const std::string& call) {
    return state.tag() + call;
}
}  // namespace

PackageManager::PackageManager() : state_(std::make_unique<State>()) {
    state_->id = ++platform().managers;
    fake::record("PackageManager", "m" + std::to_string(state_->id) + ".PackageManager()");
}

PackageManager::~PackageManager() {
    platform().calls.push_back("m" + std::to_string(state_->id) + ".~PackageManager()");
}

bool PackageManager::init() {
    fake::record("init", member(*state_, "init()"));
    state_->initialised = fake::answer("init");
    return state_->initialised;
}

int PackageManager::getResult() {
    fake::record("getResult", member(*state_, "getResult()"));
    return platform().result;
}

namespace {
bool lookUp(const std::string& name, PackageInfo& out) {
    const auto found = platform().installed.find(name);
    if (found == platform().installed.end()) return false;
    out = found->second;
    return true;
}
}  // namespace

bool PackageManager::getPackageInfo(const std::string& name, PackageInfo& out, const char* volume,
                                    unsigned long long sel) {
    fake::record("getPackageInfo",
                 member(*state_, "getPackageInfo(" + fake::text(name) + ", info, " +
                                     fake::text(volume) + ", " + fake::selector(sel) + ")"));
    return lookUp(name, out);
}

bool PackageManager::getInstallPackageInfo(const std::string& name, PackageInfo& out,
                                           const char* volume, unsigned long long sel) {
    fake::record("getInstallPackageInfo", "PackageManager::getInstallPackageInfo(" +
                                              fake::text(name) + ", info, " + fake::text(volume) +
                                              ", " + fake::selector(sel) + ")");
    return lookUp(name, out);
}

std::vector<std::string> PackageManager::enumPackages(const char* volume, unsigned long long sel) {
    fake::record("enumPackages", member(*state_, "enumPackages(" + fake::text(volume) + ", " +
                                                     fake::selector(sel) + ")"));
    return platform().packageNames;
}

bool PackageManager::enumPackageInfo(std::vector<PackageInfo>& out, const char* volume,
                                     unsigned long long sel) {
    fake::record("enumPackageInfo", member(*state_, "enumPackageInfo(list, " + fake::text(volume) +
                                                        ", " + fake::selector(sel) + ")"));
    out = platform().packageInfos;
    return fake::answer("enumPackageInfo");
}

bool PackageManager::getDependencyOrder(const char* name, std::vector<std::string>& out,
                                        bool recursive) {
    fake::record("getDependencyOrder",
                 member(*state_, "getDependencyOrder(" + fake::text(name) + ", names, " +
                                     fake::flag(recursive) + ")"));
    out = platform().dependencyOrder;
    return fake::answer("getDependencyOrder");
}

bool PackageManager::queryPackageFileInfo(const std::string& path, PackageInfo& out,
                                          PKG_INSTALLATION_TYPE type, const char* volume) {
    fake::record("queryPackageFileInfo", "PackageManager::queryPackageFileInfo(" +
                                             fake::text(path) + ", info, " + std::to_string(type) +
                                             ", " + fake::text(volume) + ")");
    const auto found = platform().packageFiles.find(path);
    if (found == platform().packageFiles.end()) return false;
    out = found->second;
    return true;
}

bool PackageManager::topologicalSortPkgs(std::vector<PackageInfo>* packages,
                                         std::vector<std::string>& out) {
    fake::record("topologicalSortPkgs",
                 member(*state_, "topologicalSortPkgs(" +
                                     (packages ? fake::names(*packages) : std::string("null")) +
                                     ", " + fake::texts(out) + ")"));
    if (!fake::answer("topologicalSortPkgs")) return false;
    out = platform().sortedNames;
    return true;
}

bool PackageManager::installZPK(const char* volume, std::string path, const std::string& user) {
    fake::record("installZPK",
                 member(*state_, "installZPK(" + fake::text(volume) + ", " + fake::text(path) +
                                     ", " + fake::text(user) + ")"));
    return fake::answer("installZPK");
}

bool PackageManager::uninstallPKGs(const std::vector<std::string>& names, bool runScripts) {
    fake::record("uninstallPKGs", member(*state_, "uninstallPKGs(" + fake::texts(names) + ", " +
                                                      fake::flag(runScripts) + ")"));
    return fake::answer("uninstallPKGs");
}

bool PackageManager::serviceControl(PKG_INSTALLATION_TYPE type, const std::string& name, bool start,
                                    const char* event, const char* param,
                                    std::vector<std::string>* affected, bool withDependencies,
                                    bool runScripts) {
    fake::record(
        "serviceControl",
        member(*state_, "serviceControl(" + std::to_string(type) + ", " + fake::text(name) + ", " +
                            fake::flag(start) + ", " + fake::text(event) + ", " +
                            fake::text(param) + ", " + (affected ? "list" : "null") + ", " +
                            fake::flag(withDependencies) + ", " + fake::flag(runScripts) + ")"));
    return fake::answer("serviceControl");
}

bool PackageManager::serviceControlRestart(const std::string& name) {
    fake::record("serviceControlRestart",
                 member(*state_, "serviceControlRestart(" + fake::text(name) + ")"));
    return fake::answer("serviceControlRestart");
}

bool PackageManager::serviceControlOnOffALL(bool start, bool enabledOnly, const char* event,
                                            const char* param) {
    fake::record("serviceControlOnOffALL",
                 member(*state_, "serviceControlOnOffALL(" + fake::flag(start) + ", " +
                                     fake::flag(enabledOnly) + ", " + fake::text(event) + ", " +
                                     fake::text(param) + ")"));
    return fake::answer("serviceControlOnOffALL");
}

bool PackageManager::serviceControlByService(const std::set<std::string>& services, bool start,
                                             bool includeDisabled) {
    fake::record(
        "serviceControlByService",
        member(*state_,
               "serviceControlByService(" +
                   fake::texts(std::vector<std::string>(services.begin(), services.end())) + ", " +
                   fake::flag(start) + ", " + fake::flag(includeDisabled) + ")"));
    return fake::answer("serviceControlByService");
}

bool PackageManager::getServiceStatus(const std::string& name, bool& running, bool checkScript,
                                      bool checkActive) {
    fake::record("getServiceStatus", member(*state_, "getServiceStatus(" + fake::text(name) +
                                                         ", running, " + fake::flag(checkScript) +
                                                         ", " + fake::flag(checkActive) + ")"));
    running = platform().running;
    return fake::answer("getServiceStatus");
}

bool PackageManager::getServiceStatus(const std::string& name, bool& running, bool checkScript) {
    fake::record("getServiceStatus",
                 member(*state_, "getServiceStatus(" + fake::text(name) + ", running, " +
                                     fake::flag(checkScript) + ")"));
    running = platform().running;
    return fake::answer("getServiceStatus");
}

bool PackageManager::isServiceEnabled(const char* name) {
    fake::record("isServiceEnabled", member(*state_, "isServiceEnabled(" + fake::text(name) + ")"));
    return fake::answer("isServiceEnabled");
}

void PackageManager::setSkipUpgradeCheck(bool skip) {
    fake::record("setSkipUpgradeCheck",
                 member(*state_, "setSkipUpgradeCheck(" + fake::flag(skip) + ")"));
}

std::string PackageManager::getPackageLog(const std::string& name) {
    fake::record("getPackageLog", member(*state_, "getPackageLog(" + fake::text(name) + ")"));
    return platform().logPath;
}

bool PMSCheckUpgrade(bool fresh, const char* user, const char* lang,
                     std::vector<PackageInfo>* out) {
    fake::record("PMSCheckUpgrade", "PMSCheckUpgrade(" + fake::flag(fresh) + ", " +
                                        fake::text(user) + ", " + fake::text(lang) + ", " +
                                        (out ? "list" : "null") + ")");
    if (out != nullptr) *out = platform().upgrades;
    return fake::answer("PMSCheckUpgrade");
}

bool PMSCheckUpgrade(bool fresh, const char* user, const char* lang, std::vector<PackageInfo>* out,
                     bool upgradeAll, bool limitOnly) {
    fake::record("PMSCheckUpgrade", "PMSCheckUpgrade(" + fake::flag(fresh) + ", " +
                                        fake::text(user) + ", " + fake::text(lang) + ", " +
                                        (out ? "list" : "null") + ", " + fake::flag(upgradeAll) +
                                        ", " + fake::flag(limitOnly) + ")");
    return fake::answer("PMSCheckUpgrade");
}

bool PMSGetTmpDir(unsigned long long size, std::string& out) {
    fake::record("PMSGetTmpDir", "PMSGetTmpDir(" + std::to_string(size) + ", out)");
    if (!fake::answer("PMSGetTmpDir")) return false;
    out = platform().tmpDir;
    return true;
}

bool PMSGetPackageDefVol(std::string& out) {
    fake::record("PMSGetPackageDefVol", "PMSGetPackageDefVol(out)");
    if (!fake::answer("PMSGetPackageDefVol")) return false;
    out = platform().defaultVolume;
    return true;
}

bool PMSGetListTmpDir(std::string& out) {
    fake::record("PMSGetListTmpDir", "PMSGetListTmpDir(out)");
    out = platform().listTmpDir;
    return fake::answer("PMSGetListTmpDir");
}

int PMSThirdPartyCheckLimit(const char* name, const char* version) {
    fake::record("PMSThirdPartyCheckLimit",
                 "PMSThirdPartyCheckLimit(" + fake::text(name) + ", " + fake::text(version) + ")");
    const auto found = platform().limits.find(name ? name : "");
    return found == platform().limits.end() ? 0 : found->second;
}

bool NotifyStoppedByFirmware(const std::string& displayName) {
    fake::record("NotifyStoppedByFirmware",
                 "NotifyStoppedByFirmware(" + fake::text(displayName) + ")");
    return fake::answer("NotifyStoppedByFirmware");
}

}  // namespace QUORPackageTool

namespace QUORPackageServer {

bool PMSCheckUpgrade(bool fresh, const char* name, const char* lang) {
    fake::record("QUORPackageServer::PMSCheckUpgrade",
                 "QUORPackageServer::PMSCheckUpgrade(" + fake::flag(fresh) + ", " +
                     fake::text(name) + ", " + fake::text(lang) + ")");
    return fake::answer("QUORPackageServer::PMSCheckUpgrade");
}

bool GetPackageInfoFromServer(const std::string& name, Json::Value& entry, bool fresh,
                              const std::string& lang, bool beta) {
    fake::record("GetPackageInfoFromServer", "GetPackageInfoFromServer(" + fake::text(name) +
                                                 ", entry, " + fake::flag(fresh) + ", " +
                                                 fake::text(lang) + ", " + fake::flag(beta) + ")");
    if (!fake::answer("GetPackageInfoFromServer")) return false;
    entry = platform().serverEntry;
    return true;
}

bool BackgroundInstall(const char* user, const char* volume, const char* name,
                       const char* displayName, const char* version, bool noStart, const char* lang,
                       unsigned long long size, const char* link, const char* md5,
                       bool checkDependencies, bool beta) {
    fake::record("BackgroundInstall",
                 "BackgroundInstall(" + fake::text(user) + ", " + fake::text(volume) + ", " +
                     fake::text(name) + ", " + fake::text(displayName) + ", " +
                     fake::text(version) + ", " + fake::flag(noStart) + ", " + fake::text(lang) +
                     ", " + std::to_string(size) + ", " + fake::text(link) + ", " +
                     fake::text(md5) + ", " + fake::flag(checkDependencies) + ", " +
                     fake::flag(beta) + ")");
    return fake::answer("BackgroundInstall");
}

}  // namespace QUORPackageServer

int QLIBCFileExist(const char* path) {
    fake::record("QLIBCFileExist", "QLIBCFileExist(" + fake::text(path) + ")");
    return platform().existingPaths.count(path ? path : "") != 0 ? 1 : 0;
}

// A real, simple key="value" rewrite, so that the hash reset can be checked
// on real files; files named in unwritableFiles fail untouched.
int QLIBCFileSetKeyValue(const char* file, const char* key, const char* value, int flags) {
    fake::record("QLIBCFileSetKeyValue", "QLIBCFileSetKeyValue(" + fake::text(file) + ", " +
                                             fake::text(key) + ", " + fake::text(value) + ", " +
                                             std::to_string(flags) + ")");
    if (platform().unwritableFiles.count(fake::baseName(file)) != 0) return -1;
    std::ifstream in(file);
    if (!in) return -1;
    std::ostringstream rewritten;
    const std::string prefix = std::string(key) + "=";
    const std::string line_value = prefix + "\"" + value + "\"";
    bool replaced = false;
    for (std::string line; std::getline(in, line);) {
        if (line.rfind(prefix, 0) == 0) {
            line = line_value;
            replaced = true;
        }
        rewritten << line << '\n';
    }
    if (!replaced) rewritten << line_value << '\n';
    in.close();
    std::ofstream out(file, std::ios::trunc);
    out << rewritten.str();
    return out ? 1 : -1;
}

int VolumePathParseEx(const char* text, VOLUME_PATH_INFO* info) {
    fake::record("VolumePathParseEx", "VolumePathParseEx(" + fake::text(text) + ")");
    if (platform().volumeParse < 0) return platform().volumeParse;
    std::snprintf(info->path, sizeof info->path, "%s", platform().volumePath.c_str());
    return platform().volumeParse;
}

// Shows the buffer's text as byte values; the bytes after its terminator
// must all be zero, else the line says so.
int QUORHWExternalControl(int command, int length, const char* buffer) {
    std::string bytes;
    int i = 0;
    for (; i < length && buffer[i] != '\0'; ++i) {
        bytes += (bytes.empty() ? "" : " ") + std::to_string(static_cast<unsigned char>(buffer[i]));
    }
    bool dirty = false;
    for (; i < length; ++i) dirty = dirty || buffer[i] != '\0';
    fake::record("QUORHWExternalControl", "QUORHWExternalControl(" + std::to_string(command) +
                                              ", " + std::to_string(length) + ", [" + bytes + "]" +
                                              (dirty ? " dirty" : "") + ")");
    return fake::answer("QUORHWExternalControl") ? 0 : -1;
}

// The tool's objects are linked with --wrap for these, so that tests see the
// system-log lines and the removed paths instead of the system doing it.
extern "C" {

int __real_unlink(const char* path);

int __wrap_unlink(const char* path) {
    if (!platform().capturing) return __real_unlink(path);
    platform().unlinked.push_back(path ? path : "(null)");
    return platform().unlinkResult;
}

static void recordSyslog(int priority, const char* format, va_list args) {
    char line[4096];
    std::vsnprintf(line, sizeof line, format, args);
    platform().syslogLines.emplace_back(priority, line);
}

void __wrap_syslog(int priority, const char* format, ...) {
    va_list args;
    va_start(args, format);
    recordSyslog(priority, format, args);
    va_end(args);
}

void __wrap___syslog_chk(int priority, int /*flag*/, const char* format, ...) {
    va_list args;
    va_start(args, format);
    recordSyslog(priority, format, args);
    va_end(args);
}

}  // extern "C"
