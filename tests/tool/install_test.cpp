// install, query, install_from_server, uninstall and sort_zpk_by_dep_order.
#include <climits>
#include <tuple>

#include "tool_harness.h"

namespace tooltest {
namespace {

using InstallTest = ToolTest;

std::string fileQuery(const std::string& path) {
    return "PackageManager::queryPackageFileInfo(\"" + path + "\", info, 0, null)";
}

TEST_F(InstallTest, InstallHandsTheFirstWordOverAsThePath) {
    expectCase({"install", "./a.zpk", "b.zpk"}, {}, "./a.zpk install successfully\n", 0,
               {"m1.installZPK(null, \"./a.zpk\", \"\")"});
    expectCase({"install", "./a.zpk"}, {.failing = {"installZPK"}, .result = 5},
               "Failed to install package ./a.zpk, error = [5]\n", 1,
               {"m1.installZPK(null, \"./a.zpk\", \"\")", "m1.getResult()"});
    // The advertised option is not parsed: it is taken as the path.
    expectCase({"install", "--daemon-reload", "a.zpk"}, {},
               "--daemon-reload install successfully\n", 0,
               {"m1.installZPK(null, \"--daemon-reload\", \"\")"});
}

TEST_F(InstallTest, QueryPrintsEightLinesFromThePackageFile) {
    PackageInfo info = fake::package("foo", "1.2-0003", "");
    info.displayname = "Foo App";
    info.maintainer = "Quorvel";
    info.manager_url = "http://foo.example/";
    const std::string head =
        "Package name: foo\nPackage version: 1.2-0003\nPackage description: \n"
        "Package displayname: Foo App\nPackage maintainer: Quorvel\n"
        "Package manager URL: http://foo.example/\n";
    // admin_port, script_mask, the last two lines.
    const std::tuple<int, int, std::string> cases[] = {
        {0, 5, "Package script mask: 5\nPackage admin_port: none\n"},
        {-1, INT_MIN, "Package script mask: -2147483648\nPackage admin_port: none\n"},
        {1, 0, "Package script mask: 0\nPackage admin_port: 1\n"},
    };
    for (const auto& [adminPort, scriptMask, tail] : cases) {
        info.admin_port = adminPort;
        info.script_mask = scriptMask;
        expectCase({"query", "x.zpk", "y.zpk"}, {.packageFiles = {{"x.zpk", info}}}, head + tail, 0,
                   {fileQuery("x.zpk")});
    }
    expectCase({"query", "bad.zpk"}, {.result = 7}, "Failed to query package bad.zpk, 7\n", 1,
               {fileQuery("bad.zpk"), "m1.getResult()"});
}

// --- install_from_server ----------------------------------------------------

// Not installed, and the server offers foo.
fake::Platform offer(const Json::Value& entry, const std::set<std::string>& failing = {}) {
    return {.failing = failing,
            .result = 255,
            .serverEntry = entry,
            .defaultVolume = "volume2",
            .tmpDir = "/volume3/@tmp",
            .volumePath = "/volume9"};
}

Json::Value entry(std::initializer_list<std::pair<const char*, Json::Value>> members) {
    Json::Value value(Json::objectValue);
    for (const auto& [key, member] : members) value[key] = member;
    return value;
}

// The calls of a run that gets as far as the install: the status check, the
// server query, the volume calls and BackgroundInstall with these arguments.
std::vector<std::string> queued(bool beta, std::vector<std::string> volumeCalls,
                                const std::string& install) {
    volumeCalls.insert(volumeCalls.begin(),
                       {"m1.getServiceStatus(\"foo\", running, true)", "m1.getResult()",
                        std::string("GetPackageInfoFromServer(\"foo\", entry, true, \"enu\", ") +
                            (beta ? "true" : "false") + ")"});
    volumeCalls.push_back("BackgroundInstall(" + install + ")");
    return volumeCalls;
}

const std::vector<std::string> kDefaultVolume = {"PMSGetPackageDefVol(out)",
                                                 "VolumePathParseEx(\"volume2\")"};
const Json::Value kMinimal = entry({{"dname", "Foo"}, {"link", "L"}});
const std::string kMinimalInstall =
    "\"\", \"/volume9\", \"foo\", \"Foo\", null, false, \"enu\", 0, \"L\", null, true, false";

TEST_F(InstallTest, InstallFromServerSettlesTheVolumeAndQueuesTheInstall) {
    const std::string tmp = "VolumePathParseEx(\"/volume3/@tmp\")";
    expectCase({"install_from_server", "foo"}, offer(kMinimal), "", 0,
               queued(false, kDefaultVolume, kMinimalInstall));
    // No default volume: the temporary directory for the download decides.
    expectCase({"install_from_server", "foo", "", "admin"},
               offer(entry({{"dname", "Foo"},
                            {"link", "L"},
                            {"type", 2},
                            {"size", Json::UInt64(5000000000ULL)},
                            {"md5", "abc"}}),
                     {"PMSGetPackageDefVol"}),
               "", 0,
               queued(false, {kDefaultVolume[0], "PMSGetTmpDir(5000000000, out)", tmp},
                      "\"admin\", \"/volume9\", \"foo\", \"Foo\", null, true, \"enu\", "
                      "5000000000, \"L\", \"abc\", true, false"));
    expectCase({"install_from_server", "foo"}, offer(kMinimal, {"PMSGetPackageDefVol"}), "", 0,
               queued(false, {kDefaultVolume[0], "PMSGetTmpDir(0, out)", tmp}, kMinimalInstall));
    expectCase({"install_from_server", "foo", "volume1", "admin", "true", "ignored"},
               offer(entry({{"dname", "Foo"}, {"link", "L"}, {"type", 0}})), "", 0,
               queued(true, {"VolumePathParseEx(\"volume1\")"},
                      "\"admin\", \"/volume9\", \"foo\", \"Foo\", null, false, \"enu\", 0, \"L\", "
                      "null, true, true"));
}

TEST_F(InstallTest, InstallFromServerBetaNeedsTheExactWordTrue) {
    for (const char* word : {"TRUE", "1", "yes", ""}) {
        expectCase({"install_from_server", "foo", "volume1", "", word}, offer(kMinimal), "", 0,
                   queued(false, {"VolumePathParseEx(\"volume1\")"}, kMinimalInstall));
    }
}

TEST_F(InstallTest, InstallFromServerStopsAtTheFirstFailure) {
    const std::vector<std::string> all = queued(false, kDefaultVolume, kMinimalInstall);
    auto upTo = [&](std::size_t n) {
        return std::vector<std::string>(all.begin(), all.begin() + n);
    };
    const std::vector<std::string> words = {"install_from_server", "foo"};
    // Any code but "no such package" counts as installed.
    expectCase(words, {.result = 0}, "Package 'foo' already installed\n", 1, upTo(2));
    expectCase(words, {.result = 150}, "Package 'foo' already installed\n", 1, upTo(2));
    expectCase(words, offer(kMinimal, {"GetPackageInfoFromServer"}),
               "Failed to query package list from server\n", 1, upTo(3));
    std::vector<std::string> noTmp = upTo(4);
    noTmp.push_back("PMSGetTmpDir(0, out)");
    expectCase(words, offer(kMinimal, {"PMSGetPackageDefVol", "PMSGetTmpDir"}),
               "Failed to get install volume\n", 1, noTmp);
    fake::Platform unparsable = offer(kMinimal);
    unparsable.volumeParse = -1;
    expectCase(words, unparsable, "Failed to parse volume\n", 1, upTo(5));
    expectCase(words, offer(kMinimal, {"BackgroundInstall"}), "Failed to install 'foo'\n", 1, all);
    // The server must send "dname" and "link": without them the JSON
    // library's error ends the run before anything is queued.
    const std::string jsonError =
        "Failed to execute quorpkg, reason=[in Json::Value::asCString(): requires stringValue]\n";
    expectCase(words, offer(entry({{"link", "L"}})), jsonError, 1, upTo(5));
    expectCase(words, offer(entry({{"dname", "Foo"}, {"md5", "abc"}})), jsonError, 1, upTo(5));
}

TEST_F(InstallTest, UninstallPassesEveryWordInOneRequest) {
    const std::vector<std::string> words = {"uninstall", "a", "b", "a", ""};
    const std::string call = "m1.uninstallPKGs([\"a\", \"b\", \"a\", \"\"], true)";
    expectCase(words, {}, "", 0, {call});
    expectCase(words, {.failing = {"uninstallPKGs"}}, "", 1, {call});
}

// --- sort_zpk_by_dep_order ----------------------------------------------------

TEST_F(InstallTest, SortPrintsTheLibraryOrderBackToFront) {
    // Reversed; the first file that declared A keeps it; X came from no file.
    expectCase({"sort_zpk_by_dep_order", "a.zpk", "./b.zpk", "dup.zpk"},
               {.packageFiles = {{"a.zpk", fake::package("A")},
                                 {"./b.zpk", fake::package("B")},
                                 {"dup.zpk", fake::package("A")}},
                .sortedNames = {"A", "B", "X", "A"}},
               "a.zpk\n\n./b.zpk\na.zpk\n", 0,
               {fileQuery("a.zpk"), fileQuery("./b.zpk"), fileQuery("dup.zpk"),
                "m1.topologicalSortPkgs([\"A\", \"B\", \"A\"], [])"});
}

TEST_F(InstallTest, SortStopsAtTheFirstUnreadableFileOrAFailedSort) {
    fake::Platform script{
        .result = 2,
        .packageFiles = {{"a.zpk", fake::package("A")}, {"b.zpk", fake::package("B")}}};
    expectCase({"sort_zpk_by_dep_order", "a.zpk", "b.zpk", "c.zpk", "d.zpk"}, script,
               "Failed to query package c.zpk, 2\n", 1,
               {fileQuery("a.zpk"), fileQuery("b.zpk"), fileQuery("c.zpk"), "m1.getResult()"});
    script.failing = {"topologicalSortPkgs"};
    expectCase(
        {"sort_zpk_by_dep_order", "a.zpk", "b.zpk"}, script, "Failed to sort built-in packages\n",
        1, {fileQuery("a.zpk"), fileQuery("b.zpk"), "m1.topologicalSortPkgs([\"A\", \"B\"], [])"});
}

}  // namespace
}  // namespace tooltest
