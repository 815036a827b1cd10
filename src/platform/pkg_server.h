// The package-server functions of the package-manager library (libquorpkg).
// Declarations only; the linked platform defines them.
#pragma once

#include <json/value.h>

#include <string>

namespace QUORPackageServer {

// True when the package has a newer version on the server.
bool PMSCheckUpgrade(bool fresh, const char* name, const char* lang);

// Fills `entry` with the server's newest entry for `name` (members "dname",
// "type", "size", "link", "md5" among others).
bool GetPackageInfoFromServer(const std::string& name, Json::Value& entry, bool fresh,
                              const std::string& lang, bool beta);

// Queues a download and installation that goes on after the caller exits.
bool BackgroundInstall(const char* user, const char* volume, const char* name,
                       const char* displayName, const char* version, bool noStart,
                       const char* lang, unsigned long long size, const char* link,
                       const char* md5, bool checkDependencies, bool beta);

}  // namespace QUORPackageServer
