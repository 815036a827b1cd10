// notify_stopped_by_firmware: report packages this firmware will not run.
#include <cstdio>
#include <vector>

#include "commands.h"

namespace quorpkg {

using QUORPackageTool::PackageInfo;

// Runs on a private manager that is never initialised: the listing works on
// a fresh one, and this command must not depend on the shared manager's state.
int notify_stopped_by_firmware(int /*argc*/, char** /*argv*/, PackageManager* /*manager*/) {
    std::vector<PackageInfo> packages;
    PackageManager ownManager;
    ownManager.enumPackageInfo(packages, nullptr, kAllPackages);
    for (const PackageInfo& listed : packages) {
        const PackageInfo package(listed);
        const int limit =
            QUORPackageTool::PMSThirdPartyCheckLimit(package.name.c_str(), package.version.c_str());
        if (limit != 0) {
            std::printf("quorpkg: cannot start %s (ver=%s) in this firmware (status=%d).\n",
                        package.name.c_str(), package.version.c_str(), limit);
            // Users know the package by its display name.
            QUORPackageTool::NotifyStoppedByFirmware(package.displayname);
        }
    }
    return 0;
}

}  // namespace quorpkg
