// Signing with the zpk tool and installing with the quorpkg binary, on a
// device that trusts the publisher's key.
#include <gtest/gtest.h>
#include <sys/stat.h>

#include <set>

#include "base/file_util.h"
#include "tool_runner.h"

namespace quor::e2e {
namespace {

RunResult zpk(const Device& device, const std::vector<std::string>& args) {
    return runProgram(ZPK_BINARY, args, device.packageDir());
}

// The key id zpk keygen printed: "<name>.key <name>.pub key <id>\n".
std::string keygen(const Device& device, const std::string& name) {
    RunResult made = zpk(device, {"keygen", name});
    EXPECT_EQ(made.status, 0);
    const std::string prefix = name + ".key " + name + ".pub key ";
    EXPECT_EQ(made.out.substr(0, prefix.size()), prefix);
    EXPECT_EQ(made.out.size(), prefix.size() + 17);
    return made.out.substr(prefix.size(), 16);
}

TEST(E2eSignature, SignedPackagesInstallAndOthersAreRefusedWithTheirCode) {
    Device device;
    const std::string id = keygen(device, "publisher");
    keygen(device, "stranger");
    struct stat st {};
    ASSERT_EQ(::stat((device.packageDir() / "publisher.key").c_str(), &st), 0);
    EXPECT_EQ(st.st_mode & 0777, 0600u);
    EXPECT_EQ(zpk(device, {"keygen", "publisher"}).status, 1);  // never overwritten

    test::PackageSource source;
    source.scripts = {{"postinst", "#!/bin/sh\n"}};
    const std::string plain = device.package(source);
    test::writePackageSource(device.packageDir() / "src", source);
    ASSERT_EQ(zpk(device, {"build", "src", "-o", "signed.zpk", "--sign", "publisher.key"}).status,
              0);
    // The signed file alone: no unsigned copy is left beside it.
    std::set<std::string> files;
    for (const auto& entry : fs::directory_iterator(device.packageDir()))
        files.insert(entry.path().filename().string());
    EXPECT_EQ(files, (std::set<std::string>{plain, "publisher.key", "publisher.pub", "signed.zpk",
                                            "src", "stranger.key", "stranger.pub"}));
    const RunResult info = zpk(device, {"info", "signed.zpk"});
    EXPECT_NE(info.out.find("signature:   key " + id + "\n"), std::string::npos) << info.out;
    const size_t sha = info.out.find("sha256:      ");
    ASSERT_NE(sha, std::string::npos) << info.out;
    EXPECT_EQ(info.out.find('\n', sha), sha + 13 + 64) << info.out;
    EXPECT_NE(zpk(device, {"info", plain}).out.find("signature:   none\n"), std::string::npos);
    // The query reads signed files as before, to the byte.
    EXPECT_EQ(device.quorpkg({"query", "signed.zpk"}).out, device.quorpkg({"query", plain}).out);

    fs::create_directories(device.root().host("/etc/quorpkg/keys"));
    fs::copy_file(device.packageDir() / "publisher.pub",
                  device.root().host("/etc/quorpkg/keys/publisher.pub"));
    device.expect({"install", plain}, "Failed to install package " + plain + ", error = [116]\n",
                  1);
    fs::copy_file(device.packageDir() / "signed.zpk", device.packageDir() / "other.zpk");
    ASSERT_EQ(zpk(device, {"sign", "other.zpk", "stranger.key"}).status, 0);
    device.expect({"install", "other.zpk"}, "Failed to install package other.zpk, error = [116]\n",
                  1);
    device.expect({"list"}, "", 0);
    // Each refusal names its file and why in the platform log.
    const std::string log = readFile(device.root().host("/var/log/quorpkg.log")).value_or("");
    EXPECT_NE(log.find(plain + " is not signed"), std::string::npos) << log;
    EXPECT_NE(log.find("other.zpk"), std::string::npos) << log;
    EXPECT_NE(log.find("116"), std::string::npos) << log;
    device.expect({"install", "signed.zpk"}, "signed.zpk install successfully\n", 0);
    device.expect({"version", "demo"}, "1.0-0001\n", 0);

    fs::create_directory(device.packageDir() / "repo");
    fs::rename(device.packageDir() / "signed.zpk", device.packageDir() / "repo/signed.zpk");
    ASSERT_EQ(zpk(device, {"index", "repo", "--sign", "publisher.key"}).status, 0);
    const std::string sig = readFile(device.packageDir() / "repo/catalog.json.sig").value_or("");
    EXPECT_NE(sig.find("key " + id + "\n"), std::string::npos) << sig;
}

}  // namespace
}  // namespace quor::e2e
