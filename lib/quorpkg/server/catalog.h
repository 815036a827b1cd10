// Package catalogs and their cache in the list directory. A server holds
// catalog-<lang>.json (else catalog.json) and catalog-<lang>.hash (else
// catalog.hash); per server and language the list directory keeps the last
// catalog (<id>.list.<lang>[.<n>]) and a key="value" file remembering its
// hash (<id>.hash.<lang>[.<n>], key "hash") and the server it came from.
#pragma once

#include <json/value.h>

#include <string>
#include <vector>

#include "quorpkg/server/sources.h"
#include "quorpkg/store/installed_index.h"

namespace quor {

struct Catalog {
    Source source;
    Json::Value packages;  // the catalog's "packages" array
    // Read through a digest: what plain links resolve against (see
    // plainLinkPrefix); empty when links are resolved one by one.
    std::string plainLinkPrefix;
};

// One catalog per configured server, in the order of the sources file.
//
// A fresh load asks each server for its hash and downloads the catalog only
// when the hash differs from the remembered one. Otherwise the kept catalog
// is used unless it is older than the catalog_ttl setting or its hash reads
// "temphash" (the upgrade commands reset it so), in which case the load is
// fresh. Every server must answer: kOk, kBadArgument for a language that
// cannot be one, or kServerUnreachable (no sources, a server that cannot be
// reached, answers an error or sends a catalog that is not one).
int loadCatalogs(bool fresh, const char* lang, std::vector<Catalog>& out,
                 std::string* error = nullptr);

struct CatalogLoad {
    bool fresh = false;
    // False: only bring the cache up to date; a kept catalog that is still
    // current is not read (its Catalog has no packages).
    bool parse = true;
    // When set (sorted by name), only these packages' entries are needed,
    // and of those only versions newer than the installed one where it is
    // known (readable): a kept catalog with a current digest gives just
    // those, without reading the others (see catalog_digest.h).
    const std::vector<IndexedPackage>* installed = nullptr;
};
int loadCatalogs(const CatalogLoad& how, const char* lang, std::vector<Catalog>& out,
                 std::string* error = nullptr);

// The catalog parsed from `text`: an object whose "packages" is an array.
bool parseCatalog(const std::string& text, Json::Value& packages, std::string* error = nullptr);

}  // namespace quor
