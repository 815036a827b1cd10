// Making a package server: the catalog of a folder of package files.
#pragma once

#include <json/value.h>

#include <filesystem>
#include <string>

namespace quor {

// The catalog of the .zpk files directly inside `dir`: {"hash": ...,
// "packages": [...]}, one entry per file (package, version, dname, desc,
// type, size, link relative to the folder, md5, beta, important, deps,
// firmware, arch), sorted by package and version. The hash is the md5 of the
// package list, so an unchanged folder keeps its hash. kOk, or the code of
// the first file that cannot be read, with the reason in `error`.
int buildCatalog(const std::filesystem::path& dir, Json::Value& catalog,
                 std::string* error = nullptr);

// Writes <dir>/catalog.json and <dir>/catalog.hash (each atomically, the
// catalog first). kOk or kStoreUnusable.
int writeCatalogFiles(const std::filesystem::path& dir, const Json::Value& catalog,
                      std::string* error = nullptr);

}  // namespace quor
