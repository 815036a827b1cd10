// What the catalogs offer this device: per package, the entries it can run
// (architecture and firmware fit), newest first.
#pragma once

#include <json/value.h>

#include <string>
#include <unordered_map>
#include <vector>

#include "quorpkg/server/catalog.h"

namespace quor {

struct Offer {
    const Json::Value* entry = nullptr;  // points into a Catalog
    const Source* source = nullptr;
    const std::string* plainLinkPrefix = nullptr;  // of its Catalog
    std::string version;
    bool beta = false;
};

class Offers {
public:
    // Keeps pointers into `catalogs`, which must outlive this object. Entries
    // without a valid package name, version or link are left out, and so are
    // file:// links from a web server.
    explicit Offers(const std::vector<Catalog>& catalogs);

    // The newest entry for `name`, beta ones only when `allowBeta`; null
    // when there is none.
    const Offer* newest(const std::string& name, bool allowBeta) const;

    // Every entry for `name` that this device can run, newest first.
    const std::vector<Offer>& all(const std::string& name) const;

private:
    std::unordered_map<std::string, std::vector<Offer>> byName_;
};

// The entry as handed to callers: a copy whose "link" is an absolute URL,
// resolved against its server's folder, and whose "size", "type", "md5" and
// "dname" read as the types callers ask for (a member of another type is
// left out), so that a hostile catalog cannot make a caller's JSON
// conversion throw. False when the link is not a URL.
bool resolvedEntry(const Offer& offer, Json::Value& out);

// Just the link of resolvedEntry; empty when it is not a usable URL.
std::string resolvedLink(const Offer& offer);

// A member that must be a string, as resolvedEntry hands it out: empty when
// it is of another type.
std::string entryString(const Json::Value& entry, const char* key);

// A member as text: strings as they are, numbers printed, anything else empty.
std::string entryText(const Json::Value& entry, const char* key);

// A yes/no member: true, a non-zero number, "yes", "true" or "1".
bool entryFlag(const Json::Value& entry, const char* key);

}  // namespace quor
