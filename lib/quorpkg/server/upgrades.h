// Upgrades: installed packages compared with what the servers offer.
#pragma once

#include <json/value.h>

#include <string>
#include <vector>

#include "quorpkg/server/offers.h"
#include "quorpkg/store/installed_index.h"

namespace quor {

struct UpgradeOffer {
    std::string name;
    std::string installedVersion;
    std::string link;  // its link, resolved
    Offer offer;       // the offered entry and where it is offered
};

// The newest offered version newer than the installed one, passing over
// versions the firmware limit would block. Beta versions count only for a
// package whose installed version is itself a beta. False when there is none
// (or the package is not installed).
bool findUpgrade(const Offers& offers, const std::string& name, UpgradeOffer& out);

// Every one of the `installed` packages with an upgrade, by name.
std::vector<UpgradeOffer> findUpgrades(const Offers& offers,
                                       const std::vector<IndexedPackage>& installed);

// Whether the firmware limit blocks the installed version.
bool blockedByFirmwareLimit(const UpgradeOffer& upgrade);

// Upgrades one package from the server on its own volume, fetching required
// packages it lacks first; its entry's JSON must have been read. kOk or the
// failure's code, with a reason.
int applyUpgrade(const UpgradeOffer& upgrade, const std::string& lang, std::string* error);

}  // namespace quor
