// zpk index DIR [--sign KEY]: makes a folder of package files a package
// server by writing its catalog.json (with --sign, catalog.json.sig) and
// catalog.hash.
#include <json/value.h>

#include <cstdio>
#include <cstring>
#include <filesystem>
#include <string>

#include "commands.h"
#include "quorpkg/package/catalog_index.h"

int zpkIndex(int argc, char** argv) {
    const bool signing = argc == 4 && std::strcmp(argv[2], "--sign") == 0 && *argv[3];
    if ((argc != 2 && !signing) || !*argv[1])
        return zpkError(2, "usage: zpk index DIR [--sign KEY]");
    std::optional<quor::SigningKey> key;
    if (signing && !(key = zpkLoadKey(argv[3]))) return 1;
    const std::filesystem::path dir(argv[1]);
    std::error_code ec;
    if (!std::filesystem::is_directory(dir, ec)) return zpkError(1, "%s: not a folder", argv[1]);
    Json::Value catalog;
    std::string error;
    if (quor::buildCatalog(dir, catalog, &error) != 0 ||
        quor::writeCatalogFiles(dir, catalog, &error, key ? &*key : nullptr) != 0)
        return zpkError(1, "%s", error.c_str());
    std::printf("%s: %u packages, hash %s\n", (dir / "catalog.json").c_str(),
                catalog["packages"].size(), catalog["hash"].asCString());
    if (key)
        std::printf("%s: signed by key %s\n", (dir / "catalog.json.sig").c_str(),
                    key->id().c_str());
    return 0;
}
