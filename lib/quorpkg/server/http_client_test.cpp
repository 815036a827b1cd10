// Plain links resolved by prefix must give exactly what libcurl gives.
#include "quorpkg/server/http_client.h"

#include <gtest/gtest.h>

namespace quor {
namespace {

TEST(PlainLinks, ThePrefixResolvesEveryPlainLinkAsLibcurlDoes) {
    const char* bases[] = {"http://127.0.0.1:8080/repo/",
                           "http://127.0.0.1/repo",
                           "HTTP://Example.COM:80/a/b/../c/",
                           "https://example.com/a%20b/?x=1#top",
                           "http://user:pw@example.com/dir/./sub/",
                           "http://example.com",
                           "file:///srv/repo/"};
    const char* links[] = {"pkg.zpk", "a", "pkg-1.0~beta_2.zpk", "...", ".x", "x.", "~"};
    for (const char* base : bases) {
        const std::string prefix = plainLinkPrefix(base);
        ASSERT_FALSE(prefix.empty()) << base;
        for (const char* link : links) {
            ASSERT_TRUE(isPlainLink(link)) << link;
            EXPECT_EQ(prefix + link, resolveUrl(base, link)) << base << " + " << link;
        }
    }
    // What the prefix cannot stand for goes to libcurl.
    for (const char* link :
         {"", ".", "..", "a/b.zpk", "../x", "a b", "a%20b", "x?y", "x#y", "http://other/x", "a:b"})
        EXPECT_FALSE(isPlainLink(link)) << link;
    EXPECT_EQ(plainLinkPrefix("not a url"), "");
}

}  // namespace
}  // namespace quor
