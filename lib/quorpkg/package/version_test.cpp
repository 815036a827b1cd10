// Version order and constraints.
#include "quorpkg/package/version.h"

#include <gtest/gtest.h>

#include <iterator>

namespace quor {
namespace {

TEST(PackageVersion, OrdersVersions) {
    // Each is older than the next.
    const char* ordered[] = {"0",         "1.0~~",      "1.0~beta1", "1.0~beta2", "1.0",
                             "1.0-0001",  "1.0.0",      "1.0a",      "1.2-0003",  "1.2-0010",
                             "1.10-0001", "1.10-0001a", "2",         "10",        "10.0"};
    for (size_t i = 0; i < std::size(ordered); ++i) {
        EXPECT_EQ(compareVersions(ordered[i], ordered[i]), 0) << ordered[i];
        for (size_t j = i + 1; j < std::size(ordered); ++j) {
            EXPECT_LT(compareVersions(ordered[i], ordered[j]), 0)
                << ordered[i] << " " << ordered[j];
            EXPECT_GT(compareVersions(ordered[j], ordered[i]), 0)
                << ordered[j] << " " << ordered[i];
        }
    }
    EXPECT_EQ(compareVersions("1.02", "1.2"), 0);  // numbers, not text
    EXPECT_LT(compareVersions("1.99999999999999999999", "1.100000000000000000000"), 0);

    EXPECT_TRUE(versionSatisfies("1.2", "", ""));
    EXPECT_TRUE(versionSatisfies("1.2", ">=", "1.2"));
    EXPECT_FALSE(versionSatisfies("1.2", ">", "1.2"));
    EXPECT_TRUE(versionSatisfies("1.10", ">", "1.9"));
    EXPECT_TRUE(versionSatisfies("1.0~rc1", "<", "1.0"));
    EXPECT_TRUE(versionSatisfies("1.0", "<=", "1.0"));
    EXPECT_TRUE(versionSatisfies("1.00", "=", "1.0"));
    EXPECT_FALSE(versionSatisfies("1.0", "!=", "2.0"));  // unknown operator
}

}  // namespace
}  // namespace quor
