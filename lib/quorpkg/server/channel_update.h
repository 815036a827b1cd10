// Bringing a device's view of a trusted source up to date, as
// docs/server.md ("A query of a trusted source") walks it: the timestamp
// (one conditional request when nothing changed), newer roots when the
// timestamp names one, when its signature fails and at least once a week,
// then the catalog the timestamp names for the language, each file checked
// before anything is kept. The caller keeps the catalog it is given, then
// commits the new state: check everything, then persist.
#pragma once

#include <filesystem>
#include <memory>
#include <string>

#include "base/settings.h"
#include "quorpkg/package/channel_metadata.h"
#include "quorpkg/server/channel_state.h"
#include "quorpkg/server/sources.h"

namespace quor {

// What the device may now believe of the source for a language.
struct ChannelView {
    std::shared_ptr<const SourceRoot> root;
    CatalogRef catalog;      // the catalog the timestamp names for the language
    std::string downloaded;  // its bytes, when they had to be fetched now
    std::string mirror;      // the URL that answered
};

class ChannelUpdate {
public:
    ChannelUpdate(const Source& source, std::string lang, const Settings& settings);
    ~ChannelUpdate();
    ChannelUpdate(const ChannelUpdate&) = delete;
    ChannelUpdate& operator=(const ChannelUpdate&) = delete;

    // From what the device keeps, without asking the server: kOk when the
    // kept timestamp names a catalog for the language, its sha256 is
    // `keptCatalogSha` (what the list cache holds) and nothing has expired.
    int kept(const std::string& keptCatalogSha, ChannelView& out, std::string& why);

    // Asks the source's mirrors in turn until one gives a view that passes
    // every check. kOk; kServerUnreachable when none answered;
    // kTrustRefused, kMetadataExpired or kMetadataRollback for what the
    // last mirror served. `keptCatalogSha` as for kept(); `keptCatalogFile`
    // holds those bytes, the base a patch to the new version applies to.
    int refresh(const std::string& keptCatalogSha, const std::filesystem::path& keptCatalogFile,
                ChannelView& out, std::string& why);

    // Keeps the state refresh() accepted. False when it cannot be written.
    bool commit();

private:
    struct Attempt;
    int attempt(const std::string& base, const std::string& keptCatalogSha,
                const std::filesystem::path& keptCatalogFile, ChannelView& out, std::string& why);

    const Source& source_;
    std::string lang_;
    const Settings& settings_;
    ChannelState state_;     // as kept
    ChannelState accepted_;  // what refresh() accepted
    bool refreshed_ = false;
    int lockFd_ = -1;
    int64_t retryDelay_ = 0;  // the longest Retry-After of a 429 or 503 this refresh met
};

}  // namespace quor
