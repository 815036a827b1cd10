#include "quorpkg/server/entry_summary.h"

#include "quorpkg/package/md5.h"
#include "quorpkg/server/offers.h"
#include "quorpkg/server/rollout.h"

namespace quor {

EntrySummary summarizeEntry(const Json::Value& entry) {
    EntrySummary summary;
    summary.name = entryText(entry, "package");
    summary.version = entryText(entry, "version");
    summary.link = entryText(entry, "link");
    summary.arch = entryText(entry, "arch");
    summary.firmware = entryText(entry, "firmware");
    summary.displayName = entryString(entry, "dname");
    summary.description = entryText(entry, "desc");
    summary.phase = entryPhase(entry);
    summary.beta = entryFlag(entry, "beta");
    summary.important = entryFlag(entry, "important");
    summary.sized = entry.isObject() && entry["size"].isUInt64();
    summary.sha256 = isLowerHex(entryText(entry, "sha256"), 64);
    return summary;
}

}  // namespace quor
