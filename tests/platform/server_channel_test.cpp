// The trusted channel against someone who controls a server, a mirror or
// the network between it and a device: each test serves what such an
// attacker could from a real HTTP server and checks that the device refuses
// it, says why in quorpkg.log, and keeps its state as it was.
#include <chrono>

#include "base/file_util.h"
#include "base/layout.h"
#include "base/operation_log.h"
#include "base/result.h"
#include "base/utc_time.h"
#include "pkg_manager.h"
#include "pkg_server.h"
#include "quorpkg/package/channel_publisher.h"
#include "quorpkg/service/services.h"
#include "quorpkg/store/installer.h"
#include "quorpkg/store/store.h"
#include "server_fixture.h"

namespace quor::test {
namespace {

constexpr int64_t kDay = 86400;

class ServerChannel : public ServerTest {
protected:
    static std::string log() { return readFile(operationLogFile()).value_or(""); }

    // The words of the last quorpkg.log line that has all of them.
    static bool logged(const std::vector<std::string>& words) {
        for (const std::string& line : textLines(log())) {
            bool all = true;
            for (const std::string& word : words) all &= line.find(word) != std::string::npos;
            if (all) return true;
        }
        return false;
    }

    fs::path stateDir() const { return layout::channelStateDir(channel->pin()); }

    // What the device keeps of the source: the channel state and the list cache.
    Snapshot kept() const {
        Snapshot out;
        for (const fs::path& dir : {stateDir(), layout::listDir()})
            if (fs::exists(dir))
                for (const auto& [path, content] : snapshot(dir, {}))
                    out[dir.filename().string() + "/" + path] = content;
        return out;
    }

    // The device last asked for a newer root eight days ago.
    void probeDue() const {
        std::string text = readFile(stateDir() / "state").value();
        const size_t at = text.find("root_checked=\"");
        ASSERT_NE(at, std::string::npos);
        text.replace(at + 14, 20, formatUtc(nowSeconds() - 8 * kDay));
        writeText(stateDir() / "state", text);
    }

    // A fresh lookup refused: the query fails with 160 and the log names
    // the refusal's code and words, and nothing the device keeps changed.
    void expectRefused(const std::string& name, int code, const std::string& words) {
        const Snapshot before = kept();
        EXPECT_EQ(lookup(name), "");
        EXPECT_EQ(lastResult(), kServerUnreachable);
        EXPECT_TRUE(logged({"source quorserver: " + std::to_string(code), words})) << words << "\n"
                                                                                   << log();
        EXPECT_EQ(kept(), before);
    }
};

// Attack 1: an unpinned source is no source; `unverified` must be said, and
// every query of such a source says so.
TEST_F(ServerChannel, AnUnpinnedSourceIsNotUsedAndAnUnverifiedOneIsLogged) {
    channel.reset();
    publish(packageSource("app", "1.0"));
    index();
    server.emplace(repo);
    writeText(layout::sourcesFile(), "quorserver " + server->url() + "\n");
    EXPECT_EQ(lookup("app"), "");
    EXPECT_EQ(lastResult(), kServerUnreachable);
    EXPECT_TRUE(logged(
        {"sources:1: line skipped:", "no pinned root (root=<sha256>) and not marked unverified"}));
    const std::string link = server->url() + "app-1.0.zpk";
    ASSERT_TRUE(QUORPackageServer::BackgroundInstall("", "volume1", "app", "app", nullptr, false,
                                                     "enu", 0, link.c_str(), nullptr, true, false));
    EXPECT_EQ(waitForTask("app").state, "failed");
    EXPECT_EQ(installedVersion("app"), "");

    writeText(layout::sourcesFile(), "quorserver " + server->url() + " unverified\n");
    EXPECT_EQ(installFromServer("app").state, "done");
    EXPECT_TRUE(logged({"source quorserver: 0 unverified source " + server->url()}));
    EXPECT_EQ(readFile(layout::originFile("app")).value_or(""),
              "source=\"unverified " + server->url() + "\"\n");
}

// Attacks 2 and 3: an older signed set replayed is refused; so is one that
// expired; the device keeps what it had and cached answers still hold.
TEST_F(ServerChannel, ReplayedOrExpiredMetadataIsRefusedAndNothingKeptChanges) {
    publish(packageSource("textutils", "1.0"));
    serve();
    EXPECT_EQ(lookup("textutils"), "1.0");
    const std::string oldTimestamp = readFile(repo / kTimestampFile).value();
    publish(packageSource("textutils", "1.1"));
    index();
    EXPECT_EQ(lookup("textutils"), "1.1");

    replaceServed(repo / kTimestampFile, oldTimestamp);
    expectRefused("textutils", kMetadataRollback, "older than the kept version 2");
    EXPECT_EQ(lookup("textutils", false), "1.1");

    // The current set re-signed long ago: it expired three days back.
    channel->renew(nowSeconds() - 10 * kDay, 7);
    for (int day = 0; day < 3; ++day) {
        expectRefused("textutils", kMetadataExpired, "expired at");
        EXPECT_FALSE(QUORPackageTool::PMSCheckUpgrade(true, nullptr, "", nullptr));
    }
    EXPECT_TRUE(logged({"PMSCheckUpgrade -: 160", "(163)", "possible freeze"}));
}

// Attacks 4 and 5: a server that crawls meets the request's deadline; one
// that sends without end meets its size budget, for metadata and packages.
TEST_F(ServerChannel, SlowOrEndlessAnswersAreCutOff) {
    publish(packageSource("app", "1.0"));
    index();
    setting("fetch_timeout=\"2\"");
    const auto started = std::chrono::steady_clock::now();
    {
        HttpServer slow(HttpServer::hostile(repo, {"timestamp"}, {}));
        writeText(layout::sourcesFile(), sourcesLine(slow.url()) + "\n");
        expectRefused("app", kServerUnreachable, "no answer within 2 s");
    }
    EXPECT_LT(std::chrono::steady_clock::now() - started, std::chrono::seconds(30));
    {
        HttpServer endless(HttpServer::hostile(repo, {}, {"timestamp"}));
        writeText(layout::sourcesFile(), sourcesLine(endless.url()) + "\n");
        expectRefused("app", kServerUnreachable, "longer than 16384 bytes");
    }
    HttpServer endlessPackage(HttpServer::hostile(repo, {}, {"app-1.0.zpk"}));
    writeText(layout::sourcesFile(), sourcesLine(endlessPackage.url()) + "\n");
    Task task = installFromServer("app", "volume1");
    EXPECT_EQ(task.code, kDownloadFailed) << task.message;
    EXPECT_NE(task.message.find("more than expected"), std::string::npos) << task.message;
    EXPECT_TRUE(staged(volume1).empty());
}

// Attack 6: a key counts only where the source's root allows it: for its
// source, and a publisher key for its names.
TEST_F(ServerChannel, KeysCountOnlyForTheirSourceAndTheirNames) {
    publish(packageSource("app", "1.0"));
    serve();
    channel->rotate([&](SourceRoot& root) {
        root.publishers = {{channel->publisherKey.id(), {"app", "acme-*"}}};
    });
    const SigningKey stranger = newKey();
    const fs::path tool = buildTestPackage(repo, packageSource("tool", "1.0"));
    ASSERT_EQ(signPackage(tool, tool, stranger), kOk);
    publish(packageSource("acme-tool", "1.0"));
    publish(packageSource("other", "1.0"));
    index();
    EXPECT_EQ(installFromServer("app").state, "done");
    EXPECT_EQ(installFromServer("acme-tool").state, "done");
    for (const char* name : {"tool", "other"}) {
        Task task = installFromServer(name);
        EXPECT_EQ(task.code, kTrustRefused) << name << ": " << task.message;
        EXPECT_NE(readFile(layout::logFile(name))
                      .value_or("")
                      .find("does not allow for " + std::string(name)),
                  std::string::npos)
            << name;
    }
    EXPECT_EQ(readFile(layout::originFile("app")).value_or(""),
              "source=\"test-source\"\nkey=\"" + channel->publisherKey.id() + "\"\n");

    // A third party's source cannot replace the vendor's app, even higher.
    TempDir thirdRepo;
    TestSource third(thirdRepo.path(), "third-party");
    third.sign(buildTestPackage(thirdRepo.path(), packageSource("app", "99.0")));
    third.release();
    HttpServer other(thirdRepo.path());
    const std::string both =
        sourcesLine(server->url()) + "\n" + third.sourcesLine(other.url(), "otherserver") + "\n";
    writeText(layout::sourcesFile(), both);
    std::vector<QUORPackageTool::PackageInfo> offered;
    ASSERT_TRUE(QUORPackageTool::PMSCheckUpgrade(true, nullptr, "enu", &offered));
    EXPECT_TRUE(offered.empty());

    // Nor can its keys vouch for what the vendor's URL serves.
    writeText(layout::sourcesFile(), sourcesLine(server->url()) + "\n");
    for (const std::string& file : {catalogFileName("enu", 1), catalogFileName("enu", 1) + ".sig",
                                    std::string(kTimestampFile)})
        replaceServed(repo / file, readFile(thirdRepo.path() / file).value());
    expectRefused("app", kTrustRefused, "timestamp 1 of test-source needs 1 valid signatures");
}

// A catalog key rotated out in band: the next release seals the catalog
// anew with the new key even when no package changed, and devices take it.
TEST_F(ServerChannel, ARotatedCatalogKeySealsEvenAnUnchangedCatalogAnew) {
    publish(packageSource("app", "1.0"));
    serve();
    EXPECT_EQ(lookup("app"), "1.0");
    channel->rotateRoleKey(&TestSource::catalogKey);
    channel->release();
    EXPECT_EQ(lookup("app"), "1.0") << log();
    EXPECT_EQ(channel->timestamp().catalogs.front().version, 2u);
}

// Attack 7: nothing reached through a server lowers an installed version;
// a local file of an older version is the administrator's own act.
TEST_F(ServerChannel, NoServerPathLowersAnInstalledVersion) {
    const fs::path old = publish(packageSource("textutils", "1.0"));
    publish(packageSource("textutils", "1.1"));
    publish(packageSource("needy", "1.0", {{"install_dep_packages", "textutils<1.1"}}));
    serve();
    EXPECT_EQ(installFromServer("textutils").state, "done");
    Task task = installFromServer("needy");
    EXPECT_EQ(task.code, kDowngradeRefused) << task.message;
    EXPECT_NE(task.message.find("would lower the installed 1.1"), std::string::npos)
        << task.message;
    EXPECT_EQ(installedVersion("textutils"), "1.1");
    EXPECT_EQ(installedVersion("needy"), "");

    // The older file's own link, handed to the background installer.
    const std::string link = server->url() + old.filename().string();
    ASSERT_TRUE(QUORPackageServer::BackgroundInstall("", "volume1", "textutils", "textutils",
                                                     nullptr, true, "enu", fs::file_size(old),
                                                     link.c_str(), nullptr, false, false));
    task = waitForTask("textutils");
    EXPECT_EQ(task.code, kDowngradeRefused) << task.message;
    EXPECT_EQ(installedVersion("textutils"), "1.1");

    InstallRequest local;
    local.file = old;
    EXPECT_EQ(installPackage(local, serviceHooks()), kOk);
    EXPECT_EQ(installedVersion("textutils"), "1.0");
}

// Attacks 9 and 10: metadata of another source or language, and a file that
// holds another package than its entry names.
TEST_F(ServerChannel, MixedMetadataAndWrongSoftwareAreRefused) {
    publish(packageSource("app", "1.0", {{"install_dep_packages", "libx"}}));
    const fs::path helper = publish(packageSource("helper", "1.0"));
    serve();
    TempDir testingRepo;
    TestSource testing(testingRepo.path(), "testing", *channel);
    testing.sign(buildTestPackage(testingRepo.path(), packageSource("app", "2.0")));
    testing.release();
    EXPECT_EQ(lookup("app"), "1.0");

    // The publisher's testing channel, signed by the same keys, at stable's URL.
    const std::string stable = readFile(repo / kTimestampFile).value();
    replaceServed(repo / kTimestampFile, readFile(testingRepo.path() / kTimestampFile).value());
    expectRefused("app", kMetadataRollback, "is of source testing, not test-source");
    // Another language's seal beside this one's catalog: the same bytes,
    // but sealed for ger.
    replaceServed(repo / kTimestampFile, stable);
    channel->release("ger");
    const std::string ger = catalogFileName("ger", 1), enu = catalogFileName("enu", 1);
    replaceServed(repo / (enu + ".sig"), readFile(repo / (ger + ".sig")).value());
    fs::remove_all(layout::listDir());
    expectRefused("app", kMetadataRollback, "is of source test-source, language ger, version 1");

    // A required package whose entry names libx but whose file holds helper.
    std::string text = readFile(repo / catalogFileName("ger", 1)).value();
    const std::string entry = "\"package\" : \"helper\"";
    ASSERT_NE(text.find(entry), std::string::npos);
    text.replace(text.find(entry), entry.size(), "\"package\" : \"libx\"");
    channel->releaseText(text);
    Task task = installFromServer("app");
    EXPECT_EQ(task.code, kBadManifest) << task.message;
    EXPECT_NE(task.message.find(helper.filename().string() + " holds helper, not libx"),
              std::string::npos)
        << task.message;
    EXPECT_TRUE(installedPackages().empty());
}

// Roots change only by their threshold, one version after another, and an
// expired root or a clock set back freezes nothing silently.
TEST_F(ServerChannel, RootsChangeOnlyByThresholdInOrderAndNeverExpireSilently) {
    channel.emplace(repo, "test-source", 3, 2);
    publish(packageSource("app", "1.0"));
    serve();
    EXPECT_EQ(lookup("app"), "1.0");

    // Root 2 signed by one root key of the two it needs, announced.
    SourceRoot root;
    std::string why;
    ASSERT_EQ(readPublishedRoot(repo, root, why), kOk) << why;
    root.version = 2;
    writeText(repo / rootFileName(2), addSignature(formatRoot(root), channel->rootKeys[0], why));
    SourceTimestamp next = channel->timestamp();
    next.version += 1;
    next.rootVersion = 2;
    channel->serveTimestamp(next, channel->timestampKey);
    expectRefused("app", kTrustRefused, "needs 2 valid signatures of its 3 keys, has 1");

    // Root 3 where root 2 should be: the chain may not skip a version.
    fs::remove(repo / rootFileName(2));
    root.version = 3;
    std::string skipping = formatRoot(root);
    for (int key : {0, 1}) skipping = addSignature(skipping, channel->rootKeys[key], why);
    writeText(repo / rootFileName(2), skipping);
    expectRefused("app", kTrustRefused, "root 2 says it is version 3");

    // A proper root 2 that has expired.
    fs::remove(repo / rootFileName(2));
    channel->rotate([](SourceRoot& changed) { changed.expires = nowSeconds() - kDay; }, {0, 2});
    expectRefused("app", kMetadataExpired, "root 2 of test-source expired at");

    // Root 3 fixes it. Then a device whose clock is twenty days behind the
    // publisher's: judged by the newest issue time it saw, the catalog
    // sealed for ten days has expired, whatever its own clock says.
    channel->rotate([](SourceRoot& changed) { changed.expires = nowSeconds() + 365 * kDay; });
    publish(packageSource("other", "1.0"));
    channel->release("enu", nowSeconds(), 10, 7);
    EXPECT_EQ(lookup("app"), "1.0");
    channel->renew(nowSeconds() + 20 * kDay, 7);
    expectRefused("app", kMetadataExpired, "catalog enu version 2 of test-source expired at");
}

// A stolen timestamp key: it can fast-forward the kept version and hide a
// key rotation only until the device asks for a newer root; the rotation
// then undoes both.
TEST_F(ServerChannel, AStolenTimestampKeyIsRotatedOut) {
    publish(packageSource("app", "1.0"));
    serve();
    EXPECT_EQ(lookup("app"), "1.0");
    const SigningKey stolen = channel->timestampKey;
    const std::string legitimate = readFile(repo / kTimestampFile).value();
    SourceTimestamp forged = channel->timestamp();
    forged.version = 1000;
    channel->serveTimestamp(forged, stolen);
    EXPECT_EQ(lookup("app"), "1.0");  // nothing tells it apart yet

    // The publisher rotates the key and announces root 2.
    replaceServed(repo / kTimestampFile, legitimate);
    channel->rotateRoleKey(&TestSource::timestampKey);
    channel->renew();
    EXPECT_EQ(lookup("app"), "1.0");  // version 2 after 1000: the rotation reset it
    EXPECT_NE(readFile(stateDir() / "state").value().find("timestamp=\"2\""), std::string::npos);

    forged.version = 1001;
    forged.rootVersion = 1;
    channel->serveTimestamp(forged, stolen);
    expectRefused("app", kTrustRefused, "timestamp 1001 of test-source needs 1 valid");

    // A device that never saw root 2, fed the stolen key's timestamps with
    // the rotation hidden from it once: believed until its weekly root probe.
    fs::remove_all(stateDir());
    const std::string root2 = readFile(repo / rootFileName(2)).value();
    fs::remove(repo / rootFileName(2));
    writeText(repo / kNewestRootFile, readFile(repo / rootFileName(1)).value());
    EXPECT_EQ(lookup("app"), "1.0");
    writeText(repo / rootFileName(2), root2);
    EXPECT_EQ(lookup("app"), "1.0");
    probeDue();
    expectRefused("app", kTrustRefused, "timestamp 1001");
}

}  // namespace
}  // namespace quor::test
