// zpk keygen NAME and zpk sign FILE.zpk KEY: the publisher's Ed25519 key
// pair, and signatures of existing package files.
#include <cstdio>
#include <filesystem>
#include <string>
#include <system_error>

#include "base/file_util.h"
#include "commands.h"
#include "options.h"
#include "quorpkg/package/package_signer.h"
#include "quorpkg/package/signing_key.h"

namespace fs = std::filesystem;

std::optional<quor::SigningKey> zpkLoadKey(const char* file) {
    std::string error;
    std::optional<quor::SigningKey> key = quor::SigningKey::loadPrivate(file, &error);
    if (!key) zpkError(1, "%s", error.c_str());
    return key;
}

int zpkKeygen(int argc, char** argv) {
    CommandLine line{"keygen NAME",
                     "Make an Ed25519 key pair: NAME.key, the private key for the publisher, "
                     "and NAME.pub,\nthe public key for devices."};
    line.hidden.add_options()("name", po::value<std::string>()->required());
    line.operands.add("name", 1);
    if (int status = parseCommandLine(argc, argv, line); status >= 0) return status;
    const std::string name = line.values["name"].as<std::string>();
    if (name.empty()) return zpkError(2, "usage: zpk %s", line.synopsis);
    const fs::path privateFile = name + ".key", publicFile = name + ".pub";
    std::error_code ec;
    // A key that signed packages cannot be made again: never overwrite one.
    for (const fs::path& file : {privateFile, publicFile})
        if (fs::exists(fs::symlink_status(file, ec)))
            return zpkError(1, "%s exists already", file.c_str());
    std::optional<quor::SigningKey> key = quor::SigningKey::generate();
    if (!key) return zpkError(1, "cannot make a key pair");
    const std::string privatePem = key->privatePem(), publicPem = key->publicPem();
    if (privatePem.empty() || publicPem.empty() ||
        !quor::writeFileAtomic(privateFile, privatePem, 0600) ||
        !quor::writeFileAtomic(publicFile, publicPem, 0644)) {
        fs::remove(privateFile, ec);
        return zpkError(1, "cannot write %s and %s", privateFile.c_str(), publicFile.c_str());
    }
    std::printf("%s %s key %s\n", privateFile.c_str(), publicFile.c_str(), key->id().c_str());
    return 0;
}

int zpkSign(int argc, char** argv) {
    CommandLine line{"sign FILE.zpk KEY",
                     "Sign an existing package file in place with a private key file."};
    line.hidden.add_options()("file", po::value<std::string>()->required())(
        "key", po::value<std::string>()->required());
    line.operands.add("file", 1).add("key", 1);
    if (int status = parseCommandLine(argc, argv, line); status >= 0) return status;
    const std::string file = line.values["file"].as<std::string>();
    const std::string keyFile = line.values["key"].as<std::string>();
    if (file.empty() || keyFile.empty()) return zpkError(2, "usage: zpk %s", line.synopsis);
    std::optional<quor::SigningKey> key = zpkLoadKey(keyFile.c_str());
    if (!key) return 1;
    std::string error;
    int code = quor::signPackage(file, file, *key, &error);
    if (code != 0)
        return zpkError(1, "%s: cannot sign (%d): %s", file.c_str(), code, error.c_str());
    std::printf("%s: signed by key %s\n", file.c_str(), key->id().c_str());
    return 0;
}
