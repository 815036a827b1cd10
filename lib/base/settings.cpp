#include "base/settings.h"

#include <sys/utsname.h>

#include <algorithm>
#include <charconv>

#include "base/file_util.h"
#include "base/key_value.h"
#include "base/layout.h"

namespace quor {
namespace {

template <typename Number>
void readNumber(const KeyValues& pairs, const char* key, Number& out) {
    if (const std::string* value = findValue(pairs, key)) {
        Number parsed{};
        auto [end, ec] = std::from_chars(value->data(), value->data() + value->size(), parsed);
        if (ec == std::errc() && end == value->data() + value->size() && parsed >= 0) out = parsed;
    }
}

void readText(const KeyValues& pairs, const char* key, std::string& out) {
    if (const std::string* value = findValue(pairs, key)) out = *value;
}

}  // namespace

Settings loadSettings() {
    Settings settings;
    std::optional<std::string> text = readFile(layout::settingsFile());
    if (!text) return settings;
    std::optional<KeyValues> pairs = parseKeyValues(*text);
    if (!pairs) return settings;
    readText(*pairs, "default_volume", settings.default_volume);
    readText(*pairs, "auto_upgrade", settings.auto_upgrade);
    readNumber(*pairs, "script_timeout", settings.script_timeout);
    readNumber(*pairs, "lock_timeout", settings.lock_timeout);
    readNumber(*pairs, "parallel_jobs", settings.parallel_jobs);
    readNumber(*pairs, "catalog_ttl", settings.catalog_ttl);
    readText(*pairs, "firmware_version", settings.firmware_version);
    readText(*pairs, "arch", settings.arch);
    return settings;
}

std::string machineArch() {
    struct utsname name {};
    return ::uname(&name) == 0 ? name.machine : "unknown";
}

std::string effectiveArch(const Settings& settings) {
    return settings.arch.empty() ? machineArch() : settings.arch;
}

int effectiveParallelJobs(const Settings& settings, int graphWidth) {
    if (settings.parallel_jobs > 0) return settings.parallel_jobs;
    return std::clamp(graphWidth, 1, kMaxDefaultJobs);
}

}  // namespace quor
