#include "quorpkg/package/channel_metadata.h"

#include <fnmatch.h>

#include <algorithm>
#include <charconv>
#include <set>

#include "base/utc_time.h"
#include "quorpkg/package/manifest.h"
#include "quorpkg/package/md5.h"

namespace quor {
namespace {

using Fields = std::vector<std::string>;

// Versions, sizes and thresholds: decimal, no sign, no leading zeros, and
// small enough that no later sum overflows.
std::optional<uint64_t> number(std::string_view text) {
    uint64_t value = 0;
    if (text.empty() || (text.size() > 1 && text[0] == '0')) return std::nullopt;
    auto [end, ec] = std::from_chars(text.data(), text.data() + text.size(), value);
    if (ec != std::errc() || end != text.data() + text.size() || value > (uint64_t{1} << 53))
        return std::nullopt;
    return value;
}

bool isLanguage(std::string_view lang) {
    return !lang.empty() && lang.size() <= 16 &&
           std::all_of(lang.begin(), lang.end(),
                       [](unsigned char c) { return std::isalnum(c) || c == '_' || c == '-'; });
}

// Reads the fields of one statement, refusing at the first malformed one;
// each reader returns false with the reason set.
class FieldReader {
public:
    FieldReader(const ChannelStatement& statement, std::string& why)
        : statement_(statement), why_(why) {}

    // The one line of `name` with `words` words after the name.
    const Fields* single(const char* name, size_t words) {
        std::vector<const Fields*> lines = statement_.all(name);
        if (lines.size() != 1)
            return bad(lines.empty() ? std::string("no ") + name + " line"
                                     : std::string("more than one ") + name + " line");
        return shape(lines.front(), words);
    }

    const Fields* shape(const Fields* line, size_t words) {
        if (line->size() != words + 1)
            return bad("the " + line->front() + " line needs " + std::to_string(words) +
                       " words after its name");
        return line;
    }

    bool text(const char* name, std::string& out, bool (*valid)(std::string_view)) {
        const Fields* line = single(name, 1);
        if (!line) return false;
        if (!valid((*line)[1])) return fail(std::string("not a valid ") + name + ": " + (*line)[1]);
        out = (*line)[1];
        return true;
    }

    bool count(const char* name, uint64_t& out) {
        const Fields* line = single(name, 1);
        return line && readNumber((*line)[1], name, out);
    }

    bool time(const char* name, int64_t& out) {
        const Fields* line = single(name, 1);
        if (!line) return false;
        std::optional<int64_t> when = parseUtc((*line)[1]);
        if (!when)
            return fail(std::string("not a UTC time in the ") + name + " line: " + (*line)[1]);
        out = *when;
        return true;
    }

    bool readNumber(const std::string& word, const std::string& what, uint64_t& out) {
        std::optional<uint64_t> value = number(word);
        if (!value) return fail("not a number in the " + what + " line: " + word);
        out = *value;
        return true;
    }

    bool fail(std::string reason) {
        why_ = std::move(reason);
        return false;
    }

private:
    const Fields* bad(std::string reason) {
        why_ = std::move(reason);
        return nullptr;
    }

    const ChannelStatement& statement_;
    std::string& why_;
};

bool readKeys(const ChannelStatement& statement, FieldReader& reader, bool checkIds,
              KeyTable& keys) {
    for (const Fields* line : statement.all("key")) {
        if (!reader.shape(line, 3)) return false;
        const std::string& id = (*line)[1];
        if ((*line)[2] != "ed25519") return reader.fail("key " + id + " is not an ed25519 key");
        std::optional<std::string> raw =
            isLowerHex((*line)[3], 64) ? fromHex((*line)[3]) : std::nullopt;
        if (!raw || !isLowerHex(id, 16)) return reader.fail("key " + id + " is not a public key");
        // A key's id is the start of its sha256, as signature lines name it.
        if (checkIds && dataSha256Hex(*raw).substr(0, 16) != id)
            return reader.fail("key " + id + " does not have that id");
        if (!keys.emplace(id, std::move(*raw)).second)
            return reader.fail("key " + id + " is listed twice");
    }
    return true;
}

bool readRole(const ChannelStatement& statement, FieldReader& reader, const KeyTable& keys,
              const std::string& role, RoleKeys& out) {
    const Fields* line = nullptr;
    for (const Fields* candidate : statement.all("role")) {
        if (candidate->size() < 2 || (*candidate)[1] != role) continue;
        if (line) return reader.fail("the " + role + " role is listed twice");
        line = candidate;
    }
    if (!line) return reader.fail("no " + role + " role");
    uint64_t threshold = 0;
    if (line->size() < 4 || !reader.readNumber((*line)[2], "role " + role, threshold))
        return reader.fail("the " + role + " role needs a threshold and keys");
    out.keyIds.assign(line->begin() + 3, line->end());
    std::set<std::string> distinct(out.keyIds.begin(), out.keyIds.end());
    if (distinct.size() != out.keyIds.size())
        return reader.fail("the " + role + " role lists a key twice");
    for (const std::string& id : out.keyIds)
        if (!keys.count(id)) return reader.fail("the " + role + " role names unknown key " + id);
    if (threshold < 1 || threshold > out.keyIds.size())
        return reader.fail("the " + role + " role's threshold " + std::to_string(threshold) +
                           " is not between 1 and its " + std::to_string(out.keyIds.size()) +
                           " keys");
    out.threshold = static_cast<int>(threshold);
    return true;
}

bool readPublishers(const ChannelStatement& statement, FieldReader& reader, const KeyTable& keys,
                    std::vector<PublisherRule>& out) {
    for (const Fields* line : statement.all("publisher")) {
        if (line->size() < 3) return reader.fail("a publisher line needs a key and names");
        PublisherRule rule{(*line)[1], {line->begin() + 2, line->end()}};
        if (!keys.count(rule.keyId)) return reader.fail("publisher key " + rule.keyId + " unknown");
        for (const std::string& pattern : rule.patterns)
            if (!isValidNamePattern(pattern))
                return reader.fail("not a package name pattern: " + pattern);
        out.push_back(std::move(rule));
    }
    return true;
}

std::string roleLine(const char* name, const RoleKeys& role) {
    std::string line = std::string("role ") + name + " " + std::to_string(role.threshold);
    for (const std::string& id : role.keyIds) line += " " + id;
    return line + "\n";
}

}  // namespace

bool SourceRoot::allows(std::string_view keyId, std::string_view name) const {
    for (const PublisherRule& rule : publishers) {
        if (rule.keyId != keyId) continue;
        for (const std::string& pattern : rule.patterns)
            if (nameMatches(pattern, name)) return true;
    }
    return false;
}

const CatalogRef::Patch* CatalogRef::patchFrom(uint64_t from) const {
    for (const Patch& patch : patches)
        if (patch.from == from) return &patch;
    return nullptr;
}

const CatalogRef* SourceTimestamp::catalogFor(std::string_view lang) const {
    for (std::string_view wanted : {lang, std::string_view(defaultLang)})
        for (const CatalogRef& ref : catalogs)
            if (ref.lang == wanted) return &ref;
    return nullptr;
}

std::optional<SourceRoot> readRoot(std::string_view text, std::string& why, bool checkKeyIds) {
    std::optional<ChannelStatement> statement = parseStatement(text, ChannelKind::kRoot, why);
    if (!statement) return std::nullopt;
    SourceRoot root;
    FieldReader reader(*statement, why);
    if (!reader.text("source", root.source, isValidSourceId) ||
        !reader.count("version", root.version) || !reader.time("expires", root.expires) ||
        !readKeys(*statement, reader, checkKeyIds, root.keys) ||
        !readRole(*statement, reader, root.keys, "root", root.root) ||
        !readRole(*statement, reader, root.keys, "timestamp", root.timestamp) ||
        !readRole(*statement, reader, root.keys, "catalog", root.catalog) ||
        !readPublishers(*statement, reader, root.keys, root.publishers))
        return std::nullopt;
    if (root.version == 0) {
        why = "root versions start at 1";
        return std::nullopt;
    }
    root.statement = std::move(*statement);
    root.text = std::string(text);
    return root;
}

std::optional<SourceTimestamp> readTimestamp(std::string_view text, std::string& why) {
    std::optional<ChannelStatement> statement = parseStatement(text, ChannelKind::kTimestamp, why);
    if (!statement) return std::nullopt;
    SourceTimestamp out;
    FieldReader reader(*statement, why);
    if (!reader.text("source", out.source, isValidSourceId) ||
        !reader.count("version", out.version) || !reader.time("issued", out.issued) ||
        !reader.time("expires", out.expires) || !reader.count("root", out.rootVersion))
        return std::nullopt;
    out.defaultLang = "enu";
    if (!statement->all("default").empty() && !reader.text("default", out.defaultLang, isLanguage))
        return std::nullopt;
    for (const Fields* line : statement->all("catalog")) {
        CatalogRef ref;
        if (!reader.shape(line, 4) || !reader.readNumber((*line)[2], "catalog", ref.version) ||
            !reader.readNumber((*line)[3], "catalog", ref.size))
            return std::nullopt;
        ref.lang = (*line)[1];
        ref.sha256 = (*line)[4];
        const bool repeated =
            std::any_of(out.catalogs.begin(), out.catalogs.end(),
                        [&](const CatalogRef& other) { return other.lang == ref.lang; });
        if (!isLanguage(ref.lang) || repeated || !isLowerHex(ref.sha256, 64)) {
            why = "a malformed or repeated catalog line for " + ref.lang;
            return std::nullopt;
        }
        out.catalogs.push_back(std::move(ref));
    }
    if (out.catalogs.empty()) {
        why = "the timestamp names no catalog";
        return std::nullopt;
    }
    // The smaller forms of each catalog: "compressed <lang> <size>",
    // "patch <lang> <from version> <size>".
    auto catalogOf = [&](const std::string& lang) -> CatalogRef* {
        for (CatalogRef& ref : out.catalogs)
            if (ref.lang == lang) return &ref;
        return nullptr;
    };
    for (const Fields* line : statement->all("compressed")) {
        if (!reader.shape(line, 2)) return std::nullopt;
        CatalogRef* ref = catalogOf((*line)[1]);
        if (!ref) {
            why = "a compressed line for a catalog the timestamp does not name";
            return std::nullopt;
        }
        if (!reader.readNumber((*line)[2], "compressed", ref->compressedSize)) return std::nullopt;
    }
    for (const Fields* line : statement->all("patch")) {
        if (!reader.shape(line, 3)) return std::nullopt;
        CatalogRef* ref = catalogOf((*line)[1]);
        CatalogRef::Patch patch;
        if (!ref || !reader.readNumber((*line)[2], "patch", patch.from) ||
            !reader.readNumber((*line)[3], "patch", patch.size) || patch.from >= ref->version) {
            why = "a patch line for no catalog, or from a version not before it";
            return std::nullopt;
        }
        ref->patches.push_back(patch);
    }
    out.statement = std::move(*statement);
    out.text = std::string(text);
    return out;
}

std::optional<CatalogSeal> readCatalogSeal(std::string_view text, std::string& why) {
    std::optional<ChannelStatement> statement = parseStatement(text, ChannelKind::kCatalog, why);
    if (!statement) return std::nullopt;
    CatalogSeal seal;
    FieldReader reader(*statement, why);
    if (!reader.text("source", seal.source, isValidSourceId) ||
        !reader.text("lang", seal.lang, isLanguage) || !reader.count("version", seal.version) ||
        !reader.time("expires", seal.expires))
        return std::nullopt;
    const Fields* sha = reader.single("sha256", 1);
    if (!sha) return std::nullopt;
    if (!isLowerHex((*sha)[1], 64)) {
        why = "not a sha256: " + (*sha)[1];
        return std::nullopt;
    }
    seal.sha256 = (*sha)[1];
    seal.statement = std::move(*statement);
    return seal;
}

std::string formatRoot(const SourceRoot& root) {
    std::string out = statementTitle(ChannelKind::kRoot);
    out += "source " + root.source + "\n";
    out += "version " + std::to_string(root.version) + "\n";
    out += "expires " + formatUtc(root.expires) + "\n";
    for (const auto& [id, key] : root.keys) out += "key " + id + " ed25519 " + toHex(key) + "\n";
    out += roleLine("root", root.root);
    out += roleLine("timestamp", root.timestamp);
    out += roleLine("catalog", root.catalog);
    for (const PublisherRule& rule : root.publishers) {
        out += "publisher " + rule.keyId;
        for (const std::string& pattern : rule.patterns) out += " " + pattern;
        out += "\n";
    }
    return out;
}

std::string formatTimestamp(const SourceTimestamp& timestamp) {
    std::string out = statementTitle(ChannelKind::kTimestamp);
    out += "source " + timestamp.source + "\n";
    out += "version " + std::to_string(timestamp.version) + "\n";
    out += "issued " + formatUtc(timestamp.issued) + "\n";
    out += "expires " + formatUtc(timestamp.expires) + "\n";
    out += "root " + std::to_string(timestamp.rootVersion) + "\n";
    out += "default " + timestamp.defaultLang + "\n";
    for (const CatalogRef& ref : timestamp.catalogs) {
        out += "catalog " + ref.lang + " " + std::to_string(ref.version) + " " +
               std::to_string(ref.size) + " " + ref.sha256 + "\n";
        if (ref.compressedSize != 0)
            out += "compressed " + ref.lang + " " + std::to_string(ref.compressedSize) + "\n";
        for (const CatalogRef::Patch& patch : ref.patches)
            out += "patch " + ref.lang + " " + std::to_string(patch.from) + " " +
                   std::to_string(patch.size) + "\n";
    }
    return out;
}

std::string formatCatalogSeal(const CatalogSeal& seal) {
    std::string out = statementTitle(ChannelKind::kCatalog);
    out += "source " + seal.source + "\n";
    out += "lang " + seal.lang + "\n";
    out += "version " + std::to_string(seal.version) + "\n";
    out += "expires " + formatUtc(seal.expires) + "\n";
    out += "sha256 " + seal.sha256 + "\n";
    return out;
}

bool isValidSourceId(std::string_view id) {
    if (id.empty() || id.size() > 64 || !std::isalnum(static_cast<unsigned char>(id[0])))
        return false;
    return std::all_of(id.begin(), id.end(), [](unsigned char c) {
        return std::isalnum(c) || c == '.' || c == '_' || c == '-';
    });
}

bool isValidNamePattern(std::string_view pattern) {
    if (pattern.empty() || pattern.size() > 64) return false;
    return std::all_of(pattern.begin(), pattern.end(), [](unsigned char c) {
        return std::isalnum(c) || c == '.' || c == '_' || c == '+' || c == '-' || c == '*';
    });
}

bool nameMatches(std::string_view pattern, std::string_view name) {
    // Patterns hold no '?', '[' or '\\' (isValidNamePattern), so fnmatch's
    // only wildcard here is '*'.
    return isValidNamePattern(pattern) &&
           ::fnmatch(std::string(pattern).c_str(), std::string(name).c_str(), 0) == 0;
}

}  // namespace quor
