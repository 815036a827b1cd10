// chkupgradepkg, upgradeall, checkupdateall, checkupdate, the package-list
// hash reset and version.
#include <syslog.h>

#include <filesystem>
#include <fstream>
#include <sstream>

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
    void TearDown() override {
        fs::remove_all(dir_);
        ToolTest::TearDown();
    }
    void write(const std::string& name, const std::string& content) {
        std::ofstream(dir_ / name) << content;
    }
    std::string read(const std::string& name) {
        std::ifstream in(dir_ / name);
        std::stringstream text;
        text << in.rdbuf();
        return text.str();
    }
    std::string setKey(const std::string& name) {
        return "QLIBCFileSetKeyValue(\"" + (dir_ / name).string() +
               "\", \"hash\", \"temphash\", 0)";
    }
    // Runs a check that succeeds and so resets the hashes.
    Outcome resetHashes() {
        fake::platform().listTmpDir = dir_.string();
        return run({"chkupgradepkg"});
    }

    fs::path dir_;
};

TEST_F(UpgradeTest, ChkupgradepkgAsksAfreshInTheGivenLanguageOnly) {
    const struct {
        std::vector<std::string> words;
        std::string language;
    } cases[] = {{{"chkupgradepkg"}, ""},
                 {{"chkupgradepkg", "cht"}, "cht"},
                 {{"chkupgradepkg", "enu", "extra"}, ""}};
    for (const auto& c : cases) {
        for (bool ok : {true, false}) {
            fake::reset();
            // The reset is seen by its first request; the list itself is tested below.
            fake::platform().failing = {"PMSGetListTmpDir"};
            if (!ok) fake::platform().failing.insert("PMSCheckUpgrade");
            const Outcome r = run(c.words);
            EXPECT_EQ(r.out,
                      ok ? "" : "Fail to check upgrable packages in Quorvel package server\n");
            EXPECT_EQ(r.status, ok ? 0 : 1);
            std::vector<std::string> calls = {"PMSCheckUpgrade(true, null, \"" + c.language +
                                              "\", null)"};
            // The hashes are reset only after a successful check.
            if (ok) calls.push_back("PMSGetListTmpDir(out)");
            EXPECT_EQ(commandCalls(), calls);
        }
    }
}

TEST_F(UpgradeTest, UpgradeallIsLimitOnlyUnlessTheFirstWordIsFalse) {
    const struct {
        std::vector<std::string> words;
        std::string args;
    } cases[] = {
        {{}, "true, \"\", \"enu\", null, true, true"},
        {{"false"}, "true, \"\", \"enu\", null, true, false"},
        {{"FALSE"}, "true, \"\", \"enu\", null, true, true"},
        {{""}, "true, \"\", \"enu\", null, true, true"},
        {{"false", "cht"}, "true, \"\", \"cht\", null, true, false"},
        {{"0", "cht", "admin", "x"}, "true, \"admin\", \"cht\", null, true, true"},
    };
    for (const auto& c : cases) {
        for (bool ok : {true, false}) {
            fake::reset();
            fake::platform().failing = {"PMSGetListTmpDir"};
            if (!ok) fake::platform().failing.insert("PMSCheckUpgrade");
            std::vector<std::string> words = c.words;
            words.insert(words.begin(), "upgradeall");
            const Outcome r = run(words);
            EXPECT_EQ(r.out, ok ? "" : "Fail to upgrade all packages in Quorvel package server\n");
            EXPECT_EQ(r.status, ok ? 0 : 1);
            std::vector<std::string> calls = {"PMSCheckUpgrade(" + c.args + ")"};
            if (ok) calls.push_back("PMSGetListTmpDir(out)");
            EXPECT_EQ(commandCalls(), calls) << ::testing::PrintToString(c.words);
        }
    }
}

TEST_F(UpgradeTest, CheckupdateallPrintsTheOfferedPackagesAsOneJsonLine) {
    PackageInfo foo = fake::package("foo", "1.0"), bar = fake::package("bar", "2.0-beta");
    foo.displayname = "Foo";
    bar.displayname = "Bär \"B\"";
    bar.beta = true;
    const struct {
        std::vector<std::string> words;
        std::vector<PackageInfo> offered;
        bool ok;
        std::string call;
        std::string out;
    } cases[] = {
        {{}, {}, true, "false, null, \"enu\", list", "[]\n"},
        {{"abcdefghijkl"}, {}, true, "false, null, \"abcdefghi\", list", "[]\n"},
        {{"", "admin", "x"}, {}, true, "false, \"admin\", \"\", list", "[]\n"},
        {{"cht"},
         {foo, bar},
         true,
         "false, null, \"cht\", list",
         "[{\"beta\":false,\"id\":\"foo\",\"name\":\"Foo\",\"version\":\"1.0\"},"
         "{\"beta\":true,\"id\":\"bar\",\"name\":\"Bär \\\"B\\\"\",\"version\":\"2.0-beta\"}]\n"},
        // A failed check still prints whatever the list holds.
        {{}, {}, false, "false, null, \"enu\", list", "[]\n"},
        {{},
         {foo},
         false,
         "false, null, \"enu\", list",
         "[{\"beta\":false,\"id\":\"foo\",\"name\":\"Foo\",\"version\":\"1.0\"}]\n"},
    };
    for (const auto& c : cases) {
        fake::reset();
        fake::platform().upgrades = c.offered;
        if (!c.ok) fake::platform().failing = {"PMSCheckUpgrade"};
        std::vector<std::string> words = c.words;
        words.insert(words.begin(), "checkupdateall");
        const Outcome r = run(words);
        EXPECT_EQ(r.out, c.out);
        EXPECT_EQ(r.status, 0);
        EXPECT_THAT(commandCalls(), ElementsAre("PMSCheckUpgrade(" + c.call + ")"));
    }
}

TEST_F(UpgradeTest, CheckupdateAnswersThroughTheExitStatusOnly) {
    const struct {
        std::vector<std::string> words;
        std::string language;
    } cases[] = {{{"checkupdate", "foo"}, "enu"},
                 {{"checkupdate", "foo", "abcdefghijkl", "x"}, "abcdefghi"},
                 {{"checkupdate", "foo", ""}, ""}};
    for (const auto& c : cases) {
        for (bool updatable : {true, false}) {
            fake::reset();
            if (!updatable) fake::platform().failing = {"QUORPackageServer::PMSCheckUpgrade"};
            const Outcome r = run(c.words);
            EXPECT_EQ(r.out, "");
            EXPECT_EQ(r.status, updatable ? 0 : 1);
            EXPECT_THAT(commandCalls(),
                        ElementsAre("QUORPackageServer::PMSCheckUpgrade(false, \"foo\", \"" +
                                    c.language + "\")"));
        }
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
    const Outcome r = resetHashes();
    EXPECT_EQ(r.status, 0);
    EXPECT_THAT(commandCalls(),
                ElementsAre("PMSCheckUpgrade(true, null, \"\", null)", "PMSGetListTmpDir(out)"));
    EXPECT_THAT(fake::platform().syslogLines, IsEmpty());
}

TEST_F(HashDirTest, NoListDirectoryIsLoggedWithThePathAsLeft) {
    for (const char* left : {"/var/lib/quorpkg/list", ""}) {
        fake::reset();
        write("quorserver.hash.enu", "hash=\"abc\"\n");
        fake::platform().failing = {"PMSGetListTmpDir"};
        fake::platform().listTmpDir = left;
        const Outcome r = run({"upgradeall"});
        EXPECT_EQ(r.status, 0);
        EXPECT_EQ(r.out, "");
        EXPECT_THAT(fake::platform().syslogLines,
                    ElementsAre(std::make_pair(
                        LOG_ERR,
                        "pkg_utils.cpp:13 failed to create directory for package list "
                        "hash [" +
                            std::string(left) + "]")));
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
    EXPECT_EQ(r.out.back(), '\n');
    EXPECT_EQ(r.out.find('\n'), r.out.size() - 1);
}

TEST_F(UpgradeTest, VersionPrintsTheBareVersionOrLogsTheFailure) {
    const std::string lookUp = "PackageManager::getInstallPackageInfo(\"foo\", info, null, ~0)";
    for (const char* version : {"1.2-0003", ""}) {
        fake::reset();
        fake::platform().installed["foo"] = fake::package("foo", version);
        const Outcome r = run({"version", "foo", "bar"});
        EXPECT_EQ(r.out, std::string(version) + "\n");
        EXPECT_EQ(r.status, 0);
        EXPECT_THAT(commandCalls(), ElementsAre(lookUp));
    }
    fake::reset();
    const Outcome r = run({"version", "foo"});
    EXPECT_EQ(r.out, "");
    EXPECT_EQ(r.status, 1);
    EXPECT_THAT(commandCalls(), ElementsAre(lookUp));
    EXPECT_THAT(
        fake::platform().syslogLines,
        ElementsAre(std::make_pair(
            LOG_ERR, std::string("pkg_version.cpp:19 failed to get pkg info of app[foo]"))));
}

}  // namespace
}  // namespace tooltest
