#include "base/system_root.h"

#include <algorithm>
#include <cstdlib>

namespace fs = std::filesystem;

namespace quor {

fs::path rootDir() {
    const char* value = std::getenv("QUOR_ROOT");
    if (value == nullptr || *value == '\0') return "/";
    fs::path root = fs::absolute(value).lexically_normal();
    std::string text = root.string();
    while (text.size() > 1 && text.back() == '/') text.pop_back();
    return text;
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
