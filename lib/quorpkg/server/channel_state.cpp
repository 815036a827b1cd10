#include "quorpkg/server/channel_state.h"

#include <sys/stat.h>

#include <algorithm>
#include <charconv>
#include <system_error>

#include "base/file_util.h"
#include "base/key_value.h"
#include "base/layout.h"
#include "base/utc_time.h"
#include "quorpkg/package/md5.h"

namespace fs = std::filesystem;

namespace quor {
namespace {

constexpr const char* kStateFile = "state";
constexpr const char* kCatalogPrefix = "catalog.";

std::string rootName(uint64_t version) {
    return "root." + std::to_string(version);
}

std::string timestampName(uint64_t version) {
    return "timestamp." + std::to_string(version);
}

std::optional<uint64_t> number(const std::string* text) {
    uint64_t value = 0;
    if (!text || text->empty()) return std::nullopt;
    auto [end, ec] = std::from_chars(text->data(), text->data() + text->size(), value);
    if (ec != std::errc() || end != text->data() + text->size()) return std::nullopt;
    return value;
}

int64_t time(const KeyValues& pairs, const char* key) {
    const std::string* text = findValue(pairs, key);
    return text ? parseUtc(*text).value_or(0) : 0;
}

std::string text(const KeyValues& pairs, const char* key) {
    const std::string* value = findValue(pairs, key);
    return value ? *value : std::string();
}

// "<version> <sha256> <expires>"
std::optional<KeptCatalog> keptCatalog(const std::string& value) {
    const size_t first = value.find(' '), second = value.find(' ', first + 1);
    if (first == std::string::npos || second == std::string::npos) return std::nullopt;
    const std::string version = value.substr(0, first);
    KeptCatalog out;
    out.sha256 = value.substr(first + 1, second - first - 1);
    std::optional<uint64_t> parsed = number(&version);
    std::optional<int64_t> expires = parseUtc(value.substr(second + 1));
    if (!parsed || !expires || !isLowerHex(out.sha256, 64)) return std::nullopt;
    out.version = *parsed;
    out.expires = *expires;
    return out;
}

}  // namespace

ChannelState readChannelState(const std::string& pin, std::string& why) {
    ChannelState state;
    state.pin = pin;
    const fs::path dir = layout::channelStateDir(pin);
    std::optional<std::string> stateText = readRegularFile(dir / kStateFile);
    if (!stateText) return state;
    std::optional<KeyValues> pairs = parseKeyValues(*stateText);
    auto dropped = [&](const std::string& reason) {
        why = (dir / kStateFile).string() + ": " + reason + "; starting again from the pinned root";
        ChannelState fresh;
        fresh.pin = pin;
        return fresh;
    };
    if (!pairs) return dropped("not a state file");
    std::optional<uint64_t> rootVersion = number(findValue(*pairs, "root"));
    std::optional<std::string> rootText =
        rootVersion ? readRegularFile(dir / rootName(*rootVersion)) : std::nullopt;
    std::string problem;
    // Checked in full when it was kept: read without loading libcrypto.
    std::optional<SourceRoot> root = rootText ? readRoot(*rootText, problem, false) : std::nullopt;
    if (!root || root->version != *rootVersion)
        return dropped("its root cannot be read " + problem);
    state.root = std::make_shared<const SourceRoot>(std::move(*root));
    if (std::optional<uint64_t> version = number(findValue(*pairs, "timestamp"))) {
        std::optional<std::string> timestampText = readRegularFile(dir / timestampName(*version));
        std::optional<SourceTimestamp> timestamp =
            timestampText ? readTimestamp(*timestampText, problem) : std::nullopt;
        if (!timestamp || timestamp->version != *version)
            return dropped("its timestamp cannot be read " + problem);
        state.timestamp = std::make_shared<const SourceTimestamp>(std::move(*timestamp));
    }
    state.issuedFloor = time(*pairs, "issued_floor");
    state.rootChecked = time(*pairs, "root_checked");
    state.retryAfter = time(*pairs, "retry_after");
    state.etag = text(*pairs, "etag");
    state.lastModified = text(*pairs, "last_modified");
    for (const auto& [key, value] : *pairs) {
        if (key.compare(0, 8, kCatalogPrefix) != 0) continue;
        if (std::optional<KeptCatalog> kept = keptCatalog(value))
            state.catalogs[key.substr(8)] = *kept;
    }
    return state;
}

bool writeChannelState(const ChannelState& state) {
    if (!state.root) return false;
    const fs::path dir = layout::channelStateDir(state.pin);
    std::error_code ec;
    fs::create_directories(dir, ec);
    if (ec) return false;
    KeyValues pairs = {{"source", state.root->source},
                       {"root", std::to_string(state.root->version)}};
    std::vector<std::string> keep = {kStateFile, rootName(state.root->version)};
    if (!writeFileAtomic(dir / keep.back(), state.root->text)) return false;
    if (state.timestamp) {
        keep.push_back(timestampName(state.timestamp->version));
        if (!writeFileAtomic(dir / keep.back(), state.timestamp->text)) return false;
        pairs.emplace_back("timestamp", std::to_string(state.timestamp->version));
    }
    auto addTime = [&](const char* key, int64_t value) {
        if (value != 0) pairs.emplace_back(key, formatUtc(value));
    };
    addTime("issued_floor", state.issuedFloor);
    addTime("root_checked", state.rootChecked);
    addTime("retry_after", state.retryAfter);
    if (!state.etag.empty()) pairs.emplace_back("etag", state.etag);
    if (!state.lastModified.empty()) pairs.emplace_back("last_modified", state.lastModified);
    for (const auto& [lang, kept] : state.catalogs)
        pairs.emplace_back(kCatalogPrefix + lang, std::to_string(kept.version) + " " + kept.sha256 +
                                                      " " + formatUtc(kept.expires));
    if (!writeFileAtomic(dir / kStateFile, formatKeyValues(pairs))) return false;
    // What the new state no longer names.
    for (const std::string& name : entriesOfType(dir, S_IFREG))
        if (std::find(keep.begin(), keep.end(), name) == keep.end()) fs::remove(dir / name, ec);
    return true;
}

}  // namespace quor
