// Walking the members of a package file: shared by the head reader and the
// unpacker. Internal to this folder.
#pragma once

#include <archive.h>
#include <archive_entry.h>

#include <functional>
#include <string>

#include "quorpkg/package/signed_statement.h"

namespace quor {

enum class MemberKind { kInfo, kPayload, kScript, kConf, kDirectory, kSignature };

// Called once per member with the normalized name; the visitor may read the
// member's data from `reader`, or leave it to be skipped. It returns kOk to
// go on, or a result code (with a reason in `why`) to stop the walk.
using MemberVisitor =
    std::function<int(archive* reader, archive_entry* entry, const std::string& name,
                      MemberKind kind, std::string& why)>;

// Reads the package file open on `fd` from its start. Each member is
// checked before the visitor sees it: unsafe name or kind (kUnsafeEntry), a
// member outside the package layout or given twice (kBadManifest). A file
// that is not an uncompressed tar, or is cut short, gives kFileUnreadable.
int walkMembers(int fd, const MemberVisitor& visit, std::string& why);

// Reads the current member's data into `text`, up to `limit` bytes
// (kBadManifest beyond), kFileUnreadable when it cannot be read.
int readSmallMember(archive* reader, archive_entry* entry, const std::string& name,
                    la_int64_t limit, std::string& text, std::string& why);

// The sha256 of the current member's data, read to its end; kOk, or
// kFileUnreadable when it cannot be read.
int memberSha256(archive* reader, const std::string& name, std::string& sha256, std::string& why);

// A member as a signature lists it, without its digest (the caller hashes
// the data as it reads it).
MemberRecord describeMember(archive_entry* entry, const std::string& name, MemberKind kind);

}  // namespace quor
