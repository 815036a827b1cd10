#include "quorpkg/server/background.h"

#include <string.h>
#include <unistd.h>

#include <algorithm>
#include <exception>

#include "base/operation.h"
#include "base/package_log.h"
#include "base/result.h"
#include "base/settings.h"
#include "base/utc_time.h"
#include "quor_core.h"
#include "quorpkg/package/manifest.h"
#include "quorpkg/package/md5.h"
#include "quorpkg/server/catalog.h"
#include "quorpkg/server/detach.h"
#include "quorpkg/server/http_client.h"
#include "quorpkg/server/offers.h"
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
        install.volume = task_.volume;
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
                // The interface names the link and its md5 only: what the
                // file must be, and who vouches for it, come from the
                // catalog entry that offers that link.
                std::vector<Catalog> catalogs;
                code = offeredPackage(catalogs, install.package, &why);
                install.deadline = nowSeconds() + workerBudget(install.package);
                if (code == kOk) code = installFromServer(install, &why);
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
    // The entry of a configured source that offers the requested link.
    int offeredPackage(std::vector<Catalog>& catalogs, RemotePackage& out, std::string* why) {
        int code = loadCatalogs(false, request_.lang.c_str(), catalogs, why);
        if (code != kOk) return refuse(code, *why);
        const Offers offers(catalogs);
        for (const Offer& offer : offers.all(request_.name)) {
            if (resolvedLink(offer) != request_.link ||
                (!request_.md5.empty() &&
                 !sameDigest(entryString(*offer.entry, "md5"), request_.md5)) ||
                (!request_.version.empty() && offer.version != request_.version))
                continue;
            if (remotePackageOf(offer, out)) return kOk;
        }
        *why = "no configured source offers " + request_.link + " for " + request_.name +
               unavailableSources(catalogs);
        return refuse(kNotOnServer, *why);
    }

    // How long the worker may take, downloads of requirements included: it
    // ends failed rather than hang on a server that crawls.
    static int64_t workerBudget(const RemotePackage& package) {
        return 10 * int64_t(loadSettings().fetch_timeout) +
               int64_t(package.download.size / kFloorBytesPerSecond);
    }

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
