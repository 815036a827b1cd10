#include "quorpkg/package/channel_walk.h"

#include <json/reader.h>
#include <json/value.h>

#include <memory>

#include "base/result.h"
#include "base/utc_time.h"
#include "quorpkg/package/channel_publisher.h"
#include "quorpkg/package/channel_trust.h"
#include "quorpkg/package/md5.h"

namespace quor {
namespace {

std::string until(int64_t expires, int64_t now) {
    const int64_t days = (expires - now + 86399) / 86400;  // a part of a day counts
    return "expires " + formatUtc(expires) +
           (expires <= now ? " (expired)" : " (in " + std::to_string(days) + " days)");
}

std::string signers(const ChannelStatement& statement, const RoleKeys& role, const KeyTable& keys) {
    return std::to_string(verifiedSigners(statement, role.keyIds, keys).size()) + " of " +
           std::to_string(role.keyIds.size()) + " keys (" + std::to_string(role.threshold) +
           " needed)";
}

// Entries a device leaves out: without a size, or without a sha256.
int unusableEntries(const std::string& text) {
    Json::CharReaderBuilder builder;
    std::unique_ptr<Json::CharReader> reader(builder.newCharReader());
    Json::Value root;
    std::string ignored;
    try {
        if (!reader->parse(text.data(), text.data() + text.size(), &root, &ignored)) return -1;
    } catch (const Json::Exception&) {
        return -1;
    }
    if (!root["packages"].isArray()) return -1;
    int count = 0;
    for (const Json::Value& entry : root["packages"])
        if (!entry.isObject() || !entry["size"].isUInt64() || !entry["sha256"].isString() ||
            !isLowerHex(entry["sha256"].asString(), 64))
            ++count;
    return count;
}

}  // namespace

int walkSource(const SourceFileReader& read, const std::string& pin, int64_t now,
               const std::function<void(const std::string&)>& report, std::string& why) {
    const size_t rootBytes = maxStatementBytes(ChannelKind::kRoot);
    std::string text;
    // The pinned root: the newest one, else the versions from 1 on.
    if (int code = read(kNewestRootFile, rootBytes, text, why); code != kOk) return code;
    for (uint64_t version = 1; !sameDigest(dataSha256Hex(text), pin); ++version) {
        if (version > 32 || read(rootFileName(version), rootBytes, text, why) != kOk) {
            why = "no root with the sha256 " + pin;
            return kTrustRefused;
        }
    }
    SourceRoot root;
    if (int code = trustPinnedRoot(text, pin, root, why)) return code;
    report("root " + std::to_string(root.version) + " of " + root.source + ": pinned, signed by " +
           signers(root.statement, root.root, root.keys) + ", " + until(root.expires, now));
    for (;;) {
        const std::string name = rootFileName(root.version + 1);
        int code = read(name, rootBytes, text, why);
        if (code == kNoSuchPackage) break;
        if (code != kOk) return code;
        SourceRoot next;
        if ((code = trustNextRoot(root, text, next, why))) return code;
        report("root " + std::to_string(next.version) + ": signed by " +
               signers(next.statement, root.root, root.keys) + " of root " +
               std::to_string(root.version) + " and " +
               signers(next.statement, next.root, next.keys) + " of its own, " +
               until(next.expires, now));
        root = std::move(next);
    }
    for (const PublisherRule& rule : root.publishers) {
        std::string names;
        for (const std::string& pattern : rule.patterns) names += " " + pattern;
        report("publisher key " + rule.keyId + " may sign:" + names);
    }
    if (int code = checkNotExpired("root " + std::to_string(root.version), root.expires, now, why))
        return code;

    if (int code = read(kTimestampFile, maxStatementBytes(ChannelKind::kTimestamp), text, why))
        return code == kNoSuchPackage ? kTrustRefused : code;
    SourceTimestamp timestamp;
    if (int code = trustTimestamp(root, text, 0, now, timestamp, why)) return code;
    report("timestamp " + std::to_string(timestamp.version) + ": issued " +
           formatUtc(timestamp.issued) + ", " + until(timestamp.expires, now) + ", names root " +
           std::to_string(timestamp.rootVersion) + ", default language " + timestamp.defaultLang);
    if (timestamp.rootVersion > root.version) {
        why = "the timestamp names root " + std::to_string(timestamp.rootVersion) +
              ", which is not served";
        return kTrustRefused;
    }
    for (const CatalogRef& ref : timestamp.catalogs) {
        const std::string name = catalogFileName(ref.lang, ref.version);
        std::string seal;
        if (int code = read(name, ref.size, text, why)) return code;
        if (text.size() != ref.size || dataSha256Hex(text) != ref.sha256) {
            why = name + " is not the catalog the timestamp names";
            return kMetadataRollback;
        }
        if (int code = read(name + ".sig", maxStatementBytes(ChannelKind::kCatalog), seal, why))
            return code == kNoSuchPackage ? kTrustRefused : code;
        CatalogSeal accepted;
        if (int code = trustCatalogSeal(root, seal, ref, 0, now, accepted, why)) return code;
        const int unusable = unusableEntries(text);
        if (unusable < 0) {
            why = name + " is not a catalog";
            return kServerUnreachable;
        }
        report(
            "catalog " + ref.lang + " version " + std::to_string(ref.version) + ": " +
            std::to_string(ref.size) + " bytes, sealed by " +
            signers(accepted.statement, root.catalog, root.keys) + ", " +
            until(accepted.expires, now) +
            (unusable ? ", " + std::to_string(unusable) + " entries without size or sha256" : ""));
    }
    return kOk;
}

}  // namespace quor
