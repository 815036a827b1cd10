// list, uninstall and sort_zpk_by_dep_order through the built binary.
#include <gtest/gtest.h>

#include "tool_runner.h"

namespace quor::e2e {
namespace {

test::PackageSource package(const std::string& name, const std::string& needs = "") {
    test::PackageSource source =
        test::packageSource(name, "1.0", {{"description", "about " + name}});
    if (!needs.empty()) source.info.emplace_back("install_dep_packages", needs);
    return source;
}

TEST(E2eList, AllNamesOnlyAndDependents) {
    Device device;
    for (const auto& source :
         {package("base"), package("mid", "base"), package("top", "mid"), package("Other")})
        ASSERT_EQ(device.quorpkg({"install", device.package(source)}).status, 0);

    device.expect({"list"},
                  "Other-1.0: about Other\nbase-1.0: about base\nmid-1.0: about mid\n"
                  "top-1.0: about top\n",
                  0);
    EXPECT_EQ(device.quorpkg({"list", "--name"}).out, "Other\nbase\nmid\ntop\n");
    EXPECT_EQ(device.quorpkg({"list", "--depend-on", "base"}).out,
              "top-1.0: about top\nmid-1.0: about mid\n");
    EXPECT_EQ(device.quorpkg({"list", "--name", "--depend-on=mid"}).out, "top\n");
    device.expect({"list", "--depend-on", "top"}, "", 0);

    // A wrong name refuses the whole request; names are taken dependents
    // first and once.
    device.expect({"uninstall", "mid", "ghost"}, "", 1);
    EXPECT_EQ(device.quorpkg({"list", "--name"}).out, "Other\nbase\nmid\ntop\n");
    device.expect({"uninstall", "base", "top", "mid", "base"}, "", 0);
    EXPECT_EQ(device.quorpkg({"list", "--name"}).out, "Other\n");
}

TEST(E2eList, SortPrintsFilesRequirementsFirstAsTyped) {
    Device device;
    const std::string top = device.package(package("top", "mid"));
    const std::string base = device.package(package("base"));
    const std::string mid = device.package(package("mid", "base>=1:outside"));
    device.expect({"sort_zpk_by_dep_order", "./" + top, base, mid, base},
                  base + "\n" + mid + "\n./" + top + "\n", 0);

    const std::string a = device.package(package("a", "b"));
    const std::string b = device.package(package("b", "a"));
    device.expect({"sort_zpk_by_dep_order", a, b}, "Failed to sort built-in packages\n", 1);

    device.expect({"sort_zpk_by_dep_order", base, "nope.zpk", top},
                  "Failed to query package nope.zpk, 110\n", 1);
}

}  // namespace
}  // namespace quor::e2e
