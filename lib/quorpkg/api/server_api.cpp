// The package-server functions of the platform: looking packages up on the
// servers, installing from them in the background, and the volumes and
// folders the tool asks for around that.
#include <json/value.h>

#include <string>
#include <vector>

#include "base/layout.h"
#include "base/operation.h"
#include "base/result.h"
#include "pkg_manager.h"
#include "pkg_server.h"
#include "quorpkg/package/manifest.h"
#include "quorpkg/server/background.h"
#include "quorpkg/server/catalog.h"
#include "quorpkg/server/offers.h"
#include "quorpkg/server/volume_choice.h"

namespace fs = std::filesystem;

namespace {

// The tool reads "dname", "link" and "md5" as text and "type" and "size" as
// numbers without asking their types: members of another type are made
// right here, so that a sloppy server cannot make the tool throw.
void normaliseEntry(const std::string& name, Json::Value& entry) {
    if (!entry["dname"].isString() || entry["dname"].asString().empty()) entry["dname"] = name;
    if (entry.isMember("type") && !entry["type"].isInt())
        entry["type"] = quor::entryFlag(entry, "type") ? 1 : 0;
    if (entry.isMember("size") && !entry["size"].isUInt64()) {
        const std::string text = quor::entryText(entry, "size");
        if (!text.empty() && text.find_first_not_of("0123456789") == std::string::npos &&
            text.size() < 20)
            entry["size"] = Json::UInt64(std::stoull(text));
        else
            entry.removeMember("size");
    }
    if (entry.isMember("md5") && !entry["md5"].isString()) entry.removeMember("md5");
}

std::string text(const char* value) {
    return value ? value : "";
}

}  // namespace

namespace QUORPackageServer {

bool GetPackageInfoFromServer(const std::string& name, Json::Value& entry, bool fresh,
                              const std::string& lang, bool beta) {
    quor::Operation operation("GetPackageInfoFromServer", name, quor::freeFunctionResults(),
                              quor::LogPolicy::kOnFailure);
    if (!quor::isValidPackageName(name))
        return quor::fail(quor::kBadArgument, "not a package name: \"" + name + "\"");
    std::vector<quor::Catalog> catalogs;
    std::string why;
    int code = quor::loadCatalogs(fresh, lang.c_str(), catalogs, &why);
    if (code != quor::kOk) return quor::fail(code, why);
    const quor::Offers offers(catalogs);
    const quor::Offer* offer = offers.newest(name, beta);
    if (offer == nullptr)
        return quor::fail(quor::kNotOnServer, std::string("no configured server offers ") + name +
                                                  (beta ? "" : " (betas left out)") +
                                                  quor::unavailableSources(catalogs));
    Json::Value found;
    if (!quor::resolvedEntry(*offer, found))
        return quor::fail(quor::kServerUnreachable,
                          offer->source->url + " offers " + name + " with an unusable link: \"" +
                              quor::entryText(*offer->entry, "link") + "\"");
    normaliseEntry(name, found);
    entry = std::move(found);
    return true;
}

bool BackgroundInstall(const char* user, const char* volume, const char* name,
                       const char* displayName, const char* version, bool noStart, const char* lang,
                       unsigned long long size, const char* link, const char* md5,
                       bool checkDependencies, bool beta) {
    quor::Operation operation("BackgroundInstall", text(name), quor::freeFunctionResults(),
                              quor::LogPolicy::kAlways);
    quor::BackgroundRequest request;
    request.user = text(user);
    request.volume = text(volume);
    request.name = text(name);
    request.displayName = text(displayName);
    request.version = text(version);
    request.noStart = noStart;
    request.lang = text(lang);
    request.size = size;
    request.link = text(link);
    request.md5 = text(md5);
    request.withRequirements = checkDependencies;
    request.beta = beta;
    std::string why;
    int code = quor::startBackgroundInstall(request, &why);
    return code == quor::kOk || quor::fail(code, why);
}

}  // namespace QUORPackageServer

namespace QUORPackageTool {

bool PMSGetPackageDefVol(std::string& out) {
    quor::Operation operation("PMSGetPackageDefVol", "", quor::freeFunctionResults(),
                              quor::LogPolicy::kOnFailure);
    fs::path volume;
    int code = quor::defaultVolume(volume);
    if (code != quor::kOk) return quor::fail(code);
    out = volume.string();
    return true;
}

bool PMSGetTmpDir(unsigned long long size, std::string& out) {
    quor::Operation operation("PMSGetTmpDir", "", quor::freeFunctionResults(),
                              quor::LogPolicy::kOnFailure);
    fs::path dir;
    int code = quor::stagingDir(size, dir);
    if (code != quor::kOk) return quor::fail(code);
    out = dir.string();
    return true;
}

bool PMSGetListTmpDir(std::string& out) {
    quor::Operation operation("PMSGetListTmpDir", "", quor::freeFunctionResults(),
                              quor::LogPolicy::kOnFailure);
    const fs::path dir = quor::layout::listDir();
    out = dir.string();
    std::error_code ec;
    fs::create_directories(dir, ec);
    return !ec ||
           quor::fail(quor::kStoreUnusable, "cannot create " + dir.string() + ": " + ec.message());
}

}  // namespace QUORPackageTool
