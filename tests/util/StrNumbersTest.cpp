// Number parsers. The accept set of the integer forms is strtol(3)'s with every
// byte consumed, so glibc itself is the oracle.

#include <gtest/gtest.h>

#include <cerrno>
#include <climits>
#include <cmath>
#include <cstdlib>
#include <random>
#include <string>
#include <tuple>
#include <vector>

#include "util/Str.h"

namespace {

// What glibc says, under the parsers' rules: every byte consumed, no zero
// byte, no overflow, and for the unsigned forms no minus sign to wrap around.
template <class T>
bool oracle(const std::string& s, int base, T* v) {
    const size_t i = s.find_first_not_of(" \t\n\v\f\r");
    if (std::is_unsigned_v<T> && i != std::string::npos && s[i] == '-') return false;
    errno = 0;
    char* end = nullptr;
    *v = std::is_unsigned_v<T> ? strtoull(s.c_str(), &end, base) : strtoll(s.c_str(), &end, base);
    return end != s.c_str() && end == s.c_str() + s.size() && errno != ERANGE &&
           s.find('\0') == std::string::npos;
}

std::vector<std::string> generatedNumbers() {
    std::vector<std::string> out = {std::string("1\0", 2), std::string(62, '0') + "1",
                                    std::string(63, '0') + "1", std::string(64, '0') + "1",
                                    std::string(70, ' ') + "5"};
    for (const char* s :
         {"",    " ",   "-",   "+",   "0",   "-0",       "+0",          "00",   "1",
          " 12", "12 ", "- 5", "+-1", "-+1", "--1",      "0x",          "0x1F", "0X1f",
          "017", "08",  "1e5", "1.0", " -1", "\xa0\x31", "\t\n\v\f\r7", "\t-0"}) {
        out.push_back(s);
    }
    for (const char* s : {"9223372036854775807", "9223372036854775808", "-9223372036854775808",
                          "-9223372036854775809", "18446744073709551615", "+18446744073709551615",
                          "18446744073709551616", "99999999999999999999999", "2147483647",
                          "2147483648", "-2147483648", "-2147483649", "4294967295", "4294967296"}) {
        out.push_back(s);
    }
    // Random strings over the characters that matter, long enough to pass the
    // 64-byte scratch size of the C library path now and then.
    const std::string alphabet = "0123456789 +-\txXaAfF";
    std::mt19937 rng(17);
    for (int i = 0; i < 20000; ++i) {
        std::string s(rng() % 8 == 0 ? 60 + rng() % 10 : rng() % 24, ' ');
        // Mostly digits, so that many are valid.
        for (char& c : s) {
            c = rng() % 3 ? static_cast<char>('0' + rng() % 10) : alphabet[rng() % alphabet.size()];
        }
        out.push_back(s);
    }
    return out;
}

// One parser over every generated number in each base: its verdict is the
// oracle's within [lo, hi], and a failed parse leaves the output alone; the
// wide to-form gives its default where the oracle refuses.
template <class Wide, class T>
void expectOracle(bool (*parse)(const char*, size_t, T*, int), Wide lo, Wide hi,
                  std::initializer_list<int> bases) {
    for (int base : bases) {
        for (const std::string& s : generatedNumbers()) {
            Wide expect;
            const bool wideOk = oracle(s, base, &expect),
                       ok = wideOk && expect >= lo && expect <= hi;
            T got = 12345;
            ASSERT_EQ(parse(s.data(), s.size(), &got, base), ok) << "'" << s << "' base " << base;
            ASSERT_EQ(got, ok ? expect : 12345) << "'" << s << "' base " << base;
            const Wide dflt = std::is_signed_v<Wide> ? Wide(-7) : Wide(9);
            const Wide to = std::is_signed_v<Wide>
                                ? mem_toLongLong(s.data(), s.size(), dflt, base)
                                : mem_toUnsignedLongLong(s.data(), s.size(), dflt, base);
            ASSERT_EQ(to, wideOk ? expect : dflt) << s;
        }
    }
}

TEST(MemNumbers, SignedAcceptSetIsStrtollsInEveryBase) {
    expectOracle<long long>(mem_tryToLong, LLONG_MIN, LLONG_MAX, {10, 0, 16, 8});
    expectOracle<long long>(mem_tryToInt, INT_MIN, INT_MAX, {10, 0, 16, 8});
}

TEST(MemNumbers, UnsignedAcceptSetIsStrtoullsWithoutWrapAround) {
    expectOracle<unsigned long long>(mem_tryToUnsignedLong, 0, ULLONG_MAX, {10, 0, 16});
    expectOracle<unsigned long long>(mem_tryToUnsigned, 0, 0xFFFFFFFF, {10, 0, 16});
    expectOracle<unsigned long long>(mem_tryToSizet, 0, ULLONG_MAX, {10, 0, 16});
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

// The other to-forms forward to their try-forms in one line each.
TEST(MemNumbers, DefaultsOfTheToForms) {
    EXPECT_EQ(mem_toDouble("2.5x", 3, -1), 2.5) << "only the given bytes are read";
    EXPECT_FALSE(mem_tryToDouble(nullptr, 0, nullptr));
    EXPECT_TRUE(mem_toBool("", 0, true, false)) << "the empty default";
    EXPECT_FALSE(mem_toBool("maybe", 5, true, false)) << "the invalid default";
    EXPECT_TRUE(mem_toBool("maybe", 5, false, true));
    EXPECT_FALSE(mem_toBool("no", 2, true, true));
}

// The double parser is strict on purpose; these pin its accept set.
TEST(MemNumbers, DoubleAcceptSetIsPinned) {
    const std::tuple<const char*, bool, double> cases[] = {
        {"1.5", true, 1.5}, {"-0", true, -0.0}, {"+2", true, 2},        {".5", true, 0.5},
        {"5.", true, 5},    {"1e5", true, 1e5}, {"1E-3", true, 1e-3},   {"1e-400", true, 0},
        {"0.1", true, 0.1}, {"", false, 0},     {" 1", false, 0},       {"1 ", false, 0},
        {"1e", false, 0},   {"e5", false, 0},   {"1e400", false, 0},    {"-1e400", false, 0},
        {"0x10", false, 0}, {"inf", false, 0},  {"Infinity", false, 0}, {"NaN", false, 0},
        {"nan", false, 0},  {"1,5", false, 0},  {".", false, 0},        {"--1", false, 0},
    };
    for (const auto& [text, ok, value] : cases) {
        double d = 777;
        ASSERT_EQ(mem_tryToDouble(text, strlen(text), &d), ok) << "'" << text << "'";
        EXPECT_EQ(d, ok ? value : 777) << text;
        EXPECT_EQ(std::signbit(d), std::signbit(value)) << text;
    }
}

TEST(MemNumbers, Booleans) {
    const std::pair<std::vector<const char*>, bool> valid[] = {
        {{"1", "t", "T", "true", "TRUE", "True", "yes", "Yes", "YES"}, true},
        {{"0", "f", "F", "false", "FALSE", "no", "No", "NO"}, false}};
    for (const auto& [texts, want] : valid) {
        for (const char* s : texts) {
            bool b = !want;
            ASSERT_TRUE(mem_tryToBool(s, strlen(s), &b)) << s;
            EXPECT_EQ(b, want) << s;
        }
    }
    const char* bad[] = {"", "00", "01", "1 ", " 1", "y", "n", "ye", "tru", "truex", "on", "off"};
    for (const char* s : bad) {
        bool b = true;
        EXPECT_FALSE(mem_tryToBool(s, strlen(s), &b)) << "'" << s << "'";
        EXPECT_TRUE(b);
    }
}

}  // namespace
