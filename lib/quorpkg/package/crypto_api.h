// OpenSSL's libcrypto, loaded when the first digest or key needs it. Only
// the commands that read package files, download or sign use it; linked
// into the tool, its tables of algorithms were half of the relocations every
// command paid for at start-up, listing and status queries included.
#pragma once

#include <openssl/bio.h>
#include <openssl/evp.h>
#include <openssl/pem.h>

#include <string>

namespace quor {

// The libcrypto functions we call, bound once per process.
struct CryptoApi {
    decltype(&::EVP_MD_CTX_new) MD_CTX_new = nullptr;
    decltype(&::EVP_MD_CTX_free) MD_CTX_free = nullptr;
    decltype(&::EVP_DigestInit_ex) DigestInit_ex = nullptr;
    decltype(&::EVP_DigestUpdate) DigestUpdate = nullptr;
    decltype(&::EVP_DigestFinal_ex) DigestFinal_ex = nullptr;
    decltype(&::EVP_md5) md5 = nullptr;
    decltype(&::EVP_sha256) sha256 = nullptr;
    decltype(&::EVP_DigestSignInit) DigestSignInit = nullptr;
    decltype(&::EVP_DigestSign) DigestSign = nullptr;
    decltype(&::EVP_DigestVerifyInit) DigestVerifyInit = nullptr;
    decltype(&::EVP_DigestVerify) DigestVerify = nullptr;
    decltype(&::EVP_PKEY_free) PKEY_free = nullptr;
    decltype(&::EVP_PKEY_get_id) PKEY_get_id = nullptr;
    decltype(&::EVP_PKEY_get_raw_public_key) PKEY_get_raw_public_key = nullptr;
    decltype(&::EVP_PKEY_new_raw_public_key) PKEY_new_raw_public_key = nullptr;
    decltype(&::EVP_PKEY_Q_keygen) PKEY_Q_keygen = nullptr;
    decltype(&::BIO_new) BIO_new = nullptr;
    decltype(&::BIO_s_mem) BIO_s_mem = nullptr;
    decltype(&::BIO_new_mem_buf) BIO_new_mem_buf = nullptr;
    decltype(&::BIO_free) BIO_free = nullptr;
    decltype(&::BIO_ctrl) BIO_ctrl = nullptr;
    decltype(&::PEM_read_bio_PrivateKey) PEM_read_bio_PrivateKey = nullptr;
    decltype(&::PEM_read_bio_PUBKEY) PEM_read_bio_PUBKEY = nullptr;
    decltype(&::PEM_write_bio_PrivateKey) PEM_write_bio_PrivateKey = nullptr;
    decltype(&::PEM_write_bio_PUBKEY) PEM_write_bio_PUBKEY = nullptr;
};

// The loaded library, or nullptr when it cannot be loaded (then `error`,
// when given, says why). Safe to call from any thread.
const CryptoApi* cryptoApi(std::string* error = nullptr);

}  // namespace quor
