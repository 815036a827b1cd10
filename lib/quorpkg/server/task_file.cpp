#include "quorpkg/server/task_file.h"

#include <fcntl.h>
#include <json/reader.h>
#include <json/value.h>
#include <json/writer.h>
#include <sys/file.h>

#include <cerrno>
#include <csignal>
#include <memory>
#include <system_error>

#include "base/layout.h"

namespace fs = std::filesystem;

namespace quor {
namespace {

// Alive and not a zombie waiting for a parent that does not reap it.
bool processAlive(pid_t pid) {
    if (pid <= 0 || (::kill(pid, 0) != 0 && errno != EPERM)) return false;
    std::optional<std::string> stat = readFile("/proc/" + std::to_string(pid) + "/stat");
    if (!stat) return true;
    size_t close = stat->rfind(')');
    return close == std::string::npos || close + 2 >= stat->size() || (*stat)[close + 2] != 'Z';
}

void readFields(const Json::Value& root, Task& task) {
    task.state = root["state"].asString();
    task.current = root["current"].asString();
    task.bytes = root["bytes"].asUInt64();
    task.total = root["total"].asUInt64();
    task.code = root["code"].asInt();
    task.message = root["message"].asString();
    task.pid = static_cast<pid_t>(root["pid"].asInt64());
    task.user = root["user"].asString();
    task.volume = root["volume"].asString();
    task.link = root["link"].asString();
}

}  // namespace

bool writeTask(const Task& task) {
    Json::Value root(Json::objectValue);
    root["package"] = task.name;
    root["state"] = task.state;
    root["current"] = task.current;
    root["bytes"] = Json::UInt64(task.bytes);
    root["total"] = Json::UInt64(task.total);
    root["code"] = task.code;
    root["message"] = task.message;
    root["pid"] = Json::Int64(task.pid);
    root["user"] = task.user;
    root["volume"] = task.volume;
    root["link"] = task.link;
    Json::StreamWriterBuilder builder;
    builder["indentation"] = "";
    const fs::path file = layout::taskFile(task.name);
    std::error_code ec;
    fs::create_directories(file.parent_path(), ec);
    return writeFileAtomic(file, Json::writeString(builder, root) + "\n");
}

std::optional<Task> readTask(const std::string& name) {
    std::optional<std::string> text = readRegularFile(layout::taskFile(name));
    if (!text) return std::nullopt;
    Json::CharReaderBuilder builder;
    std::unique_ptr<Json::CharReader> reader(builder.newCharReader());
    Json::Value root;
    Task task;
    task.name = name;
    try {
        if (!reader->parse(text->data(), text->data() + text->size(), &root, nullptr) ||
            !root.isObject())
            return std::nullopt;
        readFields(root, task);
    } catch (const Json::Exception&) {
        return std::nullopt;  // nested too deep, or a member of the wrong type
    }
    return task;
}

bool taskRunning(const Task& task) {
    return !task.finished() && processAlive(task.pid);
}

std::optional<TaskLock> TaskLock::acquire() {
    const fs::path file = layout::taskFile("lock").parent_path() / ".lock";
    std::error_code ec;
    fs::create_directories(file.parent_path(), ec);
    UniqueFd fd = openRegularFile(file, O_RDWR | O_CREAT);
    if (!fd) return std::nullopt;
    int rc;
    while ((rc = ::flock(fd.get(), LOCK_EX)) != 0 && errno == EINTR) {
    }
    if (rc != 0) return std::nullopt;
    return TaskLock(std::move(fd));
}

TaskLock::~TaskLock() {
    // A forked worker shares the descriptor: unlock explicitly, not by close.
    if (fd_) ::flock(fd_.get(), LOCK_UN);
}

}  // namespace quor
