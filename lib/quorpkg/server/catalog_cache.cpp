#include "quorpkg/server/catalog_cache.h"

#include <charconv>
#include <chrono>
#include <system_error>

#include "base/file_util.h"
#include "base/layout.h"
#include "quorpkg/server/catalog_digest.h"

namespace fs = std::filesystem;

namespace quor {

CacheFiles CacheFiles::of(const Source& source, const std::string& lang) {
    return {layout::listDir() / source.cacheFileName("list", lang),
            layout::listDir() / source.cacheFileName("hash", lang)};
}

Remembered readRemembered(const fs::path& file) {
    Remembered out;
    std::optional<std::string> text = readFile(file);
    std::optional<KeyValues> pairs = text ? parseKeyValues(*text) : std::nullopt;
    if (!pairs) return out;
    for (auto [key, field] : {std::pair{"hash", &out.hash}, std::pair{"source", &out.source},
                              std::pair{"key", &out.key}, std::pair{"sha256", &out.sha256}})
        if (const std::string* value = findValue(*pairs, key)) *field = *value;
    if (const std::string* value = findValue(*pairs, "retry_after"))
        std::from_chars(value->data(), value->data() + value->size(), out.retryAfter);
    return out;
}

void keepCatalog(const CacheFiles& files, const std::string& text, const KeyValues& remembered) {
    std::error_code ec;
    fs::create_directories(files.list.parent_path(), ec);
    if (writeFileAtomic(files.list, text)) writeFileAtomic(files.hash, formatKeyValues(remembered));
}

void rememberRetryAfter(const CacheFiles& files, int64_t when) {
    // A hash file that cannot be read says nothing worth keeping.
    KeyValues pairs = parseKeyValues(readFile(files.hash).value_or("")).value_or(KeyValues{});
    setValue(pairs, "retry_after", std::to_string(when));
    std::error_code ec;
    fs::create_directories(files.hash.parent_path(), ec);
    writeFileAtomic(files.hash, formatKeyValues(pairs));
}

void renewKeptCatalog(const CacheFiles& files, const KeyValues* remembered) {
    if (remembered) writeFileAtomic(files.hash, formatKeyValues(*remembered));
    std::error_code ec;
    fs::last_write_time(files.list, fs::file_time_type::clock::now(), ec);
}

bool keptCatalogIsYoung(const CacheFiles& files, const Settings& settings) {
    std::error_code ec;
    const auto written = fs::last_write_time(files.list, ec);
    if (ec) return false;
    const auto age = fs::file_time_type::clock::now() - written;
    return age < std::chrono::seconds(settings.catalog_ttl);
}

bool readKeptCatalog(const fs::path& list, const std::string& hash, const CatalogLoad& how,
                     Catalog& out) {
    if (!how.parse) {
        std::error_code ec;
        return fs::is_regular_file(list, ec);
    }
    if (readDigestedEntries(list, hash, how, out)) return true;
    std::optional<std::string> text = readFile(list);
    if (!text || !parseCatalog(*text, out.packages)) return false;
    if (how.installed) writeCatalogDigest(list, hash, out.source, out.packages);
    return true;
}

}  // namespace quor
