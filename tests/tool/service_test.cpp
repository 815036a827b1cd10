// start, stop, restart, status, is_onoff, pause, resume, the dependent-service
// commands, onoffall and the firmware notifications.
#include <syslog.h>

#include "tool_harness.h"

namespace tooltest {
namespace {

using ::testing::ElementsAre;
using ::testing::IsEmpty;

using ServiceTest = ToolTest;

TEST_F(ServiceTest, StartStopAndRestartMakeOneRequestAndReportIt) {
    expectCase({"start", "foo", "extra"}, {}, 0, "package foo start successfully\n", 0,
               {"m1.serviceControl(8, \"foo\", true, null, null, null, true, true)"});
    expectCase({"stop", "foo"}, {}, 0, "package foo stop successfully\n", 0,
               {"m1.serviceControl(16, \"foo\", false, null, null, null, true, true)"});
    expectCase(
        {"start", "ghost"}, {"serviceControl"}, 255, "Failed to start package 255\n", 1,
        {"m1.serviceControl(8, \"ghost\", true, null, null, null, true, true)", "m1.getResult()"});
    expectCase(
        {"stop", "foo"}, {"serviceControl"}, -3, "Failed to stop package -3\n", 1,
        {"m1.serviceControl(16, \"foo\", false, null, null, null, true, true)", "m1.getResult()"});
    expectCase({"restart", "foo", "bar"}, {}, 0, "package foo restart successfully\n", 0,
               {"m1.serviceControlRestart(\"foo\")"});
    expectCase({"restart", "foo"}, {"serviceControlRestart"}, 0, "Failed to restart package 0\n", 1,
               {"m1.serviceControlRestart(\"foo\")", "m1.getResult()"});
}

// Exit statuses: 0 running, 4 missing, 150 broken, 4 stopped-but-active,
// else the code itself up to 254 and 4 from 256 on.
TEST_F(ServiceTest, StatusCarriesItsAnswerInTheExitStatus) {
    const std::string query = "m1.getServiceStatus(\"foo\", running, true, true)";
    const std::string active =
        "foo package status is stopped but unit is active, it is possible that package "
        "encounters an error after it was started successfully\n";
    const struct {
        int code;
        std::string firstLine;
        int status;
    } cases[] = {
        {255, "No such package foo\n", 4},
        {150, "foo package is broken\n", 150},
        {310, active, 4},
        {3, "foo package is stopped\n", 3},
        {0, "foo package is stopped\n", 0},
        {254, "foo package is stopped\n", 254},
        {256, "foo package is stopped\n", 4},
        {300, "foo package is stopped\n", 4},
        {-2, "foo package is stopped\n", -2},
    };
    for (const auto& c : cases) {
        expectCase({"status", "foo"}, {"getServiceStatus"}, c.code,
                   c.firstLine + "Status: [" + std::to_string(c.code) + "]\n", c.status,
                   {query, "m1.getResult()"});
    }
    // A running package: one line, and the code is never asked for, whatever
    // the query itself answered.
    fake::reset();
    fake::platform().running = true;
    fake::platform().failing = {"getServiceStatus"};
    const Outcome r = run({"status", "foo"});
    EXPECT_EQ(r.out, "foo package is started\n");
    EXPECT_EQ(r.status, 0);
    EXPECT_THAT(commandCalls(), ElementsAre(query));
}

TEST_F(ServiceTest, IsOnoffReportsTheEnabledState) {
    expectCase({"is_onoff", "foo", "x"}, {}, 0, "package foo is turned on\n", 0,
               {"m1.isServiceEnabled(\"foo\")"});
    expectCase({"is_onoff", "foo"}, {"isServiceEnabled"}, 7,
               "package foo isn't turned on, status: [7]\n", 1,
               {"m1.isServiceEnabled(\"foo\")", "m1.getResult()"});
}

// The library may report another name than the one typed; the paths follow it.
PackageInfo installedAs(const std::string& name, const std::string& uiDir) {
    PackageInfo info = fake::package(name);
    info.ui_dir = uiDir;
    return info;
}

TEST_F(ServiceTest, PauseStopsATurnedOnPackageAndRemovesItsWebEntry) {
    const std::string lookUp = "m1.getPackageInfo(\"foo\", info, null, ~0)";
    const std::string flag = "QLIBCFileExist(\"/var/packages/Foo/enabled\")";
    const std::string stopIt = "m1.serviceControl(0, \"Foo\", false, null, null, null, true, true)";
    const struct {
        std::vector<std::string> words;
        bool flagExists;
        std::string uiDir;
        std::set<std::string> failing;
        std::vector<std::string> calls;
        std::vector<std::string> unlinked;
    } cases[] = {
        {{"pause", "foo"},
         true,
         "foo-ui",
         {},
         {lookUp, flag, stopIt},
         {"/usr/quor/quorman/webman/3rdparty/Foo"}},
        // A failed stop still removes the entry and succeeds.
        {{"pause", "foo"},
         true,
         "foo-ui",
         {"serviceControl"},
         {lookUp, flag, stopIt},
         {"/usr/quor/quorman/webman/3rdparty/Foo"}},
        {{"pause", "foo"}, true, "", {}, {lookUp, flag, stopIt}, {}},
        {{"pause", "foo"}, false, "foo-ui", {}, {lookUp, flag}, {}},
        {{"pause", "foo", "skipupgradecheck"},
         false,
         "",
         {},
         {"m1.setSkipUpgradeCheck(true)", lookUp, flag},
         {}},
        {{"pause", "foo", "skipupgradecheck", "x"},
         true,
         "foo-ui",
         {},
         {"m1.setSkipUpgradeCheck(true)", lookUp, flag, stopIt},
         {"/usr/quor/quorman/webman/3rdparty/Foo"}},
        {{"pause", "foo", "SkipUpgradeCheck"}, false, "", {}, {lookUp, flag}, {}},
        {{"pause", "foo", "other"}, false, "", {}, {lookUp, flag}, {}},
    };
    for (const auto& c : cases) {
        fake::reset();
        fake::platform().installed["foo"] = installedAs("Foo", c.uiDir);
        if (c.flagExists) fake::platform().existingPaths = {"/var/packages/Foo/enabled"};
        fake::platform().failing = c.failing;
        fake::platform().unlinkResult = -1;
        const Outcome r = run(c.words);
        const std::string label = ::testing::PrintToString(c.words);
        EXPECT_EQ(r.out, "") << label;
        EXPECT_EQ(r.status, 0) << label;
        EXPECT_EQ(commandCalls(), c.calls) << label;
        EXPECT_EQ(fake::platform().unlinked, c.unlinked) << label;
        EXPECT_THAT(fake::platform().syslogLines, IsEmpty()) << label;
    }
}

TEST_F(ServiceTest, ResumeStartsATurnedOnPackageOnly) {
    const std::string lookUp = "m1.getPackageInfo(\"foo\", info, null, ~0)";
    const std::string flag = "QLIBCFileExist(\"/var/packages/Foo/enabled\")";
    for (bool flagExists : {true, false}) {
        fake::reset();
        fake::platform().installed["foo"] = installedAs("Foo", "foo-ui");
        if (flagExists) fake::platform().existingPaths = {"/var/packages/Foo/enabled"};
        fake::platform().failing = {"serviceControl"};
        const Outcome r = run({"resume", "foo", "skipupgradecheck"});
        EXPECT_EQ(r.out, "");
        EXPECT_EQ(r.status, 0);
        std::vector<std::string> calls = {lookUp, flag};
        if (flagExists) {
            calls.push_back("m1.serviceControl(0, \"Foo\", true, null, null, null, true, true)");
        }
        EXPECT_EQ(commandCalls(), calls);
        EXPECT_THAT(fake::platform().unlinked, IsEmpty());
    }
}

TEST_F(ServiceTest, PauseAndResumeLogAnUnknownPackage) {
    const struct {
        const char* word;
        const char* logLine;
    } cases[] = {{"pause", "pkg_pause.cpp:26 Fail to get package info of [ghost]"},
                 {"resume", "pkg_resume.cpp:22 Fail to get package info of [ghost]"}};
    for (const auto& c : cases) {
        fake::reset();
        const Outcome r = run({c.word, "ghost"});
        EXPECT_EQ(r.out, "Fail to get package info of [ghost]\n");
        EXPECT_EQ(r.status, 1);
        EXPECT_THAT(fake::platform().syslogLines,
                    ElementsAre(std::make_pair(LOG_ERR, std::string(c.logLine))));
        EXPECT_THAT(commandCalls(), ElementsAre("m1.getPackageInfo(\"ghost\", info, null, ~0)"));
    }
}

// Hardware-control value 2 right before the request, 1 right after it.
TEST_F(ServiceTest, DependentServiceRequestIsBracketedByHardwareNotices) {
    const std::string before = "QUORHWExternalControl(22784, 128, [2])";
    const std::string after = "QUORHWExternalControl(22784, 128, [1])";
    expectCase({"start-depend", "pgsql"}, {}, 0, "", 0,
               {before, "m1.serviceControlByService([\"pgsql\"], true, false)", after});
    expectCase({"stop-depend", "pgsql", "x"}, {"serviceControlByService", "QUORHWExternalControl"},
               0, "", 0, {before, "m1.serviceControlByService([\"pgsql\"], false, false)", after});
    expectCase({"start-depend", "PGSQL"}, {}, 0, "Unknown pkg dependent service [PGSQL]\n", 1, {});
    expectCase({"stop-depend", "mysql"}, {}, 0, "Unknown pkg dependent service [mysql]\n", 1, {});

    // A throwing request leaves the second notice unsent.
    fake::reset();
    fake::platform().throwIn = "serviceControlByService";
    const Outcome r = run({"start-depend", "pgsql"});
    EXPECT_EQ(r.out, "Failed to execute quorpkg, reason=[scripted failure]\n");
    EXPECT_EQ(r.status, 1);
    EXPECT_EQ(commandCalls(), (std::vector<std::string>{
                                  before, "m1.serviceControlByService([\"pgsql\"], true, false)"}));
}

TEST_F(ServiceTest, OnoffallStartsOnlyOnStartAndPassesEventAndParam) {
    auto onOff = [](const std::string& args) {
        return std::vector<std::string>{"m1.serviceControlOnOffALL(" + args + ")"};
    };
    expectCase({"onoffall", "start"}, {}, 0, "start all packages successfully\n", 0,
               onOff("true, true, null, null"));
    expectCase({"onoffall", "stop", "boot"}, {}, 0, "stop all packages successfully\n", 0,
               onOff("false, true, \"boot\", null"));
    expectCase({"onoffall", "off"}, {}, 0, "stop all packages successfully\n", 0,
               onOff("false, true, null, null"));
    expectCase({"onoffall", "Start", "", ""}, {}, 0, "stop all packages successfully\n", 0,
               onOff("false, true, \"\", \"\""));
    expectCase({"onoffall", "start", "boot", "x", "y"}, {}, 0, "start all packages successfully\n",
               0, onOff("true, true, \"boot\", \"x\""));
    expectCase({"onoffall", "restart"}, {"serviceControlOnOffALL"}, 9,
               "Failed to stop all packages 9\n", 1,
               {"m1.serviceControlOnOffALL(false, true, null, null)", "m1.getResult()"});
}

// The command lists on a manager of its own that is never initialised.
TEST_F(ServiceTest, FirmwareNotificationsWalkEveryPackageOnAPrivateManager) {
    PackageInfo a = fake::package("a", "1.0"), b = fake::package("b", "2.1"),
                c = fake::package("c", "0.9");
    b.displayname = "Bee App";
    c.displayname = "Sea App";
    fake::platform().packageInfos = {a, b, c};
    fake::platform().limits = {{"b", 3}, {"c", -1}};
    fake::platform().failing = {"enumPackageInfo"};
    const Outcome r = run({"notify_stopped_by_firmware", "extra"});
    EXPECT_EQ(r.out,
              "quorpkg: cannot start b (ver=2.1) in this firmware (status=3).\n"
              "quorpkg: cannot start c (ver=0.9) in this firmware (status=-1).\n");
    EXPECT_EQ(r.status, 0);
    EXPECT_THAT(commandCalls(),
                ElementsAre("m2.PackageManager()", "m2(uninit).enumPackageInfo(list, null, ~0)",
                            "PMSThirdPartyCheckLimit(\"a\", \"1.0\")",
                            "PMSThirdPartyCheckLimit(\"b\", \"2.1\")",
                            "NotifyStoppedByFirmware(\"Bee App\")",
                            "PMSThirdPartyCheckLimit(\"c\", \"0.9\")",
                            "NotifyStoppedByFirmware(\"Sea App\")", "m2.~PackageManager()"));

    fake::reset();
    const Outcome empty = run({"notify_stopped_by_firmware"});
    EXPECT_EQ(empty.out, "");
    EXPECT_EQ(empty.status, 0);
}

}  // namespace
}  // namespace tooltest
