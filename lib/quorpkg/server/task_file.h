// The state of a background installation: /run/quorpkg/tasks/<name>.json,
// rewritten atomically at every change so that a reader never sees half a
// file. "state" is queued, downloading, installing, done or failed; "bytes"
// and "total" count the download under way (of "current", the package being
// fetched or installed); "code" is the result code once failed or done.
#pragma once

#include <sys/types.h>

#include <cstdint>
#include <optional>
#include <string>

#include "base/file_util.h"

namespace quor {

struct Task {
    std::string name;
    std::string state = "queued";
    std::string current;  // package being downloaded or installed
    uint64_t bytes = 0;
    uint64_t total = 0;
    int code = 0;
    std::string message;  // why it failed
    pid_t pid = 0;        // the worker process
    std::string user;
    std::string volume;
    std::string link;

    bool finished() const { return state == "done" || state == "failed"; }
};

bool writeTask(const Task& task);
std::optional<Task> readTask(const std::string& name);

// Not finished and its worker process still alive: a worker that died
// leaves a task nobody runs any more.
bool taskRunning(const Task& task);

// Serialises the check-and-start of background installations.
class TaskLock {
public:
    static std::optional<TaskLock> acquire();
    TaskLock(TaskLock&&) noexcept = default;
    TaskLock& operator=(TaskLock&&) noexcept = default;
    ~TaskLock();

private:
    explicit TaskLock(UniqueFd fd) : fd_(std::move(fd)) {}
    UniqueFd fd_;
};

}  // namespace quor
