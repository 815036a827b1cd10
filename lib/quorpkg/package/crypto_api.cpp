#include "quorpkg/package/crypto_api.h"

#include "base/dynamic_library.h"

namespace quor {
namespace {

// The runtime name of the libcrypto our headers describe (OpenSSL 3).
constexpr const char* kLibraryName = "libcrypto.so.3";

bool bindCrypto(void* lib, CryptoApi& api, std::string&) {
    return bindFunction(lib, "EVP_MD_CTX_new", api.MD_CTX_new) &&
           bindFunction(lib, "EVP_MD_CTX_free", api.MD_CTX_free) &&
           bindFunction(lib, "EVP_DigestInit_ex", api.DigestInit_ex) &&
           bindFunction(lib, "EVP_DigestUpdate", api.DigestUpdate) &&
           bindFunction(lib, "EVP_DigestFinal_ex", api.DigestFinal_ex) &&
           bindFunction(lib, "EVP_md5", api.md5) && bindFunction(lib, "EVP_sha256", api.sha256) &&
           bindFunction(lib, "EVP_DigestSignInit", api.DigestSignInit) &&
           bindFunction(lib, "EVP_DigestSign", api.DigestSign) &&
           bindFunction(lib, "EVP_DigestVerifyInit", api.DigestVerifyInit) &&
           bindFunction(lib, "EVP_DigestVerify", api.DigestVerify) &&
           bindFunction(lib, "EVP_PKEY_free", api.PKEY_free) &&
           bindFunction(lib, "EVP_PKEY_get_id", api.PKEY_get_id) &&
           bindFunction(lib, "EVP_PKEY_get_raw_public_key", api.PKEY_get_raw_public_key) &&
           bindFunction(lib, "EVP_PKEY_new_raw_public_key", api.PKEY_new_raw_public_key) &&
           bindFunction(lib, "EVP_PKEY_Q_keygen", api.PKEY_Q_keygen) &&
           bindFunction(lib, "BIO_new", api.BIO_new) &&
           bindFunction(lib, "BIO_s_mem", api.BIO_s_mem) &&
           bindFunction(lib, "BIO_new_mem_buf", api.BIO_new_mem_buf) &&
           bindFunction(lib, "BIO_free", api.BIO_free) &&
           bindFunction(lib, "BIO_ctrl", api.BIO_ctrl) &&
           bindFunction(lib, "PEM_read_bio_PrivateKey", api.PEM_read_bio_PrivateKey) &&
           bindFunction(lib, "PEM_read_bio_PUBKEY", api.PEM_read_bio_PUBKEY) &&
           bindFunction(lib, "PEM_write_bio_PrivateKey", api.PEM_write_bio_PrivateKey) &&
           bindFunction(lib, "PEM_write_bio_PUBKEY", api.PEM_write_bio_PUBKEY);
}

}  // namespace

const CryptoApi* cryptoApi(std::string* error) {
    // Loaded once; the first caller initialises it while any others wait.
    // Digests may be computed until the process ends.
    static const LoadedLibrary<CryptoApi> loaded = loadLibrary<CryptoApi>(kLibraryName, bindCrypto);
    return loadedApi(loaded, error);
}

}  // namespace quor
