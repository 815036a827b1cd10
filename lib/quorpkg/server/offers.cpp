#include "quorpkg/server/offers.h"

#include <algorithm>
#include <iterator>

#include "base/settings.h"
#include "quorpkg/package/manifest.h"
#include "quorpkg/package/md5.h"
#include "quorpkg/package/version.h"
#include "quorpkg/server/http_client.h"
#include "quorpkg/store/origin.h"

namespace quor {
namespace {

bool runsHere(const EntrySummary& entry, const std::string& arch, const std::string& firmware) {
    if (!entry.arch.empty() && entry.arch != "noarch" && entry.arch != arch) return false;
    return entry.firmware.empty() || compareVersions(entry.firmware, firmware) <= 0;
}

bool usableLink(const std::string& link, const Source& source) {
    if (link.empty()) return false;
    const std::string scheme = urlScheme(link);
    return scheme != "file" || urlScheme(source.url) == "file";
}

}  // namespace

bool offerable(const EntrySummary& entry, const Catalog& catalog, const std::string& arch,
               const std::string& firmware) {
    // Without a size a download has no end; without a sha256 a trusted
    // source vouches for nothing.
    return isValidVersion(entry.version) && usableLink(entry.link, catalog.source) && entry.sized &&
           (!catalog.root || entry.sha256) && runsHere(entry, arch, firmware);
}

Offers::Offers(const std::vector<Catalog>& catalogs, OriginLookup origins)
    : origins_(std::move(origins)) {
    if (!origins_) origins_ = [](const std::string& name) { return readOrigin(name).source; };
    const Settings settings = loadSettings();
    const std::string arch = effectiveArch(settings);
    summaries_.reserve(catalogs.size());
    size_t count = 0;
    for (const Catalog& catalog : catalogs)
        count += catalog.entries.empty() ? catalog.packages.size() : catalog.entries.size();
    byName_.reserve(count);
    for (const Catalog& catalog : catalogs) {
        catalogOrigins_.emplace_back(&catalog, catalog.origin());
        // A catalog read whole is summarized here; one read through its
        // digest comes with the summaries of the entries asked for.
        const std::vector<EntrySummary>* entries = &catalog.entries;
        if (entries->empty() && catalog.packages.isArray()) {
            std::vector<EntrySummary>& summaries = summaries_.emplace_back();
            summaries.reserve(catalog.packages.size());
            for (Json::ArrayIndex i = 0; i < catalog.packages.size(); ++i) {
                if (!catalog.packages[i].isObject()) continue;
                summaries.push_back(summarizeEntry(catalog.packages[i]));
                summaries.back().json = static_cast<int>(i);
            }
            entries = &summaries;
        }
        for (const EntrySummary& entry : *entries) {
            if (!isValidPackageName(entry.name)) continue;
            Candidates& candidates = byName_[entry.name];
            if (!candidates.first) candidates.first = &catalog;
            if (!catalog.available || !offerable(entry, catalog, arch, settings.firmware_version))
                continue;
            const Json::Value* json =
                entry.json >= 0 ? &catalog.packages[static_cast<Json::ArrayIndex>(entry.json)]
                                : nullptr;
            candidates.offers.push_back(Offer{&entry, json, &catalog.source,
                                              &catalog.plainLinkPrefix, entry.version, entry.beta,
                                              &catalog});
        }
    }
    // Newest first; for one version the server listed first wins.
    for (auto& [name, candidates] : byName_) {
        if (candidates.offers.size() < 2) continue;  // a sort would still take a buffer
        std::stable_sort(candidates.offers.begin(), candidates.offers.end(),
                         [](const Offer& a, const Offer& b) {
                             return compareVersions(a.version, b.version) > 0;
                         });
    }
}

const Offer* Offers::newest(const std::string& name, bool allowBeta) const {
    for (const Offer& offer : all(name))
        if (allowBeta || !offer.beta) return &offer;
    return nullptr;
}

const std::vector<Offer>& Offers::all(const std::string& name) const {
    static const std::vector<Offer> none;
    auto found = byName_.find(name);
    if (found == byName_.end()) return none;
    const Candidates& candidates = found->second;
    if (!candidates.known) {
        // An installed package stays with its source; anything else comes
        // from the first source that lists it, and from none while that one
        // cannot be asked.
        const std::string origin = origins_(name);
        auto fromSource = [&](const Offer& offer) {
            return origin != kLocalOrigin ? originOf(offer.catalog) == origin
                                          : offer.catalog == candidates.first;
        };
        candidates.all =
            std::all_of(candidates.offers.begin(), candidates.offers.end(), fromSource);
        if (!candidates.all)
            std::copy_if(candidates.offers.begin(), candidates.offers.end(),
                         std::back_inserter(candidates.chosen), fromSource);
        candidates.known = true;
    }
    return candidates.all ? candidates.offers : candidates.chosen;
}

const std::string& Offers::originOf(const Catalog* catalog) const {
    static const std::string none;
    for (const auto& [known, origin] : catalogOrigins_)
        if (known == catalog) return origin;
    return none;
}

// Without loading libcurl when the catalog came with its links' prefix.
std::string resolvedLink(const Offer& offer) {
    const std::string& link = offer.summary->link;
    const std::string* prefix = offer.plainLinkPrefix;
    const std::string resolved = prefix && !prefix->empty() && isPlainLink(link)
                                     ? *prefix + link
                                     : resolveUrl(offer.source->url, link);
    return usableLink(resolved, *offer.source) ? resolved : std::string();
}

bool resolvedEntry(const Offer& offer, Json::Value& out) {
    const std::string link = resolvedLink(offer);
    if (link.empty() || !offer.entry) return false;
    out = *offer.entry;
    out["link"] = link;
    if (out.isMember("size") && !out["size"].isUInt64()) out.removeMember("size");
    if (out.isMember("type") && !out["type"].isInt()) out.removeMember("type");
    for (const char* text : {"md5", "dname"})
        if (out.isMember(text) && !out[text].isString()) out.removeMember(text);
    return true;
}

std::string entryString(const Json::Value& entry, const char* key) {
    if (!entry.isObject() || !entry[key].isString()) return {};
    return entry[key].asString();
}

std::string entryText(const Json::Value& entry, const char* key) {
    if (!entry.isObject()) return {};
    const Json::Value& value = entry[key];
    if (value.isString()) return value.asString();
    if (value.isIntegral() || value.isDouble()) return value.asString();
    return {};
}

bool entryFlag(const Json::Value& entry, const char* key) {
    if (!entry.isObject()) return false;
    const Json::Value& value = entry[key];
    if (value.isBool()) return value.asBool();
    // Beyond the int64 range asInt64 throws: a flag of 2^64 - 1 is still set.
    if (value.isIntegral()) return value.isUInt64() ? value.asUInt64() != 0 : value.asInt64() != 0;
    if (value.isString()) {
        const std::string text = value.asString();
        return text == "yes" || text == "true" || text == "1";
    }
    return false;
}

}  // namespace quor
