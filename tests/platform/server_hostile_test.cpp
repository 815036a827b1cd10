// Package servers that send what no catalog should be: nesting that would
// exhaust a parser, more bytes than any catalog needs, and links that never
// deliver a byte.
#include <json/reader.h>
#include <json/value.h>
#include <json/writer.h>

#include <sstream>

#include "base/file_util.h"
#include "base/layout.h"
#include "base/result.h"
#include "pkg_manager.h"
#include "pkg_server.h"
#include "quorpkg/server/catalog.h"
#include "server_fixture.h"

namespace quor::test {
namespace {

using ServerHostile = ServerTest;

// Every query the tool makes of the catalogs fails with 160, by result and
// without an exception.
void expectEveryQueryFails() {
    Json::Value entry;
    EXPECT_FALSE(QUORPackageServer::GetPackageInfoFromServer("demo", entry, true, "enu", false));
    EXPECT_EQ(lastResult(), kServerUnreachable);
    EXPECT_FALSE(QUORPackageServer::PMSCheckUpgrade(true, "demo", "enu"));
    EXPECT_EQ(lastResult(), kServerUnreachable);
    std::vector<QUORPackageTool::PackageInfo> upgrades;
    EXPECT_FALSE(QUORPackageTool::PMSCheckUpgrade(true, "admin", "enu", &upgrades));
    EXPECT_EQ(lastResult(), kServerUnreachable);
}

// The catalogs below are sealed by the source's catalog key: what a
// publisher whose key was stolen could serve must not break the reader.
TEST_F(ServerHostile, ACatalogNestedTooDeepIsAFailedQuery) {
    installLocal(packageSource("demo"));
    serve();
    const std::string nested =
        "{\"packages\":[" + std::string(1200, '[') + std::string(1200, ']') + "]}";
    channel->releaseText(nested);
    expectEveryQueryFails();

    // A kept catalog that nests too deep is not used either.
    channel->releaseText("{\"packages\":[]}");
    std::vector<Catalog> catalogs;
    ASSERT_EQ(loadCatalogs(true, "enu", catalogs), kOk);
    for (const auto& entry : fs::directory_iterator(layout::listDir()))
        if (entry.path().filename().string().find(".list.") != std::string::npos)
            writeText(entry.path(), nested);
    EXPECT_EQ(loadCatalogs(false, "enu", catalogs), kOk);
    Json::Value packages;
    EXPECT_FALSE(parseCatalog(nested, packages));
}

TEST_F(ServerHostile, NumbersOfAnySizeInAnEntryAreReadWithoutAnException) {
    serve();
    const std::string sha(64, 'a');
    channel->releaseText(
        "{\"packages\":[{\"package\":\"demo\",\"version\":\"1\",\"link\":\"d.zpk\","
        "\"beta\":18446744073709551615,\"important\":-9223372036854775808,\"sha256\":\"" +
        sha +
        "\",\"size\":12,\"type\":18446744073709551615},"
        "{\"package\":\"endless\",\"version\":\"1\",\"link\":\"e.zpk\",\"sha256\":\"" +
        sha + "\",\"size\":1.5e300}]}");
    Json::Value entry;
    EXPECT_TRUE(QUORPackageServer::GetPackageInfoFromServer("demo", entry, true, "enu", true))
        << lastResult();
    EXPECT_FALSE(QUORPackageServer::GetPackageInfoFromServer("demo", entry, true, "enu", false));
    EXPECT_EQ(lastResult(), kNotOnServer);
    // Without a size a download would have no end: such an entry is no offer.
    EXPECT_FALSE(QUORPackageServer::GetPackageInfoFromServer("endless", entry, true, "enu", true));
    EXPECT_EQ(lastResult(), kNotOnServer);
}

TEST_F(ServerHostile, ACatalogLargerThanTheSettingAllowsIsAFailedQuery) {
    installLocal(packageSource("demo"));
    publish(packageSource("demo", "2.0"));
    serve();
    // Valid, but padded to 1.5 MiB.
    std::string catalog = channel->catalogText();
    ASSERT_EQ(catalog.front(), '{');
    catalog.insert(1, "\"padding\":\"" + std::string(3 << 19, 'x') + "\",");
    channel->releaseText(catalog);
    setting("catalog_max_mib=\"1\"");
    expectEveryQueryFails();
    fs::remove(layout::settingsFile());
    EXPECT_TRUE(QUORPackageServer::PMSCheckUpgrade(true, "demo", "enu")) << lastResult();
}

TEST_F(ServerHostile, ADownloadThatNeverStartedLeavesNoPart) {
    publish(packageSource("demo"));
    serve();
    // The entry's link points at a port nobody listens on.
    ClosedPort closed;
    Json::Value catalog;
    std::istringstream text(channel->catalogText());
    ASSERT_TRUE(Json::parseFromStream(Json::CharReaderBuilder(), text, &catalog, nullptr));
    Json::Value& entry = catalog["packages"][0];
    entry["link"] = closed.url() + entry["link"].asString();
    channel->releaseText(Json::writeString(Json::StreamWriterBuilder(), catalog));

    Task task = installFromServer("demo", "volume1");
    EXPECT_EQ(task.state, "failed");
    EXPECT_EQ(task.code, kDownloadFailed) << task.message;
    EXPECT_TRUE(staged(volume1).empty());
}

}  // namespace
}  // namespace quor::test
