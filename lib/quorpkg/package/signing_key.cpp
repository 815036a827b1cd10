#include "quorpkg/package/signing_key.h"

#include "base/file_util.h"
#include "quorpkg/package/crypto_api.h"
#include "quorpkg/package/md5.h"

namespace quor {
namespace {

constexpr size_t kSignatureSize = 64;
// A PEM key is a few hundred bytes; anything much larger is not one.
constexpr size_t kMaxKeyFile = 64 * 1024;

// Objects exist only once the library is loaded.
struct BioDeleter {
    void operator()(BIO* bio) const { cryptoApi()->BIO_free(bio); }
};
using Bio = std::unique_ptr<BIO, BioDeleter>;

struct MdCtxDeleter {
    void operator()(EVP_MD_CTX* ctx) const { cryptoApi()->MD_CTX_free(ctx); }
};
using MdCtx = std::unique_ptr<EVP_MD_CTX, MdCtxDeleter>;

std::string bioText(const CryptoApi& api, BIO* bio) {
    char* data = nullptr;
    // BIO_get_mem_data, a macro over BIO_ctrl.
    long size = api.BIO_ctrl(bio, BIO_CTRL_INFO, 0, &data);
    return size > 0 ? std::string(data, static_cast<size_t>(size)) : std::string();
}

EVP_PKEY* readPem(const std::filesystem::path& file, bool isPrivate, std::string& why) {
    std::string loadError;
    const CryptoApi* api = cryptoApi(&loadError);
    if (!api) {
        why = "cannot read keys: " + loadError;
        return nullptr;
    }
    std::optional<std::string> text = readFile(file);
    if (!text || text->size() > kMaxKeyFile) {
        why = "cannot read " + file.string();
        return nullptr;
    }
    Bio bio(api->BIO_new_mem_buf(text->data(), static_cast<int>(text->size())));
    EVP_PKEY* key = nullptr;
    if (bio)
        key = isPrivate ? api->PEM_read_bio_PrivateKey(bio.get(), nullptr, nullptr, nullptr)
                        : api->PEM_read_bio_PUBKEY(bio.get(), nullptr, nullptr, nullptr);
    if (key && api->PKEY_get_id(key) != EVP_PKEY_ED25519) {
        api->PKEY_free(key);
        key = nullptr;
    }
    if (!key)
        why = file.string() + " holds no Ed25519 " + (isPrivate ? "private" : "public") + " key";
    return key;
}

}  // namespace

void SigningKey::KeyDeleter::operator()(EVP_PKEY* key) const {
    cryptoApi()->PKEY_free(key);
}

SigningKey::SigningKey(EVP_PKEY* key, bool hasPrivate)
    : key_(key, KeyDeleter()), private_(hasPrivate) {
    unsigned char raw[32];
    size_t length = sizeof raw;
    if (cryptoApi()->PKEY_get_raw_public_key(key, raw, &length) == 1)
        id_ = dataSha256Hex(std::string_view(reinterpret_cast<char*>(raw), length)).substr(0, 16);
}

std::optional<SigningKey> SigningKey::generate() {
    const CryptoApi* api = cryptoApi();
    EVP_PKEY* key = api ? api->PKEY_Q_keygen(nullptr, nullptr, "ED25519") : nullptr;
    if (!key) return std::nullopt;
    return SigningKey(key, true);
}

std::optional<SigningKey> SigningKey::load(const std::filesystem::path& file, bool isPrivate,
                                           std::string* error) {
    std::string why;
    EVP_PKEY* key = readPem(file, isPrivate, why);
    if (!key) {
        if (error) *error = why;
        return std::nullopt;
    }
    return SigningKey(key, isPrivate);
}

std::optional<SigningKey> SigningKey::loadPrivate(const std::filesystem::path& file,
                                                  std::string* error) {
    return load(file, true, error);
}

std::optional<SigningKey> SigningKey::loadPublic(const std::filesystem::path& file,
                                                 std::string* error) {
    return load(file, false, error);
}

std::optional<SigningKey> SigningKey::fromRawPublic(std::string_view raw) {
    const CryptoApi* api = cryptoApi();
    if (!api || raw.size() != 32) return std::nullopt;
    EVP_PKEY* key = api->PKEY_new_raw_public_key(
        EVP_PKEY_ED25519, nullptr, reinterpret_cast<const unsigned char*>(raw.data()), raw.size());
    if (!key) return std::nullopt;
    return SigningKey(key, false);
}

std::string SigningKey::rawPublic() const {
    unsigned char raw[32];
    size_t length = sizeof raw;
    if (cryptoApi()->PKEY_get_raw_public_key(key_.get(), raw, &length) != 1) return {};
    return std::string(reinterpret_cast<char*>(raw), length);
}

// A SigningKey holds a key only when the library is loaded.
std::string SigningKey::privatePem() const {
    const CryptoApi& api = *cryptoApi();
    Bio bio(api.BIO_new(api.BIO_s_mem()));
    if (!private_ || !bio ||
        api.PEM_write_bio_PrivateKey(bio.get(), key_.get(), nullptr, nullptr, 0, nullptr,
                                     nullptr) != 1)
        return {};
    return bioText(api, bio.get());
}

std::string SigningKey::publicPem() const {
    const CryptoApi& api = *cryptoApi();
    Bio bio(api.BIO_new(api.BIO_s_mem()));
    if (!bio || api.PEM_write_bio_PUBKEY(bio.get(), key_.get()) != 1) return {};
    return bioText(api, bio.get());
}

std::string SigningKey::sign(std::string_view message) const {
    const CryptoApi& api = *cryptoApi();
    MdCtx ctx(api.MD_CTX_new());
    std::string signature(kSignatureSize, '\0');
    size_t length = signature.size();
    // Ed25519 hashes the message itself: no digest is named.
    if (!private_ || !ctx ||
        api.DigestSignInit(ctx.get(), nullptr, nullptr, nullptr, key_.get()) != 1 ||
        api.DigestSign(ctx.get(), reinterpret_cast<unsigned char*>(signature.data()), &length,
                       reinterpret_cast<const unsigned char*>(message.data()),
                       message.size()) != 1 ||
        length != kSignatureSize)
        return {};
    return signature;
}

bool SigningKey::verify(std::string_view message, std::string_view signature) const {
    if (signature.size() != kSignatureSize) return false;
    const CryptoApi& api = *cryptoApi();
    MdCtx ctx(api.MD_CTX_new());
    return ctx && api.DigestVerifyInit(ctx.get(), nullptr, nullptr, nullptr, key_.get()) == 1 &&
           api.DigestVerify(ctx.get(), reinterpret_cast<const unsigned char*>(signature.data()),
                            signature.size(),
                            reinterpret_cast<const unsigned char*>(message.data()),
                            message.size()) == 1;
}

std::string toHex(std::string_view bytes) {
    static const char* digits = "0123456789abcdef";
    std::string out;
    out.reserve(bytes.size() * 2);
    for (unsigned char c : bytes) {
        out += digits[c >> 4];
        out += digits[c & 15];
    }
    return out;
}

std::optional<std::string> fromHex(std::string_view hex) {
    auto value = [](char c) -> int {
        if (c >= '0' && c <= '9') return c - '0';
        if (c >= 'a' && c <= 'f') return c - 'a' + 10;
        return -1;
    };
    if (hex.size() % 2 != 0) return std::nullopt;
    std::string out;
    for (size_t i = 0; i < hex.size(); i += 2) {
        int high = value(hex[i]), low = value(hex[i + 1]);
        if (high < 0 || low < 0) return std::nullopt;
        out += static_cast<char>(high * 16 + low);
    }
    return out;
}

}  // namespace quor
