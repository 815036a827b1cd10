#include "quorpkg/package/crypto_api.h"

#include <dlfcn.h>

namespace quor {
namespace {

// The runtime name of the libcrypto our headers describe (OpenSSL 3).
constexpr const char* kLibraryName = "libcrypto.so.3";

template <typename Fn>
bool bind(void* library, const char* name, Fn& fn) {
    fn = reinterpret_cast<Fn>(::dlsym(library, name));
    return fn != nullptr;
}

struct Loaded {
    CryptoApi api;
    bool ok = false;
    std::string error;
};

Loaded load() {
    Loaded loaded;
    // Never closed: digests may be computed until the process ends.
    void* library = ::dlopen(kLibraryName, RTLD_NOW | RTLD_LOCAL);
    if (library == nullptr) {
        const char* why = ::dlerror();
        loaded.error = why ? why : std::string("cannot load ") + kLibraryName;
        return loaded;
    }
    CryptoApi& api = loaded.api;
    const bool bound =
        bind(library, "EVP_MD_CTX_new", api.MD_CTX_new) &&
        bind(library, "EVP_MD_CTX_free", api.MD_CTX_free) &&
        bind(library, "EVP_DigestInit_ex", api.DigestInit_ex) &&
        bind(library, "EVP_DigestUpdate", api.DigestUpdate) &&
        bind(library, "EVP_DigestFinal_ex", api.DigestFinal_ex) &&
        bind(library, "EVP_md5", api.md5) && bind(library, "EVP_sha256", api.sha256) &&
        bind(library, "EVP_DigestSignInit", api.DigestSignInit) &&
        bind(library, "EVP_DigestSign", api.DigestSign) &&
        bind(library, "EVP_DigestVerifyInit", api.DigestVerifyInit) &&
        bind(library, "EVP_DigestVerify", api.DigestVerify) &&
        bind(library, "EVP_PKEY_free", api.PKEY_free) &&
        bind(library, "EVP_PKEY_get_id", api.PKEY_get_id) &&
        bind(library, "EVP_PKEY_get_raw_public_key", api.PKEY_get_raw_public_key) &&
        bind(library, "EVP_PKEY_Q_keygen", api.PKEY_Q_keygen) &&
        bind(library, "BIO_new", api.BIO_new) && bind(library, "BIO_s_mem", api.BIO_s_mem) &&
        bind(library, "BIO_new_mem_buf", api.BIO_new_mem_buf) &&
        bind(library, "BIO_free", api.BIO_free) && bind(library, "BIO_ctrl", api.BIO_ctrl) &&
        bind(library, "PEM_read_bio_PrivateKey", api.PEM_read_bio_PrivateKey) &&
        bind(library, "PEM_read_bio_PUBKEY", api.PEM_read_bio_PUBKEY) &&
        bind(library, "PEM_write_bio_PrivateKey", api.PEM_write_bio_PrivateKey) &&
        bind(library, "PEM_write_bio_PUBKEY", api.PEM_write_bio_PUBKEY);
    if (!bound) {
        loaded.error = std::string(kLibraryName) + " lacks a function we need";
        return loaded;
    }
    loaded.ok = true;
    return loaded;
}

}  // namespace

const CryptoApi* cryptoApi(std::string* error) {
    // Loaded once; the first caller initialises it while any others wait.
    static const Loaded loaded = load();
    if (!loaded.ok && error) *error = loaded.error;
    return loaded.ok ? &loaded.api : nullptr;
}

}  // namespace quor
