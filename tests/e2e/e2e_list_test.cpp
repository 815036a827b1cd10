// list and sort_zpk_by_dep_order through the built binary.
#include <gtest/gtest.h>

#include "tool_runner.h"

namespace quor::e2e {
namespace {

test::PackageSpec package(const std::string& name, const std::string& needs = "") {
    test::PackageSpec spec;
    spec.name = name;
    spec.version = "1.0";
    spec.info = {{"description", "about " + name}};
    if (!needs.empty()) spec.info.emplace_back("install_dep_packages", needs);
    return spec;
}

TEST(E2eList, AllNamesOnlyAndDependents) {
    Device device;
    for (const auto& spec :
         {package("base"), package("mid", "base"), package("top", "mid"), package("Other")})
        ASSERT_EQ(device.quorpkg({"install", device.package(spec)}).status, 0);

    RunResult all = device.quorpkg({"list"});
    EXPECT_EQ(all.out,
              "Other-1.0: about Other\nbase-1.0: about base\nmid-1.0: about mid\n"
              "top-1.0: about top\n");
    EXPECT_EQ(all.status, 0);
    EXPECT_EQ(device.quorpkg({"list", "--name"}).out, "Other\nbase\nmid\ntop\n");
    EXPECT_EQ(device.quorpkg({"list", "--depend-on", "base"}).out,
              "top-1.0: about top\nmid-1.0: about mid\n");
    EXPECT_EQ(device.quorpkg({"list", "--name", "--depend-on=mid"}).out, "top\n");
    RunResult none = device.quorpkg({"list", "--depend-on", "top"});
    EXPECT_EQ(none.out, "");
    EXPECT_EQ(none.status, 0);
}

TEST(E2eList, SortPrintsFilesRequirementsFirstAsTyped) {
    Device device;
    const std::string top = device.package(package("top", "mid"));
    const std::string base = device.package(package("base"));
    const std::string mid = device.package(package("mid", "base>=1:outside"));
    RunResult sorted = device.quorpkg({"sort_zpk_by_dep_order", "./" + top, base, mid, base});
    EXPECT_EQ(sorted.out, base + "\n" + mid + "\n./" + top + "\n");
    EXPECT_EQ(sorted.status, 0);

    const std::string a = device.package(package("a", "b"));
    const std::string b = device.package(package("b", "a"));
    RunResult cycle = device.quorpkg({"sort_zpk_by_dep_order", a, b});
    EXPECT_EQ(cycle.out, "Failed to sort built-in packages\n");
    EXPECT_EQ(cycle.status, 1);

    RunResult unreadable = device.quorpkg({"sort_zpk_by_dep_order", base, "nope.zpk", top});
    EXPECT_EQ(unreadable.out, "Failed to query package nope.zpk, 110\n");
    EXPECT_EQ(unreadable.status, 1);
}

}  // namespace
}  // namespace quor::e2e
