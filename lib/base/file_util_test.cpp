// Atomic file replacement: a crash or a failed write leaves the old file or
// the new one, never a mix.
#include "base/file_util.h"

#include <gtest/gtest.h>
#include <sys/stat.h>

#include "test_support.h"

namespace quor {
namespace {

namespace fs = std::filesystem;
using test::TempDir;
using test::writeText;

std::vector<std::string> namesIn(const fs::path& dir) {
    std::vector<std::string> names;
    for (const auto& entry : fs::directory_iterator(dir))
        names.push_back(entry.path().filename().string());
    std::sort(names.begin(), names.end());
    return names;
}

TEST(FileUtil, AtomicWriteReplacesTheFileInsteadOfWritingIntoIt) {
    TempDir dir;
    const fs::path file = dir.path() / "settings";
    writeText(file, "old content");
    // A second name for the old file: it must keep the old bytes, as every
    // reader that opened the file before the write does.
    fs::create_hard_link(file, dir.path() / "before");

    ASSERT_TRUE(writeFileAtomic(file, "new", 0600));
    EXPECT_EQ(readFile(file), "new");
    EXPECT_EQ(readFile(dir.path() / "before"), "old content");
    struct stat st {};
    ASSERT_EQ(::stat(file.c_str(), &st), 0);
    EXPECT_EQ(st.st_mode & 07777, 0600u);
    EXPECT_EQ(st.st_nlink, 1u);
    // No temporary file is left beside it.
    EXPECT_EQ(namesIn(dir.path()), (std::vector<std::string>{"before", "settings"}));

    // A new file, and a folder that does not exist.
    ASSERT_TRUE(writeFileAtomic(dir.path() / "fresh", ""));
    EXPECT_EQ(readFile(dir.path() / "fresh"), "");
    EXPECT_FALSE(writeFileAtomic(dir.path() / "missing" / "file", "x"));
}

TEST(FileUtil, AWriteThatRunsOutOfRoomKeepsTheOldFile) {
    TempDir dir;
    const fs::path file = dir.path() / "journal";
    writeText(file, "old content");
    // A file-size limit makes every write past it fail with EFBIG, as a
    // full disk makes it fail with ENOSPC, without needing a small volume.
    EXPECT_EQ(test::withFileSizeLimit(
                  4096, [&] { return writeFileAtomic(file, std::string(64 << 10, 'x')) ? 0 : 1; }),
              1);
    EXPECT_EQ(readFile(file), "old content");
    EXPECT_EQ(namesIn(dir.path()), std::vector<std::string>{"journal"});
}

}  // namespace
}  // namespace quor
