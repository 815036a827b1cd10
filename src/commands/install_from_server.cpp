// install_from_server: hand a package from the package server to the
// background installer.
#include <json/value.h>

#include <cstdio>
#include <cstring>
#include <string>

#include "commands.h"
#include "pkg_server.h"
#include "quor_core.h"

namespace quorpkg {
namespace {

constexpr int kNoSuchPackage = 255;
constexpr const char* kLanguage = "enu";

unsigned long long downloadSize(const Json::Value& entry) {
    return entry.isMember("size") ? entry["size"].asUInt64() : 0;
}

}  // namespace

int install_from_server(int argc, char** argv, PackageManager* manager) {
    if (badParameter(argc, argv)) return 1;
    const std::string name(argv[1]);
    std::string volume = argc >= 3 ? argv[2] : "";
    const std::string user = argc >= 4 ? argv[3] : "";
    const bool beta = argc >= 5 && std::strcmp(argv[4], "true") == 0;

    // Any code but "no such package" counts as installed.
    bool running = false;
    manager->getServiceStatus(name, running, true);
    if (manager->getResult() != kNoSuchPackage) {
        std::printf("Package '%s' already installed\n", name.c_str());
        return 1;
    }

    Json::Value entry;
    if (!QUORPackageServer::GetPackageInfoFromServer(name, entry, true, kLanguage, beta)) {
        std::fputs("Failed to query package list from server\n", stdout);
        return 1;
    }

    // Without a volume: the default one, else the one whose temporary
    // directory suits the download.
    if (volume.empty() && !QUORPackageTool::PMSGetPackageDefVol(volume) &&
        !QUORPackageTool::PMSGetTmpDir(downloadSize(entry), volume)) {
        std::fputs("Failed to get install volume\n", stdout);
        return 1;
    }
    VOLUME_PATH_INFO volumeInfo;
    std::memset(&volumeInfo, 0, sizeof volumeInfo);
    if (VolumePathParseEx(volume.c_str(), &volumeInfo) < 0) {
        std::fputs("Failed to parse volume\n", stdout);
        return 1;
    }
    volume.assign(volumeInfo.path, strnlen(volumeInfo.path, sizeof volumeInfo.path));

    // The server always sends "dname" and "link"; an entry without them
    // fails in the JSON library and ends the run with its report.
    const char* displayName = entry["dname"].asCString();
    const bool type = entry.isMember("type") && entry["type"].asInt() != 0;
    const unsigned long long size = downloadSize(entry);
    const char* link = entry["link"].asCString();
    const char* md5 = entry.isMember("md5") ? entry["md5"].asCString() : nullptr;

    if (!QUORPackageServer::BackgroundInstall(user.c_str(), volume.c_str(), name.c_str(),
                                              displayName, nullptr, type, kLanguage, size, link,
                                              md5, true, beta)) {
        std::printf("Failed to install '%s'\n", name.c_str());
        return 1;
    }
    return 0;
}

}  // namespace quorpkg
