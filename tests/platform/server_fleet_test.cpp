// What a trusted source costs at fleet scale, against real nginx started by
// each test: an unchanged check is one conditional request, a release
// comes as a patch, every request of a run shares one connection, a mirror
// down or stale is passed over, staged rollouts and Retry-After are
// honoured. Skipped, saying so, where nginx is not installed.
#include <json/reader.h>

#include <set>
#include <sstream>

#include "base/file_util.h"
#include "base/key_value.h"
#include "base/layout.h"
#include "base/operation_log.h"
#include "base/result.h"
#include "base/utc_time.h"
#include "pkg_manager.h"
#include "pkg_server.h"
#include "quor_core.h"
#include "quorpkg/package/channel_publisher.h"
#include "quorpkg/server/rollout.h"
#include "server_fixture.h"

namespace quor::test {
namespace {

using QUORPackageTool::PackageInfo;
using QUORPackageTool::PMSCheckUpgrade;

class ServerFleet : public ServerTest {
protected:
    void SetUp() override {
        ServerTest::SetUp();
        if (Nginx::binary().empty()) GTEST_SKIP() << "nginx is not installed";
        installLocal(packageSource("app", "1.0"));
        publish(packageSource("app", "1.0"));
        channel->release();
        web.emplace(Nginx::binary(), repo);
        ASSERT_TRUE(web->running());
        writeText(layout::sourcesFile(), sourcesLine(web->url()) + "\n");
    }

    // The requests since the last call, as "<status> <path>" and the
    // number of connections they used.
    std::vector<std::string> newRequests(size_t* connections = nullptr) {
        std::vector<Nginx::Request> all = web->requests();
        std::vector<std::string> out;
        std::set<long> used;
        for (size_t i = seen_; i < all.size(); ++i) {
            out.push_back(std::to_string(all[i].status) + " " + all[i].path);
            used.insert(all[i].connection);
        }
        seen_ = all.size();
        if (connections) *connections = used.size();
        return out;
    }

    // What a daily check does: the tool resets the list hash, the check asks
    // afresh. The offered upgrades, as "name version;".
    std::string dailyCheck() {
        const fs::path hash = layout::listDir() / "quorserver.hash.enu";
        if (fs::exists(hash)) QLIBCFileSetKeyValue(hash.c_str(), "hash", "temphash", 0);
        std::vector<PackageInfo> offered;
        EXPECT_TRUE(PMSCheckUpgrade(true, nullptr, "enu", &offered)) << lastResult();
        std::string out;
        for (const PackageInfo& info : offered) out += info.name + " " + info.version + ";";
        return out;
    }

    std::optional<Nginx> web;
    size_t seen_ = 0;
};

TEST_F(ServerFleet, AnUnchangedCheckIsOneConditionalRequestAndAReleaseAPatch) {
    size_t connections = 0;
    EXPECT_EQ(dailyCheck(), "");
    newRequests(&connections);
    // Nothing new: one 304, a few hundred bytes.
    for (int day = 0; day < 2; ++day) {
        EXPECT_EQ(dailyCheck(), "");
        EXPECT_EQ(newRequests(), std::vector<std::string>{"304 /timestamp"});
        EXPECT_LT(web->requests().back().bytes, 400u);
    }
    // One package released: the timestamp, the patch and the seal, on one
    // connection.
    publish(packageSource("app", "1.1"));
    channel->release();
    EXPECT_EQ(dailyCheck(), "app 1.1;");
    EXPECT_EQ(newRequests(&connections),
              (std::vector<std::string>{"200 /timestamp", "200 /catalog-enu.2.from-1.zst",
                                        "200 /catalog-enu.2.json.sig"}));
    EXPECT_EQ(connections, 1u);
    // A device without the version a patch applies to takes the compressed
    // catalog; the upgrade's download shares the check's connection.
    fs::remove_all(layout::listDir());
    publish(packageSource("app", "1.2"));
    channel->release();
    fs::remove(repo / catalogPatchFileName("enu", 3, 2));
    writeText(layout::settingsFile(), "auto_upgrade=\"all\"\n");
    ASSERT_TRUE(PMSCheckUpgrade(true, nullptr, "enu", nullptr)) << lastResult();
    EXPECT_EQ(newRequests(&connections),
              (std::vector<std::string>{"200 /timestamp", "200 /catalog-enu.3.json.zst",
                                        "200 /catalog-enu.3.json.sig", "200 /app-1.2.zpk"}));
    EXPECT_EQ(connections, 1u);
    EXPECT_EQ(installedVersion("app"), "1.2");
}

TEST_F(ServerFleet, AMirrorDownOrStaleIsPassedOverAndNothingIsKeptFromIt) {
    ClosedPort down;
    TempDir staleRepo;
    Nginx stale(Nginx::binary(), staleRepo.path());
    const std::string line =
        channel->sourcesLine(down.url() + " " + stale.url() + " " + web->url());
    writeText(layout::sourcesFile(), line + "\n");
    // The stale mirror has today's timestamp but not the catalog it names.
    publish(packageSource("app", "1.1"));
    channel->release();
    for (const auto& entry : fs::directory_iterator(repo))
        if (entry.path().filename().string().find("catalog-enu.2") == std::string::npos)
            fs::copy(entry.path(), staleRepo.path() / entry.path().filename());
    EXPECT_EQ(lookup("app"), "1.1");
    EXPECT_FALSE(stale.requests().empty());

    // Every mirror stale: refused, and nothing of it kept.
    publish(packageSource("app", "1.2"));
    channel->release();
    fs::copy(repo / kTimestampFile, staleRepo.path() / kTimestampFile,
             fs::copy_options::overwrite_existing);
    writeText(layout::sourcesFile(), channel->sourcesLine(stale.url()) + "\n");
    const std::string state = readFile(layout::channelStateDir(channel->pin()) / "state").value();
    EXPECT_EQ(lookup("app"), "");
    EXPECT_EQ(readFile(layout::channelStateDir(channel->pin()) / "state").value(), state);
    // The download of a package falls back to the next mirror too.
    writeText(layout::sourcesFile(), line + "\n");
    fs::copy(repo / "app-1.2.zpk", staleRepo.path() / "app-1.2.zpk");
    writeText(staleRepo.path() / "app-1.2.zpk", "damaged");
    writeText(layout::settingsFile(), "auto_upgrade=\"all\"\n");
    EXPECT_TRUE(PMSCheckUpgrade(true, nullptr, "enu", nullptr)) << lastResult();
    EXPECT_EQ(installedVersion("app"), "1.2");
}

TEST_F(ServerFleet, AStagedRolloutOffersAVersionToItsShareOfDevices) {
    writeText(layout::machineIdFile(), "0123456789abcdef0123456789abcdef\n");
    const std::string device = deviceId();
    ASSERT_EQ(device, "0123456789abcdef0123456789abcdef");
    publish(packageSource("app", "1.1"));
    const int bucket = rolloutBucket(device, "app", "1.1");
    std::string why;
    // Just below this device's place, just above it, then halted.
    for (auto [percent, offered] :
         {std::pair{bucket / 100, ""}, std::pair{bucket / 100 + 1, "app 1.1;"}, std::pair{0, ""}}) {
        ASSERT_EQ(setPhase(repo, "app", "1.1", percent, why), kOk) << why;
        channel->release();
        EXPECT_EQ(dailyCheck(), offered) << percent;
    }
    // Opted out: every release at once. A new install is never phased.
    writeText(layout::settingsFile(), "phased_updates=\"no\"\n");
    EXPECT_EQ(dailyCheck(), "app 1.1;");
    EXPECT_EQ(lookup("app"), "1.1");
}

TEST_F(ServerFleet, RetryAfterKeepsTheDeviceFromAskingUntilThen) {
    EXPECT_EQ(dailyCheck(), "");
    web.reset();
    web.emplace(Nginx::binary(), repo,
                "  location = /timestamp { add_header Retry-After 3600 always; return 503; }");
    writeText(layout::sourcesFile(), sourcesLine(web->url()) + "\n");
    seen_ = 0;
    EXPECT_EQ(lookup("app"), "");
    EXPECT_EQ(newRequests(), std::vector<std::string>{"503 /timestamp"});
    EXPECT_EQ(lookup("app"), "");
    EXPECT_TRUE(newRequests().empty());
    EXPECT_NE(readFile(operationLogFile()).value_or("").find("asked not to be asked before"),
              std::string::npos);

    // An unverified source is kept waiting as well, in its list cache.
    web.reset();
    web.emplace(Nginx::binary(), repo,
                "  location ~ ^/catalog { add_header Retry-After 3600 always; return 503; }");
    writeText(layout::sourcesFile(), "quorserver " + web->url() + " unverified\n");
    seen_ = 0;
    EXPECT_EQ(lookup("app"), "");
    EXPECT_EQ(newRequests(), std::vector<std::string>{"503 /catalog-enu.hash"});
    EXPECT_EQ(lookup("app"), "");
    EXPECT_TRUE(newRequests().empty());

    // A wait further ahead than a day is what a clock set back leaves: the
    // source is asked again.
    const fs::path hashFile = layout::listDir() / "quorserver.hash.enu";
    KeyValues pairs = parseKeyValues(readFile(hashFile).value_or("")).value_or(KeyValues{});
    setValue(pairs, "retry_after", std::to_string(nowSeconds() + 3 * 86400));
    writeText(hashFile, formatKeyValues(pairs));
    EXPECT_EQ(lookup("app"), "");
    EXPECT_EQ(newRequests(), std::vector<std::string>{"503 /catalog-enu.hash"});
}

// Device ids spread evenly over the buckets: the share offered a version at
// phase p is p within 1.5 points, and phase 0 offers it to none.
TEST(Rollout, TheShareOfDevicesOfferedFollowsThePhase) {
    for (int phase : {0, 5, 50, 95}) {
        int offered = 0;
        for (int device = 0; device < 10000; ++device)
            offered +=
                rolloutBucket("device-" + std::to_string(device), "app", "1.1") < phase * 100;
        EXPECT_NEAR(offered / 100.0, phase, 1.5) << phase;
        if (phase == 0) {
            EXPECT_EQ(offered, 0);
        }
    }
    Json::Value entry;
    entry["phase"] = 7;
    EXPECT_EQ(entryPhase(entry), 7);
    for (const char* bad : {"\"5\"", "101", "-1", "2.5"}) {
        Json::Value value;
        std::istringstream(std::string("{\"phase\":") + bad + "}") >> value;
        EXPECT_EQ(entryPhase(value), 0) << bad;
    }
    EXPECT_EQ(entryPhase(Json::Value(Json::objectValue)), 100);
}

}  // namespace
}  // namespace quor::test
