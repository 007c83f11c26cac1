// Number parsers. The accept set of the integer forms is strtol(3)'s with every
// byte consumed, so glibc itself is the oracle.

#include <gtest/gtest.h>

#include <cerrno>
#include <climits>
#include <cmath>
#include <cstdlib>
#include <random>
#include <string>
#include <vector>

#include "util/Str.h"

namespace {

// What glibc says, under the parsers' rules.
bool oracleSigned(const std::string& s, int base, long long* v) {
    errno = 0;
    char* end = nullptr;
    *v = strtoll(s.c_str(), &end, base);
    return end != s.c_str() && end == s.c_str() + s.size() && errno != ERANGE &&
           s.find('\0') == std::string::npos;
}

bool oracleUnsigned(const std::string& s, int base, unsigned long long* v) {
    size_t i = s.find_first_not_of(" \t\n\v\f\r");
    if (i != std::string::npos && s[i] == '-') return false;  // never wrap around
    errno = 0;
    char* end = nullptr;
    *v = strtoull(s.c_str(), &end, base);
    return end != s.c_str() && end == s.c_str() + s.size() && errno != ERANGE &&
           s.find('\0') == std::string::npos;
}

std::vector<std::string> generatedNumbers() {
    std::vector<std::string> out = {"",
                                    " ",
                                    "-",
                                    "+",
                                    "0",
                                    "-0",
                                    "+0",
                                    "00",
                                    "1",
                                    " 12",
                                    "12 ",
                                    "\t\n\v\f\r7",
                                    "- 5",
                                    "+-1",
                                    "-+1",
                                    "--1",
                                    "0x",
                                    "0x1F",
                                    "0X1f",
                                    "017",
                                    "08",
                                    "1e5",
                                    "1.0",
                                    std::string("1\0", 2),
                                    "9223372036854775807",
                                    "9223372036854775808",
                                    "-9223372036854775808",
                                    "-9223372036854775809",
                                    "18446744073709551615",
                                    "18446744073709551616",
                                    "99999999999999999999999",
                                    "2147483647",
                                    "2147483648",
                                    "-2147483648",
                                    "-2147483649",
                                    "4294967295",
                                    "4294967296",
                                    " -1",
                                    "\xa0"
                                    "1",
                                    std::string(62, '0') + "1",
                                    std::string(63, '0') + "1",
                                    std::string(64, '0') + "1",
                                    std::string(70, ' ') + "5"};
    // Random strings over the characters that matter, long enough to pass the
    // 64-byte scratch size of the C library path now and then.
    const std::string alphabet = "0123456789 +-\txXaAfF";
    std::mt19937 rng(17);
    for (int i = 0; i < 20000; ++i) {
        std::string s;
        size_t len = rng() % 8 == 0 ? 60 + rng() % 10 : rng() % 24;
        for (size_t k = 0; k < len; ++k) {
            // Mostly digits, so that many are valid.
            s.push_back(rng() % 3 ? static_cast<char>('0' + rng() % 10)
                                  : alphabet[rng() % alphabet.size()]);
        }
        out.push_back(s);
    }
    return out;
}

TEST(MemNumbers, SignedAcceptSetIsStrtollsInEveryBase) {
    for (int base : {10, 0, 16, 8}) {
        for (const std::string& s : generatedNumbers()) {
            long long expect;
            const bool ok = oracleSigned(s, base, &expect);
            long got = 12345;
            ASSERT_EQ(mem_tryToLong(s.data(), s.size(), &got, base), ok)
                << "'" << s << "' base " << base;
            if (ok) {
                ASSERT_EQ(got, expect);
            } else {
                ASSERT_EQ(got, 12345) << "a failed parse leaves the output alone";
            }
            int i = 0;
            const bool intOk = ok && expect >= INT_MIN && expect <= INT_MAX;
            ASSERT_EQ(mem_tryToInt(s.data(), s.size(), &i, base), intOk) << s;
            if (intOk) {
                ASSERT_EQ(i, expect);
            }
            ASSERT_EQ(mem_toLongLong(s.data(), s.size(), -7, base), ok ? expect : -7);
        }
    }
}

TEST(MemNumbers, UnsignedAcceptSetIsStrtoullsWithoutWrapAround) {
    for (int base : {10, 0, 16}) {
        for (const std::string& s : generatedNumbers()) {
            unsigned long long expect;
            const bool ok = oracleUnsigned(s, base, &expect);
            unsigned long got = 0;
            ASSERT_EQ(mem_tryToUnsignedLong(s.data(), s.size(), &got, base), ok)
                << "'" << s << "' base " << base;
            if (ok) {
                ASSERT_EQ(got, expect);
            }
            unsigned u = 0;
            const bool uOk = ok && expect <= 0xFFFFFFFFu;
            ASSERT_EQ(mem_tryToUnsigned(s.data(), s.size(), &u, base), uOk) << s;
            if (uOk) {
                ASSERT_EQ(u, expect);
            }
            ASSERT_EQ(mem_toUnsignedLongLong(s.data(), s.size(), 9, base), ok ? expect : 9);
        }
    }
}

TEST(MemNumbers, ErrnoIsLeftAsTheCallerHadIt) {
    long v;
    errno = EINVAL;
    EXPECT_TRUE(mem_tryToLong("5", 1, &v));
    EXPECT_FALSE(mem_tryToLong("99999999999999999999", 20, &v));
    EXPECT_FALSE(mem_tryToLong("0x99999999999999999", 19, &v, 16)) << "the C library path";
    EXPECT_TRUE(mem_tryToLong("0x10", 4, &v, 0));
    EXPECT_FALSE(mem_tryToDouble("1e999", 5, reinterpret_cast<double*>(&v)));
    EXPECT_EQ(errno, EINVAL);
}

TEST(MemNumbers, NamedEdgeCases) {
    unsigned long ul;
    EXPECT_FALSE(mem_tryToUnsignedLong(" -1", 3, &ul));
    long l;
    EXPECT_FALSE(mem_tryToLong("12 ", 3, &l));
    ASSERT_TRUE(mem_tryToLong(" 12", 3, &l));
    EXPECT_EQ(l, 12);
    unsigned u;
    EXPECT_FALSE(mem_tryToUnsigned("4294967296", 10, &u));
    int i;
    EXPECT_FALSE(mem_tryToInt("2147483648", 10, &i));
    ASSERT_TRUE(mem_tryToInt("-2147483648", 11, &i));
    EXPECT_EQ(i, INT_MIN);
    size_t z;
    EXPECT_FALSE(mem_tryToSizet("\t-0", 3, &z));
    EXPECT_FALSE(mem_tryToSizet("-1", 2, &z, 16));
    ASSERT_TRUE(mem_tryToSizet("+18446744073709551615", 21, &z));
    EXPECT_EQ(z, SIZE_MAX);
    EXPECT_EQ(mem_toSizet("x", 1, 3), 3u);
    EXPECT_EQ(mem_toUnsigned("0x10", 4, 0, 0), 16u);
    EXPECT_EQ(mem_toInt("010", 3, 0, 0), 8);
    EXPECT_EQ(mem_toLong(nullptr, 0, 4), 4);
}

// The double parser is strict on purpose; these pin its accept set.
TEST(MemNumbers, DoubleAcceptSetIsPinned) {
    struct Case {
        const char* text;
        bool ok;
        double value;
    };
    const Case cases[] = {
        {"1.5", true, 1.5}, {"-0", true, -0.0}, {"+2", true, 2},        {".5", true, 0.5},
        {"5.", true, 5},    {"1e5", true, 1e5}, {"1E-3", true, 1e-3},   {"1e-400", true, 0},
        {"0.1", true, 0.1}, {"", false, 0},     {" 1", false, 0},       {"1 ", false, 0},
        {"1e", false, 0},   {"e5", false, 0},   {"1e400", false, 0},    {"-1e400", false, 0},
        {"0x10", false, 0}, {"inf", false, 0},  {"Infinity", false, 0}, {"NaN", false, 0},
        {"nan", false, 0},  {"1,5", false, 0},  {".", false, 0},        {"--1", false, 0},
    };
    for (const Case& c : cases) {
        double d = 777;
        ASSERT_EQ(mem_tryToDouble(c.text, strlen(c.text), &d), c.ok) << "'" << c.text << "'";
        if (c.ok) {
            EXPECT_EQ(d, c.value) << c.text;
            EXPECT_EQ(std::signbit(d), std::signbit(c.value)) << c.text;
        } else {
            EXPECT_EQ(d, 777) << c.text;
        }
    }
    EXPECT_EQ(mem_toDouble("2.5x", 4, -1), -1);
    EXPECT_EQ(mem_toDouble("2.5x", 3, -1), 2.5) << "only the given bytes are read";
    EXPECT_FALSE(mem_tryToDouble(nullptr, 0, nullptr));
}

TEST(MemNumbers, Booleans) {
    const char* yes[] = {"1", "t", "T", "true", "TRUE", "True", "yes", "Yes", "YES"};
    const char* no[] = {"0", "f", "F", "false", "FALSE", "no", "No", "NO"};
    const char* bad[] = {"", "00", "01", "1 ", " 1", "y", "n", "ye", "tru", "truex", "on", "off"};
    for (const char* s : yes) {
        bool b = false;
        ASSERT_TRUE(mem_tryToBool(s, strlen(s), &b)) << s;
        EXPECT_TRUE(b) << s;
    }
    for (const char* s : no) {
        bool b = true;
        ASSERT_TRUE(mem_tryToBool(s, strlen(s), &b)) << s;
        EXPECT_FALSE(b) << s;
    }
    for (const char* s : bad) {
        bool b = true;
        EXPECT_FALSE(mem_tryToBool(s, strlen(s), &b)) << "'" << s << "'";
        EXPECT_TRUE(b);
    }
    EXPECT_TRUE(mem_toBool("", 0, true, false)) << "the empty default";
    EXPECT_FALSE(mem_toBool("maybe", 5, true, false)) << "the invalid default";
    EXPECT_TRUE(mem_toBool("maybe", 5, false, true));
    EXPECT_FALSE(mem_toBool("no", 2, true, true));
}

}  // namespace
