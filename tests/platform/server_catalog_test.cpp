// Package catalogs: which entry a lookup hands out, languages, the cache in
// the list directory and several servers.
#include "base/file_util.h"
#include "base/layout.h"
#include "base/result.h"
#include "pkg_server.h"
#include "quor_core.h"
#include "quorpkg/package/md5.h"
#include "server_fixture.h"

namespace quor::test {
namespace {

class ServerCatalog : public ServerTest {
protected:
    std::string cached(const std::string& file) const {
        return readFile(layout::listDir() / file).value_or("(missing)");
    }
};

TEST_F(ServerCatalog, HandsOutTheNewestEntryThisDeviceRunsWithItsLinkMadeAbsolute) {
    const fs::path file = publish(packageSource("app", "1.1", {{"displayname", "App"}}));
    publish(packageSource("app", "1.0"));
    publish(packageSource("app", "1.2~beta1", {{"beta", "yes"}}));
    publish(packageSource("alien", "1.0", {{"arch", "no-such-machine"}}));
    publish(packageSource("future", "1.0", {{"firmware", "99.0"}}));
    serve();

    Json::Value entry;
    ASSERT_TRUE(QUORPackageServer::GetPackageInfoFromServer("app", entry, true, "enu", false));
    EXPECT_EQ(entry["version"].asString(), "1.1");
    EXPECT_EQ(entry["dname"].asString(), "App");
    EXPECT_EQ(entry["link"].asString(), server->url() + "app-1.1.zpk");
    EXPECT_EQ(entry["size"].asUInt64(), fs::file_size(file));
    EXPECT_EQ(entry["md5"].asString(), fileMd5Hex(file).value());
    EXPECT_EQ(entry["type"].asInt(), 0);
    EXPECT_FALSE(entry["beta"].asBool());
    EXPECT_EQ(lookup("app", true, true), "1.2~beta1");

    for (const char* name : {"alien", "future", "nosuch"}) {
        EXPECT_EQ(lookup(name), "") << name;
        EXPECT_EQ(lastResult(), kNotOnServer) << name;
    }
    EXPECT_EQ(lookup("../app"), "");
    EXPECT_EQ(lastResult(), kBadArgument);
}

TEST_F(ServerCatalog, ALanguageHasItsOwnCatalogWithTheCommonOneAsFallback) {
    publish(packageSource("app", "1.0", {{"displayname", "App"}}));
    serve();
    std::string german = readFile(repo / "catalog.json").value();
    german.replace(german.find("\"App\""), 5, "\"Anwendung\"");
    writeText(repo / "catalog-ger.json", german);
    writeText(repo / "catalog-ger.hash", "german-1\n");

    Json::Value entry;
    ASSERT_TRUE(QUORPackageServer::GetPackageInfoFromServer("app", entry, true, "ger", false));
    EXPECT_EQ(entry["dname"].asString(), "Anwendung");
    ASSERT_TRUE(QUORPackageServer::GetPackageInfoFromServer("app", entry, true, "fre", false));
    EXPECT_EQ(entry["dname"].asString(), "App");
    EXPECT_NE(cached("quorserver.hash.ger").find("hash=\"german-1\""), std::string::npos);
    EXPECT_NE(cached("quorserver.list.fre"), "(missing)");

    EXPECT_EQ(lookup("app", true, false, "../ger"), "");
    EXPECT_EQ(lastResult(), kBadArgument);
}

TEST_F(ServerCatalog, DownloadsOnlyWhenTheHashChangesAndTrustsTheCacheUntilItAges) {
    publish(packageSource("app", "1.0"));
    serve();
    EXPECT_EQ(lookup("app"), "1.0");
    const std::string hash = readFile(repo / "catalog.hash").value();
    EXPECT_NE(cached("quorserver.hash.enu").find("hash=\"" + hash.substr(0, 32) + "\""),
              std::string::npos);

    // A new catalog behind the old hash is not fetched; a new hash is.
    publish(packageSource("app", "2.0"));
    index();
    writeText(repo / "catalog.hash", hash);
    EXPECT_EQ(lookup("app"), "1.0");
    index();
    EXPECT_EQ(lookup("app"), "2.0");

    // A cached lookup keeps the catalog until the hash is reset or it ages.
    publish(packageSource("app", "3.0"));
    index();
    EXPECT_EQ(lookup("app", false), "2.0");
    const fs::path hashFile = layout::listDir() / "quorserver.hash.enu";
    ASSERT_GT(QLIBCFileSetKeyValue(hashFile.c_str(), "hash", "temphash", 0), 0);
    EXPECT_EQ(lookup("app", false), "3.0");
    publish(packageSource("app", "4.0"));
    index();
    EXPECT_EQ(lookup("app", false), "3.0");
    setting("catalog_ttl=\"0\"");
    EXPECT_EQ(lookup("app", false), "4.0");

    // A server that is down or sends no catalog fails, leaving the cache.
    const std::string remembered = cached("quorserver.hash.enu");
    ClosedPort closed;
    writeText(layout::sourcesFile(), "quorserver " + closed.url() + "\n");
    EXPECT_EQ(lookup("app"), "");
    EXPECT_EQ(lastResult(), kServerUnreachable);
    writeText(layout::sourcesFile(), "quorserver " + server->url() + "\n");
    writeText(repo / "catalog.json", "<html>oops</html>");
    writeText(repo / "catalog.hash", "other\n");
    EXPECT_EQ(lookup("app"), "");
    EXPECT_EQ(lastResult(), kServerUnreachable);
    EXPECT_EQ(cached("quorserver.hash.enu"), remembered);
}

TEST_F(ServerCatalog, EveryServerCountsAndEachKeepsItsOwnCache) {
    publish(packageSource("app", "1.0"));
    serve();
    TempDir otherRepo;
    buildTestPackage(otherRepo.path(), packageSource("app", "2.0"));
    buildTestPackage(otherRepo.path(), packageSource("tool", "1.0"));
    index(otherRepo.path());
    HttpServer other(otherRepo.path());
    writeText(layout::sourcesFile(), "# the vendor first\nquorserver " + server->url() +
                                         "\n\notherserver " + other.url() + "\n");

    Json::Value entry;
    ASSERT_TRUE(QUORPackageServer::GetPackageInfoFromServer("app", entry, true, "enu", false));
    EXPECT_EQ(entry["link"].asString(), other.url() + "app-2.0.zpk");
    EXPECT_EQ(lookup("tool"), "1.0");
    EXPECT_NE(cached("otherserver.list.enu.1"), "(missing)");
    EXPECT_NE(cached("quorserver.list.enu"), "(missing)");

    // One server down fails the lookup: its catalog might hold a newer version.
    ClosedPort closed;
    writeText(layout::sourcesFile(),
              "quorserver " + server->url() + "\notherserver " + closed.url() + "\n");
    EXPECT_EQ(lookup("app"), "");
    EXPECT_EQ(lastResult(), kServerUnreachable);
    for (const char* bad :
         {"mirror http://127.0.0.1:1/\n", "quorserver\n", "quorserver ftp://127.0.0.1/\n"}) {
        writeText(layout::sourcesFile(), bad);
        EXPECT_EQ(lookup("app"), "") << bad;
        EXPECT_EQ(lastResult(), kServerUnreachable) << bad;
    }
}

}  // namespace
}  // namespace quor::test
