// The moves of a change: each can run again from where a crash left it and
// ends in the same place, and an upgrade's undo gives back the old package.
#include "quorpkg/store/commit.h"

#include <gtest/gtest.h>

#include <map>

#include "base/file_util.h"
#include "base/layout.h"
#include "test_support.h"

namespace quor {
namespace {

namespace fs = std::filesystem;
using test::writeText;
using Tree = std::map<std::string, std::string>;

// Every file of the store and the volume with its content, journals left out.
Tree tree(const fs::path& root) {
    Tree out;
    for (const auto& entry : fs::recursive_directory_iterator(root)) {
        const std::string relative = entry.path().lexically_relative(root).string();
        if (entry.is_regular_file() && relative.find(".journal") == std::string::npos &&
            (relative.starts_with("var/packages/") || relative.starts_with("volume1/")))
            out[relative] = readFile(entry.path()).value_or("?");
    }
    return out;
}

class StoreCommit : public ::testing::Test {
protected:
    // demo 1 installed with data in var/, demo 2 staged beside it.
    void SetUp() override {
        const fs::path volume = root.addVolume(1);
        writeText(layout::packageDir("demo") / "INFO", "1");
        writeText(layout::varDir("demo") / "data", "kept");
        writeText(layout::appstoreDir(volume, "demo") / "bin", "one");
        writeText(layout::packagesDir() / ".demo.new" / "INFO", "2");
        writeText(volume / "@appstore" / ".demo.new" / "bin", "two");
        upgrade = {.op = "upgrade",
                   .name = "demo",
                   .step = "commit",
                   .volume = volume,
                   .oldVolume = volume,
                   .uiDir = "",
                   .webEntry = false};
        ASSERT_TRUE(writeJournal(upgrade));
    }

    test::TempRoot root;
    Change upgrade;
};

TEST_F(StoreCommit, AnUpgradeCommitsOnceHowEverOftenItRunsAndKeepsVar) {
    ASSERT_TRUE(commitStaged(upgrade));
    const Tree committed = tree(root.path());
    EXPECT_EQ(committed, (Tree{{"var/packages/demo/INFO", "2"},
                               {"var/packages/demo/var/data", "kept"},
                               {"var/packages/.demo.old/INFO", "1"},
                               {"volume1/@appstore/demo/bin", "two"},
                               {"volume1/@appstore/.demo.old/bin", "one"}}));
    ASSERT_TRUE(commitStaged(upgrade));
    EXPECT_EQ(tree(root.path()), committed);

    finishInstall(upgrade);
    EXPECT_EQ(tree(root.path()), (Tree{{"var/packages/demo/INFO", "2"},
                                       {"var/packages/demo/var/data", "kept"},
                                       {"volume1/@appstore/demo/bin", "two"}}));
    EXPECT_TRUE(pendingJournals().empty());
}

TEST_F(StoreCommit, AnUndoneUpgradeGivesBackTheOldPackageFromAnyPoint) {
    for (bool committed : {false, true}) {
        if (committed) {
            ASSERT_TRUE(commitStaged(upgrade));
            ASSERT_TRUE(writeJournal(upgrade));
        }
        rollBackInstall(upgrade);
        rollBackInstall(upgrade);
        EXPECT_EQ(tree(root.path()), (Tree{{"var/packages/demo/INFO", "1"},
                                           {"var/packages/demo/var/data", "kept"},
                                           {"volume1/@appstore/demo/bin", "one"}}))
            << committed;
        EXPECT_TRUE(pendingJournals().empty());
        SetUp();
    }
}

TEST_F(StoreCommit, ARemovalSetsThePackageAsideOnceThenDeletesIt) {
    fs::remove_all(layout::packagesDir() / ".demo.new");
    fs::remove_all(upgrade.volume / "@appstore" / ".demo.new");
    const Change removal = {.op = "remove",
                            .name = "demo",
                            .step = "commit",
                            .volume = upgrade.volume,
                            .oldVolume = {},
                            .uiDir = "",
                            .webEntry = false};
    ASSERT_TRUE(commitRemoval(removal));
    ASSERT_TRUE(commitRemoval(removal));
    EXPECT_EQ(tree(root.path()), (Tree{{"var/packages/.demo.old/INFO", "1"},
                                       {"var/packages/.demo.old/var/data", "kept"},
                                       {"volume1/@appstore/.demo.old/bin", "one"}}));
    finishRemoval(removal);
    EXPECT_EQ(tree(root.path()), Tree{});
}

}  // namespace
}  // namespace quor
