// Atomic file replacement: a crash or a failed write leaves the old file or
// the new one, never a mix.
#include "base/file_util.h"

#include <gtest/gtest.h>
#include <limits.h>
#include <sys/stat.h>
#include <sys/syscall.h>
#include <unistd.h>

#include <mutex>

#include "test_support.h"

namespace {

// What fsync was asked to flush while a test records it: each file by its
// path, with the content it had then.
struct SyncRecord {
    std::mutex mutex;
    bool on = false;
    std::vector<std::pair<std::string, std::string>> synced;
};

SyncRecord& syncRecord() {
    static SyncRecord record;
    return record;
}

}  // namespace

// Defined in this program, fsync takes the place of the C library's for
// every call linked into it: the test sees what the code flushes, and the
// flush still happens.
extern "C" int fsync(int fd) {
    SyncRecord& record = syncRecord();
    std::lock_guard guard(record.mutex);
    if (record.on) {
        char path[PATH_MAX] = {};
        const std::string link = "/proc/self/fd/" + std::to_string(fd);
        const ssize_t length = ::readlink(link.c_str(), path, sizeof path - 1);
        std::string content(4096, '\0');
        const ssize_t n = ::pread(fd, content.data(), content.size(), 0);
        content.resize(n > 0 ? static_cast<size_t>(n) : 0);
        record.synced.emplace_back(std::string(path, length > 0 ? length : 0), content);
    }
    return static_cast<int>(::syscall(SYS_fsync, fd));
}

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

TEST(FileUtil, AnAtomicWriteIsOnDiskBeforeItsRenameAndTheRenameAfterIt) {
    TempDir dir;
    const fs::path file = dir.path() / "journal";
    writeText(file, "old content");
    SyncRecord& record = syncRecord();
    record.on = true;
    ASSERT_TRUE(writeFileAtomic(file, "new"));
    record.on = false;
    // The new bytes under the temporary name, then the folder that holds
    // the rename.
    const std::string folder = fs::canonical(dir.path()).string();
    ASSERT_EQ(record.synced.size(), 2u);
    const fs::path temporary = record.synced[0].first;
    EXPECT_EQ(temporary.parent_path(), folder);
    EXPECT_EQ(temporary.filename().string().rfind(".journal.", 0), 0u) << temporary;
    EXPECT_EQ(record.synced[0].second, "new");
    EXPECT_EQ(record.synced[1].first, folder);
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
