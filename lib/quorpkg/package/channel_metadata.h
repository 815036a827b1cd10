// What the signed files of a source's update channel say (docs/signing.md,
// "The update channel"): the root (who holds which role, which publisher
// key may sign which package names), the timestamp (what is current, and
// until when) and a catalog's seal (which catalog bytes, for which source,
// language and version, until when). Reading checks the form of a file
// only; whether its signatures suffice is channel_trust.h's business.
#pragma once

#include <cstdint>
#include <optional>
#include <string>
#include <string_view>
#include <vector>

#include "quorpkg/package/channel_statement.h"

namespace quor {

// The keys that hold one role, and how many of them must sign.
struct RoleKeys {
    int threshold = 0;
    std::vector<std::string> keyIds;
};

// A publisher key and the package names it may sign: names, or patterns
// where '*' stands for any run of characters ("acme-*").
struct PublisherRule {
    std::string keyId;
    std::vector<std::string> patterns;
};

struct SourceRoot {
    std::string source;  // the source's own id, e.g. "acme-stable"
    uint64_t version = 0;
    int64_t expires = 0;  // seconds since the epoch
    KeyTable keys;
    RoleKeys root;
    RoleKeys timestamp;
    RoleKeys catalog;
    std::vector<PublisherRule> publishers;
    ChannelStatement statement;  // as read: the signatures
    std::string text;            // the file's bytes

    // Whether the root lets `keyId` sign the package `name`.
    bool allows(std::string_view keyId, std::string_view name) const;
};

// One language's current catalog, as the timestamp names it, with the
// smaller forms the source also serves: the whole catalog compressed, and
// patches from earlier versions. Each decodes to the same bytes, checked
// against the sha256; the sizes bound what a device downloads.
struct CatalogRef {
    std::string lang;
    uint64_t version = 0;
    uint64_t size = 0;
    std::string sha256;           // of the catalog's JSON bytes
    uint64_t compressedSize = 0;  // 0: no .zst
    struct Patch {
        uint64_t from = 0;  // the version it applies to
        uint64_t size = 0;
    };
    std::vector<Patch> patches;

    const Patch* patchFrom(uint64_t version) const;
};

struct SourceTimestamp {
    std::string source;
    uint64_t version = 0;
    int64_t issued = 0;
    int64_t expires = 0;
    uint64_t rootVersion = 0;  // the newest root when it was signed
    std::string defaultLang;   // the catalog for a language the source lacks
    std::vector<CatalogRef> catalogs;
    ChannelStatement statement;
    std::string text;

    // The catalog of `lang`, else of the default language; null when the
    // timestamp names neither.
    const CatalogRef* catalogFor(std::string_view lang) const;
};

// The .sig beside a versioned catalog.
struct CatalogSeal {
    std::string source;
    std::string lang;
    uint64_t version = 0;
    int64_t expires = 0;
    std::string sha256;
    ChannelStatement statement;
};

// Each file's content read from its text; nothing, with the reason, when it
// is not a well-formed file of its kind. Lines of unknown fields are passed
// over, so that a later publisher tool can add some.
// `checkKeyIds` false skips what needs libcrypto, for a root the device
// checked when it kept it.
std::optional<SourceRoot> readRoot(std::string_view text, std::string& why,
                                   bool checkKeyIds = true);
std::optional<SourceTimestamp> readTimestamp(std::string_view text, std::string& why);
std::optional<CatalogSeal> readCatalogSeal(std::string_view text, std::string& why);

// The unsigned text of each (the publisher then adds signature lines).
std::string formatRoot(const SourceRoot& root);
std::string formatTimestamp(const SourceTimestamp& timestamp);
std::string formatCatalogSeal(const CatalogSeal& seal);

// A source id: letters, digits and "._-", starting with a letter or digit,
// at most 64 bytes.
bool isValidSourceId(std::string_view id);

// A publisher pattern: package-name characters and '*'.
bool isValidNamePattern(std::string_view pattern);
bool nameMatches(std::string_view pattern, std::string_view name);

}  // namespace quor
