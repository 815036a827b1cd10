#include "quorpkg/package/package_signer.h"

#include <fcntl.h>
#include <unistd.h>

#include <cerrno>

#include "base/file_util.h"
#include "base/result.h"
#include "quorpkg/package/archive_io.h"
#include "quorpkg/package/entry_check.h"
#include "quorpkg/package/package_file.h"
#include "quorpkg/package/package_reader.h"
#include "quorpkg/package/temp_file.h"

namespace fs = std::filesystem;

namespace quor {
namespace {

using archive_io::errorText;

int describeOpen(int fd, std::vector<MemberRecord>& out, std::string& why) {
    out.clear();
    auto visit = [&](archive* reader, archive_entry* entry, const std::string& name,
                     MemberKind kind, std::string& reason) -> int {
        if (kind == MemberKind::kSignature) return kOk;
        MemberRecord record = describeMember(entry, name, kind);
        int code = record.directory ? kOk : memberSha256(reader, name, record.sha256, reason);
        out.push_back(std::move(record));
        return code;
    };
    return walkMembers(fd, visit, why);
}

struct FdSink {
    int fd;
    static la_ssize_t write(archive* a, void* self, const void* data, size_t length) {
        const int fd = static_cast<FdSink*>(self)->fd;
        if (!writeAll(fd, std::string_view(static_cast<const char*>(data), length))) {
            archive_set_error(a, errno, "cannot write the package file");
            return -1;
        }
        return static_cast<la_ssize_t>(length);
    }
};

// Copies every member of the file open on `in` but a signature, then adds
// `signature` as the last member.
int copyWithSignature(int in, int out, const std::string& signature, std::string& why) {
    if (::lseek(in, 0, SEEK_SET) != 0) {
        why = "cannot seek in the package file";
        return kFileUnreadable;
    }
    archive_io::ReadArchive reader(archive_read_new());
    archive_read_support_format_tar(reader.get());
    archive_io::FdSource source(in);
    archive_io::WriteArchive writer(archive_write_new());
    archive_write_set_format_pax_restricted(writer.get());
    archive_write_set_format_option(writer.get(), "pax", "hdrcharset", "BINARY");
    FdSink sink{out};
    if (source.open(reader.get()) != ARCHIVE_OK ||
        archive_write_open(writer.get(), &sink, nullptr, &FdSink::write, nullptr) != ARCHIVE_OK) {
        why = "cannot copy the package: " + errorText(reader.get());
        return kFileUnreadable;
    }
    time_t stamp = 0;
    archive_entry* entry = nullptr;
    int r;
    while ((r = archive_read_next_header(reader.get(), &entry)) == ARCHIVE_OK) {
        if (normalizeEntryName(entryName(entry)) == kSignatureMember) continue;
        if (normalizeEntryName(entryName(entry)) == "INFO") stamp = archive_entry_mtime(entry);
        if (archive_write_header(writer.get(), entry) != ARCHIVE_OK) {
            why = "cannot write the package: " + errorText(writer.get());
            return kFileUnreadable;
        }
        char buffer[64 * 1024];
        la_ssize_t n;
        while ((n = archive_read_data(reader.get(), buffer, sizeof buffer)) > 0)
            if (archive_write_data(writer.get(), buffer, static_cast<size_t>(n)) != n) {
                why = "cannot write the package: " + errorText(writer.get());
                return archive_errno(writer.get()) == ENOSPC ? kNoSpace : kFileUnreadable;
            }
        if (n < 0) {
            why = "cannot read the package: " + errorText(reader.get());
            return kFileUnreadable;
        }
    }
    if (r != ARCHIVE_EOF) {
        why = "cannot read the package: " + errorText(reader.get());
        return kFileUnreadable;
    }
    archive_io::Entry member(archive_entry_new());
    archive_entry_set_pathname(member.get(), kSignatureMember);
    archive_entry_set_filetype(member.get(), AE_IFREG);
    archive_entry_set_perm(member.get(), 0644);
    archive_entry_set_mtime(member.get(), stamp, 0);
    archive_entry_set_size(member.get(), static_cast<la_int64_t>(signature.size()));
    if (archive_write_header(writer.get(), member.get()) != ARCHIVE_OK ||
        archive_write_data(writer.get(), signature.data(), signature.size()) !=
            static_cast<la_ssize_t>(signature.size()) ||
        archive_write_close(writer.get()) != ARCHIVE_OK) {
        why = "cannot write the package: " + errorText(writer.get());
        return archive_errno(writer.get()) == ENOSPC ? kNoSpace : kFileUnreadable;
    }
    return kOk;
}

}  // namespace

int describeMembers(const fs::path& file, std::vector<MemberRecord>& out, std::string* error) {
    std::string why;
    UniqueFd fd(::open(file.c_str(), O_RDONLY | O_CLOEXEC));
    int code = fd ? describeOpen(fd.get(), out, why) : kFileUnreadable;
    if (!fd) why = "cannot open " + file.string();
    if (code != kOk && error) *error = why;
    return code;
}

int signPackage(const fs::path& input, const fs::path& output, const SigningKey& key,
                std::string* error) {
    std::string why;
    auto failed = [&](int code) {
        if (error) *error = why;
        return code;
    };
    if (!key.hasPrivate()) {
        why = "not a private key";
        return failed(kBadArgument);
    }
    PackageFileHead head;
    if (int code = readPackageHead(input, head, &why)) return failed(code);
    UniqueFd in(::open(input.c_str(), O_RDONLY | O_CLOEXEC));
    std::vector<MemberRecord> members;
    if (!in) why = "cannot open " + input.string();
    int code = in ? describeOpen(in.get(), members, why) : kFileUnreadable;
    if (code != kOk) return failed(code);

    const std::string statement =
        statementHeader(StatementKind::kPackage, key.id()) + memberLines(members);
    const std::string signature = key.sign(statement);
    if (signature.empty()) {
        why = "cannot sign with key " + key.id();
        return failed(kBadArgument);
    }
    TempFile out(output);
    if (out.fd() < 0) {
        why = "cannot create a file beside " + output.string();
        return failed(kFileUnreadable);
    }
    code = copyWithSignature(in.get(), out.fd(), formatSigned(signature, statement), why);
    if (code != kOk) return failed(code);
    // What was written must be what was signed: the input may have changed
    // between the two reads.
    std::vector<MemberRecord> written;
    code = describeOpen(out.fd(), written, why);
    if (code == kOk && memberLines(written) != memberLines(members)) {
        why = input.string() + " changed while it was signed";
        code = kFileUnreadable;
    }
    if (code != kOk) return failed(code);
    if (!out.commit()) {
        why = "cannot write " + output.string();
        return failed(kFileUnreadable);
    }
    return kOk;
}

}  // namespace quor
