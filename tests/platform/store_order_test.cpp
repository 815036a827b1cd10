// Dependency orders, listings and package records through the manager.
#include <gtest/gtest.h>

#include <algorithm>
#include <map>
#include <random>
#include <set>

#include "base/layout.h"
#include "quorpkg/api/package_record.h"
#include "quorpkg/package/manifest.h"
#include "quorpkg/store/dependencies.h"
#include "store_fixture.h"

namespace quor::test {
namespace {

using QUORPackageTool::PackageInfo;
using QUORPackageTool::PackageManager;

// A package's manifest: `needs` is an install_dep_packages value.
Manifest record(const std::string& name, const std::string& needs = "") {
    Manifest manifest;
    std::string info = "package=\"" + name + "\"\nversion=\"1.0\"\n";
    if (!needs.empty()) info += "install_dep_packages=\"" + needs + "\"\n";
    EXPECT_EQ(parseManifest(info, manifest), kOk) << info;
    return manifest;
}

// The record a package file query gives for it.
PackageInfo infoRecord(const std::string& name, const std::string& needs = "") {
    PackageInfo out;
    fillPackageInfo(record(name, needs), 0, out);
    return out;
}

std::vector<std::string> sorted(const std::vector<Manifest>& records, int expected = kOk) {
    std::vector<std::string> out = {"stale"};
    EXPECT_EQ(topologicalSort(records, out), expected);
    return out;
}

using Names = std::vector<std::string>;

TEST(StoreOrder, SortPutsDependentsFirstAndLetsInputOrderDecideTheRest) {
    EXPECT_EQ(sorted({record("a"), record("b"), record("c")}), (Names{"a", "b", "c"}));
    // a waits for both of its dependents; b and c keep their input order.
    EXPECT_EQ(sorted({record("b", "a"), record("a"), record("c", "a>=1")}), (Names{"b", "c", "a"}));
    // Requirements outside the set and on itself order nothing; a repeated
    // name counts once, as first given.
    EXPECT_EQ(sorted({record("x", "outside:x"), record("y", "x"), record("x", "y")}),
              (Names{"y", "x"}));
    EXPECT_EQ(sorted({}), Names{});

    EXPECT_EQ(sorted({record("a", "b"), record("b", "c"), record("c", "a"), record("d")},
                     kDependencyCycle),
              Names{});
    TempRoot root;  // the refusal is logged under it
    PackageManager manager;
    std::vector<PackageInfo> cycle = {infoRecord("p", "q"), infoRecord("q", "p")};
    Names out;
    EXPECT_FALSE(manager.topologicalSortPkgs(&cycle, out));
    EXPECT_EQ(manager.getResult(), kDependencyCycle);
}

// The order the sort promises, found the plain way: each round scans for
// the first record in input order that no unplaced record needs.
Names slowSort(const std::vector<std::pair<std::string, std::set<std::string>>>& graph) {
    std::map<std::string, size_t> index;
    for (size_t i = 0; i < graph.size(); ++i) index[graph[i].first] = i;
    std::vector<size_t> requiredBy(graph.size(), 0);
    for (const auto& [name, needs] : graph)
        for (const std::string& required : needs) ++requiredBy[index[required]];
    Names out;
    std::vector<bool> placed(graph.size(), false);
    for (size_t round = 0; round < graph.size(); ++round) {
        size_t i = 0;
        while (placed[i] || requiredBy[i] != 0) ++i;
        placed[i] = true;
        out.push_back(graph[i].first);
        for (const std::string& required : graph[i].second) --requiredBy[index[required]];
    }
    return out;
}

TEST(StoreOrder, SortMatchesTheSlowDefinitionOnLargeRandomSets) {
    std::mt19937 random(7);
    for (size_t size : {70u, 700u, 5000u}) {
        // Names shuffled so input order and requirement order differ; each
        // package needs up to three with a lower rank, so there is no cycle.
        std::vector<size_t> rank(size);
        for (size_t i = 0; i < size; ++i) rank[i] = i;
        std::shuffle(rank.begin(), rank.end(), random);
        std::vector<std::pair<std::string, std::set<std::string>>> graph(size);
        std::vector<Manifest> records;
        for (size_t i = 0; i < size; ++i) {
            graph[i].first = "p" + std::to_string(rank[i]);
            std::string needs;
            for (int k = 0; k < 3 && rank[i] > 0; ++k) {
                std::string target = "p" + std::to_string(random() % rank[i]);
                graph[i].second.insert(target);
                needs += (needs.empty() ? "" : ":") + target;
            }
            records.push_back(record(graph[i].first, needs));
        }
        Names out = sorted(records);
        ASSERT_EQ(out.size(), size);
        EXPECT_EQ(out, slowSort(graph)) << size;
        std::map<std::string, size_t> position;
        for (size_t i = 0; i < out.size(); ++i) position[out[i]] = i;
        for (const auto& [name, needs] : graph)
            for (const std::string& required : needs) EXPECT_LT(position[name], position[required]);
    }
}

class StoreListing : public StoreTest {
protected:
    void add(const std::string& name, const std::string& needs = "") {
        PackageSource source;
        source.name = name;
        source.info = {{"description", "about " + name}};
        if (!needs.empty()) source.info.emplace_back("install_dep_packages", needs);
        ASSERT_EQ(install(source), kOk) << name;
    }
};

TEST_F(StoreListing, DependentsComeBeforeWhatTheyNeedAndTheNamedPackageLast) {
    add("base");
    add("mid", "base");
    add("side", "base");
    add("top", "mid");
    add("lone");
    EXPECT_EQ(dependentsOf("base", true), (Names{"side", "top", "mid", "base"}));
    EXPECT_EQ(dependentsOf("base", false), (Names{"mid", "side", "base"}));
    EXPECT_EQ(dependentsOf("lone", true), Names{"lone"});
    Names order = installOrder();
    EXPECT_EQ(order, (Names{"base", "lone", "mid", "side", "top"}));

    PackageManager manager;
    Names out;
    EXPECT_TRUE(manager.getDependencyOrder("mid", out, true));
    EXPECT_EQ(out, (Names{"top", "mid"}));
    EXPECT_FALSE(manager.getDependencyOrder("ghost", out, true));
    EXPECT_EQ(manager.getResult(), kNoSuchPackage);
    EXPECT_EQ(out, Names{"ghost"});
}

TEST_F(StoreListing, ListsInByteOrderAndWorksWithoutInit) {
    for (const char* name : {"b", "a.b", "Z9", "a", "B"}) add(name);
    // A broken package is listed by name but has no record. Edited by hand,
    // it shows once the index is gone (or after the next change).
    fs::remove(layout::packageDir("a.b") / "INFO");
    fs::remove(root.host("/var/cache/quorpkg/installed"));

    PackageManager manager;  // never initialised
    EXPECT_EQ(manager.enumPackages(nullptr, ~0ULL), (Names{"B", "Z9", "a", "a.b", "b"}));
    std::vector<PackageInfo> records(1);
    EXPECT_TRUE(manager.enumPackageInfo(records, nullptr, ~0ULL));
    Names listed;
    for (const PackageInfo& info : records) listed.push_back(info.name);
    EXPECT_EQ(listed, (Names{"B", "Z9", "a", "b"}));
    EXPECT_EQ(records[0].description, "about B");

    PackageInfo info;
    EXPECT_TRUE(manager.getPackageInfo("Z9", info, nullptr, ~0ULL));
    EXPECT_EQ(info.version, "1.0-0001");
    EXPECT_FALSE(manager.getPackageInfo("a.b", info, nullptr, ~0ULL));
    EXPECT_EQ(manager.getResult(), kBroken);
    EXPECT_FALSE(PackageManager::getInstallPackageInfo("ghost", info, nullptr, ~0ULL));
    EXPECT_EQ(manager.getResult(), kNoSuchPackage);
    EXPECT_FALSE(PackageManager::getInstallPackageInfo("", info, nullptr, ~0ULL));
    EXPECT_EQ(manager.getResult(), kBadArgument);

    EXPECT_EQ(manager.getPackageLog("a"), layout::logFile("a").string());
    EXPECT_EQ(manager.getPackageLog("ghost"), "");
    EXPECT_EQ(manager.getResult(), kNoSuchPackage);
}

TEST_F(StoreListing, QueryReadsTheFileAndARootThatCannotHoldTheStoreRefusesChanges) {
    PackageSource source;
    source.name = "query";
    source.info = {{"displayname", "Query Me"}, {"admin_port", "8080"}};
    source.scripts = {{"postinst", "#!/bin/sh\n"}, {"start-stop-status", "#!/bin/sh\n"}};
    const fs::path file = build(source);
    PackageInfo info;
    ASSERT_TRUE(PackageManager::queryPackageFileInfo(
        file.string(), info, QUORPackageTool::PKG_INSTALLATION_TYPE_NONE, nullptr));
    EXPECT_EQ(info.name, "query");
    EXPECT_EQ(info.displayname, "Query Me");
    EXPECT_EQ(info.admin_port, 8080);
    EXPECT_EQ(info.script_mask, 2 | 64);

    PackageManager manager;
    EXPECT_FALSE(PackageManager::queryPackageFileInfo((files.path() / "none.zpk").string(), info,
                                                      QUORPackageTool::PKG_INSTALLATION_TYPE_NONE,
                                                      nullptr));
    EXPECT_EQ(manager.getResult(), kFileUnreadable);
    EXPECT_FALSE(manager.installZPK(nullptr, "", ""));
    EXPECT_EQ(manager.getResult(), kBadArgument);

    ASSERT_TRUE(manager.init());
    ASSERT_TRUE(manager.installZPK("/volume1", file.string(), ""));
    EXPECT_EQ(manager.enumPackages(nullptr, ~0ULL), Names{"query"});

    // A root that cannot hold the store reads as empty and refuses changes.
    TempRoot blocked;
    blocked.addVolume(1);
    writeText(blocked.host("/var"), "not a directory");
    PackageManager other;
    EXPECT_TRUE(other.init());
    EXPECT_TRUE(other.enumPackages(nullptr, ~0ULL).empty());
    EXPECT_FALSE(other.installZPK("/volume1", file.string(), ""));
    EXPECT_EQ(other.getResult(), kStoreUnusable);
}

}  // namespace
}  // namespace quor::test
