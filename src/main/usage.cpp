#include "usage.h"

#include <cstdio>

#include "commands/commands.h"

namespace quorpkg {
namespace {

struct UsageLine {
    const char* form;  // null on a continuation line
    const char* description;
};

// Printed in this order, which is not the command table's.
constexpr UsageLine kUsageLines[] = {
    {"start <package>", "Start a package."},
    {"stop <package>", "Stop a package."},
    {"restart <package>", "Stop a package, then start it."},
    {"resume <package>", "Start a package without enable its service. It will do nothing"},
    {nullptr, "if enabled flag doesn't exist."},
    {"pause <package> [skipupgradecheck]",
     "Stop a package without disable its service. It will do nothing"},
    {nullptr, "if enabled flag doesn't exist."},
    {"start-depend <service>", "Start all packages depend on specific service."},
    {"stop-depend <service>", "Stop all packages depend on specific service."},
    {"onoffall start|stop [event] [param]", "Start or stop all the packages."},
    {"install [--daemon-reload] <zpk>", "Install a package through local zpk."},
    {"install_from_server <package> [volume] [user] [beta]", "Install a package from server."},
    {"uninstall <package>...", "Uninstall one or more package."},
    {"upgradeall [limitonly] [lang] [user]", "Upgrade all upgradable package."},
    {"chkupgradepkg [lang]", "Find all upgradable packages from server, and decide whether to"},
    {nullptr, "upgrade accorting to user settings."},
    {"checkupdateall [lang] [user]",
     "Find all upgradable packages from server (use cache first), and"},
    {nullptr, "decide whether to upgrade accorting to user settings."},
    {"status <package>", "Get status of an installed package."},
    {"is_onoff <package>", "Check if a package is installed and if its enabled flag exists."},
    {"version <package>", "Get version of an installed package."},
    {"query <zpk>", "Get a package's basic information from the zpk."},
    {"list [--name] [--depend-on <package>]", "List all installed package."},
    {"log <package>", "Get package's log path."},
    {"checkupdate <package> [lang]", "Check if a package is updatable."},
    {"sort_zpk_by_dep_order <zpk_path>...", "Sort given zpks according to their dependencies."},
    {"notify_stopped_by_firmware",
     "Send notifications about which packages are stopped by firmware."},
};

}  // namespace

int printUsage(const char* baseName) {
    std::printf("usage: %s <command> [...]\n", baseName);
    std::printf("\n");
    std::printf("command:\n");
    // Two blanks and a 56-wide form put every description at column 59.
    for (const UsageLine& line : kUsageLines) {
        std::printf("  %-56s%s\n", line.form != nullptr ? line.form : "", line.description);
    }
    std::printf("\n");
    return 1;
}

}  // namespace quorpkg
