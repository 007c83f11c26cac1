// Values to text and back: the basic types, byte sizes, Base64, the hex dump,
// environment variables.

#include "util/BasicConversions.h"

#include <gtest/gtest.h>

#include <climits>
#include <cmath>
#include <cstdlib>
#include <random>
#include <tuple>

#include "support/TestSupport.h"
#include "util/StrVector.h"

namespace {

TEST(Stringify, BasicTypesAndShortestFixedPointDoubles) {
    const std::pair<Str, const char*> cases[] = {
        {Str::from(true) + Str::from(false), "10"},
        {Str::from('x'), "x"},
        {Str::from(static_cast<signed char>(-5)), "-5"},
        {Str::from(static_cast<unsigned char>(200)), "200"},
        {Str::from(LLONG_MIN), "-9223372036854775808"},
        {Str::from(ULLONG_MAX), "18446744073709551615"},
        {Str::from(static_cast<const char*>(nullptr)), "(null)"},
        {Str::from(static_cast<const void*>(nullptr)), "(nil)"},
    };
    for (const auto& [got, want] : cases) EXPECT_EQ(got, want);
    // Doubles: shortest, never with an exponent.
    const std::pair<double, const char*> doubles[] = {
        {0.1, "0.1"},        {1e21, "1000000000000000000000"},
        {1e-7, "0.0000001"}, {-1.5, "-1.5"},
        {0.0, "0"},          {-0.0, "-0"},
        {123.0, "123"},      {NAN, "NaN"},
        {-NAN, "-NaN"},      {-INFINITY, "-Infinity"},
    };
    for (const auto& [v, want] : doubles) EXPECT_EQ(Str::from(v), want);
    // Every finite double reads back to itself.
    std::mt19937_64 rng(8);
    for (int i = 0; i < 20000; ++i) {
        const uint64_t bits = rng();
        double v;
        memcpy(&v, &bits, 8);
        if (!std::isfinite(v)) continue;
        const Str s = Str::from(v);
        ASSERT_EQ(strtod(s.c_str(), nullptr), v) << s;
    }
}

// What mem_parse_into makes of a text for a T: its value, or "-" when it
// refuses the text and leaves the target alone.
template <class T>
std::string parsed(const char* text) {
    T v = static_cast<T>(77);
    if (!mem_parse_into(text, text ? strlen(text) : 0, &v)) {
        return v == static_cast<T>(77) ? "-" : "changed";
    }
    if constexpr (std::is_same_v<T, bool> || std::is_floating_point_v<T>) {
        return Str::from(v);
    } else {
        return std::to_string(v);
    }
}

// Not the strtol-based parsers: no "+", no base prefixes, blanks around.
TEST(ParseInto, EachTypeByItsOwnRules) {
    EXPECT_EQ(parsed<int>(" 42\t"), "42");
    EXPECT_EQ(parsed<int>("- 5"), "-5") << "blanks may follow the minus";
    EXPECT_EQ(parsed<int>("-0"), "0");
    for (const char* bad :
         {"+5", "4 2", "0x10", "", " ", "-", "5\n", "1e3", (const char*)nullptr}) {
        EXPECT_EQ(parsed<int>(bad), "-") << testing::PrintToString(bad);
    }
    EXPECT_EQ(parsed<unsigned>("-0"), "-") << "no minus for unsigned types";
    EXPECT_EQ(parsed<long long>("9223372036854775808"), "-");
    EXPECT_EQ(parsed<long long>("-9223372036854775808"), "-9223372036854775808");
    EXPECT_EQ(parsed<short>("32768"), "-");
    EXPECT_EQ(parsed<short>("-32768"), "-32768");
    EXPECT_EQ(parsed<unsigned short>("65536"), "-");
    EXPECT_EQ(parsed<unsigned long long>("18446744073709551615"), "18446744073709551615");
    EXPECT_EQ(parsed<unsigned long long>("18446744073709551616"), "-");
    // bool is mem_tryToBool's accept set (StrNumbersTest) but for null.
    EXPECT_EQ(parsed<bool>("YeS"), "1");
    EXPECT_EQ(parsed<bool>(nullptr), "-");
    for (const char* bad : {"Infinity", "1e999", "1.5 "})
        EXPECT_EQ(parsed<double>(bad), "-") << bad;
    EXPECT_EQ(parsed<double>("-2.5e3"), "-2500");
}

// What set_integer_from_distinct_double leaves in a T: the value, or "-"
// when it refuses.
template <class T>
std::string fromDouble(double v) {
    T t = 0;
    return set_integer_from_distinct_double(&t, v) ? std::to_string(t) : "-";
}

TEST(IntegerFromDouble, OnlyDistinctIntegralValues) {
    EXPECT_EQ(fromDouble<int>(2147483647.0), "2147483647");
    EXPECT_EQ(fromDouble<int>(-2147483648.0), "-2147483648");
    for (double v : {2147483647.4, 2147483648.0, double(NAN), double(INFINITY)}) {
        EXPECT_EQ(fromDouble<int>(v), "-") << v << " is not an int";
    }
    EXPECT_EQ(fromDouble<short>(32768.0), "-");
    EXPECT_EQ(fromDouble<short>(-32768.0), "-32768");
    EXPECT_EQ(fromDouble<unsigned>(4294967295.0), "4294967295");
    EXPECT_EQ(fromDouble<unsigned>(-1.0), "-");
    EXPECT_EQ(fromDouble<unsigned short>(65536.0), "-");
    // 64-bit targets stop at 2^53, below on purpose by 2 more.
    EXPECT_EQ(fromDouble<long>(9007199254740992.0), "-");
    EXPECT_EQ(fromDouble<long>(9007199254740991.0), "9007199254740991");
    EXPECT_EQ(fromDouble<long>(-9007199254740992.0), "-9007199254740992");
    EXPECT_EQ(fromDouble<long>(-9007199254740994.0), "-");
    EXPECT_EQ(fromDouble<long long>(1.5), "-");
    EXPECT_EQ(fromDouble<unsigned long>(9007199254740992.0), "-");
    EXPECT_EQ(fromDouble<unsigned long>(-0.0), "0");
    EXPECT_EQ(fromDouble<unsigned long long>(-1.0), "-");
}

TEST(ByteSizes, UnitsAndThresholds) {
    // Text, decimal units or not, and the bytes (0: refused).
    const std::tuple<const char*, bool, unsigned long> cases[] = {
        {"2kb", false, 2048},         {"2kb", true, 2000},
        {"2 KiB", true, 2048},        {"3 MB ", false, 3u << 20},
        {"1TB", true, 1000000000000}, {"4096", true, 4096},
        {"2 kilobytes", false, 0},    {"kb", false, 0},
        {" 2kb", false, 0},  // the number must come first
    };
    for (const auto& [text, decimal, want] : cases) {
        unsigned long n = 0;
        EXPECT_EQ(parse_sizeBytes_string(Str(text), n, decimal), want != 0) << text;
        EXPECT_EQ(want ? n : 0, want) << text;
    }
    ByteSizeWithUnits size;
    ASSERT_TRUE(mem_parse_into("8kb", 3, &size));
    EXPECT_EQ(size.bytes, 8192u);
    EXPECT_EQ(Str::from(size), "8192");

    const std::pair<unsigned long, const char*> verbose[] = {
        {1024, "1024"},
        {1025, "1025 (0.0MB)"},
        {(1ul << 20) - 1, "1048575 (1.0MB)"},
        {1ul << 20, "1048576 (1MB)"},
        {(1ul << 30) - 1, "1073741823 (1023MB)"},
        {5ul << 30, "5368709120 (5120MB,5GB)"},
    };
    for (const auto& [bytes, want] : verbose)
        EXPECT_EQ(Str::from(sizeBytes_to_verbose{bytes}), want);
}

// Round trips of arbitrary bytes are fuzz/conversions.cpp's.
TEST(Base64, KnownVectorsAndTheDecodingRules) {
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
    const std::pair<const char*, const char*> cases[] = {
        {"QQ==", "A"},
        {"QQ", "A"},  // a group cut short keeps its complete bytes
        {"QUI", "AB"},
        // Refused, and the target is left as it was.
        {"QQ=A", nullptr},  // only padding after padding
        {"Q===", nullptr},  // padding only third or fourth
        {"QQ==QQ==", nullptr},
        {"Zm9v Yg==", nullptr},  // no white space skipped
        {"Zm9v*", nullptr},
    };
    for (const auto& [text, want] : cases) {
        Str d("keep");
        EXPECT_EQ(Base64::decode(d, text, strlen(text)), want != nullptr) << text;
        EXPECT_EQ(d, std::string("keep") + (want ? want : "")) << text;
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

    // A failing line ends the dump quietly.
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
    EXPECT_EQ(EnvironmentVariable("TARVEX_TEST_VAR").parseBool(), EnvironmentVariable::BOOL_UNSET);
    const std::pair<const char*, EnvironmentVariable::ParsedBool> cases[] = {
        {"", EnvironmentVariable::BOOL_UNSET},   {"0", EnvironmentVariable::BOOL_FALSE},
        {"No", EnvironmentVariable::BOOL_FALSE}, {"f", EnvironmentVariable::BOOL_FALSE},
        {"Y", EnvironmentVariable::BOOL_TRUE},   {"2", EnvironmentVariable::BOOL_INVALID},
        {"x", EnvironmentVariable::BOOL_INVALID}};
    for (const auto& [value, want] : cases) {
        setenv("TARVEX_TEST_VAR", value, 1);
        EXPECT_EQ(EnvironmentVariable("TARVEX_TEST_VAR").parseBool(), want) << value;
    }
    unsetenv("TARVEX_TEST_VAR");

    const char* block[] = {"A=1", "B=two", nullptr};
    EnvironmentVariable::setGlobalCache(block);
    const char* const* cache = EnvironmentVariable::getGlobalCache();
    ASSERT_NE(cache, nullptr);
    EXPECT_NE(cache, block) << "a copy";
    EXPECT_STREQ(cache[1], "B=two");
    EXPECT_EQ(cache[2], nullptr);
}

}  // namespace
