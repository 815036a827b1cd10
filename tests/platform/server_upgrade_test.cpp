// Upgrade checks and upgrades against a package server, and the digest of a
// kept catalog that cached checks read.
#include <fcntl.h>
#include <unistd.h>

#include "base/file_util.h"
#include "base/layout.h"
#include "base/result.h"
#include "pkg_manager.h"
#include "pkg_server.h"
#include "quorpkg/store/store.h"
#include "server_fixture.h"

namespace quor::test {
namespace {

using QUORPackageTool::PackageInfo;
using QUORPackageTool::PMSCheckUpgrade;

class ServerUpgrade : public ServerTest {
protected:
    // app and lib 1.0 installed; the server offers 1.1 of both, app's marked
    // important and needing a helper package the device lacks.
    void SetUp() override {
        ServerTest::SetUp();
        installLocal(packageSource("app", "1.0"));
        installLocal(packageSource("lib", "1.0"));
        writeText(layout::varDir("app") / "data", "kept");
        publish(packageSource(
            "app", "1.1",
            {{"displayname", "App"}, {"important", "yes"}, {"install_dep_packages", "helper"}}));
        publish(packageSource("lib", "1.1"));
        publish(packageSource("helper", "1.0"));
        serve();
    }

    std::string versions() const {
        std::string out;
        for (const std::string& name : installedPackages())
            out += name + " " + installedVersion(name) + ";";
        return out;
    }
};

TEST_F(ServerUpgrade, ListsWhatIsOfferedAndAnswersForOnePackage) {
    installLocal(packageSource("bee", "1.0~b1", {{"beta", "yes"}}));
    publish(packageSource("app", "1.2~rc1", {{"beta", "yes"}}));
    publish(packageSource("bee", "1.0~b2", {{"beta", "yes"}, {"displayname", "Bee"}}));
    publish(packageSource("lib", "1.2"));
    writeText(layout::firmwareLimitsFile(), "lib = 1.2\n");
    index();

    std::vector<PackageInfo> offered(1);
    ASSERT_TRUE(PMSCheckUpgrade(true, nullptr, "enu", &offered));
    // A beta only for a package that runs a beta; a version the firmware
    // would block is passed over.
    ASSERT_EQ(offered.size(), 3u);
    EXPECT_EQ(offered[0].name, "app");
    EXPECT_EQ(offered[0].version, "1.1");
    EXPECT_EQ(offered[0].displayname, "App");
    EXPECT_FALSE(offered[0].beta);
    EXPECT_EQ(offered[1].name, "bee");
    EXPECT_EQ(offered[1].version, "1.0~b2");
    EXPECT_TRUE(offered[1].beta);
    EXPECT_EQ(offered[2].name, "lib");
    EXPECT_EQ(offered[2].version, "1.1");

    EXPECT_TRUE(QUORPackageServer::PMSCheckUpgrade(false, "app", "enu"));
    EXPECT_FALSE(QUORPackageServer::PMSCheckUpgrade(false, "helper", "enu"));
    EXPECT_EQ(lastResult(), kNoSuchPackage);
    installLocal(packageSource("helper", "1.0"));
    EXPECT_FALSE(QUORPackageServer::PMSCheckUpgrade(false, "helper", "enu"));
    installLocal(packageSource("local", "1.0"));
    EXPECT_FALSE(QUORPackageServer::PMSCheckUpgrade(false, "local", "enu"));
    EXPECT_EQ(lastResult(), kNotOnServer);
    // Listing changes nothing.
    EXPECT_EQ(versions(), "app 1.0;bee 1.0~b1;helper 1.0;lib 1.0;local 1.0;");
}

TEST_F(ServerUpgrade, WithoutAListTheAutoUpgradeSettingDecides) {
    ASSERT_TRUE(PMSCheckUpgrade(true, nullptr, "", nullptr));
    EXPECT_EQ(versions(), "app 1.0;lib 1.0;");

    setting("auto_upgrade=\"important\"");
    ASSERT_TRUE(PMSCheckUpgrade(true, nullptr, "", nullptr));
    // The required helper came first; the package's own data stayed.
    EXPECT_EQ(versions(), "app 1.1;helper 1.0;lib 1.0;");
    EXPECT_EQ(readFile(layout::varDir("app") / "data"), "kept");

    writeSettings("auto_upgrade=\"all\"\n");
    ASSERT_TRUE(PMSCheckUpgrade(true, nullptr, "", nullptr));
    EXPECT_EQ(versions(), "app 1.1;helper 1.0;lib 1.1;");
}

TEST_F(ServerUpgrade, UpgradeAllCanKeepToWhatTheFirmwareLimitBlocks) {
    writeText(layout::firmwareLimitsFile(), "lib <= 1.0\n");
    ASSERT_TRUE(PMSCheckUpgrade(true, "", "enu", nullptr, true, true));
    EXPECT_EQ(versions(), "app 1.0;lib 1.1;");
    ASSERT_TRUE(PMSCheckUpgrade(true, "", "enu", nullptr, true, false));
    EXPECT_EQ(versions(), "app 1.1;helper 1.0;lib 1.1;");
    // Nothing left to do is success too.
    EXPECT_TRUE(PMSCheckUpgrade(true, "", "enu", nullptr, true, false));
}

TEST_F(ServerUpgrade, AFailedUpgradeKeepsThePackageAndTheOthersStillGo) {
    const fs::path served = repo / "app-1.1.zpk";
    std::string bytes = readFile(served).value();
    bytes[bytes.size() / 2] ^= 0x55;
    writeText(served, bytes);
    EXPECT_FALSE(PMSCheckUpgrade(true, "", "enu", nullptr, true, false));
    EXPECT_EQ(lastResult(), kChecksumMismatch);
    EXPECT_EQ(versions(), "app 1.0;lib 1.1;");
    EXPECT_TRUE(staged(volume1).empty());

    ClosedPort closed;
    writeText(layout::sourcesFile(), sourcesLine(closed.url()) + "\n");
    EXPECT_FALSE(PMSCheckUpgrade(true, "", "enu", nullptr, true, false));
    EXPECT_EQ(lastResult(), kServerUnreachable);
    // The kept catalog has not expired: cached checks still answer from it.
    std::vector<PackageInfo> offered;
    EXPECT_TRUE(PMSCheckUpgrade(false, nullptr, "enu", &offered));
    ASSERT_EQ(offered.size(), 1u);
    EXPECT_EQ(offered[0].name, "app");
}

// Cached upgrade checks read only the installed packages' entries of a kept
// catalog, through its digest, and never trust a digest of another catalog.
class CatalogDigest : public ServerUpgrade {
protected:
    // The upgrades a check offers, as "name version;".
    std::string offered(bool fresh) {
        std::vector<PackageInfo> out;
        EXPECT_TRUE(PMSCheckUpgrade(fresh, nullptr, "enu", &out));
        std::string text;
        for (const PackageInfo& info : out) text += info.name + " " + info.version + ";";
        return text;
    }

    fs::path keptCatalog() const {
        for (const auto& entry : fs::directory_iterator(layout::listDir()))
            if (entry.path().filename().string().find(".list.") != std::string::npos &&
                entry.path().extension() != ".digest")
                return entry.path();
        return {};
    }

    // Overwrites the catalog entry of `name` (at `version`, when given) in
    // place (same file, same size).
    void blankEntry(const std::string& name, char with, const std::string& version = "") {
        std::string text = readFile(keptCatalog()).value();
        size_t open = std::string::npos, close = std::string::npos;
        for (size_t at = text.find("\"package\" : \"" + name + "\"");
             at != std::string::npos && open == std::string::npos;
             at = text.find("\"package\" : \"" + name + "\"", at + 1)) {
            size_t begin = text.rfind('{', at), end = text.find('}', at);
            if (version.empty() ||
                text.substr(begin, end - begin).find("\"version\" : \"" + version + "\"") !=
                    std::string::npos) {
                open = begin;
                close = end;
            }
        }
        ASSERT_TRUE(open != std::string::npos && close != std::string::npos) << name << version;
        UniqueFd fd(::open(keptCatalog().c_str(), O_WRONLY));
        const std::string blank(close - open + 1, with);
        ASSERT_EQ(::pwrite(fd.get(), blank.data(), blank.size(), static_cast<off_t>(open)),
                  static_cast<ssize_t>(blank.size()));
    }
};

TEST_F(CatalogDigest, CachedChecksReadOnlyTheInstalledEntries) {
    publish(packageSource("lib", "0.9"));
    index();
    EXPECT_EQ(offered(true), "app 1.1;lib 1.1;");
    const fs::path digest = keptCatalog().string() + ".digest";
    ASSERT_TRUE(fs::exists(digest));
    EXPECT_EQ(offered(false), "app 1.1;lib 1.1;");
    EXPECT_TRUE(QUORPackageServer::PMSCheckUpgrade(false, "lib", "enu"));

    // A check that only reports reads no entry at all: the digest holds what
    // it reports. Nor does any check parse an entry of a package that is not
    // installed, or one not newer than installed: a kept catalog broken
    // there still serves, and stays as it is.
    blankEntry("app", 'x');
    blankEntry("helper", 'x');
    blankEntry("lib", 'x', "0.9");
    const std::string broken = readFile(keptCatalog()).value();
    EXPECT_EQ(offered(false), "app 1.1;lib 1.1;");
    EXPECT_TRUE(QUORPackageServer::PMSCheckUpgrade(false, "app", "enu"));
    EXPECT_EQ(readFile(keptCatalog()), broken);
    // Without the digest the whole catalog is parsed: it fails, and the
    // catalog is downloaded again.
    fs::remove(digest);
    EXPECT_EQ(offered(false), "app 1.1;lib 1.1;");
    EXPECT_NE(readFile(keptCatalog()), broken);

    // Upgrades read the JSON of what they install through the digest, and
    // believe no range that holds another package's entry: with lib's
    // range pointing at app's entry, the whole catalog decides.
    const std::string current = readFile(digest).value();
    // Where the start and limit are in the line of `name` at 1.1.
    auto rangeOf = [&](const std::string& name) {
        const size_t line = current.rfind('\n', current.find("\t" + name + "-1.1.zpk\t")) + 1;
        const size_t start = line + name.size() + 1;
        return std::pair{start, current.find('\t', current.find('\t', start) + 1) - start};
    };
    std::string swapped = current;
    const auto [appAt, appSize] = rangeOf("app");
    const auto [libAt, libSize] = rangeOf("lib");
    swapped.replace(libAt, libSize, current.substr(appAt, appSize));
    ASSERT_TRUE(writeFileAtomic(digest, swapped));
    EXPECT_TRUE(PMSCheckUpgrade(false, nullptr, "enu", nullptr, true, false));
    EXPECT_EQ(versions(), "app 1.1;helper 1.0;lib 1.1;");
}

TEST_F(CatalogDigest, ADigestOutOfStepWithTheKeptCatalogIsNeverBelieved) {
    EXPECT_EQ(offered(true), "app 1.1;lib 1.1;");
    const fs::path list = keptCatalog();
    const fs::path digest = list.string() + ".digest";
    const std::string goodDigest = readFile(digest).value();

    // A kept catalog rewritten (a new file) with lib at 1.9: the old digest
    // names the old file.
    std::string text = readFile(list).value();
    size_t lib = text.find("\"package\" : \"lib\"");
    size_t version = text.find("\"1.1\"", lib) + 1;
    ASSERT_NE(version, std::string::npos);
    text.replace(version, 3, "1.9");
    ASSERT_TRUE(writeFileAtomic(list, text));
    EXPECT_EQ(offered(false), "app 1.1;lib 1.9;");

    // A line cut short, a digest of the old file, one of an older format or
    // one that is not a digest: the whole catalog decides.
    const std::string current = readFile(digest).value();
    const size_t body = current.find('\n', current.find('\n', current.find('\n') + 1) + 1) + 1;
    for (const std::string& wrong :
         {current.substr(0, current.find("\napp\t")) + "\napp\t1\t5\n", goodDigest,
          "quorpkg-catalog-digest 2\n" + current.substr(current.find('\n') + 1),
          current.substr(0, body) + "lib\t1\t5\t1.9\n", std::string("junk")}) {
        ASSERT_TRUE(writeFileAtomic(digest, wrong));
        EXPECT_EQ(offered(false), "app 1.1;lib 1.9;") << wrong;
    }
}

// A check from the digest applies every rule the JSON of the entries does:
// each package below has newer entries that a rule leaves out before the
// one that is offered.
TEST_F(CatalogDigest, ChecksFromTheDigestAndFromTheCatalogAgree) {
    for (const char* name : {"a", "b", "c", "d", "e", "f", "h"})
        installLocal(packageSource(name, "1.0"));
    installLocal(packageSource("g", "1.0~b1", {{"beta", "yes"}}));
    const std::string sha = "\"sha256\":\"" + std::string(64, 'a') + "\"";
    auto entry = [&](const std::string& name, const std::string& version,
                     const std::string& more = "") {
        return "{\"package\":\"" + name + "\",\"version\":\"" + version + "\",\"link\":\"" + name +
               ".zpk\",\"size\":10," + sha + more + "},";
    };
    std::string text = "{\"packages\":[";
    text += R"({"package":"a","version":"3.0","link":"a.zpk",)" + sha + "},";
    text += R"({"package":"a","version":"2.5","link":"a.zpk","size":"12",)" + sha + "},";
    text += entry("a", "2.0", R"(,"dname":"A\tB\nC\\D","desc":42)");
    text += R"({"package":"b","version":"3.0","link":"b.zpk","size":10},)";
    text += entry("b", "2.0", R"(,"important":"yes","desc":"tab\there")");
    text += entry("c", "3.0", R"(,"arch":"mips")") + entry("c", "2.5", R"(,"firmware":"99.0")");
    text += entry("c", "2.0", R"(,"arch":"noarch","firmware":"1.0")");
    text += entry("d", "3.0", R"(,"beta":true)") + entry("d", "2.0", R"(,"phase":0)");
    text += entry("d", "1.5", R"(,"phase":100)");
    text += R"({"package":"e","version":"3.0","link":"file:///etc/passwd","size":10,)" + sha + "},";
    text += entry("e", "2 0") + entry("e", "2.0", R"(,"dname":5)");
    text += entry("f", "1.0") + entry("g", "1.0~b2", R"(,"beta":"yes")");
    text += R"({"package":"h","version":"2.0","link":"http://127.0.0.1:1/other/h.zpk","size":10,)" +
            sha + "},";
    text += entry("zzz", "1.0") + "7]}";
    channel->releaseText(text);

    auto report = [](bool fresh) {
        std::vector<PackageInfo> out;
        EXPECT_TRUE(PMSCheckUpgrade(fresh, nullptr, "enu", &out));
        std::string lines;
        for (const PackageInfo& info : out)
            lines += info.name + " " + info.version + " [" + info.displayname + "] [" +
                     info.description + "] " + (info.beta ? "beta" : "-") + "\n";
        return lines;
    };
    const std::string expected =
        "a 2.0 [A\tB\nC\\D] [42] -\nb 2.0 [b] [tab\there] -\nc 2.0 [c] [] -\n"
        "d 1.5 [d] [] -\ne 2.0 [e] [] -\ng 1.0~b2 [g] [] beta\nh 2.0 [h] [] -\n";
    EXPECT_EQ(report(true), expected);
    // The kept catalog blanked in place: only the digest can answer (a
    // catalog that cannot be read would be downloaded again).
    const std::string blank(fs::file_size(keptCatalog()), ' ');
    UniqueFd fd(::open(keptCatalog().c_str(), O_WRONLY));
    ASSERT_EQ(::pwrite(fd.get(), blank.data(), blank.size(), 0), ssize_t(blank.size()));
    EXPECT_EQ(report(false), expected);
    EXPECT_EQ(readFile(keptCatalog()), blank);
    EXPECT_TRUE(QUORPackageServer::PMSCheckUpgrade(false, "d", "enu"));
    EXPECT_FALSE(QUORPackageServer::PMSCheckUpgrade(false, "f", "enu"));
}

}  // namespace
}  // namespace quor::test
