// Unpacking a package file in one pass: every entry is checked before it
// is written, the digests and the signed member list when the pass is over.
#include <fcntl.h>
#include <sys/stat.h>
#include <unistd.h>

#include <algorithm>
#include <cerrno>
#include <mutex>
#include <optional>

#include "base/file_util.h"
#include "base/result.h"
#include "quorpkg/package/archive_io.h"
#include "quorpkg/package/entry_check.h"
#include "quorpkg/package/package_file.h"
#include "quorpkg/package/package_reader.h"
#include "quorpkg/package/payload_pipe.h"
#include "quorpkg/package/write_behind.h"

namespace fs = std::filesystem;

namespace quor {
namespace {

int codeForErrno(int err) {
    // EFBIG: past the process's file-size limit, which is no room either.
    if (err == ENOSPC || err == EDQUOT || err == EFBIG) return kNoSpace;
    // libarchive's own refusals (its SECURE_* checks) carry its "misc"
    // error number, -1, instead of a system one.
    if (err == -1) return kUnsafeEntry;
    return kStoreUnusable;
}

// An archive_write_disk writer that works inside one directory. libarchive's
// SECURE_* checks only accept relative names, so the writer runs with that
// directory as the working directory and goes back when closed. A process
// lock keeps two unpacks from moving the working directory at once.
class DiskWriter {
public:
    DiskWriter() = default;
    DiskWriter(const DiskWriter&) = delete;
    DiskWriter& operator=(const DiskWriter&) = delete;
    ~DiskWriter() { close(); }

    int open(const fs::path& dir, std::string& why) {
        close();
        home_ = UniqueFd(::open(".", O_RDONLY | O_DIRECTORY | O_CLOEXEC));
        if (!home_ || ::chdir(dir.c_str()) != 0) {
            int err = errno;
            home_ = UniqueFd();
            why = "cannot enter " + dir.string();
            return codeForErrno(err);
        }
        dir_ = dir;
        writeBehind_.emplace(UniqueFd(::open(".", O_RDONLY | O_DIRECTORY | O_CLOEXEC)));
        writer_.reset(archive_write_disk_new());
        archive_write_disk_set_options(writer_.get(), ARCHIVE_EXTRACT_PERM | ARCHIVE_EXTRACT_TIME |
                                                          ARCHIVE_EXTRACT_SECURE_NODOTDOT |
                                                          ARCHIVE_EXTRACT_SECURE_SYMLINKS |
                                                          ARCHIVE_EXTRACT_SECURE_NOABSOLUTEPATHS);
        return kOk;
    }

    const fs::path& dir() const { return dir_; }

    // Writes `entry` under `name` with the data that follows it in `reader`.
    // The data goes through `digest` too, when given.
    int write(archive* reader, archive_entry* entry, const std::string& name,
              std::optional<mode_t> perm, Digest* digest, std::string& why) {
        archive_entry_set_pathname(entry, name.c_str());
        // Modes are kept, except that no package gets set-id programs.
        mode_t mode = perm ? *perm : archive_entry_perm(entry) & ~mode_t(S_ISUID | S_ISGID);
        archive_entry_set_perm(entry, mode);
        if (archive_write_header(writer_.get(), entry) < ARCHIVE_WARN) return failed(name, why);
        if (archive_entry_filetype(entry) == AE_IFREG && archive_entry_size(entry) > 0) {
            const void* block;
            size_t size;
            la_int64_t offset;
            int r;
            while ((r = archive_read_data_block(reader, &block, &size, &offset)) == ARCHIVE_OK) {
                if (digest) digest->update(block, size);
                if (archive_write_data_block(writer_.get(), block, size, offset) < ARCHIVE_OK)
                    return failed(name, why);
                writeBehind_->wrote(size);
            }
            if (r != ARCHIVE_EOF) {
                why = "cannot read " + name + ": " + archive_io::errorText(reader);
                return kFileUnreadable;
            }
        }
        if (archive_write_finish_entry(writer_.get()) < ARCHIVE_WARN) return failed(name, why);
        return kOk;
    }

    // Finishes the pending work (directory modes and times) in the directory.
    int close(std::string* why = nullptr) {
        int code = kOk;
        if (writer_ && archive_write_close(writer_.get()) != ARCHIVE_OK) {
            code = codeForErrno(archive_errno(writer_.get()));
            if (why)
                *why =
                    "cannot finish " + dir_.string() + ": " + archive_io::errorText(writer_.get());
        }
        writer_.reset();
        writeBehind_.reset();
        if (home_ && ::fchdir(home_.get()) != 0 && code == kOk) code = kStoreUnusable;
        home_ = UniqueFd();
        dir_.clear();
        return code;
    }

private:
    int failed(const std::string& name, std::string& why) {
        why = "cannot write " + name + ": " + archive_io::errorText(writer_.get());
        return codeForErrno(archive_errno(writer_.get()));
    }

    archive_io::WriteArchive writer_;
    UniqueFd home_;
    fs::path dir_;
    std::optional<WriteBehind> writeBehind_;
};

// What an entry takes on disk at least: its data in whole blocks, and one
// block for an empty file, a folder or a link.
std::uint64_t diskCost(archive_entry* entry) {
    constexpr std::uint64_t kBlock = 4096;
    la_int64_t size = archive_entry_filetype(entry) == AE_IFREG ? archive_entry_size(entry) : 0;
    std::uint64_t blocks = size > 0 ? (static_cast<std::uint64_t>(size) + kBlock - 1) / kBlock : 1;
    return blocks * kBlock;
}

// Reads the payload's entries from the current member of `outer`, checks
// each and writes it with `disk`, as long as the entries' sizes stay within
// `allowance` (counted from each header before the entry is written). The
// digests are compared after the whole member went through, and a mismatch
// outranks any other failure, which a damaged payload would explain. The
// member's sha256 goes to `sha256`.
int streamPayload(archive* outer, const std::string& member, const Manifest& manifest,
                  std::uint64_t allowance, DiskWriter& disk, std::string& sha256,
                  std::string& why) {
    // Only the two compressions a payload may use, decompressed by zlib or
    // libzstd themselves: no external programs are ever started for
    // untrusted input.
    const bool zstd = member == "package.tzst";
    auto pipe = std::make_unique<PayloadPipe>(
        outer, zstd ? StreamDecoder::Codec::kZstd : StreamDecoder::Codec::kGzip);
    archive_io::ReadArchive inner(archive_read_new());
    archive_read_support_format_tar(inner.get());
    archive_read_set_read_callback(inner.get(), &PayloadPipe::read);
    archive_read_set_callback_data(inner.get(), pipe.get());

    int code = kOk;
    if (archive_read_open1(inner.get()) != ARCHIVE_OK) {
        why = "cannot read the payload: " + archive_io::errorText(inner.get());
        code = kFileUnreadable;
    }
    TreeChecker checker;
    std::uint64_t spent = 0;
    while (code == kOk) {
        archive_entry* entry = nullptr;
        int r = archive_read_next_header(inner.get(), &entry);
        if (r == ARCHIVE_EOF) break;
        if (r < ARCHIVE_WARN) {
            why = "cannot read the payload " + member + ": " + archive_io::errorText(inner.get());
            code = kFileUnreadable;
            break;
        }
        std::optional<std::string> name = checker.check(entry, why);
        spent += diskCost(entry);
        if (!name) {
            code = kUnsafeEntry;
        } else if (spent > allowance) {
            why = member + " unpacks to more than the volume has room for";
            code = kNoSpace;
        } else if (!name->empty()) {
            code = disk.write(inner.get(), entry, *name, std::nullopt, nullptr, why);
        }
    }
    // The rest of the member is read and hashed, and decompressed to see
    // that it is whole.
    const PayloadPipe::Outcome outcome = pipe->finish();
    if (!outcome.readError.empty()) {
        why = "cannot read " + member + ": " + outcome.readError;
        return kFileUnreadable;
    }
    sha256 = outcome.digests.sha256;
    if ((!manifest.checksum.empty() && outcome.digests.md5 != manifest.checksum) ||
        (!manifest.sha256.empty() && outcome.digests.sha256 != manifest.sha256)) {
        why = "checksum mismatch of " + member;
        return kChecksumMismatch;
    }
    if (code == kOk && !outcome.whole) {
        why = "damaged compressed data in " + member + " (" +
              (zstd ? "zstd frame" : "gzip trailer") + ")";
        return kFileUnreadable;
    }
    return code;
}

// The one pass over the package file: writes the payload, scripts and conf
// members into their targets and describes every member as a signature
// lists it.
int unpackPass(int fd, const PackageFileHead& head, const UnpackTargets& targets,
               std::vector<MemberRecord>& records, std::string& why) {
    DiskWriter disk;
    auto visit = [&](archive* reader, archive_entry* entry, const std::string& name,
                     MemberKind kind, std::string& reason) -> int {
        if (kind == MemberKind::kSignature) return kOk;
        MemberRecord record = describeMember(entry, name, kind);
        int code = kOk;
        if (kind == MemberKind::kPayload) {
            code = disk.open(targets.payload, reason);
            if (code == kOk)
                code = streamPayload(reader, name, head.manifest, targets.spaceAllowance, disk,
                                     record.sha256, reason);
            int closed = disk.close(&reason);
            if (code == kOk) code = closed;
        } else if (kind == MemberKind::kScript || kind == MemberKind::kConf) {
            const fs::path& dir = kind == MemberKind::kScript ? targets.scripts : targets.conf;
            if (disk.dir() != dir) code = disk.open(dir, reason);
            std::string relative = name.substr(name.find('/') + 1);
            std::optional<mode_t> perm;
            if (kind == MemberKind::kScript) perm = 0755;
            Sha256 digest;
            if (code == kOk) code = disk.write(reader, entry, relative, perm, &digest, reason);
            record.sha256 = digest.hex();
        } else if (kind == MemberKind::kInfo) {
            code = memberSha256(reader, name, record.sha256, reason);
        }
        records.push_back(std::move(record));
        return code;
    };
    int code = walkMembers(fd, visit, why);
    std::string closeWhy;
    int closed = disk.close(&closeWhy);
    if (code == kOk && closed != kOk) {
        why = closeWhy;
        code = closed;
    }
    return code;
}

// The members found must be those signed, byte for byte of their list.
int checkSignedMembers(const PackageFileHead& head, const std::vector<MemberRecord>& records,
                       std::string& why) {
    if (!head.signature) {
        if (!head.hasSignature) return kOk;
        why = "unreadable signature: " + head.signatureProblem;
        return kSignatureRefused;
    }
    const std::string found = memberLines(records);
    if (found == head.signature->body) return kOk;
    why = "the members differ from what key " + head.signature->keyId + " signed (" +
          firstDifference(head.signature->body, found) + ")";
    return kSignatureRefused;
}

// The folders that creating `dirs` would add, outermost first, so that a
// failed unpack can take them away again.
std::vector<fs::path> missingFolders(std::initializer_list<fs::path> dirs) {
    std::vector<fs::path> out;
    std::error_code ec;
    for (const fs::path& dir : dirs) {
        fs::path top;
        for (fs::path p = dir; !p.empty() && !fs::exists(p, ec); p = p.parent_path()) {
            top = p;
            if (p == p.parent_path()) break;
        }
        if (!top.empty() && std::find(out.begin(), out.end(), top) == out.end()) out.push_back(top);
    }
    return out;
}

std::mutex& workingDirectoryLock() {
    static std::mutex lock;
    return lock;
}

}  // namespace

int unpackPackage(const fs::path& file, const PackageFileHead& head, const UnpackTargets& targets,
                  std::string* error) {
    std::string why;
    int code = kOk;
    UniqueFd fd(::open(file.c_str(), O_RDONLY | O_CLOEXEC));
    if (!fd) {
        why = "cannot open " + file.string();
        code = kFileUnreadable;
    }
    const std::vector<fs::path> created =
        missingFolders({targets.payload, targets.scripts, targets.conf});
    if (code == kOk) {
        std::error_code ec;
        for (const fs::path& dir : {targets.payload, targets.scripts, targets.conf}) {
            fs::create_directories(dir, ec);
            if (ec) {
                why = "cannot create " + dir.string() + ": " + ec.message();
                code = codeForErrno(ec.value());
                break;
            }
        }
    }
    if (code == kOk) {
        std::vector<MemberRecord> records;
        {
            std::lock_guard<std::mutex> guard(workingDirectoryLock());
            code = unpackPass(fd.get(), head, targets, records, why);
        }
        if (code == kOk) code = checkSignedMembers(head, records, why);
    }
    if (code != kOk) {
        std::error_code ec;
        for (const fs::path& dir : created) fs::remove_all(dir, ec);
        if (error) *error = why;
    }
    return code == kOk ? kOk : refuse(code, file.string() + ": " + why);
}

}  // namespace quor
