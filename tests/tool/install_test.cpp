// install, query, install_from_server, uninstall and sort_zpk_by_dep_order.
#include <climits>

#include "tool_harness.h"

namespace tooltest {
namespace {

using ::testing::ElementsAre;
using ::testing::EndsWith;
using ::testing::IsEmpty;

using InstallTest = ToolTest;

TEST_F(InstallTest, InstallHandsTheFirstWordOverAsThePath) {
    const struct {
        std::vector<std::string> words;
        bool ok;
        std::string out;
        std::string path;
    } cases[] = {
        {{"install", "./a.zpk", "b.zpk"}, true, "./a.zpk install successfully\n", "./a.zpk"},
        {{"install", "./a.zpk"},
         false,
         "Failed to install package ./a.zpk, error = [5]\n",
         "./a.zpk"},
        // The advertised option is not parsed: it is taken as the path.
        {{"install", "--daemon-reload", "a.zpk"},
         true,
         "--daemon-reload install successfully\n",
         "--daemon-reload"},
    };
    for (const auto& c : cases) {
        fake::reset();
        if (!c.ok) fake::platform().failing = {"installZPK"};
        fake::platform().result = 5;
        const Outcome r = run(c.words);
        EXPECT_EQ(r.out, c.out);
        EXPECT_EQ(r.status, c.ok ? 0 : 1);
        std::vector<std::string> calls = {"m1.installZPK(null, \"" + c.path + "\", \"\")"};
        if (!c.ok) calls.push_back("m1.getResult()");
        EXPECT_EQ(commandCalls(), calls);
    }
}

TEST_F(InstallTest, QueryPrintsEightLinesFromThePackageFile) {
    PackageInfo info = fake::package("foo", "1.2-0003", "");
    info.displayname = "Foo App";
    info.maintainer = "Quorvel";
    info.manager_url = "http://foo.example/";
    const struct {
        int adminPort;
        int scriptMask;
        std::string tail;
    } cases[] = {
        {0, 5, "Package script mask: 5\nPackage admin_port: none\n"},
        {-1, INT_MIN, "Package script mask: -2147483648\nPackage admin_port: none\n"},
        {1, 0, "Package script mask: 0\nPackage admin_port: 1\n"},
    };
    for (const auto& c : cases) {
        fake::reset();
        info.admin_port = c.adminPort;
        info.script_mask = c.scriptMask;
        fake::platform().packageFiles["x.zpk"] = info;
        const Outcome r = run({"query", "x.zpk", "y.zpk"});
        EXPECT_EQ(r.out,
                  "Package name: foo\nPackage version: 1.2-0003\nPackage description: \n"
                  "Package displayname: Foo App\nPackage maintainer: Quorvel\n"
                  "Package manager URL: http://foo.example/\n" +
                      c.tail);
        EXPECT_EQ(r.status, 0);
        EXPECT_THAT(commandCalls(),
                    ElementsAre("PackageManager::queryPackageFileInfo(\"x.zpk\", info, 0, null)"));
    }

    fake::reset();
    fake::platform().result = 7;
    const Outcome r = run({"query", "bad.zpk"});
    EXPECT_EQ(r.out, "Failed to query package bad.zpk, 7\n");
    EXPECT_EQ(r.status, 1);
    EXPECT_THAT(commandCalls(),
                ElementsAre("PackageManager::queryPackageFileInfo(\"bad.zpk\", info, 0, null)",
                            "m1.getResult()"));
}

// --- install_from_server ----------------------------------------------------

const std::string kStatusCall = "m1.getServiceStatus(\"foo\", running, true)";

std::string serverQuery(bool beta) {
    return std::string("GetPackageInfoFromServer(\"foo\", entry, true, \"enu\", ") +
           (beta ? "true" : "false") + ")";
}

// Not installed, and the server offers foo.
void offerFoo(const Json::Value& entry) {
    fake::reset();
    fake::platform().result = 255;
    fake::platform().serverEntry = entry;
    fake::platform().defaultVolume = "volume2";
    fake::platform().tmpDir = "/volume3/@tmp";
    fake::platform().volumePath = "/volume9";
}

Json::Value entry(std::initializer_list<std::pair<const char*, Json::Value>> members) {
    Json::Value value(Json::objectValue);
    for (const auto& [key, member] : members) value[key] = member;
    return value;
}

TEST_F(InstallTest, InstallFromServerSettlesTheVolumeAndQueuesTheInstall) {
    const Json::Value minimal = entry({{"dname", "Foo"}, {"link", "http://s/foo.zpk"}});
    const Json::Value full = entry({{"dname", "Foo"},
                                    {"link", "http://s/foo.zpk"},
                                    {"type", 2},
                                    {"size", Json::UInt64(5000000000ULL)},
                                    {"md5", "abc"}});
    const Json::Value typeZero = entry({{"dname", "Foo"}, {"link", "L"}, {"type", 0}});
    const struct {
        std::vector<std::string> words;
        Json::Value entry;
        std::set<std::string> failing;
        std::vector<std::string> volumeCalls;  // between the server query and the install
        std::string install;                   // BackgroundInstall's arguments
        bool beta;
    } cases[] = {
        {{"foo"},
         minimal,
         {},
         {"PMSGetPackageDefVol(out)", "VolumePathParseEx(\"volume2\")"},
         "\"\", \"/volume9\", \"foo\", \"Foo\", null, false, \"enu\", 0, \"http://s/foo.zpk\", "
         "null, true, false",
         false},
        // No default volume: the temporary directory for the download decides.
        {{"foo", "", "admin"},
         full,
         {"PMSGetPackageDefVol"},
         {"PMSGetPackageDefVol(out)", "PMSGetTmpDir(5000000000, out)",
          "VolumePathParseEx(\"/volume3/@tmp\")"},
         "\"admin\", \"/volume9\", \"foo\", \"Foo\", null, true, \"enu\", 5000000000, "
         "\"http://s/foo.zpk\", \"abc\", true, false",
         false},
        {{"foo"},
         minimal,
         {"PMSGetPackageDefVol"},
         {"PMSGetPackageDefVol(out)", "PMSGetTmpDir(0, out)",
          "VolumePathParseEx(\"/volume3/@tmp\")"},
         "\"\", \"/volume9\", \"foo\", \"Foo\", null, false, \"enu\", 0, \"http://s/foo.zpk\", "
         "null, true, false",
         false},
        {{"foo", "volume1", "admin", "true", "ignored"},
         typeZero,
         {},
         {"VolumePathParseEx(\"volume1\")"},
         "\"admin\", \"/volume9\", \"foo\", \"Foo\", null, false, \"enu\", 0, \"L\", null, true, "
         "true",
         true},
    };
    for (const auto& c : cases) {
        offerFoo(c.entry);
        fake::platform().failing = c.failing;
        std::vector<std::string> words = c.words;
        words.insert(words.begin(), "install_from_server");
        const Outcome r = run(words);
        EXPECT_EQ(r.out, "");
        EXPECT_EQ(r.status, 0);
        std::vector<std::string> calls = {kStatusCall, "m1.getResult()", serverQuery(c.beta)};
        calls.insert(calls.end(), c.volumeCalls.begin(), c.volumeCalls.end());
        calls.push_back("BackgroundInstall(" + c.install + ")");
        EXPECT_EQ(commandCalls(), calls) << ::testing::PrintToString(c.words);
    }
}

TEST_F(InstallTest, InstallFromServerBetaNeedsTheExactWordTrue) {
    for (const char* word : {"TRUE", "1", "yes", ""}) {
        offerFoo(entry({{"dname", "Foo"}, {"link", "L"}}));
        run({"install_from_server", "foo", "volume1", "", word});
        const std::vector<std::string> calls = commandCalls();
        ASSERT_EQ(calls.size(), 5u);
        EXPECT_EQ(calls[2], serverQuery(false)) << word;
        EXPECT_THAT(calls[4], EndsWith(", true, false)")) << word;
    }
}

TEST_F(InstallTest, InstallFromServerStopsAtTheFirstFailure) {
    const Json::Value good = entry({{"dname", "Foo"}, {"link", "L"}});
    const struct {
        int result;
        std::set<std::string> failing;
        int volumeParse;
        Json::Value entry;
        std::string out;
        std::string lastCall;
    } cases[] = {
        {0, {}, 0, good, "Package 'foo' already installed\n", "m1.getResult()"},
        {150, {}, 0, good, "Package 'foo' already installed\n", "m1.getResult()"},
        {255,
         {"GetPackageInfoFromServer"},
         0,
         good,
         "Failed to query package list from server\n",
         serverQuery(false)},
        {255,
         {"PMSGetPackageDefVol", "PMSGetTmpDir"},
         0,
         good,
         "Failed to get install volume\n",
         "PMSGetTmpDir(0, out)"},
        {255, {}, -1, good, "Failed to parse volume\n", "VolumePathParseEx(\"volume2\")"},
        {255,
         {"BackgroundInstall"},
         0,
         good,
         "Failed to install 'foo'\n",
         "BackgroundInstall(\"\", \"/volume9\", \"foo\", \"Foo\", null, false, \"enu\", 0, \"L\", "
         "null, true, false)"},
        // The server must send "dname" and "link": without them the JSON
        // library's error ends the run before anything is queued.
        {255,
         {},
         0,
         entry({{"link", "L"}}),
         "Failed to execute quorpkg, reason=[in Json::Value::asCString(): requires "
         "stringValue]\n",
         "VolumePathParseEx(\"volume2\")"},
        {255,
         {},
         0,
         entry({{"dname", "Foo"}, {"md5", "abc"}}),
         "Failed to execute quorpkg, reason=[in Json::Value::asCString(): requires "
         "stringValue]\n",
         "VolumePathParseEx(\"volume2\")"},
    };
    for (const auto& c : cases) {
        offerFoo(c.entry);
        fake::platform().result = c.result;
        fake::platform().failing = c.failing;
        fake::platform().volumeParse = c.volumeParse;
        const Outcome r = run({"install_from_server", "foo"});
        EXPECT_EQ(r.out, c.out);
        EXPECT_EQ(r.status, 1);
        EXPECT_EQ(commandCalls().back(), c.lastCall) << c.out;
    }
}

TEST_F(InstallTest, UninstallPassesEveryWordInOneRequest) {
    for (bool ok : {true, false}) {
        fake::reset();
        if (!ok) fake::platform().failing = {"uninstallPKGs"};
        const Outcome r = run({"uninstall", "a", "b", "a", ""});
        EXPECT_EQ(r.out, "");
        EXPECT_EQ(r.status, ok ? 0 : 1);
        EXPECT_THAT(commandCalls(),
                    ElementsAre("m1.uninstallPKGs([\"a\", \"b\", \"a\", \"\"], true)"));
    }
}

// --- sort_zpk_by_dep_order ----------------------------------------------------

std::string fileQuery(const std::string& path) {
    return "PackageManager::queryPackageFileInfo(\"" + path + "\", info, 0, null)";
}

TEST_F(InstallTest, SortPrintsTheLibraryOrderBackToFront) {
    fake::platform().packageFiles = {{"a.zpk", fake::package("A")},
                                     {"./b.zpk", fake::package("B")},
                                     {"dup.zpk", fake::package("A")}};
    fake::platform().sortedNames = {"A", "B", "X", "A"};
    const Outcome r = run({"sort_zpk_by_dep_order", "a.zpk", "./b.zpk", "dup.zpk"});
    // Reversed; the first file that declared A keeps it; X came from no file.
    EXPECT_EQ(r.out, "a.zpk\n\n./b.zpk\na.zpk\n");
    EXPECT_EQ(r.status, 0);
    EXPECT_THAT(commandCalls(),
                ElementsAre(fileQuery("a.zpk"), fileQuery("./b.zpk"), fileQuery("dup.zpk"),
                            "m1.topologicalSortPkgs([\"A\", \"B\", \"A\"], [])"));
}

TEST_F(InstallTest, SortStopsAtTheFirstUnreadableFileOrAFailedSort) {
    fake::platform().packageFiles = {{"a.zpk", fake::package("A")}, {"b.zpk", fake::package("B")}};
    fake::platform().result = 2;
    Outcome r = run({"sort_zpk_by_dep_order", "a.zpk", "b.zpk", "c.zpk", "d.zpk"});
    EXPECT_EQ(r.out, "Failed to query package c.zpk, 2\n");
    EXPECT_EQ(r.status, 1);
    EXPECT_THAT(commandCalls(), ElementsAre(fileQuery("a.zpk"), fileQuery("b.zpk"),
                                            fileQuery("c.zpk"), "m1.getResult()"));

    fake::platform().calls.clear();
    fake::platform().managers = 0;
    fake::platform().failing = {"topologicalSortPkgs"};
    r = run({"sort_zpk_by_dep_order", "a.zpk", "b.zpk"});
    EXPECT_EQ(r.out, "Failed to sort built-in packages\n");
    EXPECT_EQ(r.status, 1);
}

}  // namespace
}  // namespace tooltest
