// chkupgradepkg, upgradeall, checkupdateall, checkupdate, the package-list
// hash reset and version.
#include <syslog.h>

#include <filesystem>
#include <fstream>
#include <sstream>
#include <tuple>

#include "tool_harness.h"

namespace tooltest {
namespace {

namespace fs = std::filesystem;
using ::testing::ElementsAre;
using ::testing::IsEmpty;
using ::testing::UnorderedElementsAreArray;

using UpgradeTest = ToolTest;

// A real package-list directory, removed afterwards.
class HashDirTest : public ToolTest {
protected:
    void SetUp() override {
        ToolTest::SetUp();
        char pattern[] = "/tmp/quorpkg-hash-XXXXXX";
        ASSERT_NE(mkdtemp(pattern), nullptr);
        dir_ = pattern;
    }
    void TearDown() override { fs::remove_all(dir_); }
    void write(const std::string& name, const std::string& content) {
        std::ofstream(dir_ / name) << content;
    }
    std::string read(const std::string& name) {
        std::stringstream text;
        text << std::ifstream(dir_ / name).rdbuf();
        return text.str();
    }
    // Runs a check that succeeds and so resets the hashes.
    Outcome resetHashes() {
        fake::platform().listTmpDir = dir_.string();
        return run({"chkupgradepkg"});
    }

    fs::path dir_;
};

// Without a successful check the hashes stay: PMSGetListTmpDir is not asked.
// (It fails here so that the reset ends at once; it is tested below.)
TEST_F(UpgradeTest, ChkupgradepkgAsksAfreshInTheGivenLanguageOnly) {
    const std::pair<std::vector<std::string>, std::string> cases[] = {
        {{"chkupgradepkg"}, ""},
        {{"chkupgradepkg", "cht"}, "cht"},
        {{"chkupgradepkg", "enu", "extra"}, ""}};
    for (const auto& [words, language] : cases) {
        const std::string check = "PMSCheckUpgrade(true, null, \"" + language + "\", null)";
        expectCase(words, {.failing = {"PMSGetListTmpDir"}}, "", 0,
                   {check, "PMSGetListTmpDir(out)"});
        expectCase(words, {.failing = {"PMSGetListTmpDir", "PMSCheckUpgrade"}},
                   "Fail to check upgrable packages in Quorvel package server\n", 1, {check});
    }
}

TEST_F(UpgradeTest, UpgradeallIsLimitOnlyUnlessTheFirstWordIsFalse) {
    // Words, then the user, language and limit-only flag asked for.
    const std::tuple<std::vector<std::string>, std::string, std::string, std::string> cases[] = {
        {{"upgradeall"}, "", "enu", "true"},
        {{"upgradeall", "false"}, "", "enu", "false"},
        {{"upgradeall", "FALSE"}, "", "enu", "true"},
        {{"upgradeall", ""}, "", "enu", "true"},
        {{"upgradeall", "false", "cht"}, "", "cht", "false"},
        {{"upgradeall", "0", "cht", "admin", "x"}, "admin", "cht", "true"},
    };
    for (const auto& [words, user, language, limitOnly] : cases) {
        const std::string check = "PMSCheckUpgrade(true, \"" + user + "\", \"" + language +
                                  "\", null, true, " + limitOnly + ")";
        expectCase(words, {.failing = {"PMSGetListTmpDir"}}, "", 0,
                   {check, "PMSGetListTmpDir(out)"});
        expectCase(words, {.failing = {"PMSGetListTmpDir", "PMSCheckUpgrade"}},
                   "Fail to upgrade all packages in Quorvel package server\n", 1, {check});
    }
}

TEST_F(UpgradeTest, CheckupdateallPrintsTheOfferedPackagesAsOneJsonLine) {
    PackageInfo foo = fake::package("foo", "1.0"), bar = fake::package("bar", "2.0-beta");
    foo.displayname = "Foo";
    bar.displayname = "Bär \"B\"";
    bar.beta = true;
    const std::string fooJson = R"({"beta":false,"id":"foo","name":"Foo","version":"1.0"})";
    auto check = [](const std::string& userAndLanguage) {
        return std::vector<std::string>{"PMSCheckUpgrade(false, " + userAndLanguage + ", list)"};
    };
    expectCase({"checkupdateall"}, {}, "[]\n", 0, check("null, \"enu\""));
    expectCase({"checkupdateall", "abcdefghijkl"}, {}, "[]\n", 0, check("null, \"abcdefghi\""));
    expectCase({"checkupdateall", "", "admin", "x"}, {}, "[]\n", 0, check("\"admin\", \"\""));
    expectCase({"checkupdateall", "cht"}, {.upgrades = {foo, bar}},
               "[" + fooJson +
                   R"(,{"beta":true,"id":"bar","name":"Bär \"B\"","version":"2.0-beta"}])"
                   "\n",
               0, check("null, \"cht\""));
    // A failed check still prints whatever the list holds.
    expectCase({"checkupdateall"}, {.failing = {"PMSCheckUpgrade"}}, "[]\n", 0,
               check("null, \"enu\""));
    expectCase({"checkupdateall"}, {.failing = {"PMSCheckUpgrade"}, .upgrades = {foo}},
               "[" + fooJson + "]\n", 0, check("null, \"enu\""));
}

TEST_F(UpgradeTest, CheckupdateAnswersThroughTheExitStatusOnly) {
    const std::pair<std::vector<std::string>, std::string> cases[] = {
        {{"checkupdate", "foo"}, "enu"},
        {{"checkupdate", "foo", "abcdefghijkl", "x"}, "abcdefghi"},
        {{"checkupdate", "foo", ""}, ""}};
    for (const auto& [words, language] : cases) {
        const std::vector<std::string> calls = {
            "QUORPackageServer::PMSCheckUpgrade(false, \"foo\", \"" + language + "\")"};
        expectCase(words, {}, "", 0, calls);
        expectCase(words, {.failing = {"QUORPackageServer::PMSCheckUpgrade"}}, "", 1, calls);
    }
}

TEST_F(HashDirTest, ResetRewritesOnlyRegularFilesWithHashNames) {
    const std::string old = "hash=\"abc\"\nserver=\"s1\"\n";
    for (const char* name : {"quorserver.hash.enu", "otherserver.hash.", "quorserver.hash",
                             "xquorserver.hash.a", "quorserver.hashes.a", "target"}) {
        write(name, old);
    }
    fs::create_directory(dir_ / "quorserver.hash.x");
    fs::create_symlink(dir_ / "target", dir_ / "otherserver.hash.link");
    fs::create_symlink(dir_ / "missing", dir_ / "quorserver.hash.broken");
    fs::create_directory_symlink(dir_ / "quorserver.hash.x", dir_ / "quorserver.hash.dirlink");

    const Outcome r = resetHashes();
    EXPECT_EQ(r.out, "");
    EXPECT_EQ(r.status, 0);
    std::vector<std::string> calls = commandCalls();
    ASSERT_GE(calls.size(), 2u);
    auto setKey = [&](const std::string& name) {
        return "QLIBCFileSetKeyValue(\"" + (dir_ / name).string() +
               "\", \"hash\", \"temphash\", 0)";
    };
    EXPECT_THAT(
        std::vector<std::string>(calls.begin() + 2, calls.end()),
        UnorderedElementsAreArray({setKey("quorserver.hash.enu"), setKey("otherserver.hash."),
                                   setKey("otherserver.hash.link")}));
    const std::string reset = "hash=\"temphash\"\nserver=\"s1\"\n";
    EXPECT_EQ(read("quorserver.hash.enu"), reset);
    EXPECT_EQ(read("otherserver.hash."), reset);
    EXPECT_EQ(read("target"), reset);  // through the link
    for (const char* name : {"quorserver.hash", "xquorserver.hash.a", "quorserver.hashes.a"}) {
        EXPECT_EQ(read(name), old) << name;
    }
    EXPECT_THAT(fake::platform().syslogLines, IsEmpty());
}

TEST_F(HashDirTest, OneUnwritableFileIsLoggedAndTheOthersAreStillReset) {
    for (const char* name :
         {"quorserver.hash.enu", "quorserver.hash.cht", "otherserver.hash.enu"}) {
        write(name, "hash=\"abc\"\n");
    }
    fake::platform().unwritableFiles = {"quorserver.hash.cht"};
    const Outcome r = resetHashes();
    EXPECT_EQ(r.status, 0);
    EXPECT_EQ(r.out, "");
    EXPECT_THAT(
        fake::platform().syslogLines,
        ElementsAre(std::make_pair(LOG_ERR, "pkg_utils.cpp:25 failed to reset pkglist hash [" +
                                                (dir_ / "quorserver.hash.cht").string() + "]")));
    EXPECT_EQ(read("quorserver.hash.enu"), "hash=\"temphash\"\n");
    EXPECT_EQ(read("otherserver.hash.enu"), "hash=\"temphash\"\n");
    EXPECT_EQ(read("quorserver.hash.cht"), "hash=\"abc\"\n");
}

TEST_F(HashDirTest, AnEmptyDirectoryChangesNothing) {
    expectCase({"chkupgradepkg"}, {.listTmpDir = dir_.string()}, "", 0,
               {"PMSCheckUpgrade(true, null, \"\", null)", "PMSGetListTmpDir(out)"});
    EXPECT_THAT(fake::platform().syslogLines, IsEmpty());
}

TEST_F(HashDirTest, NoListDirectoryIsLoggedWithThePathAsLeft) {
    write("quorserver.hash.enu", "hash=\"abc\"\n");
    for (const std::string left : {"/var/lib/quorpkg/list", ""}) {
        expectCase(
            {"upgradeall"}, {.failing = {"PMSGetListTmpDir"}, .listTmpDir = left}, "", 0,
            {"PMSCheckUpgrade(true, \"\", \"enu\", null, true, true)", "PMSGetListTmpDir(out)"});
        EXPECT_THAT(fake::platform().syslogLines,
                    ElementsAre(std::make_pair(LOG_ERR,
                                               "pkg_utils.cpp:13 failed to create directory for "
                                               "package list hash [" +
                                                   left + "]")));
        EXPECT_EQ(read("quorserver.hash.enu"), "hash=\"abc\"\n");
    }
}

// A directory that cannot be read ends the run with the entry's report.
TEST_F(HashDirTest, AMissingDirectoryEndsTheRunWithTheReport) {
    fake::platform().listTmpDir = (dir_ / "gone").string();
    const Outcome r = run({"chkupgradepkg"});
    EXPECT_EQ(r.status, 1);
    EXPECT_EQ(r.out.rfind("Failed to execute quorpkg, reason=[", 0), 0u) << r.out;
    EXPECT_NE(r.out.find((dir_ / "gone").string()), std::string::npos) << r.out;
    EXPECT_EQ(r.out.find('\n'), r.out.size() - 1);
}

TEST_F(UpgradeTest, VersionPrintsTheBareVersionOrLogsTheFailure) {
    const std::string lookUp = "PackageManager::getInstallPackageInfo(\"foo\", info, null, ~0)";
    for (const std::string version : {"1.2-0003", ""}) {
        expectCase({"version", "foo", "bar"},
                   {.installed = {{"foo", fake::package("foo", version)}}}, version + "\n", 0,
                   {lookUp});
    }
    expectCase({"version", "foo"}, {}, "", 1, {lookUp});
    EXPECT_THAT(
        fake::platform().syslogLines,
        ElementsAre(std::make_pair(
            LOG_ERR, std::string("pkg_version.cpp:19 failed to get pkg info of app[foo]"))));
}

}  // namespace
}  // namespace tooltest
