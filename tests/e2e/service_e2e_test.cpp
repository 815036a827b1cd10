// Service commands through the built binary: pause and resume against the
// enabled flag, the hardware-control bracket of start-depend, whole-system
// control and firmware notifications.
#include <gtest/gtest.h>

#include "base/file_util.h"
#include "tool_runner.h"

namespace quor::e2e {
namespace {

using test::PackageSource;

// A service whose state is a file; start and stop also write a line into the
// hardware-control request file, so that tests see them among the requests.
PackageSource service(const std::string& name, const std::string& more = "") {
    PackageSource pkg;
    pkg.name = name;
    pkg.version = "1.0";
    pkg.info = {{"displayname", "The " + name}};
    if (!more.empty()) pkg.info.emplace_back("install_dep_services", more);
    const std::string state = "\"$QUOR_ROOT/" + name + ".running\"";
    const std::string trace = "\"$QUOR_ROOT/run/hwcontrol/requests\"";
    pkg.scripts["start-stop-status"] =
        "#!/bin/sh\ncase \"$1\" in\n"
        "start) echo \"start $QUOR_PKG_NAME $QUOR_PKG_EVENT\" >> " +
        trace + "; touch " + state + ";;\nstop) echo \"stop $QUOR_PKG_NAME $QUOR_PKG_EVENT\" >> " +
        trace + "; rm -f " + state + ";;\nstatus) [ -f " + state + " ] && exit 0; exit 3;;\nesac\n";
    return pkg;
}

TEST(E2eService, PauseAndResumeFollowTheEnabledFlag) {
    Device device;
    ASSERT_EQ(device.quorpkg({"install", device.package(service("app"))}).status, 0);
    const fs::path flag = device.root().host("/var/packages/app/enabled");
    ASSERT_TRUE(fs::exists(flag));

    device.expect({"pause", "app"}, "", 0);
    EXPECT_TRUE(fs::exists(flag));
    device.expect({"status", "app"}, "app package is stopped\nStatus: [3]\n", 3);
    EXPECT_EQ(device.quorpkg({"resume", "app"}).status, 0);
    EXPECT_EQ(device.quorpkg({"status", "app"}).out, "app package is started\n");

    // Turned off, neither command acts.
    EXPECT_EQ(device.quorpkg({"stop", "app"}).out, "package app stop successfully\n");
    EXPECT_FALSE(fs::exists(flag));
    EXPECT_EQ(device.quorpkg({"resume", "app"}).status, 0);
    EXPECT_EQ(device.quorpkg({"status", "app"}).status, 3);
    EXPECT_EQ(device.quorpkg({"is_onoff", "app"}).out,
              "package app isn't turned on, status: [103]\n");

    device.expect({"pause", "nothing"}, "Fail to get package info of [nothing]\n", 1);
}

TEST(E2eService, StartDependIsBracketedByHardwareRequests) {
    Device device;
    ASSERT_EQ(device.quorpkg({"install", device.package(service("db", "pgsql"))}).status, 0);
    ASSERT_EQ(device.quorpkg({"install", device.package(service("plain"))}).status, 0);
    const fs::path requests = device.root().host("/run/hwcontrol/requests");
    fs::remove(requests);

    EXPECT_EQ(device.quorpkg({"stop-depend", "pgsql"}).status, 0);
    EXPECT_EQ(device.quorpkg({"start-depend", "pgsql"}).status, 0);
    EXPECT_EQ(device.quorpkg({"start-depend", "PGSQL"}).out,
              "Unknown pkg dependent service [PGSQL]\n");
    EXPECT_EQ(readFile(requests).value_or(""),
              "22784 02\nstop db \n22784 01\n22784 02\nstart db \n22784 01\n");
}

TEST(E2eService, OnOffAllReportsTheFirstFailureAndNotificationsNameBlockedPackages) {
    Device device;
    for (const char* name : {"alpha", "beta"})
        ASSERT_EQ(device.quorpkg({"install", device.package(service(name))}).status, 0);
    PackageSource broken = service("gamma");
    broken.scripts["start-stop-status"] = "#!/bin/sh\n[ \"$1\" = start ] && exit 9\nexit 3\n";
    ASSERT_EQ(device.quorpkg({"install", device.package(broken)}).status, 0);
    // A failed start at install leaves it turned off; turn it on by hand.
    test::writeText(device.root().host("/var/packages/gamma/enabled"), "");

    EXPECT_EQ(device.quorpkg({"onoffall", "off", "shutdown"}).out,
              "stop all packages successfully\n");
    device.expect({"onoffall", "start", "boot", "x"}, "Failed to start all packages 130\n", 1);
    EXPECT_EQ(device.quorpkg({"status", "beta"}).status, 0);

    test::writeText(device.root().host("/etc/quorpkg/firmware-limits"),
                    "beta >= 1.0\nalpha < 1.0\ngamma = 1.0\n");
    device.expect({"notify_stopped_by_firmware", "extra"},
                  "quorpkg: cannot start beta (ver=1.0) in this firmware (status=1).\n"
                  "quorpkg: cannot start gamma (ver=1.0) in this firmware (status=1).\n",
                  0);
    std::string lines =
        readFile(device.root().host("/var/spool/quorpkg/notifications")).value_or("");
    EXPECT_NE(lines.find("\"package\":\"The beta\"}\n{"), std::string::npos) << lines;
    EXPECT_NE(lines.find("\"package\":\"The gamma\"}\n"), std::string::npos) << lines;
}

}  // namespace
}  // namespace quor::e2e
