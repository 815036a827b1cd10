// Removing packages: all or none, dependents first, scripts around it.
#include "base/layout.h"
#include "store_fixture.h"

namespace quor::test {
namespace {

// Appends "<script> <package>" to $QUOR_ROOT/trace; exits with `status`.
std::string tracer(const std::string& script, int status = 0) {
    return "#!/bin/sh\necho \"" + script + " $QUOR_PKG_NAME\" >> \"$QUOR_ROOT/trace\"\nexit " +
           std::to_string(status) + "\n";
}

// A service that keeps its state in $QUOR_ROOT/<name>.running and traces
// its stops.
const std::string kService =
    "#!/bin/sh\ncase \"$1\" in\nstart) touch \"$QUOR_ROOT/$QUOR_PKG_NAME.running\";;\n"
    "stop) echo \"stop $QUOR_PKG_NAME\" >> \"$QUOR_ROOT/trace\"; rm -f "
    "\"$QUOR_ROOT/$QUOR_PKG_NAME.running\";;\n"
    "status) [ -f \"$QUOR_ROOT/$QUOR_PKG_NAME.running\" ] && exit 0; exit 3;;\nesac\n";

class StoreRemove : public StoreTest {
protected:
    // A package with tracing removal scripts that needs `needs`.
    void add(const std::string& name, const std::string& needs = "",
             std::map<std::string, std::string> scripts = {}) {
        PackageSource source;
        source.name = name;
        if (!needs.empty()) source.info = {{"install_dep_packages", needs}};
        source.info.emplace_back("ui_dir", "ui");
        source.files = {{"ui/index.html", name}};
        source.scripts = {{"preuninst", tracer("preuninst")}, {"postuninst", tracer("postuninst")}};
        for (auto& [script, body] : scripts) source.scripts[script] = body;
        ASSERT_EQ(install(source), kOk) << name;
    }

    const fs::path& volume = volume1;
};

TEST_F(StoreRemove, GoesDependentsFirstAndLeavesNothingButTheLog) {
    add("base");
    add("mid", "base");
    add("top", "mid>=1.0");
    add("other");
    ASSERT_TRUE(fs::is_symlink(layout::webEntry("top")));

    // Given requirements first and one twice: removed dependents first, once.
    ASSERT_EQ(removePackages({"base", "mid", "top", "base"}, serviceHooks()), kOk);
    // Every package agrees before any goes.
    EXPECT_EQ(trace(),
              "preuninst top\npreuninst mid\npreuninst base\n"
              "postuninst top\npostuninst mid\npostuninst base\n");
    EXPECT_EQ(installedPackages(), std::vector<std::string>{"other"});
    for (const char* name : {"base", "mid", "top"}) {
        EXPECT_FALSE(fs::exists(layout::packageDir(name))) << name;
        EXPECT_FALSE(fs::exists(layout::appstoreDir(volume, name))) << name;
        EXPECT_FALSE(fs::exists(fs::symlink_status(layout::webEntry(name)))) << name;
        EXPECT_TRUE(fs::exists(layout::logFile(name))) << name;
    }
    EXPECT_TRUE(fs::is_symlink(layout::webEntry("other")));
    EXPECT_EQ(std::distance(fs::directory_iterator(volume / "@appstore"), {}), 1);
    EXPECT_TRUE(fs::is_empty(layout::journalDir()));
}

TEST_F(StoreRemove, RefusesTheWholeRequestWhenOneNameIsWrongOrStillNeeded) {
    add("base");
    add("mid", "base");
    EXPECT_EQ(removePackages({"base"}, serviceHooks()), kHasDependents);
    EXPECT_EQ(removePackages({"mid", "ghost"}, serviceHooks()), kNoSuchPackage);
    EXPECT_EQ(removePackages({"mid", ""}, serviceHooks()), kBadArgument);
    EXPECT_EQ(removePackages({"../mid"}, serviceHooks()), kBadArgument);
    EXPECT_EQ(removePackages({}, serviceHooks()), kBadArgument);
    EXPECT_EQ(trace(), "");
    EXPECT_EQ(installedPackages(), (std::vector<std::string>{"base", "mid"}));

    // The manager reports the code through getResult().
    QUORPackageTool::PackageManager manager;
    EXPECT_FALSE(manager.uninstallPKGs({"base"}, true));
    EXPECT_EQ(manager.getResult(), kHasDependents);
    EXPECT_TRUE(manager.uninstallPKGs({"mid"}, true));
    EXPECT_TRUE(manager.uninstallPKGs({"base"}, false));
    EXPECT_EQ(trace(), "preuninst mid\npostuninst mid\n");
}

// Services are stopped before their preuninst runs.
TEST_F(StoreRemove, OneRefusingPreuninstKeepsEveryNamedPackageInstalledAndRunning) {
    add("b", "", {{"start-stop-status", kService}, {"preuninst", tracer("preuninst", 1)}});
    add("a", "b", {{"start-stop-status", kService}});
    add("c", "", {{"start-stop-status", kService}});
    const fs::path appA = layout::appstoreDir(volume, "a");

    EXPECT_EQ(removePackages({"c", "b", "a"}, serviceHooks()), kScriptFailed);
    // a goes before b, which it needs; c agreed, but b did not: nothing goes.
    EXPECT_EQ(trace(), "stop c\npreuninst c\nstop a\npreuninst a\nstop b\npreuninst b\n");
    EXPECT_EQ(installedPackages(), (std::vector<std::string>{"a", "b", "c"}));
    for (const char* name : {"a", "b", "c"}) {
        EXPECT_TRUE(isMarkedActive(name)) << name;
        EXPECT_TRUE(fs::exists(root.host("/" + std::string(name) + ".running"))) << name;
        EXPECT_TRUE(fs::exists(layout::appstoreDir(volume, name))) << name;
        EXPECT_TRUE(fs::is_symlink(layout::webEntry(name))) << name;
    }
    EXPECT_TRUE(fs::exists(appA / "ui/index.html"));
    EXPECT_TRUE(fs::is_empty(layout::journalDir()));

    // Put right, the same request goes through.
    fs::remove(root.host("/trace"));
    writeText(layout::scriptsDir("b") / "preuninst", tracer("preuninst"), 0755);
    ASSERT_EQ(removePackages({"c", "b", "a"}, serviceHooks()), kOk);
    EXPECT_EQ(trace(),
              "stop c\npreuninst c\nstop a\npreuninst a\nstop b\npreuninst b\n"
              "postuninst c\npostuninst a\npostuninst b\n");
    EXPECT_TRUE(installedPackages().empty());
    for (const char* name : {"a", "b", "c"}) {
        EXPECT_FALSE(isMarkedActive(name)) << name;
        EXPECT_FALSE(fs::exists(root.host("/" + std::string(name) + ".running"))) << name;
    }
}

TEST_F(StoreRemove, ABrokenPackageCanStillBeRemoved) {
    add("broken");
    fs::remove(layout::packageDir("broken") / "INFO");
    fs::remove(layout::scriptsDir("broken") / "preuninst");
    ASSERT_EQ(removePackages({"broken"}, serviceHooks()), kOk);
    EXPECT_FALSE(isInstalled("broken"));
    EXPECT_FALSE(fs::exists(layout::appstoreDir(volume, "broken")));
}

}  // namespace
}  // namespace quor::test
