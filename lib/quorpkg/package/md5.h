// Digests of package payloads, downloaded package files and catalogs: md5
// (what older catalogs and the tool's interface carry) and sha256.
#pragma once

#include <openssl/evp.h>

#include <filesystem>
#include <memory>
#include <optional>
#include <string>
#include <string_view>

namespace quor {

// A digest computed piece by piece, with any of OpenSSL's algorithms.
class Digest {
public:
    explicit Digest(const EVP_MD* algorithm);
    void update(const void* data, size_t size);
    // Lower-case hex; the digest cannot be updated afterwards.
    std::string hex();

private:
    struct CtxDeleter {
        void operator()(EVP_MD_CTX* ctx) const { EVP_MD_CTX_free(ctx); }
    };
    std::unique_ptr<EVP_MD_CTX, CtxDeleter> ctx_;
};

struct Md5 : Digest {
    Md5() : Digest(EVP_md5()) {}
};

struct Sha256 : Digest {
    Sha256() : Digest(EVP_sha256()) {}
};

// Both digests of one file, read once.
struct FileDigests {
    std::string md5;
    std::string sha256;
};

// The file's digests, or nothing when it cannot be read.
std::optional<FileDigests> fileDigests(const std::filesystem::path& file);

// Lower-case hex md5 of the file's content, or nothing when it cannot be read.
std::optional<std::string> fileMd5Hex(const std::filesystem::path& file);

// Lower-case hex md5 and sha256 of `data`.
std::string dataMd5Hex(std::string_view data);
std::string dataSha256Hex(std::string_view data);

// Compares two hex digests ignoring case.
bool sameDigest(std::string_view a, std::string_view b);

// Whether `text` is `digits` lower-case hex digits.
bool isLowerHex(std::string_view text, size_t digits);

}  // namespace quor
