// zpk build DIR -o FILE.zpk [--zstd] [--sign KEY]: checks the source folder
// as `zpk check` does, and builds only when it has no error.
#include <unistd.h>

#include <cstdio>
#include <string>

#include "commands.h"
#include "options.h"
#include "quorpkg/package/package_check.h"
#include "quorpkg/package/package_signer.h"
#include "quorpkg/package/package_writer.h"

int zpkBuild(int argc, char** argv) {
    CommandLine line{"build DIR -o FILE.zpk [--zstd] [--sign KEY]",
                     "Check a package source folder and build a package file from it. Every "
                     "entry gets one time:\nSOURCE_DATE_EPOCH when set, else the newest time "
                     "of the source's files."};
    line.options.add_options()("output,o", po::value<std::string>()->required(),
                               "the package file to write")(
        "zstd", "compress the payload with zstd instead of gzip")(
        "sign", po::value<std::string>(), "sign the package file with this private key file");
    line.hidden.add_options()("source", po::value<std::string>()->required());
    line.operands.add("source", 1);
    if (int status = parseCommandLine(argc, argv, line); status >= 0) return status;
    const std::string source = line.values["source"].as<std::string>();
    const std::string output = line.values["output"].as<std::string>();
    const std::string keyFile =
        line.values.count("sign") ? line.values["sign"].as<std::string>() : std::string();
    if (source.empty() || output.empty() || (line.values.count("sign") && keyFile.empty()))
        return zpkError(2, "usage: zpk %s", line.synopsis);
    std::optional<quor::SigningKey> key;
    if (!keyFile.empty() && !(key = zpkLoadKey(keyFile.c_str()))) return 1;
    if (int errors = reportProblems(quor::checkPackageSource(source)))
        return zpkError(1, "%s: %d problem%s, nothing built", source.c_str(), errors,
                        errors == 1 ? "" : "s");
    auto compression = line.values.count("zstd") ? quor::PayloadCompression::kZstd
                                                 : quor::PayloadCompression::kGzip;
    std::string error;
    // A signed build appears complete or not at all: built beside the
    // output, then signed into it.
    const std::string built = key ? output + ".unsigned-" + std::to_string(::getpid()) : output;
    int code = quor::buildPackage(source, built, compression, &error);
    if (code == 0 && key) code = quor::signPackage(built, output, *key, &error);
    if (key) ::unlink(built.c_str());
    if (code != 0) return zpkError(1, "build failed (%d): %s", code, error.c_str());
    std::printf("%s\n", output.c_str());
    return 0;
}
