// status and is_onoff: questions about one package that change nothing.
#include <cstdio>
#include <string>

#include "commands.h"

namespace quorpkg {
namespace {

// Result codes that status reports in words of their own.
constexpr int kNoSuchPackage = 255;
constexpr int kBroken = 150;
constexpr int kStoppedButUnitActive = 310;

// Exit status for a code too large to pass on as a stopped package's status.
constexpr int kLargeCodeStatus = 4;

}  // namespace

// The exit status carries the answer so that scripts can branch on it.
int status(int argc, char** argv, PackageManager* manager) {
    if (badParameter(argc, argv)) return 1;
    const char* name = argv[1];
    bool running = false;
    manager->getServiceStatus(std::string(name), running, true, true);
    if (running) {
        std::printf("%s package is started\n", name);
        return 0;
    }
    const int code = manager->getResult();
    int exitStatus = 0;
    if (code == kNoSuchPackage) {
        std::printf("No such package %s\n", name);
        exitStatus = 4;
    } else if (code == kBroken) {
        std::printf("%s package is broken\n", name);
        exitStatus = kBroken;
    } else if (code == kStoppedButUnitActive) {
        std::printf(
            "%s package status is stopped but unit is active, it is possible that package "
            "encounters an error after it was started successfully\n",
            name);
        exitStatus = 4;
    } else {
        std::printf("%s package is stopped\n", name);
        exitStatus = code <= 254 ? code : kLargeCodeStatus;
    }
    std::printf("Status: [%d]\n", code);
    return exitStatus;
}

int is_onoff(int argc, char** argv, PackageManager* manager) {
    if (badParameter(argc, argv)) return 1;
    if (manager->isServiceEnabled(argv[1])) {
        std::printf("package %s is turned on\n", argv[1]);
        return 0;
    }
    std::printf("package %s isn't turned on, status: [%d]\n", argv[1], manager->getResult());
    return 1;
}

}  // namespace quorpkg
