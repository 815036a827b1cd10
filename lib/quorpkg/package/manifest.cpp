#include "quorpkg/package/manifest.h"

#include <charconv>
#include <set>

#include "base/result.h"
#include "quorpkg/package/version.h"

namespace quor {
namespace {

bool isAlnum(char c) {
    return (c >= 'a' && c <= 'z') || (c >= 'A' && c <= 'Z') || (c >= '0' && c <= '9');
}

std::string_view trim(std::string_view s) {
    const char* blanks = " \t";
    size_t begin = s.find_first_not_of(blanks);
    if (begin == std::string_view::npos) return {};
    return s.substr(begin, s.find_last_not_of(blanks) - begin + 1);
}

// Parses a ':'-joined list of dependency items; an empty value is no item.
bool parseDependencyList(std::string_view value, std::vector<Dependency>& out) {
    if (trim(value).empty()) return true;
    while (true) {
        size_t colon = value.find(':');
        std::optional<Dependency> item = parseDependency(value.substr(0, colon));
        if (!item) return false;
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

// Reads the known keys of `pairs` into `out`; false with a reason otherwise.
bool readFields(const KeyValues& pairs, Manifest& out, std::string& why) {
    auto get = [&](std::string_view key) -> std::string {
        const std::string* value = findValue(pairs, key);
        return value ? *value : std::string();
    };
    out.name = get("package");
    out.version = get("version");
    if (out.name.empty()) return why = "missing package name", false;
    if (!isValidPackageName(out.name)) return why = "invalid package name: " + out.name, false;
    if (out.version.empty()) return why = "missing version", false;
    if (!isValidVersion(out.version)) return why = "invalid version: " + out.version, false;
    out.displayname = get("displayname");
    if (out.displayname.empty()) out.displayname = out.name;
    out.description = get("description");
    out.maintainer = get("maintainer");
    out.manager_url = get("manager_url");
    out.ui_dir = get("ui_dir");
    if (!parsePort(get("admin_port"), out.admin_port)) return why = "invalid admin_port", false;
    std::string beta = get("beta");
    if (beta != "" && beta != "yes" && beta != "no") return why = "beta must be yes or no", false;
    out.beta = beta == "yes";
    if (!parseDependencyList(get("install_dep_packages"), out.depends))
        return why = "invalid install_dep_packages", false;
    if (!parseDependencyList(get("install_conflict_packages"), out.conflicts))
        return why = "invalid install_conflict_packages", false;
    out.services = splitBlanks(get("install_dep_services"));
    out.firmware = get("firmware");
    if (!out.firmware.empty() && !isValidVersion(out.firmware))
        return why = "invalid firmware version", false;
    out.arch = get("arch");
    if (!isValidArch(out.arch)) return why = "invalid arch", false;
    out.checksum = lowerHex(get("checksum"));
    if (!out.checksum.empty() &&
        (out.checksum.size() != 32 ||
         out.checksum.find_first_not_of("0123456789abcdef") != std::string::npos))
        return why = "checksum must be 32 hex digits", false;
    out.sha256 = lowerHex(get("sha256"));
    if (!out.sha256.empty() &&
        (out.sha256.size() != 64 ||
         out.sha256.find_first_not_of("0123456789abcdef") != std::string::npos))
        return why = "sha256 must be 64 hex digits", false;
    return true;
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
        std::set<std::string_view> seen;
        for (const auto& pair : *pairs) {
            if (!seen.insert(pair.first).second) {
                why = "duplicate key: " + pair.first;
                ok = false;
                break;
            }
        }
    }
    if (ok) {
        parsed.pairs = std::move(*pairs);
        ok = readFields(parsed.pairs, parsed, why);
    }
    if (!ok) {
        if (error) *error = "invalid manifest: " + why;
        return kBadManifest;
    }
    out = std::move(parsed);
    return kOk;
}

std::string formatManifest(const Manifest& manifest) {
    return formatKeyValues(manifest.pairs);
}

std::optional<Dependency> parseDependency(std::string_view item) {
    item = trim(item);
    size_t opAt = item.find_first_of("<>=");
    Dependency dep;
    dep.name = std::string(trim(item.substr(0, opAt)));
    if (!isValidPackageName(dep.name)) return std::nullopt;
    if (opAt == std::string_view::npos) return dep;
    std::string_view rest = item.substr(opAt);
    size_t opLength = rest.size() >= 2 && rest[1] == '=' && rest[0] != '=' ? 2 : 1;
    dep.op = std::string(rest.substr(0, opLength));
    dep.version = std::string(trim(rest.substr(opLength)));
    if (!isValidVersion(dep.version)) return std::nullopt;
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
