// Writing package files, for the package author's tool.
#pragma once

#include <filesystem>
#include <string>

namespace quor {

enum class PayloadCompression { kGzip, kZstd };

// Builds a package file from a source folder holding INFO, package/ (the
// payload), and optional scripts/ and conf/. INFO is written first, with its
// checksum and sha256 keys set to the md5 and sha256 of the payload member. kOk, or a result code
// with a reason in `error`.
int buildPackage(const std::filesystem::path& sourceDir, const std::filesystem::path& outFile,
                 PayloadCompression compression, std::string* error = nullptr);

}  // namespace quor
