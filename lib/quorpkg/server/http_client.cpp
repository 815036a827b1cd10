#include "quorpkg/server/http_client.h"

#include <fcntl.h>
#include <unistd.h>

#include <cctype>
#include <cerrno>
#include <memory>

#include "base/file_util.h"
#include "quorpkg/server/curl_api.h"

namespace quor {
namespace {

constexpr long kConnectTimeoutSeconds = 15;
// A transfer that moves less than one byte a second for this long is dead.
constexpr long kStallSeconds = 30;
constexpr long kMaxRedirects = 5;
constexpr long kHttpRangeNotSatisfiable = 416;

// The library; callers checked with `loaded` that it is there.
const CurlApi& api() {
    return *curlApi();
}

struct CurlDeleter {
    void operator()(CURL* curl) const { api().easy_cleanup(curl); }
};
using CurlHandle = std::unique_ptr<CURL, CurlDeleter>;

struct UrlDeleter {
    void operator()(CURLU* url) const { api().url_cleanup(url); }
};

struct CurlStringDeleter {
    void operator()(char* text) const { api().free(text); }
};

// False, with the failure in `result`, when libcurl cannot be loaded.
bool loaded(FetchResult& result) {
    std::string why;
    if (curlApi(&why)) return true;
    result = {FetchStatus::kFailed, "no HTTP client: " + why};
    result.noClient = true;
    return false;
}

// A handle with the options every request shares. Redirects may only lead
// to http(s): a web server must not point us at local files.
CurlHandle newHandle(const std::string& url, char* errorBuffer) {
    CurlHandle curl(api().easy_init());
    if (!curl) return curl;
    CURL* c = curl.get();
    api().easy_setopt(c, CURLOPT_URL, url.c_str());
    api().easy_setopt(c, CURLOPT_ERRORBUFFER, errorBuffer);
    api().easy_setopt(c, CURLOPT_NOSIGNAL, 1L);
    api().easy_setopt(c, CURLOPT_CONNECTTIMEOUT, kConnectTimeoutSeconds);
    api().easy_setopt(c, CURLOPT_LOW_SPEED_LIMIT, 1L);
    api().easy_setopt(c, CURLOPT_LOW_SPEED_TIME, kStallSeconds);
    api().easy_setopt(c, CURLOPT_FOLLOWLOCATION, 1L);
    api().easy_setopt(c, CURLOPT_MAXREDIRS, kMaxRedirects);
    api().easy_setopt(c, CURLOPT_PROTOCOLS_STR, "http,https,file");
    api().easy_setopt(c, CURLOPT_REDIR_PROTOCOLS_STR, "http,https");
    api().easy_setopt(c, CURLOPT_USERAGENT, "quorpkg");
    return curl;
}

// Classifies a finished transfer. file:// transfers have no status code.
FetchResult outcome(CURL* curl, CURLcode code, const char* errorBuffer) {
    FetchResult result;
    long status = 0;
    api().easy_getinfo(curl, CURLINFO_RESPONSE_CODE, &status);
    if (code == CURLE_FILE_COULDNT_READ_FILE || status == 404 || status == 410) {
        result.status = FetchStatus::kNotFound;
        result.error =
            status != 0 ? "HTTP status " + std::to_string(status) + " (not found)" : "not found";
    } else if (code != CURLE_OK) {
        result.error = *errorBuffer ? errorBuffer : api().easy_strerror(code);
        result.resumable = code != CURLE_WRITE_ERROR;
    } else if (status >= 400) {
        result.error = "HTTP status " + std::to_string(status);
    } else {
        result.status = FetchStatus::kOk;
    }
    return result;
}

struct TextSink {
    std::string* out;
    uint64_t maxBytes;
};

size_t onText(char* data, size_t, size_t size, void* user) {
    auto* sink = static_cast<TextSink*>(user);
    if (sink->out->size() + size > sink->maxBytes) return 0;  // fails the transfer
    sink->out->append(data, size);
    return size;
}

struct FileSink {
    CURL* curl;
    int fd;
    uint64_t have;
    uint64_t maxBytes;
    const ProgressFn* progress;
    bool started = false;
    bool errorBody = false;
    bool tooLong = false;
    bool writeFailed = false;
};

bool startOver(FileSink& sink) {
    sink.have = 0;
    return ::ftruncate(sink.fd, 0) == 0 && ::lseek(sink.fd, 0, SEEK_SET) == 0;
}

size_t onFileData(char* data, size_t, size_t size, void* user) {
    auto* sink = static_cast<FileSink*>(user);
    if (!sink->started) {
        sink->started = true;
        long status = 0;
        api().easy_getinfo(sink->curl, CURLINFO_RESPONSE_CODE, &status);
        // An error page is not package data; a whole body after a range
        // request means the server does not resume.
        if (status >= 400) sink->errorBody = true;
        if (status == 200 && sink->have > 0 && !startOver(*sink)) {
            sink->writeFailed = true;
            return 0;
        }
    }
    if (sink->errorBody) return size;
    if (sink->maxBytes != 0 && sink->have + size > sink->maxBytes) {
        sink->tooLong = true;
        return 0;
    }
    for (size_t done = 0; done < size;) {
        ssize_t n = ::write(sink->fd, data + done, size - done);
        if (n < 0 && errno == EINTR) continue;
        if (n < 0) {
            sink->writeFailed = true;
            return 0;
        }
        done += static_cast<size_t>(n);
    }
    sink->have += size;
    if (*sink->progress) (*sink->progress)(sink->have);
    return size;
}

FetchResult downloadOnce(const std::string& url, int fd, uint64_t maxBytes,
                         const ProgressFn& progress, bool& rangeRefused) {
    char errorBuffer[CURL_ERROR_SIZE] = "";
    CurlHandle curl = newHandle(url, errorBuffer);
    if (!curl) return {FetchStatus::kFailed, "cannot create a transfer"};
    off_t have = ::lseek(fd, 0, SEEK_END);
    if (have < 0) return {FetchStatus::kFailed, "cannot seek the download file"};
    FileSink sink{curl.get(), fd, static_cast<uint64_t>(have), maxBytes, &progress};
    api().easy_setopt(curl.get(), CURLOPT_WRITEFUNCTION, onFileData);
    api().easy_setopt(curl.get(), CURLOPT_WRITEDATA, &sink);
    if (have > 0) api().easy_setopt(curl.get(), CURLOPT_RESUME_FROM_LARGE, curl_off_t{have});
    CURLcode code = api().easy_perform(curl.get());
    long status = 0;
    api().easy_getinfo(curl.get(), CURLINFO_RESPONSE_CODE, &status);
    rangeRefused = have > 0 && (status == kHttpRangeNotSatisfiable ||
                                code == CURLE_BAD_DOWNLOAD_RESUME || code == CURLE_RANGE_ERROR);
    // An empty whole body after a range request still replaces the file.
    if (code == CURLE_OK && status == 200 && !sink.started && sink.have > 0 && !startOver(sink))
        sink.writeFailed = true;
    if (sink.tooLong) return {FetchStatus::kFailed, "the server sent more than expected"};
    if (sink.writeFailed) return {FetchStatus::kFailed, "cannot write the download file"};
    FetchResult result = outcome(curl.get(), code, errorBuffer);
    if (sink.errorBody) result.resumable = false;
    return result;
}

}  // namespace

FetchResult fetchText(const std::string& url, std::string& out, uint64_t maxBytes) {
    out.clear();
    if (FetchResult missing; !loaded(missing)) return missing;
    char errorBuffer[CURL_ERROR_SIZE] = "";
    CurlHandle curl = newHandle(url, errorBuffer);
    if (!curl) return {FetchStatus::kFailed, "cannot create a transfer"};
    TextSink sink{&out, maxBytes};
    api().easy_setopt(curl.get(), CURLOPT_WRITEFUNCTION, onText);
    api().easy_setopt(curl.get(), CURLOPT_WRITEDATA, &sink);
    CURLcode code = api().easy_perform(curl.get());
    FetchResult result = outcome(curl.get(), code, errorBuffer);
    if (code == CURLE_WRITE_ERROR) result.error = "the answer is too long";
    if (!result.ok()) out.clear();
    return result;
}

FetchResult downloadFile(const std::string& url, const std::filesystem::path& file,
                         uint64_t maxBytes, const ProgressFn& progress) {
    if (FetchResult missing; !loaded(missing)) return missing;
    UniqueFd fd(::open(file.c_str(), O_WRONLY | O_CREAT | O_CLOEXEC, 0644));
    if (!fd) return {FetchStatus::kFailed, "cannot open " + file.string()};
    bool rangeRefused = false;
    FetchResult result = downloadOnce(url, fd.get(), maxBytes, progress, rangeRefused);
    // The kept part is not a prefix the server can continue: start over, once.
    if (rangeRefused) {
        if (::ftruncate(fd.get(), 0) != 0) return {FetchStatus::kFailed, "cannot truncate"};
        result = downloadOnce(url, fd.get(), maxBytes, progress, rangeRefused);
    }
    if (result.ok() && ::fsync(fd.get()) != 0)
        return {FetchStatus::kFailed, "cannot flush " + file.string()};
    return result;
}

std::string resolveUrl(const std::string& base, const std::string& link) {
    if (!curlApi()) return {};
    std::unique_ptr<CURLU, UrlDeleter> url(api().url());
    if (!url || api().url_set(url.get(), CURLUPART_URL, base.c_str(), 0) != CURLUE_OK ||
        api().url_set(url.get(), CURLUPART_URL, link.c_str(), 0) != CURLUE_OK)
        return {};
    char* text = nullptr;
    if (api().url_get(url.get(), CURLUPART_URL, &text, 0) != CURLUE_OK) return {};
    std::unique_ptr<char, CurlStringDeleter> owned(text);
    return owned.get();
}

bool isPlainLink(std::string_view link) {
    if (link.empty() || link == "." || link == "..") return false;
    for (char c : link) {
        bool unreserved = (c >= 'a' && c <= 'z') || (c >= 'A' && c <= 'Z') ||
                          (c >= '0' && c <= '9') || c == '-' || c == '.' || c == '_' || c == '~';
        if (!unreserved) return false;
    }
    return true;
}

std::string plainLinkPrefix(const std::string& base) {
    std::string probe = resolveUrl(base, "a");
    if (probe.size() < 2 || probe.compare(probe.size() - 2, 2, "/a") != 0) return {};
    probe.pop_back();
    return probe;
}

std::string urlScheme(const std::string& url) {
    size_t colon = url.find(':');
    if (colon == std::string::npos || colon == 0) return {};
    std::string scheme;
    for (size_t i = 0; i < colon; ++i) {
        unsigned char c = static_cast<unsigned char>(url[i]);
        if (!std::isalnum(c) && c != '+' && c != '-' && c != '.') return {};
        scheme += static_cast<char>(std::tolower(c));
    }
    return scheme;
}

}  // namespace quor
