// uninstall: remove one or more packages in one request.
#include <string>
#include <vector>

#include "commands.h"

namespace quorpkg {

// Success and failure are told by the exit status alone.
int uninstall(int argc, char** argv, PackageManager* manager) {
    if (badParameter(argc, argv)) return 1;
    // Passed on as typed: repeats and later empty words included.
    const std::vector<std::string> names(argv + 1, argv + argc);
    return manager->uninstallPKGs(names, true) ? 0 : 1;
}

}  // namespace quorpkg
