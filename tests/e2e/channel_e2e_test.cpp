// The trusted channel through the built binaries: a source published with
// zpk's verbs (a root of two of three keys, a catalog key rotated in band),
// and what the built quorpkg refuses of it, with the reason in its log.
#include <gtest/gtest.h>

#include <optional>

#include "base/file_util.h"
#include "channel_fixture.h"
#include "published_source.h"
#include "server_fixture.h"
#include "tool_runner.h"

namespace quor::e2e {
namespace {

const std::string kFailedCheck = "Fail to check upgrable packages in Quorvel package server\n";

class E2eChannel : public ::testing::Test {
protected:
    void SetUp() override {
        source.publish(test::packageSource("demo", "1.0"));
        source.release();
        server.emplace(source.repo());
        test::writeText(device.root().host("/etc/quorpkg/sources"),
                        source.sourcesLine(server->url()) + "\n");
    }

    // The last line of quorpkg.log.
    std::string lastLog() const {
        const std::vector<std::string> lines =
            test::textLines(readFile(device.root().host("/var/log/quorpkg.log")).value_or(""));
        return lines.empty() ? "" : lines.back();
    }

    void zpkOk(const std::vector<std::string>& args) const {
        const RunResult result = source.zpk(args);
        ASSERT_EQ(result.status, 0) << ::testing::PrintToString(args) << "\n" << result.out;
    }

    Device device;
    PublishedSource source{device};
    std::optional<test::HttpServer> server;
};

TEST_F(E2eChannel, ARotatedCatalogKeyIsFollowedAndWhatTheChannelRefusesIsTold) {
    device.expect({"install_from_server", "demo"}, "", 0);
    EXPECT_EQ(test::waitForTask("demo").state, "done");
    const std::string first = readFile(source.repo() / "timestamp").value();

    // The catalog key rotated in band: root 2 without the old key, signed by
    // two of the three root keys, and a release with the new one.
    const std::string draft = (source.repo() / "2.root.draft").string();
    zpkOk({"keygen", "catalog2"});
    zpkOk({"root", "next", source.repo().string(), "--catalog-key", "catalog2.pub"});
    zpkOk({"root", "sign", draft, "root2.key"});
    zpkOk({"root", "sign", draft, "root3.key"});
    source.publish(test::packageSource("demo", "1.1"));
    zpkOk({"release", source.repo().string(), "--catalog-key", "catalog2.key", "--timestamp-key",
           "timestamp.key"});
    device.expect({"chkupgradepkg"}, "", 0);
    EXPECT_EQ(device.quorpkg({"checkupdate", "demo"}).status, 0);

    // The first release's timestamp replayed: older than what the device keeps.
    test::replaceServed(source.repo() / "timestamp", first);
    device.expect({"chkupgradepkg"}, kFailedCheck, 1);
    EXPECT_NE(lastLog().find("quorserver (164): "), std::string::npos) << lastLog();
    EXPECT_NE(lastLog().find("older than the kept version"), std::string::npos) << lastLog();

    // A timestamp signed to expire at once.
    zpkOk({"timestamp", source.repo().string(), "--timestamp-key", "timestamp.key", "--days", "0"});
    device.expect({"chkupgradepkg"}, kFailedCheck, 1);
    EXPECT_NE(lastLog().find("quorserver (163): "), std::string::npos) << lastLog();

    // The publisher key allowed only for demo: a package of another name
    // signed by it is refused, whatever its catalog says.
    zpkOk({"root", "next", source.repo().string(), "--publisher", "publisher.pub=demo"});
    zpkOk({"root", "sign", (source.repo() / "3.root.draft").string(), "root1.key"});
    zpkOk({"root", "sign", (source.repo() / "3.root.draft").string(), "root2.key"});
    source.publish(test::packageSource("other", "1.0"));
    zpkOk({"release", source.repo().string(), "--catalog-key", "catalog2.key", "--timestamp-key",
           "timestamp.key"});
    device.expect({"install_from_server", "other"}, "", 0);
    const Task task = test::waitForTask("other");
    EXPECT_EQ(task.code, 117) << task.message;
    EXPECT_NE(task.message.find("does not allow for other"), std::string::npos) << task.message;
    EXPECT_EQ(test::installedVersion("other"), "");
    device.expect({"version", "demo"}, "1.0\n", 0);
}

}  // namespace
}  // namespace quor::e2e
