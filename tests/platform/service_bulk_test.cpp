// Many packages at once: all of them, those that need a system service, the
// dependency-ordered worker pool under them, and firmware notifications.
#include <json/reader.h>

#include <algorithm>
#include <atomic>
#include <mutex>

#include "base/settings.h"
#include "pkg_manager.h"
#include "quorpkg/service/parallel_order.h"
#include "quorpkg/service/services.h"
#include "service_fixture.h"

namespace quor::test {
namespace {

using QUORPackageTool::PackageManager;
using Names = std::vector<std::string>;

bool before(const Names& order, const std::string& a, const std::string& b) {
    auto ia = std::find(order.begin(), order.end(), a);
    auto ib = std::find(order.begin(), order.end(), b);
    return ia != order.end() && ib != order.end() && ia < ib;
}

TEST_F(ServiceTest, OnOffAllStartsEnabledPackagesInOrderAndReportsTheFirstFailure) {
    install(service("a-fails", {}, "exit 1"), true);
    install(service("b-needs-a", {"a-fails"}), true);
    install(service("c-base"), true);
    install(service("d-needs-c", {"c-base"}), true);
    install(service("e-off"));
    install(service("f-blocked"), true);
    install(service("g-needs-d", {"d-needs-c"}), true);
    writeText(layout::firmwareLimitsFile(), "f-blocked >= 0\n");
    PackageManager manager;

    EXPECT_FALSE(manager.serviceControlOnOffALL(true, true, "boot", "p1"));
    EXPECT_EQ(manager.getResult(), kScriptFailed);
    Names started = traced("start");
    std::sort(started.begin(), started.end());
    EXPECT_EQ(started, (Names{"c-base boot p1", "d-needs-c boot p1", "g-needs-d boot p1"}));
    EXPECT_TRUE(before(traced("start"), "c-base boot p1", "d-needs-c boot p1"));
    EXPECT_TRUE(before(traced("start"), "d-needs-c boot p1", "g-needs-d boot p1"));
    EXPECT_FALSE(isMarkedActive("b-needs-a"));
    EXPECT_TRUE(isMarkedActive("g-needs-d"));

    // Stop takes every running package, dependents first, and keeps flags.
    ASSERT_TRUE(manager.serviceControlOnOffALL(false, true, "shutdown", nullptr));
    Names stopped = traced("stop");
    EXPECT_EQ(stopped.size(), 3u);
    EXPECT_TRUE(before(stopped, "g-needs-d shutdown", "d-needs-c shutdown"));
    EXPECT_TRUE(before(stopped, "d-needs-c shutdown", "c-base shutdown"));
    EXPECT_TRUE(exists(layout::enabledFlag("c-base")));
    EXPECT_EQ(packageStatus("c-base"), kStopped);

    // One worker takes the packages in dependency order, byte order among equals.
    appendSetting("parallel_jobs=\"1\"");
    fs::remove(tracePath());
    fs::remove(layout::firmwareLimitsFile());
    EXPECT_FALSE(manager.serviceControlOnOffALL(true, false, nullptr, nullptr));
    EXPECT_EQ(traced("start"), (Names{"c-base", "d-needs-c", "e-off", "f-blocked", "g-needs-d"}));
}

TEST_F(ServiceTest, ByServiceActsOnPackagesNeedingItAndTheirDependents) {
    PackageSource db = service("db-user");
    db.info.emplace_back("install_dep_services", "smb pgsql");
    install(db, true);
    install(service("report", {"db-user"}), true);
    install(service("report-off", {"report"}));
    install(service("solo"), true);
    PackageManager manager;
    ASSERT_TRUE(manager.serviceControlByService({"pgsql"}, true, false));
    EXPECT_EQ(traced("start"), (Names{"db-user", "report"}));
    ASSERT_EQ(startPackage("solo", {}), kOk);
    ASSERT_TRUE(manager.serviceControlByService({"pgsql"}, false, false));
    EXPECT_EQ(traced("stop"), (Names{"report", "db-user"}));
    EXPECT_EQ(packageStatus("solo"), kOk);
    EXPECT_TRUE(manager.serviceControlByService({"mysql"}, true, false));
}

TEST(ParallelOrder, KeepsOrderBoundsWorkersBlocksDependentsAndCatchesCycles) {
    // 0 <- 1 <- 2, 3 free, 4 <- 5 with 4 failing, 6 <-> 7 a cycle.
    std::vector<OrderedJob> jobs = {{"j0", {}}, {"j1", {0}}, {"j2", {1, 0}}, {"j3", {}},
                                    {"j4", {}}, {"j5", {4}}, {"j6", {7}},    {"j7", {6}}};
    std::mutex mutex;
    Names done;
    std::atomic<int> running{0}, most{0};
    auto action = [&](const std::string& name) {
        int now = ++running;
        int seen = most.load();
        while (now > seen && !most.compare_exchange_weak(seen, now)) {
        }
        {
            std::lock_guard lock(mutex);
            done.push_back(name);
        }
        --running;
        return name == "j4" ? 130 : 0;
    };
    std::vector<int> codes = runInOrder(jobs, 2, true, 120, 122, action);
    EXPECT_EQ(codes, (std::vector<int>{0, 0, 0, 0, 130, 120, 122, 122}));
    EXPECT_TRUE(before(done, "j0", "j1"));
    EXPECT_TRUE(before(done, "j1", "j2"));
    EXPECT_EQ(std::count(done.begin(), done.end(), "j5"), 0);
    EXPECT_LE(most.load(), 2);

    done.clear();
    codes = runInOrder(jobs, 1, false, 120, 122, action);
    EXPECT_EQ(done, (Names{"j0", "j1", "j2", "j3", "j4", "j5"}));
    EXPECT_EQ(codes[5], 0);
    EXPECT_THROW(runInOrder(jobs, 3, false, 0, 0,
                            [](const std::string& n) -> int {
                                if (n == "j3") throw std::runtime_error("x");
                                return 0;
                            }),
                 std::runtime_error);
}

TEST(ParallelOrder, DefaultWorkersFollowTheWidestLevelOfTheGraph) {
    // Levels: j0 j3 j4 and the cycle j6 j7 on 0; j1 j5 on 1; j2 on 2.
    const std::vector<OrderedJob> mixed = {{"j0", {}}, {"j1", {0}}, {"j2", {1, 0}}, {"j3", {}},
                                           {"j4", {}}, {"j5", {4}}, {"j6", {7}},    {"j7", {6}}};
    EXPECT_EQ(dependencyWidth(mixed), 5u);
    // Four levels of ten, each package needing two of the level below.
    std::vector<OrderedJob> layered;
    for (size_t level = 0; level < 4; ++level)
        for (size_t i = 0; i < 10; ++i)
            layered.push_back({"p", level == 0
                                        ? std::vector<size_t>{}
                                        : std::vector<size_t>{(level - 1) * 10 + i,
                                                              (level - 1) * 10 + (i + 1) % 10}});
    EXPECT_EQ(dependencyWidth(layered), 10u);
    std::vector<OrderedJob> chain;
    for (size_t i = 0; i < 50; ++i)
        chain.push_back({"c", i == 0 ? std::vector<size_t>{} : std::vector<size_t>{i - 1}});
    EXPECT_EQ(dependencyWidth(chain), 1u);
    EXPECT_EQ(dependencyWidth({}), 0u);

    Settings settings;
    EXPECT_EQ(effectiveParallelJobs(settings, 10), 10);
    EXPECT_EQ(effectiveParallelJobs(settings, 0), 1);
    EXPECT_EQ(effectiveParallelJobs(settings, 500), kMaxDefaultJobs);
    settings.parallel_jobs = 3;
    EXPECT_EQ(effectiveParallelJobs(settings, 500), 3);
}

// Three independent packages whose starts each wait until all three have
// begun: they only finish when the default runs them all at once.
TEST_F(ServiceTest, ByDefaultIndependentPackagesAllStartAtOnce) {
    const fs::path gate = root.path() / "gate";
    const std::string wait = "mkdir -p '" + gate.string() + "'; touch '" + gate.string() +
                             "'/$QUOR_PKG_NAME; n=0\n"
                             "  while [ $(ls '" +
                             gate.string() +
                             "' | wc -l) -lt 3 ]; do\n"
                             "    n=$((n+1)); [ $n -gt 300 ] && exit 1; sleep 0.05; done";
    for (const char* name : {"p1", "p2", "p3"}) install(service(name, {}, wait), true);
    PackageManager manager;
    EXPECT_TRUE(manager.serviceControlOnOffALL(true, true, nullptr, nullptr));
    EXPECT_EQ(traced("start").size(), 3u);
}

TEST_F(ServiceTest, FirmwareNotificationsAreAppendedAsJsonLinesInOrder) {
    ASSERT_TRUE(QUORPackageTool::NotifyStoppedByFirmware("Photo \"Station\""));
    ASSERT_TRUE(QUORPackageTool::NotifyStoppedByFirmware("Notebook"));
    const auto lines = textLines(readFile(layout::notificationsFile()).value_or(""));
    ASSERT_EQ(lines.size(), 2u);
    const char* names[] = {"Photo \"Station\"", "Notebook"};
    for (size_t i = 0; i < 2; ++i) {
        EXPECT_EQ(lines[i].rfind("{\"time\":", 0), 0u) << lines[i];
        Json::Value value;
        std::istringstream in(lines[i]);
        ASSERT_TRUE(Json::parseFromStream(Json::CharReaderBuilder(), in, &value, nullptr));
        EXPECT_TRUE(value["time"].isIntegral());
        EXPECT_EQ(value["event"].asString(), "stopped_by_firmware");
        EXPECT_EQ(value["package"].asString(), names[i]);
        EXPECT_EQ(value.size(), 3u);
    }
}

}  // namespace
}  // namespace quor::test
