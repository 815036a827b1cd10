#include "published_source.h"

#include <gtest/gtest.h>

#include <stdexcept>

#include "base/file_util.h"
#include "quorpkg/package/md5.h"

namespace quor::e2e {

PublishedSource::PublishedSource(const Device& device)
    : device_(device), keys_(device.packageDir() / "keys"), repo_(device.packageDir() / "repo") {
    fs::create_directories(keys_);
    for (const char* name : {"root1", "root2", "root3", "timestamp", "catalog", "publisher"})
        if (zpk({"keygen", name}).status != 0) throw std::runtime_error("zpk keygen failed");
    RunResult made = zpk({"source", "new", repo_.string(), "--id", "e2e-source", "--root-key",
                          "root1.pub", "--root-key", "root2.pub", "--root-key", "root3.pub",
                          "--threshold", "2", "--timestamp-key", "timestamp.pub", "--catalog-key",
                          "catalog.pub", "--publisher", "publisher.pub=*"});
    const std::string draft = (repo_ / "1.root.draft").string();
    if (made.status != 0 || zpk({"root", "sign", draft, "root1.key"}).status != 0 ||
        zpk({"root", "sign", draft, "root3.key"}).status != 0)
        throw std::runtime_error("cannot make the source's first root");
    pin_ = dataSha256Hex(readFile(repo_ / "1.root").value_or(""));
}

std::string PublishedSource::sourcesLine(const std::string& url) const {
    return "quorserver " + url + " root=" + pin_;
}

void PublishedSource::publish(const test::PackageSource& pkg) const {
    const std::string file = device_.package(pkg);
    fs::rename(device_.packageDir() / file, repo_ / file);
    ASSERT_EQ(zpk({"sign", (repo_ / file).string(), "publisher.key"}).status, 0);
}

void PublishedSource::release() const {
    RunResult released = zpk({"release", repo_.string(), "--catalog-key", "catalog.key",
                              "--timestamp-key", "timestamp.key"});
    ASSERT_EQ(released.status, 0) << released.out;
}

RunResult PublishedSource::zpk(const std::vector<std::string>& args) const {
    return runProgram(ZPK_BINARY, args, keys_);
}

}  // namespace quor::e2e
