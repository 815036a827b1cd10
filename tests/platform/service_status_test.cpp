// Status answers, also those that collide with the platform's own result
// codes, the on/off query and the log path.
#include <chrono>
#include <optional>
#include <thread>

#include "pkg_manager.h"
#include "quorpkg/service/services.h"
#include "quorpkg/store/journal.h"
#include "service_fixture.h"

namespace quor::test {
namespace {

using QUORPackageTool::PackageManager;

// A real daemon: start leaves a process behind with its pid in a file, and
// status asks that process (a zombie counts as ended), not a file.
PackageSource daemon(const fs::path& trace) {
    PackageSource pkg;
    pkg.name = "daemon";
    pkg.scripts["start-stop-status"] =
        "#!/bin/sh\n"
        "pidfile=\"$QUOR_PKG_VAR/pid\"\n"
        "alive() { [ -s \"$pidfile\" ] && kill -0 $(cat \"$pidfile\") 2>/dev/null &&\n"
        "  ! grep -q ') Z' /proc/$(cat \"$pidfile\")/stat; }\n"
        "case \"$1\" in\n"
        "start) sleep 600 & echo $! > \"$pidfile\"; echo \"pid $!\" >> '" +
        trace.string() +
        "';;\n"
        "stop) alive && kill $(cat \"$pidfile\"); rm -f \"$pidfile\";;\n"
        "status) alive && exit 0; exit 3;;\n"
        "log) echo \"$QUOR_PKG_VAR/daemon.log\";;\n"
        "esac\n";
    return pkg;
}

TEST_F(ServiceTest, StatusFollowsTheScriptTheActiveMarkAndTheStore) {
    install(daemon(tracePath()));
    EXPECT_EQ(packageStatus("daemon"), kStopped);
    ASSERT_EQ(startPackage("daemon", {}), kOk);
    EXPECT_EQ(packageStatus("daemon"), kOk);

    // The daemon dies after a successful start: the platform still thinks
    // it runs.
    std::string pid = readFile(layout::varDir("daemon") / "pid").value_or("0");
    ASSERT_EQ(::kill(std::stoi(pid), SIGKILL), 0);
    EXPECT_EQ(packageStatus("daemon"), kStoppedButActive);
    EXPECT_EQ(packageStatus("daemon", {.reportActive = false}), kStopped);
    ASSERT_EQ(stopPackage("daemon", {}), kOk);
    EXPECT_EQ(packageStatus("daemon"), kStopped);

    // The script's own answer passes through, 150 means broken.
    PackageSource odd = service("odd");
    odd.scripts["start-stop-status"] = "#!/bin/sh\n[ \"$1\" = status ] && exit ${CODE:-5}\n";
    install(odd);
    EXPECT_EQ(packageStatus("odd"), 5);
    writeText(layout::scriptsDir("odd") / "start-stop-status", "#!/bin/sh\nexit 150\n", 0755);
    EXPECT_EQ(packageStatus("odd"), kBroken);

    // Without a script a package runs while it is marked active.
    PackageSource plain;
    plain.name = "plain";
    install(plain);
    EXPECT_EQ(packageStatus("plain"), kStopped);
    ASSERT_EQ(startPackage("plain", {}), kOk);
    EXPECT_EQ(packageStatus("plain"), kOk);

    // Broken: no manifest, or nothing behind the target.
    install(service("gone"));
    fs::remove_all(layout::appstoreDir(volume, "gone"));
    EXPECT_EQ(packageStatus("gone"), kBroken);
    fs::remove(layout::packageDir("plain") / "INFO");
    EXPECT_EQ(packageStatus("plain"), kBroken);
    EXPECT_EQ(packageStatus("absent"), kNoSuchPackage);
    EXPECT_EQ(packageStatus("../var"), kNoSuchPackage);
}

// Another process's upgrade between its two payload moves: the package is
// half there. A reader waits for that change instead of calling it broken.
TEST_F(ServiceTest, StatusWaitsForAChangeInAnotherProcessInsteadOfReadingItHalfDone) {
    install(service("moving"));
    const fs::path payload = layout::appstoreDir(volume, "moving");
    std::optional<LockHolder> holder(std::in_place);
    ASSERT_TRUE(holder->locked());
    ASSERT_TRUE(writeJournal({"upgrade", "moving", "commit", volume, volume, "", false}));
    fs::rename(payload, payload.string() + ".aside");
    std::thread change([&] {
        std::this_thread::sleep_for(std::chrono::milliseconds(300));
        fs::rename(payload.string() + ".aside", payload);
        clearJournal("moving");
        holder.reset();
    });
    EXPECT_EQ(packageStatus("moving"), kStopped);
    change.join();
}

TEST_F(ServiceTest, ManagerQueriesAlwaysLeaveTheirCode) {
    install(service("svc"));
    PackageManager manager;
    bool running = true;
    manager.getServiceStatus("svc", running, true, true);
    EXPECT_FALSE(running);
    EXPECT_EQ(manager.getResult(), kStopped);
    ASSERT_EQ(startPackage("svc", {}), kOk);
    manager.getServiceStatus("svc", running, true, true);
    EXPECT_TRUE(running);
    EXPECT_EQ(manager.getResult(), kOk);
    EXPECT_FALSE(manager.getServiceStatus("nope", running, true));
    EXPECT_FALSE(running);
    EXPECT_EQ(manager.getResult(), kNoSuchPackage);

    EXPECT_FALSE(manager.isServiceEnabled("svc"));
    EXPECT_EQ(manager.getResult(), kNotEnabled);
    EXPECT_FALSE(manager.isServiceEnabled("nope"));
    EXPECT_EQ(manager.getResult(), kNoSuchPackage);
    writeText(layout::enabledFlag("svc"), "");
    EXPECT_TRUE(manager.isServiceEnabled("svc"));
}

TEST_F(ServiceTest, LogPathComesFromTheScriptElseThePackageLog) {
    install(daemon(tracePath()));
    install(service("quiet"));  // its script prints nothing for log
    int code = -1;
    EXPECT_EQ(packageLogPath("daemon", code), (layout::varDir("daemon") / "daemon.log").string());
    EXPECT_EQ(code, kOk);
    EXPECT_EQ(packageLogPath("quiet", code), layout::logFile("quiet").string());
    writeText(layout::scriptsDir("quiet") / "start-stop-status",
              "#!/bin/sh\necho /var/log/quiet.log\n", 0755);
    EXPECT_EQ(packageLogPath("quiet", code), root.host("/var/log/quiet.log").string());
    writeText(layout::scriptsDir("quiet") / "start-stop-status",
              "#!/bin/sh\necho /elsewhere; exit 1\n", 0755);
    EXPECT_EQ(packageLogPath("quiet", code), layout::logFile("quiet").string());
    EXPECT_EQ(packageLogPath("nope", code), "");
    EXPECT_EQ(code, kNoSuchPackage);
}

// Script answers that collide with the platform's own result codes.
TEST_F(ServiceTest, StatusAnswersThatLookLikePlatformCodesAreUnknownNotPassedOn) {
    PackageSource odd = service("odd");
    install(odd);
    auto answer = [&](int code) {
        writeText(layout::scriptsDir("odd") / "start-stop-status",
                  "#!/bin/sh\n[ \"$1\" = status ] && exit " + std::to_string(code) + "\nexit 0\n",
                  0755);
        return packageStatus("odd");
    };
    // 255 would read as "not installed", 102 as "locked", 131 as a time-out.
    for (int code : {100, 102, 131, 140, 160, 170, 254, 255}) EXPECT_EQ(answer(code), 4) << code;
    for (int code : {1, 2, 3, 4, 5, 99}) EXPECT_EQ(answer(code), code);
    EXPECT_EQ(answer(150), kBroken);
    EXPECT_EQ(answer(0), kOk);

    // Through the manager: an installed package never reads as absent.
    QUORPackageTool::PackageManager manager;
    bool running = true;
    answer(255);
    EXPECT_TRUE(manager.getServiceStatus("odd", running, true, true));
    EXPECT_FALSE(running);
    EXPECT_EQ(manager.getResult(), 4);
    writeText(layout::activeMark("odd"), "");
    EXPECT_TRUE(manager.getServiceStatus("odd", running, true, true));
    EXPECT_EQ(manager.getResult(), kStoppedButActive);

    // A start or stop that exits with such a code is a failed script.
    writeText(layout::scriptsDir("odd") / "start-stop-status",
              "#!/bin/sh\n[ \"$1\" = status ] && exit 3\nexit 255\n", 0755);
    fs::remove(layout::activeMark("odd"));
    EXPECT_EQ(startPackage("odd", {}), kScriptFailed);
}

}  // namespace
}  // namespace quor::test
