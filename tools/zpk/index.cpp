// zpk index DIR [--sign KEY]: makes a folder of package files a package
// server by writing its catalog.json (with --sign, catalog.json.sig) and
// catalog.hash.
#include <json/value.h>

#include <cstdio>
#include <cstring>
#include <filesystem>
#include <string>

#include "commands.h"
#include "options.h"
#include "quorpkg/package/catalog_index.h"

int zpkIndex(int argc, char** argv) {
    CommandLine line{"index DIR [--sign KEY]",
                     "Write the package server catalog of a folder of package files."};
    line.options.add_options()("sign", po::value<std::string>(),
                               "sign the catalog with this private key file: catalog.json.sig");
    line.hidden.add_options()("dir", po::value<std::string>()->required());
    line.operands.add("dir", 1);
    if (int status = parseCommandLine(argc, argv, line); status >= 0) return status;
    const std::filesystem::path dir(line.values["dir"].as<std::string>());
    std::optional<quor::SigningKey> key;
    if (line.values.count("sign") &&
        !(key = zpkLoadKey(line.values["sign"].as<std::string>().c_str())))
        return 1;
    std::error_code ec;
    if (!std::filesystem::is_directory(dir, ec))
        return zpkError(1, "%s: not a folder", dir.c_str());
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
