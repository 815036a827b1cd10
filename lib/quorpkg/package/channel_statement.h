// The signed files of a package source's update channel (root, timestamp,
// catalog seal): text statements that one or more keys sign, so that a
// threshold of keys is several signature lines under one text.
//
//   quorpkg <kind> 2
//   <field> <word> <word>...
//   ...
//   signature <key id> <128 hex digits>
//   signature <key id> <128 hex digits>
//
// The signed bytes are everything before the first signature line, so that
// signers can add their lines one after another without touching what the
// others signed. The first line names the kind: no statement passes for
// another kind. Lines are printable ASCII, fields are words separated by
// single spaces.
#pragma once

#include <map>
#include <optional>
#include <string>
#include <string_view>
#include <vector>

#include "quorpkg/package/signing_key.h"

namespace quor {

enum class ChannelKind { kRoot, kTimestamp, kCatalog };

// "root", "timestamp", "catalog".
std::string_view channelKindWord(ChannelKind kind);

// The largest statement of each kind a device reads: a root lists keys, the
// others a few lines.
size_t maxStatementBytes(ChannelKind kind);

struct StatementSignature {
    std::string keyId;      // 16 lower-case hex digits
    std::string signature;  // the raw 64 bytes
};

struct ChannelStatement {
    ChannelKind kind = ChannelKind::kRoot;
    std::string signedText;                        // the bytes the signatures cover
    std::vector<std::vector<std::string>> fields;  // each line split into words
    std::vector<StatementSignature> signatures;

    // The fields whose first word is `name`.
    std::vector<const std::vector<std::string>*> all(std::string_view name) const;
};

// Reads a statement of `kind`; nothing, with the reason in `why`, when the
// text is not one (wrong kind, a malformed line, a signature line followed
// by anything but signature lines, too long).
std::optional<ChannelStatement> parseStatement(std::string_view text, ChannelKind kind,
                                               std::string& why);

// The statement's first line, "quorpkg <kind> 2\n".
std::string statementTitle(ChannelKind kind);

// `text` (a statement, signed or not) with `key`'s signature line added:
// the signature covers the part before any signature line. A key that
// signed already is refused; empty when the key cannot sign.
std::string addSignature(std::string_view text, const SigningKey& key, std::string& why);

// The public keys of a root by id, as their raw 32 bytes: made into keys
// only to verify, so that reading a kept root needs no libcrypto.
using KeyTable = std::map<std::string, std::string, std::less<>>;

// The distinct keys among `keyIds` whose signature over the statement
// verifies with that key of `keys` (a key not in the table counts for
// nothing).
std::vector<std::string> verifiedSigners(const ChannelStatement& statement,
                                         const std::vector<std::string>& keyIds,
                                         const KeyTable& keys);

}  // namespace quor
