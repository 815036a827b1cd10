#include "quorpkg/package/channel_publisher.h"

#include <json/value.h>

#include <algorithm>
#include <chrono>
#include <map>
#include <sstream>
#include <system_error>

#include "base/file_util.h"
#include "base/result.h"
#include "quorpkg/package/catalog_index.h"
#include "quorpkg/package/catalog_zstd.h"
#include "quorpkg/package/manifest.h"
#include "quorpkg/package/md5.h"
#include "quorpkg/package/package_file.h"

namespace fs = std::filesystem;

namespace quor {
namespace {

int refuse(int code, std::string& why, std::string reason) {
    why = std::move(reason);
    return code;
}

int signerCount(const ChannelStatement& statement, const RoleKeys& role, const KeyTable& keys) {
    return static_cast<int>(verifiedSigners(statement, role.keyIds, keys).size());
}

// `keys` must be enough of `role` to reach its threshold.
int checkRoleKeys(const std::vector<SigningKey>& keys, const RoleKeys& role, const char* name,
                  std::string& why) {
    int named = 0;
    for (const SigningKey& key : keys) {
        if (std::find(role.keyIds.begin(), role.keyIds.end(), key.id()) == role.keyIds.end())
            return refuse(kBadArgument, why,
                          "key " + key.id() + " does not hold the " + name + " role of the root");
        ++named;
    }
    if (named < role.threshold)
        return refuse(kBadArgument, why,
                      std::string("the ") + name + " role needs " + std::to_string(role.threshold) +
                          " keys, " + std::to_string(named) + " given");
    return kOk;
}

// The statement signed by every key, or empty with the reason.
std::string signedBy(std::string text, const std::vector<SigningKey>& keys, std::string& why) {
    for (const SigningKey& key : keys) {
        text = addSignature(text, key, why);
        if (text.empty()) return {};
    }
    return text;
}

std::optional<SourceTimestamp> readPublishedTimestamp(const fs::path& dir, std::string& why) {
    std::optional<std::string> text = readFile(dir / kTimestampFile);
    if (!text) return std::nullopt;
    std::string problem;
    std::optional<SourceTimestamp> timestamp = readTimestamp(*text, problem);
    if (!timestamp) why = (dir / kTimestampFile).string() + ": " + problem;
    return timestamp;
}

// The highest V of catalog-<lang>.<V>.json in the folder, released or not:
// a new version never reuses a name a cache may have seen.
uint64_t highestCatalogFile(const fs::path& dir, const std::string& lang) {
    const std::string prefix = "catalog-" + lang + ".";
    uint64_t highest = 0;
    std::error_code ec;
    for (const auto& item : fs::directory_iterator(dir, ec)) {
        const std::string name = item.path().filename().string();
        if (name.size() <= prefix.size() + 5 || name.compare(0, prefix.size(), prefix) != 0 ||
            name.compare(name.size() - 5, 5, ".json") != 0)
            continue;
        const std::string digits = name.substr(prefix.size(), name.size() - prefix.size() - 5);
        if (!digits.empty() && digits.size() < 16 &&
            digits.find_first_not_of("0123456789") == std::string::npos)
            highest = std::max<uint64_t>(highest, std::stoull(digits));
    }
    return highest;
}

// The package files of the catalog that a device would refuse.
std::vector<std::string> refusedPackages(const fs::path& dir, const Json::Value& catalog,
                                         const SourceRoot& root) {
    std::vector<std::string> out;
    for (const Json::Value& entry : catalog["packages"]) {
        const std::string file = entry["link"].asString(), name = entry["package"].asString();
        PackageFileHead head;
        if (readPackageHead(dir / file, head) != kOk) continue;  // the catalog read it
        if (!head.signature)
            out.push_back(file + ": not signed; devices refuse it");
        else if (!root.allows(head.signature->keyId, name))
            out.push_back(file + ": signed by key " + head.signature->keyId +
                          ", which the root does not allow for " + name);
    }
    return out;
}

// Each timestamp is modified later than the one it replaces, even within
// one second: web servers answer conditional requests by the modification
// time, and a device told "not modified" keeps the older one.
int writeTimestamp(const fs::path& dir, SourceTimestamp timestamp, const ReleaseOptions& options,
                   std::string& why) {
    const std::string text = signedBy(formatTimestamp(timestamp), options.timestampKeys, why);
    if (text.empty()) return kBadArgument;
    const fs::path file = dir / kTimestampFile;
    std::error_code ec;
    const auto previous = fs::last_write_time(file, ec);
    const bool hadOne = !ec;
    if (!writeFileAtomic(file, text))
        return refuse(kStoreUnusable, why, "cannot write " + file.string());
    const auto written = fs::last_write_time(file, ec);
    if (hadOne && !ec && written < previous + std::chrono::seconds(1))
        fs::last_write_time(file, previous + std::chrono::seconds(1), ec);
    return kOk;
}

SourceTimestamp nextTimestamp(const std::optional<SourceTimestamp>& previous,
                              const SourceRoot& root, const ReleaseOptions& options) {
    SourceTimestamp next;
    if (previous) next = *previous;
    next.source = root.source;
    next.version = previous ? previous->version + 1 : 1;
    next.issued = options.now;
    next.expires = options.now + options.timestampLifetime;
    next.rootVersion = root.version;
    if (!previous) next.defaultLang = options.lang;
    return next;
}

// The catalog compressed, and as a patch from each of the last `patches`
// versions the folder still holds; their sizes go into `ref`.
bool writeSmallerForms(const fs::path& dir, const std::string& text, int patches, CatalogRef& ref) {
    const std::string compressed = compressCatalog(text);
    const fs::path file = dir / (catalogFileName(ref.lang, ref.version) + ".zst");
    if (compressed.empty() || !writeFileAtomic(file, compressed)) return false;
    ref.compressedSize = compressed.size();
    ref.patches.clear();
    // Versions a publisher removed are passed over, a few at the most.
    const uint64_t oldest = ref.version > uint64_t(4 * patches) ? ref.version - 4 * patches : 1;
    for (uint64_t from = ref.version - 1; from >= oldest && int(ref.patches.size()) < patches;
         --from) {
        std::optional<std::string> old = readFile(dir / catalogFileName(ref.lang, from));
        if (!old) continue;
        const std::string patch = compressCatalog(text, *old);
        if (patch.empty() ||
            !writeFileAtomic(dir / catalogPatchFileName(ref.lang, ref.version, from), patch))
            return false;
        ref.patches.push_back({from, patch.size()});
    }
    return true;
}

// The phases file as "<name> <version>" -> percent.
std::map<std::string, int> readPhases(const fs::path& dir) {
    std::map<std::string, int> out;
    std::istringstream lines(readFile(dir / kPhasesFile).value_or(""));
    std::string name, version;
    int percent = 0;
    while (lines >> name >> version >> percent) out[name + " " + version] = percent;
    return out;
}

void applyPhases(const fs::path& dir, Json::Value& catalog) {
    const std::map<std::string, int> phases = readPhases(dir);
    for (Json::Value& entry : catalog["packages"]) {
        auto phase = phases.find(entry["package"].asString() + " " + entry["version"].asString());
        if (phase != phases.end()) entry["phase"] = phase->second;
    }
}

}  // namespace

int setPhase(const fs::path& dir, const std::string& name, const std::string& version, int percent,
             std::string& why) {
    if (percent < 0 || percent > 100)
        return refuse(kBadArgument, why, "a phase is a percentage from 0 to 100");
    if (!isValidPackageName(name) || !isValidVersion(version))
        return refuse(kBadArgument, why, "not a package name and version: " + name + " " + version);
    std::map<std::string, int> phases = readPhases(dir);
    if (percent == 100)
        phases.erase(name + " " + version);
    else
        phases[name + " " + version] = percent;
    std::string text;
    for (const auto& [key, value] : phases) text += key + " " + std::to_string(value) + "\n";
    if (!writeFileAtomic(dir / kPhasesFile, text))
        return refuse(kStoreUnusable, why, "cannot write " + (dir / kPhasesFile).string());
    return kOk;
}

std::string rootFileName(uint64_t version) {
    return std::to_string(version) + ".root";
}

std::string catalogFileName(const std::string& lang, uint64_t version) {
    return "catalog-" + lang + "." + std::to_string(version) + ".json";
}

std::string catalogPatchFileName(const std::string& lang, uint64_t version, uint64_t from) {
    return "catalog-" + lang + "." + std::to_string(version) + ".from-" + std::to_string(from) +
           ".zst";
}

int readPublishedRoot(const fs::path& dir, SourceRoot& out, std::string& why) {
    const fs::path file = dir / kNewestRootFile;
    std::optional<std::string> text = readFile(file);
    if (!text) return refuse(kFileUnreadable, why, "no root in " + dir.string());
    std::string problem;
    std::optional<SourceRoot> root = readRoot(*text, problem);
    if (!root) return refuse(kBadArgument, why, file.string() + ": " + problem);
    if (signerCount(root->statement, root->root, root->keys) < root->root.threshold)
        return refuse(kBadArgument, why, file.string() + " lacks root signatures");
    out = std::move(*root);
    return kOk;
}

int rootProgress(const fs::path& dir, const SourceRoot& root, RootProgress& out, std::string& why) {
    out = RootProgress{};
    out.own = signerCount(root.statement, root.root, root.keys);
    bool previousDone = true;
    if (root.version > 1) {
        const fs::path file = dir / rootFileName(root.version - 1);
        std::optional<std::string> text = readFile(file);
        std::string problem;
        std::optional<SourceRoot> previous = text ? readRoot(*text, problem) : std::nullopt;
        if (!previous)
            return refuse(kBadArgument, why,
                          "root " + std::to_string(root.version) + " needs " + file.string() +
                              (problem.empty() ? "" : ": " + problem));
        out.previous = signerCount(root.statement, previous->root, previous->keys);
        previousDone = out.previous >= previous->root.threshold;
    }
    out.complete = out.own >= root.root.threshold && previousDone;
    return kOk;
}

int signRoot(const fs::path& file, const SigningKey& key, RootProgress& progress,
             std::string& why) {
    std::optional<std::string> text = readFile(file);
    if (!text) return refuse(kFileUnreadable, why, "cannot read " + file.string());
    std::string problem;
    std::optional<SourceRoot> root = readRoot(*text, problem);
    if (!root) return refuse(kBadArgument, why, file.string() + ": " + problem);
    const fs::path dir = file.parent_path().empty() ? fs::path(".") : file.parent_path();
    if (int code = rootProgress(dir, *root, progress, why)) return code;
    if (progress.complete)
        return refuse(kBadArgument, why,
                      "root " + std::to_string(root->version) +
                          " has all the signatures it needs; another would change its sha256");
    bool named = std::count(root->root.keyIds.begin(), root->root.keyIds.end(), key.id()) > 0;
    if (!named && root->version > 1) {
        std::optional<std::string> previousText = readFile(dir / rootFileName(root->version - 1));
        std::optional<SourceRoot> read =
            previousText ? readRoot(*previousText, problem) : std::nullopt;
        named = read && std::count(read->root.keyIds.begin(), read->root.keyIds.end(), key.id());
    }
    if (!named)
        return refuse(kBadArgument, why,
                      "key " + key.id() + " is not a root key of root " +
                          std::to_string(root->version) + " or of the one before");
    const std::string signedText = addSignature(*text, key, why);
    if (signedText.empty()) return kBadArgument;
    std::optional<SourceRoot> updated = readRoot(signedText, problem);
    if (!updated || !writeFileAtomic(file, signedText))
        return refuse(kStoreUnusable, why, "cannot write " + file.string());
    if (int code = rootProgress(dir, *updated, progress, why)) return code;
    if (!progress.complete) return kOk;
    // It counts: served under its version's name and as the newest root,
    // unless a newer one is published already.
    SourceRoot newest;
    std::string ignored;
    const bool newer = readPublishedRoot(dir, newest, ignored) == kOk &&
                       newest.source == updated->source && newest.version > updated->version;
    const fs::path versioned = dir / rootFileName(updated->version);
    std::error_code ec;
    const bool draft = !fs::equivalent(file, versioned, ec);
    if ((draft && !writeFileAtomic(versioned, signedText)) ||
        (!newer && !writeFileAtomic(dir / kNewestRootFile, signedText)))
        return refuse(kStoreUnusable, why, "cannot publish root " + versioned.string());
    if (draft) fs::remove(file, ec);
    return kOk;
}

int releaseCatalog(const fs::path& dir, const ReleaseOptions& options, ReleaseOutcome& out,
                   std::string& why) {
    out = ReleaseOutcome{};
    SourceRoot root;
    if (int code = readPublishedRoot(dir, root, why)) return code;
    if (root.expires <= options.now)
        return refuse(kBadArgument, why, "root " + std::to_string(root.version) + " has expired");
    if (int code = checkRoleKeys(options.catalogKeys, root.catalog, "catalog", why)) return code;
    if (int code = checkRoleKeys(options.timestampKeys, root.timestamp, "timestamp", why))
        return code;
    std::string problem;
    const std::optional<SourceTimestamp> previous = readPublishedTimestamp(dir, problem);
    if (!problem.empty()) return refuse(kBadArgument, why, problem);

    Json::Value catalog;
    if (int code = buildCatalog(dir, catalog, &why)) return code;
    applyPhases(dir, catalog);
    const std::string text = catalogText(catalog);
    CatalogRef ref;
    ref.lang = options.lang;
    ref.size = text.size();
    ref.sha256 = dataSha256Hex(text);
    const CatalogRef* kept = nullptr;
    if (previous)
        for (const CatalogRef& candidate : previous->catalogs)
            if (candidate.lang == options.lang) kept = &candidate;

    // An unchanged catalog keeps its version while its seal has half its
    // life ahead and still counts under the newest root (a catalog key
    // rotated out no longer does); otherwise a new version with a new seal.
    std::optional<CatalogSeal> keptSeal;
    if (kept && kept->sha256 == ref.sha256) {
        const fs::path sealFile = dir / (catalogFileName(kept->lang, kept->version) + ".sig");
        if (std::optional<std::string> sealText = readFile(sealFile))
            keptSeal = readCatalogSeal(*sealText, problem);
    }
    if (keptSeal && keptSeal->expires > options.now + options.catalogLifetime / 2 &&
        signerCount(keptSeal->statement, root.catalog, root.keys) >= root.catalog.threshold) {
        ref = *kept;
    } else {
        ref.version = std::max(kept ? kept->version : 0, highestCatalogFile(dir, ref.lang)) + 1;
        CatalogSeal seal{root.source, ref.lang, ref.version, options.now + options.catalogLifetime,
                         ref.sha256,  {}};
        const std::string sealText = signedBy(formatCatalogSeal(seal), options.catalogKeys, why);
        if (sealText.empty()) return kBadArgument;
        const fs::path file = dir / catalogFileName(ref.lang, ref.version);
        if (!writeFileAtomic(file, text) || !writeFileAtomic(file.string() + ".sig", sealText) ||
            !writeSmallerForms(dir, text, options.patches, ref))
            return refuse(kStoreUnusable, why, "cannot write " + file.string());
        out.newCatalog = true;
    }
    out.catalogVersion = ref.version;

    // The plain files for devices that list this source as unverified.
    SourceTimestamp next = nextTimestamp(previous, root, options);
    const std::string plain = ref.lang == next.defaultLang ? "catalog" : "catalog-" + ref.lang;
    // A signature of the plain catalog it replaces would no longer match:
    // `zpk index --sign` signs the new one for devices that require it.
    std::error_code ec;
    fs::remove(dir / (plain + ".json.sig"), ec);
    if (!writeFileAtomic(dir / (plain + ".json"), text) ||
        !writeFileAtomic(dir / (plain + ".hash"), catalog["hash"].asString() + "\n"))
        return refuse(kStoreUnusable, why, "cannot write " + (dir / (plain + ".json")).string());

    std::erase_if(next.catalogs, [&](const CatalogRef& other) { return other.lang == ref.lang; });
    next.catalogs.push_back(ref);
    std::sort(next.catalogs.begin(), next.catalogs.end(),
              [](const CatalogRef& a, const CatalogRef& b) { return a.lang < b.lang; });
    if (int code = writeTimestamp(dir, next, options, why)) return code;
    out.timestampVersion = next.version;
    out.warnings = refusedPackages(dir, catalog, root);
    return kOk;
}

int renewTimestamp(const fs::path& dir, const ReleaseOptions& options, uint64_t& version,
                   std::string& why) {
    SourceRoot root;
    if (int code = readPublishedRoot(dir, root, why)) return code;
    if (int code = checkRoleKeys(options.timestampKeys, root.timestamp, "timestamp", why))
        return code;
    std::string problem;
    const std::optional<SourceTimestamp> previous = readPublishedTimestamp(dir, problem);
    if (!previous)
        return refuse(kBadArgument, why,
                      problem.empty() ? "nothing released in " + dir.string() + " yet" : problem);
    SourceTimestamp next = nextTimestamp(previous, root, options);
    if (int code = writeTimestamp(dir, next, options, why)) return code;
    version = next.version;
    return kOk;
}

}  // namespace quor
