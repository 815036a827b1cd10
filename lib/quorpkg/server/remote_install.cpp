#include "quorpkg/server/remote_install.h"

#include <json/value.h>

#include <system_error>
#include <vector>

#include "base/layout.h"
#include "base/operation.h"
#include "base/package_log.h"
#include "base/result.h"
#include "base/utc_time.h"
#include "quorpkg/package/package_file.h"
#include "quorpkg/server/catalog.h"
#include "quorpkg/server/http_client.h"
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

int fail(int code, std::string* error, const std::string& why) {
    if (error) *error = why;
    return refuse(code, why);
}

std::string archName(const std::string& arch) {
    return arch.empty() ? "noarch" : arch;
}

class Session {
public:
    Session(const RemoteInstall& request, std::string* error) : request_(request), error_(error) {}

    int run() {
        fs::path file;
        int code = fetch(request_.package, file);
        if (code != kOk) return code;
        PackageFileHead head;
        if ((code = checkFile(request_.package, file, head))) return code;

        // What to install, in order: required packages first, the package last.
        std::vector<std::pair<const RemotePackage*, fs::path>> order;
        std::vector<RemotePackage> required;
        if (request_.withRequirements && !head.manifest.depends.empty()) {
            code = planFor(head.manifest.depends, required);
            if (code != kOk) return code;
        }
        for (const RemotePackage& package : required) {
            fs::path requiredFile;
            PackageFileHead requiredHead;
            if ((code = fetch(package, requiredFile)) ||
                (code = checkFile(package, requiredFile, requiredHead)))
                return code;
            order.emplace_back(&package, requiredFile);
        }
        order.emplace_back(&request_.package, file);

        for (const auto& [package, path] : order) {
            const std::string& name = package->download.name;
            report(RemoteStep::kInstalling, name, 0, 0);
            InstallRequest install;
            install.file = path;
            install.volume = request_.volume;
            install.startService = request_.startService;
            install.event = request_.event;
            install.root = package->root;
            install.origin = package->origin;
            install.refuseDowngrade = true;
            code = installPackage(install, serviceHooks());
            if (code != kOk) {
                // The store noted why in the operation's log line; its words go
                // on to the task file too.
                const Operation* operation = Operation::current();
                const std::string why = operation ? operation->reasonsFor(code) : "";
                if (error_)
                    *error_ = "installing " + name + " failed" + (why.empty() ? "" : ": " + why);
                return code;
            }
        }
        return kOk;
    }

private:
    int fetch(const RemotePackage& package, fs::path& file) {
        const PackageDownload& download = package.download;
        if (request_.deadline != 0 && nowSeconds() >= request_.deadline)
            return fail(kDownloadFailed, error_,
                        "the installation did not finish by " + formatUtc(request_.deadline));
        report(RemoteStep::kDownloading, download.name, 0, download.size);
        std::string why;
        PackageDownload bounded = download;
        bounded.deadline = request_.deadline;
        int code = fetchPackage(
            bounded, layout::volumeTmpDir(request_.volume),
            [&](uint64_t bytes) {
                report(RemoteStep::kDownloading, download.name, bytes, download.size);
            },
            file, &why);
        if (code != kOk) return fail(code, error_, why);
        downloads_.add(file);
        logPackageEvent(download.name, "downloaded " + download.link);
        return kOk;
    }

    // The file must be the package its entry names: name, version and arch
    // (a required package's entry as much as the requested one).
    int checkFile(const RemotePackage& package, const fs::path& file, PackageFileHead& head) {
        std::string why;
        const std::string& link = package.download.link;
        int code = readPackageHead(file, head, &why);
        if (code != kOk) return fail(code, error_, link + ": " + why);
        const Manifest& manifest = head.manifest;
        if (manifest.name != package.download.name)
            return fail(kBadManifest, error_,
                        link + " holds " + manifest.name + ", not " + package.download.name);
        if (!package.version.empty() && manifest.version != package.version)
            return fail(kDownloadFailed, error_,
                        link + " holds version " + manifest.version + " of " + manifest.name +
                            ", not " + package.version);
        if (!package.arch.empty() && archName(manifest.arch) != archName(package.arch))
            return fail(kBadManifest, error_,
                        link + " is built for " + archName(manifest.arch) + ", not " +
                            archName(package.arch));
        return kOk;
    }

    int planFor(const std::vector<Dependency>& needs, std::vector<RemotePackage>& required) {
        std::string why;
        int code = loadCatalogs(false, request_.lang.c_str(), catalogs_, &why);
        if (code != kOk) return fail(code, error_, why);
        const Offers offers(catalogs_);
        std::vector<const Offer*> planned;
        code = planRequirements(request_.package.download.name, needs, offers, request_.beta,
                                planned, &why);
        if (code != kOk) return fail(code, error_, why);
        for (const Offer* offer : planned) {
            RemotePackage package;
            if (!remotePackageOf(*offer, package))
                return fail(
                    kMissingDependency, error_,
                    "the entry of " + entryText(*offer->entry, "package") + " has no usable link");
            required.push_back(std::move(package));
        }
        return kOk;
    }

    void report(RemoteStep step, const std::string& name, uint64_t bytes, uint64_t total) {
        if (request_.report) request_.report(step, name, bytes, total);
    }

    const RemoteInstall& request_;
    std::string* error_;
    std::vector<Catalog> catalogs_;  // the offers of planned requirements point here
    Downloads downloads_;
};

}  // namespace

bool remotePackageOf(const Offer& offer, RemotePackage& out) {
    const Json::Value& entry = *offer.entry;
    out = RemotePackage{};
    out.download.name = entryText(entry, "package");
    out.download.link = resolvedLink(offer);
    // A relative link is the same file on every mirror of the source.
    const std::string link = entryText(entry, "link");
    if (urlScheme(link).empty())
        for (size_t i = 1; i < offer.source->urls.size(); ++i)
            if (std::string other = resolveUrl(offer.source->urls[i], link); !other.empty())
                out.download.mirrorLinks.push_back(std::move(other));
    out.download.md5 = entryString(entry, "md5");
    out.download.sha256 = entryString(entry, "sha256");
    if (entry["size"].isUInt64()) out.download.size = entry["size"].asUInt64();
    out.version = offer.version;
    out.arch = entryText(entry, "arch");
    out.root = offer.catalog ? offer.catalog->root : nullptr;
    out.origin = offer.catalog ? offer.catalog->origin() : "unverified " + offer.source->url;
    return !out.download.link.empty();
}

int installFromServer(const RemoteInstall& request, std::string* error) {
    return Session(request, error).run();
}

}  // namespace quor
