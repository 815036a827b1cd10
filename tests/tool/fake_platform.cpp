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

// How the record shows an argument: texts quoted, null pointers as null,
// Raw words as given, an all-ones Selector as ~0.
struct Raw {
    std::string word;
};
struct Selector {
    unsigned long long value;
};
std::string show(const Raw& raw) {
    return raw.word;
}
std::string show(const char* value) {
    return value == nullptr ? "null" : "\"" + std::string(value) + "\"";
}
std::string show(const std::string& value) {
    return "\"" + value + "\"";
}
std::string show(bool value) {
    return value ? "true" : "false";
}
std::string show(Selector sel) {
    return sel.value == ~0ULL ? "~0" : std::to_string(sel.value);
}
std::string show(int value) {
    return std::to_string(value);
}
std::string show(unsigned long long value) {
    return std::to_string(value);
}
std::string show(const std::vector<std::string>& values) {
    std::string out = "[";
    for (std::size_t i = 0; i < values.size(); ++i) out += (i ? ", " : "") + show(values[i]);
    return out + "]";
}
std::string show(const std::vector<PackageInfo>* packages) {
    if (packages == nullptr) return "null";
    std::vector<std::string> names;
    for (const PackageInfo& p : *packages) names.push_back(p.name);
    return show(names);
}

// "operation(arg, arg, ...)".
template <class... Args>
std::string call(const std::string& operation, const Args&... args) {
    std::string out;
    ((out += (out.empty() ? "" : ", ") + show(args)), ...);
    return operation + "(" + out + ")";
}

// Records one call and throws when the test scripted a failure there.
void record(const std::string& operation, const std::string& line) {
    platform().calls.push_back(line);
    if (platform().throwIn == operation) throw std::runtime_error(platform().throwWhat);
}

bool answer(const std::string& operation) {
    return platform().failing.count(operation) == 0;
}

// Records a free function's call and gives its scripted answer.
template <class... Args>
bool ask(const std::string& operation, const Args&... args) {
    record(operation, call(operation, args...));
    return answer(operation);
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
using fake::Raw;
using fake::Selector;

namespace QUORPackageTool {

// The records are plain values; the fake shares their definition with our
// platform (lib/quorpkg/api/package_info.cpp).

struct PackageManager::State {
    int id = 0;
    bool initialised = false;

    std::string tag() const {
        return "m" + std::to_string(id) + (initialised ? "" : "(uninit)") + ".";
    }

    // Records a member call, named by this manager, and gives its scripted answer.
    template <class... Args>
    bool ask(const std::string& operation, const Args&... args) const {
        fake::record(operation, tag() + fake::call(operation, args...));
        return fake::answer(operation);
    }
};

PackageManager::PackageManager() : state_(std::make_unique<State>()) {
    state_->id = ++platform().managers;
    fake::record("PackageManager", "m" + std::to_string(state_->id) + ".PackageManager()");
}

PackageManager::~PackageManager() {
    platform().calls.push_back("m" + std::to_string(state_->id) + ".~PackageManager()");
}

bool PackageManager::init() {
    state_->initialised = state_->ask("init");
    return state_->initialised;
}

int PackageManager::getResult() {
    state_->ask("getResult");
    return platform().result;
}

namespace {
bool lookUp(const std::map<std::string, PackageInfo>& all, const std::string& name,
            PackageInfo& out) {
    const auto found = all.find(name);
    if (found == all.end()) return false;
    out = found->second;
    return true;
}
}  // namespace

bool PackageManager::getPackageInfo(const std::string& name, PackageInfo& out, const char* volume,
                                    unsigned long long sel) {
    state_->ask("getPackageInfo", name, Raw{"info"}, volume, Selector{sel});
    return lookUp(platform().installed, name, out);
}

bool PackageManager::getInstallPackageInfo(const std::string& name, PackageInfo& out,
                                           const char* volume, unsigned long long sel) {
    fake::record("getInstallPackageInfo", fake::call("PackageManager::getInstallPackageInfo", name,
                                                     Raw{"info"}, volume, Selector{sel}));
    return lookUp(platform().installed, name, out);
}

std::vector<std::string> PackageManager::enumPackages(const char* volume, unsigned long long sel) {
    state_->ask("enumPackages", volume, Selector{sel});
    return platform().packageNames;
}

bool PackageManager::enumPackageInfo(std::vector<PackageInfo>& out, const char* volume,
                                     unsigned long long sel) {
    const bool ok = state_->ask("enumPackageInfo", Raw{"list"}, volume, Selector{sel});
    out = platform().packageInfos;
    return ok;
}

bool PackageManager::getDependencyOrder(const char* name, std::vector<std::string>& out,
                                        bool recursive) {
    const bool ok = state_->ask("getDependencyOrder", name, Raw{"names"}, recursive);
    out = platform().dependencyOrder;
    return ok;
}

bool PackageManager::queryPackageFileInfo(const std::string& path, PackageInfo& out,
                                          PKG_INSTALLATION_TYPE type, const char* volume) {
    fake::record("queryPackageFileInfo", fake::call("PackageManager::queryPackageFileInfo", path,
                                                    Raw{"info"}, static_cast<int>(type), volume));
    return lookUp(platform().packageFiles, path, out);
}

bool PackageManager::topologicalSortPkgs(std::vector<PackageInfo>* packages,
                                         std::vector<std::string>& out) {
    if (!state_->ask("topologicalSortPkgs", packages, out)) return false;
    out = platform().sortedNames;
    return true;
}

bool PackageManager::installZPK(const char* volume, std::string path, const std::string& user) {
    return state_->ask("installZPK", volume, path, user);
}

bool PackageManager::uninstallPKGs(const std::vector<std::string>& names, bool runScripts) {
    return state_->ask("uninstallPKGs", names, runScripts);
}

bool PackageManager::serviceControl(PKG_INSTALLATION_TYPE type, const std::string& name, bool start,
                                    const char* event, const char* param,
                                    std::vector<std::string>* affected, bool withDependencies,
                                    bool runScripts) {
    return state_->ask("serviceControl", static_cast<int>(type), name, start, event, param,
                       Raw{affected ? "list" : "null"}, withDependencies, runScripts);
}

bool PackageManager::serviceControlRestart(const std::string& name) {
    return state_->ask("serviceControlRestart", name);
}

bool PackageManager::serviceControlOnOffALL(bool start, bool enabledOnly, const char* event,
                                            const char* param) {
    return state_->ask("serviceControlOnOffALL", start, enabledOnly, event, param);
}

bool PackageManager::serviceControlByService(const std::set<std::string>& services, bool start,
                                             bool includeDisabled) {
    return state_->ask("serviceControlByService",
                       std::vector<std::string>(services.begin(), services.end()), start,
                       includeDisabled);
}

bool PackageManager::getServiceStatus(const std::string& name, bool& running, bool checkScript,
                                      bool checkActive) {
    const bool ok = state_->ask("getServiceStatus", name, Raw{"running"}, checkScript, checkActive);
    running = platform().running;
    return ok;
}

bool PackageManager::getServiceStatus(const std::string& name, bool& running, bool checkScript) {
    const bool ok = state_->ask("getServiceStatus", name, Raw{"running"}, checkScript);
    running = platform().running;
    return ok;
}

bool PackageManager::isServiceEnabled(const char* name) {
    return state_->ask("isServiceEnabled", name);
}

void PackageManager::setSkipUpgradeCheck(bool skip) {
    state_->ask("setSkipUpgradeCheck", skip);
}

std::string PackageManager::getPackageLog(const std::string& name) {
    state_->ask("getPackageLog", name);
    return platform().logPath;
}

bool PMSCheckUpgrade(bool fresh, const char* user, const char* lang,
                     std::vector<PackageInfo>* out) {
    const bool ok = fake::ask("PMSCheckUpgrade", fresh, user, lang, Raw{out ? "list" : "null"});
    if (out != nullptr) *out = platform().upgrades;
    return ok;
}

bool PMSCheckUpgrade(bool fresh, const char* user, const char* lang, std::vector<PackageInfo>* out,
                     bool upgradeAll, bool limitOnly) {
    return fake::ask("PMSCheckUpgrade", fresh, user, lang, Raw{out ? "list" : "null"}, upgradeAll,
                     limitOnly);
}

bool PMSGetTmpDir(unsigned long long size, std::string& out) {
    if (!fake::ask("PMSGetTmpDir", size, Raw{"out"})) return false;
    out = platform().tmpDir;
    return true;
}

bool PMSGetPackageDefVol(std::string& out) {
    if (!fake::ask("PMSGetPackageDefVol", Raw{"out"})) return false;
    out = platform().defaultVolume;
    return true;
}

bool PMSGetListTmpDir(std::string& out) {
    const bool ok = fake::ask("PMSGetListTmpDir", Raw{"out"});
    out = platform().listTmpDir;
    return ok;
}

int PMSThirdPartyCheckLimit(const char* name, const char* version) {
    fake::ask("PMSThirdPartyCheckLimit", name, version);
    const auto found = platform().limits.find(name ? name : "");
    return found == platform().limits.end() ? 0 : found->second;
}

bool NotifyStoppedByFirmware(const std::string& displayName) {
    return fake::ask("NotifyStoppedByFirmware", displayName);
}

}  // namespace QUORPackageTool

namespace QUORPackageServer {

bool PMSCheckUpgrade(bool fresh, const char* name, const char* lang) {
    return fake::ask("QUORPackageServer::PMSCheckUpgrade", fresh, name, lang);
}

bool GetPackageInfoFromServer(const std::string& name, Json::Value& entry, bool fresh,
                              const std::string& lang, bool beta) {
    if (!fake::ask("GetPackageInfoFromServer", name, Raw{"entry"}, fresh, lang, beta)) return false;
    entry = platform().serverEntry;
    return true;
}

bool BackgroundInstall(const char* user, const char* volume, const char* name,
                       const char* displayName, const char* version, bool noStart, const char* lang,
                       unsigned long long size, const char* link, const char* md5,
                       bool checkDependencies, bool beta) {
    return fake::ask("BackgroundInstall", user, volume, name, displayName, version, noStart, lang,
                     size, link, md5, checkDependencies, beta);
}

}  // namespace QUORPackageServer

int QLIBCFileExist(const char* path) {
    fake::ask("QLIBCFileExist", path);
    return platform().existingPaths.count(path ? path : "") != 0 ? 1 : 0;
}

// A real, simple key="value" rewrite, so that the hash reset can be checked
// on real files; files named in unwritableFiles fail untouched.
int QLIBCFileSetKeyValue(const char* file, const char* key, const char* value, int flags) {
    fake::ask("QLIBCFileSetKeyValue", file, key, value, flags);
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
    fake::ask("VolumePathParseEx", text);
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
    return fake::ask("QUORHWExternalControl", command, length,
                     fake::Raw{"[" + bytes + "]" + (dirty ? " dirty" : "")})
               ? 0
               : -1;
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
