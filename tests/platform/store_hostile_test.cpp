// The store against hostile surroundings: payloads that would fill the
// volume, links planted where the store keeps its own files, leftovers of a
// killed process, a missing root, and absurd settings.
#include <gtest/gtest.h>
#include <sys/mount.h>
#include <sys/stat.h>

#include "base/file_util.h"
#include "base/layout.h"
#include "base/result.h"
#include "pkg_manager.h"
#include "quorpkg/store/installer.h"
#include "quorpkg/store/store.h"
#include "test_support.h"

namespace quor::test {
namespace {

int install(const fs::path& file) {
    InstallRequest request;
    request.file = file;
    return installPackage(request);
}

// A tmpfs of `size` mounted over a folder for the object's life.
class Tmpfs {
public:
    Tmpfs(const fs::path& dir, const std::string& size) : dir_(dir) {
        fs::create_directories(dir);
        mounted_ = ::mount("tmpfs", dir.c_str(), "tmpfs", 0, ("size=" + size).c_str()) == 0;
    }
    ~Tmpfs() {
        if (mounted_) ::umount2(dir_.c_str(), MNT_DETACH);
    }
    bool mounted() const { return mounted_; }

private:
    fs::path dir_;
    bool mounted_ = false;
};

class StoreHostile : public ::testing::Test {
protected:
    fs::path build(const PackageSource& source) { return buildTestPackage(files.path(), source); }

    TempDir files;
};

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
    EXPECT_EQ(install(file), kNoSpace);
    EXPECT_FALSE(isInstalled("big"));
    const fs::path appstore = root.host("/volume1/@appstore");
    EXPECT_TRUE(!fs::exists(appstore) || fs::is_empty(appstore));

    big.files["share/zeros"] = std::string(12 << 20, '\0');
    EXPECT_EQ(install(build(big)), kOk);
}

}  // namespace
}  // namespace quor::test
