// Upgrade checks and upgrades against the package servers.
#include <syslog.h>

#include <algorithm>
#include <memory>
#include <string>
#include <vector>

#include "base/operation.h"
#include "base/package_log.h"
#include "base/result.h"
#include "base/settings.h"
#include "pkg_manager.h"
#include "pkg_server.h"
#include "quorpkg/package/manifest.h"
#include "quorpkg/server/catalog.h"
#include "quorpkg/server/offers.h"
#include "quorpkg/server/sources.h"
#include "quorpkg/server/upgrades.h"
#include "quorpkg/store/dependencies.h"
#include "quorpkg/store/installed_index.h"
#include "quorpkg/store/store.h"

namespace {

using QUORPackageTool::PackageInfo;

// Fills a new record in place: a PackageInfo is large and has no move.
void fillOfferedRecord(const quor::UpgradeOffer& upgrade, PackageInfo& info) {
    const quor::EntrySummary& entry = *upgrade.offer.summary;
    info.name = upgrade.name;
    info.version = entry.version;
    info.displayname = entry.displayName.empty() ? upgrade.name : entry.displayName;
    info.description = entry.description;
    info.beta = entry.beta;
}

// Which upgrades to apply: all of them or those the firmware limit blocks
// for upgrade-all; otherwise what the auto_upgrade setting asks for when
// nobody wants the list.
std::string upgradePolicy(bool listWanted, bool upgradeAll, bool limitOnly) {
    if (upgradeAll) return limitOnly ? "limit" : "all";
    return listWanted ? "none" : quor::loadSettings().auto_upgrade;
}

std::vector<quor::UpgradeOffer> chosen(std::vector<quor::UpgradeOffer> upgrades,
                                       const std::string& policy) {
    std::erase_if(upgrades, [&](const quor::UpgradeOffer& upgrade) {
        if (policy == "all") return false;
        if (policy == "limit") return !quor::blockedByFirmwareLimit(upgrade);
        if (policy == "important") return !upgrade.offer.summary->important;
        return true;
    });
    if (upgrades.size() < 2) return upgrades;
    // Required packages go first.
    const std::vector<std::string> order = quor::installOrder();
    auto rank = [&](const std::string& name) {
        return std::find(order.begin(), order.end(), name) - order.begin();
    };
    std::stable_sort(upgrades.begin(), upgrades.end(),
                     [&](const quor::UpgradeOffer& a, const quor::UpgradeOffer& b) {
                         return rank(a.name) < rank(b.name);
                     });
    return upgrades;
}

// A package whose source could not be asked, or refused what it sent, is
// not upgraded this time: its own log says why.
void tellUnchecked(const std::vector<quor::Catalog>& catalogs, const quor::InstalledIndex& index) {
    for (const quor::Catalog& catalog : catalogs) {
        if (catalog.available) continue;
        const std::string origin = catalog.origin();
        for (const quor::IndexedPackage& package : index.packages)
            if (package.origin == origin)
                quor::logPackageEvent(std::string(package.name),
                                      "not checked for upgrades: " + catalog.problem);
    }
}

}  // namespace

namespace QUORPackageTool {

bool PMSCheckUpgrade(bool fresh, const char* user, const char* lang,
                     std::vector<PackageInfo>* out) {
    return PMSCheckUpgrade(fresh, user, lang, out, false, false);
}

bool PMSCheckUpgrade(bool fresh, const char* /*user*/, const char* lang,
                     std::vector<PackageInfo>* out, bool upgradeAll, bool limitOnly) {
    quor::Operation operation(upgradeAll ? "PMSCheckUpgrade upgrade-all" : "PMSCheckUpgrade", "",
                              quor::freeFunctionResults(), quor::LogPolicy::kAlways);
    if (out) out->clear();
    // Nothing to list or apply: bringing the catalog cache up to date is all.
    const std::string policy = upgradePolicy(out != nullptr, upgradeAll, limitOnly);
    const bool refreshOnly = out == nullptr && policy == "none";
    std::vector<quor::Catalog> catalogs;
    std::string error;
    // Only the installed packages' entries newer than what is installed matter.
    const std::shared_ptr<const quor::InstalledIndex> index =
        refreshOnly ? std::make_shared<quor::InstalledIndex>() : quor::loadInstalledIndex();
    quor::CatalogLoad load{fresh, !refreshOnly};
    load.installed = &index->packages;
    // Only upgrades to apply need their entries' JSON; a report reads none.
    load.json = policy != "none";
    int code = quor::loadCatalogs(load, lang, catalogs, &error);
    if (code != quor::kOk) {
        syslog(LOG_ERR, "upgrade check failed: %s", error.c_str());
        return quor::fail(code, error);
    }
    if (refreshOnly) return true;
    if (policy != "none") tellUnchecked(catalogs, *index);
    // Where each installed package came from, as the index keeps it.
    const quor::Offers offers(catalogs,
                              [&index](const std::string& name) { return index->origin(name); });
    std::vector<quor::UpgradeOffer> upgrades = quor::findUpgrades(offers, index->packages);
    if (out) {
        out->reserve(upgrades.size());
        for (const quor::UpgradeOffer& upgrade : upgrades)
            fillOfferedRecord(upgrade, out->emplace_back());
    }

    // Every upgrade is tried; the first failure decides the result.
    int first = quor::kOk;
    for (const quor::UpgradeOffer& upgrade : chosen(std::move(upgrades), policy)) {
        code = quor::applyUpgrade(upgrade, quor::normalLanguage(lang), &error);
        if (code != quor::kOk) {
            syslog(LOG_ERR, "upgrade of %s failed: %s", upgrade.name.c_str(), error.c_str());
            quor::refuse(code, "upgrade of " + upgrade.name + " failed: " + error);
            if (first == quor::kOk) first = code;
        }
    }
    return first == quor::kOk || quor::fail(first);
}

}  // namespace QUORPackageTool

namespace QUORPackageServer {

bool PMSCheckUpgrade(bool fresh, const char* name, const char* lang) {
    quor::Operation operation("PMSCheckUpgrade", name ? name : "", quor::freeFunctionResults(),
                              quor::LogPolicy::kOnFailure);
    if (name == nullptr || !quor::isValidPackageName(name))
        return quor::fail(quor::kBadArgument, "not a package name");
    if (!quor::isInstalled(name)) return quor::fail(quor::kNoSuchPackage, "not installed");
    std::vector<quor::Catalog> catalogs;
    std::vector<quor::IndexedPackage> wanted(1);
    wanted[0].name = name;
    quor::CatalogLoad load{fresh, true};
    load.installed = &wanted;
    load.json = false;
    std::string why;
    int code = quor::loadCatalogs(load, lang, catalogs, &why);
    if (code != quor::kOk) return quor::fail(code, why);
    const quor::Offers offers(catalogs);
    if (offers.all(name).empty())
        return quor::fail(quor::kNotOnServer, std::string("no configured server offers ") + name);
    quor::UpgradeOffer upgrade;
    return quor::findUpgrade(offers, name, upgrade);
}

}  // namespace QUORPackageServer
