#include "quorpkg/server/curl_api.h"

#include "base/dynamic_library.h"

namespace quor {
namespace {

// The runtime name of the libcurl our headers describe (ABI 4).
constexpr const char* kLibraryName = "libcurl.so.4";

bool bindCurl(void* library, CurlApi& api, std::string& error) {
    CURLcode (*globalInit)(long) = nullptr;
    const bool bound = bindFunction(library, "curl_global_init", globalInit) &&
                       bindFunction(library, "curl_easy_init", api.easy_init) &&
                       bindFunction(library, "curl_easy_cleanup", api.easy_cleanup) &&
                       bindFunction(library, "curl_easy_reset", api.easy_reset) &&
                       bindFunction(library, "curl_easy_setopt", api.easy_setopt) &&
                       bindFunction(library, "curl_easy_getinfo", api.easy_getinfo) &&
                       bindFunction(library, "curl_easy_perform", api.easy_perform) &&
                       bindFunction(library, "curl_easy_strerror", api.easy_strerror) &&
                       bindFunction(library, "curl_url", api.url) &&
                       bindFunction(library, "curl_url_cleanup", api.url_cleanup) &&
                       bindFunction(library, "curl_url_set", api.url_set) &&
                       bindFunction(library, "curl_url_get", api.url_get) &&
                       bindFunction(library, "curl_free", api.free) &&
                       bindFunction(library, "curl_slist_append", api.slist_append) &&
                       bindFunction(library, "curl_slist_free_all", api.slist_free_all);
    if (!bound) return false;
    if (globalInit(CURL_GLOBAL_DEFAULT) != CURLE_OK) {
        error = std::string("cannot initialise ") + kLibraryName;
        return false;
    }
    return true;
}

}  // namespace

const CurlApi* curlApi(std::string* error) {
    // A function-local static: loaded once, the first caller initialises it
    // while any others wait. Transfers may run until the process ends.
    static const LoadedLibrary<CurlApi> loaded = loadLibrary<CurlApi>(kLibraryName, bindCurl);
    return loadedApi(loaded, error);
}

}  // namespace quor
