// A child process that leads a process group of its own, so that the child
// and everything it starts can be killed together. The object owns the
// child: destroying it before the child was reaped kills the whole group and
// reaps the child, so no zombie and no stray process outlives it. The child
// is killed when the thread that started it ends, so a killed process
// leaves no child running alone.
#pragma once

#include <sys/types.h>

#include <chrono>
#include <functional>
#include <optional>
#include <string>
#include <vector>

#include "base/file_util.h"

namespace quor {

struct SpawnRequest {
    std::string program;            // host path, run as it is (no PATH search)
    std::vector<std::string> argv;  // argv[0] included
    std::vector<std::string> env;   // "KEY=value", the whole environment
    std::string workDir;
    int stdoutFd = -1;  // dup'ed onto 1; -1: /dev/null
    int stderrFd = -1;  // dup'ed onto 2; -1: /dev/null
    // When set, called with the new process group's id before the program
    // starts: what it records exists for as long as the program runs.
    std::function<void(pid_t)> beforeRun;
};

class ProcessGroup {
public:
    // Starts the program with stdin on /dev/null, signals at their defaults,
    // no descriptors beyond 0-2, in a new process group, with SIGKILL as its
    // parent-death signal. On failure (the program could not be run)
    // returns nothing and sets `error` to the errno.
    static std::optional<ProcessGroup> spawn(const SpawnRequest& request, int& error);

    ProcessGroup(ProcessGroup&& other) noexcept;
    ProcessGroup& operator=(ProcessGroup&&) = delete;
    ProcessGroup(const ProcessGroup&) = delete;
    ProcessGroup& operator=(const ProcessGroup&) = delete;
    ~ProcessGroup();

    // Waits for the group leader to end, at most `limit` (zero: no limit),
    // appending what arrives on `captureFd` (when >= 0) to `captured`. The
    // wait status as an exit code (128+N for signal N), or nothing when the
    // limit passed first; the group is then still running.
    std::optional<int> wait(std::chrono::milliseconds limit, int captureFd, std::string* captured);

    // Kills every process of the group, reaps the leader and returns once no
    // member of the group is alive any more.
    void killGroup();

    pid_t pid() const { return pid_; }

private:
    explicit ProcessGroup(pid_t pid) : pid_(pid) {}
    pid_t pid_ = -1;  // -1 once reaped
};

// What /proc tells of a process that is alive (a zombie is not).
struct ProcessState {
    pid_t group = 0;
    unsigned long long startTime = 0;  // clock ticks after boot: with the pid, who it is
};
std::optional<ProcessState> liveProcess(pid_t pid);

// Kills every process of group `pgid` (not a child of ours, or one already
// reaped) until none is alive, within a grace time for processes the kernel
// cannot kill yet. True when a live member was found.
bool endProcessGroup(pid_t pgid);

}  // namespace quor
