#include "quorpkg/package/package_file.h"

#include <fcntl.h>
#include <sys/stat.h>
#include <unistd.h>

#include <array>
#include <set>

#include "base/file_util.h"
#include "base/result.h"
#include "quorpkg/package/archive_io.h"
#include "quorpkg/package/entry_check.h"
#include "quorpkg/package/md5.h"
#include "quorpkg/package/package_reader.h"

namespace quor {
namespace {

constexpr std::array<std::pair<std::string_view, int>, 7> kScripts = {{
    {"preinst", kPreinst},
    {"postinst", kPostinst},
    {"preuninst", kPreuninst},
    {"postuninst", kPostuninst},
    {"preupgrade", kPreupgrade},
    {"postupgrade", kPostupgrade},
    {"start-stop-status", kStartStopStatus},
}};

// A manifest is a few lines; anything larger is not one.
constexpr la_int64_t kMaxManifestSize = 1 << 20;
// A signature lists every member in a line: room for many thousands.
constexpr la_int64_t kMaxSignatureSize = 16 << 20;

bool startsWith(std::string_view s, std::string_view prefix) {
    return s.substr(0, prefix.size()) == prefix;
}

// Where a member belongs in the package layout, or nothing for a member
// that has no place in it.
std::optional<MemberKind> classify(const std::string& name, mode_t type) {
    bool dir = type == AE_IFDIR;
    if (dir && (name.empty() || name == "scripts" || name == "conf")) return MemberKind::kDirectory;
    if (startsWith(name, "conf/")) return dir ? MemberKind::kDirectory : MemberKind::kConf;
    if (type != AE_IFREG) return std::nullopt;
    if (name == "INFO") return MemberKind::kInfo;
    if (name == kSignatureMember) return MemberKind::kSignature;
    if (name == "package.tgz" || name == "package.tzst") return MemberKind::kPayload;
    if (startsWith(name, "scripts/") && scriptBit(name.substr(8)) != 0) return MemberKind::kScript;
    return std::nullopt;
}

}  // namespace

int readSmallMember(archive* reader, archive_entry* entry, const std::string& name,
                    la_int64_t limit, std::string& text, std::string& why) {
    if (archive_entry_size(entry) > limit) {
        why = name + " is too large";
        return kBadManifest;
    }
    char buffer[8192];
    la_ssize_t n;
    while ((n = archive_read_data(reader, buffer, sizeof buffer)) > 0) {
        text.append(buffer, static_cast<size_t>(n));
        if (static_cast<la_int64_t>(text.size()) > limit) {
            why = name + " is too large";
            return kBadManifest;
        }
    }
    if (n < 0) {
        why = "cannot read " + name + ": " + archive_io::errorText(reader);
        return kFileUnreadable;
    }
    return kOk;
}

int memberSha256(archive* reader, const std::string& name, std::string& sha256, std::string& why) {
    Sha256 digest;
    const void* block;
    size_t size;
    la_int64_t offset;
    int r;
    while ((r = archive_read_data_block(reader, &block, &size, &offset)) == ARCHIVE_OK)
        digest.update(block, size);
    if (r != ARCHIVE_EOF) {
        why = "cannot read " + name + ": " + archive_io::errorText(reader);
        return kFileUnreadable;
    }
    sha256 = digest.hex();
    return kOk;
}

MemberRecord describeMember(archive_entry* entry, const std::string& name, MemberKind kind) {
    MemberRecord record;
    record.name = name;
    record.directory = kind == MemberKind::kDirectory;
    record.mode = archive_entry_perm(entry);
    record.size = static_cast<uint64_t>(archive_entry_size(entry));
    return record;
}

namespace {

// Whether the file holds the whole end-of-archive marker, two zero blocks,
// at `start`: where the reader looked for the next header and found the end.
// One zero block is not enough: a file cut inside the marker looks the same
// to libarchive as a complete one.
bool holdsMarkerAt(int fd, la_int64_t start) {
    char blocks[1024];
    if (start < 0 || ::pread(fd, blocks, sizeof blocks, start) != sizeof blocks) return false;
    for (char c : blocks)
        if (c != 0) return false;
    return true;
}

}  // namespace

int scriptBit(std::string_view scriptName) {
    for (const auto& [name, bit] : kScripts)
        if (name == scriptName) return bit;
    return 0;
}

int walkMembers(int fd, const MemberVisitor& visit, std::string& why) {
    if (::lseek(fd, 0, SEEK_SET) != 0) {
        why = "cannot seek in the package file";
        return kFileUnreadable;
    }
    archive_io::ReadArchive reader(archive_read_new());
    // Only tar, and no decompression: a package file is an uncompressed tar.
    archive_read_support_format_tar(reader.get());
    archive_io::FdSource source(fd);
    if (source.open(reader.get()) != ARCHIVE_OK) {
        why = "not a package file: " + archive_io::errorText(reader.get());
        return kFileUnreadable;
    }
    TreeChecker checker;
    std::set<std::string> seen;
    bool anyMember = false;
    while (true) {
        archive_entry* entry = nullptr;
        int r = archive_read_next_header(reader.get(), &entry);
        if (r == ARCHIVE_EOF) break;
        if (r < ARCHIVE_WARN) {
            why = "not a package file or cut short: " + archive_io::errorText(reader.get());
            return kFileUnreadable;
        }
        anyMember = true;
        std::optional<std::string> name = checker.check(entry, why);
        if (!name) return kUnsafeEntry;
        // Links are for the payload; a member is a file or a folder.
        if (archive_entry_filetype(entry) == AE_IFLNK) {
            why = "symbolic link member: " + *name;
            return kUnsafeEntry;
        }
        std::optional<MemberKind> kind = classify(*name, archive_entry_filetype(entry));
        if (!kind) {
            why = "unexpected member: " + *name;
            return kBadManifest;
        }
        if (*kind != MemberKind::kDirectory && !seen.insert(*name).second) {
            why = "member given twice: " + *name;
            return kBadManifest;
        }
        if (int code = visit(reader.get(), entry, *name, *kind, why); code != kOk) return code;
    }
    // An empty file has no tar format at all; an empty tar has one.
    if (!anyMember && archive_format(reader.get()) == 0) {
        why = "not a package file: empty";
        return kFileUnreadable;
    }
    // libarchive takes a file that ends right after a member, or inside the
    // marker, as complete; only the whole marker tells that nothing was cut
    // off. The header position is where the end was found.
    if (!holdsMarkerAt(fd, archive_read_header_position(reader.get()))) {
        why = "the package file is cut short (no end-of-archive marker)";
        return kFileUnreadable;
    }
    return kOk;
}

int readPackageHead(const std::filesystem::path& file, PackageFileHead& out, std::string* error) {
    std::string why;
    UniqueFd fd(::open(file.c_str(), O_RDONLY | O_CLOEXEC));
    struct stat st {};
    if (!fd || ::fstat(fd.get(), &st) != 0 || !S_ISREG(st.st_mode)) {
        if (error) *error = "cannot open " + file.string();
        return refuse(kFileUnreadable, "cannot open " + file.string() + " as a regular file");
    }
    PackageFileHead head;
    std::string infoText, signatureText;
    bool haveInfo = false;
    auto visit = [&](archive* reader, archive_entry* entry, const std::string& name,
                     MemberKind kind, std::string& reason) {
        head.members.push_back(name);
        switch (kind) {
            case MemberKind::kInfo:
                haveInfo = true;
                return readSmallMember(reader, entry, name, kMaxManifestSize, infoText, reason);
            case MemberKind::kSignature:
                head.hasSignature = true;
                return readSmallMember(reader, entry, name, kMaxSignatureSize, signatureText,
                                       reason);
            case MemberKind::kPayload:
                if (!head.payloadMember.empty()) {
                    reason = "two payloads: " + head.payloadMember + " and " + name;
                    return static_cast<int>(kBadManifest);
                }
                head.payloadMember = name;
                break;
            case MemberKind::kScript:
                head.scriptMask |= scriptBit(name.substr(8));
                break;
            default:
                break;
        }
        return static_cast<int>(kOk);
    };
    int code = walkMembers(fd.get(), visit, why);
    if (code == kOk && !haveInfo) {
        why = "no manifest (INFO)";
        code = kBadManifest;
    }
    if (code == kOk && head.payloadMember.empty()) {
        why = "no payload (package.tgz or package.tzst)";
        code = kBadManifest;
    }
    if (code == kOk) code = parseManifest(infoText, head.manifest, &why);
    if (code == kOk) {
        head.infoSha256 = dataSha256Hex(infoText);
        // A signature that cannot be read is the trust check's to refuse;
        // a query still reads the file.
        if (head.hasSignature)
            head.signature =
                parseSigned(signatureText, StatementKind::kPackage, head.signatureProblem);
    }
    if (code != kOk) {
        if (error) *error = why;
        return refuse(code, file.string() + ": " + why);
    }
    out = std::move(head);
    return kOk;
}

}  // namespace quor
