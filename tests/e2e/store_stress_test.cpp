// The built binary killed with SIGKILL at random moments of an install, an
// upgrade or a removal, and many runs at once on the same package: after
// each, the store is exactly one of the whole states it can be in.
//
// Rounds are drawn from a seed that each test prints; QUOR_TEST_SEED=<n>
// replays one.
#include <gtest/gtest.h>
#include <signal.h>
#include <sys/wait.h>
#include <unistd.h>

#include <algorithm>
#include <chrono>
#include <cstdlib>
#include <random>
#include <thread>

#include "tool_runner.h"

namespace quor::e2e {
namespace {

using test::Snapshot;

// The store: logs, caches (the index of installed packages, which `list`
// checks against the store) and run-time state (the lock, active marks) are
// not part of it.
Snapshot snapshot(const fs::path& root) {
    return test::snapshot(root, {"var/log/", "var/cache/", "run/"});
}

unsigned testSeed() {
    const char* given = std::getenv("QUOR_TEST_SEED");
    unsigned seed =
        given ? static_cast<unsigned>(std::strtoul(given, nullptr, 10)) : std::random_device{}();
    std::cout << "seed " << seed << " (replay with QUOR_TEST_SEED=" << seed << ")\n";
    ::testing::Test::RecordProperty("seed", std::to_string(seed));
    return seed;
}

test::PackageSource version(const std::string& number) {
    test::PackageSource source;
    source.version = number;
    source.files = {{"bin/demo", "#!/bin/sh\necho " + number + "\n"},
                    {"share/" + number, std::string(200000, 'v')}};
    source.conf = {{"demo.conf", number}};
    source.scripts = {
        {"postinst", "#!/bin/sh\n"}, {"postupgrade", "#!/bin/sh\n"}, {"preuninst", "#!/bin/sh\n"}};
    return source;
}

class StoreStress : public ::testing::Test {
protected:
    void SetUp() override {
        // Eight runs queue for the store lock at once, each waiting for all
        // the others: slow under sanitizers, so not the test roots' 2 s.
        test::writeSettings("lock_timeout=\"120\"\n");
        one = device.package(version("1.0"));
        two = device.package(version("2.0"));
        // The whole states, made without interruption, and what list says.
        remember();
        run({"install", one});
        remember();
        run({"install", two});
        remember();
        run({"uninstall", "demo"});
        ASSERT_EQ(snapshot(device.root().path()), states[0]);
    }

    void remember() {
        states.push_back(snapshot(device.root().path()));
        listings.push_back(device.quorpkg({"list"}).out);
    }

    // Runs a change to its end and remembers how long it took.
    void run(const std::vector<std::string>& args) {
        const auto start = std::chrono::steady_clock::now();
        ASSERT_EQ(device.quorpkg(args).status, 0) << ::testing::PrintToString(args);
        const auto took = std::chrono::steady_clock::now() - start;
        longest = std::max(longest, std::chrono::duration_cast<std::chrono::microseconds>(took));
    }

    // The paths where the store differs from whole state `i`, for a
    // failure's message.
    std::string differenceFrom(size_t i) const {
        const Snapshot now = snapshot(device.root().path());
        std::string out;
        for (const auto& [path, content] : now)
            if (auto it = states[i].find(path); it == states[i].end() || it->second != content)
                out += " " + path + (it == states[i].end() ? " (added)" : " (changed)");
        for (const auto& [path, content] : states[i])
            if (!now.count(path)) out += " " + path + " (missing)";
        return out;
    }

    // Which whole state the store is in: 0 none, 1 version 1.0, 2 version
    // 2.0; -1 for anything else.
    int stateNow() const {
        const Snapshot now = snapshot(device.root().path());
        for (size_t i = 0; i < states.size(); ++i)
            if (now == states[i]) return static_cast<int>(i);
        return -1;
    }

    Device device;
    std::string one, two;
    std::vector<Snapshot> states;
    std::vector<std::string> listings;
    std::chrono::microseconds longest{0};
};

TEST_F(StoreStress, AKillAtAnyMomentLeavesTheOldOrTheNewStore) {
    std::mt19937 random(testSeed());
    int state = 0;
    int interrupted = 0;  // rounds that left a change for the next run to finish
    const int kRounds = 40;
    for (int round = 0; round < kRounds; ++round) {
        // From each state, one of the changes it allows, and where it leads.
        std::vector<std::pair<std::vector<std::string>, int>> changes;
        if (state != 1) changes.push_back({{"install", one}, 1});
        if (state != 2) changes.push_back({{"install", two}, 2});
        if (state != 0) changes.push_back({{"uninstall", "demo"}, 0});
        const auto& [args, next] = changes[random() % changes.size()];
        SCOPED_TRACE("round " + std::to_string(round) + ": " + args[0] + " " + args[1] +
                     " from state " + std::to_string(state));

        // Anywhere from the start to a little after the slowest change.
        const auto delay = std::chrono::microseconds(random() % (longest.count() * 11 / 10 + 1));
        pid_t pid = startProgram(QUORPKG_BINARY, args, device.packageDir());
        std::this_thread::sleep_for(delay);
        ::kill(pid, SIGKILL);
        int status = 0;
        ::waitpid(pid, &status, 0);

        // The next run finishes or undoes the change first.
        const fs::path journal = device.root().host("/var/packages/.journal");
        std::error_code ec;
        if (fs::exists(journal, ec) && !fs::is_empty(journal, ec)) ++interrupted;
        const RunResult listed = device.quorpkg({"list"});
        ASSERT_EQ(listed.status, 0);
        const int now = stateNow();
        ASSERT_TRUE(now == state || now == next)
            << "a half-changed store; against the state before:" << differenceFrom(state)
            << "; against the state after:" << differenceFrom(next);
        ASSERT_EQ(listed.out, listings[now]) << "list disagrees with the store";
        state = now;
    }
    std::cout << interrupted << " of " << kRounds << " kills interrupted a change\n";
}

TEST_F(StoreStress, ManyRunsAtOnceKeepTheStoreWhole) {
    std::mt19937 random(testSeed());
    const int kRounds = 4;
    const int kRuns = 8;
    const std::vector<std::vector<std::string>> commands = {
        {"install", one}, {"install", two}, {"uninstall", "demo"}, {"status", "demo"}};
    for (int round = 0; round < kRounds; ++round) {
        SCOPED_TRACE("round " + std::to_string(round));
        std::vector<std::thread> threads;
        std::vector<std::pair<const std::vector<std::string>*, RunResult>> results(kRuns);
        for (auto& [command, result] : results) {
            command = &commands[random() % commands.size()];
            threads.emplace_back([this, &command, &result] { result = device.quorpkg(*command); });
        }
        for (std::thread& thread : threads) thread.join();

        for (const auto& [command, result] : results) {
            const std::string& word = (*command)[0];
            SCOPED_TRACE(::testing::PrintToString(*command) + " said " + result.out);
            if (word == "install") {
                // Each waits for the lock and then succeeds.
                EXPECT_EQ(result.status, 0);
                EXPECT_EQ(result.out, (*command)[1] + " install successfully\n");
            } else if (word == "uninstall") {
                EXPECT_TRUE(result.status == 0 || result.status == 1);
                EXPECT_EQ(result.out, "");
            } else {
                // Never a half-changed package: stopped, or not there.
                EXPECT_TRUE((result.status == 3 && result.out == "demo package is stopped\n"
                                                                 "Status: [3]\n") ||
                            (result.status == 4 && result.out == "No such package demo\n"
                                                                 "Status: [255]\n"));
            }
        }
        EXPECT_NE(stateNow(), -1) << "a half-changed store";
        EXPECT_EQ(device.quorpkg({"list"}).status, 0);
    }
}

}  // namespace
}  // namespace quor::e2e
