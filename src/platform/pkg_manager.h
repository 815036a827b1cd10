// The package-manager library (libquorpkg): the package manager object, the
// package records and the free functions of namespace QUORPackageTool.
//
// Declarations only. Whichever implementation the build links (our open
// platform in lib/, or a test double) defines every function below, so no
// member here may be defined inline.
#pragma once

#include <json/value.h>

#include <cstdint>
#include <memory>
#include <set>
#include <string>
#include <utility>
#include <vector>

namespace QUORPackageTool {

// What serviceControl does to the package's enabled flag besides starting or
// stopping it, and what kind of read a package-file query is.
enum PKG_INSTALLATION_TYPE : int {
    PKG_INSTALLATION_TYPE_NONE = 0,     // leave the enabled flag alone
    PKG_INSTALLATION_TYPE_ENABLE = 8,   // start and turn on
    PKG_INSTALLATION_TYPE_DISABLE = 16  // stop and turn off
};

// Extension block of a PackageBasicInfo; copied, never read by the tool.
struct PackageBasicInfoExtra {
    PackageBasicInfoExtra();
    PackageBasicInfoExtra(const PackageBasicInfoExtra& other);
    PackageBasicInfoExtra& operator=(const PackageBasicInfoExtra& other);
    ~PackageBasicInfoExtra();

    std::vector<std::pair<std::string, std::string>> fields;
};

// A short package record: in our platform a dependency or conflict item,
// the package name in basic_text_a and its version constraint in basic_text_b.
struct PackageBasicInfo {
    PackageBasicInfo();
    PackageBasicInfo(const PackageBasicInfo& other);
    PackageBasicInfo& operator=(const PackageBasicInfo& other);
    ~PackageBasicInfo();

    std::string basic_text_a;
    std::string basic_text_b;
    int32_t number;
    bool flag;
    PackageBasicInfoExtra extra;
};

// Extension block of a PackageInfo: manifest keys that have no field of
// their own (firmware, arch, checksum, unknown keys), in manifest order.
struct PackageInfoExtra {
    PackageInfoExtra();
    PackageInfoExtra(const PackageInfoExtra& other);
    PackageInfoExtra& operator=(const PackageInfoExtra& other);
    ~PackageInfoExtra();

    std::vector<std::pair<std::string, std::string>> fields;
};

// The record of one package: installed, in a package file or offered by the
// package server. Field order is part of the interface.
struct PackageInfo {
    PackageInfo();
    PackageInfo(const PackageInfo& other);
    PackageInfo& operator=(const PackageInfo& other);
    ~PackageInfo();

    std::string name;
    std::string version;
    std::string description;
    std::string text_04;
    std::string maintainer;
    std::string text_06;
    std::string text_07;
    std::string text_08;
    std::string manager_url;
    std::string displayname;
    std::string text_11;
    std::string ui_dir;
    std::string text_13;
    std::string text_14;
    std::string text_15;
    std::string text_16;
    std::string text_17;
    std::string text_18;
    bool beta;
    bool flag_b;
    bool flag_c;
    std::string text_19;
    std::string text_20;
    std::vector<std::string> list_a;
    uint64_t word_a;
    uint64_t word_b;
    uint64_t word_c;
    uint64_t word_d;
    int32_t admin_port;
    int32_t script_mask;
    uint64_t word_e;
    uint64_t word_f;
    bool flag_d;
    bool flag_e;
    bool flag_f;
    bool flag_g;
    std::vector<std::string> list_b;
    std::vector<std::string> list_c;
    std::vector<std::string> list_d;
    uint64_t word_g;
    int32_t number_a;
    std::vector<PackageBasicInfo> basic_list_a;
    std::vector<PackageBasicInfo> basic_list_b;
    Json::Value json_a;
    uint64_t word_h;
    bool flag_h;
    bool flag_i;
    bool flag_j;
    std::string text_21;
    std::string text_22;
    uint64_t word_i;
    int32_t number_b;
    std::string text_23;
    PackageInfoExtra extra;
};

// One package manager per run. getResult() gives the code of the last failed
// operation; the implementation keeps its own state behind `state_`.
class PackageManager {
public:
    PackageManager();
    ~PackageManager();
    PackageManager(const PackageManager&) = delete;
    PackageManager& operator=(const PackageManager&) = delete;

    bool init();
    int getResult();

    bool getPackageInfo(const std::string& name, PackageInfo& out, const char* volume,
                        unsigned long long selector);
    static bool getInstallPackageInfo(const std::string& name, PackageInfo& out,
                                      const char* volume, unsigned long long selector);
    std::vector<std::string> enumPackages(const char* volume, unsigned long long selector);
    bool enumPackageInfo(std::vector<PackageInfo>& out, const char* volume,
                         unsigned long long selector);
    bool getDependencyOrder(const char* name, std::vector<std::string>& out, bool recursive);

    static bool queryPackageFileInfo(const std::string& path, PackageInfo& out,
                                     PKG_INSTALLATION_TYPE type, const char* volume);
    bool topologicalSortPkgs(std::vector<PackageInfo>* packages, std::vector<std::string>& out);

    bool installZPK(const char* volume, std::string path, const std::string& user);
    bool uninstallPKGs(const std::vector<std::string>& names, bool runScripts);

    bool serviceControl(PKG_INSTALLATION_TYPE type, const std::string& name, bool start,
                        const char* event, const char* param, std::vector<std::string>* affected,
                        bool withDependencies, bool runScripts);
    bool serviceControlRestart(const std::string& name);
    bool serviceControlOnOffALL(bool start, bool enabledOnly, const char* event,
                                const char* param);
    bool serviceControlByService(const std::set<std::string>& services, bool start,
                                 bool includeDisabled);

    bool getServiceStatus(const std::string& name, bool& running, bool checkScript,
                          bool checkActive);
    bool getServiceStatus(const std::string& name, bool& running, bool checkScript);
    bool isServiceEnabled(const char* name);
    void setSkipUpgradeCheck(bool skip);
    std::string getPackageLog(const std::string& name);

    struct State;

private:
    std::unique_ptr<State> state_;
};

// Upgrade check: with `out` the offered upgrades are listed, without it the
// platform acts on its auto-upgrade setting.
bool PMSCheckUpgrade(bool fresh, const char* user, const char* lang,
                     std::vector<PackageInfo>* out);
// Upgrade check that can also upgrade every upgradable package.
bool PMSCheckUpgrade(bool fresh, const char* user, const char* lang,
                     std::vector<PackageInfo>* out, bool upgradeAll, bool limitOnly);
bool PMSGetTmpDir(unsigned long long size, std::string& out);
bool PMSGetPackageDefVol(std::string& out);
bool PMSGetListTmpDir(std::string& out);
int PMSThirdPartyCheckLimit(const char* name, const char* version);
bool NotifyStoppedByFirmware(const std::string& displayName);

}  // namespace QUORPackageTool
