// start, stop, restart, status, is_onoff, pause, resume, the dependent-service
// commands, onoffall and the firmware notifications.
#include <syslog.h>

#include <tuple>
#include <utility>

#include "tool_harness.h"

namespace tooltest {
namespace {

using ::testing::ElementsAre;
using ::testing::IsEmpty;

using ServiceTest = ToolTest;

TEST_F(ServiceTest, StartStopAndRestartMakeOneRequestAndReportIt) {
    expectCase({"start", "foo", "extra"}, {}, "package foo start successfully\n", 0,
               {"m1.serviceControl(8, \"foo\", true, null, null, null, true, true)"});
    expectCase({"stop", "foo"}, {}, "package foo stop successfully\n", 0,
               {"m1.serviceControl(16, \"foo\", false, null, null, null, true, true)"});
    expectCase(
        {"start", "ghost"}, {.failing = {"serviceControl"}, .result = 255},
        "Failed to start package 255\n", 1,
        {"m1.serviceControl(8, \"ghost\", true, null, null, null, true, true)", "m1.getResult()"});
    expectCase(
        {"stop", "foo"}, {.failing = {"serviceControl"}, .result = -3},
        "Failed to stop package -3\n", 1,
        {"m1.serviceControl(16, \"foo\", false, null, null, null, true, true)", "m1.getResult()"});
    expectCase({"restart", "foo", "bar"}, {}, "package foo restart successfully\n", 0,
               {"m1.serviceControlRestart(\"foo\")"});
    expectCase({"restart", "foo"}, {.failing = {"serviceControlRestart"}},
               "Failed to restart package 0\n", 1,
               {"m1.serviceControlRestart(\"foo\")", "m1.getResult()"});
}

// Exit statuses: 0 running, 4 missing, 150 broken, 4 stopped-but-active,
// else the code itself up to 254 and 4 from 256 on.
TEST_F(ServiceTest, StatusCarriesItsAnswerInTheExitStatus) {
    const std::string query = "m1.getServiceStatus(\"foo\", running, true, true)";
    const std::string stopped = "foo package is stopped\n";
    // Code, first line, exit status.
    const std::tuple<int, std::string, int> cases[] = {
        {255, "No such package foo\n", 4},
        {150, "foo package is broken\n", 150},
        {310,
         "foo package status is stopped but unit is active, it is possible that package "
         "encounters an error after it was started successfully\n",
         4},
        {3, stopped, 3},
        {0, stopped, 0},
        {254, stopped, 254},
        {256, stopped, 4},
        {300, stopped, 4},
        {-2, stopped, -2},
    };
    for (const auto& [code, firstLine, status] : cases) {
        expectCase({"status", "foo"}, {.failing = {"getServiceStatus"}, .result = code},
                   firstLine + "Status: [" + std::to_string(code) + "]\n", status,
                   {query, "m1.getResult()"});
    }
    // A running package: one line, and the code is never asked for, whatever
    // the query itself answered.
    expectCase({"status", "foo"}, {.failing = {"getServiceStatus"}, .running = true},
               "foo package is started\n", 0, {query});
}

TEST_F(ServiceTest, IsOnoffReportsTheEnabledState) {
    expectCase({"is_onoff", "foo", "x"}, {}, "package foo is turned on\n", 0,
               {"m1.isServiceEnabled(\"foo\")"});
    expectCase({"is_onoff", "foo"}, {.failing = {"isServiceEnabled"}, .result = 7},
               "package foo isn't turned on, status: [7]\n", 1,
               {"m1.isServiceEnabled(\"foo\")", "m1.getResult()"});
}

// Only a package whose enabled flag exists is stopped (pause) or started
// (resume); pause then removes its web entry, even when the stop failed,
// and resume never restores it. The library reports the package as "Foo":
// the paths follow that name, not the word typed.
TEST_F(ServiceTest, PauseAndResumeActOnATurnedOnPackageOnly) {
    const std::string get = "m1.getPackageInfo(\"foo\", info, null, ~0)";
    const std::string flag = "QLIBCFileExist(\"/var/packages/Foo/enabled\")";
    const std::string stop = "m1.serviceControl(0, \"Foo\", false, null, null, null, true, true)";
    const std::string start = "m1.serviceControl(0, \"Foo\", true, null, null, null, true, true)";
    const std::string skip = "m1.setSkipUpgradeCheck(true)";
    const std::vector<std::string> web = {"/usr/quor/quorman/webman/3rdparty/Foo"}, none;
    const std::set<std::string> fails = {"serviceControl"};
    // Words, whether the flag exists, ui_dir, failing, calls, removed paths.
    using Case = std::tuple<std::vector<std::string>, bool, std::string, std::set<std::string>,
                            std::vector<std::string>, std::vector<std::string>>;
    const Case cases[] = {
        {{"pause", "foo"}, true, "ui", {}, {get, flag, stop}, web},
        {{"pause", "foo"}, true, "ui", fails, {get, flag, stop}, web},
        {{"pause", "foo"}, true, "", {}, {get, flag, stop}, none},
        {{"pause", "foo"}, false, "ui", {}, {get, flag}, none},
        {{"pause", "foo", "skipupgradecheck"}, false, "", {}, {skip, get, flag}, none},
        {{"pause", "foo", "skipupgradecheck", "x"}, true, "ui", {}, {skip, get, flag, stop}, web},
        {{"pause", "foo", "SkipUpgradeCheck"}, false, "", {}, {get, flag}, none},
        {{"pause", "foo", "other"}, false, "", {}, {get, flag}, none},
        {{"resume", "foo", "skipupgradecheck"}, true, "ui", fails, {get, flag, start}, none},
        {{"resume", "foo", "skipupgradecheck"}, false, "ui", fails, {get, flag}, none},
    };
    for (const auto& [words, flagExists, uiDir, failing, calls, unlinked] : cases) {
        fake::Platform script{.failing = failing, .unlinkResult = -1};
        script.installed["foo"] = fake::package("Foo");
        script.installed["foo"].ui_dir = uiDir;
        if (flagExists) script.existingPaths = {"/var/packages/Foo/enabled"};
        expectCase(words, script, "", 0, calls);
        EXPECT_EQ(fake::platform().unlinked, unlinked) << ::testing::PrintToString(words);
        EXPECT_THAT(fake::platform().syslogLines, IsEmpty());
    }
}

TEST_F(ServiceTest, PauseAndResumeLogAnUnknownPackage) {
    const std::pair<const char*, const char*> cases[] = {
        {"pause", "pkg_pause.cpp:26 Fail to get package info of [ghost]"},
        {"resume", "pkg_resume.cpp:22 Fail to get package info of [ghost]"}};
    for (const auto& [word, logLine] : cases) {
        expectCase({word, "ghost"}, {}, "Fail to get package info of [ghost]\n", 1,
                   {"m1.getPackageInfo(\"ghost\", info, null, ~0)"});
        EXPECT_THAT(fake::platform().syslogLines,
                    ElementsAre(std::make_pair(LOG_ERR, std::string(logLine))));
    }
}

// Hardware-control value 2 right before the request, 1 right after it.
TEST_F(ServiceTest, DependentServiceRequestIsBracketedByHardwareNotices) {
    const std::string before = "QUORHWExternalControl(22784, 128, [2])";
    const std::string after = "QUORHWExternalControl(22784, 128, [1])";
    expectCase({"start-depend", "pgsql"}, {}, "", 0,
               {before, "m1.serviceControlByService([\"pgsql\"], true, false)", after});
    expectCase({"stop-depend", "pgsql", "x"},
               {.failing = {"serviceControlByService", "QUORHWExternalControl"}}, "", 0,
               {before, "m1.serviceControlByService([\"pgsql\"], false, false)", after});
    expectCase({"start-depend", "PGSQL"}, {}, "Unknown pkg dependent service [PGSQL]\n", 1, {});
    expectCase({"stop-depend", "mysql"}, {}, "Unknown pkg dependent service [mysql]\n", 1, {});
    // A throwing request leaves the second notice unsent.
    expectCase({"start-depend", "pgsql"}, {.throwIn = "serviceControlByService"},
               "Failed to execute quorpkg, reason=[scripted failure]\n", 1,
               {before, "m1.serviceControlByService([\"pgsql\"], true, false)"});
}

TEST_F(ServiceTest, OnoffallStartsOnlyOnStartAndPassesEventAndParam) {
    auto onOff = [](const std::string& args) {
        return std::vector<std::string>{"m1.serviceControlOnOffALL(" + args + ")"};
    };
    expectCase({"onoffall", "start"}, {}, "start all packages successfully\n", 0,
               onOff("true, true, null, null"));
    expectCase({"onoffall", "stop", "boot"}, {}, "stop all packages successfully\n", 0,
               onOff("false, true, \"boot\", null"));
    expectCase({"onoffall", "off"}, {}, "stop all packages successfully\n", 0,
               onOff("false, true, null, null"));
    expectCase({"onoffall", "Start", "", ""}, {}, "stop all packages successfully\n", 0,
               onOff("false, true, \"\", \"\""));
    expectCase({"onoffall", "start", "boot", "x", "y"}, {}, "start all packages successfully\n", 0,
               onOff("true, true, \"boot\", \"x\""));
    expectCase({"onoffall", "restart"}, {.failing = {"serviceControlOnOffALL"}, .result = 9},
               "Failed to stop all packages 9\n", 1,
               {"m1.serviceControlOnOffALL(false, true, null, null)", "m1.getResult()"});
}

// The command lists on a manager of its own that is never initialised.
TEST_F(ServiceTest, FirmwareNotificationsWalkEveryPackageOnAPrivateManager) {
    PackageInfo a = fake::package("a", "1.0"), b = fake::package("b", "2.1"),
                c = fake::package("c", "0.9");
    b.displayname = "Bee App";
    c.displayname = "Sea App";
    const std::string list = "m2(uninit).enumPackageInfo(list, null, ~0)";
    expectCase({"notify_stopped_by_firmware", "extra"},
               {.failing = {"enumPackageInfo"},
                .packageInfos = {a, b, c},
                .limits = {{"b", 3}, {"c", -1}}},
               "quorpkg: cannot start b (ver=2.1) in this firmware (status=3).\n"
               "quorpkg: cannot start c (ver=0.9) in this firmware (status=-1).\n",
               0,
               {"m2.PackageManager()", list, "PMSThirdPartyCheckLimit(\"a\", \"1.0\")",
                "PMSThirdPartyCheckLimit(\"b\", \"2.1\")", "NotifyStoppedByFirmware(\"Bee App\")",
                "PMSThirdPartyCheckLimit(\"c\", \"0.9\")", "NotifyStoppedByFirmware(\"Sea App\")",
                "m2.~PackageManager()"});
    expectCase({"notify_stopped_by_firmware"}, {}, "", 0,
               {"m2.PackageManager()", list, "m2.~PackageManager()"});
}

}  // namespace
}  // namespace tooltest
