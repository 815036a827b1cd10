// Package catalogs: which entry a lookup hands out, languages, the cache in
// the list directory and several servers.
#include "base/file_util.h"
#include "base/layout.h"
#include "base/operation_log.h"
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

TEST_F(ServerCatalog, ALanguageHasItsOwnCatalogWithTheDefaultOneAsFallback) {
    publish(packageSource("app", "1.0"));
    serve();
    publish(packageSource("app", "1.1"));
    channel->release("ger");

    EXPECT_EQ(lookup("app", true, false, "ger"), "1.1");
    EXPECT_EQ(lookup("app", true, false, "fre"), "1.0");
    EXPECT_NE(cached("quorserver.list.ger"), "(missing)");
    EXPECT_NE(cached("quorserver.list.fre"), "(missing)");
    EXPECT_EQ(lookup("app", true, false, "../ger"), "");
    EXPECT_EQ(lastResult(), kBadArgument);
}

// An unverified source: the plain folder's hash decides what is downloaded.
TEST_F(ServerCatalog, AnUnverifiedSourceDownloadsOnlyWhenTheHashChanges) {
    channel.reset();
    publish(packageSource("app", "1.0"));
    serveUnverified();
    EXPECT_EQ(lookup("app"), "1.0");
    const std::string hash = readFile(repo / "catalog.hash").value();
    EXPECT_NE(cached("quorserver.hash.enu").find("hash=\"" + hash.substr(0, 32) + "\""),
              std::string::npos);
    EXPECT_NE(readFile(operationLogFile()).value_or("").find("unverified source " + server->url()),
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
    writeText(layout::sourcesFile(), sourcesLine(closed.url()) + "\n");
    EXPECT_EQ(lookup("app"), "");
    EXPECT_EQ(lastResult(), kServerUnreachable);
    writeText(layout::sourcesFile(), sourcesLine(server->url()) + "\n");
    writeText(repo / "catalog.json", "<html>oops</html>");
    writeText(repo / "catalog.hash", "other\n");
    EXPECT_EQ(lookup("app"), "");
    EXPECT_EQ(lastResult(), kServerUnreachable);
    EXPECT_EQ(cached("quorserver.hash.enu"), remembered);
}

// A name comes from the first source that offers it, so a later source
// cannot shadow it with a higher version; a source that is down or
// refused costs only its own packages.
TEST_F(ServerCatalog, EachNameHasOneSourceAndASourceDownFailsOnlyItsOwn) {
    publish(packageSource("app", "1.0"));
    serve();
    TempDir otherRepo;
    TestSource third(otherRepo.path(), "third-party");
    for (const PackageSource& pkg : {packageSource("app", "9.0"), packageSource("tool", "1.0")})
        third.sign(buildTestPackage(otherRepo.path(), pkg));
    third.release();
    HttpServer other(otherRepo.path());
    const std::string both = "# the vendor first\n" + sourcesLine(server->url()) + "\n\n" +
                             third.sourcesLine(other.url(), "otherserver") + "\n";
    writeText(layout::sourcesFile(), both);

    Json::Value entry;
    ASSERT_TRUE(QUORPackageServer::GetPackageInfoFromServer("app", entry, true, "enu", false));
    EXPECT_EQ(entry["link"].asString(), server->url() + "app-1.0.zpk");
    EXPECT_EQ(lookup("tool"), "1.0");
    EXPECT_NE(cached("otherserver.list.enu.1"), "(missing)");

    ClosedPort closed;
    writeText(layout::sourcesFile(), sourcesLine(server->url()) + "\n" +
                                         third.sourcesLine(closed.url(), "otherserver") + "\n");
    EXPECT_EQ(lookup("app"), "1.0");
    EXPECT_EQ(lookup("tool"), "");
    EXPECT_EQ(lastResult(), kNotOnServer);
    // While the vendor cannot be asked, its names are not taken elsewhere.
    writeText(layout::sourcesFile(), sourcesLine(closed.url()) + "\n" +
                                         third.sourcesLine(other.url(), "otherserver") + "\n");
    EXPECT_EQ(lookup("app"), "");
    EXPECT_EQ(lastResult(), kNotOnServer);
    EXPECT_EQ(lookup("tool"), "1.0");
    EXPECT_NE(readFile(operationLogFile()).value_or("").find("source quorserver: 160"),
              std::string::npos);

    // Lines that cannot be used are skipped and told; the rest holds.
    writeText(layout::sourcesFile(),
              "mirror http://127.0.0.1:1/\nquorserver\n"
              "quorserver ftp://127.0.0.1/ unverified\n"
              "quorserver " +
                  server->url() + "\n" + both);
    EXPECT_EQ(lookup("app"), "1.0");
    const std::string log = readFile(operationLogFile()).value_or("");
    for (const char* told :
         {":1: line skipped: unknown id \"mirror\"", ":2: line skipped: no URL",
          ":3: line skipped: unknown word \"ftp://127.0.0.1/\"",
          ":4: line skipped: no pinned root (root=<sha256>) and not marked unverified"})
        EXPECT_NE(log.find(told), std::string::npos) << told;
    writeText(layout::sourcesFile(), "quorserver " + server->url() + "\n");
    EXPECT_EQ(lookup("app"), "");
    EXPECT_EQ(lastResult(), kServerUnreachable);
}

}  // namespace
}  // namespace quor::test
