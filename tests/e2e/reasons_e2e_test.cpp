// Every refusal leaves a line in $QUOR_ROOT/var/log/quorpkg.log that names
// its culprit, while the tool's output stays as it was.
#include <fcntl.h>
#include <gtest/gtest.h>
#include <sys/file.h>
#include <unistd.h>

#include "base/file_util.h"
#include "published_source.h"
#include "server_fixture.h"
#include "tool_runner.h"

namespace quor::e2e {
namespace {

using test::PackageSource;

class Reasons : public ::testing::Test {
protected:
    // The lines of the platform log written since the last call, without
    // their time and pid when `bare`.
    std::vector<std::string> newLines(bool bare = false) {
        const std::string text = readFile(device.root().host("/var/log/quorpkg.log")).value_or("");
        const size_t from = std::min(seen_, text.size());
        seen_ = text.size();
        std::vector<std::string> lines = test::textLines(std::string_view(text).substr(from));
        if (bare)
            for (std::string& line : lines) line.erase(0, line.find("] ") + 2);
        return lines;
    }

    // Runs quorpkg, checks its output, and expects one new log line that
    // holds every one of `words`.
    void refused(const std::vector<std::string>& args, const std::string& out,
                 const std::vector<std::string>& words) {
        device.expect(args, out, 1);
        expectLine(words, ::testing::PrintToString(args));
    }

    void expectLine(const std::vector<std::string>& words, const std::string& what) {
        const std::vector<std::string> lines = newLines();
        std::string all;
        for (const std::string& line : lines) all += line + "\n";
        bool found = false;
        for (const std::string& line : lines) {
            bool hasAll = true;
            for (const std::string& word : words) hasAll = hasAll && line.find(word) != npos;
            found = found || hasAll;
        }
        EXPECT_TRUE(found) << what << " left no line naming " << ::testing::PrintToString(words)
                           << "; new lines:\n"
                           << all;
    }

    // A package file written by hand: INFO, the payload and extra members.
    std::string rawPackage(const std::string& file, const std::vector<test::TarEntry>& payload,
                           const std::string& checksumOf = "") {
        const std::string bytes = test::tarBytes(payload, test::TarFilter::kGzip);
        test::writeTar(
            device.packageDir() / file,
            {test::fileEntry("INFO",
                             test::infoText("raw", "1.0", checksumOf.empty() ? bytes : checksumOf)),
             test::fileEntry("package.tgz", bytes)});
        return file;
    }

    static constexpr size_t npos = std::string::npos;
    Device device;
    size_t seen_ = 0;
};

TEST_F(Reasons, EveryRefusalNamesItsCulprit) {
    // Files typed relative to the working folder are named absolute.
    const std::string here = fs::canonical(device.packageDir()).string() + "/";
    refused({"install", "./missing.zpk"},
            "Failed to install package ./missing.zpk, error = [110]\n",
            {"installZPK " + here + "missing.zpk: 110", "cannot open " + here + "missing.zpk"});

    PackageSource needy =
        test::packageSource("needy", "1.0", {{"install_dep_packages", "base>=2"}});
    const std::string needyFile = device.package(needy);
    refused({"install", needyFile}, "Failed to install package " + needyFile + ", error = [120]\n",
            {"installZPK", ": 120 ", "needy requires base >=2", "not installed"});
    PackageSource oldBase = test::packageSource("base", "1.5");
    ASSERT_EQ(device.quorpkg({"install", device.package(oldBase)}).status, 0);
    EXPECT_EQ(device.quorpkg({"install", needyFile}).status, 1);
    expectLine({": 120 ", "needy requires base >=2", "installed: 1.5"}, "too old a requirement");

    ASSERT_EQ(
        device.quorpkg({"install", device.package(test::packageSource("base", "2.0"))}).status, 0);
    ASSERT_EQ(device.quorpkg({"install", needyFile}).status, 0);
    expectLine({"installZPK " + here + needyFile + ": 0 done"}, "a successful install");
    refused({"uninstall", "base"}, "", {"uninstallPKGs base: 123", "required by installed needy"});

    refused({"install", rawPackage("dots.zpk", {test::fileEntry("../../escape", "x")})},
            "Failed to install package dots.zpk, error = [113]\n",
            {": 113 ", "dots.zpk", "../../escape"});
    refused({"install", rawPackage("sum.zpk", {test::fileEntry("bin/raw", "x")}, "other bytes")},
            "Failed to install package sum.zpk, error = [112]\n",
            {": 112 ", "sum.zpk", "checksum mismatch of package.tgz"});
    refused({"query", "missing.zpk", "more"}, "Failed to query package missing.zpk, 110\n",
            {"queryPackageFileInfo " + here + "missing.zpk: 110"});

    PackageSource failing = test::packageSource("failing");
    failing.scripts["preinst"] = "#!/bin/sh\nexit 7\n";
    const std::string failingFile = device.package(failing);
    refused({"install", failingFile},
            "Failed to install package " + failingFile + ", error = [130]\n",
            {": 130 ", "failing: preinst failed with exit code 7"});

    PackageSource gamma = test::packageSource("gamma");
    gamma.scripts["start-stop-status"] = "#!/bin/sh\n[ \"$1\" = start ] && exit 9\nexit 3\n";
    ASSERT_EQ(device.quorpkg({"install", device.package(gamma)}).status, 0);
    test::writeText(device.root().host("/var/packages/gamma/enabled"), "");
    refused({"onoffall", "start", "boot"}, "Failed to start all packages 130\n",
            {"serviceControlOnOffALL start -: 130",
             "gamma: start-stop-status start failed with "
             "exit code 9"});
    // A status answer is not a refusal: it leaves no line.
    EXPECT_EQ(device.quorpkg({"status", "gamma"}).status, 3);
    EXPECT_EQ(newLines(), std::vector<std::string>{});

    PackageSource a = test::packageSource("a", "1.0", {{"install_dep_packages", "b"}});
    PackageSource b = test::packageSource("b", "1.0", {{"install_dep_packages", "a"}});
    const std::string aFile = device.package(a), bFile = device.package(b);
    refused({"sort_zpk_by_dep_order", aFile, bFile}, "Failed to sort built-in packages\n",
            {"topologicalSortPkgs -: 122", "a, b require each other"});

    // Another process holds the store lock.
    test::writeText(device.root().host("/etc/quorpkg/settings"), "lock_timeout=\"0\"\n");
    const fs::path lockFile = device.root().host("/run/quorpkg/lock");
    fs::create_directories(lockFile.parent_path());
    UniqueFd lock(::open(lockFile.c_str(), O_RDWR | O_CREAT | O_CLOEXEC, 0644));
    ASSERT_TRUE(lock);
    ASSERT_EQ(::flock(lock.get(), LOCK_EX), 0);
    const std::string pid = std::to_string(::getpid());
    ASSERT_EQ(::pwrite(lock.get(), pid.data(), pid.size(), 0), static_cast<ssize_t>(pid.size()));
    refused({"uninstall", "needy"}, "", {"uninstallPKGs needy: 102", "locked by pid " + pid});
}

TEST_F(Reasons, EveryChangeLeavesALinePerPackageChanged) {
    const std::string here = fs::canonical(device.packageDir()).string() + "/";
    auto install = [&](const PackageSource& source) {
        EXPECT_EQ(device.quorpkg({"install", device.package(source)}).status, 0) << source.version;
    };
    PackageSource demo = test::packageSource("demo", "1.0");
    install(demo);
    demo.version = "2.0";
    install(demo);
    // A local install of an older file is allowed: a downgrade.
    demo.version = "1.5";
    install(demo);
    install(demo);
    PackageSource failing = test::packageSource("failing");
    failing.scripts["start-stop-status"] = "#!/bin/sh\n[ \"$1\" = start ] && exit 9\nexit 3\n";
    install(failing);
    ASSERT_EQ(device.quorpkg({"uninstall", "demo"}).status, 0);
    EXPECT_EQ(newLines(true), (std::vector<std::string>{
                                  "package demo: installed 1.0",
                                  "installZPK " + here + "demo-1.0.zpk: 0 done",
                                  "package demo: upgraded from 1.0 to 2.0",
                                  "installZPK " + here + "demo-2.0.zpk: 0 done",
                                  "package demo: downgraded from 2.0 to 1.5",
                                  "installZPK " + here + "demo-1.5.zpk: 0 done",
                                  "package demo: reinstalled 1.5",
                                  "installZPK " + here + "demo-1.5.zpk: 0 done",
                                  "package failing: installed 1.0-0001",
                                  "package failing: start failed (130), turned off",
                                  "installZPK " + here + "failing-1.0-0001.zpk: 0 done",
                                  "package demo: removed 1.5",
                                  "uninstallPKGs demo: 0 done",
                              }));
}

TEST_F(Reasons, ADownloadTheServerRefusesNamesTheUrlAndStatus) {
    PublishedSource source(device);
    source.publish(test::packageSource("remote"));
    source.release();
    const std::string file = "remote-1.0-0001.zpk";
    fs::remove(source.repo() / file);
    test::HttpServer server(source.repo());
    test::writeText(device.root().host("/etc/quorpkg/sources"),
                    source.sourcesLine(server.url()) + "\n");

    // Queued, so the command succeeds; the background worker logs the refusal.
    device.expect({"install_from_server", "remote"}, "", 0);
    EXPECT_EQ(test::waitForTask("remote").state, "failed");
    expectLine({"install_from_server worker remote: 162", server.url() + file, "HTTP status 404"},
               "a download of a missing file");

    device.expect({"install_from_server", "ghost"}, "Failed to query package list from server\n",
                  1);
    expectLine({"GetPackageInfoFromServer ghost: 161", "no configured server offers ghost"},
               "a package the server does not offer");

    fs::remove(source.repo() / "timestamp");
    device.expect({"chkupgradepkg"}, "Fail to check upgrable packages in Quorvel package server\n",
                  1);
    expectLine({"PMSCheckUpgrade -: 160", server.url() + "timestamp", "HTTP status 404"},
               "a server without a timestamp");
}

}  // namespace
}  // namespace quor::e2e
