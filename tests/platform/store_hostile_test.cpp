// The store against hostile surroundings: payloads that would fill the
// volume, links planted where the store keeps its own files, leftovers of a
// killed process, a missing root, and absurd settings.
#include <sys/stat.h>

#include "base/layout.h"
#include "base/result.h"
#include "base/settings.h"
#include "quorpkg/server/task_file.h"
#include "store_fixture.h"

namespace quor::test {
namespace {

// Tests that need a root of another kind make their own inside this one.
using StoreHostile = StoreTest;

TEST_F(StoreHostile, APayloadThatWouldEatTheVolumesReserveIsRefused) {
    TempRoot root;
    Tmpfs volume(root.host("/volume1"), "16m");
    if (!volume.mounted()) GTEST_SKIP() << "mounting a tmpfs needs privileges this run lacks";
    QUORPackageTool::PackageManager manager;
    ASSERT_TRUE(manager.init());

    // 15.5 MiB of zeros fit on the 16 MiB volume but leave less than its
    // reserve (5% of it); the file itself is tiny.
    PackageSource big = packageSource("big");
    big.files["share/zeros"] = std::string(31 << 19, '\0');
    const fs::path file = build(big);
    ASSERT_LT(fs::file_size(file), 256u << 10);
    EXPECT_EQ(installFile(file), kNoSpace);
    EXPECT_FALSE(isInstalled("big"));
    const fs::path appstore = root.host("/volume1/@appstore");
    EXPECT_TRUE(!fs::exists(appstore) || fs::is_empty(appstore));

    big.files["share/zeros"] = std::string(12 << 20, '\0');
    EXPECT_EQ(install(big), kOk);
}

// The web entry links into the package's payload and nowhere else.
TEST_F(StoreHostile, AWebPageFolderOutsideThePayloadIsRefused) {
    for (const char* uiDir : {"/etc", "../../../../etc", "ui/../../x"}) {
        PackageSource page = packageSource("page");
        page.info = {{"ui_dir", uiDir}};
        EXPECT_EQ(install(page), kBadManifest) << uiDir;
        EXPECT_FALSE(isInstalled("page")) << uiDir;
        EXPECT_FALSE(fs::exists(fs::symlink_status(layout::webEntry("page")))) << uiDir;
    }
}

TEST_F(StoreHostile, LinksPlantedAtTheLockJournalAndTaskFilesAreNeverFollowed) {
    QUORPackageTool::PackageManager manager;
    ASSERT_EQ(install(packageSource("demo")), kOk);
    const fs::path victim = files.path() / "victim";
    const fs::path nowhere = files.path() / "nowhere";

    // The lock: neither emptied nor created through a link; the change is
    // refused instead.
    writeText(victim, "precious\n");
    fs::remove(layout::lockFile());
    fs::create_symlink(victim, layout::lockFile());
    EXPECT_EQ(install(packageSource("other")), kStoreUnusable);
    EXPECT_EQ(readFile(victim), "precious\n");
    fs::remove(layout::lockFile());
    fs::create_symlink(nowhere, layout::lockFile());
    EXPECT_EQ(removePackages({"demo"}, serviceHooks()), kStoreUnusable);
    EXPECT_FALSE(fs::exists(nowhere));
    EXPECT_TRUE(isInstalled("demo"));
    fs::remove(layout::lockFile());

    // A journal that is a link is not a journal: recovery does not act on
    // what it points to (here: finish removing an installed package).
    writeText(victim, "op=\"remove\"\nname=\"demo\"\nstep=\"commit\"\nvolume=\"" +
                          root.host("/volume1").string() + "\"\n");
    fs::create_directories(layout::journalDir());
    fs::create_symlink(victim, layout::journalDir() / "demo");
    ASSERT_TRUE(manager.init());
    ASSERT_EQ(install(packageSource("other")), kOk);
    EXPECT_TRUE(isInstalled("demo"));
    EXPECT_TRUE(fs::exists(victim));
    EXPECT_FALSE(fs::exists(fs::symlink_status(layout::journalDir() / "demo")));

    // Task files: a linked one reads as no task; the task lock is not
    // created through a link.
    Task task;
    task.name = "demo";
    task.state = "downloading";
    task.pid = ::getpid();
    ASSERT_TRUE(writeTask(task));
    ASSERT_TRUE(readTask("demo"));
    fs::rename(layout::taskFile("demo"), victim);
    fs::create_symlink(victim, layout::taskFile("demo"));
    EXPECT_FALSE(readTask("demo"));
    const fs::path taskLock = layout::taskFile("x").parent_path() / ".lock";
    fs::remove(taskLock);
    fs::create_symlink(nowhere, taskLock);
    EXPECT_FALSE(TaskLock::acquire());
    EXPECT_FALSE(fs::exists(nowhere));
}

TEST_F(StoreHostile, RecoveryRemovesJournalTemporariesAKillLeftBehind) {
    QUORPackageTool::PackageManager manager;
    // writeFileAtomic's temporary name, as a kill between write and rename
    // leaves it.
    const fs::path leftover = layout::journalDir() / ".demo.Xy12Zq";
    writeText(leftover, "op=\"install\"\n");
    ASSERT_TRUE(manager.init());
    EXPECT_FALSE(fs::exists(leftover));

    writeText(leftover, "op=\"ins");
    ASSERT_EQ(install(packageSource("demo")), kOk);
    EXPECT_FALSE(fs::exists(leftover));
    EXPECT_TRUE(fs::is_empty(layout::journalDir()));
}

TEST_F(StoreHostile, AMissingRootIsAnErrorThatCreatesNothing) {
    TempDir dir;
    const fs::path missing = dir.path() / "device";
    ::setenv("QUOR_ROOT", missing.c_str(), 1);
    {
        QUORPackageTool::PackageManager manager;
        EXPECT_FALSE(manager.init());
        EXPECT_EQ(manager.getResult(), kStoreUnusable);
        // The one call made without init() checks the root itself.
        EXPECT_FALSE(QUORPackageTool::NotifyStoppedByFirmware("Demo"));
        EXPECT_EQ(manager.getResult(), kStoreUnusable);
        EXPECT_FALSE(fs::exists(missing));
        writeText(dir.path() / "file", "");
        ::setenv("QUOR_ROOT", (dir.path() / "file").c_str(), 1);
        EXPECT_FALSE(manager.init());
        EXPECT_EQ(manager.getResult(), kStoreUnusable);
    }
    ::unsetenv("QUOR_ROOT");

    // An existing root is taken as it is: folders come with the first write.
    TempDir empty;
    ::setenv("QUOR_ROOT", empty.path().c_str(), 1);
    QUORPackageTool::PackageManager manager;
    EXPECT_TRUE(manager.init());
    EXPECT_TRUE(fs::is_empty(empty.path()));
    ::unsetenv("QUOR_ROOT");
}

TEST_F(StoreHostile, NumericSettingsAreClampedToSaneRanges) {
    TempRoot root;
    auto settingsFrom = [](const std::string& text) {
        writeText(layout::settingsFile(), text);
        return loadSettings();
    };
    Settings huge = settingsFrom(
        "catalog_ttl=\"9223372036854775807\"\nscript_timeout=\"99999999999999999999999\"\n"
        "lock_timeout=\"2147483647\"\nparallel_jobs=\"1000000\"\ncatalog_max_mib=\"999999\"\n");
    EXPECT_EQ(huge.catalog_ttl, 366L * 86400);
    EXPECT_EQ(huge.script_timeout, 86400);
    EXPECT_EQ(huge.lock_timeout, 3600);
    EXPECT_EQ(huge.parallel_jobs, 256);
    EXPECT_EQ(huge.catalog_max_mib, 1024);
    Settings small = settingsFrom("catalog_max_mib=\"0\"\nparallel_jobs=\"0\"\n");
    EXPECT_EQ(small.catalog_max_mib, 1);
    EXPECT_EQ(small.parallel_jobs, 0);  // the number of processors
    // Not a number, or negative: the default.
    Settings odd = settingsFrom("catalog_ttl=\"-5\"\nscript_timeout=\"12s\"\nlock_timeout=\"\"\n");
    EXPECT_EQ(odd.catalog_ttl, Settings{}.catalog_ttl);
    EXPECT_EQ(odd.script_timeout, Settings{}.script_timeout);
    EXPECT_EQ(odd.lock_timeout, Settings{}.lock_timeout);
    EXPECT_EQ(Settings{}.catalog_max_mib, 64);
}

TEST_F(StoreHostile, PackageLogsAreCappedWithOneOlderCopy) {
    // 3 MiB of numbered lines from one script.
    PackageSource noisy = packageSource("noisy");
    noisy.scripts["postinst"] =
        "#!/bin/sh\ni=0\nwhile [ $i -lt 24576 ]; do\n"
        "  printf 'line %0120d\\n' $i\n  i=$((i+1))\ndone\n";
    ASSERT_EQ(install(noisy), kOk);
    const fs::path log = layout::logFile("noisy");
    const fs::path older = log.string() + ".1";
    EXPECT_LE(fs::file_size(log), 1u << 20);
    ASSERT_TRUE(fs::exists(older));
    EXPECT_LE(fs::file_size(older), 1u << 20);
    // The newest lines are kept.
    const std::string last = readFile(older).value_or("") + readFile(log).value_or("");
    EXPECT_NE(last.find("line " + std::string(115, '0') + "24575\n"), std::string::npos);

    ASSERT_EQ(removePackages({"noisy"}, serviceHooks()), kOk);
    EXPECT_LE(fs::file_size(log), 1u << 20);
}

}  // namespace
}  // namespace quor::test
