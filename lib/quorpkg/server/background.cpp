#include "quorpkg/server/background.h"

#include <string.h>
#include <unistd.h>

#include <algorithm>
#include <exception>

#include "base/operation.h"
#include "base/package_log.h"
#include "base/result.h"
#include "quor_core.h"
#include "quorpkg/package/manifest.h"
#include "quorpkg/server/detach.h"
#include "quorpkg/server/http_client.h"
#include "quorpkg/server/remote_install.h"
#include "quorpkg/server/sources.h"
#include "quorpkg/server/task_file.h"

namespace quor {
namespace {

// Progress reaches the task file in steps of this many bytes at least (or a
// hundredth of the download when larger), each step one atomic rewrite.
constexpr uint64_t kProgressStep = 1 << 20;

int failWith(int code, std::string* error, const std::string& why) {
    if (error) *error = why;
    return refuse(code, why);
}

class Worker {
public:
    Worker(const BackgroundRequest& request, Task task)
        : request_(request), task_(std::move(task)) {}

    int run() {
        task_.pid = ::getpid();  // forked before the caller learnt it
        RemoteInstall install;
        // The interface passes the md5 only; the file's own signature and
        // the sha256 of its payload are checked when it is installed.
        install.package = {request_.name, request_.link, request_.size, request_.md5, {}};
        install.volume = task_.volume;
        install.version = request_.version;
        install.startService = !request_.noStart;
        install.withRequirements = request_.withRequirements;
        install.lang = request_.lang;
        install.beta = request_.beta;
        install.event = "install";
        install.report = [this](RemoteStep step, const std::string& name, uint64_t bytes,
                                uint64_t total) { progress(step, name, bytes, total); };
        std::string why;
        int code = kStoreUnusable;
        {
            // The caller's operation ended with the queueing: this is the
            // worker's own, logged before the task file tells how it ended.
            ResultSlot results;
            Operation operation("install_from_server worker", request_.name, results,
                                LogPolicy::kAlways, true);
            try {
                code = installFromServer(install, &why);
            } catch (const std::exception& e) {
                why = e.what();
                refuse(code, why);
            }
            if (code != kOk) fail(code);
        }
        task_.state = code == kOk ? "done" : "failed";
        task_.code = code;
        task_.current = request_.name;
        task_.bytes = fetched_;
        task_.total = request_.size != 0 ? request_.size : fetched_;
        task_.message = why;
        writeTask(task_);
        if (code != kOk)
            logPackageEvent(request_.name, "installation from the server failed (" +
                                               std::to_string(code) + "): " + why);
        return code;
    }

private:
    void progress(RemoteStep step, const std::string& name, uint64_t bytes, uint64_t total) {
        const char* state = step == RemoteStep::kDownloading ? "downloading" : "installing";
        if (step == RemoteStep::kDownloading && name == request_.name) fetched_ = bytes;
        // Installing keeps the numbers of the last download.
        if (step == RemoteStep::kInstalling) {
            bytes = task_.bytes;
            total = task_.total;
        }
        const bool change = task_.state != state || task_.current != name;
        const uint64_t stepBytes = std::max(kProgressStep, total / 100);
        if (!change && bytes < written_ + stepBytes && (total == 0 || bytes != total)) return;
        task_.state = state;
        task_.current = name;
        task_.bytes = bytes;
        task_.total = total;
        written_ = bytes;
        writeTask(task_);
    }

    const BackgroundRequest& request_;
    Task task_;
    uint64_t written_ = 0;
    uint64_t fetched_ = 0;  // bytes of the package itself downloaded
};

int checkRequest(const BackgroundRequest& request, std::string& volume, std::string* error) {
    if (!isValidPackageName(request.name))
        return failWith(kBadArgument, error, "not a package name: " + request.name);
    const std::string scheme = urlScheme(request.link);
    if (scheme != "http" && scheme != "https" && scheme != "file")
        return failWith(kBadArgument, error, "not a download link: " + request.link);
    if (normalLanguage(request.lang.c_str()).empty())
        return failWith(kBadArgument, error, "not a language: " + request.lang);
    VOLUME_PATH_INFO info;
    ::memset(&info, 0, sizeof info);
    if (VolumePathParseEx(request.volume.c_str(), &info) < 0)
        return failWith(kNoVolume, error, "no such volume: " + request.volume);
    volume = info.path;
    return kOk;
}

}  // namespace

int startBackgroundInstall(const BackgroundRequest& request, std::string* error) {
    Task task;
    int code = checkRequest(request, task.volume, error);
    if (code != kOk) return code;
    task.name = request.name;
    task.user = request.user;
    task.link = request.link;
    task.total = request.size;

    std::optional<TaskLock> lock = TaskLock::acquire();
    if (!lock) return failWith(kStoreUnusable, error, "cannot lock the task folder");
    if (std::optional<Task> earlier = readTask(request.name); earlier && taskRunning(*earlier))
        return failWith(kTaskRunning, error, request.name + " is being installed already");

    // The worker starts only once its task file says "queued" with its pid,
    // so that a second request sees it running from the start.
    bool recorded = false;
    const bool started = runDetached(
        [&](pid_t pid) {
            task.pid = pid;
            return recorded = writeTask(task);
        },
        [&] { return Worker(request, task).run(); });
    if (!started)
        return failWith(kStoreUnusable, error,
                        recorded ? "cannot start the worker" : "cannot write the task file");
    return kOk;
}

}  // namespace quor
