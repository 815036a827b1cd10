// Where an operation's outcome goes: the manager that ran it, the platform
// log, and the cap on that log.
#include "base/operation_log.h"

#include <gtest/gtest.h>
#include <sys/wait.h>
#include <unistd.h>

#include "base/capped_file.h"
#include "base/file_util.h"
#include "base/result.h"
#include "pkg_manager.h"
#include "test_support.h"

namespace quor::test {
namespace {

using QUORPackageTool::PackageInfo;
using QUORPackageTool::PackageManager;
constexpr auto npos = std::string::npos;

std::vector<std::string> linesOf(const fs::path& file) {
    return textLines(readFile(file).value_or(""));
}

TEST(OperationResult, EachManagerKeepsItsOwnAndSeesLaterStaticFailures) {
    TempRoot root;
    root.addVolume(1);
    PackageManager first, second;
    ASSERT_TRUE(first.init());
    ASSERT_TRUE(second.init());

    EXPECT_FALSE(first.uninstallPKGs({"ghost"}, true));
    EXPECT_EQ(first.getResult(), kNoSuchPackage);
    EXPECT_EQ(second.getResult(), kOk);

    // A static function has no manager: every manager made before it sees
    // its failure, until one of its own follows.
    PackageInfo info;
    EXPECT_FALSE(PackageManager::queryPackageFileInfo(
        "", info, QUORPackageTool::PKG_INSTALLATION_TYPE_NONE, nullptr));
    EXPECT_EQ(first.getResult(), kBadArgument);
    EXPECT_EQ(second.getResult(), kBadArgument);
    PackageManager later;
    EXPECT_EQ(later.getResult(), kOk);
    EXPECT_FALSE(second.isServiceEnabled("ghost"));
    EXPECT_EQ(second.getResult(), kNoSuchPackage);
    EXPECT_EQ(first.getResult(), kBadArgument);
    // Success keeps the last failure.
    EXPECT_TRUE(first.serviceControlOnOffALL(true, true, nullptr, nullptr));
    EXPECT_EQ(first.getResult(), kBadArgument);

    // Changes log every outcome, reads their refusals, status questions
    // nothing; a log that cannot be written changes no result.
    const std::vector<std::string> lines = linesOf(operationLogFile());
    ASSERT_EQ(lines.size(), 3u);
    EXPECT_NE(lines[0].find("] uninstallPKGs ghost: 255 ghost is not installed"), npos);
    EXPECT_NE(lines[1].find("] queryPackageFileInfo -: 100 no package file named"), npos);
    EXPECT_NE(lines[2].find("] serviceControlOnOffALL start -: 0 done"), npos);
    fs::remove(operationLogFile());
    fs::create_directories(operationLogFile());
    EXPECT_FALSE(first.uninstallPKGs({"ghost"}, true));
    EXPECT_EQ(first.getResult(), kNoSuchPackage);
    EXPECT_TRUE(first.serviceControlOnOffALL(false, false, nullptr, nullptr));
}

TEST(OperationResult, ALineIsOneLineWhateverItQuotes) {
    EXPECT_EQ(operationLine("installZPK", "a\nb.zpk", {kBadManifest, "bad\tkey\x7f"}),
              "installZPK a b.zpk: 111 bad key ");
    EXPECT_EQ(operationLine("init", "", {kOk, "done"}), "init -: 0 done");
}

TEST(CappedFile, MovesAFullFileAsideAndKeepsTheNewestLinesWhole) {
    TempDir dir;
    const fs::path log = dir.path() / "x.log";
    const fs::path old = dir.path() / "x.log.1";
    for (int i = 0; i < 40; ++i) {
        char line[16];
        std::snprintf(line, sizeof line, "line %02d\n", i);
        ASSERT_TRUE(appendCapped(log, line, 100));
        EXPECT_LE(fs::file_size(log), 100u);
    }
    // The newest lines, in order, across the old copy and the file.
    std::vector<std::string> kept = linesOf(old);
    for (const std::string& line : linesOf(log)) kept.push_back(line);
    ASSERT_GE(kept.size(), 13u);
    for (size_t i = 0; i < kept.size(); ++i) {
        char want[16];
        std::snprintf(want, sizeof want, "line %02zu", 40 - kept.size() + i);
        EXPECT_EQ(kept[i], want);
    }

    // Writers in several processes: every line lands whole in one file.
    const fs::path shared = dir.path() / "shared.log";
    std::vector<pid_t> writers;
    for (char who : {'a', 'b', 'c', 'd'}) {
        pid_t pid = ::fork();
        if (pid == 0) {
            for (int i = 0; i < 1000; ++i)
                if (!appendCapped(shared, std::string(20, who) + "\n", 400)) ::_exit(1);
            ::_exit(0);
        }
        writers.push_back(pid);
    }
    for (pid_t pid : writers) {
        int status = 0;
        ::waitpid(pid, &status, 0);
        EXPECT_TRUE(WIFEXITED(status) && WEXITSTATUS(status) == 0);
    }
    for (const fs::path& file : {shared, fs::path(shared.string() + ".1")}) {
        EXPECT_LE(fs::file_size(file), 400u);
        for (const std::string& line : linesOf(file))
            EXPECT_TRUE(line.size() == 20 && line.find_first_not_of(line[0]) == npos) << line;
    }

    // A link planted at the log's place is not followed.
    const fs::path target = dir.path() / "target";
    writeText(target, "keep\n");
    fs::create_symlink(target, dir.path() / "link.log");
    EXPECT_FALSE(appendCapped(dir.path() / "link.log", "x\n", 100));
    EXPECT_EQ(readFile(target), "keep\n");
}

}  // namespace
}  // namespace quor::test
