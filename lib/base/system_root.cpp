#include "base/system_root.h"

#include <sys/stat.h>

#include <algorithm>
#include <cstdlib>

namespace fs = std::filesystem;

namespace quor {

static fs::path normalRoot(const char* value) {
    fs::path root = fs::absolute(value).lexically_normal();
    std::string text = root.string();
    while (text.size() > 1 && text.back() == '/') text.pop_back();
    return text;
}

fs::path rootDir() {
    const char* value = std::getenv("QUOR_ROOT");
    if (value == nullptr || *value == '\0') return "/";
    // Normalising costs more than the file operations of a lookup, and an
    // absolute value always normalises the same way: keep the last one per
    // thread. A relative value depends on the working directory.
    if (*value != '/') return normalRoot(value);
    thread_local std::string lastValue;
    thread_local fs::path lastRoot;
    if (lastRoot.empty() || lastValue != value) {
        lastRoot = normalRoot(value);
        lastValue = value;
    }
    return lastRoot;
}

bool rootExists() {
    struct stat st {};
    return ::stat(rootDir().c_str(), &st) == 0 && S_ISDIR(st.st_mode);
}

fs::path hostPath(std::string_view systemPath) {
    while (!systemPath.empty() && systemPath.front() == '/') systemPath.remove_prefix(1);
    fs::path root = rootDir();
    return systemPath.empty() ? root : root / systemPath;
}

bool isUnderRoot(const fs::path& path) {
    const fs::path root = rootDir();
    if (root == "/") return true;
    const fs::path normal = fs::absolute(path).lexically_normal();
    auto [rootEnd, pathIt] = std::mismatch(root.begin(), root.end(), normal.begin(), normal.end());
    return rootEnd == root.end();
}

}  // namespace quor
