// list and log.
#include <utility>

#include "tool_harness.h"

namespace tooltest {
namespace {

using ListTest = ToolTest;

// The options description as Boost.Program_options lays it out.
const std::string kHelp =
    "usage: quorpkg list [--help] [--name] [--depend-on <package>]:\n"
    "  -h [ --help ]         Show this help\n"
    "  --name                List packages' name only.\n"
    "  --depend-on arg       Only list packages depend on which you specify (exclude\n"
    "                        itself).\n";

const std::string kEnum = "m1.enumPackages(null, ~0)";

std::string lookUp(const std::string& name) {
    return "m1.getPackageInfo(\"" + name + "\", info, null, ~0)";
}

// a and c are installed, b cannot be read.
fake::Platform abc() {
    return {.installed = {{"a", fake::package("a", "1.0", "Alpha tool")},
                          {"c", fake::package("c", "2-3", "")}},
            .packageNames = {"a", "b", "c"}};
}

TEST_F(ListTest, ListsEveryInstalledPackageAndSkipsUnreadableOnes) {
    for (const std::vector<std::string>& words :
         {std::vector<std::string>{"list"}, std::vector<std::string>{"list", "foo", "bar"}}) {
        expectCase(words, abc(), "a-1.0: Alpha tool\nc-2-3: \n", 0,
                   {kEnum, lookUp("a"), lookUp("b"), lookUp("c")});
    }
}

TEST_F(ListTest, NameOnlyJoinsTheNamesWithNewlines) {
    expectCase({"list", "--name"}, {.packageNames = {"a", "b", "c"}}, "a\nb\nc\n", 0, {kEnum});
    expectCase({"list", "--na"}, {.packageNames = {"a"}}, "a\n", 0, {kEnum});
    expectCase({"list", "--name"}, {}, "\n", 0, {kEnum});
}

// The library lists the package itself last; a failed query is not reported.
TEST_F(ListTest, DependOnListsTheDependentsWithoutThePackageItself) {
    const std::string order = "m1.getDependencyOrder(\"foo\", names, true)";
    auto dependents = [](const std::vector<std::string>& dependencyOrder) {
        fake::Platform script = abc();
        script.failing = {"getDependencyOrder"};
        script.dependencyOrder = dependencyOrder;
        return script;
    };
    expectCase({"list", "--depend-on", "foo"}, dependents({"a", "c", "foo"}),
               "a-1.0: Alpha tool\nc-2-3: \n", 0, {order, lookUp("a"), lookUp("c")});
    expectCase({"list", "--dep=foo", "--name"}, dependents({"a", "b", "foo"}), "a\nb\n", 0,
               {order});
    expectCase({"list", "--depend-on", "foo"}, dependents({"foo"}), "", 0, {order});
    expectCase({"list", "--depend-on=foo", "--name"}, dependents({}), "\n", 0, {order});
}

TEST_F(ListTest, HelpWinsOverEveryOtherOption) {
    for (const std::vector<std::string>& words :
         {std::vector<std::string>{"list", "--help"}, std::vector<std::string>{"list", "-h"},
          std::vector<std::string>{"list", "--name", "--depend-on", "x", "-h"},
          std::vector<std::string>{"list", "--he"}}) {
        expectCase(words, {}, kHelp + "\n", 0, {});
    }
}

// -n is not a short form of --name: the blank in "name, n" keeps it from
// being registered.
TEST_F(ListTest, OptionErrorsPrintTheErrorAndTheHelp) {
    const std::pair<std::vector<std::string>, std::string> cases[] = {
        {{"list", "-n"}, "unrecognised option '-n'"},
        {{"list", "--names"}, "unrecognised option '--names'"},
        {{"list", "--depend-on"}, "the required argument for option '--depend-on' is missing"},
        {{"list", "--depend-on", "a", "--depend-on", "b"},
         "option '--depend-on' cannot be specified more than once"},
        {{"list", "--name=x"}, "option '--name' does not take any arguments"},
    };
    for (const auto& [words, error] : cases)
        expectCase(words, {}, error + "\n" + kHelp + "\n", 1, {});
}

TEST_F(ListTest, LibraryErrorsReachTheEntryReport) {
    expectCase({"list"}, {.throwIn = "enumPackages"},
               "Failed to execute quorpkg, reason=[scripted failure]\n", 1, {kEnum});
}

TEST_F(ListTest, LogPrintsThePathOrTheCode) {
    expectCase({"log", "foo", "bar"}, {.logPath = "/var/log/packages/foo.log"},
               "The log file is /var/log/packages/foo.log\n", 0, {"m1.getPackageLog(\"foo\")"});
    expectCase({"log", "ghost"}, {.result = 12}, "Failed to get log file 12\n", 1,
               {"m1.getPackageLog(\"ghost\")", "m1.getResult()"});
}

}  // namespace
}  // namespace tooltest
