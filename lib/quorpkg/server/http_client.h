// Fetching from package servers through libcurl: http, https and file://
// URLs. Every request has an overall deadline, a connect time-out and a
// low-speed limit and is never retried, so that a dead or crawling server
// fails a request in bounded time. Requests of one process share one
// connection per server (keep-alive). libcurl is loaded on first use;
// without it every request fails with `noClient` set.
#pragma once

#include <cstdint>
#include <filesystem>
#include <functional>
#include <string>
#include <string_view>

namespace quor {

enum class FetchStatus {
    kOk,
    kNotModified,  // HTTP 304 to a conditional request
    kNotFound,     // HTTP 404/410, or a missing file:// file
    kFailed,       // no connection, a time-out, another HTTP error, a local write error
};

// A server's Retry-After is honoured for a day at the most: a hostile one
// must not silence a device for longer than its daily check.
inline constexpr int64_t kMaxRetryDelay = 86400;

// Whether a wait kept until `until` still holds at `now`. One that lies
// further ahead than any server may ask is not believed: the clock was set
// back since it was kept.
inline bool stillWaiting(int64_t until, int64_t now) {
    return until > now && until - now <= kMaxRetryDelay;
}

struct FetchResult {
    FetchStatus status = FetchStatus::kFailed;
    std::string error;       // what went wrong, for the logs
    bool resumable = false;  // a broken transfer: what arrived is good to continue
    bool noClient = false;   // libcurl could not be loaded: no server is reachable
    long httpStatus = 0;
    // The validators of the answer, for the next conditional request.
    std::string etag;
    std::string lastModified;
    // Seconds the server asked us to wait (Retry-After on a 429 or 503).
    int64_t retryAfter = 0;
    bool ok() const { return status == FetchStatus::kOk; }
    // How long the source is not to be asked again: Retry-After on a 429 or
    // 503, kMaxRetryDelay at the most; 0 for any other answer.
    int64_t retryDelay() const;
};

struct FetchOptions {
    int64_t deadlineSeconds = 60;  // the whole request, redirects included
    // Validators of a kept copy: the request is conditional when either is set.
    std::string etag;
    std::string lastModified;
    uint64_t maxBytesPerSecond = 0;  // 0: no cap
};

// The body of `url`, at most `maxBytes` of it (a longer one fails).
FetchResult fetchText(const std::string& url, std::string& out, uint64_t maxBytes,
                      const FetchOptions& options = {});

// Called as bytes arrive with the size of the file so far.
using ProgressFn = std::function<void(uint64_t bytesInFile)>;

// Downloads `url` into `file`. When `file` already holds bytes, asks for the
// rest with a range request; a server that sends the whole body instead
// starts the file over. Fails once the file would exceed `maxBytes` (0: no
// limit). A failed transfer keeps what arrived; when `resumable` says so, a
// later call continues it.
FetchResult downloadFile(const std::string& url, const std::filesystem::path& file,
                         uint64_t maxBytes, const ProgressFn& progress,
                         const FetchOptions& options = {});

// `link` resolved against `base`, as a browser would; an absolute link stays
// as it is. Empty when either is not a valid URL, or without libcurl.
std::string resolveUrl(const std::string& base, const std::string& link);

// A plain link: a file name of unreserved characters (letters, digits and
// "-._~"), neither "." nor "..". Every plain link resolves against a base
// to the same folder URL followed by the link itself, so that folder URL,
// worked out once, resolves them all without libcurl.
bool isPlainLink(std::string_view link);

// That folder URL of `base`: resolveUrl(base, link) == plainLinkPrefix(base)
// + link for every plain link. Empty when it cannot be told.
std::string plainLinkPrefix(const std::string& base);

// The URL's scheme in lower case ("http", "file"), empty when it has none.
std::string urlScheme(const std::string& url);

}  // namespace quor
