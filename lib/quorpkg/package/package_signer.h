// Signing package files, for the package author's tool, and describing
// their members as a signature lists them.
#pragma once

#include <filesystem>
#include <string>
#include <vector>

#include "quorpkg/package/signed_statement.h"
#include "quorpkg/package/signing_key.h"

namespace quor {

// Every member of the package file but its signature, as a signature lists
// it, reading all of the data. kOk, or the code of the reader's refusal.
int describeMembers(const std::filesystem::path& file, std::vector<MemberRecord>& out,
                    std::string* error = nullptr);

// Writes `output` (atomically; it may be `input`) as `input` with a new
// SIGNATURE member at the end, made with `key`; an earlier signature is
// dropped. The input must be a valid package file. kOk, or a result code
// with a reason in `error`.
int signPackage(const std::filesystem::path& input, const std::filesystem::path& output,
                const SigningKey& key, std::string* error = nullptr);

}  // namespace quor
