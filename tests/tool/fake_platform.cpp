#include "fake_platform.h"

#include <algorithm>
#include <cstdarg>
#include <cstdio>
#include <cstring>
#include <filesystem>
#include <fstream>
#include <stdexcept>

#include "hw_control.h"
#include "pkg_server.h"
#include "quor_core.h"

namespace fake {

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

namespace {

// How the record shows an argument: texts quoted, null pointers as null,
// Raw words as given.
struct Raw {
    std::string word;
};
std::string show(const Raw& raw) {
    return raw.word;
}
std::string show(const std::string& text) {
    return "\"" + text + "\"";
}
std::string show(const char* text) {
    return text == nullptr ? "null" : show(std::string(text));
}
std::string show(bool value) {
    return value ? "true" : "false";
}
std::string show(int value) {
    return std::to_string(value);
}
std::string show(unsigned long long value) {
    return std::to_string(value);
}
std::string show(const std::vector<std::string>& values) {
    std::string out;
    for (const std::string& value : values) out += (out.empty() ? "" : ", ") + show(value);
    return "[" + out + "]";
}
std::string show(const std::vector<PackageInfo>* packages) {
    if (packages == nullptr) return "null";
    std::vector<std::string> names;
    for (const PackageInfo& p : *packages) names.push_back(p.name);
    return show(names);
}

// An all-ones package selector shows as ~0.
Raw selector(unsigned long long value) {
    return {value == ~0ULL ? "~0" : std::to_string(value)};
}

// Records "<who>operation(arg, ...)", throws where the test scripted it and
// answers whether the operation succeeds.
template <class... Args>
bool ask(const std::string& who, const std::string& operation, const Args&... args) {
    std::string shown;
    ((shown += (shown.empty() ? "" : ", ") + show(args)), ...);
    platform().calls.push_back(who + operation + "(" + shown + ")");
    if (platform().throwIn == operation) throw std::runtime_error("scripted failure");
    return platform().failing.count(operation) == 0;
}

bool lookUp(const std::map<std::string, PackageInfo>& all, const std::string& key,
            PackageInfo& out) {
    const auto found = all.find(key);
    if (found != all.end()) out = found->second;
    return found != all.end();
}

}  // namespace
}  // namespace fake

using fake::platform;
using fake::Raw;
using fake::selector;

namespace QUORPackageTool {

// The records are plain values; the fake shares their definition with our
// platform (lib/quorpkg/api/package_info.cpp).

struct PackageManager::State {
    int id = ++platform().managers;
    bool initialised = false;

    std::string who() const { return "m" + std::to_string(id) + (initialised ? "." : "(uninit)."); }
    template <class... Args>
    bool ask(const std::string& operation, const Args&... args) const {
        return fake::ask(who(), operation, args...);
    }
};

PackageManager::PackageManager() : state_(std::make_unique<State>()) {
    fake::ask("m" + std::to_string(state_->id) + ".", "PackageManager");
}

PackageManager::~PackageManager() {
    platform().calls.push_back("m" + std::to_string(state_->id) + ".~PackageManager()");
}

bool PackageManager::init() {
    return state_->initialised = state_->ask("init");
}

int PackageManager::getResult() {
    state_->ask("getResult");
    return platform().result;
}

bool PackageManager::getPackageInfo(const std::string& name, PackageInfo& out, const char* volume,
                                    unsigned long long sel) {
    state_->ask("getPackageInfo", name, Raw{"info"}, volume, selector(sel));
    return fake::lookUp(platform().installed, name, out);
}

bool PackageManager::getInstallPackageInfo(const std::string& name, PackageInfo& out,
                                           const char* volume, unsigned long long sel) {
    fake::ask("PackageManager::", "getInstallPackageInfo", name, Raw{"info"}, volume,
              selector(sel));
    return fake::lookUp(platform().installed, name, out);
}

std::vector<std::string> PackageManager::enumPackages(const char* volume, unsigned long long sel) {
    state_->ask("enumPackages", volume, selector(sel));
    return platform().packageNames;
}

bool PackageManager::enumPackageInfo(std::vector<PackageInfo>& out, const char* volume,
                                     unsigned long long sel) {
    out = platform().packageInfos;
    return state_->ask("enumPackageInfo", Raw{"list"}, volume, selector(sel));
}

bool PackageManager::getDependencyOrder(const char* name, std::vector<std::string>& out,
                                        bool recursive) {
    out = platform().dependencyOrder;
    return state_->ask("getDependencyOrder", name, Raw{"names"}, recursive);
}

bool PackageManager::queryPackageFileInfo(const std::string& path, PackageInfo& out,
                                          PKG_INSTALLATION_TYPE type, const char* volume) {
    fake::ask("PackageManager::", "queryPackageFileInfo", path, Raw{"info"}, static_cast<int>(type),
              volume);
    return fake::lookUp(platform().packageFiles, path, out);
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
    running = platform().running;
    return state_->ask("getServiceStatus", name, Raw{"running"}, checkScript, checkActive);
}

bool PackageManager::getServiceStatus(const std::string& name, bool& running, bool checkScript) {
    running = platform().running;
    return state_->ask("getServiceStatus", name, Raw{"running"}, checkScript);
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
    if (out != nullptr) *out = platform().upgrades;
    return fake::ask("", "PMSCheckUpgrade", fresh, user, lang, Raw{out ? "list" : "null"});
}

bool PMSCheckUpgrade(bool fresh, const char* user, const char* lang, std::vector<PackageInfo>* out,
                     bool upgradeAll, bool limitOnly) {
    return fake::ask("", "PMSCheckUpgrade", fresh, user, lang, Raw{out ? "list" : "null"},
                     upgradeAll, limitOnly);
}

bool PMSGetTmpDir(unsigned long long size, std::string& out) {
    if (!fake::ask("", "PMSGetTmpDir", size, Raw{"out"})) return false;
    out = platform().tmpDir;
    return true;
}

bool PMSGetPackageDefVol(std::string& out) {
    if (!fake::ask("", "PMSGetPackageDefVol", Raw{"out"})) return false;
    out = platform().defaultVolume;
    return true;
}

bool PMSGetListTmpDir(std::string& out) {
    out = platform().listTmpDir;
    return fake::ask("", "PMSGetListTmpDir", Raw{"out"});
}

int PMSThirdPartyCheckLimit(const char* name, const char* version) {
    fake::ask("", "PMSThirdPartyCheckLimit", name, version);
    const auto found = platform().limits.find(name ? name : "");
    return found == platform().limits.end() ? 0 : found->second;
}

bool NotifyStoppedByFirmware(const std::string& displayName) {
    return fake::ask("", "NotifyStoppedByFirmware", displayName);
}

}  // namespace QUORPackageTool

namespace QUORPackageServer {

bool PMSCheckUpgrade(bool fresh, const char* name, const char* lang) {
    return fake::ask("", "QUORPackageServer::PMSCheckUpgrade", fresh, name, lang);
}

bool GetPackageInfoFromServer(const std::string& name, Json::Value& entry, bool fresh,
                              const std::string& lang, bool beta) {
    if (!fake::ask("", "GetPackageInfoFromServer", name, Raw{"entry"}, fresh, lang, beta)) {
        return false;
    }
    entry = platform().serverEntry;
    return true;
}

bool BackgroundInstall(const char* user, const char* volume, const char* name,
                       const char* displayName, const char* version, bool noStart, const char* lang,
                       unsigned long long size, const char* link, const char* md5,
                       bool checkDependencies, bool beta) {
    return fake::ask("", "BackgroundInstall", user, volume, name, displayName, version, noStart,
                     lang, size, link, md5, checkDependencies, beta);
}

}  // namespace QUORPackageServer

int QLIBCFileExist(const char* path) {
    fake::ask("", "QLIBCFileExist", path);
    return platform().existingPaths.count(path ? path : "") != 0 ? 1 : 0;
}

// A real, simple key="value" rewrite, so that the hash reset can be checked
// on real files; files named in unwritableFiles fail untouched.
int QLIBCFileSetKeyValue(const char* file, const char* key, const char* value, int flags) {
    fake::ask("", "QLIBCFileSetKeyValue", file, key, value, flags);
    std::ifstream in(file);
    if (!in || platform().unwritableFiles.count(std::filesystem::path(file).filename()) != 0) {
        return -1;
    }
    const std::string prefix = std::string(key) + "=", set = prefix + "\"" + value + "\"\n";
    std::string text;
    bool replaced = false;
    for (std::string line; std::getline(in, line);) {
        const bool match = line.rfind(prefix, 0) == 0;
        text += match ? set : line + "\n";
        replaced = replaced || match;
    }
    in.close();
    return std::ofstream(file, std::ios::trunc) << (replaced ? text : text + set) ? 1 : -1;
}

int VolumePathParseEx(const char* text, VOLUME_PATH_INFO* info) {
    fake::ask("", "VolumePathParseEx", text);
    if (platform().volumeParse >= 0) {
        std::snprintf(info->path, sizeof info->path, "%s", platform().volumePath.c_str());
    }
    return platform().volumeParse;
}

// Shows the buffer's text as byte values; the bytes after its terminator
// must all be zero, else the line says so.
int QUORHWExternalControl(int command, int length, const char* buffer) {
    const std::size_t used = strnlen(buffer, length);
    std::string bytes;
    for (std::size_t i = 0; i < used; ++i) {
        bytes += (i ? " " : "") + std::to_string(static_cast<unsigned char>(buffer[i]));
    }
    const bool dirty = std::any_of(buffer + used, buffer + length, [](char c) { return c != 0; });
    return fake::ask("", "QUORHWExternalControl", command, length,
                     Raw{"[" + bytes + "]" + (dirty ? " dirty" : "")})
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
