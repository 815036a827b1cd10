// version: print an installed package's version, bare, for scripts.
#include <syslog.h>

#include <cstdio>
#include <string>

#include "commands.h"

namespace quorpkg {

// A failed lookup is silent on the terminal; the reason goes to the log.
int version(int argc, char** argv, PackageManager* /*manager*/) {
    if (badParameter(argc, argv)) return 1;
    QUORPackageTool::PackageInfo info;
    if (!PackageManager::getInstallPackageInfo(std::string(argv[1]), info, nullptr, kAllPackages)) {
        syslog(LOG_ERR, "%s:%d failed to get pkg info of app[%s]", sourceBaseName(__FILE__), 19,
               argv[1]);
        return 1;
    }
    std::printf("%s\n", info.version.c_str());
    return 0;
}

}  // namespace quorpkg
