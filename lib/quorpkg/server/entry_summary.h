// What the offer and upgrade rules (offers.h, upgrades.h) and the upgrade
// records look at in a catalog entry, read once from its JSON. The catalog
// digest (catalog_digest.h) keeps the same summary per entry, so that a
// check that only reports reads no JSON and still applies the same rules.
#pragma once

#include <json/value.h>

#include <string>

namespace quor {

struct EntrySummary {
    std::string name;         // "package", as text
    std::string version;      // "version", as text
    std::string link;         // "link", as text, unresolved
    std::string arch;         // "arch", as text
    std::string firmware;     // "firmware", as text
    std::string displayName;  // "dname" when it is a string
    std::string description;  // "desc", as text
    int phase = 100;          // the staged rollout's share (rollout.h)
    bool beta = false;
    bool important = false;
    bool sized = false;   // "size" is a whole number that fits 64 bits
    bool sha256 = false;  // "sha256" is 64 lower-case hex digits
    // Where the entry's JSON is in its Catalog's packages; -1 when only
    // the summary was read.
    int json = -1;
};

// The summary of an entry object.
EntrySummary summarizeEntry(const Json::Value& entry);

}  // namespace quor
