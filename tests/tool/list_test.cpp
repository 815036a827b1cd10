// list and log.
#include "tool_harness.h"

namespace tooltest {
namespace {

using ::testing::ElementsAre;
using ::testing::IsEmpty;

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

void installABC() {
    fake::platform().packageNames = {"a", "b", "c"};
    fake::platform().installed = {{"a", fake::package("a", "1.0", "Alpha tool")},
                                  {"c", fake::package("c", "2-3", "")}};
}

TEST_F(ListTest, ListsEveryInstalledPackageAndSkipsUnreadableOnes) {
    for (const std::vector<std::string>& words :
         {std::vector<std::string>{"list"}, std::vector<std::string>{"list", "foo", "bar"}}) {
        fake::reset();
        installABC();
        const Outcome r = run(words);
        EXPECT_EQ(r.out, "a-1.0: Alpha tool\nc-2-3: \n");
        EXPECT_EQ(r.status, 0);
        EXPECT_THAT(commandCalls(), ElementsAre(kEnum, lookUp("a"), lookUp("b"), lookUp("c")));
    }
}

TEST_F(ListTest, NameOnlyJoinsTheNamesWithNewlines) {
    const struct {
        std::vector<std::string> words;
        std::vector<std::string> names;
        std::string out;
    } cases[] = {
        {{"list", "--name"}, {"a", "b", "c"}, "a\nb\nc\n"},
        {{"list", "--na"}, {"a"}, "a\n"},
        {{"list", "--name"}, {}, "\n"},
    };
    for (const auto& c : cases) {
        fake::reset();
        fake::platform().packageNames = c.names;
        const Outcome r = run(c.words);
        EXPECT_EQ(r.out, c.out);
        EXPECT_EQ(r.status, 0);
        EXPECT_THAT(commandCalls(), ElementsAre(kEnum));
    }
}

TEST_F(ListTest, DependOnListsTheDependentsWithoutThePackageItself) {
    const std::string order = "m1.getDependencyOrder(\"foo\", names, true)";
    const struct {
        std::vector<std::string> words;
        std::vector<std::string> dependencyOrder;
        std::string out;
        std::vector<std::string> calls;
    } cases[] = {
        {{"list", "--depend-on", "foo"},
         {"a", "c", "foo"},
         "a-1.0: Alpha tool\nc-2-3: \n",
         {order, lookUp("a"), lookUp("c")}},
        {{"list", "--dep=foo", "--name"}, {"a", "b", "foo"}, "a\nb\n", {order}},
        {{"list", "--depend-on", "foo"}, {"foo"}, "", {order}},
        {{"list", "--depend-on=foo", "--name"}, {}, "\n", {order}},
    };
    for (const auto& c : cases) {
        fake::reset();
        installABC();
        fake::platform().dependencyOrder = c.dependencyOrder;
        fake::platform().failing = {"getDependencyOrder"};
        const Outcome r = run(c.words);
        EXPECT_EQ(r.out, c.out);
        EXPECT_EQ(r.status, 0);
        EXPECT_EQ(commandCalls(), c.calls);
    }
}

TEST_F(ListTest, HelpWinsOverEveryOtherOption) {
    for (const std::vector<std::string>& words :
         {std::vector<std::string>{"list", "--help"}, std::vector<std::string>{"list", "-h"},
          std::vector<std::string>{"list", "--name", "--depend-on", "x", "-h"},
          std::vector<std::string>{"list", "--he"}}) {
        fake::reset();
        const Outcome r = run(words);
        EXPECT_EQ(r.out, kHelp + "\n");
        EXPECT_EQ(r.status, 0);
        EXPECT_THAT(commandCalls(), IsEmpty());
    }
}

// -n is not a short form of --name: the blank in "name, n" keeps it from
// being registered.
TEST_F(ListTest, OptionErrorsPrintTheErrorAndTheHelp) {
    const struct {
        std::vector<std::string> words;
        std::string error;
    } cases[] = {
        {{"list", "-n"}, "unrecognised option '-n'"},
        {{"list", "--names"}, "unrecognised option '--names'"},
        {{"list", "--depend-on"}, "the required argument for option '--depend-on' is missing"},
        {{"list", "--depend-on", "a", "--depend-on", "b"},
         "option '--depend-on' cannot be specified more than once"},
        {{"list", "--name=x"}, "option '--name' does not take any arguments"},
    };
    for (const auto& c : cases) {
        fake::reset();
        const Outcome r = run(c.words);
        EXPECT_EQ(r.out, c.error + "\n" + kHelp + "\n");
        EXPECT_EQ(r.status, 1);
        EXPECT_THAT(commandCalls(), IsEmpty());
    }
}

TEST_F(ListTest, LibraryErrorsReachTheEntryReport) {
    fake::platform().throwIn = "enumPackages";
    const Outcome r = run({"list"});
    EXPECT_EQ(r.out, "Failed to execute quorpkg, reason=[scripted failure]\n");
    EXPECT_EQ(r.status, 1);
}

TEST_F(ListTest, LogPrintsThePathOrTheCode) {
    fake::platform().logPath = "/var/log/packages/foo.log";
    Outcome r = run({"log", "foo", "bar"});
    EXPECT_EQ(r.out, "The log file is /var/log/packages/foo.log\n");
    EXPECT_EQ(r.status, 0);
    EXPECT_THAT(commandCalls(), ElementsAre("m1.getPackageLog(\"foo\")"));

    fake::reset();
    fake::platform().result = 12;
    r = run({"log", "ghost"});
    EXPECT_EQ(r.out, "Failed to get log file 12\n");
    EXPECT_EQ(r.status, 1);
    EXPECT_THAT(commandCalls(), ElementsAre("m1.getPackageLog(\"ghost\")", "m1.getResult()"));
}

}  // namespace
}  // namespace tooltest
