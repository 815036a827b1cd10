// chkupgradepkg, upgradeall, checkupdateall and checkupdate: ask the package
// server about newer versions.
#include <json/value.h>
#include <json/writer.h>

#include <cstdio>
#include <cstring>
#include <string>
#include <vector>

#include "commands.h"
#include "pkg_server.h"

namespace quorpkg {
namespace {

using QUORPackageTool::PackageInfo;

// Languages kept in a fixed buffer are cut to its size less the terminator.
constexpr std::size_t kLanguageSize = 10;

void copyLanguage(char (&language)[kLanguageSize], const char* word) {
    std::snprintf(language, sizeof language, "%s", word);
}

std::string toJsonLine(const Json::Value& value) {
    Json::StreamWriterBuilder builder;
    builder["indentation"] = "";
    builder["emitUTF8"] = true;
    return Json::writeString(builder, value);
}

}  // namespace

// The library upgrades according to the user's settings.
int chkupgradepkg(int argc, char** argv, PackageManager* /*manager*/) {
    // No default language; with more words than one the given one is ignored.
    const std::string language = argc == 2 ? argv[1] : "";
    if (!QUORPackageTool::PMSCheckUpgrade(true, nullptr, language.c_str(), nullptr)) {
        std::fputs("Fail to check upgrable packages in Quorvel package server\n", stdout);
        return 1;
    }
    resetPkgListHash();
    return 0;
}

int upgradeall(int argc, char** argv, PackageManager* /*manager*/) {
    const std::string language = argc >= 3 ? argv[2] : "enu";
    const std::string user = argc >= 4 ? argv[3] : "";
    // Limit-only unless the first word is exactly "false".
    const bool limitOnly = argc < 2 || std::strcmp(argv[1], "false") != 0;
    if (!QUORPackageTool::PMSCheckUpgrade(true, user.c_str(), language.c_str(), nullptr, true,
                                          limitOnly)) {
        std::fputs("Fail to upgrade all packages in Quorvel package server\n", stdout);
        return 1;
    }
    resetPkgListHash();
    return 0;
}

// Prints the offered upgrades as one JSON array, cache allowed. A failed
// check prints whatever the list holds, normally nothing.
int checkupdateall(int argc, char** argv, PackageManager* /*manager*/) {
    std::vector<PackageInfo> offered;
    Json::Value array(Json::arrayValue);
    char language[kLanguageSize] = "enu";
    if (argc >= 2) copyLanguage(language, argv[1]);
    const char* user = argc >= 3 ? argv[2] : nullptr;
    QUORPackageTool::PMSCheckUpgrade(false, user, language, &offered);
    for (const PackageInfo& listed : offered) {
        const PackageInfo package(listed);
        Json::Value object(Json::objectValue);
        object["id"] = package.name;
        object["name"] = package.displayname;
        object["version"] = package.version;
        object["beta"] = package.beta;
        array.append(std::move(object));
    }
    std::printf("%s\n", toJsonLine(array).c_str());
    return 0;
}

// Answers through the exit status only: 0 when the package is updatable.
int checkupdate(int argc, char** argv, PackageManager* /*manager*/) {
    if (badParameter(argc, argv)) return 1;
    char language[kLanguageSize] = "enu";
    if (argc >= 3) copyLanguage(language, argv[2]);
    return QUORPackageServer::PMSCheckUpgrade(false, argv[1], language) ? 0 : 1;
}

}  // namespace quorpkg
