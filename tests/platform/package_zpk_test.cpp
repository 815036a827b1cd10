// The zpk tool, run as a program.
#include <gtest/gtest.h>
#include <sys/wait.h>

#include <cstdlib>

#include "base/file_util.h"
#include "test_support.h"

namespace quor {
namespace {

namespace fs = std::filesystem;

// Runs a shell command line; its exit status and what it wrote.
struct Output {
    int status;
    std::string out, err;
};

Output run(const fs::path& dir, const std::string& command) {
    std::string line =
        command + " >" + (dir / "stdout").string() + " 2>" + (dir / "stderr").string();
    int raw = std::system(line.c_str());
    return {WIFEXITED(raw) ? WEXITSTATUS(raw) : -1, readFile(dir / "stdout").value_or(""),
            readFile(dir / "stderr").value_or("")};
}

TEST(PackageZpk, BuildsAndShowsPackages) {
    test::TempDir dir;
    test::PackageSource pkg;
    pkg.name = "tool";
    pkg.version = "3.0";
    pkg.info = {{"description", "A tool"}, {"admin_port", "5000"}, {"beta", "yes"}};
    pkg.scripts = {{"start-stop-status", "#!/bin/sh\n"}};
    fs::path source = dir.path() / "src";
    test::writePackageSource(source, pkg);
    const std::string zpk = ZPK_BINARY;
    fs::path file = dir.path() / "tool.zpk";

    Output built =
        run(dir.path(), zpk + " build " + source.string() + " -o " + file.string() + " --zstd");
    ASSERT_EQ(built.status, 0) << built.err;
    Output info = run(dir.path(), zpk + " info " + file.string());
    ASSERT_EQ(info.status, 0) << info.err;
    for (const char* expected :
         {"package:     tool\n", "version:     3.0\n", "description: A tool\n",
          "admin_port:  5000\n", "beta:        yes\n", "script_mask: 64 (start-stop-status)\n",
          "payload:     package.tzst\n", "  scripts/start-stop-status\n"})
        EXPECT_NE(info.out.find(expected), std::string::npos) << expected << "\n" << info.out;
    EXPECT_TRUE(info.err.empty());

    Output missing = run(dir.path(), zpk + " info " + (dir.path() / "none.zpk").string());
    EXPECT_EQ(missing.status, 1);
    EXPECT_TRUE(missing.out.empty());
    EXPECT_NE(missing.err.find("zpk: "), std::string::npos);
    fs::remove(source / "INFO");
    Output bad = run(dir.path(), zpk + " build " + source.string() + " -o " + file.string());
    EXPECT_EQ(bad.status, 1);
    EXPECT_NE(bad.err.find("INFO"), std::string::npos);
    EXPECT_EQ(run(dir.path(), zpk + " build " + source.string()).status, 2);  // no -o
    EXPECT_EQ(run(dir.path(), zpk + " frobnicate").status, 2);
}

}  // namespace
}  // namespace quor
