#include "base/settings.h"

#include <sys/utsname.h>

#include <algorithm>
#include <array>
#include <charconv>
#include <map>
#include <string>
#include <type_traits>
#include <variant>

#include "base/file_util.h"
#include "base/key_value.h"
#include "base/layout.h"
#include "base/near_miss.h"
#include "base/operation_log.h"

namespace quor {
namespace {

// One setting. The field's type says how its value is read: text as it is,
// a number (int, long) as a whole decimal clamped to [low, high], a bool as
// yes or no; text with `accepted` words takes only those words. `accepted`
// is a number's unit, for messages. The default is the field's initial
// value in Settings.
struct Setting {
    std::string_view key;
    std::variant<std::string Settings::*, int Settings::*, long Settings::*, bool Settings::*>
        field;
    long low = 0;
    long high = 0;
    std::string_view accepted;
    // A security setting: a value or line that cannot be read counts as
    // "yes" instead of the default.
    bool failClosed = false;
};

template <typename Field>
constexpr Setting number(std::string_view key, Field Settings::*field, long low, long high,
                         std::string_view unit) {
    return {key, field, low, high, unit, false};
}
constexpr Setting text(std::string_view key, std::string Settings::*field) {
    return {key, field, 0, 0, {}, false};
}
constexpr Setting words(std::string_view key, std::string Settings::*field,
                        std::string_view accepted, bool failClosed = false) {
    return {key, field, 0, 0, accepted, failClosed};
}
constexpr Setting yesNo(std::string_view key, bool Settings::*field) {
    return {key, field, 0, 0, {}, false};
}

// Every range keeps the time and size computations made from a setting far
// from overflow.
constexpr Setting kSettings[] = {
    text("default_volume", &Settings::default_volume),
    words("auto_upgrade", &Settings::auto_upgrade, "none important all"),
    number("script_timeout", &Settings::script_timeout, 0, 86400, "seconds"),
    number("lock_timeout", &Settings::lock_timeout, 0, 3600, "seconds"),
    number("parallel_jobs", &Settings::parallel_jobs, 0, 256, "jobs"),
    number("catalog_ttl", &Settings::catalog_ttl, 0, 366L * 86400, "seconds"),
    number("catalog_max_mib", &Settings::catalog_max_mib, 1, 1024, "MiB"),
    number("fetch_timeout", &Settings::fetch_timeout, 1, 3600, "seconds"),
    number("expiry_slack", &Settings::expiry_slack, 0, 168, "hours"),
    yesNo("phased_updates", &Settings::phased_updates),
    number("download_rate_kib", &Settings::download_rate_kib, 0, 1048576, "KiB per second"),
    text("firmware_version", &Settings::firmware_version),
    text("arch", &Settings::arch),
    words("require_signature", &Settings::require_signature, "yes no", true),
};

constexpr std::array kKeys = [] {
    std::array<std::string_view, std::size(kSettings)> keys{};
    for (size_t i = 0; i < keys.size(); ++i) keys[i] = kSettings[i].key;
    return keys;
}();

const Setting* findSetting(std::string_view key) {
    for (const Setting& setting : kSettings)
        if (setting.key == key) return &setting;
    return nullptr;
}

// "none, important or all" from "none important all".
std::string wordList(std::string_view words) {
    std::string out;
    while (!words.empty()) {
        size_t blank = words.find(' ');
        std::string_view word = words.substr(0, blank);
        words = blank == std::string_view::npos ? std::string_view{} : words.substr(blank + 1);
        if (!out.empty()) out += words.empty() ? " or " : ", ";
        out += word;
    }
    return out;
}

bool isWord(std::string_view words, std::string_view value) {
    while (!words.empty()) {
        size_t blank = words.find(' ');
        if (words.substr(0, blank) == value) return true;
        words = blank == std::string_view::npos ? std::string_view{} : words.substr(blank + 1);
    }
    return false;
}

std::string shown(const std::string& value) {
    return value.empty() ? "empty" : value;
}

// Reads `value` into the setting's field of `out`; false with what happened
// in `note` when it was not taken as written (then the default or, for a
// number out of range, the range's end holds).
bool apply(const Setting& setting, const std::string& value, Settings& out, std::string& note) {
    const std::string quoted = std::string(setting.key) + ": \"" + value + "\" ";
    auto defaultHolds = [&](std::string what, std::string defaultValue) {
        note = quoted + what + "; " +
               (setting.failClosed ? "it counts as yes"
                                   : "the default " + shown(defaultValue) + " holds");
        return false;
    };
    return std::visit(
        [&](auto field) {
            using Field = std::remove_reference_t<decltype(out.*field)>;
            const Settings defaults;
            if constexpr (std::is_same_v<Field, std::string>) {
                if (setting.accepted.empty() || value.empty() || isWord(setting.accepted, value)) {
                    out.*field = value.empty() ? defaults.*field : value;
                    return true;
                }
                return defaultHolds("is not " + wordList(setting.accepted), defaults.*field);
            } else if constexpr (std::is_same_v<Field, bool>) {
                if (value.empty() || value == "yes" || value == "no") {
                    out.*field = value.empty() ? defaults.*field : value == "yes";
                    return true;
                }
                return defaultHolds("is not yes or no", defaults.*field ? "yes" : "no");
            } else {
                if (value.empty()) return true;
                // Any number of digits: one too long for any integer type is
                // beyond the range's upper end all the same.
                long long number = 0;
                auto [end, ec] = std::from_chars(value.data(), value.data() + value.size(), number);
                const std::string unit(setting.accepted);
                if (end != value.data() + value.size() || value[0] == '-' ||
                    (ec != std::errc() && ec != std::errc::result_out_of_range))
                    return defaultHolds("is not a whole number of " + unit + " from " +
                                            std::to_string(setting.low) + " to " +
                                            std::to_string(setting.high),
                                        std::to_string(defaults.*field));
                if (ec == std::errc::result_out_of_range) number = setting.high;
                out.*field =
                    static_cast<Field>(std::clamp<long long>(number, setting.low, setting.high));
                if (ec == std::errc() && number >= setting.low && number <= setting.high)
                    return true;
                const bool above = ec != std::errc() || number > setting.high;
                note = quoted + "is " + (above ? "more" : "less") + " than " +
                       std::to_string(above ? setting.high : setting.low) + " " + unit + "; " +
                       std::to_string(out.*field) + " holds";
                return false;
            }
        },
        setting.field);
}

// Whether a line that could not be read, or a key not known, was meant for
// require_signature: it is then taken as "yes".
bool meantForSignatures(std::string_view key) {
    std::string folded(key);
    std::transform(folded.begin(), folded.end(), folded.begin(),
                   [](unsigned char c) { return static_cast<char>(std::tolower(c)); });
    return folded.find("signat") != std::string::npos ||
           nearMiss(key, kKeys) == std::string_view("require_signature");
}

// Reads the lines of `file`'s `text` into `settings`, logging each line
// that is not taken as written.
void readSettings(const std::filesystem::path& file, const std::string& text, Settings& settings) {
    std::map<std::string_view, const KeyValueLine*> firstLine;
    bool signatureDoubt = false;
    const std::vector<KeyValueLine> lines = readKeyValueLines(text, {.trailingComments = true});
    for (const KeyValueLine& line : lines) {
        const Setting* setting = findSetting(line.key);
        // A line meant for require_signature that is not taken as written
        // turns signatures on rather than leaving them to the default.
        bool doubt = setting ? setting->failClosed : meantForSignatures(line.key);
        auto skipped = [&](const std::string& why) {
            return why + (doubt ? "; require_signature counts as yes" : "; the line is skipped");
        };
        std::string message;
        if (!line.problem.empty()) {
            message = skipped(line.problem);
        } else if (!setting) {
            std::string_view near = nearMiss(line.key, kKeys);
            std::string known;
            for (std::string_view key : kKeys)
                known += (known.empty() ? "" : ", ") + std::string(key);
            message = skipped("unknown setting " + line.key +
                              (near.empty() ? " (the settings are " + known + ")"
                                            : " (did you mean " + std::string(near) + "?)"));
        } else if (auto [first, added] = firstLine.emplace(setting->key, &line); !added) {
            // The same value twice changes nothing, even for a security setting.
            doubt = doubt && first->second->value != line.value;
            message = skipped(line.key + " is set again (first on line " +
                              std::to_string(first->second->number) + ", which holds)");
        } else if (apply(*setting, line.value, settings, message)) {
            continue;
        }
        signatureDoubt |= doubt;
        logFileProblem(file, line.number, message);
    }
    if (signatureDoubt) settings.require_signature = "yes";
}

}  // namespace

Settings loadSettings() {
    Settings settings;
    const std::filesystem::path file = layout::settingsFile();
    std::optional<std::string> text = readFile(file);
    if (!text) {
        std::error_code ec;
        if (!std::filesystem::exists(file, ec) && !ec) return settings;
        settings.require_signature = "yes";
        logFileProblem(file, 0,
                       "cannot be read: every setting keeps its default and require_signature "
                       "counts as yes");
        return settings;
    }
    readSettings(file, *text, settings);
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
