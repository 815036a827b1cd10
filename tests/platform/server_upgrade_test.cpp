// Upgrade checks and upgrades against a package server.
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
    writeText(layout::sourcesFile(), "quorserver " + closed.url() + "\n");
    EXPECT_FALSE(PMSCheckUpgrade(true, "", "enu", nullptr, true, false));
    EXPECT_EQ(lastResult(), kServerUnreachable);
    std::vector<PackageInfo> offered;
    EXPECT_FALSE(PMSCheckUpgrade(false, nullptr, "enu", &offered));
    EXPECT_TRUE(offered.empty());
}

}  // namespace
}  // namespace quor::test
