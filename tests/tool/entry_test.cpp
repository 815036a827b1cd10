// The process entry: usage, init, command dispatch and the exception report.
#include "tool_harness.h"

namespace tooltest {
namespace {

using ::testing::ElementsAre;

const std::string kUsageBody = R"(
command:
  start <package>                                         Start a package.
  stop <package>                                          Stop a package.
  restart <package>                                       Stop a package, then start it.
  resume <package>                                        Start a package without enable its service. It will do nothing
                                                          if enabled flag doesn't exist.
  pause <package> [skipupgradecheck]                      Stop a package without disable its service. It will do nothing
                                                          if enabled flag doesn't exist.
  start-depend <service>                                  Start all packages depend on specific service.
  stop-depend <service>                                   Stop all packages depend on specific service.
  onoffall start|stop [event] [param]                     Start or stop all the packages.
  install [--daemon-reload] <zpk>                         Install a package through local zpk.
  install_from_server <package> [volume] [user] [beta]    Install a package from server.
  uninstall <package>...                                  Uninstall one or more package.
  upgradeall [limitonly] [lang] [user]                    Upgrade all upgradable package.
  chkupgradepkg [lang]                                    Find all upgradable packages from server, and decide whether to
                                                          upgrade accorting to user settings.
  checkupdateall [lang] [user]                            Find all upgradable packages from server (use cache first), and
                                                          decide whether to upgrade accorting to user settings.
  status <package>                                        Get status of an installed package.
  is_onoff <package>                                      Check if a package is installed and if its enabled flag exists.
  version <package>                                       Get version of an installed package.
  query <zpk>                                             Get a package's basic information from the zpk.
  list [--name] [--depend-on <package>]                   List all installed package.
  log <package>                                           Get package's log path.
  checkupdate <package> [lang]                            Check if a package is updatable.
  sort_zpk_by_dep_order <zpk_path>...                     Sort given zpks according to their dependencies.
  notify_stopped_by_firmware                              Send notifications about which packages are stopped by firmware.

)";

std::string usage(const std::string& baseName) {
    return "usage: " + baseName + " <command> [...]\n" + kUsageBody;
}

using EntryTest = ToolTest;

TEST_F(EntryTest, NoCommandWordPrintsUsageWithBaseNameAndFailsWithoutInit) {
    const struct {
        const char* invoked;
        const char* baseName;
    } cases[] = {{"/usr/local/bin/quorpkg", "quorpkg"},
                 {"quorpkg", "quorpkg"},
                 {"./tools/", ""},
                 {"rel/pkgtool", "pkgtool"}};
    for (const auto& c : cases) {
        fake::reset();
        const Outcome r = runArgv({c.invoked});
        EXPECT_EQ(r.status, 1) << c.invoked;
        EXPECT_EQ(r.out, usage(c.baseName)) << c.invoked;
        EXPECT_THAT(fake::platform().calls,
                    ElementsAre("m1.PackageManager()", "m1.~PackageManager()"));
    }
}

TEST_F(EntryTest, UnknownCommandWordPrintsUsageAndSucceedsAfterInit) {
    for (const char* word : {"bogus", "", "Install", "star", "start-"}) {
        fake::reset();
        const Outcome r = run({word, "foo"});
        EXPECT_EQ(r.status, 0) << word;
        EXPECT_EQ(r.out, usage("quorpkg")) << word;
        EXPECT_TRUE(commandCalls().empty()) << word;
    }
}

TEST_F(EntryTest, InitFailureComesBeforeTheCommandWordIsLookedAt) {
    for (const char* word : {"start", "bogus"}) {
        fake::reset();
        fake::platform().failing = {"init"};
        fake::platform().result = -17;
        const Outcome r = run({word, "foo"});
        EXPECT_EQ(r.status, 1);
        EXPECT_EQ(r.out, "Failed to init package manager: -17\n");
        EXPECT_THAT(fake::platform().calls,
                    ElementsAre("m1.PackageManager()", "m1(uninit).init()",
                                "m1(uninit).getResult()", "m1.~PackageManager()"));
    }
}

TEST_F(EntryTest, ExceptionsEndTheRunWithOneReportLine) {
    const struct {
        const char* throwIn;
        std::vector<std::string> words;
        bool destroyed;
    } cases[] = {
        {"PackageManager", {"start", "foo"}, false},
        {"init", {"start", "foo"}, true},
        {"getResult", {"restart", "foo"}, true},
        {"serviceControl", {"start", "foo"}, true},
    };
    for (const auto& c : cases) {
        fake::reset();
        fake::platform().failing = {"serviceControlRestart"};
        fake::platform().throwIn = c.throwIn;
        fake::platform().throwWhat = "disk on fire";
        const Outcome r = run(c.words);
        EXPECT_EQ(r.status, 1) << c.throwIn;
        EXPECT_EQ(r.out, "Failed to execute quorpkg, reason=[disk on fire]\n") << c.throwIn;
        EXPECT_EQ(fake::platform().calls.back() == "m1.~PackageManager()", c.destroyed)
            << c.throwIn;
    }
}

// Each word reaches its own handler with the command word as argv[0]: with
// no operand it either refuses or makes its own first request.
TEST_F(EntryTest, EveryCommandWordReachesItsHandler) {
    const struct {
        const char* word;
        const char* firstCall;  // null: the handler refuses with "Bad parameter!"
    } cases[] = {
        {"install", nullptr},
        {"uninstall", nullptr},
        {"version", nullptr},
        {"list", "m1.enumPackages(null, ~0)"},
        {"log", nullptr},
        {"query", nullptr},
        {"chkupgradepkg", "PMSCheckUpgrade(true, null, \"\", null)"},
        {"start", nullptr},
        {"stop", nullptr},
        {"restart", nullptr},
        {"status", nullptr},
        {"onoffall", nullptr},
        {"is_onoff", nullptr},
        {"checkupdateall", "PMSCheckUpgrade(false, null, \"enu\", list)"},
        {"checkupdate", nullptr},
        {"pause", nullptr},
        {"resume", nullptr},
        {"stop-depend", nullptr},
        {"start-depend", nullptr},
        {"upgradeall", "PMSCheckUpgrade(true, \"\", \"enu\", null, true, true)"},
        {"install_from_server", nullptr},
        {"sort_zpk_by_dep_order", nullptr},
        {"notify_stopped_by_firmware", "m2.PackageManager()"},
    };
    for (const auto& c : cases) {
        std::vector<std::vector<std::string>> runs = {{c.word}};
        if (c.firstCall == nullptr) runs.push_back({c.word, ""});
        for (const std::vector<std::string>& words : runs) {
            fake::reset();
            fake::platform().failing = {"PMSCheckUpgrade"};
            const Outcome r = run(words);
            const std::vector<std::string> calls = commandCalls();
            if (c.firstCall == nullptr) {
                EXPECT_EQ(r.out, "Bad parameter!\n") << c.word;
                EXPECT_EQ(r.status, 1) << c.word;
                EXPECT_TRUE(calls.empty()) << c.word;
            } else {
                ASSERT_FALSE(calls.empty()) << c.word;
                EXPECT_EQ(calls.front(), c.firstCall) << c.word;
            }
        }
    }
}

}  // namespace
}  // namespace tooltest
