#include "quorpkg/server/trusted_source.h"

#include "base/operation_log.h"
#include "base/result.h"
#include "quorpkg/server/catalog_cache.h"
#include "quorpkg/server/catalog_digest.h"
#include "quorpkg/server/channel_update.h"

namespace quor {
namespace {

int failWith(int code, std::string* error, const std::string& why) {
    if (error) *error = why;
    return code;
}

// What ties a digest to the kept catalog: its sha256, and the URL its plain
// links were resolved against (a moved source resolves them anew).
std::string digestKey(const std::string& sha, const Source& source) {
    return sha + " " + source.url;
}

}  // namespace

int loadTrustedCatalog(const Source& source, const std::string& lang, const CatalogLoad& how,
                       const Settings& settings, Catalog& out, std::string* error) {
    out.source = source;
    const CacheFiles files = CacheFiles::of(source, lang);
    const Remembered remembered = readRemembered(files.hash);
    const std::string origin = "root=" + source.pin;
    const std::string keptSha = remembered.source == origin ? remembered.sha256 : std::string();
    ChannelUpdate update(source, lang, settings);
    ChannelView view;
    std::string why;
    if (!how.fresh && !keptSha.empty() && remembered.hash != kResetHash &&
        keptCatalogIsYoung(files, settings) && update.kept(keptSha, view, why) == kOk &&
        readKeptCatalog(files.list, digestKey(keptSha, source), how, out)) {
        out.root = view.root;
        return kOk;
    }

    int code = update.refresh(keptSha, files.list, view, why);
    if (code != kOk) return failWith(code, error, why);
    const std::string& sha = view.catalog.sha256;
    const KeyValues pairs = {{"hash", sha},
                             {"source", origin},
                             {"sha256", sha},
                             {"version", std::to_string(view.catalog.version)}};
    if (view.downloaded.empty() && !readKeptCatalog(files.list, digestKey(sha, source), how, out)) {
        // The kept copy is the current catalog but cannot be read: fetch it.
        code = update.refresh("", files.list, view, why);
        if (code != kOk) return failWith(code, error, why);
    }
    if (view.downloaded.empty()) {
        renewKeptCatalog(files, &pairs);
    } else {
        if (!parseCatalog(view.downloaded, out.packages, &why))
            return failWith(kServerUnreachable, error, view.mirror + ": " + why);
        keepCatalog(files, view.downloaded, pairs);
        writeCatalogDigest(files.list, digestKey(sha, source), source, out.packages);
    }
    // The catalog is kept; now what vouched for it. A state that cannot be
    // written costs the next query a full check, not this one its answer.
    if (!update.commit())
        logOperation("channel state", source.label(),
                     Outcome{kStoreUnusable, "cannot keep the channel state of " + source.url});
    out.root = view.root;
    return kOk;
}

}  // namespace quor
