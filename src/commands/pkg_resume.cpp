// resume: start a turned-on package without touching its enabled flag.
#include <syslog.h>

#include <cstdio>
#include <string>

#include "commands.h"
#include "quor_core.h"

namespace quorpkg {

int resume(int argc, char** argv, PackageManager* manager) {
    if (badParameter(argc, argv)) return 1;
    const std::string name(argv[1]);
    QUORPackageTool::PackageInfo info;
    if (!manager->getPackageInfo(name, info, nullptr, kAllPackages)) {
        syslog(LOG_ERR, "%s:%d Fail to get package info of [%s]", sourceBaseName(__FILE__), 22,
               argv[1]);
        std::printf("Fail to get package info of [%s]\n", argv[1]);
        return 1;
    }
    const std::string enabledFlag = "/var/packages/" + info.name + "/enabled";
    if (QLIBCFileExist(enabledFlag.c_str()) != 0) {
        manager->serviceControl(QUORPackageTool::PKG_INSTALLATION_TYPE_NONE, info.name, true,
                                nullptr, nullptr, nullptr, true, true);
    }
    return 0;
}

}  // namespace quorpkg
