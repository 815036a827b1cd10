// What the store tests share: a temporary root with volume1 and an
// initialised store, package files built beside it, and local installs.
#pragma once

#include <gtest/gtest.h>

#include "base/file_util.h"
#include "base/result.h"
#include "pkg_manager.h"
#include "quorpkg/service/services.h"
#include "quorpkg/store/installer.h"
#include "quorpkg/store/store.h"
#include "test_support.h"

namespace quor::test {

// Installs a package file as a local install does.
inline int installFile(const fs::path& file) {
    InstallRequest request;
    request.file = file;
    return installPackage(request, serviceHooks());
}

class StoreTest : public ::testing::Test {
protected:
    StoreTest() {
        QUORPackageTool::PackageManager manager;
        EXPECT_TRUE(manager.init());
    }

    fs::path build(const PackageSource& source) { return buildTestPackage(files.path(), source); }
    int install(const PackageSource& source) { return installFile(build(source)); }
    // What the test's scripts appended to $QUOR_ROOT/trace.
    std::string trace() const { return readFile(root.host("/trace")).value_or(""); }

    TempRoot root;
    TempDir files;
    fs::path volume1 = root.addVolume(1);
};

}  // namespace quor::test
