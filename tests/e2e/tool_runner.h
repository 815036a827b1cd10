// Runs the built binaries against a temporary system root with two volumes.
#pragma once

#include <sys/types.h>

#include <filesystem>
#include <string>
#include <vector>

#include "test_support.h"

namespace quor::e2e {

namespace fs = std::filesystem;

struct RunResult {
    int status = -1;  // exit status; -1 when the process did not exit
    std::string out;  // everything written to standard output
};

// Starts `program` with `args` in `workDir`, its standard output going to
// `outFd` (-1: discarded) and standard error discarded; returns its pid.
pid_t startProgram(const std::string& program, const std::vector<std::string>& args,
                   const fs::path& workDir, int outFd = -1);

// Runs `program` with `args` in `workDir`, standard error discarded, and
// waits for it.
RunResult runProgram(const std::string& program, const std::vector<std::string>& args,
                     const fs::path& workDir);

// A device in a folder: QUOR_ROOT points at it for the fixture's life, with
// volume1 and volume2 at its top; package files are built beside it.
class Device {
public:
    Device();

    // quorpkg <args...>, run in the package-file folder.
    RunResult quorpkg(const std::vector<std::string>& args) const;
    // The same, by the tool built with the store's crash points armed
    // (QUOR_FAILPOINT), which the product leaves out.
    RunResult crashableQuorpkg(const std::vector<std::string>& args) const;
    // Runs quorpkg <args...> and checks its exact output and exit status.
    void expect(const std::vector<std::string>& args, const std::string& out, int status) const;

    // Builds <name>-<version>.zpk in the package-file folder with the zpk
    // tool and returns its file name (relative to that folder).
    std::string package(const test::PackageSource& pkg) const;

    const test::TempRoot& root() const { return root_; }
    const fs::path& packageDir() const { return files_.path(); }

private:
    test::TempRoot root_;
    test::TempDir files_;
};

}  // namespace quor::e2e
