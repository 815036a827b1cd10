// start, stop and restart of one package.
#include <cstdio>
#include <string>

#include "commands.h"

namespace quorpkg {
namespace {

using QUORPackageTool::PKG_INSTALLATION_TYPE_DISABLE;
using QUORPackageTool::PKG_INSTALLATION_TYPE_ENABLE;

// Starting also turns the package on, stopping turns it off.
int controlPackageService(PackageManager& manager, const char* name, bool start) {
    const std::string verb = start ? "start" : "stop";
    const bool done =
        manager.serviceControl(start ? PKG_INSTALLATION_TYPE_ENABLE : PKG_INSTALLATION_TYPE_DISABLE,
                               std::string(name), start, nullptr, nullptr, nullptr, true, true);
    if (done) {
        std::printf("package %s %s successfully\n", name, verb.c_str());
        return 0;
    }
    // The code, not the package, is what callers need to see here.
    std::printf("Failed to %s package %d\n", verb.c_str(), manager.getResult());
    return 1;
}

}  // namespace

int start(int argc, char** argv, PackageManager* manager) {
    if (badParameter(argc, argv)) return 1;
    return controlPackageService(*manager, argv[1], true);
}

int stop(int argc, char** argv, PackageManager* manager) {
    if (badParameter(argc, argv)) return 1;
    return controlPackageService(*manager, argv[1], false);
}

int restart(int argc, char** argv, PackageManager* manager) {
    if (badParameter(argc, argv)) return 1;
    if (manager->serviceControlRestart(std::string(argv[1]))) {
        std::printf("package %s restart successfully\n", argv[1]);
        return 0;
    }
    std::printf("Failed to restart package %d\n", manager->getResult());
    return 1;
}

}  // namespace quorpkg
