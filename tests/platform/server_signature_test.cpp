// Signed catalogs and packages of unverified sources from a real HTTP
// server, checked against the device's keys folder as local files are: a
// catalog that cannot be trusted is a failed query, a kept catalog must
// still be trusted to serve, and downloads are checked with sha256.
#include "base/file_util.h"
#include "base/layout.h"
#include "base/result.h"
#include "pkg_server.h"
#include "quorpkg/package/catalog_index.h"
#include "quorpkg/package/package_signer.h"
#include "quorpkg/server/package_fetch.h"
#include "server_fixture.h"

namespace quor::test {
namespace {

class ServerSignature : public ServerTest {
protected:
    void trust(const SigningKey& key) const {
        writeText(layout::trustedKeysDir() / "publisher.pub", key.publicPem());
    }

    void signedIndex(const SigningKey& key) const { index(repo, &key); }

    std::string remembered() const {
        return readFile(layout::listDir() / "quorserver.hash.enu").value_or("");
    }

    SigningKey publisher = SigningKey::generate().value();
    SigningKey stranger = SigningKey::generate().value();
};

TEST_F(ServerSignature, OnlyACatalogSignedByATrustedKeyIsUsed) {
    channel.reset();
    publish(packageSource("app", "1.0"));
    serve();
    trust(publisher);
    // Unsigned, while signatures are required.
    EXPECT_EQ(lookup("app"), "");
    EXPECT_EQ(lastResult(), kServerUnreachable);
    EXPECT_EQ(remembered(), "");

    signedIndex(publisher);
    EXPECT_EQ(lookup("app"), "1.0");
    EXPECT_NE(remembered().find("key=\"" + publisher.id() + "\""), std::string::npos);
    const std::string kept = remembered();

    // Changed after signing: a new version slipped in, with a new hash.
    publish(packageSource("app", "2.0"));
    Json::Value catalog;
    ASSERT_EQ(buildCatalog(repo, catalog), kOk);
    std::string sig = readFile(repo / "catalog.json.sig").value();
    ASSERT_EQ(writeCatalogFiles(repo, catalog), kOk);
    writeText(repo / "catalog.json.sig", sig);
    EXPECT_EQ(lookup("app"), "");
    EXPECT_EQ(lastResult(), kServerUnreachable);
    EXPECT_EQ(remembered(), kept);  // a failed query writes nothing
    // The kept catalog still serves cached lookups.
    EXPECT_EQ(lookup("app", false), "1.0");

    signedIndex(stranger);
    EXPECT_EQ(lookup("app"), "");
    signedIndex(publisher);
    EXPECT_EQ(lookup("app"), "2.0");
    sig = readFile(repo / "catalog.json.sig").value();
    sig[12] = sig[12] == '0' ? '1' : '0';
    writeText(repo / "catalog.json.sig", sig);
    writeText(repo / "catalog.hash", "forced\n");
    EXPECT_EQ(lookup("app"), "");

    setting("require_signature=\"no\"");
    EXPECT_EQ(lookup("app"), "");  // a bad signature, whatever the setting
    fs::remove(repo / "catalog.json.sig");
    EXPECT_EQ(lookup("app"), "2.0");
}

TEST_F(ServerSignature, AKeptCatalogMustStillBeTrustedToServe) {
    channel.reset();
    publish(packageSource("app", "1.0"));
    serve();
    EXPECT_EQ(lookup("app"), "1.0");  // no key yet: unsigned is fine
    trust(publisher);
    // The kept catalog was never verified: a cached lookup asks the server.
    EXPECT_EQ(lookup("app", false), "");
    EXPECT_EQ(lastResult(), kServerUnreachable);
    signedIndex(publisher);
    EXPECT_EQ(lookup("app", false), "1.0");
    // The key is withdrawn: its catalogs are no longer good.
    trust(stranger);
    EXPECT_EQ(lookup("app", false), "");
}

TEST_F(ServerSignature, SignedPackagesInstallFromTheServerAndStrangersAreRefused) {
    channel.reset();
    trust(publisher);
    const fs::path built = publish(packageSource("app", "1.0"));
    ASSERT_EQ(signPackage(built, built, publisher), kOk);
    const fs::path other = publish(packageSource("tool", "1.0"));
    ASSERT_EQ(signPackage(other, other, stranger), kOk);
    serve();
    signedIndex(publisher);

    Task task = installFromServer("app");
    EXPECT_EQ(task.code, kOk) << task.message;
    EXPECT_EQ(installedVersion("app"), "1.0");
    task = installFromServer("tool");
    EXPECT_EQ(task.code, kSignatureRefused) << task.message;
    EXPECT_NE(task.message.find("installing tool failed"), std::string::npos) << task.message;
    EXPECT_NE(readFile(layout::logFile("tool")).value_or("").find(stranger.id()),
              std::string::npos);
    EXPECT_EQ(installedVersion("tool"), "");
    EXPECT_TRUE(staged(volume1).empty());
}

TEST_F(ServerSignature, DownloadsAreCheckedWithTheCatalogsSha256) {
    const fs::path file = publish(packageSource("app", "1.0"));
    serve();
    Json::Value entry;
    ASSERT_TRUE(QUORPackageServer::GetPackageInfoFromServer("app", entry, true, "enu", false));
    ASSERT_EQ(entry["sha256"].asString().size(), 64u);

    PackageDownload download;
    download.name = "app";
    download.link = entry["link"].asString();
    download.size = entry["size"].asUInt64();
    download.md5 = entry["md5"].asString();
    download.sha256 = entry["sha256"].asString();
    const fs::path dir = volume1 / "@tmp/quorpkg";
    fs::path got;
    ASSERT_EQ(fetchPackage(download, dir, nullptr, got), kOk);
    EXPECT_EQ(readFile(got), readFile(file));
    fs::remove(got);

    download.sha256[0] = download.sha256[0] == '0' ? '1' : '0';
    std::string why;
    EXPECT_EQ(fetchPackage(download, dir, nullptr, got, &why), kChecksumMismatch);
    EXPECT_NE(why.find("sha256 mismatch"), std::string::npos) << why;
    EXPECT_TRUE(staged(volume1).empty());
}

}  // namespace
}  // namespace quor::test
