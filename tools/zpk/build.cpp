// zpk build DIR -o FILE.zpk [--zstd] [--sign KEY]
#include <unistd.h>

#include <cstdio>
#include <cstring>
#include <string>

#include "commands.h"
#include "quorpkg/package/package_signer.h"
#include "quorpkg/package/package_writer.h"

int zpkBuild(int argc, char** argv) {
    const char* source = nullptr;
    const char* output = nullptr;
    const char* keyFile = nullptr;
    auto compression = quor::PayloadCompression::kGzip;
    for (int i = 1; i < argc; ++i) {
        if (std::strcmp(argv[i], "-o") == 0 && i + 1 < argc) {
            output = argv[++i];
        } else if (std::strcmp(argv[i], "--sign") == 0 && i + 1 < argc) {
            keyFile = argv[++i];
        } else if (std::strcmp(argv[i], "--zstd") == 0) {
            compression = quor::PayloadCompression::kZstd;
        } else if (argv[i][0] != '-' && !source) {
            source = argv[i];
        } else {
            return zpkError(2, "build: unexpected argument: %s", argv[i]);
        }
    }
    if (!source || !output || !*source || !*output || (keyFile && !*keyFile))
        return zpkError(2, "usage: zpk build DIR -o FILE.zpk [--zstd] [--sign KEY]");
    std::optional<quor::SigningKey> key;
    if (keyFile && !(key = zpkLoadKey(keyFile))) return 1;
    std::string error;
    // A signed build appears complete or not at all: built beside the
    // output, then signed into it.
    const std::string built =
        key ? std::string(output) + ".unsigned-" + std::to_string(::getpid()) : output;
    int code = quor::buildPackage(source, built, compression, &error);
    if (code == 0 && key) code = quor::signPackage(built, output, *key, &error);
    if (key) ::unlink(built.c_str());
    if (code != 0) return zpkError(1, "build failed (%d): %s", code, error.c_str());
    std::printf("%s\n", output);
    return 0;
}
