// pause: stop a turned-on package but leave it turned on.
#include <syslog.h>
#include <unistd.h>

#include <cstdio>
#include <cstring>
#include <string>

#include "commands.h"
#include "quor_core.h"

namespace quorpkg {

int pause(int argc, char** argv, PackageManager* manager) {
    if (badParameter(argc, argv)) return 1;
    const std::string name(argv[1]);
    QUORPackageTool::PackageInfo info;
    // Must be set before the lookup, which may already check for upgrades.
    if (argc != 2 && std::strcmp(argv[2], "skipupgradecheck") == 0) {
        manager->setSkipUpgradeCheck(true);
    }
    if (!manager->getPackageInfo(name, info, nullptr, kAllPackages)) {
        syslog(LOG_ERR, "%s:%d Fail to get package info of [%s]", sourceBaseName(__FILE__), 26,
               argv[1]);
        std::printf("Fail to get package info of [%s]\n", argv[1]);
        return 1;
    }
    // Both paths follow the name the library reports, not the word typed.
    const std::string enabledFlag = "/var/packages/" + info.name + "/enabled";
    const std::string webEntry = "/usr/quor/quorman/webman/3rdparty/" + info.name;
    // A package the user turned off stays untouched.
    if (QLIBCFileExist(enabledFlag.c_str()) != 0) {
        manager->serviceControl(QUORPackageTool::PKG_INSTALLATION_TYPE_NONE, info.name, false,
                                nullptr, nullptr, nullptr, true, true);
        // The web page goes even when the stop failed; resume never restores it.
        if (!info.ui_dir.empty()) unlink(webEntry.c_str());
    }
    return 0;
}

}  // namespace quorpkg
