#include "quorpkg/server/remote_install.h"

#include <json/value.h>

#include <system_error>
#include <vector>

#include "base/layout.h"
#include "base/package_log.h"
#include "base/result.h"
#include "quorpkg/package/package_file.h"
#include "quorpkg/server/catalog.h"
#include "quorpkg/server/offers.h"
#include "quorpkg/server/requirements.h"
#include "quorpkg/service/services.h"
#include "quorpkg/store/installer.h"

namespace fs = std::filesystem;

namespace quor {
namespace {

// Removes the downloaded files however the installation ends.
class Downloads {
public:
    Downloads() = default;
    Downloads(const Downloads&) = delete;
    Downloads& operator=(const Downloads&) = delete;
    ~Downloads() {
        std::error_code ec;
        for (const fs::path& file : files_) fs::remove(file, ec);
    }
    void add(fs::path file) { files_.push_back(std::move(file)); }

private:
    std::vector<fs::path> files_;
};

PackageDownload downloadOf(const Json::Value& entry) {
    PackageDownload download;
    download.name = entryText(entry, "package");
    download.link = entryText(entry, "link");
    download.md5 = entryText(entry, "md5");
    download.sha256 = entryText(entry, "sha256");
    const Json::Value& size = entry["size"];
    if (size.isUInt64()) download.size = size.asUInt64();
    return download;
}

int fail(int code, std::string* error, const std::string& why) {
    if (error) *error = why;
    return refuse(code, why);
}

class Session {
public:
    Session(const RemoteInstall& request, std::string* error) : request_(request), error_(error) {}

    int run() {
        fs::path file;
        int code = fetch(request_.package, file);
        if (code != kOk) return code;
        PackageFileHead head;
        std::string why;
        code = readPackageHead(file, head, &why);
        if (code != kOk) return fail(code, error_, request_.package.link + ": " + why);
        if (head.manifest.name != request_.package.name)
            return fail(kBadManifest, error_, "the file holds " + head.manifest.name);
        if (!request_.version.empty() && head.manifest.version != request_.version)
            return fail(kDownloadFailed, error_, "the file holds version " + head.manifest.version);

        // What to install, in order: required packages first, the package last.
        std::vector<std::pair<std::string, fs::path>> order;
        std::vector<Json::Value> required;
        if (request_.withRequirements && !head.manifest.depends.empty()) {
            code = planFor(head.manifest.depends, required);
            if (code != kOk) return code;
        }
        for (const Json::Value& entry : required) {
            fs::path requiredFile;
            code = fetch(downloadOf(entry), requiredFile);
            if (code != kOk) return code;
            order.emplace_back(entryText(entry, "package"), requiredFile);
        }
        order.emplace_back(request_.package.name, file);

        for (const auto& [name, path] : order) {
            report(RemoteStep::kInstalling, name, 0, 0);
            code = installPackage({path, request_.volume, request_.startService, request_.event},
                                  serviceHooks());
            if (code != kOk) return fail(code, error_, "installing " + name + " failed");
        }
        return kOk;
    }

private:
    int fetch(const PackageDownload& download, fs::path& file) {
        report(RemoteStep::kDownloading, download.name, 0, download.size);
        std::string why;
        int code = fetchPackage(
            download, layout::volumeTmpDir(request_.volume),
            [&](uint64_t bytes) {
                report(RemoteStep::kDownloading, download.name, bytes, download.size);
            },
            file, &why);
        if (code != kOk) return fail(code, error_, why);
        downloads_.add(file);
        logPackageEvent(download.name, "downloaded " + download.link);
        return kOk;
    }

    int planFor(const std::vector<Dependency>& needs, std::vector<Json::Value>& required) {
        std::vector<Catalog> catalogs;
        std::string why;
        int code = loadCatalogs(false, request_.lang.c_str(), catalogs, &why);
        if (code != kOk) return fail(code, error_, why);
        const Offers offers(catalogs);
        code =
            planRequirements(request_.package.name, needs, offers, request_.beta, required, &why);
        return code == kOk ? kOk : fail(code, error_, why);
    }

    void report(RemoteStep step, const std::string& name, uint64_t bytes, uint64_t total) {
        if (request_.report) request_.report(step, name, bytes, total);
    }

    const RemoteInstall& request_;
    std::string* error_;
    Downloads downloads_;
};

}  // namespace

int installFromServer(const RemoteInstall& request, std::string* error) {
    return Session(request, error).run();
}

}  // namespace quor
