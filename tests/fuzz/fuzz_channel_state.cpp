// What a device reads back of its own files, on any bytes: the sources file
// and a source's channel state. The input is up to four parts separated by
// NUL bytes: the state file, a root and a timestamp (written under the
// names the state file gives them, in a temporary root's state folder), and
// the sources file. Nothing crashes; every source read is usable; a state
// read, written and read again is the same state.
#include <unistd.h>

#include <cstddef>
#include <cstdint>
#include <cstdio>
#include <cstdlib>
#include <filesystem>
#include <string>
#include <string_view>
#include <vector>

#include "base/file_util.h"
#include "base/key_value.h"
#include "base/layout.h"
#include "quorpkg/package/md5.h"
#include "quorpkg/server/channel_state.h"
#include "quorpkg/server/sources.h"

namespace fs = std::filesystem;

namespace {

const std::string kPin(64, 'a');
const std::string kCopyPin(64, 'b');

// An invariant that does not hold names its line before the crash report.
void check(bool holds, int line = __builtin_LINE()) {
    if (holds) return;
    std::fprintf(stderr, "%s:%d: check failed\n", __FILE__, line);
    std::abort();
}

std::vector<std::string_view> parts(std::string_view input) {
    std::vector<std::string_view> out;
    for (size_t begin = 0; out.size() < 4;) {
        const size_t end = input.find('\0', begin);
        out.push_back(input.substr(begin, end == std::string_view::npos ? end : end - begin));
        if (end == std::string_view::npos) break;
        begin = end + 1;
    }
    out.resize(4);
    return out;
}

// The name readChannelState opens for the state's `key`, as it reads the
// number there; empty when it would open none.
std::string fileFor(const quor::KeyValues& pairs, const char* key) {
    const std::string* value = quor::findValue(pairs, key);
    if (!value || value->empty() || value->size() > 20 ||
        value->find_first_not_of("0123456789") != std::string::npos)
        return {};
    try {
        return std::string(key) + "." + std::to_string(std::stoull(*value));
    } catch (const std::exception&) {
        return {};
    }
}

void sources(std::string_view text) {
    quor::writeFileAtomic(quor::layout::sourcesFile(), std::string(text));
    std::vector<quor::Source> read;
    if (quor::readSources(read) != 0) return;
    int vendors = 0, number = 0;
    for (const quor::Source& source : read) {
        check(source.id == "quorserver" || source.id == "otherserver");
        check(!source.urls.empty() && source.url == source.urls.front());
        for (const std::string& url : source.urls) check(!url.empty() && url.back() == '/');
        check(source.pin.empty() || quor::isLowerHex(source.pin, 64));
        if (source.id == "quorserver")
            check(++vendors == 1 && source.number == 0);
        else
            check(source.number == ++number);
    }
}

bool same(const quor::ChannelState& a, const quor::ChannelState& b) {
    auto text = [](const auto& file) { return file ? file->text : std::string("-"); };
    if (text(a.root) != text(b.root) || text(a.timestamp) != text(b.timestamp) ||
        a.issuedFloor != b.issuedFloor || a.etag != b.etag || a.lastModified != b.lastModified ||
        a.rootChecked != b.rootChecked || a.retryAfter != b.retryAfter ||
        a.catalogs.size() != b.catalogs.size())
        return false;
    for (const auto& [lang, kept] : a.catalogs) {
        auto other = b.catalogs.find(lang);
        if (other == b.catalogs.end() || other->second.version != kept.version ||
            other->second.sha256 != kept.sha256 || other->second.expires != kept.expires)
            return false;
    }
    return true;
}

void state(std::string_view stateText, std::string_view rootText, std::string_view timestampText) {
    const fs::path dir = quor::layout::channelStateDir(kPin);
    std::error_code ec;
    fs::remove_all(dir, ec);
    fs::remove_all(quor::layout::channelStateDir(kCopyPin), ec);
    fs::create_directories(dir, ec);
    quor::writeFileAtomic(dir / "state", std::string(stateText));
    if (std::optional<quor::KeyValues> pairs = quor::parseKeyValues(stateText)) {
        if (std::string name = fileFor(*pairs, "root"); !name.empty())
            quor::writeFileAtomic(dir / name, std::string(rootText));
        if (std::string name = fileFor(*pairs, "timestamp"); !name.empty())
            quor::writeFileAtomic(dir / name, std::string(timestampText));
    }
    std::string why;
    quor::ChannelState read = quor::readChannelState(kPin, why);
    check(read.pin == kPin);
    if (!read.root) return;
    read.pin = kCopyPin;
    check(quor::writeChannelState(read));
    const quor::ChannelState again = quor::readChannelState(kCopyPin, why);
    check(why.empty() && same(read, again));
}

}  // namespace

extern "C" int LLVMFuzzerInitialize(int*, char***) {
    // Every run writes its files atomically (each flushed): in memory where
    // there is a memory file system.
    std::error_code ec;
    const fs::path base = fs::is_directory("/dev/shm", ec) ? "/dev/shm" : fs::temp_directory_path();
    static std::string root = (base / "quorpkg-fuzz-state.XXXXXX").string();
    if (!::mkdtemp(root.data())) std::abort();
    ::setenv("QUOR_ROOT", root.c_str(), 1);
    fs::create_directories(quor::layout::sourcesFile().parent_path());
    std::atexit([] {
        std::error_code ec;
        fs::remove_all(root, ec);
    });
    return 0;
}

extern "C" int LLVMFuzzerTestOneInput(const uint8_t* data, size_t size) {
    const std::vector<std::string_view> split =
        parts(std::string_view(reinterpret_cast<const char*>(data), size));
    state(split[0], split[1], split[2]);
    sources(split[3]);
    return 0;
}
