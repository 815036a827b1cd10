// Signed package files on a device: the trusted keys, require_signature,
// and every way a signed file can be changed after signing, each refused
// before the store changes.
#include <archive.h>
#include <archive_entry.h>
#include <gtest/gtest.h>

#include <functional>

#include "base/layout.h"
#include "quorpkg/package/md5.h"
#include "quorpkg/package/package_file.h"
#include "quorpkg/package/package_signer.h"
#include "store_fixture.h"

namespace quor::test {
namespace {

using Members = std::vector<TarEntry>;

// The members of an uncompressed tar, with their data, in order.
Members readMembers(const fs::path& file) {
    std::unique_ptr<archive, int (*)(archive*)> reader(archive_read_new(), archive_read_free);
    archive_read_support_format_tar(reader.get());
    if (archive_read_open_filename(reader.get(), file.c_str(), 10240) != ARCHIVE_OK)
        throw std::runtime_error("cannot read " + file.string());
    Members out;
    archive_entry* entry = nullptr;
    while (archive_read_next_header(reader.get(), &entry) == ARCHIVE_OK) {
        TarEntry member;
        member.name = archive_entry_pathname(entry);
        member.type = archive_entry_filetype(entry);
        member.perm = archive_entry_perm(entry);
        char buffer[8192];
        la_ssize_t n;
        while ((n = archive_read_data(reader.get(), buffer, sizeof buffer)) > 0)
            member.data.append(buffer, static_cast<size_t>(n));
        out.push_back(std::move(member));
    }
    return out;
}

TarEntry& member(Members& members, const std::string& name) {
    for (TarEntry& entry : members)
        if (entry.name == name) return entry;
    throw std::runtime_error("no member " + name);
}

class PackageSignature : public StoreTest {
protected:
    void SetUp() override {
        PackageSource source;
        source.scripts = {{"postinst", "#!/bin/sh\necho installed >> \"$QUOR_ROOT/trace\"\n"}};
        source.conf = {{"demo.conf", "level=1\n"}};
        unsigned_ = build(source);
        signed_ = files.path() / "signed.zpk";
        ASSERT_EQ(signPackage(unsigned_, signed_, publisher), kOk);
    }

    void trust(const SigningKey& key, const std::string& name = "publisher") const {
        writeText(layout::trustedKeysDir() / (name + ".pub"), key.publicPem());
    }

    // A copy of the signed file with its members changed by `change`.
    fs::path tampered(const std::function<void(Members&)>& change) {
        Members members = readMembers(signed_);
        change(members);
        fs::path file = files.path() / ("tampered" + std::to_string(++count_) + ".zpk");
        writeTar(file, members);
        return file;
    }

    // Installs `file`; a refusal must leave the store and volume untouched.
    int install(const fs::path& file) {
        int code = installFile(file);
        if (code != kOk) {
            EXPECT_FALSE(isInstalled("demo"));
            EXPECT_TRUE(fs::is_empty(volume1 / "@appstore")) << "staging left behind";
            EXPECT_FALSE(fs::exists(root.host("/trace"))) << "a script ran";
        } else {
            EXPECT_EQ(removePackages({"demo"}, serviceHooks()), kOk);
            fs::remove(root.host("/trace"));
        }
        return code;
    }

    std::string log() const { return readFile(layout::logFile("demo")).value_or(""); }

    SigningKey publisher = SigningKey::generate().value();
    SigningKey stranger = SigningKey::generate().value();
    fs::path unsigned_, signed_;
    int count_ = 0;
};

TEST_F(PackageSignature, ATrustedKeyLetsOnlySignedFilesInAndEveryChangeIsRefused) {
    trust(publisher);
    ASSERT_EQ(install(signed_), kOk);
    EXPECT_EQ(install(unsigned_), kSignatureRefused);
    EXPECT_NE(log().find("is not signed"), std::string::npos) << log();

    // Signed again: one signature, the new one.
    const fs::path twice = files.path() / "twice.zpk";
    ASSERT_EQ(signPackage(signed_, twice, stranger), kOk);
    EXPECT_EQ(install(twice), kSignatureRefused);
    EXPECT_NE(log().find("signed by key " + stranger.id() + ", which is not trusted"),
              std::string::npos)
        << log();
    ASSERT_EQ(signPackage(twice, twice, publisher), kOk);
    EXPECT_EQ(readMembers(twice).size(), readMembers(signed_).size());
    EXPECT_EQ(install(twice), kOk);

    const std::vector<std::pair<const char*, std::function<void(Members&)>>> changes = {
        {"script", [](Members& m) { member(m, "scripts/postinst").data += "rm -rf /\n"; }},
        {"script mode", [](Members& m) { member(m, "scripts/postinst").perm = 0700; }},
        {"conf", [](Members& m) { member(m, "conf/demo.conf").data = "level=9\n"; }},
        {"manifest", [](Members& m) { member(m, "INFO").data += "beta=\"yes\"\n"; }},
        {"appended member", [](Members& m) { m.insert(m.end() - 1, fileEntry("conf/x", "")); }},
        {"member after the signature", [](Members& m) { m.push_back(fileEntry("conf/x", "")); }},
        {"removed member",
         [](Members& m) {
             m.erase(std::find_if(m.begin(), m.end(),
                                  [](const TarEntry& e) { return e.name == "conf/demo.conf"; }));
         }},
        {"reordered members", [](Members& m) { std::swap(m[0], m[1]); }},
        // A new payload with a manifest to match: the manifest gives it away.
        {"payload and manifest",
         [&](Members& m) {
             const std::string other = tarBytes({fileEntry("bin/demo", "evil")}, TarFilter::kGzip);
             member(m, "package.tgz").data = other;
             member(m, "INFO").data =
                 infoText("demo", "1.0-0001", other) + "sha256=\"" + dataSha256Hex(other) + "\"\n";
         }},
        {"removed signature", [](Members& m) { m.pop_back(); }},
        {"signature bytes",
         [](Members& m) {
             std::string& text = member(m, "SIGNATURE").data;
             text[12] = text[12] == '0' ? '1' : '0';
         }},
        {"signature text", [](Members& m) { member(m, "SIGNATURE").data = "garbage\n"; }},
    };
    for (const auto& [what, change] : changes) {
        SCOPED_TRACE(what);
        EXPECT_EQ(install(tampered(change)), kSignatureRefused);
    }
    // A damaged payload fails its own digests first.
    fs::path damaged = tampered([&](Members& m) {
        std::string& data = member(m, "package.tgz").data;
        data[data.size() / 2] ^= 0x20;
    });
    EXPECT_EQ(install(damaged), kChecksumMismatch);
}

TEST_F(PackageSignature, WithoutKeysUnsignedFilesPassButABadSignatureNeverDoes) {
    EXPECT_EQ(install(unsigned_), kOk);
    // Nobody vouches for the key, but nobody asked for one either.
    EXPECT_EQ(install(signed_), kOk);
    EXPECT_EQ(install(tampered([](Members& m) { member(m, "conf/demo.conf").data = "x"; })),
              kSignatureRefused);
    EXPECT_NE(log().find("differ from what key " + publisher.id() + " signed"), std::string::npos)
        << log();

    writeText(layout::settingsFile(), "require_signature=\"yes\"\n");
    EXPECT_EQ(install(unsigned_), kSignatureRefused);
    EXPECT_EQ(install(signed_), kSignatureRefused);  // no key to verify it with

    // Keys installed, signatures not required: a bad one is still refused.
    trust(publisher);
    writeText(layout::settingsFile(), "require_signature=\"no\"\n");
    EXPECT_EQ(install(unsigned_), kOk);
    EXPECT_EQ(install(tampered([](Members& m) {
                  std::string& text = member(m, "SIGNATURE").data;
                  text[12] = text[12] == '0' ? '1' : '0';
              })),
              kSignatureRefused);
    EXPECT_NE(log().find("the signature by key " + publisher.id() + " does not verify"),
              std::string::npos)
        << log();
    // A key file that holds no key still turns the requirement on.
    fs::remove(layout::settingsFile());
    fs::remove(layout::trustedKeysDir() / "publisher.pub");
    writeText(layout::trustedKeysDir() / "broken.pub", "not a key\n");
    EXPECT_EQ(install(unsigned_), kSignatureRefused);
}

}  // namespace
}  // namespace quor::test
