// The store survives bad input, failing scripts, processes killed at any
// step of a change, and changes that run at the same time.
#include <gtest/gtest.h>
#include <sys/wait.h>
#include <unistd.h>

#include <csignal>
#include <functional>
#include <map>
#include <optional>
#include <sstream>
#include <thread>

#include "base/layout.h"
#include "quorpkg/scripts/process_group.h"
#include "quorpkg/store/lock.h"
#include "store_fixture.h"

namespace quor::test {
namespace {

// Logs and the lock file are not part of the store, nor is the index of
// installed packages (it records file identities, which differ between
// roots; expectListedAsStored checks it).
Snapshot snapshot(const fs::path& root) {
    return test::snapshot(root, {"run/quorpkg/lock", "var/log/", "var/cache/quorpkg/installed"});
}

// The listing through the manager (from the index where it is current)
// names every installed package with the version in its INFO.
void expectListedAsStored() {
    QUORPackageTool::PackageManager manager;
    std::vector<std::string> listed;
    for (const std::string& name : manager.enumPackages(nullptr, ~0ULL)) {
        QUORPackageTool::PackageInfo info;
        if (manager.getPackageInfo(name, info, nullptr, ~0ULL))
            listed.push_back(name + " " + info.version);
    }
    std::vector<std::string> stored;
    for (const std::string& name : installedPackages()) {
        Manifest manifest;
        if (readInstalledManifest(name, manifest) == kOk)
            stored.push_back(name + " " + manifest.version);
    }
    EXPECT_EQ(listed, stored);
}

// Runs `change` in a child process with QUOR_FAILPOINT set to `step`; true
// when the child died there.
bool killedAt(const std::string& step, const std::function<int()>& change) {
    return inChild([&] {
               ::setenv("QUOR_FAILPOINT", step.c_str(), 1);
               return change() == kOk ? 0 : 1;
           }) == -SIGKILL;
}

const auto install = installFile;

class StoreSafety : public ::testing::Test {
protected:
    // A fresh root holding one volume and whatever `setup` installs.
    struct Device {
        explicit Device(const std::function<void()>& setup) {
            root.addVolume(1);
            QUORPackageTool::PackageManager manager;
            EXPECT_TRUE(manager.init());
            if (setup) setup();
        }
        TempRoot root;
    };

    fs::path build(const PackageSource& source) { return buildTestPackage(files.path(), source); }

    // Kills `change` at each step and checks that the next change (here the
    // manager's init) finds the store as before the change, for the steps
    // in `before`, or as after it, for the rest.
    void crashAtEveryStep(const std::function<void()>& setup, const std::function<int()>& change,
                          const std::vector<std::string>& before,
                          const std::vector<std::string>& after) {
        Snapshot old, done;
        {
            Device device(setup);
            old = snapshot(device.root.path());
            ASSERT_EQ(change(), kOk);
            done = snapshot(device.root.path());
        }
        ASSERT_NE(old, done);
        for (const auto* steps : {&before, &after}) {
            for (const std::string& step : *steps) {
                Device device(setup);
                ASSERT_TRUE(killedAt(step, change)) << step;
                // Listed as stored even before recovery: the index may be
                // out of step now.
                expectListedAsStored();
                QUORPackageTool::PackageManager manager;
                ASSERT_TRUE(manager.init());
                EXPECT_EQ(snapshot(device.root.path()), steps == &before ? old : done) << step;
                expectListedAsStored();
            }
        }
    }

    TempDir files;
};

const std::vector<std::string> kEarlySteps = {"install-stage", "install-staged"};
const std::vector<std::string> kCommitSteps = {
    "install-commit", "install-payload", "install-package", "install-committed", "install-finish"};

PackageSource demo(const std::string& version, const std::string& content) {
    PackageSource source;
    source.version = version;
    source.files = {{"bin/demo", content}, {"share/" + version, version}};
    source.conf = {{"demo.conf", version}};
    source.scripts = {{"postinst", "#!/bin/sh\n"}, {"postupgrade", "#!/bin/sh\n"}};
    return source;
}

TEST_F(StoreSafety, KilledInstallOrUpgradeLeavesTheOldOrTheNewPackageWhole) {
    const fs::path one = build(demo("1.0", "one"));
    const fs::path two = build(demo("2.0", "two"));
    crashAtEveryStep(
        nullptr, [&] { return install(one); }, kEarlySteps, kCommitSteps);

    auto installOne = [&] {
        ASSERT_EQ(install(one), kOk);
        writeText(layout::varDir("demo") / "data", "kept");
    };
    crashAtEveryStep(
        installOne, [&] { return install(two); }, kEarlySteps, kCommitSteps);
}

TEST_F(StoreSafety, KilledRemovalLeavesThePackageOrNothing) {
    const fs::path one = build(demo("1.0", "one"));
    crashAtEveryStep([&] { ASSERT_EQ(install(one), kOk); },
                     [] { return removePackages({"demo"}, serviceHooks()); }, {"remove-prepare"},
                     {"remove-commit", "remove-package", "remove-finish"});
}

TEST_F(StoreSafety, KilledRollbackOfAFailedScriptStillEndsWithTheOldPackage) {
    PackageSource failing = demo("2.0", "two");
    failing.scripts["postinst"] = failing.scripts["postupgrade"] = "#!/bin/sh\nexit 1\n";
    const fs::path one = build(demo("1.0", "one"));
    const fs::path two = build(failing);
    for (bool upgrade : {false, true}) {
        Device device([&] {
            if (upgrade) {
                ASSERT_EQ(install(one), kOk);
            }
        });
        const Snapshot old = snapshot(device.root.path());
        EXPECT_EQ(install(two), kScriptFailed);
        EXPECT_EQ(snapshot(device.root.path()), old);
        ASSERT_TRUE(killedAt("install-rollback", [&] { return install(two); }));
        QUORPackageTool::PackageManager manager;
        ASSERT_TRUE(manager.init());
        EXPECT_EQ(snapshot(device.root.path()), old) << upgrade;
        expectListedAsStored();
    }
}

TEST_F(StoreSafety, AKilledChangesScriptDiesWithItAndTheRecoveryEndsWhatItStarted) {
    Device device(nullptr);
    PackageSource source;
    // The script starts a helper, then kills the process running the change.
    source.scripts = {{"preinst",
                       "#!/bin/sh\nsleep 600 &\necho \"$$ $!\" > \"$QUOR_ROOT/pids\"\n"
                       "kill -KILL $PPID\nsleep 600\n"}};
    const fs::path file = build(source);
    const std::vector<std::string> skipped = {"run/quorpkg/lock", "var/log/",
                                              "var/cache/quorpkg/installed", "pids"};
    const Snapshot old = test::snapshot(device.root.path(), skipped);
    ASSERT_EQ(inChild([&] { return install(file); }), -SIGKILL);
    std::istringstream pids(readFile(device.root.host("/pids")).value_or(""));
    pid_t script = 0, helper = 0;
    pids >> script >> helper;
    ASSERT_GT(helper, 0);

    // The script does not go on alone...
    for (int i = 0; i < 500 && liveProcess(script); ++i)
        std::this_thread::sleep_for(std::chrono::milliseconds(10));
    EXPECT_FALSE(liveProcess(script));
    // ...and what it started is ended by the next run, before it undoes
    // the change.
    QUORPackageTool::PackageManager manager;
    ASSERT_TRUE(manager.init());
    EXPECT_FALSE(liveProcess(helper));
    EXPECT_EQ(test::snapshot(device.root.path(), skipped), old);
    const std::string log = readFile(device.root.host("/var/log/quorpkg.log")).value_or("");
    const size_t ended = log.find("] package demo: ended preinst (process group " +
                                  std::to_string(script) + "), left running by a killed process\n");
    EXPECT_NE(ended, std::string::npos) << log;
    EXPECT_NE(log.find("] package demo: recovered an interrupted install (step stage): rolled "
                       "back, not installed\n",
                       ended),
              std::string::npos)
        << log;
    if (liveProcess(helper)) ::kill(helper, SIGKILL);
}

TEST_F(StoreSafety, BadFilesAndFailingScriptsLeaveTheStoreAsItWas) {
    Device device([&] {
        ASSERT_EQ(install(build(demo("1.0", "one"))), kOk);
        writeText(layout::varDir("demo") / "data", "kept");
    });
    const Snapshot old = snapshot(device.root.path());

    auto rawPackage = [&](const std::string& file, std::vector<TarEntry> payload,
                          std::string info = "") {
        const std::string bytes = tarBytes(payload, TarFilter::kGzip);
        if (info.empty()) info = infoText("demo", "3.0", bytes);
        writeTar(files.path() / file, {fileEntry("INFO", info), fileEntry("package.tgz", bytes)});
        return files.path() / file;
    };
    const std::vector<TarEntry> fine = {fileEntry("bin/demo", "three")};
    EXPECT_EQ(install(files.path() / "missing.zpk"), kFileUnreadable);
    EXPECT_EQ(install(files.path()), kFileUnreadable);
    writeText(files.path() / "garbage.zpk", std::string(3000, 'x'));
    EXPECT_EQ(install(files.path() / "garbage.zpk"), kFileUnreadable);
    EXPECT_EQ(install(rawPackage("badinfo.zpk", fine, "package=\"../demo\"\nversion=\"3\"\n")),
              kBadManifest);
    EXPECT_EQ(install(rawPackage("sum.zpk", fine, infoText("demo", "3.0", "other bytes"))),
              kChecksumMismatch);
    EXPECT_EQ(install(rawPackage("dots.zpk", {fileEntry("../../escape", "x")})), kUnsafeEntry);
    EXPECT_EQ(install(rawPackage("abs.zpk", {fileEntry("/etc/escape", "x")})), kUnsafeEntry);
    EXPECT_EQ(install(rawPackage("link.zpk", {symlinkEntry("bin/out", "../../../../etc")})),
              kUnsafeEntry);
    // A good package cut short.
    const std::string whole = readFile(rawPackage("whole.zpk", fine)).value();
    writeText(files.path() / "cut.zpk", whole.substr(0, whole.size() / 2));
    EXPECT_NE(install(files.path() / "cut.zpk"), kOk);

    for (const char* script : {"preupgrade", "postupgrade"}) {
        PackageSource source = demo("3.0", "three");
        source.scripts[script] = "#!/bin/sh\nexit 3\n";
        EXPECT_EQ(install(build(source)), kScriptFailed) << script;
    }
    for (const char* script : {"preinst", "postinst"}) {
        PackageSource source = demo("1.0", "new");
        source.name = "fresh";
        source.scripts[script] = "#!/bin/sh\nexit 3\n";
        EXPECT_EQ(install(build(source)), kScriptFailed) << script;
    }
    EXPECT_EQ(snapshot(device.root.path()), old);
}

TEST_F(StoreSafety, TwoInstallsStartedAtOnceRunOneAfterTheOther) {
    Device device(nullptr);
    std::vector<fs::path> packages;
    for (const char* name : {"alpha", "beta"}) {
        PackageSource source;
        source.name = name;
        source.scripts = {
            {"preinst", std::string("#!/bin/sh\necho begin >> \"$QUOR_ROOT/trace\"\n") +
                            "sleep 0.2\necho end >> \"$QUOR_ROOT/trace\"\n"}};
        packages.push_back(build(source));
    }
    std::vector<pid_t> children;
    for (const fs::path& file : packages) {
        pid_t pid = ::fork();
        if (pid == 0) ::_exit(install(file) == kOk ? 0 : 1);
        children.push_back(pid);
    }
    for (pid_t pid : children) {
        int status = 0;
        ::waitpid(pid, &status, 0);
        EXPECT_TRUE(WIFEXITED(status) && WEXITSTATUS(status) == 0);
    }
    EXPECT_EQ(readFile(device.root.host("/trace")), "begin\nend\nbegin\nend\n");
    EXPECT_EQ(installedPackages(), (std::vector<std::string>{"alpha", "beta"}));
}

TEST_F(StoreSafety, LockHolderIsRecordedWaitersGiveUpAndScriptsInheritIt) {
    Device device(nullptr);
    writeSettings("lock_timeout=\"0\"\n");
    std::optional<LockHolder> holder(std::in_place);
    ASSERT_TRUE(holder->locked());
    EXPECT_EQ(readFile(layout::lockFile()), std::to_string(holder->pid()) + "\n");
    EXPECT_EQ(install(build(PackageSource{})), kLocked);
    EXPECT_EQ(removePackages({"demo"}, serviceHooks()), kLocked);
    EXPECT_FALSE(StoreLock::tryAcquireFresh());
    ::setenv("QUOR_PKG_LOCK_HELD", "1", 1);
    int code = kOk;
    EXPECT_TRUE(StoreLock::acquire(code));
    EXPECT_FALSE(StoreLock::tryAcquireFresh());
    ::unsetenv("QUOR_PKG_LOCK_HELD");

    holder.reset();
    EXPECT_EQ(install(build(PackageSource{})), kOk);
    EXPECT_EQ(readFile(layout::lockFile()), "");
}

// An upgrade and a new install that do not fit, against demo 1.0 with data
// that must survive: each is refused with kNoSpace and the store is as before.
void expectFullVolumeKeepsTheStore(const fs::path& root, const fs::path& files,
                                   const std::function<int(const fs::path&)>& install) {
    QUORPackageTool::PackageManager manager;
    ASSERT_TRUE(manager.init());
    ASSERT_EQ(installFile(buildTestPackage(files, demo("1.0", "one"))), kOk);
    writeText(layout::varDir("demo") / "data", "kept");
    const Snapshot old = snapshot(root);

    // Zeros pack small, so the package file fits and only the unpack fills
    // the volume.
    PackageSource big = demo("2.0", "two");
    big.files["share/zeros"] = std::string(4 << 20, '\0');
    const fs::path upgrade = buildTestPackage(files, big);
    big.name = "other";
    const fs::path fresh = buildTestPackage(files, big);
    ASSERT_LT(fs::file_size(upgrade), 512u << 10);

    EXPECT_EQ(install(upgrade), kNoSpace);
    EXPECT_EQ(snapshot(root), old);
    EXPECT_EQ(install(fresh), kNoSpace);
    EXPECT_EQ(snapshot(root), old);
    Manifest manifest;
    ASSERT_EQ(readInstalledManifest("demo", manifest), kOk);
    EXPECT_EQ(manifest.version, "1.0");
}

TEST_F(StoreSafety, AFullVolumeRefusesTheChangeAndKeepsTheStore) {
    TempRoot root;
    root.addVolume(1);
    expectFullVolumeKeepsTheStore(root.path(), files.path(), [](const fs::path& file) {
        return withFileSizeLimit(1 << 20, [&] { return install(file); });
    });
}

// The same on a real full file system (ENOSPC), where mounting is allowed.
TEST_F(StoreSafety, AFullTmpfsVolumeRefusesTheChangeAndKeepsTheStore) {
    TempRoot root;
    Tmpfs volume(root.host("/volume1"), "1m");
    if (!volume.mounted()) GTEST_SKIP() << "mounting a tmpfs needs privileges this run lacks";
    expectFullVolumeKeepsTheStore(root.path(), files.path(), install);
}

}  // namespace
}  // namespace quor::test
