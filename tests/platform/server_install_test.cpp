// Installing from a package server in the background: volumes, required
// packages, starting, failed downloads, resuming, and one task at a time.
#include <fcntl.h>
#include <sys/stat.h>
#include <sys/wait.h>
#include <unistd.h>

#include <thread>

#include "base/file_util.h"
#include "base/layout.h"
#include "base/result.h"
#include "pkg_manager.h"
#include "pkg_server.h"
#include "quorpkg/service/services.h"
#include "quorpkg/store/installer.h"
#include "quorpkg/store/store.h"
#include "server_fixture.h"

namespace quor::test {
namespace {

const char* kService =
    "#!/bin/sh\ncase \"$1\" in\n"
    "start) touch \"$QUOR_PKG_VAR/running\";;\n"
    "stop) rm -f \"$QUOR_PKG_VAR/running\";;\n"
    "status) [ -f \"$QUOR_PKG_VAR/running\" ] && exit 0; exit 3;;\nesac\n";

PackageSource package(const std::string& name, const std::string& deps = "") {
    PackageSource source = packageSource(name, "1.0-0001", {{"displayname", "The " + name}});
    if (!deps.empty()) source.info.emplace_back("install_dep_packages", deps);
    source.scripts = {{"start-stop-status", kService}};
    return source;
}

using ServerInstall = ServerTest;

TEST_F(ServerInstall, GoesToTheDefaultVolumeANamedOneOrWhereTheDownloadFits) {
    publish(package("lib"));
    const fs::path app = publish(package("app", "lib>=1.0"));
    publish(package("tool"));
    publish(package("extra"));
    serve();

    setting("default_volume=\"volume2\"");
    Task task = installFromServer("app");
    EXPECT_EQ(task.state, "done") << task.message;
    EXPECT_EQ(task.code, kOk);
    EXPECT_EQ(task.user, "admin");
    EXPECT_EQ(task.total, fs::file_size(app));
    EXPECT_EQ(task.bytes, task.total);
    // The required package came from the server first, onto the same volume;
    // both were started, and the staging folder was cleared.
    EXPECT_EQ(installedVolume("app"), volume2);
    EXPECT_EQ(installedVolume("lib"), volume2);
    EXPECT_EQ(packageStatus("app"), 0);
    EXPECT_EQ(packageStatus("lib"), 0);
    EXPECT_TRUE(staged(volume2).empty());

    task = installFromServer("tool", "volume1");
    EXPECT_EQ(task.state, "done") << task.message;
    EXPECT_EQ(installedVolume("tool"), volume1);

    // A default volume that does not exist: the staging folder chosen for
    // the download's size names the volume instead.
    writeSettings("default_volume=\"volume9\"\n");
    std::string chosen;
    EXPECT_FALSE(QUORPackageTool::PMSGetPackageDefVol(chosen));
    EXPECT_EQ(lastResult(), kNoVolume);
    ASSERT_TRUE(QUORPackageTool::PMSGetTmpDir(4096, chosen));
    EXPECT_TRUE(fs::is_directory(chosen));
    EXPECT_EQ(fs::path(chosen).filename(), "quorpkg");
    EXPECT_FALSE(QUORPackageTool::PMSGetTmpDir(1ull << 62, chosen));
    EXPECT_EQ(lastResult(), kNoSpace);
    task = installFromServer("extra");
    EXPECT_EQ(task.state, "done") << task.message;
    EXPECT_TRUE(installedVolume("extra") == volume1 || installedVolume("extra") == volume2);

    std::string list;
    ASSERT_TRUE(QUORPackageTool::PMSGetListTmpDir(list));
    EXPECT_EQ(list, layout::listDir().string());
}

TEST_F(ServerInstall, ChecksTheRequestAndLeavesTheServiceOffWhenAsked) {
    const fs::path file = publish(package("quiet"));
    serve();
    Json::Value entry;
    ASSERT_TRUE(QUORPackageServer::GetPackageInfoFromServer("quiet", entry, true, "enu", false));
    const std::string link = entry["link"].asString();
    const std::string md5 = entry["md5"].asString();
    auto request = [&](const char* name, const char* volume, const char* url) {
        return QUORPackageServer::BackgroundInstall("", volume, name, "Quiet", nullptr, true, "enu",
                                                    fs::file_size(file), url, md5.c_str(), true,
                                                    false);
    };
    EXPECT_FALSE(request("../quiet", volume1.c_str(), link.c_str()));
    EXPECT_EQ(lastResult(), kBadArgument);
    EXPECT_FALSE(request("quiet", "volume7", link.c_str()));
    EXPECT_EQ(lastResult(), kNoVolume);
    EXPECT_FALSE(request("quiet", volume1.c_str(), "ftp://example.com/quiet.zpk"));
    EXPECT_EQ(lastResult(), kBadArgument);
    EXPECT_FALSE(fs::exists(layout::taskFile("quiet")));

    ASSERT_TRUE(request("quiet", volume1.c_str(), link.c_str()));
    Task task = waitForTask("quiet");
    EXPECT_EQ(task.state, "done") << task.message;
    EXPECT_EQ(installedVersion("quiet"), "1.0-0001");
    EXPECT_FALSE(isMarkedActive("quiet"));
    EXPECT_NE(packageStatus("quiet"), 0);
}

TEST_F(ServerInstall, ABadDownloadInstallsNothingAndSaysWhy) {
    const fs::path broken = publish(package("broken"));
    const fs::path shorter = publish(package("shorter"));
    const fs::path gone = publish(package("gone"));
    const fs::path needy = publish(package("needy", "absent>=2"));
    serve();
    // Served files that no longer match the catalog.
    std::string bytes = readFile(broken).value();
    bytes[bytes.size() / 2] ^= 0x55;
    writeText(broken, bytes);
    writeText(shorter, readFile(shorter).value().substr(0, 1000));
    fs::remove(gone);

    const std::pair<const char*, int> cases[] = {{"broken", kChecksumMismatch},
                                                 {"shorter", kDownloadFailed},
                                                 {"gone", kDownloadFailed},
                                                 {"needy", kMissingDependency}};
    for (const auto& [name, code] : cases) {
        Task task = installFromServer(name, "volume1");
        EXPECT_EQ(task.state, "failed") << name;
        EXPECT_EQ(task.code, code) << name;
        EXPECT_FALSE(task.message.empty()) << name;
        EXPECT_FALSE(isInstalled(name)) << name;
    }
    EXPECT_TRUE(installedPackages().empty());
    EXPECT_TRUE(staged(volume1).empty());
}

TEST_F(ServerInstall, AKeptPartIsContinuedOrStartedOverWhenTheServerCannotContinue) {
    const fs::path file = publish(package("big"));
    serve();
    const std::string bytes = readFile(file).value();
    Json::Value entry;
    ASSERT_TRUE(QUORPackageServer::GetPackageInfoFromServer("big", entry, true, "enu", false));
    const fs::path part =
        layout::volumeTmpDir(volume1) / ("big-" + entry["md5"].asString() + ".zpk.part");
    const std::string wrongHalf(bytes.size() / 2, 'x');

    // python's http.server ignores ranges: the whole file replaces the part.
    writeText(part, wrongHalf);
    Task task = installFromServer("big", "volume1");
    EXPECT_EQ(task.state, "done") << task.message;
    EXPECT_TRUE(staged(volume1).empty());

    // A file:// server continues the part: a wrong first half then shows as
    // a checksum failure, the part is dropped, and the next try succeeds.
    ASSERT_EQ(removePackages({"big"}, serviceHooks()), kOk);
    writeText(layout::sourcesFile(), sourcesLine("file://" + repo.string()) + "\n");
    writeText(part, wrongHalf);
    task = installFromServer("big", "volume1");
    EXPECT_EQ(task.code, kChecksumMismatch);
    EXPECT_FALSE(fs::exists(part));
    writeText(part, bytes.substr(0, bytes.size() / 2));
    task = installFromServer("big", "volume1");
    EXPECT_EQ(task.state, "done") << task.message;
}

TEST_F(ServerInstall, ASecondRequestIsRefusedWhileTheFirstRuns) {
    const fs::path file = publish(package("slow"));
    index();
    // The worker blocks reading the fifo until the test feeds it the file.
    const std::string bytes = readFile(file).value();
    fs::remove(file);
    ASSERT_EQ(::mkfifo(file.c_str(), 0644), 0);
    writeText(layout::sourcesFile(), sourcesLine("file://" + repo.string()) + "\n");
    Json::Value entry;
    ASSERT_TRUE(QUORPackageServer::GetPackageInfoFromServer("slow", entry, true, "enu", false));
    auto request = [&] {
        return QUORPackageServer::BackgroundInstall(
            "", "volume1", "slow", "Slow", nullptr, false, "enu", entry["size"].asUInt64(),
            entry["link"].asCString(), entry["md5"].asCString(), true, false);
    };
    ASSERT_TRUE(request());
    EXPECT_FALSE(request());
    EXPECT_EQ(lastResult(), kTaskRunning);

    UniqueFd fifo;
    for (int i = 0; i < 3000 && !fifo; ++i) {
        fifo = UniqueFd(::open(file.c_str(), O_WRONLY | O_NONBLOCK | O_CLOEXEC));
        if (!fifo) std::this_thread::sleep_for(std::chrono::milliseconds(20));
    }
    ASSERT_TRUE(fifo) << "the worker never opened the file";
    ::fcntl(fifo.get(), F_SETFL, 0);
    ASSERT_EQ(::write(fifo.get(), bytes.data(), bytes.size()), static_cast<ssize_t>(bytes.size()));
    fifo = UniqueFd();
    EXPECT_EQ(waitForTask("slow").state, "done");

    // A task whose worker died is not running any more.
    ASSERT_EQ(removePackages({"slow"}, serviceHooks()), kOk);
    const pid_t dead = ::fork();
    if (dead == 0) ::_exit(0);
    ::waitpid(dead, nullptr, 0);
    Task stale;
    stale.name = "slow";
    stale.state = "downloading";
    stale.pid = dead;
    ASSERT_TRUE(writeTask(stale));
    fs::remove(file);
    writeText(file, bytes);
    ASSERT_TRUE(request()) << lastResult();
    EXPECT_EQ(waitForTask("slow").state, "done");
}

}  // namespace
}  // namespace quor::test
