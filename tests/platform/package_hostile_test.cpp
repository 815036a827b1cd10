// Package files damaged in ways that libarchive alone lets through: a gzip
// payload whose trailer no longer matches its data, a file cut inside the
// end-of-archive marker, and a payload that unpacks to more than it may.
#include <gtest/gtest.h>

#include "base/file_util.h"
#include "base/result.h"
#include "quorpkg/package/package_file.h"
#include "test_support.h"

namespace quor::test {
namespace {

class PackageHostile : public ::testing::Test {
protected:
    UnpackTargets targets() const {
        return {dir_.path() / "out/payload", dir_.path() / "out/scripts", dir_.path() / "out/conf"};
    }

    // A package file whose INFO carries the checksum of `payload` as given,
    // so that only the payload's own checks can find damage.
    fs::path withPayload(const std::string& payload) {
        fs::path file = dir_.path() / ("p" + std::to_string(++count_) + ".zpk");
        writeTar(file, {fileEntry("INFO", infoText("hand", "1.0", payload)),
                        fileEntry("package.tgz", payload)});
        return file;
    }

    // Unpacks `file`; a refused file leaves nothing behind.
    int unpack(const fs::path& file, UnpackTargets where) {
        PackageFileHead head;
        int code = readPackageHead(file, head);
        if (code != kOk) return code;
        code = unpackPackage(file, head, where);
        if (code != kOk) {
            EXPECT_FALSE(fs::exists(dir_.path() / "out")) << "left behind after refusing";
        }
        fs::remove_all(dir_.path() / "out");
        return code;
    }
    int unpack(const fs::path& file) { return unpack(file, targets()); }

    TempDir dir_;
    int count_ = 0;
};

TEST_F(PackageHostile, ADamagedGzipPayloadIsRefusedBeforeWriting) {
    // Random bytes make deflate store them as they are: a flipped byte in
    // them decompresses without any error of its own.
    std::string noise;
    for (unsigned i = 7; noise.size() < 20000; i = i * 1103515245u + 12345u) noise += char(i >> 16);
    const std::string good = tarBytes({fileEntry("f", noise)}, TarFilter::kGzip);
    ASSERT_EQ(unpack(withPayload(good)), kOk);

    std::string inData = good;
    inData[inData.size() / 2] = char(inData[inData.size() / 2] ^ 0x01);
    std::string badCrc = good;
    badCrc[badCrc.size() - 8] = char(badCrc[badCrc.size() - 8] ^ 0x01);
    std::string badLength = good;
    badLength[badLength.size() - 1] = char(badLength[badLength.size() - 1] ^ 0x01);
    const std::string noTrailer = good.substr(0, good.size() - 8);
    const std::string trailingJunk = good + "junk";
    for (const std::string* payload : std::initializer_list<const std::string*>{
             &inData, &badCrc, &badLength, &noTrailer, &trailingJunk}) {
        SCOPED_TRACE(*payload == inData ? "in data" : "trailer");
        EXPECT_EQ(unpack(withPayload(*payload)), kFileUnreadable);
    }
}

TEST_F(PackageHostile, AFileCutInsideTheEndOfArchiveMarkerIsRefused) {
    PackageSource pkg;
    const std::string bytes = *readFile(buildTestPackage(dir_.path(), pkg));
    const size_t dataEnd = (bytes.find_last_not_of('\0') / 512 + 1) * 512;
    PackageFileHead head;
    for (size_t cut : {dataEnd + 1, dataEnd + 511, dataEnd + 512, dataEnd + 513, dataEnd + 1023}) {
        SCOPED_TRACE(cut - dataEnd);
        fs::path file = dir_.path() / "cut.zpk";
        writeText(file, bytes.substr(0, cut));
        EXPECT_EQ(readPackageHead(file, head), kFileUnreadable);
    }
    // The whole marker, with or without the padding of a full record.
    for (size_t length : {dataEnd + 1024, bytes.size()}) {
        writeText(dir_.path() / "whole.zpk", bytes.substr(0, length));
        EXPECT_EQ(readPackageHead(dir_.path() / "whole.zpk", head), kOk);
    }
}

TEST_F(PackageHostile, APayloadLargerThanItsAllowanceIsRefusedBeforeWriting) {
    // 8 MiB of zeros pack into a few KiB.
    const std::string payload =
        tarBytes({dirEntry("share"), fileEntry("share/zeros", std::string(8 << 20, '\0'))},
                 TarFilter::kGzip);
    ASSERT_LT(payload.size(), 64u << 10);
    const fs::path file = withPayload(payload);
    UnpackTargets where = targets();
    where.spaceAllowance = 4 << 20;
    EXPECT_EQ(unpack(file, where), kNoSpace);
    where.spaceAllowance = 9 << 20;
    EXPECT_EQ(unpack(file, where), kOk);
}

}  // namespace
}  // namespace quor::test
