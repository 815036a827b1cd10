// Ed25519 keys of package publishers, through OpenSSL's EVP interface
// (libcrypto loaded on first use; without it there are no keys): the
// private key signs package files and catalogs, the public key (installed on
// devices) verifies them. Keys are stored as PEM (PKCS#8 for the private
// key, SubjectPublicKeyInfo for the public one).
#pragma once

#include <openssl/evp.h>

#include <filesystem>
#include <memory>
#include <optional>
#include <string>
#include <string_view>

namespace quor {

class SigningKey {
public:
    // A new key pair, or nothing when OpenSSL cannot make one.
    static std::optional<SigningKey> generate();
    // A key read from a PEM file (private or public), or nothing with a
    // reason when the file cannot be read or holds no Ed25519 key.
    static std::optional<SigningKey> loadPrivate(const std::filesystem::path& file,
                                                 std::string* error = nullptr);
    static std::optional<SigningKey> loadPublic(const std::filesystem::path& file,
                                                std::string* error = nullptr);
    // A public key from its raw 32 bytes, as a source's root lists it.
    static std::optional<SigningKey> fromRawPublic(std::string_view raw);

    bool hasPrivate() const { return private_; }
    // The first 16 hex digits of the sha256 of the raw 32-byte public key.
    const std::string& id() const { return id_; }

    std::string privatePem() const;
    // The raw 32-byte public key.
    std::string rawPublic() const;
    std::string publicPem() const;

    // The raw 64-byte signature of `message`; empty without a private key.
    std::string sign(std::string_view message) const;
    bool verify(std::string_view message, std::string_view signature) const;

private:
    struct KeyDeleter {
        void operator()(EVP_PKEY* key) const;
    };
    SigningKey(EVP_PKEY* key, bool hasPrivate);
    static std::optional<SigningKey> load(const std::filesystem::path& file, bool isPrivate,
                                          std::string* error);

    std::shared_ptr<EVP_PKEY> key_;
    bool private_ = false;
    std::string id_;
};

// Hex and back, for signatures in text files.
std::string toHex(std::string_view bytes);
std::optional<std::string> fromHex(std::string_view hex);

}  // namespace quor
