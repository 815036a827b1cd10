// Checks for package authors: every problem of a package source folder or a
// package file at once, each naming its file and line. They apply the
// platform's own rules (manifest, entry checks), so a package with no error
// here passes them.
#pragma once

#include <filesystem>
#include <string>
#include <vector>

namespace quor {

struct PackageProblem {
    std::string path;  // the file concerned
    size_t line = 0;   // 1-based; 0 when it concerns the whole file
    std::string message;
    bool warning = false;  // worth a look, but the package is fine
};

// "path:line: message", "path: message", with "warning: " before a warning's
// message.
std::string formatProblem(const PackageProblem& problem);

// A source folder as `zpk build` takes it: INFO, package/, and optional
// scripts/ and conf/. Besides the platform's rules it reports scripts that
// cannot run (not executable, no #! line, CRLF line endings) and unknown
// folders beside those (such as script/), which a build would leave out.
std::vector<PackageProblem> checkPackageSource(const std::filesystem::path& dir);

// A package file: its members, manifest, payload checksum and every payload
// entry that an install would refuse, and scripts with CRLF line endings.
std::vector<PackageProblem> checkPackageFile(const std::filesystem::path& file);

}  // namespace quor
