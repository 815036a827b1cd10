// sort_zpk_by_dep_order: print package files back to front of the library's
// dependency order.
#include <algorithm>
#include <cstdio>
#include <map>
#include <string>
#include <vector>

#include "commands.h"

namespace quorpkg {

using QUORPackageTool::PackageInfo;

int sort_zpk_by_dep_order(int argc, char** argv, PackageManager* manager) {
    if (badParameter(argc, argv)) return 1;
    std::vector<PackageInfo> packages;
    // The first file that declares a name keeps it.
    std::map<std::string, std::string> pathByName;
    for (int i = 1; i < argc; ++i) {
        PackageInfo info;
        if (!PackageManager::queryPackageFileInfo(
                std::string(argv[i]), info, QUORPackageTool::PKG_INSTALLATION_TYPE_NONE, nullptr)) {
            std::printf("Failed to query package %s, %d\n", argv[i], manager->getResult());
            return 1;
        }
        packages.push_back(info);
        pathByName.emplace(info.name, argv[i]);
    }
    std::vector<std::string> names;
    if (!manager->topologicalSortPkgs(&packages, names)) {
        std::fputs("Failed to sort built-in packages\n", stdout);
        return 1;
    }
    std::reverse(names.begin(), names.end());
    // A name no file supplied prints as an empty line.
    for (const std::string& name : names) std::printf("%s\n", pathByName[name].c_str());
    return 0;
}

}  // namespace quorpkg
