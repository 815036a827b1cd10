// Starting and stopping one package: enabled flags, active marks, the
// web-interface link, requirements and dependents, the firmware limit.
#include <unistd.h>

#include "pkg_manager.h"
#include "quorpkg/service/services.h"
#include "service_fixture.h"

namespace quor::test {
namespace {

using QUORPackageTool::PackageManager;
using QUORPackageTool::PKG_INSTALLATION_TYPE_DISABLE;
using QUORPackageTool::PKG_INSTALLATION_TYPE_ENABLE;
using QUORPackageTool::PKG_INSTALLATION_TYPE_NONE;
using Names = std::vector<std::string>;

TEST_F(ServiceTest, TypesEightAndSixteenSetTheFlagAndTypeZeroLeavesIt) {
    PackageSource pkg = service("web");
    pkg.info.emplace_back("ui_dir", "ui");
    pkg.files["ui/index.html"] = "<p>hi</p>";
    install(pkg);
    PackageManager manager;
    const fs::path flag = layout::enabledFlag("web");
    const fs::path entry = layout::webEntry("web");

    ASSERT_TRUE(manager.serviceControl(PKG_INSTALLATION_TYPE_NONE, "web", true, nullptr, nullptr,
                                       nullptr, true, true));
    EXPECT_FALSE(exists(flag));
    EXPECT_FALSE(exists(entry));
    EXPECT_TRUE(isMarkedActive("web"));
    // Starting a running package succeeds without running its start again.
    ASSERT_TRUE(manager.serviceControl(PKG_INSTALLATION_TYPE_ENABLE, "web", true, nullptr, nullptr,
                                       nullptr, true, true));
    EXPECT_EQ(traced("start"), Names{"web"});
    EXPECT_TRUE(exists(flag));
    EXPECT_EQ(readFile(entry / "index.html").value_or(""), "<p>hi</p>");

    ASSERT_TRUE(manager.serviceControl(PKG_INSTALLATION_TYPE_NONE, "web", false, nullptr, nullptr,
                                       nullptr, true, true));
    EXPECT_TRUE(exists(flag));
    EXPECT_FALSE(isMarkedActive("web"));
    EXPECT_EQ(packageStatus("web"), kStopped);
    // Stopping a stopped package succeeds, and type 16 still turns it off.
    ASSERT_TRUE(manager.serviceControl(PKG_INSTALLATION_TYPE_DISABLE, "web", false, nullptr,
                                       nullptr, nullptr, true, true));
    EXPECT_EQ(traced("stop"), Names{"web"});
    EXPECT_FALSE(exists(flag));

    // A removed link comes back with the next type 8 start, not with type 0.
    fs::remove(entry);
    ASSERT_EQ(startPackage("web", {}), kOk);
    EXPECT_FALSE(exists(entry));
    ASSERT_EQ(startPackage("web", {.type = PKG_INSTALLATION_TYPE_ENABLE}), kOk);
    EXPECT_TRUE(exists(entry));
}

TEST_F(ServiceTest, RequirementsStartFirstAndDependentsStopFirst) {
    install(service("base"));
    install(service("middle", {"base"}));
    // top needs base only through middle: a stop of base must reach it too.
    install(service("top", {"middle>=1.0"}));
    install(service("other"));
    std::vector<std::string> affected;
    ServiceRequest enable{.type = PKG_INSTALLATION_TYPE_ENABLE, .affected = &affected};

    ASSERT_EQ(startPackage("top", enable), kOk);
    EXPECT_EQ(traced("start"), (Names{"base", "middle", "top"}));
    EXPECT_EQ(affected, (Names{"base", "middle", "top"}));
    // Turning a package on turns on what it needs.
    EXPECT_TRUE(exists(layout::enabledFlag("base")));
    EXPECT_FALSE(exists(layout::enabledFlag("other")));

    affected.clear();
    ServiceRequest disable{.type = PKG_INSTALLATION_TYPE_DISABLE, .affected = &affected};
    ASSERT_EQ(stopPackage("base", disable), kOk);
    EXPECT_EQ(traced("stop"), (Names{"top", "middle", "base"}));
    EXPECT_EQ(affected, (Names{"top", "middle", "base"}));
    EXPECT_FALSE(exists(layout::enabledFlag("top")));

    // Alone: a requirement that is not running fails the start, and a stop
    // leaves dependents running.
    ServiceRequest alone{.withDependencies = false};
    EXPECT_EQ(startPackage("middle", alone), kMissingDependency);
    ASSERT_EQ(startPackage("middle", {}), kOk);
    ASSERT_EQ(stopPackage("base", alone), kOk);
    EXPECT_EQ(packageStatus("middle"), kOk);

    // Restart brings back the dependents that it stopped.
    ASSERT_EQ(startPackage("base", {}), kOk);
    const size_t starts = traced("start").size();
    ASSERT_EQ(restartPackage("base"), kOk);
    const Names after = traced("start");
    EXPECT_EQ(Names(after.begin() + static_cast<long>(starts), after.end()),
              (Names{"base", "middle"}));
}

TEST_F(ServiceTest, StartStopAndRestartHoldTheStoreLockWhileTheirScriptsRun) {
    // The lock file names its holder while it is held, and is empty once free.
    PackageSource pkg;
    pkg.name = "locked";
    pkg.scripts["start-stop-status"] =
        "#!/bin/sh\nstate=\"$QUOR_PKG_VAR/running\"\ncase \"$1\" in\n"
        "start|stop) echo \"$1 $(cat \"$QUOR_ROOT/run/quorpkg/lock\")\" >> '" +
        tracePath().string() +
        "';;\nesac\ncase \"$1\" in\nstart) touch \"$state\";;\nstop) rm -f \"$state\";;\n"
        "status) [ -f \"$state\" ] && exit 0; exit 3;;\nesac\n";
    install(pkg);
    ASSERT_EQ(startPackage("locked", {}), kOk);
    ASSERT_EQ(stopPackage("locked", {}), kOk);
    ASSERT_EQ(startPackage("locked", {}), kOk);
    ASSERT_EQ(restartPackage("locked"), kOk);
    const std::string holder = " " + std::to_string(::getpid());
    EXPECT_EQ(traceLines(), (Names{"start" + holder, "stop" + holder, "start" + holder,
                                   "stop" + holder, "start" + holder}));
}

TEST_F(ServiceTest, StartIsRefusedForMissingRequirementsFailuresAndTheFirmwareLimit) {
    install(service("needy", {"absent"}));
    install(service("picky", {"base>=2.0"}));
    install(service("base"));
    install(service("broken", {}, "exit 1"));
    PackageManager manager;
    auto start = [&](const char* name) {
        return manager.serviceControl(PKG_INSTALLATION_TYPE_ENABLE, name, true, nullptr, nullptr,
                                      nullptr, true, true)
                   ? 0
                   : manager.getResult();
    };
    EXPECT_EQ(start("needy"), kMissingDependency);
    EXPECT_EQ(start("picky"), kMissingDependency);
    EXPECT_EQ(start("broken"), kScriptFailed);
    EXPECT_FALSE(exists(layout::enabledFlag("broken")));
    EXPECT_FALSE(isMarkedActive("broken"));
    EXPECT_EQ(start("nothing"), kNoSuchPackage);
    EXPECT_EQ(start("../etc"), kBadArgument);

    writeText(layout::firmwareLimitsFile(), "# known bad\nbase < 0.5\nbase ~ 9\nbase = 1.0-0001\n");
    EXPECT_EQ(start("base"), kFirmwareBlocked);
    EXPECT_TRUE(traced("start").empty());
    // Skipping the upgrade check lifts the limit for this manager's starts.
    manager.setSkipUpgradeCheck(true);
    EXPECT_EQ(start("base"), 0);
    EXPECT_EQ(QUORPackageTool::PMSThirdPartyCheckLimit("base", "1.0-0001"), 1);
    EXPECT_EQ(QUORPackageTool::PMSThirdPartyCheckLimit("base", "0.4"), 1);
    EXPECT_EQ(QUORPackageTool::PMSThirdPartyCheckLimit("base", "1.0-0002"), 0);
    EXPECT_EQ(QUORPackageTool::PMSThirdPartyCheckLimit("other", "0.1"), 0);
}

}  // namespace
}  // namespace quor::test
