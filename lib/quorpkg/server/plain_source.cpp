#include "quorpkg/server/plain_source.h"

#include <syslog.h>

#include <algorithm>

#include "base/result.h"
#include "quorpkg/package/md5.h"
#include "quorpkg/package/trust.h"
#include "quorpkg/server/catalog_cache.h"
#include "quorpkg/server/catalog_digest.h"
#include "quorpkg/server/http_client.h"

namespace quor {
namespace {

constexpr uint64_t kMaxHashBytes = 4096;
constexpr uint64_t kMaxSignatureBytes = 4096;

std::string trimmed(const std::string& text) {
    const char* blanks = " \t\r\n";
    size_t begin = text.find_first_not_of(blanks);
    if (begin == std::string::npos) return {};
    return text.substr(begin, text.find_last_not_of(blanks) - begin + 1);
}

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

// The first of `names` the server has: kOk with its text (and its name in
// `found`); kNoSuchPackage when it has none of them; kServerUnreachable on
// any other failure.
int fetchFirst(const Source& source, std::initializer_list<std::string> names, uint64_t maxBytes,
               const Settings& settings, std::string& text, std::string* error,
               std::string* found = nullptr) {
    FetchOptions options;
    options.deadlineSeconds = settings.fetch_timeout;
    for (const std::string& name : names) {
        FetchResult result = fetchText(source.url + name, text, maxBytes, options);
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
                        const Settings& settings, std::string& key, std::string* error) {
    std::string signature;
    const std::string url = source.url + name + ".sig";
    FetchOptions options;
    options.deadlineSeconds = settings.fetch_timeout;
    FetchResult result = fetchText(url, signature, kMaxSignatureBytes, options);
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
                   const Settings& settings, const CacheFiles& files, const Remembered& remembered,
                   Catalog& out, std::string* error) {
    out.source = source;
    std::string serverHash;
    int code = fetchFirst(source, {"catalog-" + lang + ".hash", "catalog.hash"}, kMaxHashBytes,
                          settings, serverHash, error);
    if (code == kServerUnreachable) return code;
    serverHash = trimmed(serverHash);
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
    code = fetchFirst(source, {"catalog-" + lang + ".json", "catalog.json"}, maxBytes, settings,
                      text, error, &name);
    if (code == kNoSuchPackage && error) *error = "the server has no catalog: " + *error;
    if (code != kOk) return kServerUnreachable;
    if (checkFetchedCatalog(source, name, text, settings, key, error) != kOk)
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
    int code = kServerUnreachable;
    std::string reasons;
    for (const std::string& mirror : source.urls) {
        Source one = source;
        one.url = mirror;
        std::string why;
        code = loadFromMirror(one, lang, how, settings, files, remembered, out, &why);
        if (code == kOk) return kOk;
        reasons += (reasons.empty() ? "" : "; ") + why;
    }
    if (error) *error = source.urls.size() > 1 ? "every mirror failed: " + reasons : reasons;
    return code;
}

}  // namespace quor
