// Scripts that run under the store lock, each recorded while it runs in
// /run/quorpkg/scripts/<process group>. A script dies with the process that
// started it (process_group.h), but what it started does not: when that
// process is killed in the middle of a change, the next process to take the
// lock afresh ends the rest of the script's process group from its record,
// before it recovers the change.
#pragma once

#include <sys/types.h>

#include <filesystem>
#include <string>
#include <vector>

namespace quor {

class ScriptRecord {
public:
    // Records the script of `package` whose process group `pgid` leads.
    // A record that cannot be written is skipped: the script still runs.
    ScriptRecord(pid_t pgid, const std::string& package, const std::string& script);
    ~ScriptRecord();
    ScriptRecord(const ScriptRecord&) = delete;
    ScriptRecord& operator=(const ScriptRecord&) = delete;

private:
    std::filesystem::path file_;
};

struct EndedScript {
    std::string package;
    std::string script;  // "preinst", "start-stop-status start"
    pid_t processGroup = 0;
};

// Whether any script is recorded.
bool anyRecordedScript();

// Only for a process that took the store lock afresh, when no other change
// can be under way: every script another process recorded was left behind
// by a process killed in the middle of a change. Ends the process group of
// each (unless the pid now names another process) and removes the records.
// Returns the scripts that still had live processes.
std::vector<EndedScript> endAbandonedScripts();

}  // namespace quor
