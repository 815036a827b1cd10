// The core and hardware-control libraries and the shared groundwork, on real
// files in a temporary system root.
#include <gtest/gtest.h>
#include <unistd.h>

#include <cstdlib>
#include <cstring>

#include "base/file_util.h"
#include "base/key_value.h"
#include "base/system_root.h"
#include "hw_control.h"
#include "quor_core.h"
#include "test_support.h"

namespace quor::test {
namespace {

TEST(SystemRoot, RootIsAbsoluteWithoutTrailingSlashAndMapsSystemPaths) {
    TempRoot root;
    ::setenv("QUOR_ROOT", (root.path().string() + "//").c_str(), 1);
    EXPECT_EQ(rootDir(), root.path());
    EXPECT_EQ(hostPath("/var/packages"), root.path() / "var/packages");
    EXPECT_TRUE(isUnderRoot(root.path() / "etc"));
    EXPECT_FALSE(isUnderRoot(root.path().string() + "-other/etc"));

    const fs::path cwd = fs::current_path();
    fs::current_path(root.path().parent_path());
    ::setenv("QUOR_ROOT", root.path().filename().c_str(), 1);
    EXPECT_EQ(rootDir(), root.path());
    fs::current_path(cwd);
}

TEST(KeyValueText, ParsesQuotesEscapesAndCommentsAndRefusesBrokenLines) {
    auto pairs = parseKeyValues("# comment\n\na=\"x \\\"y\\\" \\\\ z\"\n b = plain \nc=\"\"\n");
    ASSERT_TRUE(pairs);
    ASSERT_EQ(pairs->size(), 3u);
    EXPECT_EQ((*pairs)[0], (std::pair<std::string, std::string>("a", "x \"y\" \\ z")));
    EXPECT_EQ((*pairs)[1].second, "plain");
    EXPECT_EQ((*pairs)[2].second, "");
    EXPECT_EQ(parseKeyValues(formatKeyValues(*pairs)), pairs);

    std::string error;
    EXPECT_FALSE(parseKeyValues("a=\"open\n", &error));
    EXPECT_NE(error.find("line 1"), std::string::npos);
    EXPECT_FALSE(parseKeyValues("ok=\"1\"\nno equals sign\n", &error));
    EXPECT_NE(error.find("line 2"), std::string::npos);
    EXPECT_FALSE(parseKeyValues("a=\"1\" trailing\n"));
    EXPECT_FALSE(parseKeyValues("a=\"1\" # comment\n"));

    // Line by line, with comments after values: each line read on its own.
    const std::vector<KeyValueLine> lines = readKeyValueLines(
        "\xEF\xBB\xBF a=\"1\"\nb=\"2\" # two\nc=3 # three\nd=x#y\ne=\"say \"hi\"\"\nf=\"x\" y\n",
        {.trailingComments = true});
    ASSERT_EQ(lines.size(), 6u);
    EXPECT_NE(lines[0].problem.find("byte-order mark"), std::string::npos);
    EXPECT_TRUE(lines[0].read);
    EXPECT_EQ(lines[0].value, "1");
    for (size_t i : {1, 2, 3}) EXPECT_TRUE(lines[i].read && lines[i].problem.empty()) << i;
    EXPECT_EQ(lines[1].value, "2");
    EXPECT_EQ(lines[2].value, "3");
    EXPECT_EQ(lines[3].value, "x#y");
    EXPECT_EQ(lines[4].problem,
              "a quote inside the value must be written \\\": write e=\"say \\\"hi\\\"\"");
    EXPECT_FALSE(lines[5].read);
    EXPECT_EQ(lines[5].key, "f");
    EXPECT_EQ(lines[5].number, 6u);
}

TEST(FileSetKeyValue, RewritesOneKeyKeepingTheOthersAndRefusesNonFiles) {
    TempRoot root;
    const fs::path file = root.host("/var/cache/quorpkg/list/quorserver.hash.enu");
    writeText(file, "# kept\nhash=\"abc\"\nurl=\"http://x/\"\n");

    EXPECT_GT(QLIBCFileSetKeyValue(file.c_str(), "hash", "temphash", 0), 0);
    EXPECT_EQ(readFile(file), "hash=\"temphash\"\nurl=\"http://x/\"\n");
    // A system path resolves under the root; a new key is appended.
    EXPECT_GT(
        QLIBCFileSetKeyValue("/var/cache/quorpkg/list/quorserver.hash.enu", "lang", "e\"n", 0), 0);
    EXPECT_EQ(readFile(file), "hash=\"temphash\"\nurl=\"http://x/\"\nlang=\"e\\\"n\"\n");
    // No temporary file is left beside it.
    EXPECT_EQ(std::distance(fs::directory_iterator(file.parent_path()), {}), 1);

    fs::create_directories(root.host("/etc"));
    EXPECT_GT(QLIBCFileSetKeyValue("/etc/new.conf", "k", "v", 0), 0);
    EXPECT_EQ(readFile(root.host("/etc/new.conf")), "k=\"v\"\n");
    EXPECT_LE(QLIBCFileSetKeyValue(root.host("/var").c_str(), "hash", "x", 0), 0);
    writeText(root.host("/etc/broken"), "not a key value file\n");
    EXPECT_LE(QLIBCFileSetKeyValue(root.host("/etc/broken").c_str(), "hash", "x", 0), 0);
    EXPECT_EQ(readFile(root.host("/etc/broken")), "not a key value file\n");
}

TEST(FileExist, LooksUpSystemPathsUnderTheRoot) {
    TempRoot root;
    writeText(root.host("/var/packages/foo/enabled"), "");
    EXPECT_NE(QLIBCFileExist("/var/packages/foo/enabled"), 0);
    EXPECT_NE(QLIBCFileExist(root.host("/var/packages/foo/enabled").c_str()), 0);
    EXPECT_EQ(QLIBCFileExist("/var/packages/bar/enabled"), 0);
    EXPECT_EQ(QLIBCFileExist(""), 0);
}

TEST(VolumePathParse, AcceptsVolumeNamesAndPathsOnVolumesOnly) {
    TempRoot root;
    const fs::path volume1 = root.addVolume(1);
    const fs::path volume12 = root.addVolume(12);
    for (const std::string& text :
         std::vector<std::string>{"volume1", "/volume1", "/volume1/@tmp/quorpkg", volume1.string(),
                                  (volume1 / "@appstore").string()}) {
        VOLUME_PATH_INFO info;
        std::memset(&info, 0x55, sizeof info);
        ASSERT_GE(VolumePathParseEx(text.c_str(), &info), 0) << text;
        EXPECT_STREQ(info.path, volume1.c_str()) << text;
        EXPECT_EQ(info.volume_number, 1);
        EXPECT_GT(info.total_bytes, 0u);
    }
    VOLUME_PATH_INFO info{};
    ASSERT_GE(VolumePathParseEx("volume12", &info), 0);
    EXPECT_STREQ(info.path, volume12.c_str());
    for (const char* bad : {"", "volume2", "volume", "/tmp", "volumeX"})
        EXPECT_LT(VolumePathParseEx(bad, &info), 0) << bad;
}

TEST(HardwareControl, AppendsOneRequestLinePerCall) {
    TempRoot root;
    char buffer[128] = {};
    buffer[0] = 2;
    EXPECT_EQ(QUORHWExternalControl(22784, sizeof buffer, buffer), 0);
    buffer[0] = 1;
    EXPECT_EQ(QUORHWExternalControl(22784, sizeof buffer, buffer), 0);
    std::strcpy(buffer, "ab");
    EXPECT_EQ(QUORHWExternalControl(7, 2, buffer), 0);
    EXPECT_EQ(readFile(root.host("/run/hwcontrol/requests")), "22784 02\n22784 01\n7 6162\n");
}

}  // namespace
}  // namespace quor::test
