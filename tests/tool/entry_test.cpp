// The process entry: usage, init, command dispatch and the exception report.
#include <set>
#include <sstream>
#include <tuple>
#include <utility>

#include "main/command_table.h"
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
    const std::pair<const char*, const char*> cases[] = {{"/usr/local/bin/quorpkg", "quorpkg"},
                                                         {"quorpkg", "quorpkg"},
                                                         {"./tools/", ""},
                                                         {"rel/pkgtool", "pkgtool"}};
    for (const auto& [invoked, baseName] : cases) {
        fake::reset();
        const Outcome r = runArgv({invoked});
        EXPECT_EQ(r.status, 1) << invoked;
        EXPECT_EQ(r.out, usage(baseName)) << invoked;
        EXPECT_THAT(fake::platform().calls,
                    ElementsAre("m1.PackageManager()", "m1.~PackageManager()"));
    }
}

// A command added to the table gets its usage row, and a row never names a
// command that is gone.
TEST_F(EntryTest, UsageRowsNameExactlyTheCommandsOfTheTable) {
    std::multiset<std::string> inUsage;
    std::istringstream lines(runArgv({"quorpkg"}).out);
    for (std::string line; std::getline(lines, line);) {
        if (line.size() > 2 && line.starts_with("  ") && line[2] != ' ')
            inUsage.insert(line.substr(2, line.find(' ', 2) - 2));
    }
    std::multiset<std::string> inTable;
    for (const quorpkg::CommandRow* row = quorpkg::kCommandTable; row->name != nullptr; ++row)
        inTable.insert(row->name);
    EXPECT_EQ(inUsage, inTable);
}

TEST_F(EntryTest, UnknownCommandWordPrintsUsageAndSucceedsAfterInit) {
    for (const char* word : {"bogus", "", "Install", "star", "start-"}) {
        expectCase({word, "foo"}, {}, usage("quorpkg"), 0, {});
    }
}

TEST_F(EntryTest, InitFailureComesBeforeTheCommandWordIsLookedAt) {
    for (const char* word : {"start", "bogus"}) {
        fake::platform() = {.failing = {"init"}, .result = -17};
        const Outcome r = run({word, "foo"});
        EXPECT_EQ(r.status, 1);
        EXPECT_EQ(r.out, "Failed to init package manager: -17\n");
        EXPECT_THAT(fake::platform().calls,
                    ElementsAre("m1.PackageManager()", "m1(uninit).init()",
                                "m1(uninit).getResult()", "m1.~PackageManager()"));
    }
}

TEST_F(EntryTest, ExceptionsEndTheRunWithOneReportLine) {
    // Where it throws, what runs, and whether the shared manager was built.
    const std::tuple<const char*, std::vector<std::string>, bool> cases[] = {
        {"PackageManager", {"start", "foo"}, false},
        {"init", {"start", "foo"}, true},
        {"getResult", {"restart", "foo"}, true},
        {"serviceControl", {"start", "foo"}, true},
    };
    for (const auto& [throwIn, words, destroyed] : cases) {
        fake::platform() = {.failing = {"serviceControlRestart"}, .throwIn = throwIn};
        const Outcome r = run(words);
        EXPECT_EQ(r.status, 1) << throwIn;
        EXPECT_EQ(r.out, "Failed to execute quorpkg, reason=[scripted failure]\n") << throwIn;
        EXPECT_EQ(fake::platform().calls.back() == "m1.~PackageManager()", destroyed) << throwIn;
    }
}

// Each word reaches its own handler with the command word as argv[0], so
// that with no operand, or an empty one, it refuses. The words that need no
// operand (list, chkupgradepkg, checkupdateall, upgradeall,
// notify_stopped_by_firmware) are run bare in their own tests.
TEST_F(EntryTest, EveryCommandWordReachesItsHandler) {
    for (const char* word :
         {"install", "uninstall", "version", "log", "query", "start", "stop", "restart", "status",
          "onoffall", "is_onoff", "checkupdate", "pause", "resume", "stop-depend", "start-depend",
          "install_from_server", "sort_zpk_by_dep_order"}) {
        expectCase({word}, {}, "Bad parameter!\n", 1, {});
        expectCase({word, ""}, {}, "Bad parameter!\n", 1, {});
    }
}

}  // namespace
}  // namespace tooltest
