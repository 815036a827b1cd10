// The list directory's copy of each source's catalog: per source and
// language the catalog (<id>.list.<lang>[.<n>]), its digest, and a
// key="value" file (<id>.hash.<lang>[.<n>]) remembering its hash and where
// it came from. The tool resets the hash to "temphash" after an upgrade
// check, so that the next query asks the source afresh.
#pragma once

#include <cstdint>
#include <filesystem>
#include <string>

#include "base/key_value.h"
#include "base/settings.h"
#include "quorpkg/server/catalog.h"

namespace quor {

// What the upgrade commands write into a hash file to force a fresh load.
inline constexpr const char* kResetHash = "temphash";

struct CacheFiles {
    std::filesystem::path list;
    std::filesystem::path hash;
    static CacheFiles of(const Source& source, const std::string& lang);
};

// What a hash file remembers about the kept catalog.
struct Remembered {
    std::string hash;
    std::string source;      // the URL or pinned root it came from
    std::string key;         // the trusted key that verified it (unverified sources)
    std::string sha256;      // of the kept catalog (trusted sources; never reset)
    int64_t retryAfter = 0;  // not to be asked before (unverified sources)
};

Remembered readRemembered(const std::filesystem::path& file);

// Writes the catalog, then the hash file: a crash between the two costs
// one more download, never a wrong cache. The cache only saves downloads:
// a list directory that cannot be written is no failure.
void keepCatalog(const CacheFiles& files, const std::string& text, const KeyValues& remembered);

// Remembers that the source is not to be asked before `when` (seconds
// since the epoch), keeping what the hash file says of the kept catalog.
void rememberRetryAfter(const CacheFiles& files, int64_t when);

// Renews the kept catalog's time so that it serves cached loads for
// another while; with `remembered`, rewrites the hash file first.
void renewKeptCatalog(const CacheFiles& files, const KeyValues* remembered = nullptr);

// Whether the kept catalog is younger than catalog_ttl.
bool keptCatalogIsYoung(const CacheFiles& files, const Settings& settings);

// With `parse` false only checks that the kept catalog is there. A load for
// a few names reads only their entries when the catalog has a digest, and
// leaves one for the next load when it had none.
bool readKeptCatalog(const std::filesystem::path& list, const std::string& hash,
                     const CatalogLoad& how, Catalog& out);

}  // namespace quor
