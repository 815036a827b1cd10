// MD5 digests: of package payloads, downloaded package files and catalogs.
#pragma once

#include <openssl/evp.h>

#include <filesystem>
#include <memory>
#include <optional>
#include <string>
#include <string_view>

namespace quor {

// An md5 digest computed piece by piece.
class Md5 {
public:
    Md5();
    void update(const void* data, size_t size);
    // Lower-case hex; the digest cannot be updated afterwards.
    std::string hex();

private:
    struct CtxDeleter {
        void operator()(EVP_MD_CTX* ctx) const { EVP_MD_CTX_free(ctx); }
    };
    std::unique_ptr<EVP_MD_CTX, CtxDeleter> ctx_;
};

// Lower-case hex md5 of the file's content, or nothing when it cannot be read.
std::optional<std::string> fileMd5Hex(const std::filesystem::path& file);

// Lower-case hex md5 of `data`.
std::string dataMd5Hex(std::string_view data);

// Compares two hex digests ignoring case.
bool sameDigest(std::string_view a, std::string_view b);

}  // namespace quor
