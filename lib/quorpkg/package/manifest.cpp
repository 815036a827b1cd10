#include "quorpkg/package/manifest.h"

#include <algorithm>
#include <charconv>
#include <iterator>
#include <map>
#include <set>

#include "base/near_miss.h"
#include "base/result.h"
#include "base/text.h"
#include "quorpkg/package/version.h"

namespace quor {
namespace {

bool isAlnum(char c) {
    return (c >= 'a' && c <= 'z') || (c >= 'A' && c <= 'Z') || (c >= '0' && c <= '9');
}

std::string_view trim(std::string_view s) {
    return trimBlanks(s, " \t");
}

// A list written the way Debian packages write theirs ("a (>= 1.0), b"):
// the reason, with the list as this format writes it when each item can be
// put so ("a>=1.0:b").
std::optional<std::string> dpkgStyleList(std::string_view value) {
    if (value.find('|') != std::string_view::npos)
        return "alternatives (a | b) cannot be written: name one package";
    if (value.find_first_of(",()") == std::string_view::npos) return std::nullopt;
    std::string rewritten;
    bool complete = true;
    for (size_t begin = 0; begin <= value.size();) {
        size_t comma = std::min(value.find(',', begin), value.size());
        std::string item;
        for (char c : value.substr(begin, comma - begin))
            if (c != '(' && c != ')' && c != ' ' && c != '\t') item += c;
        // dpkg's strictly-greater and strictly-less.
        for (auto [from, to] : {std::pair{">>", ">"}, std::pair{"<<", "<"}})
            if (size_t at = item.find(from); at != std::string::npos) item.replace(at, 2, to);
        complete = complete && parseDependency(item).has_value();
        rewritten += (rewritten.empty() ? "" : ":") + item;
        begin = comma + 1;
    }
    std::string why =
        "a Debian-style list; items are joined by ':' and written name>=version, "
        "without parentheses";
    if (complete) why += ": write \"" + rewritten + "\"";
    return why;
}

// Parses a ':'-joined list of dependency items; an empty value is no item.
// A bad item stops the list with a reason naming it by position and text.
bool parseDependencyList(std::string_view value, std::vector<Dependency>& out, std::string& why) {
    if (trim(value).empty()) return true;
    if (std::optional<std::string> dpkg = dpkgStyleList(value)) {
        why = std::move(*dpkg);
        return false;
    }
    for (int position = 1;; ++position) {
        size_t colon = value.find(':');
        std::string_view text = value.substr(0, colon);
        std::string itemWhy;
        std::optional<Dependency> item = parseDependency(text, &itemWhy);
        if (!item) {
            why = "item " + std::to_string(position) + " \"" + std::string(trim(text)) +
                  "\": " + itemWhy;
            return false;
        }
        out.push_back(std::move(*item));
        if (colon == std::string_view::npos) return true;
        value.remove_prefix(colon + 1);
    }
}

std::vector<std::string> splitBlanks(std::string_view value) {
    std::vector<std::string> words;
    size_t i = 0;
    while (i < value.size()) {
        size_t begin = value.find_first_not_of(" \t", i);
        if (begin == std::string_view::npos) break;
        size_t end = value.find_first_of(" \t", begin);
        if (end == std::string_view::npos) end = value.size();
        words.emplace_back(value.substr(begin, end - begin));
        i = end;
    }
    return words;
}

bool parsePort(std::string_view value, int& port) {
    if (value.empty()) return true;
    auto [end, ec] = std::from_chars(value.data(), value.data() + value.size(), port);
    return ec == std::errc() && end == value.data() + value.size() && port >= 0 && port <= 65535;
}

// The keys the platform and the package tools read; others are kept as
// they are.
constexpr std::string_view kKnownKeys[] = {"package",
                                           "version",
                                           "displayname",
                                           "description",
                                           "maintainer",
                                           "manager_url",
                                           "admin_port",
                                           "ui_dir",
                                           "beta",
                                           "important",
                                           "install_dep_packages",
                                           "install_conflict_packages",
                                           "install_dep_services",
                                           "firmware",
                                           "arch",
                                           "checksum",
                                           "sha256"};

bool isKnownKey(std::string_view key) {
    return std::find(std::begin(kKnownKeys), std::end(kKnownKeys), key) != std::end(kKnownKeys);
}

bool isValidArch(std::string_view arch) {
    for (char c : arch)
        if (!isAlnum(c) && c != '_' && c != '-') return false;
    return true;
}

std::string lowerHex(std::string text) {
    for (char& c : text)
        if (c >= 'A' && c <= 'F') c = static_cast<char>(c - 'A' + 'a');
    return text;
}

bool isHexDigest(const std::string& text, size_t digits) {
    return text.size() == digits && text.find_first_not_of("0123456789abcdef") == std::string::npos;
}

// Checks the known keys of `pairs` and reads them into `out`. Every broken
// rule is reported, in the order of the checks, with the key it concerns;
// the manifest is valid when nothing is reported. `report` is called as
// report(std::string_view key, std::string message).
template <typename ReportProblem>
void readFields(const KeyValues& pairs, Manifest& out, const ReportProblem& report) {
    auto get = [&](std::string_view key) -> std::string {
        const std::string* value = findValue(pairs, key);
        return value ? *value : std::string();
    };
    out.name = get("package");
    out.version = get("version");
    if (out.name.empty())
        report("package", "missing package name");
    else if (!isValidPackageName(out.name))
        report("package", "invalid package name: " + out.name);
    if (out.version.empty())
        report("version", "missing version");
    else if (!isValidVersion(out.version))
        report("version", "invalid version: " + out.version);
    out.displayname = get("displayname");
    if (out.displayname.empty()) out.displayname = out.name;
    out.description = get("description");
    out.maintainer = get("maintainer");
    out.manager_url = get("manager_url");
    out.ui_dir = get("ui_dir");
    if (!parsePort(get("admin_port"), out.admin_port)) report("admin_port", "invalid admin_port");
    std::string beta = get("beta");
    if (beta != "" && beta != "yes" && beta != "no") report("beta", "beta must be yes or no");
    out.beta = beta == "yes";
    std::string why;
    if (!parseDependencyList(get("install_dep_packages"), out.depends, why))
        report("install_dep_packages", "invalid install_dep_packages: " + why);
    if (!parseDependencyList(get("install_conflict_packages"), out.conflicts, why))
        report("install_conflict_packages", "invalid install_conflict_packages: " + why);
    out.services = splitBlanks(get("install_dep_services"));
    out.firmware = get("firmware");
    if (!out.firmware.empty() && !isValidVersion(out.firmware))
        report("firmware", "invalid firmware version");
    out.arch = get("arch");
    if (!isValidArch(out.arch)) report("arch", "invalid arch");
    out.checksum = lowerHex(get("checksum"));
    if (!out.checksum.empty() && !isHexDigest(out.checksum, 32))
        report("checksum", "checksum must be 32 hex digits");
    out.sha256 = lowerHex(get("sha256"));
    if (!out.sha256.empty() && !isHexDigest(out.sha256, 64))
        report("sha256", "sha256 must be 64 hex digits");
}

}  // namespace

bool isValidPackageName(std::string_view name) {
    if (name.empty() || name.size() > 64 || !isAlnum(name.front())) return false;
    for (char c : name)
        if (!isAlnum(c) && c != '.' && c != '_' && c != '+' && c != '-') return false;
    return true;
}

bool isValidVersion(std::string_view version) {
    if (version.empty()) return false;
    for (char c : version)
        if (!isAlnum(c) && c != '.' && c != '+' && c != '~' && c != '_' && c != '-') return false;
    return true;
}

int parseManifest(std::string_view text, Manifest& out, std::string* error) {
    std::string why;
    std::optional<KeyValues> pairs = parseKeyValues(text, &why);
    Manifest parsed;
    bool ok = pairs.has_value();
    if (ok) {
        // A key given twice leaves the reader to guess which one counts.
        std::vector<std::string_view> keys;
        keys.reserve(pairs->size());
        for (const auto& pair : *pairs) keys.push_back(pair.first);
        std::sort(keys.begin(), keys.end());
        if (std::adjacent_find(keys.begin(), keys.end()) != keys.end()) {
            // Named by its first repeat in file order.
            std::set<std::string_view> seen;
            for (const auto& pair : *pairs) {
                if (!seen.insert(pair.first).second) {
                    why = "duplicate key: " + pair.first;
                    break;
                }
            }
            ok = false;
        }
    }
    if (ok) {
        parsed.pairs = std::move(*pairs);
        readFields(parsed.pairs, parsed, [&](std::string_view, std::string message) {
            if (ok) why = std::move(message);
            ok = false;
        });
    }
    if (!ok) {
        if (error) *error = "invalid manifest: " + why;
        return kBadManifest;
    }
    out = std::move(parsed);
    return kOk;
}

std::vector<ManifestProblem> checkManifest(std::string_view text) {
    std::vector<ManifestProblem> problems;
    // Each line on its own, so that one bad line does not hide the others.
    KeyValues pairs;
    std::map<std::string, size_t, std::less<>> lineOfKey;
    for (KeyValueLine& line : readKeyValueLines(text)) {
        if (!line.problem.empty()) problems.push_back({line.number, std::move(line.problem)});
        if (!line.read) continue;
        auto [at, added] = lineOfKey.emplace(line.key, line.number);
        if (!added) {
            problems.push_back({line.number, "duplicate key: " + line.key + " (first on line " +
                                                 std::to_string(at->second) + ")"});
            continue;
        }
        if (!isKnownKey(line.key)) {
            // A slip of a known key would be kept as an unknown one: the
            // package would install without what the key says.
            std::string_view meant = nearMiss(line.key, kKnownKeys);
            if (meant.empty())
                problems.push_back({line.number, "unknown key: " + line.key, true});
            else
                problems.push_back({line.number, "unknown key: " + line.key + ", did you mean " +
                                                     std::string(meant) +
                                                     "? (devices ignore unknown keys)"});
        } else if (line.key == "important" && line.value != "yes" && line.value != "no") {
            problems.push_back({line.number, "important should be yes or no", true});
        }
        pairs.emplace_back(std::move(line.key), std::move(line.value));
    }
    Manifest ignored;
    readFields(pairs, ignored, [&](std::string_view key, std::string message) {
        auto at = lineOfKey.find(key);
        problems.push_back({at == lineOfKey.end() ? 0 : at->second, std::move(message)});
    });
    std::stable_sort(
        problems.begin(), problems.end(),
        [](const ManifestProblem& a, const ManifestProblem& b) { return a.line < b.line; });
    return problems;
}

std::string formatManifest(const Manifest& manifest) {
    return formatKeyValues(manifest.pairs);
}

std::optional<Dependency> parseDependency(std::string_view item, std::string* why) {
    auto refuse = [&](std::string reason) -> std::optional<Dependency> {
        if (why) *why = std::move(reason);
        return std::nullopt;
    };
    item = trim(item);
    size_t opAt = item.find_first_of("<>=");
    Dependency dep;
    dep.name = std::string(trim(item.substr(0, opAt)));
    if (item.empty()) return refuse("empty item");
    if (dep.name.empty()) return refuse("no package name");
    if (!isValidPackageName(dep.name)) return refuse("invalid package name: " + dep.name);
    if (opAt == std::string_view::npos) return dep;
    std::string_view rest = item.substr(opAt);
    size_t opLength = rest.size() >= 2 && rest[1] == '=' && rest[0] != '=' ? 2 : 1;
    dep.op = std::string(rest.substr(0, opLength));
    dep.version = std::string(trim(rest.substr(opLength)));
    if (dep.version.empty()) return refuse("no version after " + dep.op);
    if (!isValidVersion(dep.version))
        return refuse("invalid version: " + dep.version + " (operators are >=, <=, >, < and =)");
    return dep;
}

int checkPlatformFit(const Manifest& manifest, const Settings& settings) {
    if (!manifest.arch.empty() && manifest.arch != "noarch" &&
        manifest.arch != effectiveArch(settings))
        return refuse(kWrongArch, manifest.name + " is built for " + manifest.arch +
                                      ", this device is " + effectiveArch(settings));
    if (!manifest.firmware.empty() &&
        compareVersions(settings.firmware_version, manifest.firmware) < 0)
        return refuse(kFirmwareTooOld, manifest.name + " needs firmware " + manifest.firmware +
                                           ", this device runs " + settings.firmware_version);
    return kOk;
}

}  // namespace quor
