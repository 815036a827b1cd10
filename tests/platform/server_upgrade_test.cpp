// Upgrade checks and upgrades against a package server, and the digest of a
// kept catalog that cached checks read.
#include <fcntl.h>
#include <unistd.h>

#include "base/file_util.h"
#include "base/layout.h"
#include "base/result.h"
#include "pkg_manager.h"
#include "pkg_server.h"
#include "quorpkg/store/store.h"
#include "server_fixture.h"

namespace quor::test {
namespace {

using QUORPackageTool::PackageInfo;
using QUORPackageTool::PMSCheckUpgrade;

class ServerUpgrade : public ServerTest {
protected:
    // app and lib 1.0 installed; the server offers 1.1 of both, app's marked
    // important and needing a helper package the device lacks.
    void SetUp() override {
        ServerTest::SetUp();
        installLocal(packageSource("app", "1.0"));
        installLocal(packageSource("lib", "1.0"));
        writeText(layout::varDir("app") / "data", "kept");
        publish(packageSource(
            "app", "1.1",
            {{"displayname", "App"}, {"important", "yes"}, {"install_dep_packages", "helper"}}));
        publish(packageSource("lib", "1.1"));
        publish(packageSource("helper", "1.0"));
        serve();
    }

    std::string versions() const {
        std::string out;
        for (const std::string& name : installedPackages())
            out += name + " " + installedVersion(name) + ";";
        return out;
    }
};

TEST_F(ServerUpgrade, ListsWhatIsOfferedAndAnswersForOnePackage) {
    installLocal(packageSource("bee", "1.0~b1", {{"beta", "yes"}}));
    publish(packageSource("app", "1.2~rc1", {{"beta", "yes"}}));
    publish(packageSource("bee", "1.0~b2", {{"beta", "yes"}, {"displayname", "Bee"}}));
    publish(packageSource("lib", "1.2"));
    writeText(layout::firmwareLimitsFile(), "lib = 1.2\n");
    index();

    std::vector<PackageInfo> offered(1);
    ASSERT_TRUE(PMSCheckUpgrade(true, nullptr, "enu", &offered));
    // A beta only for a package that runs a beta; a version the firmware
    // would block is passed over.
    ASSERT_EQ(offered.size(), 3u);
    EXPECT_EQ(offered[0].name, "app");
    EXPECT_EQ(offered[0].version, "1.1");
    EXPECT_EQ(offered[0].displayname, "App");
    EXPECT_FALSE(offered[0].beta);
    EXPECT_EQ(offered[1].name, "bee");
    EXPECT_EQ(offered[1].version, "1.0~b2");
    EXPECT_TRUE(offered[1].beta);
    EXPECT_EQ(offered[2].name, "lib");
    EXPECT_EQ(offered[2].version, "1.1");

    EXPECT_TRUE(QUORPackageServer::PMSCheckUpgrade(false, "app", "enu"));
    EXPECT_FALSE(QUORPackageServer::PMSCheckUpgrade(false, "helper", "enu"));
    EXPECT_EQ(lastResult(), kNoSuchPackage);
    installLocal(packageSource("helper", "1.0"));
    EXPECT_FALSE(QUORPackageServer::PMSCheckUpgrade(false, "helper", "enu"));
    installLocal(packageSource("local", "1.0"));
    EXPECT_FALSE(QUORPackageServer::PMSCheckUpgrade(false, "local", "enu"));
    EXPECT_EQ(lastResult(), kNotOnServer);
    // Listing changes nothing.
    EXPECT_EQ(versions(), "app 1.0;bee 1.0~b1;helper 1.0;lib 1.0;local 1.0;");
}

TEST_F(ServerUpgrade, WithoutAListTheAutoUpgradeSettingDecides) {
    ASSERT_TRUE(PMSCheckUpgrade(true, nullptr, "", nullptr));
    EXPECT_EQ(versions(), "app 1.0;lib 1.0;");

    setting("auto_upgrade=\"important\"");
    ASSERT_TRUE(PMSCheckUpgrade(true, nullptr, "", nullptr));
    // The required helper came first; the package's own data stayed.
    EXPECT_EQ(versions(), "app 1.1;helper 1.0;lib 1.0;");
    EXPECT_EQ(readFile(layout::varDir("app") / "data"), "kept");

    writeSettings("auto_upgrade=\"all\"\n");
    ASSERT_TRUE(PMSCheckUpgrade(true, nullptr, "", nullptr));
    EXPECT_EQ(versions(), "app 1.1;helper 1.0;lib 1.1;");
}

TEST_F(ServerUpgrade, UpgradeAllCanKeepToWhatTheFirmwareLimitBlocks) {
    writeText(layout::firmwareLimitsFile(), "lib <= 1.0\n");
    ASSERT_TRUE(PMSCheckUpgrade(true, "", "enu", nullptr, true, true));
    EXPECT_EQ(versions(), "app 1.0;lib 1.1;");
    ASSERT_TRUE(PMSCheckUpgrade(true, "", "enu", nullptr, true, false));
    EXPECT_EQ(versions(), "app 1.1;helper 1.0;lib 1.1;");
    // Nothing left to do is success too.
    EXPECT_TRUE(PMSCheckUpgrade(true, "", "enu", nullptr, true, false));
}

TEST_F(ServerUpgrade, AFailedUpgradeKeepsThePackageAndTheOthersStillGo) {
    const fs::path served = repo / "app-1.1.zpk";
    std::string bytes = readFile(served).value();
    bytes[bytes.size() / 2] ^= 0x55;
    writeText(served, bytes);
    EXPECT_FALSE(PMSCheckUpgrade(true, "", "enu", nullptr, true, false));
    EXPECT_EQ(lastResult(), kChecksumMismatch);
    EXPECT_EQ(versions(), "app 1.0;lib 1.1;");
    EXPECT_TRUE(staged(volume1).empty());

    ClosedPort closed;
    writeText(layout::sourcesFile(), sourcesLine(closed.url()) + "\n");
    EXPECT_FALSE(PMSCheckUpgrade(true, "", "enu", nullptr, true, false));
    EXPECT_EQ(lastResult(), kServerUnreachable);
    // The kept catalog has not expired: cached checks still answer from it.
    std::vector<PackageInfo> offered;
    EXPECT_TRUE(PMSCheckUpgrade(false, nullptr, "enu", &offered));
    ASSERT_EQ(offered.size(), 1u);
    EXPECT_EQ(offered[0].name, "app");
}

// Cached upgrade checks read only the installed packages' entries of a kept
// catalog, through its digest, and never trust a digest of another catalog.
class CatalogDigest : public ServerUpgrade {
protected:
    // The upgrades a check offers, as "name version;".
    std::string offered(bool fresh) {
        std::vector<PackageInfo> out;
        EXPECT_TRUE(PMSCheckUpgrade(fresh, nullptr, "enu", &out));
        std::string text;
        for (const PackageInfo& info : out) text += info.name + " " + info.version + ";";
        return text;
    }

    fs::path keptCatalog() const {
        for (const auto& entry : fs::directory_iterator(layout::listDir()))
            if (entry.path().filename().string().find(".list.") != std::string::npos &&
                entry.path().extension() != ".digest")
                return entry.path();
        return {};
    }

    // Overwrites the catalog entry of `name` (at `version`, when given) in
    // place (same file, same size).
    void blankEntry(const std::string& name, char with, const std::string& version = "") {
        std::string text = readFile(keptCatalog()).value();
        size_t open = std::string::npos, close = std::string::npos;
        for (size_t at = text.find("\"package\" : \"" + name + "\"");
             at != std::string::npos && open == std::string::npos;
             at = text.find("\"package\" : \"" + name + "\"", at + 1)) {
            size_t begin = text.rfind('{', at), end = text.find('}', at);
            if (version.empty() ||
                text.substr(begin, end - begin).find("\"version\" : \"" + version + "\"") !=
                    std::string::npos) {
                open = begin;
                close = end;
            }
        }
        ASSERT_TRUE(open != std::string::npos && close != std::string::npos) << name << version;
        UniqueFd fd(::open(keptCatalog().c_str(), O_WRONLY));
        const std::string blank(close - open + 1, with);
        ASSERT_EQ(::pwrite(fd.get(), blank.data(), blank.size(), static_cast<off_t>(open)),
                  static_cast<ssize_t>(blank.size()));
    }
};

TEST_F(CatalogDigest, CachedChecksReadOnlyTheInstalledEntries) {
    publish(packageSource("lib", "0.9"));
    index();
    EXPECT_EQ(offered(true), "app 1.1;lib 1.1;");
    const fs::path digest = keptCatalog().string() + ".digest";
    ASSERT_TRUE(fs::exists(digest));
    EXPECT_EQ(offered(false), "app 1.1;lib 1.1;");
    EXPECT_TRUE(QUORPackageServer::PMSCheckUpgrade(false, "lib", "enu"));

    // An entry of a package that is not installed is never parsed: a kept
    // catalog broken there still serves the check, and stays as it is.
    // Nor is one of an installed package that is not newer than installed.
    blankEntry("helper", 'x');
    blankEntry("lib", 'x', "0.9");
    const std::string broken = readFile(keptCatalog()).value();
    EXPECT_EQ(offered(false), "app 1.1;lib 1.1;");
    EXPECT_EQ(readFile(keptCatalog()), broken);
    // Without the digest the whole catalog is parsed: it fails, and the
    // catalog is downloaded again.
    fs::remove(digest);
    EXPECT_EQ(offered(false), "app 1.1;lib 1.1;");
    EXPECT_NE(readFile(keptCatalog()), broken);

    // Upgrades from the digest download from the links it resolves.
    ASSERT_TRUE(fs::exists(digest));
    EXPECT_TRUE(PMSCheckUpgrade(false, nullptr, "enu", nullptr, true, false));
    EXPECT_EQ(versions(), "app 1.1;helper 1.0;lib 1.1;");
}

TEST_F(CatalogDigest, ADigestOutOfStepWithTheKeptCatalogIsNeverBelieved) {
    EXPECT_EQ(offered(true), "app 1.1;lib 1.1;");
    const fs::path list = keptCatalog();
    const fs::path digest = list.string() + ".digest";
    const std::string goodDigest = readFile(digest).value();

    // A kept catalog rewritten (a new file) with lib at 1.9: the old digest
    // names the old file.
    std::string text = readFile(list).value();
    size_t lib = text.find("\"package\" : \"lib\"");
    size_t version = text.find("\"1.1\"", lib) + 1;
    ASSERT_NE(version, std::string::npos);
    text.replace(version, 3, "1.9");
    ASSERT_TRUE(writeFileAtomic(list, text));
    EXPECT_EQ(offered(false), "app 1.1;lib 1.9;");

    // A range that points at another package's entry, or at no entry, a
    // digest of the old file, or one that is not a digest: the whole catalog
    // decides.
    std::string swapped = readFile(digest).value();
    size_t appLine = swapped.find("\napp\t") + 1, libLine = swapped.find("\nlib\t") + 1;
    const std::string appRange =
        swapped.substr(appLine + 3, swapped.find('\n', appLine) - appLine - 3);
    const std::string libRange =
        swapped.substr(libLine + 3, swapped.find('\n', libLine) - libLine - 3);
    std::string bad = swapped;
    bad.replace(libLine + 3, libRange.size(), appRange);
    for (const std::string& wrong :
         {bad, swapped.substr(0, swapped.find("\napp\t")) + "\napp\t1\t5\n", goodDigest,
          std::string("quorpkg-catalog-digest 1\n"), std::string("junk")}) {
        ASSERT_TRUE(writeFileAtomic(digest, wrong));
        EXPECT_EQ(offered(false), "app 1.1;lib 1.9;") << wrong;
    }
}

}  // namespace
}  // namespace quor::test
