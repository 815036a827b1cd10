#include "quorpkg/server/channel_update.h"

#include <fcntl.h>
#include <sys/file.h>
#include <sys/stat.h>
#include <unistd.h>

#include <system_error>

#include "base/file_util.h"
#include "base/layout.h"
#include "base/operation_log.h"
#include "base/result.h"
#include "base/utc_time.h"
#include "quorpkg/package/catalog_zstd.h"
#include "quorpkg/package/channel_publisher.h"
#include "quorpkg/package/channel_trust.h"
#include "quorpkg/package/md5.h"
#include "quorpkg/server/http_client.h"

namespace fs = std::filesystem;

namespace quor {
namespace {

// A stolen timestamp key could hide a key rotation from a device only until
// it asks for a newer root on its own, at least this often.
constexpr int64_t kRootProbeInterval = 7 * 86400;
// Roots walked in one query at the most.
constexpr int kMaxRootSteps = 32;

int fail(int code, std::string& why, std::string reason) {
    why = std::move(reason);
    return code;
}

bool sameRole(const RoleKeys& a, const RoleKeys& b) {
    return a.threshold == b.threshold && a.keyIds == b.keyIds;
}

// A pinned root shipped with the device image: a file in /etc/quorpkg/roots
// whose sha256 is the pin.
std::optional<std::string> shippedRoot(const std::string& pin) {
    const fs::path dir = layout::shippedRootsDir();
    for (const std::string& name : entriesOfType(dir, S_IFREG)) {
        std::optional<std::string> text = readRegularFile(dir / name);
        if (text && text->size() <= maxStatementBytes(ChannelKind::kRoot) &&
            sameDigest(dataSha256Hex(*text), pin))
            return text;
    }
    return std::nullopt;
}

}  // namespace

// One mirror's answer, checked step by step into `next`.
struct ChannelUpdate::Attempt {
    const std::string& base;
    const std::string& lang;
    const Settings& settings;
    ChannelState next;
    const fs::path& keptFile;  // the list cache's copy of the kept catalog
    int64_t& retryDelay;       // raised by a 429 or 503 with Retry-After
    int64_t now = nowSeconds();
    int64_t at = 0;  // the moment expiry is judged at
    bool probed = false;

    // kOk with the text; kNoSuchPackage when the server has no such file;
    // kServerUnreachable otherwise.
    int fetch(const std::string& name, uint64_t maxBytes, std::string& text, std::string& why,
              FetchResult* answer = nullptr, const FetchOptions* conditional = nullptr) {
        FetchOptions options = conditional ? *conditional : FetchOptions{};
        options.deadlineSeconds = settings.fetch_timeout;
        FetchResult result = fetchText(base + name, text, maxBytes, options);
        if (answer) *answer = result;
        retryDelay = std::max(retryDelay, result.retryDelay());
        if (result.ok() || result.status == FetchStatus::kNotModified) return kOk;
        why = base + name + ": " + result.error;
        return result.status == FetchStatus::kNotFound ? kNoSuchPackage : kServerUnreachable;
    }

    // The root the pin names: shipped with the device, served as the newest
    // root, or found walking the versions from 1.
    int firstRoot(std::string& why) {
        std::optional<std::string> text = shippedRoot(next.pin);
        std::string served;
        if (!text &&
            fetch(kNewestRootFile, maxStatementBytes(ChannelKind::kRoot), served, why) == kOk &&
            sameDigest(dataSha256Hex(served), next.pin))
            text = served;
        for (uint64_t version = 1; !text && version <= kMaxRootSteps; ++version) {
            int code =
                fetch(rootFileName(version), maxStatementBytes(ChannelKind::kRoot), served, why);
            if (code == kNoSuchPackage) break;
            if (code != kOk) return code;
            if (sameDigest(dataSha256Hex(served), next.pin)) text = served;
        }
        if (!text)
            return fail(kTrustRefused, why,
                        base + " serves no root with the pinned sha256 " + next.pin);
        SourceRoot root;
        if (int code = trustPinnedRoot(*text, next.pin, root, why)) return code;
        next.root = std::make_shared<const SourceRoot>(std::move(root));
        return kOk;
    }

    // Walks <N+1>.root while the server has it. A role whose keys changed
    // forgets what it vouched for: the versions it signed count for nothing
    // (a stolen key's fast-forward is undone with its rotation).
    int probeRoots(uint64_t target, std::string& why) {
        probed = true;
        for (int step = 0; step <= kMaxRootSteps; ++step) {
            const uint64_t version = next.root->version + 1;
            std::string text;
            int code =
                fetch(rootFileName(version), maxStatementBytes(ChannelKind::kRoot), text, why);
            if (code == kNoSuchPackage) break;
            if (code != kOk) return code;
            if (step == kMaxRootSteps)
                return fail(
                    kTrustRefused, why,
                    base + ": more than " + std::to_string(kMaxRootSteps) + " new roots at once");
            SourceRoot root;
            if ((code = trustNextRoot(*next.root, text, root, why))) {
                why = base + rootFileName(version) + ": " + why;
                return code;
            }
            if (!sameRole(root.timestamp, next.root->timestamp)) {
                next.timestamp.reset();
                next.etag.clear();
                next.lastModified.clear();
                next.issuedFloor = 0;
            }
            if (!sameRole(root.catalog, next.root->catalog)) next.catalogs.clear();
            next.root = std::make_shared<const SourceRoot>(std::move(root));
        }
        next.rootChecked = now;
        if (target > next.root->version)
            return fail(kTrustRefused, why,
                        "the timestamp of " + next.root->source + " names root " +
                            std::to_string(target) + ", but " + base + " serves only up to " +
                            std::to_string(next.root->version));
        return kOk;
    }

    // The current timestamp: the kept one when the server answers that it
    // did not change, else the one served, once it passes.
    int timestamp(std::string& why, bool mayBeUnchanged = true) {
        FetchOptions conditional;
        if (next.timestamp && mayBeUnchanged) {
            conditional.etag = next.etag;
            conditional.lastModified = next.lastModified;
        }
        std::string text;
        FetchResult answer;
        if (int code = fetch(kTimestampFile, maxStatementBytes(ChannelKind::kTimestamp), text, why,
                             &answer, &conditional))
            return code == kNoSuchPackage ? kServerUnreachable : code;
        if (answer.status == FetchStatus::kNotModified) {
            if (!next.timestamp)
                return fail(kServerUnreachable, why, base + "timestamp: 304 to a plain request");
            if (next.timestamp->expires > at || !mayBeUnchanged) return kOk;
            // The kept one expired: a server whose validators did not move
            // must still get its chance to send a newer one.
            return timestamp(why, false);
        }
        const std::string where = base + kTimestampFile + ": ";
        // What root it was signed under may be read before it is believed:
        // roots are checked by their own chain.
        std::string unused;
        std::optional<SourceTimestamp> claimed = readTimestamp(text, unused);
        if (claimed && claimed->rootVersion > next.root->version)
            if (int code = probeRoots(claimed->rootVersion, why)) return code;
        const uint64_t keptVersion = next.timestamp ? next.timestamp->version : 0;
        SourceTimestamp accepted;
        int code = trustTimestamp(*next.root, text, keptVersion, at, accepted, why);
        if (code == kTrustRefused && !probed) {
            // Signed by keys a newer root may hold.
            if ((code = probeRoots(0, why))) return code;
            code = trustTimestamp(*next.root, text, next.timestamp ? next.timestamp->version : 0,
                                  at, accepted, why);
        }
        if (code != kOk) return fail(code, why, where + why);
        if (next.timestamp && accepted.version == next.timestamp->version &&
            accepted.text != next.timestamp->text)
            return fail(
                kMetadataRollback, why,
                where + "a second, different timestamp " + std::to_string(accepted.version));
        next.issuedFloor = std::max(next.issuedFloor, accepted.issued);
        // What the timestamp vouches for is judged from its issue on: a
        // catalog or root that expired before it was signed is stale.
        at = std::max(at,
                      judgementTime(now, next.issuedFloor, int64_t(settings.expiry_slack) * 3600));
        next.timestamp = std::make_shared<const SourceTimestamp>(std::move(accepted));
        next.etag = answer.etag;
        next.lastModified = answer.lastModified;
        return kOk;
    }

    // The catalog from the smallest form the timestamp lists: a patch from
    // the kept version, else the compressed catalog. Empty when neither is
    // listed or what came does not decode to the catalog named (the plain
    // file is then asked for).
    std::string smallestForm(const CatalogRef& ref, uint64_t keptVersion, uint64_t limit) {
        const std::string name = catalogFileName(ref.lang, ref.version);
        std::string compressed, problem;
        if (const CatalogRef::Patch* patch = keptVersion ? ref.patchFrom(keptVersion) : nullptr) {
            std::optional<std::string> base = readFile(keptFile);
            if (base && fetch(catalogPatchFileName(ref.lang, ref.version, patch->from), patch->size,
                              compressed, problem) == kOk)
                if (std::optional<std::string> text =
                        decodeCatalog(compressed, *base, limit, problem);
                    text && dataSha256Hex(*text) == ref.sha256)
                    return std::move(*text);
        }
        if (ref.compressedSize != 0 &&
            fetch(name + ".zst", ref.compressedSize, compressed, problem) == kOk)
            if (std::optional<std::string> text = decodeCatalog(compressed, {}, limit, problem);
                text && dataSha256Hex(*text) == ref.sha256)
                return std::move(*text);
        return {};
    }

    // The catalog the timestamp names: the kept one when it is that one,
    // else downloaded, checked against the timestamp and sealed.
    int catalog(const std::string& keptSha, ChannelView& out, std::string& why) {
        const CatalogRef* ref = next.timestamp->catalogFor(lang);
        if (!ref)
            return fail(kServerUnreachable, why,
                        next.root->source + " has no catalog for " + lang + " nor " +
                            next.timestamp->defaultLang);
        out.catalog = *ref;
        auto kept = next.catalogs.find(ref->lang);
        const uint64_t keptVersion = kept == next.catalogs.end() ? 0 : kept->second.version;
        const std::string what = "catalog " + ref->lang + " version " +
                                 std::to_string(ref->version) + " of " + next.root->source;
        if (kept != next.catalogs.end() && kept->second.version == ref->version &&
            kept->second.sha256 == ref->sha256 && keptSha == ref->sha256)
            return checkNotExpired(what, kept->second.expires, at, why);

        const std::string name = catalogFileName(ref->lang, ref->version);
        const uint64_t limit =
            std::min<uint64_t>(ref->size, uint64_t(settings.catalog_max_mib) << 20);
        if (ref->size > limit)
            return fail(kServerUnreachable, why,
                        what + " is " + std::to_string(ref->size) + " bytes, over catalog_max_mib");
        const bool haveBase = kept != next.catalogs.end() && keptSha == kept->second.sha256;
        std::string text = smallestForm(*ref, haveBase ? keptVersion : 0, limit);
        std::string seal;
        if (text.empty())
            if (int code = fetch(name, limit, text, why))
                return code == kNoSuchPackage ? kServerUnreachable : code;
        if (text.size() != ref->size || dataSha256Hex(text) != ref->sha256)
            return fail(kMetadataRollback, why,
                        base + name + " is not the " + what + " the timestamp names");
        if (int code = fetch(name + ".sig", maxStatementBytes(ChannelKind::kCatalog), seal, why))
            return code == kNoSuchPackage ? kTrustRefused : code;
        CatalogSeal accepted;
        if (int code = trustCatalogSeal(*next.root, seal, *ref, keptVersion, at, accepted, why))
            return fail(code, why, base + name + ".sig: " + why);
        next.catalogs[ref->lang] = {accepted.version, accepted.sha256, accepted.expires};
        out.downloaded = std::move(text);
        return kOk;
    }
};

ChannelUpdate::ChannelUpdate(const Source& source, std::string lang, const Settings& settings)
    : source_(source), lang_(std::move(lang)), settings_(settings) {
    std::string why;
    state_ = readChannelState(source.pin, why);
}

ChannelUpdate::~ChannelUpdate() {
    if (lockFd_ >= 0) ::close(lockFd_);
}

int ChannelUpdate::kept(const std::string& keptCatalogSha, ChannelView& out, std::string& why) {
    if (!state_.root || !state_.timestamp)
        return fail(kServerUnreachable, why, "nothing kept of " + source_.label());
    const int64_t at =
        judgementTime(nowSeconds(), state_.issuedFloor, int64_t(settings_.expiry_slack) * 3600);
    const CatalogRef* ref = state_.timestamp->catalogFor(lang_);
    auto kept = ref ? state_.catalogs.find(ref->lang) : state_.catalogs.end();
    if (!ref || kept == state_.catalogs.end() || kept->second.sha256 != ref->sha256 ||
        keptCatalogSha != ref->sha256)
        return fail(kServerUnreachable, why, "no current catalog kept for " + lang_);
    const std::string source = " of " + state_.root->source;
    if (int code = checkNotExpired("root " + std::to_string(state_.root->version) + source,
                                   state_.root->expires, at, why))
        return code;
    if (int code =
            checkNotExpired("timestamp " + std::to_string(state_.timestamp->version) + source,
                            state_.timestamp->expires, at, why))
        return code;
    if (int code = checkNotExpired(
            "catalog " + ref->lang + " version " + std::to_string(ref->version) + source,
            kept->second.expires, at, why))
        return code;
    out.root = state_.root;
    out.catalog = *ref;
    out.downloaded.clear();
    return kOk;
}

int ChannelUpdate::refresh(const std::string& keptCatalogSha, const fs::path& keptCatalogFile,
                           ChannelView& out, std::string& why) {
    // One query of a source at a time: a slower one must not write back an
    // older state over a newer one.
    const fs::path dir = layout::channelStateDir(source_.pin);
    if (lockFd_ < 0) {
        std::error_code ec;
        fs::create_directories(dir, ec);
        lockFd_ = ::open(dir.c_str(), O_RDONLY | O_DIRECTORY | O_CLOEXEC);
        if (lockFd_ < 0 || ::flock(lockFd_, LOCK_EX) != 0)
            return fail(kStoreUnusable, why, "cannot lock " + dir.string());
    }
    std::string dropped;
    state_ = readChannelState(source_.pin, dropped);
    if (!dropped.empty())
        logOperation("channel state", source_.label(), Outcome{kStoreUnusable, dropped});

    const int64_t now = nowSeconds();
    if (stillWaiting(state_.retryAfter, now))
        return fail(
            kServerUnreachable, why,
            source_.label() + " asked not to be asked before " + formatUtc(state_.retryAfter));
    int code = kServerUnreachable;
    std::string reasons;
    for (const std::string& mirror : source_.urls) {
        ChannelView view;
        std::string reason;
        code = attempt(mirror, keptCatalogSha, keptCatalogFile, view, reason);
        if (code == kOk) {
            view.mirror = mirror;
            out = std::move(view);
            accepted_.retryAfter = 0;
            return kOk;
        }
        reasons += (reasons.empty() ? "" : "; ") + reason;
        why = reason;
    }
    if (source_.urls.size() > 1) why = "every mirror failed: " + reasons;
    // Asked to come back later: nothing else of the kept state changes.
    if (retryDelay_ > 0 && state_.root) {
        ChannelState waiting = state_;
        waiting.retryAfter = now + retryDelay_;
        writeChannelState(waiting);
        why += "; not asked again before " + formatUtc(waiting.retryAfter);
    }
    return code;
}

int ChannelUpdate::attempt(const std::string& base, const std::string& keptCatalogSha,
                           const fs::path& keptCatalogFile, ChannelView& out, std::string& why) {
    Attempt run{base, lang_, settings_, state_, keptCatalogFile, retryDelay_};
    run.at = judgementTime(run.now, state_.issuedFloor, int64_t(settings_.expiry_slack) * 3600);
    if (!run.next.root)
        if (int code = run.firstRoot(why)) return code;
    if (int code = run.timestamp(why)) return code;
    if (!run.probed && run.now - run.next.rootChecked >= kRootProbeInterval) {
        if (int code = run.probeRoots(0, why)) return code;
        // A rotated timestamp key discards the kept timestamp: ask again.
        if (!run.next.timestamp)
            if (int code = run.timestamp(why)) return code;
    }
    const SourceRoot& root = *run.next.root;
    if (int code = checkNotExpired("root " + std::to_string(root.version) + " of " + root.source,
                                   root.expires, run.at, why))
        return code;
    if (int code = checkNotExpired(
            "timestamp " + std::to_string(run.next.timestamp->version) + " of " + root.source,
            run.next.timestamp->expires, run.at, why))
        return code;
    if (int code = run.catalog(keptCatalogSha, out, why)) return code;
    out.root = run.next.root;
    accepted_ = std::move(run.next);
    refreshed_ = true;
    return kOk;
}

bool ChannelUpdate::commit() {
    return refreshed_ && writeChannelState(accepted_);
}

}  // namespace quor
