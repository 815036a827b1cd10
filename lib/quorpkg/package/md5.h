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

enum class DigestAlgorithm { kMd5, kSha256 };

// A digest computed piece by piece with OpenSSL (loaded on first use). When
// libcrypto cannot be loaded, every digest is empty, which matches none.
class Digest {
public:
    explicit Digest(DigestAlgorithm algorithm);
    void update(const void* data, size_t size);
    // Lower-case hex; the digest cannot be updated afterwards.
    std::string hex();

private:
    struct CtxDeleter {
        void operator()(EVP_MD_CTX* ctx) const;
    };
    std::unique_ptr<EVP_MD_CTX, CtxDeleter> ctx_;
};

struct Md5 : Digest {
    Md5() : Digest(DigestAlgorithm::kMd5) {}
};

struct Sha256 : Digest {
    Sha256() : Digest(DigestAlgorithm::kSha256) {}
};

// Both digests of one file, read once.
struct FileDigests {
    std::string md5;
    std::string sha256;
};

// The file's digests, or nothing when it cannot be read.
std::optional<FileDigests> fileDigests(const std::filesystem::path& file);

// Lower-case hex sha256 of a regular file, never read through a link; nothing
// for anything else, or when it cannot be read or hashed.
std::optional<std::string> regularFileSha256(const std::filesystem::path& file);

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
