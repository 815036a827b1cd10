#include "quorpkg/server/rollout.h"

#include <sys/random.h>
#include <unistd.h>

#include <system_error>

#include "base/file_util.h"
#include "base/layout.h"
#include "quorpkg/package/md5.h"
#include "quorpkg/package/signing_key.h"

namespace fs = std::filesystem;

namespace quor {
namespace {

std::string firstLine(const std::optional<std::string>& text) {
    if (!text) return {};
    std::string line = text->substr(0, text->find('\n'));
    while (!line.empty() && (line.back() == ' ' || line.back() == '\r')) line.pop_back();
    return line;
}

std::string newRandomId() {
    unsigned char bytes[16];
    if (::getrandom(bytes, sizeof bytes, 0) != static_cast<ssize_t>(sizeof bytes)) return {};
    return toHex(std::string_view(reinterpret_cast<char*>(bytes), sizeof bytes));
}

}  // namespace

std::string deviceId() {
    std::string machine = firstLine(readRegularFile(layout::machineIdFile()));
    if (!machine.empty()) return machine;
    const fs::path file = layout::deviceIdFile();
    std::string kept = firstLine(readRegularFile(file));
    if (!kept.empty()) return kept;
    // Made aside and linked into place, so that of two processes making
    // one at once, both keep the one that landed first.
    kept = newRandomId();
    const fs::path aside = file.string() + "." + kept;
    std::error_code ec;
    fs::create_directories(file.parent_path(), ec);
    if (kept.empty() || !writeFileAtomic(aside, kept + "\n")) return std::string();
    ::link(aside.c_str(), file.c_str());
    fs::remove(aside, ec);
    syncDirectory(file.parent_path());
    return firstLine(readRegularFile(file));
}

int rolloutBucket(const std::string& device, const std::string& name, const std::string& version) {
    const std::string digest = dataSha256Hex(device + "\n" + name + "\n" + version);
    return static_cast<int>(std::stoull(digest.substr(0, 15), nullptr, 16) % 10000);
}

int entryPhase(const Json::Value& entry) {
    if (!entry.isObject() || !entry.isMember("phase")) return 100;
    const Json::Value& phase = entry["phase"];
    if (!phase.isInt64()) return 0;
    const int64_t percent = phase.asInt64();
    return percent < 0 || percent > 100 ? 0 : static_cast<int>(percent);
}

bool offeredToThisDevice(int phase, const std::string& name, const std::string& version,
                         const Settings& settings) {
    if (phase >= 100 || !settings.phased_updates) return true;
    return rolloutBucket(deviceId(), name, version) < phase * 100;
}

}  // namespace quor
