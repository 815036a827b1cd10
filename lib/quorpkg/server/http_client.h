// Fetching from package servers through libcurl: http, https and file://
// URLs, with a connect time-out, a stall time-out and no retries, so that a
// dead server fails a request in bounded time. libcurl is loaded on first
// use; without it every request fails with `noClient` set.
#pragma once

#include <cstdint>
#include <filesystem>
#include <functional>
#include <string>
#include <string_view>

namespace quor {

enum class FetchStatus {
    kOk,
    kNotFound,  // HTTP 404/410, or a missing file:// file
    kFailed,    // no connection, a time-out, another HTTP error, a local write error
};

struct FetchResult {
    FetchStatus status = FetchStatus::kFailed;
    std::string error;       // what went wrong, for the logs
    bool resumable = false;  // a broken transfer: what arrived is good to continue
    bool noClient = false;   // libcurl could not be loaded: no server is reachable
    bool ok() const { return status == FetchStatus::kOk; }
};

// The body of `url`, at most `maxBytes` of it (a longer one fails).
FetchResult fetchText(const std::string& url, std::string& out, uint64_t maxBytes);

// Called as bytes arrive with the size of the file so far.
using ProgressFn = std::function<void(uint64_t bytesInFile)>;

// Downloads `url` into `file`. When `file` already holds bytes, asks for the
// rest with a range request; a server that sends the whole body instead
// starts the file over. Fails once the file would exceed `maxBytes` (0: no
// limit). A failed transfer keeps what arrived; when `resumable` says so, a
// later call continues it.
FetchResult downloadFile(const std::string& url, const std::filesystem::path& file,
                         uint64_t maxBytes, const ProgressFn& progress);

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
