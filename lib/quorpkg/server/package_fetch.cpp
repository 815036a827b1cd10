#include "quorpkg/server/package_fetch.h"

#include <algorithm>
#include <system_error>

#include "base/result.h"
#include "base/settings.h"
#include "base/utc_time.h"
#include "quorpkg/package/md5.h"

namespace fs = std::filesystem;

namespace quor {
namespace {

int failWith(int code, std::string* error, const std::string& why) {
    if (error) *error = why;
    return refuse(code, why);
}

// The md5 in the name keeps a part of one file from being continued with
// the bytes of another version.
std::string baseName(const PackageDownload& download) {
    std::string name = download.name;
    if (!download.md5.empty()) name += "-" + download.md5;
    return name;
}

// A minute (fetch_timeout) plus the size at the floor rate, or at the
// capped rate when that is lower; never past the download's own deadline.
FetchOptions fetchOptions(const PackageDownload& download) {
    const Settings settings = loadSettings();
    FetchOptions options;
    options.maxBytesPerSecond = uint64_t(settings.download_rate_kib) * 1024;
    uint64_t rate = kFloorBytesPerSecond;
    if (options.maxBytesPerSecond != 0) rate = std::min(rate, options.maxBytesPerSecond / 2 + 1);
    options.deadlineSeconds = settings.fetch_timeout + int64_t(download.size / rate);
    if (download.deadline != 0)
        options.deadlineSeconds =
            std::clamp<int64_t>(download.deadline - nowSeconds(), 1, options.deadlineSeconds);
    return options;
}

// One link of the download.
int fetchOne(const PackageDownload& download, const fs::path& dir, const ProgressFn& progress,
             fs::path& file, std::string* error) {
    std::error_code ec;
    fs::create_directories(dir, ec);
    if (ec) return failWith(kDownloadFailed, error, "cannot create " + dir.string());
    const fs::path part = dir / (baseName(download) + ".zpk.part");
    const fs::path done = dir / (baseName(download) + ".zpk");
    fs::remove(done, ec);

    // A complete part from an earlier try needs no transfer at all.
    const uint64_t have = fs::is_regular_file(part, ec) ? fs::file_size(part, ec) : 0;
    if (download.size == 0 || have != download.size) {
        FetchResult result =
            downloadFile(download.link, part, download.size, progress, fetchOptions(download));
        if (!result.ok()) {
            // Only bytes that a later try can continue are worth keeping:
            // a transfer that never started (refused, redirected in circles)
            // leaves an empty part, removed like a useless one.
            const bool started = fs::file_size(part, ec) > 0 && !ec;
            if (!result.resumable || !started) fs::remove(part, ec);
            return failWith(result.noClient ? kServerUnreachable : kDownloadFailed, error,
                            download.link + ": " + result.error);
        }
    } else if (progress) {
        progress(have);
    }

    const uint64_t size = fs::file_size(part, ec);
    if (ec || (download.size != 0 && size != download.size)) {
        fs::remove(part, ec);
        return failWith(kDownloadFailed, error,
                        download.link + ": got " + std::to_string(size) + " bytes, expected " +
                            std::to_string(download.size));
    }
    if (!download.md5.empty() || !download.sha256.empty()) {
        std::optional<FileDigests> digests = fileDigests(part);
        const char* wrong = nullptr;
        if (!digests)
            wrong = "cannot be read";
        else if (!download.md5.empty() && !sameDigest(digests->md5, download.md5))
            wrong = "md5 mismatch";
        else if (!download.sha256.empty() && !sameDigest(digests->sha256, download.sha256))
            wrong = "sha256 mismatch";
        if (wrong) {
            fs::remove(part, ec);
            return failWith(kChecksumMismatch, error, download.link + ": " + wrong);
        }
    }
    fs::rename(part, done, ec);
    if (ec) return failWith(kDownloadFailed, error, "cannot rename " + part.string());
    file = done;
    return kOk;
}

}  // namespace

int fetchPackage(const PackageDownload& download, const fs::path& dir, const ProgressFn& progress,
                 fs::path& file, std::string* error) {
    int code = fetchOne(download, dir, progress, file, error);
    PackageDownload other = download;
    for (const std::string& link : download.mirrorLinks) {
        if (code == kOk || code == kServerUnreachable) break;
        other.link = link;
        code = fetchOne(other, dir, progress, file, error);
    }
    return code;
}

}  // namespace quor
