#include "quorpkg/package/package_writer.h"

#include <fcntl.h>
#include <sys/stat.h>
#include <unistd.h>

#include <algorithm>
#include <cerrno>
#include <cstdlib>
#include <vector>

#include "base/file_util.h"
#include "base/result.h"
#include "quorpkg/package/archive_io.h"
#include "quorpkg/package/entry_check.h"
#include "quorpkg/package/manifest.h"
#include "quorpkg/package/md5.h"
#include "quorpkg/package/package_file.h"
#include "quorpkg/package/temp_file.h"

namespace fs = std::filesystem;

namespace quor {
namespace {

using archive_io::errorText;

// Everything written to a file descriptor, hashed on the way.
struct HashingSink {
    explicit HashingSink(int out) : fd(out) {}
    int fd;
    Md5 md5;
    Sha256 sha256;
    long long size = 0;

    static la_ssize_t write(archive* a, void* self, const void* data, size_t length) {
        auto* sink = static_cast<HashingSink*>(self);
        if (!writeAll(sink->fd, std::string_view(static_cast<const char*>(data), length))) {
            archive_set_error(a, errno, "cannot write the package file");
            return -1;
        }
        sink->md5.update(data, length);
        sink->sha256.update(data, length);
        sink->size += static_cast<long long>(length);
        return static_cast<la_ssize_t>(length);
    }
};

archive_io::WriteArchive newTarWriter() {
    archive_io::WriteArchive writer(archive_write_new());
    archive_write_set_format_pax_restricted(writer.get());
    // Names are stored as the bytes they are, whatever the locale; the
    // default would fail on non-ASCII names in the C locale.
    archive_write_set_format_option(writer.get(), "pax", "hdrcharset", "BINARY");
    return writer;
}

// An entry with the file's type and mode and the build's one time; owners
// are left out so that the package does not carry the builder's user ids.
archive_io::Entry makeEntry(const std::string& name, const struct stat& st, time_t mtime) {
    archive_io::Entry entry(archive_entry_new());
    archive_entry_set_pathname(entry.get(), name.c_str());
    archive_entry_set_filetype(entry.get(), st.st_mode & S_IFMT);
    archive_entry_set_perm(entry.get(), st.st_mode & 07777);
    archive_entry_set_mtime(entry.get(), mtime, 0);
    archive_entry_set_size(entry.get(), S_ISREG(st.st_mode) ? st.st_size : 0);
    return entry;
}

// The time of every entry: SOURCE_DATE_EPOCH when set, else the newest
// modification time of the source, so that building the same folder twice
// gives the same bytes.
time_t buildTime(const fs::path& sourceDir) {
    if (const char* epoch = std::getenv("SOURCE_DATE_EPOCH")) {
        char* end = nullptr;
        errno = 0;
        long long value = std::strtoll(epoch, &end, 10);
        if (*epoch && *end == '\0' && errno == 0 && value >= 0) return static_cast<time_t>(value);
    }
    time_t newest = 0;
    auto consider = [&](const fs::path& path) {
        struct stat st {};
        if (::lstat(path.c_str(), &st) == 0) newest = std::max(newest, st.st_mtime);
    };
    consider(sourceDir / "INFO");
    for (const char* part : {"package", "scripts", "conf"}) {
        std::error_code ec;
        if (!fs::is_directory(sourceDir / part, ec)) continue;
        consider(sourceDir / part);
        for (const auto& item : fs::recursive_directory_iterator(sourceDir / part))
            consider(item.path());
    }
    return newest;
}

int copyData(archive* writer, int fd, const std::string& name, std::string& why) {
    char buffer[64 * 1024];
    ssize_t n;
    while ((n = ::read(fd, buffer, sizeof buffer)) != 0) {
        if (n < 0 && errno == EINTR) continue;
        if (n < 0) {
            why = "cannot read " + name;
            return kFileUnreadable;
        }
        if (archive_write_data(writer, buffer, static_cast<size_t>(n)) != n) {
            why = "cannot write " + name + ": " + errorText(writer);
            return archive_errno(writer) == ENOSPC ? kNoSpace : kFileUnreadable;
        }
    }
    return kOk;
}

// Adds `path` as `name`: a directory, a regular file with its data, or (when
// `allowLinks`) a symbolic link that stays inside the tree.
int addPath(archive* writer, const fs::path& path, const std::string& name, bool allowLinks,
            time_t mtime, std::string& why) {
    struct stat st {};
    if (::lstat(path.c_str(), &st) != 0) {
        why = "cannot read " + path.string();
        return kFileUnreadable;
    }
    archive_io::Entry entry = makeEntry(name, st, mtime);
    UniqueFd fd;
    if (S_ISLNK(st.st_mode) && allowLinks) {
        std::error_code ec;
        std::string target = fs::read_symlink(path, ec).string();
        if (ec || !linkStaysInside(name, target)) {
            why = "symbolic link leaves the package: " + path.string();
            return kUnsafeEntry;
        }
        archive_entry_set_symlink(entry.get(), target.c_str());
    } else if (S_ISREG(st.st_mode)) {
        fd = UniqueFd(::open(path.c_str(), O_RDONLY | O_NOFOLLOW | O_CLOEXEC));
        if (!fd) {
            why = "cannot read " + path.string();
            return kFileUnreadable;
        }
    } else if (!S_ISDIR(st.st_mode)) {
        why = "not a file or directory: " + path.string();
        return kUnsafeEntry;
    }
    if (archive_write_header(writer, entry.get()) != ARCHIVE_OK) {
        why = "cannot add " + name + ": " + errorText(writer);
        return archive_errno(writer) == ENOSPC ? kNoSpace : kFileUnreadable;
    }
    return fd ? copyData(writer, fd.get(), name, why) : kOk;
}

// The entries below `root`, sorted by name, so that a build does not depend
// on the order of directory listings.
std::vector<fs::path> treeEntries(const fs::path& root) {
    std::vector<fs::path> entries;
    for (const auto& item : fs::recursive_directory_iterator(root))
        entries.push_back(item.path().lexically_relative(root));
    std::sort(entries.begin(), entries.end(), [](const fs::path& a, const fs::path& b) {
        return a.generic_string() < b.generic_string();
    });
    return entries;
}

int addTree(archive* writer, const fs::path& root, const std::string& prefix, bool allowLinks,
            time_t mtime, std::string& why) {
    for (const fs::path& relative : treeEntries(root))
        if (int code = addPath(writer, root / relative, prefix + relative.generic_string(),
                               allowLinks, mtime, why))
            return code;
    return kOk;
}

// Writes the payload tar of package/ to `fd`; its md5 and size in `sink`.
int writePayload(const fs::path& tree, PayloadCompression compression, time_t mtime,
                 HashingSink& sink, std::string& why) {
    archive_io::WriteArchive writer = newTarWriter();
    if (compression == PayloadCompression::kZstd) {
        archive_write_add_filter_zstd(writer.get());
    } else {
        archive_write_add_filter_gzip(writer.get());
        archive_write_set_filter_option(writer.get(), "gzip", "timestamp", nullptr);
    }
    // No padding after the compressed stream: the member is the stream.
    archive_write_set_bytes_in_last_block(writer.get(), 1);
    if (archive_write_open(writer.get(), &sink, nullptr, &HashingSink::write, nullptr) !=
        ARCHIVE_OK) {
        why = "cannot start the payload: " + errorText(writer.get());
        return kFileUnreadable;
    }
    if (int code = addTree(writer.get(), tree, "", true, mtime, why)) return code;
    if (archive_write_close(writer.get()) != ARCHIVE_OK) {
        why = "cannot finish the payload: " + errorText(writer.get());
        return archive_errno(writer.get()) == ENOSPC ? kNoSpace : kFileUnreadable;
    }
    return kOk;
}

int checkSource(const fs::path& sourceDir, Manifest& manifest, std::string& why) {
    std::optional<std::string> info = readFile(sourceDir / "INFO");
    if (!info) {
        why = "no INFO in " + sourceDir.string();
        return kBadManifest;
    }
    if (int code = parseManifest(*info, manifest, &why)) return code;
    std::error_code ec;
    if (!fs::is_directory(sourceDir / "package", ec)) {
        why = "no package/ folder in " + sourceDir.string();
        return kBadArgument;
    }
    if (fs::exists(sourceDir / "scripts", ec)) {
        for (const auto& item : fs::directory_iterator(sourceDir / "scripts")) {
            if (scriptBit(item.path().filename().string()) == 0 || !item.is_regular_file() ||
                item.is_symlink()) {
                why = "not a package script: " + item.path().string();
                return kBadArgument;
            }
        }
    }
    return kOk;
}

int writePackage(const fs::path& sourceDir, Manifest& manifest, PayloadCompression compression,
                 int outFd, std::string& why) {
    fs::path tmpDir = fs::temp_directory_path();
    TempFile payload(tmpDir / "zpk-payload");
    if (payload.fd() < 0) {
        why = "cannot create a temporary file in " + tmpDir.string();
        return kFileUnreadable;
    }
    HashingSink payloadSink(payload.fd());
    const time_t mtime = buildTime(sourceDir);
    if (int code = writePayload(sourceDir / "package", compression, mtime, payloadSink, why))
        return code;
    setValue(manifest.pairs, "checksum", payloadSink.md5.hex());
    setValue(manifest.pairs, "sha256", payloadSink.sha256.hex());
    std::string info = formatManifest(manifest);

    HashingSink outSink(outFd);
    archive_io::WriteArchive writer = newTarWriter();
    if (archive_write_open(writer.get(), &outSink, nullptr, &HashingSink::write, nullptr) !=
        ARCHIVE_OK) {
        why = "cannot start the package: " + errorText(writer.get());
        return kFileUnreadable;
    }
    struct stat st {};
    st.st_mode = S_IFREG | 0644;
    st.st_size = static_cast<off_t>(info.size());
    archive_io::Entry infoEntry = makeEntry("INFO", st, mtime);
    st.st_size = payloadSink.size;
    const char* member = compression == PayloadCompression::kZstd ? "package.tzst" : "package.tgz";
    archive_io::Entry payloadEntry = makeEntry(member, st, mtime);
    if (archive_write_header(writer.get(), infoEntry.get()) != ARCHIVE_OK ||
        archive_write_data(writer.get(), info.data(), info.size()) !=
            static_cast<la_ssize_t>(info.size()) ||
        archive_write_header(writer.get(), payloadEntry.get()) != ARCHIVE_OK) {
        why = "cannot write the package: " + errorText(writer.get());
        return kFileUnreadable;
    }
    ::lseek(payload.fd(), 0, SEEK_SET);
    if (int code = copyData(writer.get(), payload.fd(), member, why)) return code;
    std::error_code ec;
    for (const char* part : {"scripts", "conf"}) {
        if (!fs::is_directory(sourceDir / part, ec)) continue;
        if (int code = addPath(writer.get(), sourceDir / part, part, false, mtime, why))
            return code;
        if (int code =
                addTree(writer.get(), sourceDir / part, std::string(part) + "/", false, mtime, why))
            return code;
    }
    if (archive_write_close(writer.get()) != ARCHIVE_OK) {
        why = "cannot finish the package: " + errorText(writer.get());
        return archive_errno(writer.get()) == ENOSPC ? kNoSpace : kFileUnreadable;
    }
    return kOk;
}

}  // namespace

int buildPackage(const fs::path& sourceDir, const fs::path& outFile, PayloadCompression compression,
                 std::string* error) {
    std::string why;
    int code = kOk;
    try {
        Manifest manifest;
        code = checkSource(sourceDir, manifest, why);
        if (code == kOk) {
            TempFile out(outFile);
            code = out.fd() < 0 ? kFileUnreadable
                                : writePackage(sourceDir, manifest, compression, out.fd(), why);
            if (out.fd() < 0) why = "cannot create " + outFile.string();
            if (code == kOk && !out.commit()) {
                why = "cannot write " + outFile.string();
                code = kFileUnreadable;
            }
        }
    } catch (const fs::filesystem_error& e) {
        why = e.what();
        code = kFileUnreadable;
    }
    if (code != kOk && error) *error = why;
    return code;
}

}  // namespace quor
