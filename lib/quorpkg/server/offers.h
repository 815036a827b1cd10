// What the catalogs offer this device: per package, the entries it can run
// (architecture and firmware fit), newest first, from the one source the
// package may come from: the source it was installed from, or for a
// package that is not installed (or was installed from a file) the first
// source in the sources file that offers it. So a later source can never
// shadow a name with a higher version, nor replace an installed package.
#pragma once

#include <json/value.h>

#include <functional>
#include <map>
#include <string>
#include <unordered_map>
#include <vector>

#include "quorpkg/server/catalog.h"

namespace quor {

struct Offer {
    const EntrySummary* summary = nullptr;  // what the rules read of the entry
    // The entry itself, in its Catalog; null when only its summary was read
    // (a check that only reports).
    const Json::Value* entry = nullptr;
    const Source* source = nullptr;
    const std::string* plainLinkPrefix = nullptr;  // of its Catalog
    std::string version;
    bool beta = false;
    const Catalog* catalog = nullptr;
};

// The origin an installed package records (store/origin.h), by name.
using OriginLookup = std::function<std::string(const std::string& name)>;

class Offers {
public:
    // Keeps pointers into `catalogs`, which must outlive this object. Entries
    // without a valid package name, version, link or size are left out, and
    // so are file:// links from a web server and, from a trusted source,
    // entries without a sha256 (offerable below). `origins` tells where an
    // installed package came from (default: its origin file).
    explicit Offers(const std::vector<Catalog>& catalogs, OriginLookup origins = {});
    Offers(const Offers&) = delete;
    Offers& operator=(const Offers&) = delete;

    // The newest entry for `name`, beta ones only when `allowBeta`; null
    // when there is none.
    const Offer* newest(const std::string& name, bool allowBeta) const;

    // Every entry for `name` that this device can run and may take, newest
    // first.
    const std::vector<Offer>& all(const std::string& name) const;

private:
    struct Candidates {
        std::vector<Offer> offers;       // of every source
        const Catalog* first = nullptr;  // the first source listing the name
        // Those the name may come from, once asked for: all of `offers`
        // (the usual case, nothing copied) or `chosen`.
        mutable bool known = false;
        mutable bool all = false;
        mutable std::vector<Offer> chosen;
    };
    const std::string& originOf(const Catalog* catalog) const;

    // Catalog::origin() of each catalog, worked out once.
    std::vector<std::pair<const Catalog*, std::string>> catalogOrigins_;
    // Summaries of the catalogs read whole, one list per catalog.
    std::vector<std::vector<EntrySummary>> summaries_;
    std::unordered_map<std::string, Candidates> byName_;
    OriginLookup origins_;
};

// Whether an entry with a valid name may be offered from `catalog` to a
// device of `arch` at `firmware`.
bool offerable(const EntrySummary& entry, const Catalog& catalog, const std::string& arch,
               const std::string& firmware);

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
