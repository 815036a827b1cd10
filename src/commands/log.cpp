// log: where a package logs.
#include <cstdio>
#include <string>

#include "commands.h"

namespace quorpkg {

int log(int argc, char** argv, PackageManager* manager) {
    if (badParameter(argc, argv)) return 1;
    const std::string path = manager->getPackageLog(std::string(argv[1]));
    if (path.empty()) {
        std::printf("Failed to get log file %d\n", manager->getResult());
        return 1;
    }
    std::printf("The log file is %s\n", path.c_str());
    return 0;
}

}  // namespace quorpkg
