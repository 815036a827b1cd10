// Shared libraries opened at run time by the few commands that need them
// (libcurl to download, libcrypto to hash and verify), so that the others
// do not pay for loading them at start-up. A library is opened once per
// process and never closed, and its functions are bound into a table.
#pragma once

#include <dlfcn.h>

#include <string>

namespace quor {

template <typename Api>
struct LoadedLibrary {
    Api api;
    bool ok = false;
    std::string error;
};

// Binds the function `symbol` of `library` to `fn`; false when it lacks it.
template <typename Fn>
bool bindFunction(void* library, const char* symbol, Fn& fn) {
    fn = reinterpret_cast<Fn>(::dlsym(library, symbol));
    return fn != nullptr;
}

// Opens `name` and has `bindAll(library, api, error)` fill the table (and
// initialise the library); `ok` only when both succeeded.
template <typename Api, typename BindAll>
LoadedLibrary<Api> loadLibrary(const char* name, BindAll bindAll) {
    LoadedLibrary<Api> loaded;
    void* library = ::dlopen(name, RTLD_NOW | RTLD_LOCAL);
    if (library == nullptr) {
        const char* why = ::dlerror();
        loaded.error = why ? why : std::string("cannot load ") + name;
        return loaded;
    }
    loaded.ok = bindAll(library, loaded.api, loaded.error);
    if (!loaded.ok && loaded.error.empty())
        loaded.error = std::string(name) + " lacks a function we need";
    return loaded;
}

// The table of a loaded library, or nullptr with the reason in `error`
// (when given).
template <typename Api>
const Api* loadedApi(const LoadedLibrary<Api>& loaded, std::string* error) {
    if (!loaded.ok && error) *error = loaded.error;
    return loaded.ok ? &loaded.api : nullptr;
}

}  // namespace quor
