// Time values: saturation at every end, the rounding of differences, and the
// text, parsed and serialised forms.

#include "util/Timeval.h"

#include <gtest/gtest.h>

#include <cmath>
#include <cstdio>
#include <sstream>

#include "support/TestSupport.h"
#include "util/CrashLog.h"

namespace {

constexpr int64_t kMax = INT64_MAX;
constexpr int64_t kMin = INT64_MIN;

std::string str(const Timeval& t) {
    Str s;
    append_stringified(&s, t);
    return s;
}

std::string unixTime(const Timeval& t, unsigned digits) {
    Str s;
    t._printAsUnixTime(&s, digits);
    return s;
}

using testsupport::crashText;

template <class T>
std::string text(const T& v) {
    Str s;
    append_stringified(&s, v);
    return s;
}

Timeval tv(int64_t s, long us) { return Timeval(s, us); }
MonotonicTime mt(int64_t s, long ns) { return MonotonicTime(s, ns); }

// ---------------------------------------------------------------- saturation

TEST(TimevalSaturation, AddingPastTheEndsStopsThere) {
    struct Case {
        Timeval start;
        void (*op)(Timeval&);
        Timeval expected;
    } cases[] = {
        {Timeval::max(), [](Timeval& t) { t += Interval(1); }, Timeval::max()},
        {Timeval::max(), [](Timeval& t) { t += Interval(0); }, Timeval::max()},
        {Timeval::max(), [](Timeval& t) { t.addUsec(1); }, Timeval::max()},
        {Timeval::max(), [](Timeval& t) { t.addSec(1); }, Timeval::max()},
        {tv(kMax, 0), [](Timeval& t) { t.addUsec(999999); }, Timeval::max()},
        {tv(kMax, 0), [](Timeval& t) { t.addUsec(1000000); }, Timeval::max()},
        {tv(kMax - 1, 999999), [](Timeval& t) { t.addUsec(1); }, tv(kMax, 0)},
        {tv(kMax - 1, 0), [](Timeval& t) { t.addSec(2); }, Timeval::max()},
        {tv(0, 0), [](Timeval& t) { t += Interval::unbounded(); }, Timeval::max()},
        {tv(0, 0), [](Timeval& t) { t.addUsec(~0ull); }, tv(18446744073709, 551615)},
        {tv(kMin, 0), [](Timeval& t) { t.addUsec(~0ull); }, tv(kMin + 18446744073709, 551615)},
        {tv(-1, 999999), [](Timeval& t) { t.addUsec(1); }, tv(0, 0)},
        {tv(kMax - 5, 999000), [](Timeval& t) { t += Interval(5001); }, Timeval::max()},
        {tv(kMax - 5, 998000), [](Timeval& t) { t += Interval(5001); }, tv(kMax, 999000)},

        {Timeval::min(), [](Timeval& t) { t -= Interval(1); }, Timeval::min()},
        {Timeval::min(), [](Timeval& t) { t.subtractUsec(1); }, Timeval::min()},
        {Timeval::min(), [](Timeval& t) { t.subtractSec(1); }, Timeval::min()},
        {tv(kMin, 5), [](Timeval& t) { t.subtractUsec(5); }, Timeval::min()},
        {tv(kMin, 5), [](Timeval& t) { t.subtractUsec(6); }, Timeval::min()},
        {tv(kMin + 1, 0), [](Timeval& t) { t.subtractUsec(1); }, tv(kMin, 999999)},
        {tv(kMin + 1, 0), [](Timeval& t) { t.subtractSec(1); }, tv(kMin, 0)},
        {tv(-1, 0), [](Timeval& t) { t.subtractUsec(9223372036854775807ull); },
         tv(-9223372036856, 224193)},
        {tv(0, 0), [](Timeval& t) { t -= Interval::unbounded(); }, Timeval::min()},
        {tv(0, 0), [](Timeval& t) { t.subtractUsec(1); }, tv(-1, 999999)},
        {tv(0, 500), [](Timeval& t) { t -= Interval(1); }, tv(-1, 999500)},
    };
    int i = 0;
    for (auto& c : cases) {
        Timeval t = c.start;
        c.op(t);
        EXPECT_EQ(t, c.expected) << "case " << i << ": got " << str(t);
        ++i;
    }
}

TEST(TimevalSaturation, MonotonicSaturatesExceptAddSec) {
    MonotonicTime t = MonotonicTime::max();
    t += Interval(1);
    EXPECT_TRUE(t.isMax());
    t += MonotonicTime::Ticks(1);
    EXPECT_TRUE(t.isMax());
    t = mt(kMax, 999999998);
    t += MonotonicTime::Ticks(1);
    EXPECT_TRUE(t.isMax());
    t = mt(kMax - 1, 999999999);
    t += MonotonicTime::Ticks(1);
    EXPECT_EQ(t, mt(kMax, 0));
    t = mt(0, 0);
    t += MonotonicTime::Ticks(~0ull);
    EXPECT_EQ(t, mt(18446744073, 709551615));

    t = MonotonicTime::min();
    t -= Interval(1);
    EXPECT_TRUE(t.isMin());
    t -= MonotonicTime::Ticks(1);
    EXPECT_TRUE(t.isMin());
    t.subtractSec(1);
    EXPECT_TRUE(t.isMin());
    t = mt(kMin, 1);
    t -= MonotonicTime::Ticks(2);
    EXPECT_TRUE(t.isMin());
    t = mt(0, 0);
    t -= Interval(1500);
    EXPECT_EQ(t, mt(-2, 500000000));

    // addSec alone wraps: it is plain unsigned addition of the seconds.
    t = mt(kMax, 5);
    t.addSec(1);
    EXPECT_EQ(t, mt(kMin, 5));
}

// ---------------------------------------------------------------- differences

TEST(TimevalDifference, TimevalRoundsUpMonotonicRoundsDown) {
    EXPECT_EQ((tv(10, 1) - tv(10, 0)).ms(), 1u);
    EXPECT_EQ((mt(10, 1) - mt(10, 0)).ms(), 0u);
    EXPECT_EQ((tv(11, 0) - tv(10, 999999)).ms(), 1u);
    EXPECT_EQ((mt(11, 0) - mt(10, 999999999)).ms(), 0u);
    EXPECT_EQ((tv(12, 1000) - tv(10, 2000)).ms(), 1999u);
    EXPECT_EQ((mt(12, 1000000) - mt(10, 2000000)).ms(), 1999u);
    EXPECT_EQ((tv(12, 1001) - tv(10, 2000)).ms(), 2000u);
    EXPECT_EQ((mt(12, 1999999) - mt(10, 1000000)).ms(), 2000u);
    // Before is nothing, not a wrapped giant.
    EXPECT_EQ((tv(10, 0) - tv(10, 1)).ms(), 0u);
    EXPECT_EQ((mt(-5, 0) - mt(5, 0)).ms(), 0u);
    // The whole range is more milliseconds than 64 bits hold.
    EXPECT_TRUE((Timeval::max() - Timeval::min()).isUnbounded());
    EXPECT_TRUE((MonotonicTime::max() - MonotonicTime::min()).isUnbounded());
    EXPECT_EQ((tv(-1, 0) - tv(-2, 500000)).ms(), 500u);
}

TEST(TimevalDifference, MicrosecondsAndDoublesAreSymmetric) {
    EXPECT_EQ(Timeval::usecDifference(tv(2, 5), tv(1, 10)), 999995);
    EXPECT_EQ(Timeval::usecDifference(tv(1, 10), tv(2, 5)), -999995);
    EXPECT_EQ(Timeval::usecDifference(Timeval::max(), Timeval::min()), INT64_MAX);
    EXPECT_EQ(Timeval::usecDifference(Timeval::min(), Timeval::max()), INT64_MIN);

    Timeval a(1700000000, 123457), b(-3, 999999);
    EXPECT_EQ(Timeval::secDifferenceAsDouble(a, b), -Timeval::secDifferenceAsDouble(b, a));
    EXPECT_DOUBLE_EQ(Timeval::secDifferenceAsDouble(a, b), 1700000002.123458);
    MonotonicTime c(5, 1), d(3, 999999999);
    EXPECT_EQ(MonotonicTime::secDifferenceAsDouble(c, d),
              -MonotonicTime::secDifferenceAsDouble(d, c));
    EXPECT_NEAR(MonotonicTime::secDifferenceAsDouble(c, d), 1.000000002, 1e-12);
    EXPECT_EQ(MonotonicTime::ticksDifference(c, d)._ns, 1000000002u);
    EXPECT_EQ(MonotonicTime::ticksDifference(d, c)._ns, 0u);
}

// ---------------------------------------------------------------- Interval

TEST(IntervalText, ParsesAtItsCutoffs) {
    struct Case {
        const char* text;
        bool ok;
        uint64_t ms;
    } cases[] = {
        {"0", true, 0},
        {"1", true, 1000},
        {"1.", true, 1000},
        {"0.00001", true, 1},  // rounds to nothing, but is not nothing
        {"0.0004", true, 1},
        {"0.0005", true, 1},
        {"0.0000", true, 0},
        {"1.0004", true, 1000},  // the nonzero rule is only for a zero whole part
        {"1.0005", true, 1001},
        {"1.9995", true, 2000},
        {"1.99949999", true, 1999},
        {"0.123456789", true, 123},
        {"18446744073709551", true, 18446744073709551000u},
        {"18446744073709551.615", true, ~0ull},
        {"18446744073709551.6149", true, ~0ull - 1 + 1},  // 615 after rounding
        {"18446744073709551.6144", true, 18446744073709551614u},
        {"18446744073709551.9995", true, ~0ull},  // overflow adding the fraction
        {"18446744073709552", true, ~0ull},
        {"99999999999999999999999", true, ~0ull},
        {"", false, 0},
        {".", false, 0},
        {".5", false, 0},
        {"1.2.3", false, 0},
        {"-1", false, 0},
        {"+1", false, 0},
        {" 1", false, 0},
        {"1.5x", false, 0},
        {"1.00000000000x", false, 0},
    };
    for (auto& c : cases) {
        Interval v(777);
        bool ok = mem_parse_into(c.text, strlen(c.text), &v);
        EXPECT_EQ(ok, c.ok) << c.text;
        EXPECT_EQ(v.ms(), c.ok ? c.ms : 777) << c.text;
    }
}

TEST(IntervalText, PrintsSecondsAndMilliseconds) {
    EXPECT_EQ(text(Interval(0)), "0.000");
    EXPECT_EQ(text(Interval(1)), "0.001");
    EXPECT_EQ(text(Interval(123456)), "123.456");
    EXPECT_EQ(text(Interval::unbounded()), "18446744073709551.615");
    EXPECT_EQ(crashText(Interval(5050)), "5.050");
    EXPECT_EQ(text(MonotonicTime::Ticks(1000000001)), "1.000000001");
    EXPECT_EQ(crashText(MonotonicTime::Ticks(5)), "0.000000005");
    EXPECT_EQ(text(mt(-3, 5)), "-3.000000005");
    EXPECT_EQ(crashText(mt(7, 120)), "7.000000120");
}

TEST(IntervalText, SecondsRoundedUpNearTheTop) {
    EXPECT_EQ(Interval(0).secondsRoundedUp(), 0u);
    EXPECT_EQ(Interval(1).secondsRoundedUp(), 1u);
    EXPECT_EQ(Interval(1000).secondsRoundedUp(), 1u);
    EXPECT_EQ(Interval(1001).secondsRoundedUp(), 2u);
    EXPECT_EQ(Interval(18446744073709550616u).secondsRoundedUp(), 18446744073709551u);
    EXPECT_EQ(Interval(18446744073709550617u).secondsRoundedUp(), 18446744073709552u);
    EXPECT_EQ(Interval(~0ull - 1).secondsRoundedUp(), 18446744073709552u);
    EXPECT_EQ(Interval::unbounded().secondsRoundedUp(), ~0ull);
}

// ---------------------------------------------------------------- Timeval text

TEST(TimevalText, ParseAndPrintAgree) {
    struct Case {
        const char* in;
        int64_t sec;
        long usec;
        const char* out;  // _printAsUnixTime with 6 digits
    } cases[] = {
        {"0", 0, 0, "0.000000"},
        {"1.5", 1, 500000, "1.500000"},
        {"-1.5", -2, 500000, "-1.500000"},
        {"-0.25", -1, 750000, "-0.250000"},
        {"-1", -1, 0, "-1.000000"},
        {"-0", 0, 0, "0.000000"},
        {"1.", 1, 0, "1.000000"},
        {"1.1234569", 1, 123456, "1.123456"},
        {"9223372036854775807.999999", kMax, 999999, "9223372036854775807.999999"},
        {"-9223372036854775808", kMin, 0, "-9223372036854775808.000000"},
        {"-9223372036854775807.5", kMin, 500000, "-9223372036854775807.500000"},
    };
    for (auto& c : cases) {
        Timeval t(42, 42);
        ASSERT_TRUE(mem_parse_into(c.in, strlen(c.in), &t)) << c.in;
        EXPECT_EQ(t, tv(c.sec, c.usec)) << c.in;
        EXPECT_EQ(str(t), c.out) << c.in;
    }
    for (const char* bad :
         {"", "-", "9223372036854775808", "-9223372036854775808.5", "-9223372036854775809",
          "99999999999999999999", "1.x", ".5", "+1", "1 "}) {
        Timeval t(42, 42);
        EXPECT_FALSE(mem_parse_into(bad, strlen(bad), &t)) << bad;
        EXPECT_EQ(t, tv(42, 42)) << bad;
    }
    Timeval t;
    EXPECT_TRUE(t.setToUnixTime("12.25"));
    EXPECT_EQ(t, tv(12, 250000));
}

TEST(TimevalText, DigitsOfTheFraction) {
    EXPECT_EQ(unixTime(tv(3, 456789), 0), "3");
    EXPECT_EQ(unixTime(tv(3, 456789), 2), "3.45");
    EXPECT_EQ(unixTime(tv(3, 456789), 9), "3.456789000");
    EXPECT_EQ(unixTime(tv(-4, 250000), 0), "-3");
    EXPECT_EQ(unixTime(tv(-4, 250000), 3), "-3.750");
    EXPECT_EQ(unixTime(tv(kMin, 1), 6), "-9223372036854775807.999999");
}

TEST(TimevalText, CrashLogForm) {
    EXPECT_EQ(crashText(tv(0, 5)), "<zero>");
    EXPECT_EQ(crashText(Timeval::max()), "<max>");
    EXPECT_EQ(crashText(Timeval::min()), "<min>");
    EXPECT_EQ(crashText(tv(17, 5)), "17.000005");
    EXPECT_EQ(crashText(tv(-17, 0)), "-17.000000");
    // A negative time with a fraction shows the magnitude of its seconds
    // field, one more than the text form.
    EXPECT_EQ(crashText(tv(-2, 500000)), "-2.500000");
    EXPECT_EQ(str(tv(-2, 500000)), "-1.500000");
    EXPECT_EQ(crashText(tv(kMin, 1)), "-9223372036854775808.999999");
}

TEST(TimevalText, ClampedSeconds) {
    long v = 0;
    EXPECT_TRUE(parse_timet_clamped("123", 3, &v));
    EXPECT_EQ(v, 123);
    EXPECT_TRUE(parse_timet_clamped("-123", 4, &v));
    EXPECT_EQ(v, -123);
    EXPECT_TRUE(parse_timet_clamped("9223372036854775808", 19, &v));
    EXPECT_EQ(v, INT64_MAX);
    EXPECT_TRUE(parse_timet_clamped("-9223372036854775808", 20, &v));
    EXPECT_EQ(v, INT64_MIN);
    EXPECT_TRUE(parse_timet_clamped("-99999999999999999999999", 24, &v));
    EXPECT_EQ(v, INT64_MIN);
    v = 7;
    EXPECT_FALSE(parse_timet_clamped("99999999999999999999x", 21, &v));
    EXPECT_FALSE(parse_timet_clamped("-", 1, &v));
    EXPECT_FALSE(parse_timet_clamped("", 0, &v));
    EXPECT_FALSE(parse_timet_clamped("1.5", 3, &v));
    EXPECT_EQ(v, 7);
}

TEST(TimevalText, FromDouble) {
    Timeval t;
    t.setToUnixTimeDouble(1.25);
    EXPECT_EQ(t, tv(1, 250000));
    // The magnitude of a negative fraction is stored, not its complement.
    t.setToUnixTimeDouble(-1.25);
    EXPECT_EQ(t, tv(-2, 250000));
    t.setToUnixTimeDouble(9223372036854775808.0);
    EXPECT_TRUE(t.isMax());
    t.setToUnixTimeDouble(-9223372036854775808.0);
    EXPECT_TRUE(t.isMin());
    t.setToUnixTimeDouble(1e300);
    EXPECT_TRUE(t.isMax());
    t.setToUnixTimeDouble(0.9999999999);
    EXPECT_EQ(t, tv(0, 999999));
    EXPECT_DOUBLE_EQ(tv(3, 500000).unixEpochAsDouble(), 3.5);
    EXPECT_EQ(Timeval::secondsToTicks(1.5)._ns, 1500000000u);
    EXPECT_EQ(Timeval::secondsToTicks(-1)._ns, 0u);
    EXPECT_EQ(Timeval::secondsToTicks(NAN)._ns, 0u);
    EXPECT_EQ(Timeval::secondsToTicks(1e300)._ns, ~0ull);
}

TEST(TimevalText, Snapping) {
    Timeval t(127, 654321);
    t.snapSecond(60);
    EXPECT_EQ(t, tv(120, 0));
    t = tv(127, 654321);
    t.snapSecond(1);
    EXPECT_EQ(t, tv(127, 0));
    // Down means earlier for negative times too.
    t = tv(-7, 5);
    t.snapSecond(5);
    EXPECT_EQ(t, tv(-10, 0));
    // Nothing lies below the smallest time to snap to.
    t = tv(kMin + 3, 0);
    t.snapSecond(7);
    EXPECT_EQ(t, tv(kMin + 1, 0));
    t = tv(kMin, 0);
    t.snapSecond(7);
    EXPECT_EQ(t, tv(kMin, 0));
    t = tv(5, 987654);
    t.snapMillisecond(10);
    EXPECT_EQ(t, tv(5, 980000));
    t.snapMillisecond(0);
    EXPECT_EQ(t, tv(5, 980000));
}

TEST(TimevalText, EncodedSubsecondsRoundTrip) {
    EXPECT_EQ(tv(1, 0).encodedSubseconds(0), 1u);
    EXPECT_EQ(tv(1, 0).encodedSubseconds(3), 8u);
    EXPECT_EQ(tv(1, 50000).encodedSubseconds(3), (2u * 50 + 1) << 1);
    EXPECT_EQ(tv(1, 5000).encodedSubseconds(3), (2u * 5 + 1) << 2);
    EXPECT_EQ(tv(1, 123456).encodedSubseconds(9), 2u * 123456000 + 1);
    EXPECT_EQ(tv(-2, 750000).encodedSubseconds(2), (2u * 25 + 1));
    // Every digit count, fractions with and without leading zeros, both
    // signs: adding the code to the whole seconds as written gives the time
    // written with that many digits.
    auto parse = [](const std::string& t) {
        Timeval v;
        EXPECT_TRUE(mem_parse_into(t.data(), t.size(), &v)) << t;
        return v;
    };
    for (unsigned digits = 0; digits <= 9; ++digits) {
        for (long usec : {0L, 1L, 9L, 10L, 70L, 5000L, 50000L, 100000L, 123456L, 999999L}) {
            for (int64_t sec : {int64_t(1700000000), int64_t(-5)}) {
                Timeval src(sec, usec);
                Timeval t = parse(unixTime(src, 0));
                t.addEncodedSubseconds(src.encodedSubseconds(digits));
                EXPECT_EQ(t, parse(unixTime(src, digits)))
                    << "digits " << digits << " " << unixTime(src, 6);
            }
        }
    }
}

// ---------------------------------------------------------------- serialised form

TEST(TimevalSerialized, WordsAndClamps) {
    Str s;
    tv(0, 5)._serialize(&s);
    EXPECT_EQ(s, "zNULLzTIMEzzzz");
    s.clear();
    Timeval::max()._serialize(&s);
    EXPECT_EQ(s, "zMAXzTIMEzzzzz");
    s.clear();
    Timeval::min()._serialize(&s);
    EXPECT_EQ(s, "zMINzTIMEzzzzz");

    Timeval t(1, 1);
    EXPECT_TRUE(t._resurrect("zmaxztimezzzzz", 14));
    EXPECT_TRUE(t.isMax());
    EXPECT_TRUE(t._resurrect("ZMinZTimeZZZZZ", 14));
    EXPECT_TRUE(t.isMin());
    EXPECT_TRUE(t._resurrect("znullztimezzzz", 14));
    EXPECT_TRUE(t.isNull());
    EXPECT_FALSE(t._resurrect("zNULLzTIMEzzzy", 14));
    EXPECT_FALSE(t._resurrect("zNULLzTIMEzzz", 13));
    EXPECT_FALSE(t._resurrect("00000000W00000", 14));  // W is not a base-32 digit
    EXPECT_FALSE(t._resurrect("00000000TRT000", 14));  // nanoseconds past 999999999

    // Past 40 bits of seconds since 1601: the largest value, 999999999 ns.
    s.clear();
    tv(0x10000000000ll, 5)._serialize(&s);
    EXPECT_EQ(s, "VVVVVVVVTPLIFV");
    EXPECT_TRUE(t._resurrect(s.data(), s.size()));
    EXPECT_EQ(t, tv(0xffffffffffll - Timeval::SECONDS_1601_TO_1970, 1000000));
    // Before 1970 reads back as the largest time.
    s.clear();
    tv(-100, 0)._serialize(&s);
    EXPECT_TRUE(t._resurrect(s.data(), s.size()));
    EXPECT_TRUE(t.isMax());
}

TEST(TimevalSerialized, MatchesAnIndependentEncoder) {
    // Python computes the 1601 epoch with datetime and encodes on its own.
    std::vector<Timeval> times = {tv(1, 0),          tv(1700000000, 123456), tv(86400, 999999),
                                  tv(2147483648, 1), tv(32503680000, 500),   tv(1, 999999)};
    std::ostringstream args;
    for (auto& t : times) args << t.sec() << ":" << t.usec() << " ";
    std::string script =
        "import sys, datetime\n"
        "off = int((datetime.datetime(1970,1,1) - datetime.datetime(1601,1,1)).total_seconds())\n"
        "D = '0123456789ABCDEFGHIJKLMNOPQRSTUV'\n"
        "def b32(v, n): return ''.join(D[(v >> (5*(n-1-i))) & 31] for i in range(n))\n"
        "for a in sys.argv[1:]:\n"
        "    s, us = map(int, a.split(':'))\n"
        "    print(b32(s + off, 8) + b32(us * 1000, 6))\n";
    std::vector<std::string> argv = {"/usr/bin/python3", "-c", script};
    for (auto& t : times) argv.push_back(std::to_string(t.sec()) + ":" + std::to_string(t.usec()));
    auto r = testsupport::runProcess(argv);
    ASSERT_EQ(r.exitStatus, 0) << r.err;
    std::istringstream lines(r.out);
    for (auto& t : times) {
        std::string expected;
        std::getline(lines, expected);
        Str s;
        t._serialize(&s);
        EXPECT_EQ(s, expected);
        Timeval back;
        ASSERT_TRUE(back._resurrect(s.data(), s.size()));
        EXPECT_EQ(back, t);
        Str lower = s;
        for (auto& c : lower) c = static_cast<char>(tolower(c));
        ASSERT_TRUE(back._resurrect(lower.data(), lower.size()));
        EXPECT_EQ(back, t);
    }
}

// ---------------------------------------------------------------- describe

TEST(DescribeTimeDifference, UnitsAtTheirThresholds) {
    struct Case {
        Timeval a, b;
        const char* text;
    } cases[] = {
        {tv(0, 1), tv(0, 0), "1 microsecond"},
        {tv(0, 0), tv(0, 1), "-1 microsecond"},
        {tv(0, 3000), tv(0, 0), "3000 microseconds"},
        {tv(0, 3001), tv(0, 0), "3.001 milliseconds"},
        {tv(0, 4000), tv(0, 0), "4 milliseconds"},
        {tv(3, 0), tv(0, 0), "3000 milliseconds"},
        {tv(3, 1), tv(0, 0), "3.000 seconds"},
        {tv(2, 999999), tv(0, 0), "3000.0 milliseconds"},
        {tv(3, 1000), tv(0, 0), "3.001 seconds"},
        {tv(10, 0), tv(0, 0), "10.00 seconds"},
        {tv(100, 0), tv(0, 0), "100.0 seconds"},
        {tv(8000, 0), tv(0, 0), "8000.0 seconds"},
        {tv(8000, 1), tv(0, 0), "2.222 hours"},
        {Timeval::max(), Timeval::min(), "5124095576030431.0 hours"},
    };
    for (auto& c : cases) {
        EXPECT_EQ(text(describe_time_difference(c.a, c.b)), c.text);
        EXPECT_EQ(crashText(describe_time_difference(c.a, c.b)), c.text);
    }
    struct MCase {
        MonotonicTime a, b;
        const char* text;
    } mcases[] = {
        {mt(0, 1), mt(0, 0), "1 nanosecond"},
        {mt(0, 3000), mt(0, 0), "3000 nanoseconds"},
        {mt(0, 3001), mt(0, 0), "3.001 microseconds"},
        {mt(0, 5000), mt(0, 0), "5 microseconds"},
        {mt(0, 3000000), mt(0, 0), "3000 microseconds"},
        {mt(0, 3000001), mt(0, 0), "3.000 milliseconds"},
        {mt(0, 4000000), mt(0, 0), "4 milliseconds"},
        {mt(0, 0), mt(0, 4000001), "-4.000 milliseconds"},
        {mt(3, 1), mt(0, 0), "3.000 seconds"},
        {mt(8100, 0), mt(0, 0), "2.250 hours"},
        {mt(8000, 0), mt(0, 0), "8000.0 seconds"},
    };
    for (auto& c : mcases) EXPECT_EQ(text(describe_time_difference(c.a, c.b)), c.text);
}

TEST(StaleTimeval, ReadsTheRefreshedWord) {
    StaleTimeval::refresh();
    Timeval before = Timeval::now();
    StaleTimeval s;
    EXPECT_LE(s, before);
    EXPECT_LT(Timeval::usecDifference(before, s), 1000000);
    // Without a refresh the value stays where it was.
    testsupport::waitUntil([] { return false; }, 0.02);
    StaleTimeval again;
    EXPECT_EQ(again, s);
    StaleTimeval::refresh();
    StaleTimeval later;
    EXPECT_GT(later, s);
}

}  // namespace
