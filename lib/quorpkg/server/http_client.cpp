#include "quorpkg/server/http_client.h"

#include <fcntl.h>
#include <unistd.h>

#include <algorithm>
#include <cctype>
#include <cerrno>
#include <ctime>
#include <memory>
#include <mutex>

#include "base/file_util.h"
#include "base/text.h"
#include "quorpkg/server/curl_api.h"

namespace quor {
namespace {

constexpr long kConnectTimeoutSeconds = 15;
// A transfer slower than this for kStallSeconds is as good as dead.
constexpr long kLowSpeedBytes = 1024;
constexpr long kStallSeconds = 30;
constexpr long kMaxRedirects = 5;
constexpr long kHttpNotModified = 304;
constexpr long kHttpRangeNotSatisfiable = 416;

// The library; callers checked with `loaded` that it is there.
const CurlApi& api() {
    return *curlApi();
}

struct UrlDeleter {
    void operator()(CURLU* url) const { api().url_cleanup(url); }
};

struct CurlStringDeleter {
    void operator()(char* text) const { api().free(text); }
};

struct HeaderListDeleter {
    void operator()(curl_slist* list) const { api().slist_free_all(list); }
};
using HeaderList = std::unique_ptr<curl_slist, HeaderListDeleter>;

FetchResult failure(std::string why) {
    FetchResult result;
    result.error = std::move(why);
    return result;
}

// False, with the failure in `result`, when libcurl cannot be loaded.
bool loaded(FetchResult& result) {
    std::string why;
    if (curlApi(&why)) return true;
    result = failure("no HTTP client: " + why);
    result.noClient = true;
    return false;
}

// The process's transfer handle, lent to one request at a time: libcurl
// keeps its connections open between requests, so that every request of a
// run to one server goes over one connection. A request made while it is
// lent (another thread) gets a handle of its own. A forked child never
// touches its parent's handle: the connections are the parent's.
class Transfer {
public:
    Transfer() {
        if (shared().mutex.try_lock()) {
            lock_ = std::unique_lock(shared().mutex, std::adopt_lock);
            Shared& pool = shared();
            if (pool.handle && pool.owner != ::getpid()) pool.handle = nullptr;  // left alone
            if (!pool.handle) {
                pool.handle = api().easy_init();
                pool.owner = ::getpid();
            } else {
                api().easy_reset(pool.handle);
            }
            curl_ = pool.handle;
        } else {
            curl_ = own_ = api().easy_init();
        }
    }
    ~Transfer() {
        if (own_) api().easy_cleanup(own_);
    }
    Transfer(const Transfer&) = delete;
    Transfer& operator=(const Transfer&) = delete;

    CURL* get() const { return curl_; }
    explicit operator bool() const { return curl_ != nullptr; }

private:
    struct Shared {
        std::mutex mutex;
        CURL* handle = nullptr;  // lives as long as the process
        pid_t owner = 0;
    };
    static Shared& shared() {
        static Shared pool;
        return pool;
    }

    std::unique_lock<std::mutex> lock_;
    CURL* curl_ = nullptr;
    CURL* own_ = nullptr;
};

// Seconds to wait from a Retry-After value: delta-seconds or an HTTP date.
int64_t retryDelay(const std::string& value) {
    if (!value.empty() && value.size() < 10 &&
        value.find_first_not_of("0123456789") == std::string::npos)
        return std::stoll(value);
    std::tm when{};
    const char* end = ::strptime(value.c_str(), "%a, %d %b %Y %H:%M:%S GMT", &when);
    if (end == nullptr || *end != '\0') return 0;
    return std::max<int64_t>(0, static_cast<int64_t>(timegm(&when)) - std::time(nullptr));
}

// The validators and Retry-After of the last response (a redirect's
// headers are dropped when the next response begins).
size_t onHeader(char* data, size_t, size_t size, void* user) {
    auto* result = static_cast<FetchResult*>(user);
    const std::string_view line(data, size);
    if (line.substr(0, 5) == "HTTP/") {
        result->etag.clear();
        result->lastModified.clear();
        result->retryAfter = 0;
        return size;
    }
    const size_t colon = line.find(':');
    if (colon == std::string_view::npos) return size;
    std::string name(line.substr(0, colon));
    for (char& c : name) c = static_cast<char>(std::tolower(static_cast<unsigned char>(c)));
    const std::string value(trimBlanks(line.substr(colon + 1)));
    if (name == "etag")
        result->etag = value;
    else if (name == "last-modified")
        result->lastModified = value;
    else if (name == "retry-after")
        result->retryAfter = retryDelay(value);
    return size;
}

// The options every request shares. Redirects may only lead to http(s),
// and from https only to https: a web server must not point us at local
// files, nor a network path strip the encryption.
void prepare(CURL* c, const std::string& url, char* errorBuffer, const FetchOptions& options,
             FetchResult& result, HeaderList& headers) {
    api().easy_setopt(c, CURLOPT_URL, url.c_str());
    api().easy_setopt(c, CURLOPT_ERRORBUFFER, errorBuffer);
    api().easy_setopt(c, CURLOPT_NOSIGNAL, 1L);
    api().easy_setopt(c, CURLOPT_CONNECTTIMEOUT, kConnectTimeoutSeconds);
    api().easy_setopt(c, CURLOPT_TIMEOUT,
                      static_cast<long>(std::max<int64_t>(1, options.deadlineSeconds)));
    long lowSpeed = kLowSpeedBytes;
    if (options.maxBytesPerSecond != 0)
        lowSpeed = std::clamp<long>(static_cast<long>(options.maxBytesPerSecond / 2), 1, lowSpeed);
    api().easy_setopt(c, CURLOPT_LOW_SPEED_LIMIT, lowSpeed);
    api().easy_setopt(c, CURLOPT_LOW_SPEED_TIME, kStallSeconds);
    if (options.maxBytesPerSecond != 0)
        api().easy_setopt(c, CURLOPT_MAX_RECV_SPEED_LARGE,
                          static_cast<curl_off_t>(options.maxBytesPerSecond));
    api().easy_setopt(c, CURLOPT_FOLLOWLOCATION, 1L);
    api().easy_setopt(c, CURLOPT_MAXREDIRS, kMaxRedirects);
    api().easy_setopt(c, CURLOPT_PROTOCOLS_STR, "http,https,file");
    api().easy_setopt(c, CURLOPT_REDIR_PROTOCOLS_STR,
                      urlScheme(url) == "https" ? "https" : "http,https");
    api().easy_setopt(c, CURLOPT_USERAGENT, "quorpkg");
    api().easy_setopt(c, CURLOPT_HEADERFUNCTION, onHeader);
    api().easy_setopt(c, CURLOPT_HEADERDATA, &result);
    for (const auto& [name, value] :
         {std::pair<const char*, const std::string&>{"If-None-Match", options.etag},
          {"If-Modified-Since", options.lastModified}}) {
        if (value.empty()) continue;
        const std::string line = std::string(name) + ": " + value;
        curl_slist* longer = api().slist_append(headers.get(), line.c_str());
        if (longer) {
            headers.release();
            headers.reset(longer);
        }
    }
    if (headers) api().easy_setopt(c, CURLOPT_HTTPHEADER, headers.get());
}

// Classifies a finished transfer. file:// transfers have no status code.
void classify(CURL* curl, CURLcode code, const char* errorBuffer, FetchResult& result) {
    long status = 0;
    api().easy_getinfo(curl, CURLINFO_RESPONSE_CODE, &status);
    result.httpStatus = status;
    result.status = FetchStatus::kFailed;
    if (code == CURLE_FILE_COULDNT_READ_FILE || status == 404 || status == 410) {
        result.status = FetchStatus::kNotFound;
        result.error =
            status != 0 ? "HTTP status " + std::to_string(status) + " (not found)" : "not found";
    } else if (code != CURLE_OK) {
        result.error = *errorBuffer ? errorBuffer : api().easy_strerror(code);
        result.resumable = code != CURLE_WRITE_ERROR;
    } else if (status == kHttpNotModified) {
        result.status = FetchStatus::kNotModified;
    } else if (status >= 300) {
        result.error = "HTTP status " + std::to_string(status);
    } else {
        result.status = FetchStatus::kOk;
    }
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
        if (status >= 300) sink->errorBody = true;
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
    if (!writeAll(sink->fd, std::string_view(data, size))) {
        sink->writeFailed = true;
        return 0;
    }
    sink->have += size;
    if (*sink->progress) (*sink->progress)(sink->have);
    return size;
}

FetchResult downloadOnce(const std::string& url, int fd, uint64_t maxBytes,
                         const ProgressFn& progress, const FetchOptions& options,
                         bool& rangeRefused) {
    char errorBuffer[CURL_ERROR_SIZE] = "";
    FetchResult result;
    Transfer transfer;
    if (!transfer) return failure("cannot create a transfer");
    off_t have = ::lseek(fd, 0, SEEK_END);
    if (have < 0) return failure("cannot seek the download file");
    HeaderList headers;
    prepare(transfer.get(), url, errorBuffer, options, result, headers);
    FileSink sink{transfer.get(), fd, static_cast<uint64_t>(have), maxBytes, &progress};
    api().easy_setopt(transfer.get(), CURLOPT_WRITEFUNCTION, onFileData);
    api().easy_setopt(transfer.get(), CURLOPT_WRITEDATA, &sink);
    if (have > 0) api().easy_setopt(transfer.get(), CURLOPT_RESUME_FROM_LARGE, curl_off_t{have});
    CURLcode code = api().easy_perform(transfer.get());
    long status = 0;
    api().easy_getinfo(transfer.get(), CURLINFO_RESPONSE_CODE, &status);
    rangeRefused = have > 0 && (status == kHttpRangeNotSatisfiable ||
                                code == CURLE_BAD_DOWNLOAD_RESUME || code == CURLE_RANGE_ERROR);
    // An empty whole body after a range request still replaces the file.
    if (code == CURLE_OK && status == 200 && !sink.started && sink.have > 0 && !startOver(sink))
        sink.writeFailed = true;
    if (sink.tooLong) return failure("the server sent more than expected");
    if (sink.writeFailed) return failure("cannot write the download file");
    classify(transfer.get(), code, errorBuffer, result);
    if (sink.errorBody) result.resumable = false;
    return result;
}

}  // namespace

int64_t FetchResult::retryDelay() const {
    if (httpStatus != 429 && httpStatus != 503) return 0;
    return std::clamp<int64_t>(retryAfter, 0, kMaxRetryDelay);
}

FetchResult fetchText(const std::string& url, std::string& out, uint64_t maxBytes,
                      const FetchOptions& options) {
    out.clear();
    if (FetchResult missing; !loaded(missing)) return missing;
    char errorBuffer[CURL_ERROR_SIZE] = "";
    FetchResult result;
    Transfer transfer;
    if (!transfer) return failure("cannot create a transfer");
    HeaderList headers;
    prepare(transfer.get(), url, errorBuffer, options, result, headers);
    TextSink sink{&out, maxBytes};
    api().easy_setopt(transfer.get(), CURLOPT_WRITEFUNCTION, onText);
    api().easy_setopt(transfer.get(), CURLOPT_WRITEDATA, &sink);
    CURLcode code = api().easy_perform(transfer.get());
    classify(transfer.get(), code, errorBuffer, result);
    if (code == CURLE_WRITE_ERROR)
        result.error = "the answer is longer than " + std::to_string(maxBytes) + " bytes";
    if (code == CURLE_OPERATION_TIMEDOUT)
        result.error = "no answer within " + std::to_string(options.deadlineSeconds) + " s (" +
                       result.error + ")";
    if (!result.ok()) out.clear();
    return result;
}

FetchResult downloadFile(const std::string& url, const std::filesystem::path& file,
                         uint64_t maxBytes, const ProgressFn& progress,
                         const FetchOptions& options) {
    if (FetchResult missing; !loaded(missing)) return missing;
    UniqueFd fd(::open(file.c_str(), O_WRONLY | O_CREAT | O_CLOEXEC, 0644));
    if (!fd) return failure("cannot open " + file.string());
    bool rangeRefused = false;
    FetchResult result = downloadOnce(url, fd.get(), maxBytes, progress, options, rangeRefused);
    // The kept part is not a prefix the server can continue: start over, once.
    if (rangeRefused) {
        if (::ftruncate(fd.get(), 0) != 0) return failure("cannot truncate");
        result = downloadOnce(url, fd.get(), maxBytes, progress, options, rangeRefused);
    }
    if (result.ok() && ::fsync(fd.get()) != 0) return failure("cannot flush " + file.string());
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
