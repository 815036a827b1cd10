#include "quorpkg/server/upgrades.h"

#include "base/package_log.h"
#include "base/result.h"
#include "base/settings.h"
#include "quorpkg/package/version.h"
#include "quorpkg/server/remote_install.h"
#include "quorpkg/server/rollout.h"
#include "quorpkg/server/volume_choice.h"
#include "quorpkg/service/firmware_limits.h"
#include "quorpkg/store/dependencies.h"
#include "quorpkg/store/installed_index.h"
#include "quorpkg/store/store.h"

namespace quor {
namespace {

// The newest version offered to this device that is newer than installed:
// betas only over a beta, not one the firmware limit blocks, not one whose
// staged rollout has not reached this device yet.
bool upgradeOver(const Offers& offers, const std::string& name, const std::string& version,
                 bool beta, const FirmwareLimits& limits, const Settings& settings,
                 UpgradeOffer& out) {
    for (const Offer& offer : offers.all(name)) {
        if (compareVersions(offer.version, version) <= 0) return false;
        if ((offer.beta && !beta) || limits.status(name, offer.version) != 0 ||
            !offeredToThisDevice(offer.summary->phase, name, offer.version, settings))
            continue;
        out.link = resolvedLink(offer);
        if (out.link.empty()) continue;
        out.offer = offer;
        out.name = name;
        out.installedVersion = version;
        return true;
    }
    return false;
}

}  // namespace

bool findUpgrade(const Offers& offers, const std::string& name, UpgradeOffer& out) {
    Manifest manifest;
    return readInstalledManifest(name, manifest) == kOk &&
           upgradeOver(offers, name, manifest.version, manifest.beta, FirmwareLimits::load(),
                       loadSettings(), out);
}

std::vector<UpgradeOffer> findUpgrades(const Offers& offers,
                                       const std::vector<IndexedPackage>& installed) {
    std::vector<UpgradeOffer> out;
    out.reserve(installed.size());
    const FirmwareLimits limits = FirmwareLimits::load();
    const Settings settings = loadSettings();
    for (const IndexedPackage& package : installed) {
        UpgradeOffer upgrade;
        if (package.readable &&
            upgradeOver(offers, std::string(package.name), std::string(package.version),
                        package.beta, limits, settings, upgrade))
            out.push_back(std::move(upgrade));
    }
    return out;
}

bool blockedByFirmwareLimit(const UpgradeOffer& upgrade) {
    return firmwareLimitStatus(upgrade.name, upgrade.installedVersion) != 0;
}

int applyUpgrade(const UpgradeOffer& upgrade, const std::string& lang, std::string* error) {
    if (!upgrade.offer.entry) {
        if (error) *error = "the entry of " + upgrade.name + " was not read";
        return kServerUnreachable;
    }
    RemoteInstall install;
    remotePackageOf(upgrade.offer, install.package);
    install.package.download.link = upgrade.link;
    install.volume = installedVolume(upgrade.name);
    if (install.volume.empty()) {
        int code = defaultVolume(install.volume);
        if (code != kOk) {
            if (error) *error = "no volume for " + upgrade.name;
            return code;
        }
    }
    install.lang = lang;
    install.beta = upgrade.offer.beta;
    install.event = "upgrade";
    int code = installFromServer(install, error);
    // The store logs the upgrade itself; a failed download it never saw.
    if (code != kOk)
        logPackageEvent(upgrade.name, "upgrade to " + install.package.version + " failed (" +
                                          std::to_string(code) + "): " + (error ? *error : ""));
    return code;
}

}  // namespace quor
