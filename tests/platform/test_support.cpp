#include "test_support.h"

#include <archive.h>
#include <archive_entry.h>
#include <openssl/evp.h>
#include <sys/mount.h>
#include <sys/stat.h>
#include <sys/wait.h>
#include <unistd.h>

#include <csignal>
#include <cstdlib>
#include <fstream>
#include <memory>
#include <stdexcept>

#include "base/file_util.h"
#include "base/key_value.h"
#include "base/layout.h"
#include "base/result.h"
#include "quorpkg/package/package_writer.h"
#include "quorpkg/store/lock.h"
#include "quorpkg/store/store.h"

namespace quor::test {
namespace {

struct ArchiveWriteDeleter {
    void operator()(archive* a) const { archive_write_free(a); }
};
struct EntryDeleter {
    void operator()(archive_entry* e) const { archive_entry_free(e); }
};

void check(bool ok, const std::string& what) {
    if (!ok) throw std::runtime_error("test setup failed: " + what);
}

}  // namespace

TempDir::TempDir() {
    std::string pattern = (fs::temp_directory_path() / "quortest.XXXXXX").string();
    check(::mkdtemp(pattern.data()) != nullptr, "mkdtemp");
    path_ = pattern;
}

TempDir::~TempDir() {
    std::error_code ec;
    // Tests may leave read-only folders behind; make them writable first.
    for (auto it = fs::recursive_directory_iterator(path_, ec);
         !ec && it != fs::recursive_directory_iterator(); it.increment(ec)) {
        if (it->is_directory(ec) && !it->is_symlink(ec))
            fs::permissions(it->path(), fs::perms::owner_all, fs::perm_options::add, ec);
    }
    fs::remove_all(path_, ec);
}

TempRoot::TempRoot() {
    if (const char* old = std::getenv("QUOR_ROOT")) {
        hadPrevious_ = true;
        previous_ = old;
    }
    ::setenv("QUOR_ROOT", dir_.path().c_str(), 1);
    writeSettings("");
}

TempRoot::~TempRoot() {
    if (hadPrevious_)
        ::setenv("QUOR_ROOT", previous_.c_str(), 1);
    else
        ::unsetenv("QUOR_ROOT");
}

fs::path TempRoot::host(std::string_view systemPath) const {
    while (!systemPath.empty() && systemPath.front() == '/') systemPath.remove_prefix(1);
    return path() / systemPath;
}

fs::path TempRoot::addVolume(int number) const {
    fs::path volume = path() / ("volume" + std::to_string(number));
    fs::create_directories(volume);
    return volume;
}

void writeSettings(std::string_view lines) {
    // The short lock wait makes a leaked lock fail a test in seconds, unless
    // `lines` set their own (a key given twice is logged as a slip).
    const bool ownWait = lines.find("lock_timeout=") != std::string_view::npos;
    writeText(layout::settingsFile(), std::string(lines) + (ownWait ? "" : "lock_timeout=\"2\"\n"));
}

void appendSetting(std::string_view line) {
    const std::string text = readFile(layout::settingsFile()).value_or("");
    writeText(layout::settingsFile(), text + std::string(line) + "\n");
}

void writeText(const fs::path& file, std::string_view content, mode_t mode) {
    if (file.has_parent_path()) fs::create_directories(file.parent_path());
    {
        std::ofstream out(file, std::ios::binary | std::ios::trunc);
        out.write(content.data(), static_cast<std::streamsize>(content.size()));
        check(static_cast<bool>(out), "write " + file.string());
    }
    check(::chmod(file.c_str(), mode) == 0, "chmod " + file.string());
}

PackageSource packageSource(std::string name, std::string version,
                            std::vector<std::pair<std::string, std::string>> info) {
    return {.name = std::move(name), .version = std::move(version), .info = std::move(info)};
}

void writePackageSource(const fs::path& dir, const PackageSource& pkg) {
    std::string info = pkg.rawInfo;
    if (info.empty()) {
        KeyValues pairs = {{"package", pkg.name}, {"version", pkg.version}};
        pairs.insert(pairs.end(), pkg.info.begin(), pkg.info.end());
        info = formatKeyValues(pairs);
    }
    writeText(dir / "INFO", info);
    fs::create_directories(dir / "package");
    for (const auto& [path, content] : pkg.files) {
        bool executable = content.rfind("#!", 0) == 0;
        writeText(dir / "package" / path, content, executable ? 0755 : 0644);
    }
    for (const auto& [script, body] : pkg.scripts) writeText(dir / "scripts" / script, body, 0755);
    for (const auto& [path, content] : pkg.conf) writeText(dir / "conf" / path, content);
}

fs::path buildTestPackage(const fs::path& outDir, const PackageSource& pkg,
                          PayloadCompression compression) {
    fs::path source = outDir / ("src-" + pkg.name + "-" + pkg.version);
    fs::remove_all(source);
    writePackageSource(source, pkg);
    fs::path file = outDir / (pkg.name + "-" + pkg.version + ".zpk");
    std::string error;
    int code = buildPackage(source, file, compression, &error);
    check(code == 0, "buildPackage " + std::to_string(code) + ": " + error);
    fs::remove_all(source);
    return file;
}

TarEntry fileEntry(std::string name, std::string data, mode_t perm) {
    return {.name = std::move(name), .data = std::move(data), .perm = perm};
}

TarEntry dirEntry(std::string name, mode_t perm) {
    return {.name = std::move(name), .type = AE_IFDIR, .perm = perm};
}

TarEntry symlinkEntry(std::string name, std::string target) {
    return {.name = std::move(name), .type = AE_IFLNK, .perm = 0777, .symlink = std::move(target)};
}

TarEntry hardlinkEntry(std::string name, std::string target) {
    return {.name = std::move(name), .hardlink = std::move(target)};
}

TarEntry nodeEntry(std::string name, unsigned type) {
    return {.name = std::move(name), .type = type};
}

std::string tarBytes(const std::vector<TarEntry>& entries, TarFilter filter) {
    std::unique_ptr<archive, ArchiveWriteDeleter> a(archive_write_new());
    check(archive_write_set_format_pax_restricted(a.get()) == ARCHIVE_OK, "tar format");
    archive_write_set_format_option(a.get(), "pax", "hdrcharset", "BINARY");
    if (filter == TarFilter::kGzip)
        check(archive_write_add_filter_gzip(a.get()) == ARCHIVE_OK, "gzip");
    if (filter == TarFilter::kZstd)
        check(archive_write_add_filter_zstd(a.get()) == ARCHIVE_OK, "zstd");
    // Hand-made archives may be tiny; no padding to a 10 KiB block.
    archive_write_set_bytes_in_last_block(a.get(), 1);
    // The memory writer needs a buffer that holds the whole archive.
    size_t need = 1 << 20;
    for (const TarEntry& e : entries) need += e.data.size() + 4096;
    std::string out(need, '\0');
    size_t used = 0;
    check(archive_write_open_memory(a.get(), out.data(), out.size(), &used) == ARCHIVE_OK,
          "open memory");
    for (const TarEntry& e : entries) {
        std::unique_ptr<archive_entry, EntryDeleter> entry(archive_entry_new());
        archive_entry_set_pathname(entry.get(), e.name.c_str());
        archive_entry_set_filetype(entry.get(), e.type);
        archive_entry_set_perm(entry.get(), e.perm);
        archive_entry_set_mtime(entry.get(), 1700000000, 0);
        if (!e.symlink.empty()) archive_entry_set_symlink(entry.get(), e.symlink.c_str());
        if (!e.hardlink.empty()) archive_entry_set_hardlink(entry.get(), e.hardlink.c_str());
        if (e.type == AE_IFCHR || e.type == AE_IFBLK) archive_entry_set_rdev(entry.get(), 0x0103);
        bool hasData = e.type == AE_IFREG && e.hardlink.empty();
        archive_entry_set_size(entry.get(), hasData ? static_cast<la_int64_t>(e.data.size()) : 0);
        check(archive_write_header(a.get(), entry.get()) == ARCHIVE_OK, "header " + e.name);
        if (hasData && !e.data.empty())
            check(archive_write_data(a.get(), e.data.data(), e.data.size()) ==
                      static_cast<la_ssize_t>(e.data.size()),
                  "data " + e.name);
    }
    check(archive_write_close(a.get()) == ARCHIVE_OK, "close");
    out.resize(used);
    return out;
}

void writeTar(const fs::path& file, const std::vector<TarEntry>& entries) {
    writeText(file, tarBytes(entries));
}

std::string noiseBytes(size_t size, unsigned seed) {
    std::string noise;
    for (unsigned i = seed; noise.size() < size; i = i * 1103515245u + 12345u)
        noise += char(i >> 16);
    return noise;
}

Snapshot snapshot(const fs::path& root, const std::vector<std::string>& skipped) {
    Snapshot out;
    for (const auto& entry : fs::recursive_directory_iterator(root)) {
        const std::string relative = entry.path().lexically_relative(root).string();
        bool skip = false;
        for (const std::string& left : skipped)
            skip = skip || relative == left || (left.back() == '/' && relative.rfind(left, 0) == 0);
        if (skip) continue;
        if (entry.is_symlink())
            out[relative] = "-> " + fs::read_symlink(entry.path()).string();
        else if (entry.is_regular_file())
            out[relative] = readFile(entry.path()).value_or("?");
    }
    return out;
}

std::vector<std::string> textLines(std::string_view text) {
    std::vector<std::string> lines;
    for (size_t start = 0, end; (end = text.find('\n', start)) != text.npos; start = end + 1)
        lines.emplace_back(text.substr(start, end - start));
    return lines;
}

std::string installedVersion(const std::string& name) {
    Manifest manifest;
    return readInstalledManifest(name, manifest) == kOk ? manifest.version : "";
}

Tmpfs::Tmpfs(const fs::path& dir, const std::string& size) : dir_(dir) {
    fs::create_directories(dir);
    mounted_ = ::mount("tmpfs", dir.c_str(), "tmpfs", 0, ("size=" + size).c_str()) == 0;
}

Tmpfs::~Tmpfs() {
    if (mounted_) ::umount2(dir_.c_str(), MNT_DETACH);
}

int inChild(const std::function<int()>& body) {
    const pid_t pid = ::fork();
    if (pid == 0) ::_exit(body());
    int status = 0;
    ::waitpid(pid, &status, 0);
    return WIFEXITED(status) ? WEXITSTATUS(status) : -WTERMSIG(status);
}

int withFileSizeLimit(rlim_t bytes, const std::function<int()>& body) {
    return inChild([&] {
        ::signal(SIGXFSZ, SIG_IGN);
        const rlimit limit{bytes, bytes};
        return ::setrlimit(RLIMIT_FSIZE, &limit) == 0 ? body() : 255;
    });
}

LockHolder::LockHolder() {
    int held[2], release[2];
    check(::pipe(held) == 0 && ::pipe(release) == 0, "pipe");
    pid_ = ::fork();
    if (pid_ == 0) {
        ::close(held[0]);
        ::close(release[1]);
        int code = kOk;
        auto lock = StoreLock::acquire(code);
        char byte = lock ? 1 : 0;
        if (::write(held[1], &byte, 1) != 1) ::_exit(2);
        // Holds the lock until the parent closes its end of the pipe.
        ::_exit(::read(release[0], &byte, 1) == 0 ? 0 : 3);
    }
    ::close(held[1]);
    ::close(release[0]);
    release_ = release[1];
    char byte = 0;
    locked_ = ::read(held[0], &byte, 1) == 1 && byte == 1;
    ::close(held[0]);
}

LockHolder::~LockHolder() {
    ::close(release_);
    ::waitpid(pid_, nullptr, 0);
}

std::string md5Hex(std::string_view data) {
    unsigned char digest[EVP_MAX_MD_SIZE];
    unsigned int length = 0;
    check(EVP_Digest(data.data(), data.size(), digest, &length, EVP_md5(), nullptr) == 1, "md5");
    static const char* hex = "0123456789abcdef";
    std::string out;
    for (unsigned int i = 0; i < length; ++i) {
        out += hex[digest[i] >> 4];
        out += hex[digest[i] & 15];
    }
    return out;
}

std::string infoText(std::string_view name, std::string_view version,
                     std::string_view payloadBytes) {
    return formatKeyValues({{"package", std::string(name)},
                            {"version", std::string(version)},
                            {"checksum", md5Hex(payloadBytes)}});
}

}  // namespace quor::test
