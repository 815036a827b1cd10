#include "entry.h"

#include <cstdio>
#include <cstring>
#include <exception>

#include "command_table.h"
#include "commands/commands.h"
#include "usage.h"

namespace quorpkg {
namespace {

// The text after the last "/" of the invoked path, or the whole path.
const char* programBaseName(const char* invoked) {
    if (invoked == nullptr) return "quorpkg";
    const char* slash = std::strrchr(invoked, '/');
    return slash != nullptr ? slash + 1 : invoked;
}

}  // namespace

int quorpkgMain(int argc, char** argv) {
    try {
        // The one manager of the run; every handler borrows it.
        PackageManager manager;
        const char* baseName = programBaseName(argc > 0 ? argv[0] : nullptr);
        if (argc < 2) {
            printUsage(baseName);
            return 1;
        }
        // Initialised before the command word is looked at, so even an
        // unknown word reports a broken package manager first.
        if (!manager.init()) {
            std::printf("Failed to init package manager: %d\n", manager.getResult());
            return 1;
        }
        const CommandHandler handler = findCommand(argv[1]);
        if (handler == nullptr) {
            // A misspelt command word is not an error for the callers.
            printUsage(baseName);
            return 0;
        }
        return handler(argc - 1, argv + 1, &manager);
    } catch (const std::exception& error) {
        std::printf("Failed to execute quorpkg, reason=[%s]\n", error.what());
        return 1;
    }
}

}  // namespace quorpkg
