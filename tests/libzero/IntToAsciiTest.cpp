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
        values.insert(values.end(), {T(p - 1), p, T(p + 1)});
        if constexpr (std::is_signed_v<T>)
            values.insert(values.end(), {T(-p), T(-p + 1), T(-p - 1)});
        if (p > std::numeric_limits<T>::max() / 10) break;
    }
    std::mt19937_64 rng(7);
    for (int i = 0; i < 2000; ++i) values.push_back(static_cast<T>(rng() >> (rng() % 64)));
    return values;
}

template <class T>
void agreesWithToChars(size_t (*convert)(T, char*), unsigned (*count)(T)) {
    char buf[32];
    for (T v : boundaryValues<T>()) {
        ASSERT_EQ(std::string(buf, convert(v, buf)), reference(v));
        ASSERT_EQ(count(v), reference(v).size());
    }
}

TEST(IntToAscii, AgreesWithToCharsAcrossDigitBoundaries) {
    agreesWithToChars<uint64_t>(convertU64ToAscii, decimalCharactersU64);
    agreesWithToChars<int64_t>(convertI64ToAscii, decimalCharactersI64);
    agreesWithToChars<uint32_t>(convertU32ToAscii, decimalCharactersU32);
    agreesWithToChars<int32_t>(convertI32ToAscii, decimalCharactersI32);
}

// Given the character count, the conversion writes exactly that many bytes.
TEST(IntToAscii, SizeKnownWritesExactlyTheCountAndNoMore) {
    char buf[32];
    auto written = [&](auto convert, auto v, unsigned count) {
        memset(buf, '#', sizeof buf);
        convert(v, buf, count);
        return std::string(buf, count + 1);
    };
    EXPECT_EQ(written(convertI64ToAsciiSizeKnown, std::numeric_limits<int64_t>::min(), 20),
              "-9223372036854775808#");
    EXPECT_EQ(written(convertU32ToAsciiSizeKnown, 4294967295u, 10), "4294967295#");
    EXPECT_EQ(written(convertI32ToAsciiSizeKnown, -7, 2), "-7#");
    EXPECT_EQ(written(convertU64ToAsciiSizeKnown, uint64_t{0}, 1), "0#");
}

}  // namespace
