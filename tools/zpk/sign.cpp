// zpk keygen NAME and zpk sign FILE.zpk KEY: the publisher's Ed25519 key
// pair, and signatures of existing package files.
#include <cstdio>
#include <filesystem>
#include <string>
#include <system_error>

#include "base/file_util.h"
#include "commands.h"
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
    if (argc != 2 || !*argv[1]) return zpkError(2, "usage: zpk keygen NAME");
    const std::string name = argv[1];
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
    if (argc != 3 || !*argv[1] || !*argv[2]) return zpkError(2, "usage: zpk sign FILE.zpk KEY");
    std::optional<quor::SigningKey> key = zpkLoadKey(argv[2]);
    if (!key) return 1;
    std::string error;
    int code = quor::signPackage(argv[1], argv[1], *key, &error);
    if (code != 0) return zpkError(1, "%s: cannot sign (%d): %s", argv[1], code, error.c_str());
    std::printf("%s: signed by key %s\n", argv[1], key->id().c_str());
    return 0;
}
