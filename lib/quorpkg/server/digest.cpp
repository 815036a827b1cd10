#include "quorpkg/server/digest.h"

#include <fcntl.h>
#include <openssl/evp.h>
#include <unistd.h>

#include <cctype>
#include <cerrno>
#include <memory>

#include "base/file_util.h"

namespace quor {
namespace {

struct MdContextDeleter {
    void operator()(EVP_MD_CTX* ctx) const { EVP_MD_CTX_free(ctx); }
};

std::string toHex(const unsigned char* digest, unsigned int length) {
    static const char* hex = "0123456789abcdef";
    std::string out;
    for (unsigned int i = 0; i < length; ++i) {
        out += hex[digest[i] >> 4];
        out += hex[digest[i] & 15];
    }
    return out;
}

}  // namespace

std::optional<std::string> fileMd5Hex(const std::filesystem::path& file) {
    UniqueFd fd(::open(file.c_str(), O_RDONLY | O_CLOEXEC));
    std::unique_ptr<EVP_MD_CTX, MdContextDeleter> ctx(EVP_MD_CTX_new());
    if (!fd || !ctx || EVP_DigestInit_ex(ctx.get(), EVP_md5(), nullptr) != 1) return std::nullopt;
    char buffer[1 << 16];
    for (;;) {
        ssize_t n = ::read(fd.get(), buffer, sizeof buffer);
        if (n < 0 && errno == EINTR) continue;
        if (n < 0) return std::nullopt;
        if (n == 0) break;
        if (EVP_DigestUpdate(ctx.get(), buffer, static_cast<size_t>(n)) != 1) return std::nullopt;
    }
    unsigned char digest[EVP_MAX_MD_SIZE];
    unsigned int length = 0;
    if (EVP_DigestFinal_ex(ctx.get(), digest, &length) != 1) return std::nullopt;
    return toHex(digest, length);
}

std::string dataMd5Hex(std::string_view data) {
    unsigned char digest[EVP_MAX_MD_SIZE];
    unsigned int length = 0;
    if (EVP_Digest(data.data(), data.size(), digest, &length, EVP_md5(), nullptr) != 1) return {};
    return toHex(digest, length);
}

bool sameDigest(std::string_view a, std::string_view b) {
    if (a.size() != b.size()) return false;
    for (size_t i = 0; i < a.size(); ++i)
        if (std::tolower(static_cast<unsigned char>(a[i])) !=
            std::tolower(static_cast<unsigned char>(b[i])))
            return false;
    return true;
}

}  // namespace quor
