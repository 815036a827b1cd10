// install, query, version, log and uninstall through the built binary.
#include <gtest/gtest.h>

#include <set>

#include "base/file_util.h"
#include "tool_runner.h"

namespace quor::e2e {
namespace {

using test::PackageSource;

// A service that keeps its state in $QUOR_ROOT/<name>.running.
std::string service(const std::string& name) {
    const std::string flag = "\"$QUOR_ROOT/" + name + ".running\"";
    return "#!/bin/sh\ncase \"$1\" in\nstart) touch " + flag + ";;\nstop) rm -f " + flag +
           ";;\nstatus) [ -f " + flag + " ] && exit 0; exit 3;;\n*) exit 1;;\nesac\n";
}

PackageSource demo(const std::string& version) {
    PackageSource source;
    source.version = version;
    source.info = {{"description", "Demo app"},
                   {"displayname", "Demo"},
                   {"maintainer", "Quor"},
                   {"manager_url", "http://demo.example/"},
                   {"admin_port", "8080"}};
    source.files = {{"bin/demo", "demo " + version}};
    source.scripts = {{"postinst", "#!/bin/sh\n"}, {"start-stop-status", service("demo")}};
    return source;
}

TEST(E2eInstall, QueryInstallUpgradeVersionLogAndUninstall) {
    Device device;
    const std::string one = device.package(demo("1.2-0003"));
    EXPECT_EQ(device.quorpkg({"query", one}).out,
              "Package name: demo\nPackage version: 1.2-0003\nPackage description: Demo app\n"
              "Package displayname: Demo\nPackage maintainer: Quor\n"
              "Package manager URL: http://demo.example/\nPackage script mask: 66\n"
              "Package admin_port: 8080\n");

    test::writeText(device.root().host("/etc/quorpkg/settings"), "default_volume=\"volume2\"\n");
    device.expect({"install", "./" + one}, "./" + one + " install successfully\n", 0);
    EXPECT_EQ(readFile(device.root().host("/volume2/@appstore/demo/bin/demo")), "demo 1.2-0003");
    // Started and turned on.
    EXPECT_TRUE(fs::exists(device.root().host("/demo.running")));
    EXPECT_TRUE(fs::exists(device.root().host("/var/packages/demo/enabled")));

    device.expect({"version", "demo"}, "1.2-0003\n", 0);
    device.expect(
        {"log", "demo", "extra"},
        "The log file is " + device.root().host("/var/log/packages/demo.log").string() + "\n", 0);

    // The same package again is an upgrade, in place on its volume.
    const std::string two = device.package(demo("1.10-0001"));
    EXPECT_EQ(device.quorpkg({"install", two}).status, 0);
    EXPECT_EQ(device.quorpkg({"version", "demo"}).out, "1.10-0001\n");
    EXPECT_EQ(readFile(device.root().host("/volume2/@appstore/demo/bin/demo")), "demo 1.10-0001");
    EXPECT_TRUE(fs::exists(device.root().host("/demo.running")));

    device.expect({"uninstall", "demo"}, "", 0);
    EXPECT_FALSE(fs::exists(device.root().host("/demo.running")));
    EXPECT_FALSE(fs::exists(device.root().host("/volume2/@appstore/demo")));
    device.expect({"version", "demo"}, "", 1);
    device.expect({"log", "demo"}, "Failed to get log file 255\n", 1);
}

// Every path under `dir`, links not followed.
std::set<std::string> treeOf(const fs::path& dir) {
    std::set<std::string> paths;
    for (const auto& entry : fs::recursive_directory_iterator(dir))
        paths.insert(fs::relative(entry.path(), dir).string());
    return paths;
}

TEST(E2eInstall, ReadsLeaveABareRootAsItIsAndTheFirstWritesMakeTheirFolders) {
    Device device;
    const std::string file = device.package(demo("1.0"));
    // A device with its volumes and nothing else: no settings, no folders.
    fs::remove_all(device.root().host("/etc"));
    const std::set<std::string> bare = treeOf(device.root().path());

    device.expect({"--help"}, device.quorpkg({}).out, 0);
    device.expect({"list"}, "", 0);
    device.expect({"list", "--name"}, "\n", 0);
    device.expect({"version", "demo"}, "", 1);
    device.expect({"is_onoff", "demo"}, "package demo isn't turned on, status: [255]\n", 1);
    EXPECT_EQ(device.quorpkg({"query", file}).status, 0);
    EXPECT_EQ(device.quorpkg({"sort_zpk_by_dep_order", file}).status, 0);
    EXPECT_EQ(treeOf(device.root().path()), bare);

    device.expect({"install", file}, file + " install successfully\n", 0);
    EXPECT_TRUE(fs::exists(device.root().host("/demo.running")));
    device.expect({"stop", "demo"}, "package demo stop successfully\n", 0);
    device.expect({"start", "demo"}, "package demo start successfully\n", 0);
    EXPECT_TRUE(fs::exists(device.root().host("/run/quorpkg/active/demo")));
    device.expect({"start-depend", "pgsql"}, "", 0);
    EXPECT_TRUE(fs::exists(device.root().host("/run/hwcontrol/requests")));
    test::writeText(device.root().host("/etc/quorpkg/firmware-limits"), "demo >= 0\n");
    device.expect({"notify_stopped_by_firmware"},
                  "quorpkg: cannot start demo (ver=1.0) in this firmware (status=1).\n", 0);
    EXPECT_TRUE(fs::exists(device.root().host("/var/spool/quorpkg/notifications")));
}

TEST(E2eInstall, AChangeKilledHalfwayIsFinishedByTheNextRunAndTheProductHasNoCrashPoints) {
    Device device;
    const std::string file = device.package(demo("1.0"));
    // Killed with the payload in place but not yet the package directory.
    ::setenv("QUOR_FAILPOINT", "install-payload", 1);
    RunResult killed = device.crashableQuorpkg({"install", file});
    ::unsetenv("QUOR_FAILPOINT");
    EXPECT_EQ(killed.status, -1);
    EXPECT_EQ(killed.out, "");
    EXPECT_EQ(device.quorpkg({"version", "demo"}).out, "1.0\n");
    EXPECT_EQ(readFile(device.root().host("/volume1/@appstore/demo/bin/demo")), "demo 1.0");

    ::setenv("QUOR_FAILPOINT", "remove-package", 1);
    EXPECT_EQ(device.crashableQuorpkg({"uninstall", "demo"}).status, -1);
    ::unsetenv("QUOR_FAILPOINT");
    EXPECT_EQ(device.quorpkg({"list", "--name"}).out, "\n");
    EXPECT_FALSE(fs::exists(device.root().host("/volume1/@appstore/demo")));
    EXPECT_TRUE(fs::is_empty(device.root().host("/var/packages/.journal")));
    // Each recovery says what it found and which way it went.
    const std::string log = readFile(device.root().host("/var/log/quorpkg.log")).value_or("");
    for (const char* line :
         {"] package demo: recovered an interrupted install (step commit): rolled forward, 1.0 "
          "installed\n",
          "] package demo: recovered an interrupted removal (step commit): rolled forward, not "
          "installed\n"})
        EXPECT_NE(log.find(line), std::string::npos) << log;

    // The product binary ignores the crash points.
    ::setenv("QUOR_FAILPOINT", "install-payload", 1);
    const RunResult installed = device.quorpkg({"install", file});
    ::setenv("QUOR_FAILPOINT", "remove-package", 1);
    const RunResult removed = device.quorpkg({"uninstall", "demo"});
    ::unsetenv("QUOR_FAILPOINT");
    EXPECT_EQ(installed.status, 0);
    EXPECT_EQ(removed.status, 0);
    EXPECT_EQ(device.quorpkg({"list", "--name"}).out, "\n");
}

TEST(E2eInstall, AScriptMayChangeAnotherPackageUnderItsParentsLock) {
    Device device;
    PackageSource inner;
    inner.name = "inner";
    const fs::path innerFile = device.packageDir() / device.package(inner);
    // The nested run neither waits for the lock its parent holds nor takes
    // the parent's half-made change for an unfinished one.
    PackageSource outer;
    outer.name = "outer";
    outer.scripts = {{"preinst", "#!/bin/sh\n'" + std::string(QUORPKG_BINARY) + "' install '" +
                                     innerFile.string() + "'\n"}};
    RunResult installed = device.quorpkg({"install", device.package(outer)});
    EXPECT_EQ(installed.status, 0);
    EXPECT_EQ(device.quorpkg({"list"}).out, "inner-1.0-0001: \nouter-1.0-0001: \n");
    EXPECT_TRUE(fs::is_empty(device.root().host("/var/packages/.journal")));
}

}  // namespace
}  // namespace quor::e2e
