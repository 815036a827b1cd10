// zpk build DIR -o FILE.zpk [--zstd]
#include <cstdio>
#include <cstring>
#include <string>

#include "commands.h"
#include "quorpkg/package/package_writer.h"

int zpkBuild(int argc, char** argv) {
    const char* source = nullptr;
    const char* output = nullptr;
    auto compression = quor::PayloadCompression::kGzip;
    for (int i = 1; i < argc; ++i) {
        if (std::strcmp(argv[i], "-o") == 0 && i + 1 < argc) {
            output = argv[++i];
        } else if (std::strcmp(argv[i], "--zstd") == 0) {
            compression = quor::PayloadCompression::kZstd;
        } else if (argv[i][0] != '-' && !source) {
            source = argv[i];
        } else {
            return zpkError(2, "build: unexpected argument: %s", argv[i]);
        }
    }
    if (!source || !output || !*source || !*output)
        return zpkError(2, "usage: zpk build DIR -o FILE.zpk [--zstd]");
    std::string error;
    int code = quor::buildPackage(source, output, compression, &error);
    if (code != 0) return zpkError(1, "build failed (%d): %s", code, error.c_str());
    std::printf("%s\n", output);
    return 0;
}
