#include "command_table.h"

#include <cstring>

namespace quorpkg {

const CommandRow kCommandTable[] = {
    {"install", install},
    {"uninstall", uninstall},
    {"version", version},
    {"list", list},
    {"log", log},
    {"query", query},
    {"chkupgradepkg", chkupgradepkg},
    {"start", start},
    {"stop", stop},
    {"restart", restart},
    {"status", status},
    {"onoffall", onoffall},
    {"is_onoff", is_onoff},
    {"checkupdateall", checkupdateall},
    {"checkupdate", checkupdate},
    {"pause", pause},
    {"resume", resume},
    {"stop-depend", stop_depend},
    {"start-depend", start_depend},
    {"upgradeall", upgradeall},
    {"install_from_server", install_from_server},
    {"sort_zpk_by_dep_order", sort_zpk_by_dep_order},
    {"notify_stopped_by_firmware", notify_stopped_by_firmware},
    {nullptr, nullptr},
};

CommandHandler findCommand(const char* word) {
    for (const CommandRow* row = kCommandTable; row->name != nullptr; ++row) {
        if (std::strcmp(row->name, word) == 0) return row->handler;
    }
    return nullptr;
}

}  // namespace quorpkg
