// A trusted package source made with the built zpk's publisher verbs, as a
// publisher makes one: Ed25519 keys, a first root signed by two of three
// offline root keys one after another, package files signed by the
// publisher key, releases.
#pragma once

#include <filesystem>
#include <string>
#include <vector>

#include "tool_runner.h"

namespace quor::e2e {

class PublishedSource {
public:
    explicit PublishedSource(const Device& device);

    // The folder a web server serves.
    const fs::path& repo() const { return repo_; }
    // The sha256 of root 1, as devices pin it.
    const std::string& pin() const { return pin_; }
    // "quorserver <url> root=<pin>".
    std::string sourcesLine(const std::string& url) const;

    // Builds the package with zpk into the served folder, signed.
    void publish(const test::PackageSource& pkg) const;
    // zpk release of the served folder; fails the test when zpk does.
    void release() const;
    // zpk <args...> in the keys folder.
    RunResult zpk(const std::vector<std::string>& args) const;
    // A key file of the keys folder: "root1.key", "catalog.pub", ...
    std::string key(const std::string& name) const { return (keys_ / name).string(); }

private:
    const Device& device_;
    fs::path keys_;
    fs::path repo_;
    std::string pin_;
};

}  // namespace quor::e2e
