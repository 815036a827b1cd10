// A trusted package source in a folder, made as a publisher makes one with
// zpk: Ed25519 keys for every role, root 1 signed by its root keys, package
// files signed by the publisher key, and releases (a versioned catalog, its
// seal, a timestamp) at any point in time a test wants.
#pragma once

#include <cstdint>
#include <filesystem>
#include <functional>
#include <string>
#include <vector>

#include "quorpkg/package/channel_metadata.h"
#include "quorpkg/package/signing_key.h"

namespace quor::test {

namespace fs = std::filesystem;

class TestSource {
public:
    // `rootKeys` root keys of which `threshold` must sign; one key for each
    // other role; a publisher key allowed for every name ("*").
    explicit TestSource(fs::path dir, std::string id = "test-source", int rootKeys = 1,
                        int threshold = 1);
    // A second source of the same publisher: another id and folder, the
    // same keys.
    TestSource(fs::path dir, std::string id, const TestSource& sameKeys);

    const fs::path& dir() const { return dir_; }
    const std::string& id() const { return id_; }
    // The sha256 of root 1, as a sources line pins it.
    std::string pin() const { return pin_; }
    // "quorserver <url> root=<pin>".
    std::string sourcesLine(const std::string& url, const std::string& id = "quorserver") const;

    // Signs a package file in place with the publisher key.
    void sign(const fs::path& file) const;

    // A release of the folder's packages for `lang` as of `now`: catalog and
    // seal (valid for `catalogDays`), then a timestamp valid for
    // `timestampDays`. Fails the test when zpk's publisher code refuses.
    void release(const std::string& lang = "enu", int64_t now = 0, int catalogDays = 90,
                 int timestampDays = 7);
    // A release of `text` as the next catalog of `lang`, sealed by the
    // catalog key whatever it holds: what a publisher whose catalog key was
    // stolen could serve.
    void releaseText(const std::string& text, const std::string& lang = "enu");
    // The text of the newest catalog of `lang`.
    std::string catalogText(const std::string& lang = "enu") const;
    // A new timestamp naming the same catalogs.
    void renew(int64_t now = 0, int timestampDays = 7);

    // Root N+1: `change` applied to a copy of the newest root, signed by the
    // root keys `signers` (indexes into rootKeys; default: all), published.
    void rotate(const std::function<void(SourceRoot&)>& change, std::vector<int> signers = {});
    // Root N+1 with a new key in place of the timestamp or the catalog key
    // (`role`: &TestSource::timestampKey or &TestSource::catalogKey).
    void rotateRoleKey(SigningKey TestSource::*role);

    std::vector<SigningKey> rootKeys;
    SigningKey timestampKey;
    SigningKey catalogKey;
    SigningKey publisherKey;

    // The served timestamp, as a test may change and re-sign it.
    SourceTimestamp timestamp() const;
    // Writes `timestamp` signed by `key` as the served one.
    void serveTimestamp(const SourceTimestamp& timestamp, const SigningKey& key) const;

private:
    void makeFirstRoot(int threshold);

    fs::path dir_;
    std::string id_;
    std::string pin_;
};

// A fresh Ed25519 key pair.
SigningKey newKey();

// Replaces the served `file` with `content`, modified at least a second
// after what it replaces (as zpk does for timestamps), so that a web server
// answering a conditional request by modification time sees the change.
void replaceServed(const fs::path& file, const std::string& content);

}  // namespace quor::test
