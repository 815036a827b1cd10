// The binary against hostile surroundings: a server whose catalog nests too
// deep for any parser, and a system root that does not exist.
#include <gtest/gtest.h>

#include <cstdlib>
#include <optional>

#include "server_fixture.h"
#include "tool_runner.h"

namespace quor::e2e {
namespace {

TEST(E2eHostile, ACatalogNestedTooDeepFailsLikeAnUnreachableServer) {
    Device device;
    const fs::path sources = device.root().host("/etc/quorpkg/sources");
    const std::vector<std::vector<std::string>> commands = {{"checkupdateall"},
                                                            {"checkupdate", "demo"},
                                                            {"chkupgradepkg", "enu"},
                                                            {"upgradeall", "false"},
                                                            {"install_from_server", "demo"}};

    // What each command says when the server cannot be reached.
    std::vector<RunResult> unreachable;
    {
        test::ClosedPort closed;
        test::writeText(sources, "quorserver " + closed.url() + " unverified\n");
        for (const auto& command : commands) unreachable.push_back(device.quorpkg(command));
    }

    const fs::path repo = device.packageDir() / "repo";
    test::writeText(repo / "catalog.json",
                    "{\"packages\":[" + std::string(1200, '[') + std::string(1200, ']') + "]}");
    test::HttpServer server(repo);
    test::writeText(sources, "quorserver " + server.url() + " unverified\n");
    for (size_t i = 0; i < commands.size(); ++i) {
        SCOPED_TRACE(commands[i][0]);
        RunResult result = device.quorpkg(commands[i]);
        EXPECT_EQ(result.out, unreachable[i].out);
        EXPECT_EQ(result.status, unreachable[i].status);
        EXPECT_EQ(result.out.find("Failed to execute"), std::string::npos);
    }
}

TEST(E2eHostile, AMissingRootIsRefusedAndNotCreated) {
    Device device;
    const fs::path missing = device.root().path() / "no-such-device";
    ::setenv("QUOR_ROOT", missing.c_str(), 1);
    for (const std::vector<std::string>& command :
         {std::vector<std::string>{"list"}, {"onoffall", "start"}, {"install", "x.zpk"}}) {
        RunResult result = device.quorpkg(command);
        EXPECT_EQ(result.out, "Failed to init package manager: 101\n") << command[0];
        EXPECT_EQ(result.status, 1) << command[0];
    }
    ::setenv("QUOR_ROOT", device.root().path().c_str(), 1);
    EXPECT_FALSE(fs::exists(missing));
    device.expect({"list"}, "", 0);
}

}  // namespace
}  // namespace quor::e2e
