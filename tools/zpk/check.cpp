// zpk check DIR|FILE.zpk: every problem of a package source or file, one
// "PATH:LINE: message" line each on standard error.
#include <cstdio>
#include <filesystem>
#include <string>

#include "commands.h"
#include "options.h"
#include "quorpkg/package/package_check.h"

int reportProblems(const std::vector<quor::PackageProblem>& problems) {
    int errors = 0;
    for (const quor::PackageProblem& problem : problems) {
        std::fprintf(stderr, "%s\n", quor::formatProblem(problem).c_str());
        if (!problem.warning) ++errors;
    }
    return errors;
}

int zpkCheck(int argc, char** argv) {
    CommandLine line{"check DIR|FILE.zpk",
                     "Report every problem of a package source folder or a package file."};
    line.hidden.add_options()("source", po::value<std::string>()->required());
    line.operands.add("source", 1);
    if (int status = parseCommandLine(argc, argv, line); status >= 0) return status;
    const std::string source = line.values["source"].as<std::string>();
    std::error_code ec;
    bool folder = std::filesystem::is_directory(source, ec);
    int errors =
        reportProblems(folder ? quor::checkPackageSource(source) : quor::checkPackageFile(source));
    if (errors > 0)
        return zpkError(1, "%s: %d problem%s", source.c_str(), errors, errors == 1 ? "" : "s");
    return 0;
}
