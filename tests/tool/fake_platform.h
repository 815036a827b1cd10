// A scripted stand-in for the package-manager, core and hardware-control
// libraries, for the tool's own tests. Every call is recorded, in order, as
// one line such as
//   m1.serviceControl(8, "foo", true, null, null, null, true, true)
// where texts are quoted, null pointers print as null, an all-ones selector
// prints as ~0 and a member call names its manager (m1 is the first one
// constructed in a test; "(uninit)" marks a manager whose init() has not
// succeeded).
#pragma once

#include <json/value.h>

#include <map>
#include <set>
#include <string>
#include <utility>
#include <vector>

#include "pkg_manager.h"

namespace fake {

using QUORPackageTool::PackageInfo;

// Tests script it with designated initialisers; every member has an
// initialiser so that the ones left out need no mention.
struct Platform {
    // --- Scripted answers -------------------------------------------------
    // Names of bool operations that answer false (all others answer true).
    std::set<std::string> failing{};
    int result = 0;        // what getResult() answers
    bool running = false;  // what getServiceStatus writes
    // Installed packages by name (getPackageInfo, getInstallPackageInfo).
    std::map<std::string, PackageInfo> installed{};
    // Package files by path (queryPackageFileInfo).
    std::map<std::string, PackageInfo> packageFiles{};
    std::vector<std::string> packageNames{};     // enumPackages
    std::vector<std::string> dependencyOrder{};  // getDependencyOrder
    std::vector<PackageInfo> packageInfos{};     // enumPackageInfo
    std::vector<std::string> sortedNames{};      // topologicalSortPkgs
    std::vector<PackageInfo> upgrades{};         // the listing PMSCheckUpgrade
    std::string logPath{};                       // getPackageLog
    Json::Value serverEntry{};                   // GetPackageInfoFromServer
    std::string defaultVolume{};                 // PMSGetPackageDefVol
    std::string tmpDir{};                        // PMSGetTmpDir
    std::string listTmpDir{};                    // PMSGetListTmpDir (written even on failure)
    int volumeParse = 0;                         // VolumePathParseEx result
    std::string volumePath{};                    // ... and the path it writes
    std::set<std::string> existingPaths{};       // QLIBCFileExist
    std::map<std::string, int> limits{};         // PMSThirdPartyCheckLimit by name, else 0
    std::set<std::string> unwritableFiles{};     // QLIBCFileSetKeyValue fails for these names
    int unlinkResult = 0;
    // Operation (name as recorded) that throws std::runtime_error("scripted
    // failure") right after it is recorded.
    std::string throwIn{};

    // --- What was asked ---------------------------------------------------
    std::vector<std::string> calls{};
    std::vector<std::pair<int, std::string>> syslogLines{};  // priority, text
    std::vector<std::string> unlinked{};
    bool capturing = false;  // unlink is recorded only while the tool runs
    int managers = 0;
};

// The platform's state for the current test.
Platform& platform();

// Forgets all scripts and records.
void reset();

// A record with the fields the tool reads.
PackageInfo package(const std::string& name, const std::string& version = "1.0",
                    const std::string& description = "");

}  // namespace fake
