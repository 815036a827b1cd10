// Package catalogs of the configured sources (sources.h): per source and
// language the catalog, from the source's trusted channel (trusted_source.h)
// or from a plain folder for an unverified one (plain_source.h), kept in
// the list directory (catalog_cache.h).
#pragma once

#include <json/value.h>

#include <memory>
#include <string>
#include <vector>

#include "quorpkg/package/channel_metadata.h"
#include "quorpkg/server/entry_summary.h"
#include "quorpkg/server/sources.h"
#include "quorpkg/store/installed_index.h"

namespace quor {

struct Catalog {
    Source source;
    Json::Value packages;  // the catalog's "packages" array, or the entries read of it
    // Read through a digest: the summaries of the entries asked for, in
    // catalog order, each pointing to its JSON in `packages` when that was
    // read too. Empty when `packages` holds the whole catalog.
    std::vector<EntrySummary> entries;
    // Read through a digest: what plain links resolve against (see
    // plainLinkPrefix); empty when links are resolved one by one.
    std::string plainLinkPrefix;
    // The root that vouches for the catalog and for the packages it
    // offers; null for an unverified source.
    std::shared_ptr<const SourceRoot> root;
    // False: the source could not be asked (or refused what it sent). Its
    // packages are what it offered last, if anything is kept: they are not
    // offered, but no later source may offer them in its place.
    bool available = true;
    std::string problem;   // why it is not available, its code included
    std::string sourceId;  // a trusted source's own id, when known

    // Whose packages these are, as an installed package remembers its
    // origin: the trusted source's own id, or "unverified <url>".
    std::string origin() const;
};

struct CatalogLoad {
    bool fresh = false;
    // False: only bring the cache up to date; a kept catalog that is still
    // current is not read (its Catalog has no packages).
    bool parse = true;
    // When set (sorted by name), only these packages' entries are needed,
    // and of those only versions newer than the installed one where it is
    // known (readable) to be installed: a kept catalog with a current digest
    // gives their summaries, and the JSON of those, without reading the
    // others (see catalog_digest.h).
    const std::vector<IndexedPackage>* installed = nullptr;
    // False: summaries are all the caller needs (a check that only
    // reports), so a kept catalog with a current digest is not read at all.
    bool json = true;
};

// One catalog per configured source, in the order of the sources file.
// A source that cannot be asked, or whose answer is refused, is logged
// with its reason and left out (its Catalog is not `available`); the
// others still answer. kOk when at least one source answered;
// kBadArgument for a language that cannot be one; kServerUnreachable when
// no source is configured or none answered, with the reasons in `error`.
int loadCatalogs(const CatalogLoad& how, const char* lang, std::vector<Catalog>& out,
                 std::string* error = nullptr);
int loadCatalogs(bool fresh, const char* lang, std::vector<Catalog>& out,
                 std::string* error = nullptr);

// "; <problem>" for each catalog that could not be had, for the reason of a
// package not found: it may be the one its source would have offered.
std::string unavailableSources(const std::vector<Catalog>& catalogs);

// The catalog parsed from `text`: an object whose "packages" is an array.
bool parseCatalog(const std::string& text, Json::Value& packages, std::string* error = nullptr);

}  // namespace quor
