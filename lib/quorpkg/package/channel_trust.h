// Whether the signed files of a source's update channel may be believed:
// a root pinned by its sha256 or reached from a trusted one, a timestamp
// and a catalog seal signed by their role's threshold, of this source, not
// older than what the device keeps, not expired. Pure checks on texts: the
// device fetches and keeps (lib/quorpkg/server/channel_*), `zpk verify`
// walks a served source with the same checks.
//
// Each returns kOk or the refusal's code with the reason in `why`:
// kTrustRefused (117) for a file that is not one of its kind or lacks the
// signatures its role needs, kMetadataRollback (164) for one older than
// kept or of another source, language or version, kMetadataExpired (163)
// for one that expired at `at`.
#pragma once

#include <cstdint>
#include <string>
#include <string_view>

#include "quorpkg/package/channel_metadata.h"

namespace quor {

// The moment metadata is judged at: the later of the clock and the newest
// issue time the device has seen (so a clock set back cannot revive
// expired metadata), less a slack for a clock that lags.
int64_t judgementTime(int64_t now, int64_t floor, int64_t slackSeconds);

// A root the device has no trusted root for yet: its bytes must have the
// pinned sha256, and it must carry its own root threshold.
int trustPinnedRoot(std::string_view text, std::string_view pin, SourceRoot& out, std::string& why);

// The root after `trusted`: the same source, version exactly one more,
// signed by a threshold of the trusted root's root keys and of its own.
int trustNextRoot(const SourceRoot& trusted, std::string_view text, SourceRoot& out,
                  std::string& why);

// 163 when `expires` is not after `at`; `what` names the file.
int checkNotExpired(std::string_view what, int64_t expires, int64_t at, std::string& why);

// A timestamp under `root`: its threshold, its source, a version not below
// `keptVersion`, not expired at `at`.
int trustTimestamp(const SourceRoot& root, std::string_view text, uint64_t keptVersion, int64_t at,
                   SourceTimestamp& out, std::string& why);

// The seal of the catalog the timestamp names as `ref`: the catalog
// threshold, this source, ref's language, version and sha256, a version not
// below `keptVersion`, not expired at `at`.
int trustCatalogSeal(const SourceRoot& root, std::string_view text, const CatalogRef& ref,
                     uint64_t keptVersion, int64_t at, CatalogSeal& out, std::string& why);

}  // namespace quor
