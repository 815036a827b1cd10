// libcurl, loaded when the first transfer needs it. Only the package-server
// operations talk HTTP; linking libcurl and its long chain of libraries into
// the tool would make every command pay for loading them at start-up.
#pragma once

#include <curl/curl.h>

#include <string>

namespace quor {

// The libcurl functions we call, bound once per process.
struct CurlApi {
    CURL* (*easy_init)() = nullptr;
    void (*easy_cleanup)(CURL*) = nullptr;
    void (*easy_reset)(CURL*) = nullptr;
    CURLcode (*easy_setopt)(CURL*, CURLoption, ...) = nullptr;
    CURLcode (*easy_getinfo)(CURL*, CURLINFO, ...) = nullptr;
    CURLcode (*easy_perform)(CURL*) = nullptr;
    const char* (*easy_strerror)(CURLcode) = nullptr;
    CURLU* (*url)() = nullptr;
    void (*url_cleanup)(CURLU*) = nullptr;
    CURLUcode (*url_set)(CURLU*, CURLUPart, const char*, unsigned int) = nullptr;
    CURLUcode (*url_get)(const CURLU*, CURLUPart, char**, unsigned int) = nullptr;
    void (*free)(void*) = nullptr;
    curl_slist* (*slist_append)(curl_slist*, const char*) = nullptr;
    void (*slist_free_all)(curl_slist*) = nullptr;
};

// The loaded and initialised library, or nullptr when it cannot be loaded
// (then `error`, when given, says why). Safe to call from any thread.
const CurlApi* curlApi(std::string* error = nullptr);

}  // namespace quor
