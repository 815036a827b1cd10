#include "quorpkg/server/upgrades.h"

#include "base/package_log.h"
#include "base/result.h"
#include "quorpkg/package/version.h"
#include "quorpkg/server/remote_install.h"
#include "quorpkg/server/volume_choice.h"
#include "quorpkg/service/firmware_limits.h"
#include "quorpkg/store/dependencies.h"
#include "quorpkg/store/installed_index.h"
#include "quorpkg/store/store.h"

namespace quor {
namespace {

bool blocked(const std::string& name, const std::string& version) {
    return firmwareLimitStatus(name, version) != 0;
}

bool upgradeOver(const Offers& offers, const std::string& name, const Manifest& installed,
                 UpgradeOffer& out) {
    for (const Offer& offer : offers.all(name)) {
        if (compareVersions(offer.version, installed.version) <= 0) return false;
        if ((offer.beta && !installed.beta) || blocked(name, offer.version)) continue;
        if (!resolvedEntry(offer, out.entry)) continue;
        out.name = name;
        out.installedVersion = installed.version;
        return true;
    }
    return false;
}

}  // namespace

bool findUpgrade(const Offers& offers, const std::string& name, UpgradeOffer& out) {
    Manifest installed;
    return readInstalledManifest(name, installed) == kOk &&
           upgradeOver(offers, name, installed, out);
}

// The manifests come from the index of installed packages: one read.
std::vector<UpgradeOffer> findUpgrades(const Offers& offers) {
    std::vector<UpgradeOffer> out;
    for (const IndexedPackage& package : loadInstalledIndex()->packages) {
        Manifest installed;
        UpgradeOffer upgrade;
        if (!package.readable || offers.all(package.name).empty() ||
            parseManifest(package.manifestText, installed) != kOk)
            continue;
        if (upgradeOver(offers, package.name, installed, upgrade))
            out.push_back(std::move(upgrade));
    }
    return out;
}

bool blockedByFirmwareLimit(const UpgradeOffer& upgrade) {
    return blocked(upgrade.name, upgrade.installedVersion);
}

int applyUpgrade(const UpgradeOffer& upgrade, const std::string& lang, std::string* error) {
    RemoteInstall install;
    install.package.name = upgrade.name;
    install.package.link = entryText(upgrade.entry, "link");
    install.package.md5 = entryText(upgrade.entry, "md5");
    install.package.sha256 = entryText(upgrade.entry, "sha256");
    if (upgrade.entry["size"].isUInt64()) install.package.size = upgrade.entry["size"].asUInt64();
    install.version = entryText(upgrade.entry, "version");
    install.volume = installedVolume(upgrade.name);
    if (install.volume.empty()) {
        int code = defaultVolume(install.volume);
        if (code != kOk) {
            if (error) *error = "no volume for " + upgrade.name;
            return code;
        }
    }
    install.lang = lang;
    install.beta = entryFlag(upgrade.entry, "beta");
    install.event = "upgrade";
    int code = installFromServer(install, error);
    // The store logs the upgrade itself; a failed download it never saw.
    if (code != kOk)
        logPackageEvent(upgrade.name, "upgrade to " + install.version + " failed (" +
                                          std::to_string(code) + "): " + (error ? *error : ""));
    return code;
}

}  // namespace quor
