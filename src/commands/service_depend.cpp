// start-depend, stop-depend and onoffall: many packages at once.
#include <cstdio>
#include <cstring>
#include <set>
#include <string>

#include "commands.h"
#include "hw_control.h"

namespace quorpkg {
namespace {

// Hardware-control request that brackets work on database-dependent packages:
// value 2 before it, value 1 after it.
constexpr int kHwDependentServiceCommand = 0x5900;
constexpr int kHwBufferSize = 128;

void sendHardwareNotice(int value) {
    char buffer[kHwBufferSize] = {};
    std::snprintf(buffer, sizeof buffer, "%c", value);
    QUORHWExternalControl(kHwDependentServiceCommand, kHwBufferSize, buffer);
}

// Once the service word is accepted the command succeeds, whatever the
// library makes of the request.
int controlDependentService(PackageManager& manager, const char* service, bool start) {
    if (std::strcmp(service, "pgsql") != 0) {
        std::printf("Unknown pkg dependent service [%s]\n", service);
        return 1;
    }
    std::set<std::string> services;
    services.insert("pgsql");
    sendHardwareNotice(2);
    manager.serviceControlByService(services, start, false);
    sendHardwareNotice(1);
    return 0;
}

}  // namespace

int start_depend(int argc, char** argv, PackageManager* manager) {
    if (badParameter(argc, argv)) return 1;
    return controlDependentService(*manager, argv[1], true);
}

int stop_depend(int argc, char** argv, PackageManager* manager) {
    if (badParameter(argc, argv)) return 1;
    return controlDependentService(*manager, argv[1], false);
}

int onoffall(int argc, char** argv, PackageManager* manager) {
    if (badParameter(argc, argv)) return 1;
    // Every word but "start" stops.
    const bool start = std::strcmp(argv[1], "start") == 0;
    const std::string verb = start ? "start" : "stop";
    const char* event = argc >= 3 ? argv[2] : nullptr;
    const char* param = argc >= 4 ? argv[3] : nullptr;
    if (manager->serviceControlOnOffALL(start, true, event, param)) {
        std::printf("%s all packages successfully\n", verb.c_str());
        return 0;
    }
    std::printf("Failed to %s all packages %d\n", verb.c_str(), manager->getResult());
    return 1;
}

}  // namespace quorpkg
