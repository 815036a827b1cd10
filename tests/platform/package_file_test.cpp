// Package files: building, querying, unpacking, and refusing hostile or
// broken files with the right code before anything is written, also damage
// that libarchive alone lets through.
#include "quorpkg/package/package_file.h"

#include <archive_entry.h>
#include <gtest/gtest.h>
#include <sys/stat.h>
#include <unistd.h>

#include <fstream>

#include "base/file_util.h"
#include "base/result.h"
#include "test_support.h"

namespace quor {
namespace {

namespace fs = std::filesystem;
using test::TarEntry;
using test::TarFilter;

mode_t modeOf(const fs::path& path) {
    struct stat st {};
    EXPECT_EQ(::lstat(path.c_str(), &st), 0) << path;
    return st.st_mode & 07777;
}

class PackageFileTest : public ::testing::Test {
protected:
    UnpackTargets targets() const {
        return {dir_.path() / "out/payload", dir_.path() / "out/scripts", dir_.path() / "out/conf"};
    }

    // Unpacks `file` into a fresh out/; a refused file leaves nothing behind.
    int unpack(const fs::path& file) { return unpack(file, targets()); }
    int unpack(const fs::path& file, const UnpackTargets& where) {
        fs::remove_all(dir_.path() / "out");
        PackageFileHead head;
        int code = readPackageHead(file, head);
        if (code != kOk) return code;
        std::string error;
        code = unpackPackage(file, head, where, &error);
        if (code != kOk) {
            EXPECT_FALSE(error.empty());
            EXPECT_FALSE(fs::exists(dir_.path() / "out")) << "written before refusing";
        }
        return code;
    }

    // A package file with the given members around an INFO for `payload`.
    fs::path handMade(const std::string& payload, std::vector<TarEntry> more = {},
                      const std::string& payloadMember = "package.tgz") {
        std::vector<TarEntry> members = {
            test::fileEntry("INFO", test::infoText("hand", "1.0", payload)),
            test::fileEntry(payloadMember, payload)};
        members.insert(members.end(), more.begin(), more.end());
        fs::path file = dir_.path() / ("hand" + std::to_string(++count_) + ".zpk");
        test::writeTar(file, members);
        return file;
    }

    test::TempDir dir_;
    int count_ = 0;
};

TEST_F(PackageFileTest, BuildThenQueryReadsManifestScriptsAndMembers) {
    test::PackageSource pkg;
    pkg.name = "photo";
    pkg.version = "2.1-0005";
    pkg.info = {{"displayname", "Photo Station"}, {"install_dep_packages", "db>=1"}};
    pkg.scripts = {{"postinst", "#!/bin/sh\n"}, {"start-stop-status", "#!/bin/sh\n"}};
    pkg.conf = {{"privilege", "root"}, {"sub/resource", "x"}};
    fs::path file = test::buildTestPackage(dir_.path(), pkg);

    PackageFileHead head;
    std::string error;
    ASSERT_EQ(readPackageHead(file, head, &error), kOk) << error;
    EXPECT_EQ(head.manifest.name, "photo");
    EXPECT_EQ(head.manifest.version, "2.1-0005");
    EXPECT_EQ(head.manifest.displayname, "Photo Station");
    ASSERT_EQ(head.manifest.depends.size(), 1u);
    EXPECT_EQ(head.scriptMask, kPostinst | kStartStopStatus);
    EXPECT_EQ(head.payloadMember, "package.tgz");
    EXPECT_EQ(head.members,
              (std::vector<std::string>{"INFO", "package.tgz", "scripts", "scripts/postinst",
                                        "scripts/start-stop-status", "conf", "conf/privilege",
                                        "conf/sub", "conf/sub/resource"}));
    EXPECT_EQ(head.manifest.checksum.size(), 32u);

    // A source without INFO, with a bad manifest or without package/ is refused.
    fs::path source = dir_.path() / "src";
    test::writePackageSource(source, pkg);
    fs::remove(source / "INFO");
    EXPECT_EQ(buildPackage(source, dir_.path() / "x.zpk", PayloadCompression::kGzip), kBadManifest);
    test::writeText(source / "INFO", "package=\"bad name\"\nversion=\"1\"\n");
    EXPECT_EQ(buildPackage(source, dir_.path() / "x.zpk", PayloadCompression::kGzip), kBadManifest);
    test::writeText(source / "INFO", "package=\"ok\"\nversion=\"1\"\n");
    fs::remove_all(source / "package");
    EXPECT_EQ(buildPackage(source, dir_.path() / "x.zpk", PayloadCompression::kGzip), kBadArgument);
    EXPECT_FALSE(fs::exists(dir_.path() / "x.zpk"));
}

TEST_F(PackageFileTest, UnpacksGzipAndZstdPayloadsKeepingModesAndInnerLinks) {
    for (auto compression : {PayloadCompression::kGzip, PayloadCompression::kZstd}) {
        SCOPED_TRACE(compression == PayloadCompression::kGzip ? "gzip" : "zstd");
        fs::path source = dir_.path() / "src";
        fs::remove_all(source);
        fs::remove_all(dir_.path() / "out");
        test::PackageSource pkg;
        pkg.files = {{"bin/tool", "#!/bin/sh\necho tool\n"},
                     {"etc/secret", "s"},
                     {"share/caf\xc3\xa9.txt", "utf-8 name"}};
        pkg.scripts = {{"preinst", "#!/bin/sh\nexit 0\n"}};
        pkg.conf = {{"resource", "{}"}};
        test::writePackageSource(source, pkg);
        ::chmod((source / "package/etc/secret").c_str(), 0600);
        ::chmod((source / "package/etc").c_str(), 0750);
        ::chmod((source / "package/bin/tool").c_str(), 04755);  // set-id bits are dropped
        ::chmod((source / "scripts/preinst").c_str(), 0644);    // scripts always run
        fs::create_symlink("tool", source / "package/bin/alias");
        fs::create_directories(source / "package/lib");
        fs::create_symlink("../bin/tool", source / "package/lib/tool");
        fs::path file = dir_.path() / "p.zpk";
        std::string error;
        ASSERT_EQ(buildPackage(source, file, compression, &error), kOk) << error;

        PackageFileHead head;
        ASSERT_EQ(readPackageHead(file, head), kOk);
        EXPECT_EQ(head.payloadMember,
                  compression == PayloadCompression::kZstd ? "package.tzst" : "package.tgz");
        ::umask(077);  // modes come from the package, not from the umask
        ASSERT_EQ(unpackPackage(file, head, targets(), &error), kOk) << error;
        ::umask(022);
        UnpackTargets t = targets();
        EXPECT_EQ(readFile(t.payload / "bin/tool"), "#!/bin/sh\necho tool\n");
        EXPECT_EQ(modeOf(t.payload / "bin/tool"), 0755u);
        EXPECT_EQ(modeOf(t.payload / "etc/secret"), 0600u);
        EXPECT_EQ(modeOf(t.payload / "etc"), 0750u);
        EXPECT_EQ(fs::read_symlink(t.payload / "bin/alias"), "tool");
        EXPECT_EQ(fs::read_symlink(t.payload / "lib/tool"), "../bin/tool");
        EXPECT_EQ(readFile(t.scripts / "preinst"), "#!/bin/sh\nexit 0\n");
        EXPECT_EQ(modeOf(t.scripts / "preinst"), 0755u);
        EXPECT_EQ(readFile(t.conf / "resource"), "{}");
        EXPECT_EQ(readFile(t.payload / "share/caf\xc3\xa9.txt"), "utf-8 name");
        EXPECT_EQ(std::distance(fs::directory_iterator(t.payload), fs::directory_iterator()), 4);
    }
}

TEST_F(PackageFileTest, RefusesUnsafeMembers) {
    std::string payload = test::tarBytes({test::fileEntry("f", "x")}, TarFilter::kGzip);
    const std::vector<TarEntry> unsafe = {
        test::fileEntry("/etc/cron.d/evil", "x"),
        test::fileEntry("../evil", "x"),
        test::fileEntry("conf/../../evil", "x"),
        test::fileEntry("conf/a\x01z", "x"),
        test::fileEntry("conf/tab\tname", "x"),
        test::symlinkEntry("conf/link", "../../etc"),
        test::symlinkEntry("conf/inside", "privilege"),  // members are never links
        test::hardlinkEntry("conf/h", "INFO"),
        test::nodeEntry("conf/dev", AE_IFCHR),
        test::nodeEntry("conf/fifo", AE_IFIFO),
    };
    for (const TarEntry& member : unsafe) {
        SCOPED_TRACE(member.name);
        fs::path file = handMade(payload, {member});
        PackageFileHead head;
        std::string error;
        EXPECT_EQ(readPackageHead(file, head, &error), kUnsafeEntry);
        EXPECT_FALSE(error.empty());
    }
}

TEST_F(PackageFileTest, RefusesUnsafePayloadEntriesBeforeWriting) {
    const std::vector<std::vector<TarEntry>> unsafe = {
        {test::fileEntry("/abs", "x")},
        {test::fileEntry("../up", "x")},
        {test::fileEntry("a/../../up", "x")},
        {test::fileEntry("bad\x7fname", "x")},
        {test::symlinkEntry("bin/l", "../../etc")},
        {test::symlinkEntry("l", "/etc/passwd")},
        {test::dirEntry("d"), test::symlinkEntry("l", "d/../..")},
        {test::fileEntry("a", "x"), test::hardlinkEntry("b", "a")},
        {test::nodeEntry("dev/null", AE_IFCHR)},
        {test::nodeEntry("pipe", AE_IFIFO)},
        // Written through an earlier link, the file would land outside.
        {test::dirEntry("sub"), test::symlinkEntry("sub/up", ".."),
         test::fileEntry("sub/up/x", "")},
        {test::symlinkEntry("same", "a"), test::fileEntry("same", "x")},
    };
    for (const auto& entries : unsafe) {
        SCOPED_TRACE(entries.back().name);
        fs::path file = handMade(test::tarBytes(entries, TarFilter::kGzip));
        PackageFileHead head;
        EXPECT_EQ(readPackageHead(file, head), kOk);  // a query does not open the payload
        EXPECT_EQ(unpack(file), kUnsafeEntry);
    }
    // The same kinds of names that stay inside are fine.
    fs::path good = handMade(
        test::tarBytes(
            {test::dirEntry("./"), test::dirEntry("./bin"), test::fileEntry("./bin/y", "y", 0755),
             test::symlinkEntry("./lib/x", "../bin/y"), test::symlinkEntry("top", "./bin"),
             test::symlinkEntry("self", ".")},
            TarFilter::kZstd),
        {}, "package.tzst");
    ASSERT_EQ(unpack(good), kOk);
    EXPECT_EQ(readFile(targets().payload / "lib/x"), "y");
}

TEST_F(PackageFileTest, RefusesFilesWithoutValidManifestOrLayout) {
    std::string payload = test::tarBytes({test::fileEntry("f", "x")}, TarFilter::kGzip);
    auto write = [&](const std::vector<TarEntry>& members) {
        fs::path file = dir_.path() / ("m" + std::to_string(++count_) + ".zpk");
        test::writeTar(file, members);
        PackageFileHead head;
        return readPackageHead(file, head);
    };
    TarEntry infoDir = test::dirEntry("INFO");
    EXPECT_EQ(write({test::fileEntry("package.tgz", payload)}), kBadManifest);  // no INFO
    EXPECT_EQ(write({}), kBadManifest);                                         // empty tar
    EXPECT_EQ(write({test::fileEntry("INFO", "package=\"bad/name\"\nversion=\"1\"\n"),
                     test::fileEntry("package.tgz", payload)}),
              kBadManifest);
    EXPECT_EQ(
        write({test::fileEntry("INFO", "just text\n"), test::fileEntry("package.tgz", payload)}),
        kBadManifest);
    EXPECT_EQ(write({test::fileEntry("INFO", test::infoText("a", "1", payload))}), kBadManifest);
    EXPECT_EQ(write({infoDir, test::fileEntry("package.tgz", payload)}), kBadManifest);
    const std::string info = test::infoText("a", "1", payload);
    for (const char* stray : {"package.txz", "extra.txt", "scripts/evil", "package/x", "INFO"}) {
        SCOPED_TRACE(stray);
        EXPECT_EQ(write({test::fileEntry("INFO", info), test::fileEntry("package.tgz", payload),
                         test::fileEntry(stray, "x")}),
                  kBadManifest);
    }
    EXPECT_EQ(write({test::fileEntry("INFO", info), test::fileEntry("package.tgz", payload),
                     test::fileEntry("package.tzst", payload)}),
              kBadManifest);
    // INFO need not come first, and "./" prefixes are fine.
    EXPECT_EQ(write({test::dirEntry("./"), test::fileEntry("./package.tgz", payload),
                     test::fileEntry("./INFO", info)}),
              kOk);
}

TEST_F(PackageFileTest, RefusesUnreadableAndTruncatedFiles) {
    PackageFileHead head;
    EXPECT_EQ(readPackageHead(dir_.path() / "missing.zpk", head), kFileUnreadable);
    EXPECT_EQ(readPackageHead(dir_.path(), head), kFileUnreadable);
    test::writeText(dir_.path() / "empty.zpk", "");
    EXPECT_EQ(readPackageHead(dir_.path() / "empty.zpk", head), kFileUnreadable);
    test::writeText(dir_.path() / "text.zpk", std::string(4096, 'x'));
    EXPECT_EQ(readPackageHead(dir_.path() / "text.zpk", head), kFileUnreadable);

    test::PackageSource pkg;
    pkg.files = {{"data.bin", test::noiseBytes(50000, 0)}};
    fs::path good = test::buildTestPackage(dir_.path(), pkg);
    // The whole package file compressed is not a package file.
    test::writeText(dir_.path() / "gz.zpk",
                    test::tarBytes({test::fileEntry("INFO", *readFile(good))}, TarFilter::kGzip));
    EXPECT_EQ(readPackageHead(dir_.path() / "gz.zpk", head), kFileUnreadable);

    // Cut anywhere before the end-of-archive marker, also right after a
    // member, the file is refused as unreadable.
    std::string bytes = *readFile(good);
    size_t dataEnd = (bytes.find_last_not_of('\0') / 512 + 1) * 512;
    for (size_t cut = 300; cut <= dataEnd; cut += cut % 512 == 0 ? 211 : 512 - cut % 512) {
        SCOPED_TRACE(cut);
        fs::path file = dir_.path() / "cut.zpk";
        test::writeText(file, bytes.substr(0, cut));
        ASSERT_EQ(readPackageHead(file, head), kFileUnreadable);
    }
    // So is a file cut inside the end-of-archive marker.
    for (size_t cut : {dataEnd + 1, dataEnd + 511, dataEnd + 512, dataEnd + 513, dataEnd + 1023}) {
        SCOPED_TRACE(cut - dataEnd);
        test::writeText(dir_.path() / "cut.zpk", bytes.substr(0, cut));
        EXPECT_EQ(readPackageHead(dir_.path() / "cut.zpk", head), kFileUnreadable);
    }
    // The whole marker, with or without the padding of a full record.
    for (size_t length : {dataEnd + 1024, bytes.size()}) {
        test::writeText(dir_.path() / "whole.zpk", bytes.substr(0, length));
        EXPECT_EQ(readPackageHead(dir_.path() / "whole.zpk", head), kOk);
    }
}

TEST_F(PackageFileTest, QuerySkipsPayloadAndUnpackChecksItFirst) {
    std::string payload =
        test::tarBytes({test::fileEntry("f", std::string(5000, 'p'))}, TarFilter::kGzip);
    std::string corrupt = payload;
    for (size_t i = 20; i < corrupt.size() - 8; i += 7) corrupt[i] = char(corrupt[i] ^ 0x5a);

    // INFO holds the checksum of the good payload; the member is damaged.
    fs::path file = dir_.path() / "damaged.zpk";
    test::writeTar(file, {test::fileEntry("INFO", test::infoText("d", "1", payload)),
                          test::fileEntry("package.tgz", corrupt)});
    PackageFileHead head;
    ASSERT_EQ(readPackageHead(file, head), kOk);
    EXPECT_EQ(head.manifest.name, "d");
    EXPECT_EQ(unpack(file), kChecksumMismatch);

    // The sha256 is checked too, when the manifest has one.
    fs::path wrongSha = dir_.path() / "sha.zpk";
    const std::string sha = "sha256=\"" + std::string(64, 'a') + "\"\n";
    test::writeTar(wrongSha, {test::fileEntry("INFO", test::infoText("d", "1", payload) + sha),
                              test::fileEntry("package.tgz", payload)});
    EXPECT_EQ(unpack(wrongSha), kChecksumMismatch);
    test::writeTar(wrongSha,
                   {test::fileEntry("INFO", test::infoText("d", "1", payload) + "sha256=\"ab\"\n"),
                    test::fileEntry("package.tgz", payload)});
    EXPECT_EQ(unpack(wrongSha), kBadManifest);

    // A damaged payload whose checksum matches cannot be read.
    EXPECT_EQ(unpack(handMade(corrupt)), kFileUnreadable);
    // A payload that is not compressed as its name says cannot be read.
    EXPECT_EQ(unpack(handMade(test::tarBytes({test::fileEntry("f", "x")}, TarFilter::kZstd))),
              kFileUnreadable);
    EXPECT_EQ(unpack(handMade(test::tarBytes({test::fileEntry("f", "x")}))), kFileUnreadable);

    // Without a checksum key the payload is not compared, but still unpacked.
    fs::path noSum = dir_.path() / "nosum.zpk";
    test::writeTar(noSum, {test::fileEntry("INFO", "package=\"n\"\nversion=\"1\"\n"),
                           test::fileEntry("package.tgz", payload)});
    EXPECT_EQ(unpack(noSum), kOk);
    EXPECT_EQ(readFile(targets().payload / "f"), std::string(5000, 'p'));
}

TEST_F(PackageFileTest, ADamagedCompressedPayloadIsRefused) {
    // Noise makes deflate store the bytes as they are: a flipped byte in
    // them decompresses without any error of its own.
    const std::string good =
        test::tarBytes({test::fileEntry("f", test::noiseBytes(20000, 7))}, TarFilter::kGzip);
    ASSERT_EQ(unpack(handMade(good)), kOk);
    auto flipped = [](std::string bytes, size_t at) {
        bytes[at] = char(bytes[at] ^ 0x01);
        return bytes;
    };
    // In the data, in the trailer's crc and length, no trailer, junk after it.
    for (const std::string& payload :
         {flipped(good, good.size() / 2), flipped(good, good.size() - 8),
          flipped(good, good.size() - 1), good.substr(0, good.size() - 8), good + "junk"}) {
        SCOPED_TRACE(payload.size());
        EXPECT_EQ(unpack(handMade(payload)), kFileUnreadable);
    }
    // Two members are one stream.
    const std::string second = test::tarBytes({test::fileEntry("g", "second")}, TarFilter::kGzip);
    EXPECT_EQ(unpack(handMade(good + second)), kOk);

    // zstd: a frame cut short (the tar inside may already have ended), junk
    // after the last frame. (A changed byte of stored data shows only in the
    // member's digests: frames are written without checksums.)
    const std::string zstd =
        test::tarBytes({test::fileEntry("f", test::noiseBytes(20000, 7))}, TarFilter::kZstd);
    ASSERT_EQ(unpack(handMade(zstd, {}, "package.tzst")), kOk);
    for (const std::string& payload :
         {zstd.substr(0, zstd.size() - 4), zstd.substr(0, zstd.size() / 2), zstd + "junk"}) {
        SCOPED_TRACE(payload.size());
        EXPECT_EQ(unpack(handMade(payload, {}, "package.tzst")), kFileUnreadable);
    }
}

TEST_F(PackageFileTest, APayloadLargerThanItsAllowanceIsRefusedBeforeWriting) {
    // 8 MiB of zeros pack into a few KiB.
    const std::string payload = test::tarBytes(
        {test::dirEntry("share"), test::fileEntry("share/zeros", std::string(8 << 20, '\0'))},
        TarFilter::kGzip);
    ASSERT_LT(payload.size(), 64u << 10);
    const fs::path file = handMade(payload);
    UnpackTargets where = targets();
    where.spaceAllowance = 4 << 20;
    EXPECT_EQ(unpack(file, where), kNoSpace);
    where.spaceAllowance = 9 << 20;
    EXPECT_EQ(unpack(file, where), kOk);
}

}  // namespace
}  // namespace quor
