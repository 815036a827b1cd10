// The trusted-source fixture: what zpk's publisher verbs do, called as
// functions.
#include "channel_fixture.h"

#include <gtest/gtest.h>

#include <chrono>
#include <stdexcept>

#include "base/file_util.h"
#include "base/result.h"
#include "base/utc_time.h"
#include "quorpkg/package/channel_publisher.h"
#include "quorpkg/package/md5.h"
#include "quorpkg/package/package_signer.h"

namespace quor::test {
namespace {

constexpr int64_t kDay = 86400;

void addKey(SourceRoot& root, const SigningKey& key) {
    root.keys.emplace(key.id(), key.rawPublic());
}

}  // namespace

SigningKey newKey() {
    std::optional<SigningKey> key = SigningKey::generate();
    if (!key) throw std::runtime_error("cannot make a key");
    return *key;
}

void replaceServed(const fs::path& file, const std::string& content) {
    std::error_code ec;
    const auto previous = fs::last_write_time(file, ec);
    const bool had = !ec;
    writeFileAtomic(file, content);
    if (had)
        fs::last_write_time(
            file, std::max(previous + std::chrono::seconds(1), fs::last_write_time(file)));
}

TestSource::TestSource(fs::path dir, std::string id, int rootKeys, int threshold)
    : timestampKey(newKey()),
      catalogKey(newKey()),
      publisherKey(newKey()),
      dir_(std::move(dir)),
      id_(std::move(id)) {
    for (int i = 0; i < rootKeys; ++i) this->rootKeys.push_back(newKey());
    makeFirstRoot(threshold);
}

TestSource::TestSource(fs::path dir, std::string id, const TestSource& sameKeys)
    : rootKeys(sameKeys.rootKeys),
      timestampKey(sameKeys.timestampKey),
      catalogKey(sameKeys.catalogKey),
      publisherKey(sameKeys.publisherKey),
      dir_(std::move(dir)),
      id_(std::move(id)) {
    makeFirstRoot(1);
}

void TestSource::makeFirstRoot(int threshold) {
    fs::create_directories(dir_);
    SourceRoot root;
    root.source = id_;
    root.version = 1;
    root.expires = nowSeconds() + 365 * kDay;
    for (const SigningKey& key : rootKeys) {
        addKey(root, key);
        root.root.keyIds.push_back(key.id());
    }
    root.root.threshold = threshold;
    for (auto [role, key] :
         {std::pair{&root.timestamp, &timestampKey}, std::pair{&root.catalog, &catalogKey}}) {
        addKey(root, *key);
        *role = RoleKeys{1, {key->id()}};
    }
    addKey(root, publisherKey);
    root.publishers.push_back({publisherKey.id(), {"*"}});
    const fs::path draft = dir_ / (rootFileName(1) + ".draft");
    writeFileAtomic(draft, formatRoot(root));
    RootProgress progress;
    std::string why;
    for (int i = 0; i < threshold; ++i)
        if (signRoot(draft, rootKeys[i], progress, why) != kOk)
            throw std::runtime_error("cannot sign root 1: " + why);
    if (!progress.complete) throw std::runtime_error("root 1 incomplete");
    pin_ = dataSha256Hex(readFile(dir_ / rootFileName(1)).value_or(""));
}

std::string TestSource::sourcesLine(const std::string& url, const std::string& id) const {
    return id + " " + url + " root=" + pin_;
}

void TestSource::sign(const fs::path& file) const {
    std::string why;
    if (signPackage(file, file, publisherKey, &why) != kOk)
        throw std::runtime_error("cannot sign " + file.string() + ": " + why);
}

void TestSource::release(const std::string& lang, int64_t now, int catalogDays, int timestampDays) {
    ReleaseOptions options;
    options.lang = lang;
    options.catalogKeys = {catalogKey};
    options.timestampKeys = {timestampKey};
    options.now = now ? now : nowSeconds();
    options.catalogLifetime = catalogDays * kDay;
    options.timestampLifetime = timestampDays * kDay;
    ReleaseOutcome outcome;
    std::string why;
    ASSERT_EQ(releaseCatalog(dir_, options, outcome, why), kOk) << why;
}

void TestSource::releaseText(const std::string& text, const std::string& lang) {
    std::string why;
    std::optional<SourceTimestamp> timestamp =
        readTimestamp(readFile(dir_ / kTimestampFile).value_or(""), why);
    ASSERT_TRUE(timestamp) << "release first: " << why;
    const CatalogRef* previous = timestamp->catalogFor(lang);
    CatalogRef ref;
    ref.lang = lang;
    ref.version = previous ? previous->version + 1 : 1;
    ref.size = text.size();
    ref.sha256 = dataSha256Hex(text);
    const int64_t now = nowSeconds();
    CatalogSeal seal{id_, lang, ref.version, now + 90 * kDay, ref.sha256, {}};
    const fs::path file = dir_ / catalogFileName(lang, ref.version);
    writeFileAtomic(file, text);
    writeFileAtomic(file.string() + ".sig", addSignature(formatCatalogSeal(seal), catalogKey, why));
    std::erase_if(timestamp->catalogs, [&](const CatalogRef& other) { return other.lang == lang; });
    timestamp->catalogs.push_back(ref);
    timestamp->version += 1;
    timestamp->issued = now;
    timestamp->expires = now + 7 * kDay;
    replaceServed(dir_ / kTimestampFile,
                  addSignature(formatTimestamp(*timestamp), timestampKey, why));
}

std::string TestSource::catalogText(const std::string& lang) const {
    std::string why;
    std::optional<SourceTimestamp> timestamp =
        readTimestamp(readFile(dir_ / kTimestampFile).value_or(""), why);
    const CatalogRef* ref = timestamp ? timestamp->catalogFor(lang) : nullptr;
    return ref ? readFile(dir_ / catalogFileName(ref->lang, ref->version)).value_or("") : "";
}

SourceTimestamp TestSource::timestamp() const {
    std::string why;
    std::optional<SourceTimestamp> timestamp =
        readTimestamp(readFile(dir_ / kTimestampFile).value_or(""), why);
    if (!timestamp) throw std::runtime_error("no timestamp served: " + why);
    return *timestamp;
}

void TestSource::serveTimestamp(const SourceTimestamp& timestamp, const SigningKey& key) const {
    std::string why;
    replaceServed(dir_ / kTimestampFile, addSignature(formatTimestamp(timestamp), key, why));
}

void TestSource::renew(int64_t now, int timestampDays) {
    ReleaseOptions options;
    options.timestampKeys = {timestampKey};
    options.now = now ? now : nowSeconds();
    options.timestampLifetime = timestampDays * kDay;
    uint64_t version = 0;
    std::string why;
    ASSERT_EQ(renewTimestamp(dir_, options, version, why), kOk) << why;
}

void TestSource::rotate(const std::function<void(SourceRoot&)>& change, std::vector<int> signers) {
    SourceRoot root;
    std::string why;
    ASSERT_EQ(readPublishedRoot(dir_, root, why), kOk) << why;
    root.version += 1;
    change(root);
    const fs::path draft = dir_ / (rootFileName(root.version) + ".draft");
    writeFileAtomic(draft, formatRoot(root));
    if (signers.empty())
        for (size_t i = 0; i < rootKeys.size(); ++i) signers.push_back(static_cast<int>(i));
    RootProgress progress;
    for (int signer : signers) {
        if (progress.complete) break;
        ASSERT_EQ(signRoot(draft, rootKeys[signer], progress, why), kOk) << why;
    }
}

void TestSource::rotateRoleKey(SigningKey TestSource::*role) {
    const std::string old = (this->*role).id();
    this->*role = newKey();
    const SigningKey& fresh = this->*role;
    rotate([&](SourceRoot& root) {
        root.keys.erase(old);
        root.keys.emplace(fresh.id(), fresh.rawPublic());
        (role == &TestSource::catalogKey ? root.catalog : root.timestamp) =
            RoleKeys{1, {fresh.id()}};
    });
}

}  // namespace quor::test
