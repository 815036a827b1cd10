#include "quorpkg/store/origin.h"

#include "base/file_util.h"
#include "base/key_value.h"
#include "base/layout.h"

namespace quor {

PackageOrigin readOrigin(const std::string& name) {
    PackageOrigin origin;
    std::optional<std::string> text = readRegularFile(layout::originFile(name));
    std::optional<KeyValues> pairs = text ? parseKeyValues(*text) : std::nullopt;
    if (!pairs) return origin;
    if (const std::string* source = findValue(*pairs, "source"); source && !source->empty())
        origin.source = *source;
    if (const std::string* key = findValue(*pairs, "key")) origin.key = *key;
    return origin;
}

std::string formatOrigin(const PackageOrigin& origin) {
    KeyValues pairs = {{"source", origin.source}};
    if (!origin.key.empty()) pairs.emplace_back("key", origin.key);
    return formatKeyValues(pairs);
}

}  // namespace quor
