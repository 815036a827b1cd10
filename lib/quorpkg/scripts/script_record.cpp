#include "quorpkg/scripts/script_record.h"

#include <fcntl.h>
#include <sys/stat.h>
#include <unistd.h>

#include <optional>
#include <system_error>

#include "base/file_util.h"
#include "base/key_value.h"
#include "base/layout.h"
#include "quorpkg/scripts/process_group.h"

namespace fs = std::filesystem;

namespace quor {
namespace {

// Process ids mean nothing after a reboot (a root in a folder keeps its
// /run across one): a record of an earlier boot names no process.
const std::string& bootId() {
    static const std::string id = [] {
        std::string text = readFile("/proc/sys/kernel/random/boot_id").value_or("");
        return text.substr(0, text.find('\n'));
    }();
    return id;
}

std::string valueOf(const KeyValues& pairs, const char* key) {
    const std::string* value = findValue(pairs, key);
    return value ? *value : std::string();
}

// Ends the group a record names, unless its pid now names another process
// (a live leader started at another time). True when anything was alive.
bool endRecordedGroup(pid_t pgid, const KeyValues& record) {
    if (valueOf(record, "boot") != bootId()) return false;
    std::optional<ProcessState> leader = liveProcess(pgid);
    if (leader && std::to_string(leader->startTime) != valueOf(record, "started")) return false;
    // Without its leader the group's number cannot have been handed out
    // again while any member lives, so the members are the script's.
    return endProcessGroup(pgid);
}

}  // namespace

ScriptRecord::ScriptRecord(pid_t pgid, const std::string& package, const std::string& script) {
    std::optional<ProcessState> leader = liveProcess(pgid);
    const KeyValues pairs = {{"package", package},
                             {"script", script},
                             {"owner", std::to_string(::getpid())},
                             {"boot", bootId()},
                             {"started", leader ? std::to_string(leader->startTime) : ""}};
    const fs::path file = layout::runningScriptsDir() / std::to_string(pgid);
    std::error_code ec;
    fs::create_directories(file.parent_path(), ec);
    UniqueFd fd = openRegularFile(file, O_WRONLY | O_CREAT | O_TRUNC);
    if (fd && writeAll(fd.get(), formatKeyValues(pairs))) file_ = file;
}

ScriptRecord::~ScriptRecord() {
    if (!file_.empty()) ::unlink(file_.c_str());
}

bool anyRecordedScript() {
    std::error_code ec;
    return fs::directory_iterator(layout::runningScriptsDir(), ec) != fs::directory_iterator();
}

std::vector<EndedScript> endAbandonedScripts() {
    std::vector<EndedScript> ended;
    const std::string self = std::to_string(::getpid());
    for (const std::string& name : entriesOfType(layout::runningScriptsDir(), S_IFREG)) {
        const fs::path file = layout::runningScriptsDir() / name;
        std::optional<std::string> text = readRegularFile(file);
        std::optional<KeyValues> record = text ? parseKeyValues(*text) : std::nullopt;
        // This process's own scripts run on (another thread's, for one).
        if (record && valueOf(*record, "owner") == self) continue;
        const pid_t pgid = static_cast<pid_t>(std::atoll(name.c_str()));
        // A record cut short by the kill names nothing it could prove.
        if (record && pgid > 1 && std::to_string(pgid) == name && endRecordedGroup(pgid, *record))
            ended.push_back({valueOf(*record, "package"), valueOf(*record, "script"), pgid});
        ::unlink(file.c_str());
    }
    return ended;
}

}  // namespace quor
