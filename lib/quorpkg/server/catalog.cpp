#include "quorpkg/server/catalog.h"

#include <json/reader.h>

#include <memory>

#include "base/operation.h"
#include "base/operation_log.h"
#include "base/result.h"
#include "base/settings.h"
#include "quorpkg/server/catalog_cache.h"
#include "quorpkg/server/channel_state.h"
#include "quorpkg/server/plain_source.h"
#include "quorpkg/server/trusted_source.h"

namespace quor {
namespace {

// What a refused source still tells: the names it offered last, so that a
// later source does not step in for them while it cannot be asked.
void keptNamesOf(const Source& source, const std::string& lang, Catalog& out) {
    const CacheFiles files = CacheFiles::of(source, lang);
    const Remembered remembered = readRemembered(files.hash);
    CatalogLoad whole;
    readKeptCatalog(files.list, remembered.hash, whole, out);
}

// One line in quorpkg.log per source that did not answer, whatever the
// query came to: an administrator must learn that a source is frozen or
// refused even while the others answer.
void logSource(const Source& source, int code, const std::string& reason) {
    logOperation("source", source.label(), Outcome{code, reason});
}

}  // namespace

std::string Catalog::origin() const {
    if (root) return root->source;
    return sourceId.empty() ? "unverified " + source.url : sourceId;
}

std::string unavailableSources(const std::vector<Catalog>& catalogs) {
    std::string out;
    for (const Catalog& catalog : catalogs)
        if (!catalog.available) out += "; " + catalog.problem;
    return out;
}

bool parseCatalog(const std::string& text, Json::Value& packages, std::string* error) {
    Json::CharReaderBuilder builder;
    builder["collectComments"] = false;
    std::unique_ptr<Json::CharReader> reader(builder.newCharReader());
    Json::Value root;
    std::string why;
    bool parsed = false;
    try {
        parsed = reader->parse(text.data(), text.data() + text.size(), &root, &why);
    } catch (const Json::Exception& e) {
        why = e.what();  // nested deeper than the reader's stack limit
    }
    if (!parsed) {
        if (error) *error = "the catalog is not JSON: " + why;
        return false;
    }
    if (!root.isObject() || !root["packages"].isArray()) {
        if (error) *error = "the catalog has no package array";
        return false;
    }
    packages.swap(root["packages"]);  // no copy of a large tree
    return true;
}

int loadCatalogs(bool fresh, const char* lang, std::vector<Catalog>& out, std::string* error) {
    return loadCatalogs(CatalogLoad{fresh, true}, lang, out, error);
}

int loadCatalogs(const CatalogLoad& how, const char* lang, std::vector<Catalog>& out,
                 std::string* error) {
    out.clear();
    const std::string language = normalLanguage(lang);
    if (language.empty()) {
        if (error) *error = "not a language";
        return kBadArgument;
    }
    std::vector<Source> sources;
    int code = readSources(sources, error);
    if (code != kOk) return code;
    const Settings settings = loadSettings();
    std::string reasons;
    bool any = false;
    for (const Source& source : sources) {
        Catalog catalog;
        std::string why;
        code = source.verified()
                   ? loadTrustedCatalog(source, language, how, settings, catalog, &why)
                   : loadPlainCatalog(source, language, how, settings, catalog, &why);
        if (!source.verified())
            logSource(source, code,
                      code == kOk ? "unverified source " + source.url +
                                        ": nothing vouches for its catalog or packages"
                                  : "unverified source " + source.url + ": " + why);
        if (code != kOk) {
            if (source.verified()) logSource(source, code, why);
            // The code of a refusal is told in the reason: the interface
            // answers a failed query with 160, as callers expect.
            const std::string reason = source.label() + " (" + std::to_string(code) + "): " + why;
            reasons += (reasons.empty() ? "" : "; ") + reason;
            refuse(kServerUnreachable, reason);
            catalog = Catalog{};
            catalog.source = source;
            catalog.available = false;
            catalog.problem = reason;
            if (source.verified()) {
                std::string ignored;
                const ChannelState kept = readChannelState(source.pin, ignored);
                if (kept.root) catalog.sourceId = kept.root->source;
            }
            if (how.parse) keptNamesOf(source, language, catalog);
        } else {
            any = true;
        }
        out.push_back(std::move(catalog));
    }
    if (!any) {
        out.clear();
        if (error) *error = reasons;
        return kServerUnreachable;
    }
    return kOk;
}

}  // namespace quor
