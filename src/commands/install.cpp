// install: installs a package file from the local file system.
#include <cstdio>
#include <string>

#include "commands.h"

namespace quorpkg {

// "--daemon-reload" is not parsed: the first operand is always the file.
int install(int argc, char** argv, PackageManager* manager) {
    if (badParameter(argc, argv)) return 1;
    const bool installed = manager->installZPK(nullptr, std::string(argv[1]), std::string());
    if (!installed) {
        std::printf("Failed to install package %s, error = [%d]\n", argv[1], manager->getResult());
        return 1;
    }
    std::printf("%s install successfully\n", argv[1]);
    return 0;
}

}  // namespace quorpkg
