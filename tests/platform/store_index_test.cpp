// The index of installed packages: trusted while stamped with /var/packages
// as it is, and never believed once the folder has changed under it.
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

    // The index on disk: its names, and whether it is stamped with the
    // package folder as it is now.
    std::string stored(bool* stamped = nullptr) const {
        InstalledIndex index;
        if (!index.adopt(readFile(indexFile()).value_or(""))) return "(no index)";
        struct stat st {};
        EXPECT_EQ(::stat(layout::packagesDir().c_str(), &st), 0);
        if (stamped)
            *stamped = index.stamp() == std::to_string(st.st_ino) + " " +
                                            std::to_string(st.st_mtim.tv_sec) + "." +
                                            std::to_string(st.st_mtim.tv_nsec);
        std::string names;
        for (const IndexedPackage& package : index.packages)
            names += std::string(package.name) + ";";
        return names;
    }

    // Dates the package folder an hour back, as a folder left alone for long.
    void folderLeftAlone() {
        timespec earlier[2];
        ::clock_gettime(CLOCK_REALTIME, &earlier[0]);
        earlier[0].tv_sec -= 3600;
        earlier[1] = earlier[0];
        ASSERT_EQ(::utimensat(AT_FDCWD, layout::packagesDir().c_str(), earlier, 0), 0);
    }
};

TEST_F(InstalledIndexTest, ChangesStampTheIndexAndListingsTrustIt) {
    install("alpha", "1.0");
    install("beta", "1.0", {{"start-stop-status", "#!/bin/sh\n"}});
    const std::string both = listing();
    EXPECT_EQ(both, "alpha-1.0: alpha at 1.0 0\nbeta-1.0: beta at 1.0 " +
                        std::to_string(kStartStopStatus) + "\n");
    bool stamped = false;
    EXPECT_EQ(stored(&stamped), "alpha;beta;");
    EXPECT_TRUE(stamped);

    // Stamped with the folder as it is, the index is the listing: a record
    // changed in it shows, and so does nothing edited inside a package
    // folder, until the next change or until the index goes.
    std::string text = readFile(indexFile()).value();
    const std::string from = "alpha at 1.0", to = "alpha at 1.X";
    text.replace(text.find(from), from.size(), to);
    writeText(indexFile(), text);
    writeText(layout::manifestFile("beta"), "package=\"beta\"\nversion=\"1.1\"\n");
    EXPECT_EQ(listing(), "alpha-1.0: alpha at 1.X 0\n" + both.substr(both.find('\n') + 1));
    fs::remove(indexFile());
    const std::string edited =
        "alpha-1.0: alpha at 1.0 0\nbeta-1.1:  " + std::to_string(kStartStopStatus) + "\n";
    EXPECT_EQ(listing(), edited);

    // A listing stamps what it read again only once the folder has been
    // left alone long enough that no change can share its time.
    EXPECT_EQ(stored(&stamped), "alpha;beta;");
    EXPECT_FALSE(stamped);
    folderLeftAlone();
    EXPECT_EQ(listing(), edited);
    EXPECT_EQ(stored(&stamped), "alpha;beta;");
    EXPECT_TRUE(stamped);

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
    EXPECT_EQ(stored(&stamped), "alpha;");
    EXPECT_TRUE(stamped);
}

// Every field of a record, as text.
std::string describe(const PackageInfo& info) {
    std::string text = info.name + "|" + info.version + "|" + info.description + "|" +
                       info.maintainer + "|" + info.manager_url + "|" + info.displayname + "|" +
                       info.ui_dir + "|" + std::to_string(info.beta) + "|" +
                       std::to_string(info.admin_port) + "|" + std::to_string(info.script_mask);
    for (const std::string& service : info.list_a) text += "|service " + service;
    for (const auto& dep : info.basic_list_a)
        text += "|needs " + dep.basic_text_a + dep.basic_text_b;
    for (const auto& dep : info.basic_list_b) text += "|not " + dep.basic_text_a + dep.basic_text_b;
    for (const auto& [key, value] : info.extra.fields) text += "|" + key + "=" + value;
    return text;
}

TEST_F(InstalledIndexTest, ARecordFromTheIndexIsTheRecordFromThePackageFolder) {
    install("alpha", "1.0");
    PackageSource source;
    source.name = "full";
    source.version = "2.0-1";
    source.info = {{"displayname", "Full: \"all\" keys"},
                   {"description", "a=b: c"},
                   {"maintainer", "someone"},
                   {"manager_url", "http://x/"},
                   {"ui_dir", "bin"},
                   {"admin_port", "8080"},
                   {"beta", "yes"},
                   {"install_dep_packages", "alpha>=1.0:alpha"},
                   {"install_conflict_packages", "zeta<2"},
                   {"install_dep_services", "pgsql smb"},
                   {"firmware", "1.0"},
                   {"arch", "noarch"},
                   {"homepage", "http://y/"}};
    source.scripts = {{"start-stop-status", "#!/bin/sh\n"}, {"postinst", "#!/bin/sh\n"}};
    ASSERT_EQ(StoreTest::install(source), kOk);

    PackageManager manager;
    PackageInfo fromFolder, fromIndex;
    ASSERT_TRUE(manager.getPackageInfo("full", fromFolder, nullptr, ~0ULL));
    EXPECT_NE(describe(fromFolder).find("|needs alpha>=1.0|"), std::string::npos)
        << describe(fromFolder);
    manager.enumPackages(nullptr, ~0ULL);  // the listing's lookups answer from the index
    ASSERT_TRUE(manager.getPackageInfo("full", fromIndex, nullptr, ~0ULL));
    EXPECT_EQ(describe(fromIndex), describe(fromFolder));
}

TEST_F(InstalledIndexTest, AnIndexOutOfStepWithThePackagesIsNeverBelieved) {
    install("alpha", "1.0");
    install("beta", "1.0");
    install("gamma", "1.0");
    folderLeftAlone();
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

    for (const std::string& stale : {before, std::string("quorpkg-installed 2\nbroken"),
                                     std::string("not an index"), std::string()}) {
        writeText(indexFile(), stale);
        EXPECT_EQ(listing(), truth) << stale;
        // The listing put the index back in step.
        EXPECT_EQ(stored(), "alpha;delta;gamma;");
    }
    fs::remove(indexFile());
    EXPECT_EQ(listing(), truth);

    // A manifest that goes away makes a broken package: listed by name, no
    // record, as without the index.
    fs::remove(layout::manifestFile("gamma"));
    fs::remove(indexFile());
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
