// Signed statements: what a publisher's key signs for a package file (the
// list of its members with their digests) or a catalog (its digest). The
// text is a line "signature <128 hex digits>" followed by the statement, the
// exact bytes that were signed:
//
//   quorpkg <kind> signature 1
//   key <key id>
//   <body lines>
//
// docs/package-format.md describes the bodies.
#pragma once

#include <cstdint>
#include <optional>
#include <string>
#include <string_view>
#include <vector>

namespace quor {

enum class StatementKind { kPackage, kCatalog };

struct SignedStatement {
    std::string keyId;
    std::string signature;  // raw bytes
    std::string statement;  // the signed bytes, header lines included
    std::string body;       // the statement after its two header lines
};

// The statement's header lines for `kind` and the key id.
std::string statementHeader(StatementKind kind, std::string_view keyId);

// The whole text: the signature line, then the statement.
std::string formatSigned(std::string_view signature, std::string_view statement);

// Reads a signed text of `kind`; nothing, with a reason, when it is not one.
std::optional<SignedStatement> parseSigned(std::string_view text, StatementKind kind,
                                           std::string& why);

// One member of a package file as its signature lists it.
struct MemberRecord {
    std::string name;  // normalized; the top folder "./" is "."
    bool directory = false;
    unsigned mode = 0;  // permission bits as stored
    uint64_t size = 0;
    std::string sha256;  // of the data; empty for a folder
};

// "file 0644 123 <sha256> INFO" or "dir 0755 0 - conf".
std::string memberLine(const MemberRecord& member);

// The body of a package statement: one line per member, in archive order.
std::string memberLines(const std::vector<MemberRecord>& members);

// The first line that differs between two bodies (from `expected`, or from
// `actual` when `expected` ran out), for messages.
std::string firstDifference(std::string_view expected, std::string_view actual);

// The sha256 a package statement's body gives for a file member, or empty.
std::string listedSha256(std::string_view body, std::string_view name);

}  // namespace quor
