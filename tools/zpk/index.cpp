// zpk index DIR: makes a folder of package files a package server by writing
// its catalog.json and catalog.hash.
#include <json/value.h>

#include <cstdio>
#include <filesystem>
#include <string>

#include "commands.h"
#include "quorpkg/package/catalog_index.h"

int zpkIndex(int argc, char** argv) {
    if (argc != 2 || !*argv[1]) return zpkError(2, "usage: zpk index DIR");
    const std::filesystem::path dir(argv[1]);
    std::error_code ec;
    if (!std::filesystem::is_directory(dir, ec)) return zpkError(1, "%s: not a folder", argv[1]);
    Json::Value catalog;
    std::string error;
    if (quor::buildCatalog(dir, catalog, &error) != 0 ||
        quor::writeCatalogFiles(dir, catalog, &error) != 0)
        return zpkError(1, "%s", error.c_str());
    std::printf("%s: %u packages, hash %s\n", (dir / "catalog.json").c_str(),
                catalog["packages"].size(), catalog["hash"].asCString());
    return 0;
}
