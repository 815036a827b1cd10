#include "quorpkg/server/curl_api.h"

#include <dlfcn.h>

namespace quor {
namespace {

// The runtime name of the libcurl our headers describe (ABI 4).
constexpr const char* kLibraryName = "libcurl.so.4";

template <typename Fn>
bool bind(void* library, const char* name, Fn& fn) {
    fn = reinterpret_cast<Fn>(::dlsym(library, name));
    return fn != nullptr;
}

struct Loaded {
    CurlApi api;
    bool ok = false;
    std::string error;
};

Loaded load() {
    Loaded loaded;
    // Never closed: transfers may run until the process ends.
    void* library = ::dlopen(kLibraryName, RTLD_NOW | RTLD_LOCAL);
    if (library == nullptr) {
        const char* why = ::dlerror();
        loaded.error = why ? why : std::string("cannot load ") + kLibraryName;
        return loaded;
    }
    CurlApi& api = loaded.api;
    CURLcode (*globalInit)(long) = nullptr;
    const bool bound =
        bind(library, "curl_global_init", globalInit) &&
        bind(library, "curl_easy_init", api.easy_init) &&
        bind(library, "curl_easy_cleanup", api.easy_cleanup) &&
        bind(library, "curl_easy_setopt", api.easy_setopt) &&
        bind(library, "curl_easy_getinfo", api.easy_getinfo) &&
        bind(library, "curl_easy_perform", api.easy_perform) &&
        bind(library, "curl_easy_strerror", api.easy_strerror) &&
        bind(library, "curl_url", api.url) && bind(library, "curl_url_cleanup", api.url_cleanup) &&
        bind(library, "curl_url_set", api.url_set) && bind(library, "curl_url_get", api.url_get) &&
        bind(library, "curl_free", api.free);
    if (!bound) {
        loaded.error = std::string(kLibraryName) + " lacks a function we need";
        return loaded;
    }
    if (globalInit(CURL_GLOBAL_DEFAULT) != CURLE_OK) {
        loaded.error = std::string("cannot initialise ") + kLibraryName;
        return loaded;
    }
    loaded.ok = true;
    return loaded;
}

}  // namespace

const CurlApi* curlApi(std::string* error) {
    // A function-local static: loaded once, the first caller initialises it
    // while any others wait.
    static const Loaded loaded = load();
    if (!loaded.ok && error) *error = loaded.error;
    return loaded.ok ? &loaded.api : nullptr;
}

}  // namespace quor
