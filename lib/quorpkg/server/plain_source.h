// A source listed as `unverified`: a plain folder with catalog[-<lang>].json
// and catalog[-<lang>].hash, as `zpk index` writes them. Its catalog is
// checked as local files are: against the device's keys folder when a
// catalog.json.sig is there or signatures are required (docs/signing.md).
#pragma once

#include <string>

#include "base/settings.h"
#include "quorpkg/server/catalog.h"

namespace quor {

// A fresh load asks for the hash and downloads the catalog only when it
// differs from the remembered one; a cached load uses the kept catalog
// unless it is older than catalog_ttl or its hash was reset. kOk or
// kServerUnreachable with the reason.
int loadPlainCatalog(const Source& source, const std::string& lang, const CatalogLoad& how,
                     const Settings& settings, Catalog& out, std::string* error);

}  // namespace quor
