// Reading package files (.zpk): an uncompressed tar whose first member is the
// manifest INFO (the reader takes it anywhere), then the payload package.tgz
// or package.tzst, optional scripts/<name> and conf/... members. All reading
// goes through libarchive. docs/package-format.md lists what is refused.
#pragma once

#include <cstdint>
#include <filesystem>
#include <limits>
#include <string>
#include <vector>

#include "quorpkg/package/manifest.h"
#include "quorpkg/package/signed_statement.h"

namespace quor {

// Bits of script_mask, by script.
enum ScriptBit : int {
    kPreinst = 1,
    kPostinst = 2,
    kPreuninst = 4,
    kPostuninst = 8,
    kPreupgrade = 16,
    kPostupgrade = 32,
    kStartStopStatus = 64,
};

// The bit of a script name, 0 for an unknown name.
int scriptBit(std::string_view scriptName);

// The member that holds a package file's signature.
inline constexpr const char* kSignatureMember = "SIGNATURE";

// The manifest and the member names of a package file.
struct PackageFileHead {
    Manifest manifest;
    int scriptMask = 0;
    std::string payloadMember;         // "package.tgz" or "package.tzst"
    std::vector<std::string> members;  // every member name, in archive order
    std::string infoSha256;            // of the INFO member's bytes
    // The SIGNATURE member, when there is one: its statement, or why it
    // cannot be read (not checked here: see package_trust.h).
    bool hasSignature = false;
    std::optional<SignedStatement> signature;
    std::string signatureProblem;
};

// Reads the manifest and the member names only; the payload is skipped, not
// read, so the time does not grow with its size. Checks member names and
// types (unsafe: kUnsafeEntry), the layout and the manifest (kBadManifest).
// Unreadable, not a tar, or cut short: kFileUnreadable. kOk on success.
int readPackageHead(const std::filesystem::path& file, PackageFileHead& out,
                    std::string* error = nullptr);

// Where unpackPackage puts each part. Each directory is created if missing.
struct UnpackTargets {
    std::filesystem::path payload;  // the payload's entries
    std::filesystem::path scripts;  // scripts/<name> members, made executable
    std::filesystem::path conf;     // conf/... members
    // The most disk space the payload may take (kNoSpace beyond it). Each
    // entry counts its declared data rounded up to whole 4 KiB blocks, and
    // at least one block; counted from each entry's header before the
    // entry is written.
    std::uint64_t spaceAllowance = std::numeric_limits<std::uint64_t>::max();
};

// Unpacks in one pass over the file, checking every payload entry
// (kUnsafeEntry) before writing it, and at the end the payload's md5 and
// sha256 against the manifest (kChecksumMismatch) and, for a signed file,
// every member against the signed list (kSignatureRefused). The targets
// are staging folders: nothing in them counts until the caller commits.
// On failure the folders this call created are removed again. kNoSpace on
// ENOSPC.
// While writing, the process's working directory is each target in turn
// (libarchive's safety checks take relative names only): other threads must
// not use relative paths meanwhile. Unpacks in one process run one at a time.
int unpackPackage(const std::filesystem::path& file, const PackageFileHead& head,
                  const UnpackTargets& targets, std::string* error = nullptr);

}  // namespace quor
