// query: what a package file on the local file system holds.
#include <cstdio>
#include <string>

#include "commands.h"

namespace quorpkg {

using QUORPackageTool::PackageInfo;

int query(int argc, char** argv, PackageManager* manager) {
    if (badParameter(argc, argv)) return 1;
    PackageInfo info;
    const std::string path(argv[1]);
    if (!PackageManager::queryPackageFileInfo(
            path, info, QUORPackageTool::PKG_INSTALLATION_TYPE_NONE, nullptr)) {
        std::printf("Failed to query package %s, %d\n", argv[1], manager->getResult());
        return 1;
    }
    std::printf("Package name: %s\n", info.name.c_str());
    std::printf("Package version: %s\n", info.version.c_str());
    std::printf("Package description: %s\n", info.description.c_str());
    std::printf("Package displayname: %s\n", info.displayname.c_str());
    std::printf("Package maintainer: %s\n", info.maintainer.c_str());
    std::printf("Package manager URL: %s\n", info.manager_url.c_str());
    std::printf("Package script mask: %d\n", info.script_mask);
    if (info.admin_port > 0) {
        std::printf("Package admin_port: %d\n", info.admin_port);
    } else {
        std::printf("Package admin_port: none\n");
    }
    return 0;
}

}  // namespace quorpkg
