// install_from_server and the upgrade commands through the built binary,
// against a real HTTP server serving a trusted source the built zpk tool
// published.
#include <gtest/gtest.h>

#include <optional>

#include "base/file_util.h"
#include "published_source.h"
#include "quorpkg/server/task_file.h"
#include "server_fixture.h"
#include "tool_runner.h"

namespace quor::e2e {
namespace {

using test::waitForTask;

test::PackageSource demo(const std::string& version) {
    test::PackageSource source;
    source.version = version;
    source.info = {{"displayname", "Demo"}, {"description", "Demo app"}};
    return source;
}

class E2eServer : public ::testing::Test {
protected:
    void SetUp() override {
        publish("1.0");
        server.emplace(source.repo());
        useServer(server->url());
    }

    // Builds the version with zpk into the served folder and releases it.
    void publish(const std::string& version) {
        source.publish(demo(version));
        source.release();
    }

    void useServer(const std::string& url) const {
        test::writeText(device.root().host("/etc/quorpkg/sources"), source.sourcesLine(url) + "\n");
    }

    std::string hashFile() const {
        return readFile(device.root().host("/var/cache/quorpkg/list/quorserver.hash.enu"))
            .value_or("(missing)");
    }

    Device device;
    PublishedSource source{device};
    std::optional<test::HttpServer> server;
};

TEST_F(E2eServer, InstallFromServerThenCheckAndUpgrade) {
    device.expect({"install_from_server", "demo", "", "admin"}, "", 0);
    EXPECT_EQ(waitForTask("demo").state, "done");
    EXPECT_EQ(device.quorpkg({"version", "demo"}).out, "1.0\n");
    device.expect({"install_from_server", "demo"}, "Package 'demo' already installed\n", 1);
    device.expect({"install_from_server", "ghost"}, "Failed to query package list from server\n",
                  1);

    device.expect({"checkupdateall"}, "[]\n", 0);
    // The cached catalog does not know 2.0 until a fresh check resets it.
    publish("2.0");
    EXPECT_EQ(device.quorpkg({"checkupdateall"}).out, "[]\n");
    EXPECT_EQ(device.quorpkg({"checkupdate", "demo"}).status, 1);
    device.expect({"chkupgradepkg"}, "", 0);
    EXPECT_NE(hashFile().find("hash=\"temphash\""), std::string::npos);
    EXPECT_EQ(device.quorpkg({"checkupdateall", "enu", "admin"}).out,
              "[{\"beta\":false,\"id\":\"demo\",\"name\":\"Demo\",\"version\":\"2.0\"}]\n");
    EXPECT_EQ(device.quorpkg({"checkupdate", "demo"}).status, 0);

    // With the server down the checks fail and the hash stays as it was.
    const std::string remembered = hashFile();
    ASSERT_EQ(remembered.find("temphash"), std::string::npos);
    server.reset();
    test::ClosedPort closed;
    useServer(closed.url());
    device.expect({"chkupgradepkg", "enu"},
                  "Fail to check upgrable packages in Quorvel package server\n", 1);
    device.expect({"upgradeall", "false"},
                  "Fail to upgrade all packages in Quorvel package server\n", 1);
    EXPECT_EQ(hashFile(), remembered);
    // The kept catalog has not expired: a cached check still answers.
    EXPECT_EQ(device.quorpkg({"checkupdateall"}).out,
              "[{\"beta\":false,\"id\":\"demo\",\"name\":\"Demo\",\"version\":\"2.0\"}]\n");

    server.emplace(source.repo());
    useServer(server->url());
    // Limit-only by default: nothing blocked, nothing upgraded.
    EXPECT_EQ(device.quorpkg({"upgradeall"}).status, 0);
    EXPECT_EQ(device.quorpkg({"version", "demo"}).out, "1.0\n");
    device.expect({"upgradeall", "false"}, "", 0);
    EXPECT_EQ(device.quorpkg({"version", "demo"}).out, "2.0\n");
    EXPECT_NE(hashFile().find("hash=\"temphash\""), std::string::npos);

    // The daily check upgrades as auto_upgrade says, and the log tells what
    // it upgraded, not only that it succeeded.
    publish("3.0");
    test::writeText(device.root().host("/etc/quorpkg/settings"), "auto_upgrade=\"all\"\n");
    device.expect({"chkupgradepkg"}, "", 0);
    EXPECT_EQ(device.quorpkg({"version", "demo"}).out, "3.0\n");
    const std::string log = readFile(device.root().host("/var/log/quorpkg.log")).value_or("");
    const size_t upgraded = log.find("] package demo: upgraded from 2.0 to 3.0\n");
    ASSERT_NE(upgraded, std::string::npos) << log;
    EXPECT_NE(log.find("] PMSCheckUpgrade -: 0 done\n", upgraded), std::string::npos) << log;
}

}  // namespace
}  // namespace quor::e2e
