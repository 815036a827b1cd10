// What a device keeps of a trusted source's channel, apart from the list
// cache (whose hash the tool resets): the newest trusted root, the last
// accepted timestamp, each language's accepted catalog version, the
// validators of the timestamp's HTTP answer and the newest issue time seen
// (the clock floor). Root-only files under /var/lib/quorpkg/sources/<pin>/,
// rewritten as a whole and only after every check of what they record.
#pragma once

#include <cstdint>
#include <map>
#include <memory>
#include <optional>
#include <string>

#include "quorpkg/package/channel_metadata.h"

namespace quor {

struct KeptCatalog {
    uint64_t version = 0;
    std::string sha256;
    int64_t expires = 0;  // of its seal
};

struct ChannelState {
    std::string pin;
    std::shared_ptr<const SourceRoot> root;            // null: none trusted yet
    std::shared_ptr<const SourceTimestamp> timestamp;  // null: none accepted
    int64_t issuedFloor = 0;  // the newest `issued` of an accepted timestamp
    std::string etag;         // of the kept timestamp's answer
    std::string lastModified;
    int64_t rootChecked = 0;                      // when the server was last asked for a newer root
    std::map<std::string, KeptCatalog> catalogs;  // by language
    int64_t retryAfter = 0;                       // the server asked not to be asked before then
};

// The kept state of the source pinned by `pin`: an empty state (no root)
// when there is none. A state whose files do not agree (a root or
// timestamp file missing or damaged) is dropped with the reason in `why`:
// the device then starts again from the pinned root.
ChannelState readChannelState(const std::string& pin, std::string& why);

// Writes the state: first the root and timestamp files under names of
// their versions, then the state file naming them, then the files it no
// longer names go. False when it cannot be written (the old state holds).
bool writeChannelState(const ChannelState& state);

}  // namespace quor
