#include "quorpkg/package/md5.h"

#include <fcntl.h>
#include <unistd.h>

#include <cctype>
#include <cerrno>
#include <initializer_list>

#include "base/file_util.h"
#include "quorpkg/package/crypto_api.h"

namespace quor {

void Digest::CtxDeleter::operator()(EVP_MD_CTX* ctx) const {
    cryptoApi()->MD_CTX_free(ctx);  // there is a context only with the library
}

Digest::Digest(DigestAlgorithm algorithm) {
    const CryptoApi* api = cryptoApi();
    if (!api) return;
    ctx_.reset(api->MD_CTX_new());
    const EVP_MD* md = algorithm == DigestAlgorithm::kMd5 ? api->md5() : api->sha256();
    if (ctx_ && api->DigestInit_ex(ctx_.get(), md, nullptr) != 1) ctx_.reset();
}

void Digest::update(const void* data, size_t size) {
    if (ctx_) cryptoApi()->DigestUpdate(ctx_.get(), data, size);
}

std::string Digest::hex() {
    unsigned char digest[EVP_MAX_MD_SIZE];
    unsigned int length = 0;
    if (!ctx_ || cryptoApi()->DigestFinal_ex(ctx_.get(), digest, &length) != 1) return {};
    ctx_.reset();
    static const char* digits = "0123456789abcdef";
    std::string out;
    for (unsigned int i = 0; i < length; ++i) {
        out += digits[digest[i] >> 4];
        out += digits[digest[i] & 15];
    }
    return out;
}

// Feeds the rest of what `fd` holds to each digest; false on a read error.
static bool digestAll(const UniqueFd& fd, std::initializer_list<Digest*> digests) {
    if (!fd) return false;
    char buffer[1 << 16];
    for (;;) {
        ssize_t n = ::read(fd.get(), buffer, sizeof buffer);
        if (n < 0 && errno == EINTR) continue;
        if (n < 0) return false;
        if (n == 0) return true;
        for (Digest* digest : digests) digest->update(buffer, static_cast<size_t>(n));
    }
}

std::optional<FileDigests> fileDigests(const std::filesystem::path& file) {
    Md5 md5;
    Sha256 sha256;
    if (!digestAll(UniqueFd(::open(file.c_str(), O_RDONLY | O_CLOEXEC)), {&md5, &sha256}))
        return std::nullopt;
    return FileDigests{md5.hex(), sha256.hex()};
}

std::optional<std::string> regularFileSha256(const std::filesystem::path& file) {
    Sha256 sha256;
    if (!digestAll(openRegularFile(file, O_RDONLY), {&sha256})) return std::nullopt;
    std::string hex = sha256.hex();
    if (hex.empty()) return std::nullopt;
    return hex;
}

std::optional<std::string> fileMd5Hex(const std::filesystem::path& file) {
    std::optional<FileDigests> digests = fileDigests(file);
    if (!digests) return std::nullopt;
    return digests->md5;
}

std::string dataMd5Hex(std::string_view data) {
    Md5 md5;
    md5.update(data.data(), data.size());
    return md5.hex();
}

std::string dataSha256Hex(std::string_view data) {
    Sha256 sha256;
    sha256.update(data.data(), data.size());
    return sha256.hex();
}

bool sameDigest(std::string_view a, std::string_view b) {
    if (a.size() != b.size()) return false;
    for (size_t i = 0; i < a.size(); ++i)
        if (std::tolower(static_cast<unsigned char>(a[i])) !=
            std::tolower(static_cast<unsigned char>(b[i])))
            return false;
    return true;
}

bool isLowerHex(std::string_view text, size_t digits) {
    return text.size() == digits && text.find_first_not_of("0123456789abcdef") == std::string::npos;
}

}  // namespace quor
