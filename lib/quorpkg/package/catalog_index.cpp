#include "quorpkg/package/catalog_index.h"

#include <json/writer.h>

#include <algorithm>
#include <cctype>
#include <system_error>
#include <vector>

#include "base/file_util.h"
#include "base/result.h"
#include "quorpkg/package/md5.h"
#include "quorpkg/package/package_file.h"
#include "quorpkg/package/signed_statement.h"
#include "quorpkg/package/trust.h"
#include "quorpkg/package/version.h"

namespace fs = std::filesystem;

namespace quor {
namespace {

// `text` percent-encoded for use as one path segment of a URL.
std::string escapeUrlSegment(const std::string& text) {
    static const char* hex = "0123456789ABCDEF";
    std::string out;
    for (unsigned char c : text) {
        if (std::isalnum(c) || c == '-' || c == '.' || c == '_' || c == '~') {
            out += static_cast<char>(c);
        } else {
            out += '%';
            out += hex[c >> 4];
            out += hex[c & 15];
        }
    }
    return out;
}

std::string manifestValue(const Manifest& manifest, const char* key) {
    const std::string* value = findValue(manifest.pairs, key);
    return value ? *value : std::string();
}

int entryOf(const fs::path& file, Json::Value& entry, std::string* error) {
    PackageFileHead head;
    std::string why;
    int code = readPackageHead(file, head, &why);
    std::error_code ec;
    const uint64_t size = fs::file_size(file, ec);
    std::optional<FileDigests> digests = fileDigests(file);
    if (code == kOk && (ec || !digests)) code = kFileUnreadable;
    if (code != kOk) {
        if (error) *error = file.string() + ": " + (why.empty() ? "cannot be read" : why);
        return code;
    }
    const Manifest& manifest = head.manifest;
    entry = Json::Value(Json::objectValue);
    entry["package"] = manifest.name;
    entry["version"] = manifest.version;
    entry["dname"] = manifest.displayname;
    entry["desc"] = manifest.description;
    entry["type"] = 0;
    entry["size"] = Json::UInt64(size);
    entry["link"] = escapeUrlSegment(file.filename().string());
    entry["md5"] = digests->md5;
    entry["sha256"] = digests->sha256;
    entry["beta"] = manifest.beta;
    entry["important"] = manifestValue(manifest, "important") == "yes";
    entry["deps"] = manifestValue(manifest, "install_dep_packages");
    entry["firmware"] = manifest.firmware;
    entry["arch"] = manifest.arch.empty() ? "noarch" : manifest.arch;
    return kOk;
}

std::string compactJson(const Json::Value& value) {
    Json::StreamWriterBuilder builder;
    builder["indentation"] = "";
    return Json::writeString(builder, value);
}

}  // namespace

int buildCatalog(const fs::path& dir, Json::Value& catalog, std::string* error) {
    std::vector<fs::path> files;
    std::error_code ec;
    for (const auto& item : fs::directory_iterator(dir, ec))
        if (item.path().extension() == ".zpk" && item.is_regular_file(ec))
            files.push_back(item.path());
    if (ec) {
        if (error) *error = dir.string() + ": " + ec.message();
        return kFileUnreadable;
    }
    std::vector<Json::Value> entries;
    for (const fs::path& file : files) {
        Json::Value entry;
        int code = entryOf(file, entry, error);
        if (code != kOk) return code;
        entries.push_back(std::move(entry));
    }
    std::sort(entries.begin(), entries.end(), [](const Json::Value& a, const Json::Value& b) {
        const std::string nameA = a["package"].asString(), nameB = b["package"].asString();
        if (nameA != nameB) return nameA < nameB;
        return compareVersions(a["version"].asString(), b["version"].asString()) < 0;
    });
    Json::Value packages(Json::arrayValue);
    for (Json::Value& entry : entries) packages.append(std::move(entry));
    catalog = Json::Value(Json::objectValue);
    catalog["hash"] = dataMd5Hex(compactJson(packages));
    catalog["packages"] = std::move(packages);
    return kOk;
}

std::string catalogText(const Json::Value& catalog) {
    Json::StreamWriterBuilder builder;
    builder["indentation"] = "  ";
    return Json::writeString(builder, catalog) + "\n";
}

int writeCatalogFiles(const fs::path& dir, const Json::Value& catalog, std::string* error,
                      const SigningKey* key) {
    const std::string text = catalogText(catalog);
    std::string signature;
    if (key) {
        const std::string statement =
            statementHeader(StatementKind::kCatalog, key->id()) + catalogStatementBody(text);
        const std::string bytes = key->sign(statement);
        if (bytes.empty()) {
            if (error) *error = "cannot sign with key " + key->id();
            return kBadArgument;
        }
        signature = formatSigned(bytes, statement);
    }
    // The catalog and its signature go first: a client that sees the new
    // hash finds them behind it.
    const fs::path sigFile = dir / "catalog.json.sig";
    std::error_code ec;
    bool ok = writeFileAtomic(dir / "catalog.json", text);
    if (ok && key) ok = writeFileAtomic(sigFile, signature);
    if (ok && !key) ok = fs::remove(sigFile, ec) || !ec;
    if (!ok || !writeFileAtomic(dir / "catalog.hash", catalog["hash"].asString() + "\n")) {
        if (error) *error = "cannot write the catalog into " + dir.string();
        return kStoreUnusable;
    }
    return kOk;
}

}  // namespace quor
