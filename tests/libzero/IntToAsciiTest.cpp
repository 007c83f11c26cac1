#include "libzero/int-to-ascii.h"

#include <gtest/gtest.h>

#include <charconv>
#include <cstring>
#include <limits>
#include <random>
#include <string>
#include <vector>

namespace {

template <class T>
std::string reference(T v) {
    char buf[32];
    auto r = std::to_chars(buf, buf + sizeof buf, v);
    return std::string(buf, r.ptr);
}

// Every power of ten, its neighbours, and the type limits: where digit counts change.
template <class T>
std::vector<T> boundaryValues() {
    std::vector<T> values = {0, 1, std::numeric_limits<T>::max(), std::numeric_limits<T>::min()};
    for (T p = 1;; p *= 10) {
        values.push_back(p - 1);
        values.push_back(p);
        values.push_back(p + 1);
        if constexpr (std::is_signed_v<T>) {
            values.push_back(-p);
            values.push_back(-p + 1);
            values.push_back(-p - 1);
        }
        if (p > std::numeric_limits<T>::max() / 10) break;
    }
    std::mt19937_64 rng(7);
    for (int i = 0; i < 2000; ++i) values.push_back(static_cast<T>(rng() >> (rng() % 64)));
    return values;
}

TEST(IntToAscii, AgreesWithToCharsAcrossDigitBoundaries) {
    char buf[32];
    for (uint64_t v : boundaryValues<uint64_t>()) {
        ASSERT_EQ(std::string(buf, convertU64ToAscii(v, buf)), reference(v));
        ASSERT_EQ(decimalCharactersU64(v), reference(v).size());
    }
    for (int64_t v : boundaryValues<int64_t>()) {
        ASSERT_EQ(std::string(buf, convertI64ToAscii(v, buf)), reference(v));
        ASSERT_EQ(decimalCharactersI64(v), reference(v).size());
    }
    for (uint32_t v : boundaryValues<uint32_t>()) {
        ASSERT_EQ(std::string(buf, convertU32ToAscii(v, buf)), reference(v));
        ASSERT_EQ(decimalCharactersU32(v), reference(v).size());
    }
    for (int32_t v : boundaryValues<int32_t>()) {
        ASSERT_EQ(std::string(buf, convertI32ToAscii(v, buf)), reference(v));
        ASSERT_EQ(decimalCharactersI32(v), reference(v).size());
    }
}

TEST(IntToAscii, SizeKnownWritesExactlyTheCountAndNoMore) {
    char buf[32];
    memset(buf, '#', sizeof buf);
    convertI64ToAsciiSizeKnown(std::numeric_limits<int64_t>::min(), buf, 20);
    EXPECT_EQ(std::string(buf, 21), "-9223372036854775808#");

    memset(buf, '#', sizeof buf);
    convertU32ToAsciiSizeKnown(4294967295u, buf, 10);
    EXPECT_EQ(std::string(buf, 11), "4294967295#");

    memset(buf, '#', sizeof buf);
    convertI32ToAsciiSizeKnown(-7, buf, 2);
    EXPECT_EQ(std::string(buf, 3), "-7#");

    memset(buf, '#', sizeof buf);
    convertU64ToAsciiSizeKnown(0, buf, 1);
    EXPECT_EQ(std::string(buf, 2), "0#");
}

}  // namespace
