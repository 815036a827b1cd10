// zpk index DIR: makes a folder of package files a package server by writing
// its catalog.json and catalog.hash.
#include <json/value.h>

#include <cstdio>
#include <filesystem>
#include <string>

#include "commands.h"
#include "options.h"
#include "quorpkg/server/catalog_index.h"

int zpkIndex(int argc, char** argv) {
    CommandLine line{"index DIR", "Write the package server catalog of a folder of package files."};
    line.hidden.add_options()("dir", po::value<std::string>()->required());
    line.operands.add("dir", 1);
    if (int status = parseCommandLine(argc, argv, line); status >= 0) return status;
    const std::filesystem::path dir(line.values["dir"].as<std::string>());
    std::error_code ec;
    if (!std::filesystem::is_directory(dir, ec))
        return zpkError(1, "%s: not a folder", dir.c_str());
    Json::Value catalog;
    std::string error;
    if (quor::buildCatalog(dir, catalog, &error) != 0 ||
        quor::writeCatalogFiles(dir, catalog, &error) != 0)
        return zpkError(1, "%s", error.c_str());
    std::printf("%s: %u packages, hash %s\n", (dir / "catalog.json").c_str(),
                catalog["packages"].size(), catalog["hash"].asCString());
    return 0;
}
