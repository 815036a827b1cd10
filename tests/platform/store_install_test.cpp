// Installing, reinstalling and upgrading packages in a temporary system root.
#include <sys/stat.h>

#include <cstdlib>

#include "base/layout.h"
#include "quorpkg/package/md5.h"
#include "store_fixture.h"

namespace quor::test {
namespace {

// Appends "<script> <old version> <version>" to $QUOR_ROOT/trace.
std::string tracer(const std::string& script) {
    return "#!/bin/sh\necho \"" + script +
           " ${QUOR_PKG_OLD_VERSION:--} $QUOR_PKG_VERSION\" >> \"$QUOR_ROOT/trace\"\n";
}

// A service that records its state in $QUOR_ROOT/<name>.running and traces
// start and stop; `startStatus` is what a start exits with.
std::string service(const std::string& name, int startStatus = 0) {
    const std::string flag = "\"$QUOR_ROOT/" + name + ".running\"";
    return "#!/bin/sh\ncase \"$1\" in\n"
           "start) echo \"start $QUOR_PKG_VERSION\" >> \"$QUOR_ROOT/trace\"; [ " +
           std::to_string(startStatus) + " = 0 ] && touch " + flag + "; exit " +
           std::to_string(startStatus) +
           ";;\n"
           "stop) echo \"stop $QUOR_PKG_VERSION\" >> \"$QUOR_ROOT/trace\"; rm -f " +
           flag +
           ";;\n"
           "status) [ -f " +
           flag + " ] && exit 0; exit 3;;\n*) exit 1;;\nesac\n";
}

class StoreInstall : public StoreTest {
protected:
    void clearTrace() const { fs::remove(root.host("/trace")); }

    static std::vector<std::string> entries(const fs::path& dir) {
        std::vector<std::string> names;
        for (const auto& entry : fs::directory_iterator(dir))
            names.push_back(entry.path().filename().string());
        std::sort(names.begin(), names.end());
        return names;
    }

    fs::path volume2 = root.addVolume(2);
};

TEST_F(StoreInstall, NewPackageLandsWholeWithScriptsConfVarAndWebEntry) {
    PackageSource source;
    source.info = {{"ui_dir", "ui"}, {"description", "a demo"}};
    source.files = {{"bin/demo", "#!/bin/sh\necho demo\n"}, {"ui/index.html", "<p>demo</p>"}};
    source.conf = {{"demo.conf", "level=1\n"}};
    source.scripts = {{"preinst", tracer("preinst")}, {"postinst", tracer("postinst")}};
    ASSERT_EQ(install(source), kOk);

    EXPECT_EQ(installedVersion("demo"), "1.0-0001");
    EXPECT_EQ(readFile(layout::packageDir("demo") / "conf" / "demo.conf"), "level=1\n");
    EXPECT_TRUE(fs::is_directory(layout::varDir("demo")));
    EXPECT_EQ(installedScriptMask("demo"), 1 | 2);
    // The target link is relative, so the root could move.
    EXPECT_EQ(fs::read_symlink(layout::targetLink("demo")), "../../../volume1/@appstore/demo");
    EXPECT_EQ(installedTarget("demo"), volume1 / "@appstore/demo");
    EXPECT_EQ(installedVolume("demo"), volume1);
    EXPECT_EQ(readFile(installedTarget("demo") / "bin/demo"), "#!/bin/sh\necho demo\n");
    EXPECT_EQ(fs::canonical(layout::webEntry("demo")),
              fs::canonical(volume1 / "@appstore/demo/ui"));
    EXPECT_EQ(trace(), "preinst - 1.0-0001\npostinst - 1.0-0001\n");
    // No service: not turned on. Nothing left over from staging.
    EXPECT_FALSE(isEnabled("demo"));
    EXPECT_EQ(entries(layout::packagesDir()), (std::vector<std::string>{".journal", "demo"}));
    EXPECT_EQ(entries(volume1 / "@appstore"), std::vector<std::string>{"demo"});
    EXPECT_TRUE(fs::is_empty(layout::journalDir()));
    EXPECT_TRUE(fs::exists(layout::logFile("demo")));
}

TEST_F(StoreInstall, ServiceIsTurnedOnAndStartedAndAFailedStartLeavesItOff) {
    PackageSource good;
    good.name = "good";
    good.scripts = {{"start-stop-status", service("good")}};
    ASSERT_EQ(install(good), kOk);
    EXPECT_TRUE(isEnabled("good"));
    EXPECT_TRUE(isMarkedActive("good"));
    EXPECT_TRUE(fs::exists(root.host("/good.running")));

    PackageSource bad;
    bad.name = "bad";
    bad.scripts = {{"start-stop-status", service("bad", 1)}};
    EXPECT_EQ(install(bad), kOk);
    EXPECT_EQ(installedVersion("bad"), "1.0-0001");
    EXPECT_FALSE(isEnabled("bad"));
    EXPECT_FALSE(isMarkedActive("bad"));
}

TEST_F(StoreInstall, UpgradeKeepsVarAndVolumeAndRestartsATurnedOnService) {
    writeSettings("default_volume=\"volume2\"\n");
    PackageSource v1;
    v1.files = {{"bin/demo", "one"}, {"only-in-one", "x"}};
    v1.scripts = {{"start-stop-status", service("demo")}};
    ASSERT_EQ(install(v1), kOk);
    ASSERT_TRUE(isMarkedActive("demo"));
    writeText(layout::varDir("demo") / "data.txt", "user data");
    clearTrace();

    // A later default does not move an installed package.
    writeSettings("default_volume=\"volume1\"\n");
    PackageSource v2 = v1;
    v2.version = "2.0-0001";
    v2.files = {{"bin/demo", "two"}};
    v2.scripts["preupgrade"] = tracer("preupgrade");
    v2.scripts["postupgrade"] = tracer("postupgrade");
    ASSERT_EQ(install(v2), kOk);

    EXPECT_EQ(installedVersion("demo"), "2.0-0001");
    EXPECT_EQ(installedVolume("demo"), volume2);
    EXPECT_EQ(readFile(installedTarget("demo") / "bin/demo"), "two");
    EXPECT_FALSE(fs::exists(installedTarget("demo") / "only-in-one"));
    EXPECT_EQ(readFile(layout::varDir("demo") / "data.txt"), "user data");
    EXPECT_TRUE(isEnabled("demo"));
    EXPECT_TRUE(isMarkedActive("demo"));
    EXPECT_EQ(trace(),
              "stop 1.0-0001\npreupgrade 1.0-0001 2.0-0001\npostupgrade 1.0-0001 2.0-0001\n"
              "start 2.0-0001\n");
    EXPECT_FALSE(fs::exists(volume1 / "@appstore"));
    EXPECT_EQ(entries(volume2 / "@appstore"), std::vector<std::string>{"demo"});

    // Reinstalling the same version is an upgrade too; a package turned off
    // stays off.
    ServiceRequest off;
    off.type = QUORPackageTool::PKG_INSTALLATION_TYPE_DISABLE;
    ASSERT_EQ(stopPackage("demo", off), kOk);
    clearTrace();
    ASSERT_EQ(install(v2), kOk);
    EXPECT_EQ(trace(), "preupgrade 2.0-0001 2.0-0001\npostupgrade 2.0-0001 2.0-0001\n");
    EXPECT_FALSE(isEnabled("demo"));
    EXPECT_EQ(readFile(layout::varDir("demo") / "data.txt"), "user data");
}

TEST_F(StoreInstall, UpgradeKeepsTheAdministratorsConfFilesAsDpkgKeepsConffiles) {
    PackageSource v1;
    v1.conf = {{"kept.conf", "1"},      {"both.conf", "1"},  {"new.conf", "1"},
               {"gone.conf", "1"},      {"gone2.conf", "1"}, {"dropped.conf", "1"},
               {"sub/edited.conf", "1"}};
    ASSERT_EQ(install(v1), kOk);
    const fs::path conf = layout::confDir("demo");
    // The record is sha256sum's, so an administrator can ask what they changed.
    const std::string check = "cd '" + layout::packageDir("demo").string() +
                              "' && sha256sum --quiet --check conf.sha256 >/dev/null 2>&1";
    EXPECT_EQ(std::system(check.c_str()), 0);
    writeText(conf / "kept.conf", "mine");
    ::chmod((conf / "kept.conf").c_str(), 0600);
    writeText(conf / "both.conf", "mine");
    fs::remove(conf / "gone.conf");
    fs::remove(conf / "gone2.conf");
    writeText(conf / "sub/edited.conf", "mine");
    writeText(conf / "local.conf", "mine");
    writeText(conf / "later", "mine");
    EXPECT_NE(std::system(check.c_str()), 0);

    PackageSource v2 = v1;
    v2.version = "2.0";
    v2.conf = {{"kept.conf", "1"},  {"both.conf", "2"},  {"new.conf", "2"},    {"gone.conf", "1"},
               {"gone2.conf", "2"}, {"added.conf", "2"}, {"later/a.conf", "2"}};
    ASSERT_EQ(install(v2), kOk);
    std::map<std::string, std::string> files;
    for (const auto& entry : fs::recursive_directory_iterator(conf))
        if (entry.is_regular_file())
            files[entry.path().lexically_relative(conf).string()] = readFile(entry.path()).value();
    EXPECT_EQ(files, (std::map<std::string, std::string>{
                         {"kept.conf", "mine"},  // changed only here
                         {"both.conf", "mine"},  // changed on both sides
                         {"both.conf.quorpkg-new", "2"},
                         {"new.conf", "2"},                // changed only by the package
                         {"gone2.conf.quorpkg-new", "2"},  // deleted here, changed there
                         {"sub/edited.conf", "mine"},      // no longer shipped, changed here
                         {"local.conf", "mine"},           // never the package's
                         {"later.quorpkg-old", "mine"},    // where the package has a folder now
                         {"later/a.conf", "2"},
                         {"added.conf", "2"}}));
    EXPECT_EQ(fs::status(conf / "kept.conf").permissions(), fs::perms(0600));
    // Recorded as the package shipped them.
    std::string record;
    for (const auto& [path, content] : v2.conf)
        record += dataSha256Hex(content) + "  conf/" + path + "\n";
    EXPECT_EQ(readFile(layout::packageDir("demo") / "conf.sha256"), record);
    const std::string history = readFile(root.host("/var/log/quorpkg.log")).value_or("");
    EXPECT_NE(history.find("package demo: upgraded from 1.0-0001 to 2.0; conf/both.conf kept as "
                           "it was; the package's new version is conf/both.conf.quorpkg-new; "),
              std::string::npos)
        << history;

    // Installed without a record (by an older store), nothing can be told
    // apart: what differs stays, the new version beside it.
    fs::remove(layout::packageDir("demo") / "conf.sha256");
    v2.version = "3.0";
    v2.conf["new.conf"] = "3";
    ASSERT_EQ(install(v2), kOk);
    EXPECT_EQ(readFile(conf / "new.conf"), "2");
    EXPECT_EQ(readFile(conf / "new.conf.quorpkg-new"), "3");
    EXPECT_EQ(readFile(conf / "added.conf"), "2");
}

TEST_F(StoreInstall, VolumeIsTheRequestedOneTheDefaultOrTheFirstOfTheRoomiest) {
    PackageSource source;
    source.name = "first";
    ASSERT_EQ(install(source), kOk);
    // Both volumes share one file system here: the first stands for both.
    EXPECT_EQ(installedVolume("first"), volume1);

    InstallRequest request;
    source.name = "second";
    request.file = build(source);
    request.volume = volume2;
    ASSERT_EQ(installPackage(request, serviceHooks()), kOk);
    EXPECT_EQ(installedVolume("second"), volume2);

    request.volume = root.path() / "volume7";
    source.name = "third";
    request.file = build(source);
    EXPECT_EQ(installPackage(request, serviceHooks()), kNoVolume);

    writeSettings("default_volume=\"/volume9\"\n");
    EXPECT_EQ(install(source), kNoVolume);
    writeSettings("default_volume=\"/volume2\"\n");
    ASSERT_EQ(install(source), kOk);
    EXPECT_EQ(installedVolume("third"), volume2);

    TempRoot bare;
    source.name = "fourth";
    EXPECT_EQ(install(source), kNoVolume);
    EXPECT_FALSE(isInstalled("fourth"));
}

TEST_F(StoreInstall, RefusesWhatTheDeviceOrTheInstalledPackagesCannotTake) {
    PackageSource base;
    base.name = "base";
    base.info = {{"install_conflict_packages", "rival>=2"}};
    ASSERT_EQ(install(base), kOk);

    auto attempt = [&](const std::string& name,
                       std::vector<std::pair<std::string, std::string>> info,
                       const std::string& version = "1.0") {
        return install(packageSource(name, version, std::move(info)));
    };
    EXPECT_EQ(attempt("other", {{"arch", "no-such-machine"}}), kWrongArch);
    EXPECT_EQ(attempt("other", {{"firmware", "99.0"}}), kFirmwareTooOld);
    EXPECT_EQ(attempt("other", {{"install_dep_packages", "missing"}}), kMissingDependency);
    EXPECT_EQ(attempt("other", {{"install_dep_packages", "base>=1.5"}}), kMissingDependency);
    EXPECT_EQ(attempt("other", {{"install_conflict_packages", "base"}}), kConflict);
    // The installed package refuses rival 2 and later, not rival 1.
    EXPECT_EQ(attempt("rival", {}, "2.0"), kConflict);
    EXPECT_FALSE(isInstalled("other"));
    EXPECT_FALSE(isInstalled("rival"));
    EXPECT_EQ(attempt("rival", {}, "1.0"), kOk);

    EXPECT_EQ(attempt("user", {{"install_dep_packages", "base>=1.0-0001:rival<2"}}), kOk);
    // A downgrade the installed dependent cannot live with.
    PackageSource old = base;
    old.version = "0.9";
    EXPECT_EQ(install(old), kHasDependents);
    EXPECT_EQ(installedVersion("base"), "1.0-0001");
}

}  // namespace
}  // namespace quor::test
