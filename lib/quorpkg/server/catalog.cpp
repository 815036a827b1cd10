#include "quorpkg/server/catalog.h"

#include <json/reader.h>
#include <syslog.h>

#include <chrono>
#include <filesystem>
#include <memory>
#include <system_error>

#include "base/file_util.h"
#include "base/key_value.h"
#include "base/layout.h"
#include "base/result.h"
#include "base/settings.h"
#include "quorpkg/package/md5.h"
#include "quorpkg/package/trust.h"
#include "quorpkg/server/catalog_digest.h"
#include "quorpkg/server/http_client.h"

namespace fs = std::filesystem;

namespace quor {
namespace {

constexpr uint64_t kMaxHashBytes = 4096;
constexpr uint64_t kMaxSignatureBytes = 4096;
// What the upgrade commands write into a hash file to force a fresh load.
constexpr const char* kResetHash = "temphash";

struct CacheFiles {
    fs::path list;
    fs::path hash;
};

// What a hash file remembers about the kept catalog.
struct Remembered {
    std::string hash;
    std::string source;
    std::string key;  // the trusted key that verified it, if one did
};

std::string trimmed(const std::string& text) {
    const char* blanks = " \t\r\n";
    size_t begin = text.find_first_not_of(blanks);
    if (begin == std::string::npos) return {};
    return text.substr(begin, text.find_last_not_of(blanks) - begin + 1);
}

Remembered readRemembered(const fs::path& file) {
    Remembered out;
    std::optional<std::string> text = readFile(file);
    std::optional<KeyValues> pairs = text ? parseKeyValues(*text) : std::nullopt;
    if (!pairs) return out;
    if (const std::string* hash = findValue(*pairs, "hash")) out.hash = *hash;
    if (const std::string* source = findValue(*pairs, "source")) out.source = *source;
    if (const std::string* key = findValue(*pairs, "key")) out.key = *key;
    return out;
}

// A kept catalog serves only while it would pass the trust check again:
// when signatures are required, the key that verified it is still trusted.
bool keptCatalogIsTrusted(const Remembered& remembered, const Settings& settings) {
    const TrustedKeys keys = loadTrustedKeys();
    if (!signatureRequired(settings, keys)) return true;
    return !remembered.key.empty() && keys.find(remembered.key) != nullptr;
}

// With `parse` false only checks that the kept catalog is there. A load for
// a few names reads only their entries when the catalog has a digest, and
// leaves one for the next load when it had none.
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

// The kept catalog may serve a cached load: its hash was not reset, it came
// from the server now configured, and it is younger than the time to live.
bool keptCatalogIsCurrent(const CacheFiles& files, const Remembered& remembered,
                          const Source& source, const Settings& settings) {
    if (remembered.hash.empty() || remembered.hash == kResetHash ||
        remembered.source != source.url || !keptCatalogIsTrusted(remembered, settings))
        return false;
    std::error_code ec;
    const auto written = fs::last_write_time(files.list, ec);
    if (ec) return false;
    const auto age = fs::file_time_type::clock::now() - written;
    return age < std::chrono::seconds(settings.catalog_ttl);
}

// The first of `names` the server has: kOk with its text (and its name in
// `found`); kNoSuchPackage when it has none of them; kServerUnreachable on
// any other failure.
int fetchFirst(const Source& source, std::initializer_list<std::string> names, uint64_t maxBytes,
               std::string& text, std::string* error, std::string* found = nullptr) {
    for (const std::string& name : names) {
        FetchResult result = fetchText(source.url + name, text, maxBytes);
        if (found) *found = name;
        if (result.ok()) return kOk;
        if (error) *error = source.url + name + ": " + result.error;
        if (result.status == FetchStatus::kFailed) return kServerUnreachable;
    }
    return kNoSuchPackage;
}

void remember(const CacheFiles& files, const std::string& text, const std::string& hash,
              const Source& source, const std::string& key) {
    // The cache only saves downloads: a list directory we cannot write to
    // costs a download next time, nothing else.
    std::error_code ec;
    fs::create_directories(files.list.parent_path(), ec);
    KeyValues pairs = {{"hash", hash}, {"source", source.url}};
    if (!key.empty()) pairs.emplace_back("key", key);
    if (writeFileAtomic(files.list, text)) writeFileAtomic(files.hash, formatKeyValues(pairs));
}

// The catalog `name` just fetched must pass the trust check with its
// signature, <name>.sig, when the server has one. kOk with the key that
// verified it (if any) in `key`, else kServerUnreachable: a catalog that
// cannot be trusted is a failed query.
int checkFetchedCatalog(const Source& source, const std::string& name, const std::string& text,
                        std::string& key, std::string* error) {
    std::string signature;
    const std::string url = source.url + name + ".sig";
    FetchResult result = fetchText(url, signature, kMaxSignatureBytes);
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

int loadCatalog(const Source& source, const std::string& lang, const CatalogLoad& how,
                const Settings& settings, Catalog& out, std::string* error) {
    out.source = source;
    const CacheFiles files{layout::listDir() / source.cacheFileName("list", lang),
                           layout::listDir() / source.cacheFileName("hash", lang)};
    const Remembered remembered = readRemembered(files.hash);
    if (!how.fresh && keptCatalogIsCurrent(files, remembered, source, settings) &&
        readKeptCatalog(files.list, remembered.hash, how, out))
        return kOk;

    std::string serverHash;
    int code = fetchFirst(source, {"catalog-" + lang + ".hash", "catalog.hash"}, kMaxHashBytes,
                          serverHash, error);
    if (code == kServerUnreachable) return code;
    serverHash = trimmed(serverHash);
    if (!serverHash.empty() && serverHash != kResetHash && serverHash == remembered.hash &&
        remembered.source == source.url && keptCatalogIsTrusted(remembered, settings) &&
        readKeptCatalog(files.list, remembered.hash, how, out)) {
        // Still the server's catalog: it serves cached loads for another while.
        std::error_code ec;
        fs::last_write_time(files.list, fs::file_time_type::clock::now(), ec);
        return kOk;
    }

    std::string text, name, key;
    // A catalog beyond the setting is refused rather than held in memory.
    const uint64_t maxBytes = uint64_t(settings.catalog_max_mib) << 20;
    code = fetchFirst(source, {"catalog-" + lang + ".json", "catalog.json"}, maxBytes, text, error,
                      &name);
    if (code == kNoSuchPackage && error) *error = "the server has no catalog: " + *error;
    if (code != kOk) return kServerUnreachable;
    if (checkFetchedCatalog(source, name, text, key, error) != kOk) return kServerUnreachable;
    std::string why;
    if (!parseCatalog(text, out.packages, &why)) {
        if (error) *error = source.url + ": " + why;
        return kServerUnreachable;
    }
    // A server without a hash file still gets a hash remembered, so that
    // cached loads can use the catalog.
    const std::string hash = serverHash.empty() ? dataMd5Hex(text) : serverHash;
    remember(files, text, hash, source, key);
    writeCatalogDigest(files.list, hash, source, out.packages);
    return kOk;
}

}  // namespace

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
    for (const Source& source : sources) {
        Catalog catalog;
        code = loadCatalog(source, language, how, settings, catalog, error);
        if (code != kOk) {
            out.clear();
            return code;
        }
        out.push_back(std::move(catalog));
    }
    return kOk;
}

}  // namespace quor
