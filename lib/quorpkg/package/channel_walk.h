// A served source walked as a device walks it on first contact, for the
// publisher's check (`zpk verify`): the pinned root, every newer root, the
// timestamp and each language's catalog with its seal, each checked as a
// device checks it, with what it says and when it expires.
#pragma once

#include <cstdint>
#include <functional>
#include <string>

namespace quor {

// Reads one file of the source: kOk with its text; kNoSuchPackage when the
// source has no such file; another code, with the reason, when it cannot
// be read. At most `maxBytes`.
using SourceFileReader = std::function<int(const std::string& name, uint64_t maxBytes,
                                           std::string& text, std::string& why)>;

// Walks the source pinned by `pin` as of `now`, telling each step to
// `report`. kOk; or the code of the first refusal (kTrustRefused,
// kMetadataExpired, kMetadataRollback, or the reader's) with the reason.
int walkSource(const SourceFileReader& read, const std::string& pin, int64_t now,
               const std::function<void(const std::string&)>& report, std::string& why);

}  // namespace quor
