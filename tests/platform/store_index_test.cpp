// The index of installed packages: listings through it always show what
// /var/packages holds, however the index got out of step.
#include <fcntl.h>
#include <gtest/gtest.h>
#include <sys/stat.h>

#include <ctime>

#include "base/layout.h"
#include "quorpkg/package/package_file.h"
#include "quorpkg/store/installed_index.h"
#include "store_fixture.h"

namespace quor::test {
namespace {

using QUORPackageTool::PackageInfo;
using QUORPackageTool::PackageManager;

class InstalledIndexTest : public StoreTest {
protected:
    void install(const std::string& name, const std::string& version,
                 std::map<std::string, std::string> scripts = {}) {
        PackageSource source;
        source.name = name;
        source.version = version;
        source.info = {{"description", name + " at " + version}};
        source.scripts = std::move(scripts);
        ASSERT_EQ(StoreTest::install(source), kOk) << name;
    }

    // What `quorpkg list` prints, through the manager.
    std::string listing() {
        PackageManager manager;
        std::string out;
        for (const std::string& name : manager.enumPackages(nullptr, ~0ULL)) {
            PackageInfo info;
            if (manager.getPackageInfo(name, info, nullptr, ~0ULL))
                out += info.name + "-" + info.version + ": " + info.description + " " +
                       std::to_string(info.script_mask) + "\n";
        }
        return out;
    }

    fs::path indexFile() const { return root.host("/var/cache/quorpkg/installed"); }

    // Dates the index an hour ahead, so that only the identities it records
    // can tell that it is out of step.
    void indexWrittenLater() {
        timespec later[2];
        ::clock_gettime(CLOCK_REALTIME, &later[0]);
        later[0].tv_sec += 3600;
        later[1] = later[0];
        ASSERT_EQ(::utimensat(AT_FDCWD, indexFile().c_str(), later, 0), 0);
    }
};

TEST_F(InstalledIndexTest, ChangesKeepTheIndexInStepAndListingsUseIt) {
    install("alpha", "1.0");
    install("beta", "1.0", {{"start-stop-status", "#!/bin/sh\n"}});
    const std::string both = listing();
    EXPECT_EQ(both, "alpha-1.0: alpha at 1.0 0\nbeta-1.0: beta at 1.0 " +
                        std::to_string(kStartStopStatus) + "\n");
    InstalledIndex index;
    ASSERT_TRUE(parseIndex(readFile(indexFile()).value(), index));
    EXPECT_EQ(index.names(), (std::vector<std::string>{"alpha", "beta"}));

    // Once current, a listing takes every entry from the index: an entry
    // whose manifest was swapped in the index (identities kept) shows.
    indexWrittenLater();
    listing();
    ASSERT_TRUE(parseIndex(readFile(indexFile()).value(), index));
    std::string text = readFile(indexFile()).value();
    const std::string from = "description=\"alpha at 1.0\"", to = "description=\"alpha at 1.X\"";
    text.replace(text.find(from), from.size(), to);
    writeText(indexFile(), text);
    indexWrittenLater();
    EXPECT_EQ(listing(), "alpha-1.0: alpha at 1.X 0\n" + both.substr(both.find('\n') + 1));

    // Lookups right after a listing answer from it, but never from one that
    // a change in this very process has made stale.
    ASSERT_EQ(removePackages({"beta"}, serviceHooks()), kOk);
    PackageManager manager;
    PackageInfo info;
    EXPECT_FALSE(manager.getPackageInfo("beta", info, nullptr, ~0ULL));
    EXPECT_EQ(manager.getResult(), kNoSuchPackage);
    install("alpha", "2.0");
    ASSERT_TRUE(manager.getPackageInfo("alpha", info, nullptr, ~0ULL));
    EXPECT_EQ(info.version, "2.0");
    EXPECT_EQ(listing(), "alpha-2.0: alpha at 2.0 0\n");
    ASSERT_TRUE(parseIndex(readFile(indexFile()).value(), index));
    EXPECT_EQ(index.names(), std::vector<std::string>{"alpha"});
}

TEST_F(InstalledIndexTest, AnIndexOutOfStepWithThePackagesIsNeverBelieved) {
    install("alpha", "1.0");
    install("beta", "1.0");
    install("gamma", "1.0");
    listing();
    const std::string before = readFile(indexFile()).value();

    // Changes the index never heard of, as a crash before its rewrite or a
    // hand edit would leave them: an upgrade, a removal, an edited manifest,
    // a new script, a package folder added by hand.
    install("alpha", "2.0");
    ASSERT_EQ(removePackages({"beta"}, serviceHooks()), kOk);
    writeText(layout::manifestFile("gamma"), "package=\"gamma\"\nversion=\"1.1\"\n");
    writeText(layout::scriptsDir("gamma") / "start-stop-status", "#!/bin/sh\n", 0755);
    fs::create_directories(layout::packageDir("delta"));
    writeText(layout::manifestFile("delta"), "package=\"delta\"\nversion=\"0.1\"\n");
    const std::string truth = "alpha-2.0: alpha at 2.0 0\ndelta-0.1:  0\ngamma-1.1:  " +
                              std::to_string(kStartStopStatus) + "\n";

    for (const std::string& stale : {before, std::string("quorpkg-installed 1\nbroken"),
                                     std::string("not an index"), std::string()}) {
        writeText(indexFile(), stale);
        indexWrittenLater();
        EXPECT_EQ(listing(), truth) << stale;
        // The listing put the index back in step.
        InstalledIndex index;
        ASSERT_TRUE(parseIndex(readFile(indexFile()).value(), index));
        EXPECT_EQ(index.names(), (std::vector<std::string>{"alpha", "delta", "gamma"}));
    }
    fs::remove(indexFile());
    EXPECT_EQ(listing(), truth);

    // A manifest that goes away makes a broken package: listed by name, no
    // record, as without the index.
    indexWrittenLater();
    listing();
    fs::remove(layout::manifestFile("gamma"));
    PackageManager manager;
    EXPECT_EQ(manager.enumPackages(nullptr, ~0ULL),
              (std::vector<std::string>{"alpha", "delta", "gamma"}));
    PackageInfo info;
    EXPECT_FALSE(manager.getPackageInfo("gamma", info, nullptr, ~0ULL));
    EXPECT_EQ(manager.getResult(), kBroken);
    std::vector<PackageInfo> records;
    EXPECT_TRUE(manager.enumPackageInfo(records, nullptr, ~0ULL));
    EXPECT_EQ(records.size(), 2u);
}

}  // namespace
}  // namespace quor::test
