#include "quorpkg/package/channel_trust.h"

#include <algorithm>

#include "base/result.h"
#include "base/utc_time.h"
#include "quorpkg/package/md5.h"

namespace quor {
namespace {

int refuse(int code, std::string& why, std::string reason) {
    why = std::move(reason);
    return code;
}

// kOk when a threshold of `role`'s keys in `keys` signed the statement.
int checkThreshold(const ChannelStatement& statement, const RoleKeys& role, const KeyTable& keys,
                   const std::string& what, std::string& why) {
    const std::vector<std::string> signers = verifiedSigners(statement, role.keyIds, keys);
    if (static_cast<int>(signers.size()) >= role.threshold) return kOk;
    std::string named;
    for (const StatementSignature& signature : statement.signatures)
        named += (named.empty() ? "" : ", ") + signature.keyId;
    return refuse(kTrustRefused, why,
                  what + " needs " + std::to_string(role.threshold) + " valid signatures of its " +
                      std::to_string(role.keyIds.size()) + " keys, has " +
                      std::to_string(signers.size()) +
                      (named.empty() ? " (none)" : " (signed by " + named + ")"));
}

}  // namespace

int64_t judgementTime(int64_t now, int64_t floor, int64_t slackSeconds) {
    return std::max(now, floor) - slackSeconds;
}

int trustPinnedRoot(std::string_view text, std::string_view pin, SourceRoot& out,
                    std::string& why) {
    const std::string sha = dataSha256Hex(text);
    if (!sameDigest(sha, pin))
        return refuse(kTrustRefused, why,
                      "the root's sha256 " + sha + " is not the pinned " + std::string(pin));
    std::string problem;
    std::optional<SourceRoot> root = readRoot(text, problem);
    if (!root) return refuse(kTrustRefused, why, "the pinned root is not a root: " + problem);
    const std::string what = "root " + std::to_string(root->version) + " of " + root->source;
    if (int code = checkThreshold(root->statement, root->root, root->keys, what, why)) return code;
    out = std::move(*root);
    return kOk;
}

int trustNextRoot(const SourceRoot& trusted, std::string_view text, SourceRoot& out,
                  std::string& why) {
    const std::string wanted = "root " + std::to_string(trusted.version + 1);
    std::string problem;
    std::optional<SourceRoot> next = readRoot(text, problem);
    if (!next) return refuse(kTrustRefused, why, wanted + " is not a root: " + problem);
    if (next->source != trusted.source)
        return refuse(kTrustRefused, why,
                      wanted + " belongs to source " + next->source + ", not " + trusted.source);
    if (next->version != trusted.version + 1)
        return refuse(kTrustRefused, why,
                      "the root chain breaks: " + wanted + " says it is version " +
                          std::to_string(next->version));
    const std::string what = wanted + " of " + trusted.source;
    if (int code = checkThreshold(
            next->statement, trusted.root, trusted.keys,
            what + " (by the keys of root " + std::to_string(trusted.version) + ")", why))
        return code;
    if (int code = checkThreshold(next->statement, next->root, next->keys,
                                  what + " (by its own keys)", why))
        return code;
    out = std::move(*next);
    return kOk;
}

int checkNotExpired(std::string_view what, int64_t expires, int64_t at, std::string& why) {
    if (expires > at) return kOk;
    return refuse(kMetadataExpired, why,
                  std::string(what) + " expired at " + formatUtc(expires) + " (judged at " +
                      formatUtc(at) + "; possible freeze)");
}

int trustTimestamp(const SourceRoot& root, std::string_view text, uint64_t keptVersion, int64_t at,
                   SourceTimestamp& out, std::string& why) {
    std::string problem;
    std::optional<SourceTimestamp> timestamp = readTimestamp(text, problem);
    if (!timestamp) return refuse(kTrustRefused, why, "not a timestamp: " + problem);
    const std::string what = "timestamp " + std::to_string(timestamp->version);
    if (int code = checkThreshold(timestamp->statement, root.timestamp, root.keys,
                                  what + " of " + root.source, why))
        return code;
    if (timestamp->source != root.source)
        return refuse(kMetadataRollback, why,
                      what + " is of source " + timestamp->source + ", not " + root.source);
    if (timestamp->version < keptVersion)
        return refuse(kMetadataRollback, why,
                      what + " of " + root.source + " is older than the kept version " +
                          std::to_string(keptVersion) + " (possible replay)");
    if (int code = checkNotExpired(what + " of " + root.source, timestamp->expires, at, why))
        return code;
    out = std::move(*timestamp);
    return kOk;
}

int trustCatalogSeal(const SourceRoot& root, std::string_view text, const CatalogRef& ref,
                     uint64_t keptVersion, int64_t at, CatalogSeal& out, std::string& why) {
    const std::string what =
        "catalog " + ref.lang + " version " + std::to_string(ref.version) + " of " + root.source;
    std::string problem;
    std::optional<CatalogSeal> seal = readCatalogSeal(text, problem);
    if (!seal) return refuse(kTrustRefused, why, "the seal of " + what + " is not one: " + problem);
    if (int code =
            checkThreshold(seal->statement, root.catalog, root.keys, "the seal of " + what, why))
        return code;
    if (seal->source != root.source || seal->lang != ref.lang || seal->version != ref.version)
        return refuse(kMetadataRollback, why,
                      "the seal served for " + what + " is of source " + seal->source +
                          ", language " + seal->lang + ", version " +
                          std::to_string(seal->version));
    if (seal->version < keptVersion)
        return refuse(kMetadataRollback, why,
                      what + " is older than the kept version " + std::to_string(keptVersion) +
                          " (possible replay)");
    if (seal->sha256 != ref.sha256)
        return refuse(kMetadataRollback, why,
                      "the seal of " + what + " vouches for other bytes than the timestamp names");
    if (int code = checkNotExpired(what, seal->expires, at, why)) return code;
    out = std::move(*seal);
    return kOk;
}

}  // namespace quor
