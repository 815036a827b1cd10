// Making a package server: the catalog of a folder of package files.
#pragma once

#include <json/value.h>

#include <filesystem>
#include <string>

#include "quorpkg/package/signing_key.h"

namespace quor {

// The catalog of the .zpk files directly inside `dir`: {"hash": ...,
// "packages": [...]}, one entry per file (package, version, dname, desc,
// type, size, link relative to the folder, md5, sha256, beta, important,
// deps, firmware, arch), sorted by package and version. The hash is the md5 of the
// package list, so an unchanged folder keeps its hash. kOk, or the code of
// the first file that cannot be read, with the reason in `error`.
int buildCatalog(const std::filesystem::path& dir, Json::Value& catalog,
                 std::string* error = nullptr);

// The catalog as catalog.json holds it: indented JSON and a newline.
std::string catalogText(const Json::Value& catalog);

// Writes <dir>/catalog.json, with `key` its signature <dir>/catalog.json.sig
// (else an old one is removed), then <dir>/catalog.hash, each atomically.
// kOk or kStoreUnusable.
int writeCatalogFiles(const std::filesystem::path& dir, const Json::Value& catalog,
                      std::string* error = nullptr, const SigningKey* key = nullptr);

}  // namespace quor
