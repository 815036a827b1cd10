#include "quorpkg/server/plain_source.h"

#include <syslog.h>

#include <algorithm>

#include "base/result.h"
#include "base/text.h"
#include "base/utc_time.h"
#include "quorpkg/package/md5.h"
#include "quorpkg/package/trust.h"
#include "quorpkg/server/catalog_cache.h"
#include "quorpkg/server/catalog_digest.h"
#include "quorpkg/server/http_client.h"

namespace quor {
namespace {

constexpr uint64_t kMaxHashBytes = 4096;
constexpr uint64_t kMaxSignatureBytes = 4096;

// A kept catalog serves only while it would pass the trust check again:
// when signatures are required, the key that verified it is still trusted.
bool keptCatalogIsTrusted(const Remembered& remembered, const Settings& settings) {
    const TrustedKeys keys = loadTrustedKeys();
    if (!signatureRequired(settings, keys)) return true;
    return !remembered.key.empty() && keys.find(remembered.key) != nullptr;
}

bool keptCatalogIsCurrent(const CacheFiles& files, const Remembered& remembered,
                          const Settings& settings) {
    return !remembered.hash.empty() && remembered.hash != kResetHash &&
           keptCatalogIsTrusted(remembered, settings) && keptCatalogIsYoung(files, settings);
}

// What a fresh load asks of one source's mirrors, with the longest wait
// any of them asked for.
struct Asking {
    const Settings& settings;
    int64_t retryDelay = 0;

    FetchResult fetch(const std::string& url, std::string& text, uint64_t maxBytes) {
        FetchOptions options;
        options.deadlineSeconds = settings.fetch_timeout;
        FetchResult result = fetchText(url, text, maxBytes, options);
        retryDelay = std::max(retryDelay, result.retryDelay());
        return result;
    }
};

// The first of `names` the server has: kOk with its text (and its name in
// `found`); kNoSuchPackage when it has none of them; kServerUnreachable on
// any other failure.
int fetchFirst(const Source& source, std::initializer_list<std::string> names, uint64_t maxBytes,
               Asking& asking, std::string& text, std::string* error,
               std::string* found = nullptr) {
    for (const std::string& name : names) {
        FetchResult result = asking.fetch(source.url + name, text, maxBytes);
        if (found) *found = name;
        if (result.ok()) return kOk;
        if (error) *error = source.url + name + ": " + result.error;
        if (result.status == FetchStatus::kFailed) return kServerUnreachable;
    }
    return kNoSuchPackage;
}

// The catalog `name` just fetched must pass the trust check with its
// signature, <name>.sig, when the server has one. kOk with the key that
// verified it (if any) in `key`, else kServerUnreachable: a catalog that
// cannot be trusted is a failed query.
int checkFetchedCatalog(const Source& source, const std::string& name, const std::string& text,
                        Asking& asking, std::string& key, std::string* error) {
    std::string signature;
    const std::string url = source.url + name + ".sig";
    FetchResult result = asking.fetch(url, signature, kMaxSignatureBytes);
    if (result.status == FetchStatus::kFailed) {
        if (error) *error = url + ": " + result.error;
        return kServerUnreachable;
    }
    std::string why;
    const std::optional<std::string> found =
        result.ok() ? std::optional<std::string>(signature) : std::nullopt;
    if (checkCatalogTrust(text, found, source.url + name, why, &key) != kOk) {
        ::syslog(LOG_ERR, "quorpkg: catalog refused: %s", why.c_str());
        if (error) *error = why;
        return kServerUnreachable;
    }
    return kOk;
}

// A fresh load from one mirror (`source.url`).
int loadFromMirror(const Source& source, const std::string& lang, const CatalogLoad& how,
                   Asking& asking, const CacheFiles& files, const Remembered& remembered,
                   Catalog& out, std::string* error) {
    const Settings& settings = asking.settings;
    out.source = source;
    std::string serverHash;
    int code = fetchFirst(source, {"catalog-" + lang + ".hash", "catalog.hash"}, kMaxHashBytes,
                          asking, serverHash, error);
    if (code == kServerUnreachable) return code;
    serverHash = std::string(trimBlanks(serverHash));
    auto rememberedPairs = [&](const std::string& hash, const std::string& key) {
        KeyValues pairs = {{"hash", hash}, {"source", source.url}};
        if (!key.empty()) pairs.emplace_back("key", key);
        return pairs;
    };
    if (!serverHash.empty() && serverHash != kResetHash && serverHash == remembered.hash &&
        remembered.source == source.url && keptCatalogIsTrusted(remembered, settings) &&
        readKeptCatalog(files.list, remembered.hash, how, out)) {
        // Still the server's catalog: it serves cached loads for another while.
        renewKeptCatalog(files);
        return kOk;
    }

    std::string text, name, key;
    // A catalog beyond the setting is refused rather than held in memory.
    const uint64_t maxBytes = uint64_t(settings.catalog_max_mib) << 20;
    code = fetchFirst(source, {"catalog-" + lang + ".json", "catalog.json"}, maxBytes, asking, text,
                      error, &name);
    if (code == kNoSuchPackage && error) *error = "the server has no catalog: " + *error;
    if (code != kOk) return kServerUnreachable;
    if (checkFetchedCatalog(source, name, text, asking, key, error) != kOk)
        return kServerUnreachable;
    std::string why;
    if (!parseCatalog(text, out.packages, &why)) {
        if (error) *error = source.url + ": " + why;
        return kServerUnreachable;
    }
    // A server without a hash file still gets a hash remembered, so that
    // cached loads can use the catalog.
    const std::string hash = serverHash.empty() ? dataMd5Hex(text) : serverHash;
    keepCatalog(files, text, rememberedPairs(hash, key));
    writeCatalogDigest(files.list, hash, source, out.packages);
    return kOk;
}

}  // namespace

int loadPlainCatalog(const Source& source, const std::string& lang, const CatalogLoad& how,
                     const Settings& settings, Catalog& out, std::string* error) {
    const CacheFiles files = CacheFiles::of(source, lang);
    const Remembered remembered = readRemembered(files.hash);
    // The kept catalog came from one of the mirrors: its links resolve there.
    auto from = std::find(source.urls.begin(), source.urls.end(), remembered.source);
    if (!how.fresh && from != source.urls.end() &&
        keptCatalogIsCurrent(files, remembered, settings)) {
        out.source = source;
        out.source.url = *from;
        if (readKeptCatalog(files.list, remembered.hash, how, out)) return kOk;
    }
    const int64_t now = nowSeconds();
    if (stillWaiting(remembered.retryAfter, now)) {
        if (error)
            *error = source.label() + " asked not to be asked before " +
                     formatUtc(remembered.retryAfter);
        return kServerUnreachable;
    }
    int code = kServerUnreachable;
    std::string reasons;
    Asking asking{settings};
    for (const std::string& mirror : source.urls) {
        Source one = source;
        one.url = mirror;
        std::string why;
        code = loadFromMirror(one, lang, how, asking, files, remembered, out, &why);
        if (code == kOk) return kOk;
        reasons += (reasons.empty() ? "" : "; ") + why;
    }
    if (error) *error = source.urls.size() > 1 ? "every mirror failed: " + reasons : reasons;
    // Asked to come back later: the kept catalog stays as it was.
    if (asking.retryDelay > 0) {
        rememberRetryAfter(files, now + asking.retryDelay);
        if (error) *error += "; not asked again before " + formatUtc(now + asking.retryDelay);
    }
    return code;
}

}  // namespace quor
