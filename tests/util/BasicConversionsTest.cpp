// Values to text and back: the basic types, byte sizes, Base64, the hex dump,
// environment variables.

#include "util/BasicConversions.h"

#include <gtest/gtest.h>

#include <climits>
#include <cmath>
#include <cstdlib>
#include <random>

#include "support/TestSupport.h"
#include "util/StrVector.h"

namespace {

TEST(Stringify, BasicTypes) {
    EXPECT_EQ(Str::from(true) + Str::from(false), "10");
    EXPECT_EQ(Str::from('x'), "x");
    EXPECT_EQ(Str::from(static_cast<signed char>(-5)), "-5");
    EXPECT_EQ(Str::from(static_cast<unsigned char>(200)), "200");
    EXPECT_EQ(Str::from(LLONG_MIN), "-9223372036854775808");
    EXPECT_EQ(Str::from(ULLONG_MAX), "18446744073709551615");
    EXPECT_EQ(Str::from(static_cast<const char*>(nullptr)), "(null)");
    EXPECT_EQ(Str::from(StrSegment("seg")), "seg");
    EXPECT_EQ(Str::from(std::string("std")), "std");
    EXPECT_EQ(Str::from(Str("str")), "str");
    EXPECT_EQ(Str::from(static_cast<const void*>(nullptr)), "(nil)");
}

TEST(Stringify, DoublesAreShortestAndFixedPoint) {
    EXPECT_EQ(Str::from(0.1), "0.1");
    EXPECT_EQ(Str::from(1e21), "1000000000000000000000") << "never an exponent";
    EXPECT_EQ(Str::from(1e-7), "0.0000001");
    EXPECT_EQ(Str::from(-1.5), "-1.5");
    EXPECT_EQ(Str::from(0.0), "0");
    EXPECT_EQ(Str::from(-0.0), "-0");
    EXPECT_EQ(Str::from(123.0), "123");
    EXPECT_EQ(Str::from(NAN), "NaN");
    EXPECT_EQ(Str::from(-NAN), "-NaN");
    EXPECT_EQ(Str::from(-INFINITY), "-Infinity");
    // Every finite double reads back to itself.
    std::mt19937_64 rng(8);
    for (int i = 0; i < 20000; ++i) {
        uint64_t bits = rng();
        double v;
        memcpy(&v, &bits, 8);
        if (!std::isfinite(v)) continue;
        const Str s = Str::from(v);
        ASSERT_EQ(strtod(s.c_str(), nullptr), v) << s;
    }
}

TEST(ParseInto, IntegersByTheirOwnRules) {
    int i = 77;
    EXPECT_TRUE(mem_parse_into(" 42\t", 4, &i));
    EXPECT_EQ(i, 42);
    EXPECT_TRUE(mem_parse_into("- 5", 3, &i)) << "blanks may follow the minus";
    EXPECT_EQ(i, -5);
    EXPECT_TRUE(mem_parse_into("-0", 2, &i));
    EXPECT_EQ(i, 0);
    for (const char* bad : {"+5", "4 2", "0x10", "", " ", "-", "5\n", "1e3"}) {
        i = 77;
        EXPECT_FALSE(mem_parse_into(bad, strlen(bad), &i)) << "'" << bad << "'";
        EXPECT_EQ(i, 77);
    }
    EXPECT_FALSE(mem_parse_into(nullptr, 0, &i));
    unsigned u;
    EXPECT_FALSE(mem_parse_into("-0", 2, &u)) << "no minus for unsigned types";
    long long ll;
    EXPECT_FALSE(mem_parse_into("9223372036854775808", 19, &ll));
    ASSERT_TRUE(mem_parse_into("-9223372036854775808", 20, &ll));
    EXPECT_EQ(ll, LLONG_MIN);
    short s;
    EXPECT_FALSE(mem_parse_into("32768", 5, &s));
    ASSERT_TRUE(mem_parse_into("-32768", 6, &s));
    EXPECT_EQ(s, SHRT_MIN);
    unsigned short us;
    EXPECT_FALSE(mem_parse_into("65536", 5, &us));
    unsigned long long ull;
    ASSERT_TRUE(mem_parse_into("18446744073709551615", 20, &ull));
    EXPECT_EQ(ull, ULLONG_MAX);
    EXPECT_FALSE(mem_parse_into("18446744073709551616", 20, &ull));

    // Not the strtol-based parsers: those take "+5" and base prefixes.
    long l;
    EXPECT_TRUE(mem_tryToLong("+5", 2, &l));
    EXPECT_TRUE(mem_tryToLong("0x10", 4, &l, 0));
    EXPECT_FALSE(mem_tryToLong(" 42\t", 4, &l));
}

TEST(ParseInto, BooleansDoublesAndStrings) {
    bool b = false;
    for (const char* t : {"1", "t", "T", "true", "TRUE", "yes", "YeS"}) {
        b = false;
        EXPECT_TRUE(mem_parse_into(t, strlen(t), &b) && b) << t;
    }
    for (const char* bad : {"y", "n", "", "on", "2"})
        EXPECT_FALSE(mem_parse_into(bad, strlen(bad), &b)) << bad;
    EXPECT_FALSE(mem_parse_into(nullptr, 0, &b));
    double d = 3;
    EXPECT_FALSE(mem_parse_into("Infinity", 8, &d));
    EXPECT_FALSE(mem_parse_into("1e999", 5, &d)) << "overflow to infinity is refused";
    EXPECT_FALSE(mem_parse_into("1.5 ", 4, &d));
    ASSERT_TRUE(mem_parse_into("-2.5e3", 6, &d));
    EXPECT_EQ(d, -2500);
}

TEST(IntegerFromDouble, OnlyDistinctIntegralValues) {
    int i = 0;
    EXPECT_FALSE(set_integer_from_distinct_double(&i, 2147483647.4)) << "not integral";
    EXPECT_TRUE(set_integer_from_distinct_double(&i, 2147483647.0));
    EXPECT_EQ(i, INT_MAX);
    EXPECT_TRUE(set_integer_from_distinct_double(&i, -2147483648.0));
    EXPECT_FALSE(set_integer_from_distinct_double(&i, 2147483648.0));
    EXPECT_FALSE(set_integer_from_distinct_double(&i, NAN));
    EXPECT_FALSE(set_integer_from_distinct_double(&i, INFINITY));
    short s;
    EXPECT_FALSE(set_integer_from_distinct_double(&s, 32768.0));
    EXPECT_TRUE(set_integer_from_distinct_double(&s, -32768.0));
    unsigned u;
    EXPECT_TRUE(set_integer_from_distinct_double(&u, 4294967295.0));
    EXPECT_FALSE(set_integer_from_distinct_double(&u, -1.0));
    unsigned short us;
    EXPECT_FALSE(set_integer_from_distinct_double(&us, 65536.0));

    // 64-bit targets stop at 2^53, below on purpose by 2 more.
    long l = 0;
    EXPECT_FALSE(set_integer_from_distinct_double(&l, 9007199254740992.0));
    EXPECT_TRUE(set_integer_from_distinct_double(&l, 9007199254740991.0));
    EXPECT_TRUE(set_integer_from_distinct_double(&l, -9007199254740992.0));
    EXPECT_EQ(l, -9007199254740992);
    EXPECT_FALSE(set_integer_from_distinct_double(&l, -9007199254740994.0));
    long long ll;
    EXPECT_FALSE(set_integer_from_distinct_double(&ll, 1.5));
    unsigned long ul;
    EXPECT_FALSE(set_integer_from_distinct_double(&ul, 9007199254740992.0));
    EXPECT_TRUE(set_integer_from_distinct_double(&ul, -0.0));
    EXPECT_EQ(ul, 0u);
    unsigned long long ull;
    EXPECT_FALSE(set_integer_from_distinct_double(&ull, -1.0));
}

TEST(ByteSizes, UnitsAndThresholds) {
    unsigned long n = 0;
    auto parse = [&](const char* t, bool decimal) {
        return parse_sizeBytes_string(Str(t), n, decimal);
    };
    EXPECT_TRUE(parse("2kb", false));
    EXPECT_EQ(n, 2048u);
    EXPECT_TRUE(parse("2kb", true));
    EXPECT_EQ(n, 2000u);
    EXPECT_TRUE(parse("2 KiB", true));
    EXPECT_EQ(n, 2048u);
    EXPECT_TRUE(parse("3 MB ", false));
    EXPECT_EQ(n, 3u << 20);
    EXPECT_TRUE(parse("1TB", true));
    EXPECT_EQ(n, 1000000000000u);
    EXPECT_TRUE(parse("4096", true));
    EXPECT_EQ(n, 4096u);
    EXPECT_FALSE(parse("2 kilobytes", false));
    EXPECT_FALSE(parse("kb", false));
    EXPECT_FALSE(parse(" 2kb", false)) << "the number must come first";
    ByteSizeWithUnits size;
    ASSERT_TRUE(mem_parse_into("8kb", 3, &size));
    EXPECT_EQ(size.bytes, 8192u);
    EXPECT_EQ(Str::from(size), "8192");

    auto verbose = [](unsigned long bytes) { return Str::from(sizeBytes_to_verbose{bytes}); };
    EXPECT_EQ(verbose(1024), "1024");
    EXPECT_EQ(verbose(1025), "1025 (0.0MB)");
    EXPECT_EQ(verbose((1ul << 20) - 1), "1048575 (1.0MB)");
    EXPECT_EQ(verbose(1ul << 20), "1048576 (1MB)");
    EXPECT_EQ(verbose((1ul << 30) - 1), "1073741823 (1023MB)");
    EXPECT_EQ(verbose(5ul << 30), "5368709120 (5120MB,5GB)");
}

TEST(Base64, Rfc4648VectorsBothWays) {
    const char* plain[] = {"", "f", "fo", "foo", "foob", "fooba", "foobar"};
    const char* encoded[] = {"", "Zg==", "Zm8=", "Zm9v", "Zm9vYg==", "Zm9vYmE=", "Zm9vYmFy"};
    for (size_t i = 0; i < std::size(plain); ++i) {
        Str e;
        Base64::encode(e, plain[i], strlen(plain[i]));
        EXPECT_EQ(e, encoded[i]);
        Str d("<");
        ASSERT_TRUE(Base64::decode(d, encoded[i], strlen(encoded[i])));
        EXPECT_EQ(d, std::string("<") + plain[i]) << "decode appends";
    }
}

TEST(Base64, DecodingRules) {
    auto decode = [](const char* t, Str* out) { return Base64::decode(*out, t, strlen(t)); };
    Str d;
    EXPECT_TRUE(decode("QQ==", &d));
    EXPECT_EQ(d, "A");
    d.clear();
    EXPECT_TRUE(decode("QQ", &d)) << "a group cut short keeps its complete bytes";
    EXPECT_EQ(d, "A");
    d.clear();
    EXPECT_TRUE(decode("QUI", &d));
    EXPECT_EQ(d, "AB");
    d = "keep";
    EXPECT_FALSE(decode("QQ=A", &d)) << "only padding after padding";
    EXPECT_EQ(d, "keep") << "and the target is left as it was";
    EXPECT_FALSE(decode("Q===", &d)) << "padding only third or fourth";
    EXPECT_FALSE(decode("QQ==QQ==", &d));
    EXPECT_FALSE(decode("Zm9v Yg==", &d)) << "no white space skipped";
    EXPECT_FALSE(decode("Zm9v*", &d));
    // Every byte value, at every length, round-trips.
    std::mt19937 rng(6);
    for (size_t n = 0; n < 200; ++n) {
        std::string raw(n, '\0');
        for (char& c : raw) c = static_cast<char>(rng());
        Str enc, dec;
        Base64::encode(enc, raw.data(), raw.size());
        ASSERT_TRUE(Base64::decode(dec, enc.data(), enc.size()));
        ASSERT_EQ(dec, raw);
    }
}

TEST(HexDump, MatchesHexdumpCanonical) {
    testsupport::ScratchDir dir;
    std::mt19937 rng(10);
    for (size_t n : {1, 15, 16, 17, 33, 256, 1000}) {
        std::string raw(n, '\0');
        for (char& c : raw) c = static_cast<char>(rng() % 3 ? 'a' + rng() % 26 : rng());
        const std::string file = dir / ("dump" + std::to_string(n));
        testsupport::writeFile(file, raw);
        const auto r = testsupport::runProcess({"/usr/bin/hexdump", "-C", "-v", file});
        ASSERT_EQ(r.exitStatus, 0) << "hexdump must be installed";
        Str ours;
        HexDumper::dumpTo(&ours, raw.data(), raw.size());
        EXPECT_EQ(ours, r.out) << n << " bytes";
    }
    Str empty;
    HexDumper::dumpTo(&empty, "", 0);
    EXPECT_EQ(empty, "00000000\n") << "where hexdump prints nothing";

    StrVector lines;
    HexDumper::dumpTo(&lines, "0123456789abcdefXY", 18);
    ASSERT_EQ(lines.size(), 3u);
    EXPECT_EQ(lines[1], "00000010  58 59                                             |XY|");
    EXPECT_EQ(lines[2], "00000012");
}

TEST(HexDump, AFailingLineEndsTheDumpQuietly) {
    struct Throwing : HexDumper {
        int lines = 0;
        void accept_line(const char*, size_t) override {
            if (++lines == 2) throw std::runtime_error("disk full");
        }
    } t;
    t.do_dump("0123456789abcdef0123456789abcdef!", 33);
    EXPECT_EQ(t.lines, 2);
}

TEST(Environment, ValuesBooleansAndTheCache) {
    setenv("TARVEX_TEST_VAR", "yes please", 1);
    EnvironmentVariable v("TARVEX_TEST_VAR");
    EXPECT_TRUE(v.isSet());
    EXPECT_EQ(Str::from(v), "yes please");
    EXPECT_EQ(v.parseBool(), EnvironmentVariable::BOOL_TRUE) << "by the first character";
    EXPECT_EQ(Str::from(EnvironmentVariable::describe{"TARVEX_TEST_VAR"}), "$TARVEX_TEST_VAR");
    unsetenv("TARVEX_TEST_VAR");
    EXPECT_EQ(Str::from(EnvironmentVariable("TARVEX_TEST_VAR")), "");
    const struct {
        const char* value;
        EnvironmentVariable::ParsedBool expect;
    } cases[] = {{"", EnvironmentVariable::BOOL_UNSET},   {"0", EnvironmentVariable::BOOL_FALSE},
                 {"No", EnvironmentVariable::BOOL_FALSE}, {"f", EnvironmentVariable::BOOL_FALSE},
                 {"Y", EnvironmentVariable::BOOL_TRUE},   {"2", EnvironmentVariable::BOOL_INVALID},
                 {"x", EnvironmentVariable::BOOL_INVALID}};
    for (const auto& c : cases) {
        setenv("TARVEX_TEST_VAR", c.value, 1);
        EXPECT_EQ(EnvironmentVariable("TARVEX_TEST_VAR").parseBool(), c.expect) << c.value;
    }
    EXPECT_EQ(EnvironmentVariable("TARVEX_NOT_SET_ANYWHERE").parseBool(),
              EnvironmentVariable::BOOL_UNSET);

    const char* block[] = {"A=1", "B=two", nullptr};
    EnvironmentVariable::setGlobalCache(block);
    const char* const* cache = EnvironmentVariable::getGlobalCache();
    ASSERT_NE(cache, nullptr);
    EXPECT_NE(cache, block) << "a copy";
    EXPECT_STREQ(cache[1], "B=two");
    EXPECT_EQ(cache[2], nullptr);
}

}  // namespace
