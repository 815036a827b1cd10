#include "quorpkg/package/payload_listing.h"

#include <fcntl.h>

#include "base/file_util.h"
#include "base/result.h"
#include "quorpkg/package/archive_io.h"
#include "quorpkg/package/entry_check.h"
#include "quorpkg/package/md5.h"
#include "quorpkg/package/package_reader.h"

namespace quor {
namespace {

// The payload member as a stream read from the outer archive, hashed on the
// way through.
struct MemberStream {
    archive* outer;
    Md5 md5;
    char buffer[64 * 1024];

    static la_ssize_t read(archive* inner, void* self, const void** block) {
        auto* stream = static_cast<MemberStream*>(self);
        la_ssize_t n = archive_read_data(stream->outer, stream->buffer, sizeof stream->buffer);
        if (n < 0) {
            archive_set_error(inner, EIO, "%s", archive_io::errorText(stream->outer).c_str());
            return -1;
        }
        stream->md5.update(stream->buffer, static_cast<size_t>(n));
        *block = stream->buffer;
        return n;
    }
};

char typeLetter(archive_entry* entry) {
    if (archive_entry_hardlink(entry)) return 'h';
    switch (archive_entry_filetype(entry)) {
        case AE_IFREG:
            return 'f';
        case AE_IFDIR:
            return 'd';
        case AE_IFLNK:
            return 'l';
        default:
            return '?';
    }
}

int readEntries(archive* outer, const std::string& member, PayloadListing& out, std::string& why) {
    MemberStream stream{outer, {}, {}};
    archive_io::ReadArchive inner(archive_read_new());
    archive_read_support_format_tar(inner.get());
    // The decompressor the member's name promises, and no external program.
    if (member == "package.tzst")
        archive_read_support_filter_zstd(inner.get());
    else
        archive_read_support_filter_gzip(inner.get());
    if (archive_read_open(inner.get(), &stream, nullptr, &MemberStream::read, nullptr) !=
        ARCHIVE_OK) {
        why = "cannot read the payload: " + archive_io::errorText(inner.get());
        return kFileUnreadable;
    }
    TreeChecker checker;
    archive_entry* entry = nullptr;
    int r;
    while ((r = archive_read_next_header(inner.get(), &entry)) == ARCHIVE_OK) {
        PayloadEntry item;
        item.name = std::string(entryName(entry));
        item.type = typeLetter(entry);
        item.perm = archive_entry_perm(entry);
        item.size = archive_entry_size(entry);
        item.mtime = archive_entry_mtime(entry);
        const char* link = archive_entry_symlink(entry);
        if (!link) link = archive_entry_hardlink(entry);
        if (link) item.linkTarget = link;
        if (checker.check(entry, item.refusal)) item.refusal.clear();
        out.entries.push_back(std::move(item));
        if (archive_read_data_skip(inner.get()) != ARCHIVE_OK) {
            why = "cannot read the payload: " + archive_io::errorText(inner.get());
            return kFileUnreadable;
        }
    }
    if (r != ARCHIVE_EOF) {
        why = "cannot read the payload: " + archive_io::errorText(inner.get());
        return kFileUnreadable;
    }
    // Whatever follows the tar's end belongs to the member and to its digest.
    const void* rest = nullptr;
    while (MemberStream::read(inner.get(), &stream, &rest) > 0) {
    }
    out.md5 = stream.md5.hex();
    return kOk;
}

}  // namespace

int listPayload(const std::filesystem::path& file, PayloadListing& out, std::string* error) {
    std::string why;
    UniqueFd fd(::open(file.c_str(), O_RDONLY | O_CLOEXEC));
    if (!fd) {
        if (error) *error = "cannot open " + file.string();
        return kFileUnreadable;
    }
    PayloadListing listing;
    auto visit = [&](archive* reader, archive_entry*, const std::string& name, MemberKind kind,
                     std::string& reason) {
        if (kind != MemberKind::kPayload) return static_cast<int>(kOk);
        listing.member = name;
        return readEntries(reader, name, listing, reason);
    };
    int code = walkMembers(fd.get(), visit, why);
    if (code == kOk && listing.member.empty()) {
        why = "no payload (package.tgz or package.tzst)";
        code = kBadManifest;
    }
    if (code != kOk) {
        if (error) *error = why;
        return code;
    }
    out = std::move(listing);
    return kOk;
}

}  // namespace quor
