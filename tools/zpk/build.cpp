// zpk build DIR -o FILE.zpk [--zstd]: checks the source folder as `zpk check`
// does, and builds only when it has no error.
#include <cstdio>
#include <string>

#include "commands.h"
#include "options.h"
#include "quorpkg/package/package_check.h"
#include "quorpkg/package/package_writer.h"

int zpkBuild(int argc, char** argv) {
    CommandLine line{"build DIR -o FILE.zpk [--zstd]",
                     "Check a package source folder and build a package file from it. Every "
                     "entry gets one time:\nSOURCE_DATE_EPOCH when set, else the newest time "
                     "of the source's files."};
    line.options.add_options()("output,o", po::value<std::string>()->required(),
                               "the package file to write")(
        "zstd", "compress the payload with zstd instead of gzip");
    line.hidden.add_options()("source", po::value<std::string>()->required());
    line.operands.add("source", 1);
    if (int status = parseCommandLine(argc, argv, line); status >= 0) return status;
    const std::string source = line.values["source"].as<std::string>();
    const std::string output = line.values["output"].as<std::string>();
    if (source.empty() || output.empty()) return zpkError(2, "usage: zpk %s", line.synopsis);
    if (int errors = reportProblems(quor::checkPackageSource(source)))
        return zpkError(1, "%s: %d problem%s, nothing built", source.c_str(), errors,
                        errors == 1 ? "" : "s");
    auto compression = line.values.count("zstd") ? quor::PayloadCompression::kZstd
                                                 : quor::PayloadCompression::kGzip;
    std::string error;
    int code = quor::buildPackage(source, output, compression, &error);
    if (code != 0) return zpkError(1, "build failed (%d): %s", code, error.c_str());
    std::printf("%s\n", output.c_str());
    return 0;
}
