// Catalog parsing and the choice among offers on any bytes: nothing
// crashes or throws, and every offer handed out is a valid entry.
#include <json/value.h>

#include <cstddef>
#include <cstdint>
#include <cstdlib>
#include <filesystem>
#include <string>
#include <vector>

#include "quorpkg/package/manifest.h"
#include "quorpkg/server/catalog.h"
#include "quorpkg/server/offers.h"

extern "C" int LLVMFuzzerInitialize(int*, char***) {
    // Settings are read from the root: an empty one gives the defaults.
    static const std::string root =
        (std::filesystem::temp_directory_path() / "quorpkg-fuzz-root").string();
    std::filesystem::create_directories(root);
    ::setenv("QUOR_ROOT", root.c_str(), 1);
    return 0;
}

extern "C" int LLVMFuzzerTestOneInput(const uint8_t* data, size_t size) {
    const std::string text(reinterpret_cast<const char*>(data), size);
    std::vector<quor::Catalog> catalogs(1);
    catalogs[0].source.id = "quorserver";
    catalogs[0].source.url = "http://127.0.0.1/repo/";
    catalogs[0].source.urls = {catalogs[0].source.url};
    if (!quor::parseCatalog(text, catalogs[0].packages)) return 0;
    const quor::Offers offers(catalogs);
    for (const Json::Value& entry : catalogs[0].packages) {
        const std::string name = quor::entryText(entry, "package");
        for (bool beta : {false, true}) {
            const quor::Offer* offer = offers.newest(name, beta);
            if (offer == nullptr) continue;
            if (!quor::isValidPackageName(name) || !quor::isValidVersion(offer->version) ||
                (offer->beta && !beta))
                std::abort();
            Json::Value resolved;
            // What callers read of an entry converts without throwing.
            if (quor::resolvedEntry(*offer, resolved)) {
                if (resolved.isMember("size")) resolved["size"].asUInt64();
                if (resolved.isMember("type")) resolved["type"].asInt();
                for (const char* text : {"md5", "dname", "link"})
                    if (resolved.isMember(text)) resolved[text].asCString();
            }
            quor::entryFlag(*offer->entry, "important");
        }
    }
    return 0;
}
