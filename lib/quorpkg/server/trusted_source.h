// A source with a pinned root: its catalog for a language as the device's
// channel (channel_update.h) vouches for it, kept in the list directory
// like any other, with the catalog's sha256 remembered beside the hash the
// tool resets.
#pragma once

#include <string>

#include "base/settings.h"
#include "quorpkg/server/catalog.h"

namespace quor {

// A cached load uses the kept catalog while it is younger than catalog_ttl,
// its hash was not reset and nothing the device keeps of the source has
// expired; otherwise, and for a fresh load, the channel is brought up to
// date (one conditional request when nothing changed). kOk, or the
// refusal's code (kServerUnreachable, kTrustRefused, kMetadataExpired,
// kMetadataRollback) with the reason.
int loadTrustedCatalog(const Source& source, const std::string& lang, const CatalogLoad& how,
                       const Settings& settings, Catalog& out, std::string* error);

}  // namespace quor
