#include "base/settings.h"

#include <sys/utsname.h>

#include <algorithm>
#include <charconv>

#include "base/file_util.h"
#include "base/key_value.h"
#include "base/layout.h"

namespace quor {
namespace {

// A whole decimal number, clamped to [low, high]: a value beyond the range
// (however many digits) means its end, so that no setting can overflow the
// time and size computations made from it. Anything else (a sign, a unit,
// blanks, an empty value) keeps the default.
template <typename Number>
void readNumber(const KeyValues& pairs, const char* key, Number low, Number high, Number& out) {
    const std::string* value = findValue(pairs, key);
    if (value == nullptr || value->empty()) return;
    Number parsed{};
    auto [end, ec] = std::from_chars(value->data(), value->data() + value->size(), parsed);
    if (end != value->data() + value->size() || (*value)[0] == '-') return;
    if (ec == std::errc::result_out_of_range)
        out = high;
    else if (ec == std::errc())
        out = std::clamp(parsed, low, high);
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
    readNumber(*pairs, "script_timeout", 0, 86400, settings.script_timeout);
    readNumber(*pairs, "lock_timeout", 0, 3600, settings.lock_timeout);
    readNumber(*pairs, "parallel_jobs", 0, 256, settings.parallel_jobs);
    readNumber(*pairs, "catalog_ttl", 0L, 366L * 86400, settings.catalog_ttl);
    readNumber(*pairs, "catalog_max_mib", 1, 1024, settings.catalog_max_mib);
    readText(*pairs, "firmware_version", settings.firmware_version);
    readText(*pairs, "arch", settings.arch);
    readText(*pairs, "require_signature", settings.require_signature);
    readNumber(*pairs, "fetch_timeout", 1, 3600, settings.fetch_timeout);
    readNumber(*pairs, "expiry_slack", 0, 168, settings.expiry_slack);
    readNumber(*pairs, "download_rate_kib", 0L, 1048576L, settings.download_rate_kib);
    if (const std::string* phased = findValue(*pairs, "phased_updates"))
        settings.phased_updates = *phased != "no";
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
