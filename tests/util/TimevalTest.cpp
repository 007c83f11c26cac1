// Time values: saturation at every end, the rounding of differences, and the
// text, parsed and serialised forms.

#include "util/Timeval.h"

#include <gtest/gtest.h>

#include <cmath>
#include <cstdio>
#include <sstream>
#include <tuple>

#include "support/TestSupport.h"
#include "util/CrashLog.h"

namespace {

constexpr int64_t kMax = INT64_MAX;
constexpr int64_t kMin = INT64_MIN;

using testsupport::crashText;

template <class T>
std::string text(const T& v) {
    Str s;
    append_stringified(&s, v);
    return s;
}

std::string unixTime(const Timeval& t, unsigned digits) {
    Str s;
    t._printAsUnixTime(&s, digits);
    return s;
}

Timeval tv(int64_t s, long us) { return Timeval(s, us); }
MonotonicTime mt(int64_t s, long ns) { return MonotonicTime(s, ns); }
MonotonicTime::Ticks ticks(uint64_t ns) { return MonotonicTime::Ticks(ns); }

// ---------------------------------------------------------------- saturation

TEST(TimevalSaturation, AddingPastTheEndsStopsThere) {
    // Start, operation, result.
    const std::tuple<Timeval, void (*)(Timeval&), Timeval> cases[] = {
        {Timeval::max(), [](Timeval& t) { t += Interval(1); }, Timeval::max()},
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
    for (size_t i = 0; i < std::size(cases); ++i) {
        auto [t, op, expected] = cases[i];
        op(t);
        EXPECT_EQ(t, expected) << "case " << i << ": got " << text(t);
    }
}

TEST(TimevalSaturation, MonotonicSaturatesExceptAddSec) {
    MonotonicTime wrapped = mt(kMax, 5);
    wrapped.addSec(1);  // addSec alone wraps: plain unsigned addition of the seconds
    MonotonicTime floor = MonotonicTime::min();
    floor.subtractSec(1);
    const std::pair<MonotonicTime, MonotonicTime> cases[] = {
        {MonotonicTime::max() + Interval(1), MonotonicTime::max()},
        {MonotonicTime::max() + ticks(1), MonotonicTime::max()},
        {mt(kMax, 999999998) + ticks(1), MonotonicTime::max()},
        {mt(kMax - 1, 999999999) + ticks(1), mt(kMax, 0)},
        {mt(0, 0) + ticks(~0ull), mt(18446744073, 709551615)},
        {MonotonicTime::min() - Interval(1), MonotonicTime::min()},
        {floor, MonotonicTime::min()},
        {mt(kMin, 1) - ticks(2), MonotonicTime::min()},
        {mt(0, 0) - Interval(1500), mt(-2, 500000000)},
        {wrapped, mt(kMin, 5)},
    };
    for (size_t i = 0; i < std::size(cases); ++i) {
        EXPECT_EQ(cases[i].first, cases[i].second) << "case " << i << ": " << text(cases[i].first);
    }
}

// ---------------------------------------------------------------- differences

TEST(TimevalDifference, TimevalRoundsUpMonotonicRoundsDown) {
    // Before is nothing, not a wrapped giant.
    const std::tuple<Interval, uint64_t> cases[] = {
        {tv(10, 1) - tv(10, 0), 1},          {mt(10, 1) - mt(10, 0), 0},
        {tv(11, 0) - tv(10, 999999), 1},     {mt(11, 0) - mt(10, 999999999), 0},
        {tv(12, 1000) - tv(10, 2000), 1999}, {mt(12, 1000000) - mt(10, 2000000), 1999},
        {tv(12, 1001) - tv(10, 2000), 2000}, {mt(12, 1999999) - mt(10, 1000000), 2000},
        {tv(10, 0) - tv(10, 1), 0},          {mt(-5, 0) - mt(5, 0), 0},
        {tv(-1, 0) - tv(-2, 500000), 500},
    };
    for (size_t i = 0; i < std::size(cases); ++i) {
        EXPECT_EQ(std::get<0>(cases[i]).ms(), std::get<1>(cases[i])) << "case " << i;
    }
    // The whole range is more milliseconds than 64 bits hold.
    EXPECT_TRUE((Timeval::max() - Timeval::min()).isUnbounded());
    EXPECT_TRUE((MonotonicTime::max() - MonotonicTime::min()).isUnbounded());
}

TEST(TimevalDifference, MicrosecondsAndDoublesAreSymmetric) {
    EXPECT_EQ(Timeval::usecDifference(tv(2, 5), tv(1, 10)), 999995);
    EXPECT_EQ(Timeval::usecDifference(Timeval::max(), Timeval::min()), INT64_MAX);
    EXPECT_EQ(Timeval::usecDifference(Timeval::min(), Timeval::max()), INT64_MIN);

    EXPECT_DOUBLE_EQ(Timeval::secDifferenceAsDouble(tv(1700000000, 123457), tv(-3, 999999)),
                     1700000002.123458);
    MonotonicTime c(5, 1), d(3, 999999999);
    EXPECT_NEAR(MonotonicTime::secDifferenceAsDouble(c, d), 1.000000002, 1e-12);
    EXPECT_EQ(MonotonicTime::ticksDifference(c, d)._ns, 1000000002u);
    EXPECT_EQ(MonotonicTime::ticksDifference(d, c)._ns, 0u);
}

// ---------------------------------------------------------------- Interval

TEST(IntervalText, ParsesAtItsCutoffs) {
    for (const auto& r : testsupport::dataRows("TimevalTest/interval_text")) {
        Interval v(777);
        EXPECT_EQ(mem_parse_into(r[0].data(), r[0].size(), &v), r[1] != "-") << r[0];
        EXPECT_EQ(v.ms(), r[1] == "-" ? 777 : std::stoull(r[1])) << r[0];
    }
}

TEST(IntervalText, PrintsAndRoundsUpNearTheTop) {
    EXPECT_EQ(text(Interval(1)), "0.001");
    EXPECT_EQ(text(Interval(123456)), "123.456");
    EXPECT_EQ(text(Interval::unbounded()), "18446744073709551.615");
    EXPECT_EQ(crashText(Interval(5050)), "5.050");
    EXPECT_EQ(text(ticks(1000000001)), "1.000000001");
    EXPECT_EQ(crashText(ticks(5)), "0.000000005");

    // The largest value is unbounded and stays so.
    const uint64_t ms[] = {
        0, 1, 1000, 1001, 18446744073709550616u, 18446744073709550617u, ~0ull - 1, ~0ull};
    const uint64_t seconds[] = {
        0, 1, 1, 2, 18446744073709551u, 18446744073709552u, 18446744073709552u, ~0ull};
    for (size_t i = 0; i < std::size(ms); i++)
        EXPECT_EQ(Interval(ms[i]).secondsRoundedUp(), seconds[i]) << ms[i];
}

// ---------------------------------------------------------------- Timeval text

TEST(TimevalText, ParseAndPrintAgree) {
    for (const auto& r : testsupport::dataRows("TimevalTest/timeval_text")) {
        Timeval t(42, 42);
        EXPECT_EQ(mem_parse_into(r[0].data(), r[0].size(), &t), r[1] != "-") << r[0];
        if (r[1] == "-") {
            EXPECT_EQ(t, tv(42, 42)) << r[0];
            continue;
        }
        EXPECT_EQ(t, tv(std::stoll(r[1]), std::stol(r[2]))) << r[0];
        EXPECT_EQ(text(t), r[3]) << r[0];
    }
    Timeval t;
    EXPECT_TRUE(t.setToUnixTime("12.25"));
    EXPECT_EQ(t, tv(12, 250000));
}

TEST(TimevalText, DigitsOfTheFractionAndTheCrashLogForm) {
    EXPECT_EQ(unixTime(tv(3, 456789), 0), "3");
    EXPECT_EQ(unixTime(tv(3, 456789), 2), "3.45");
    EXPECT_EQ(unixTime(tv(3, 456789), 9), "3.456789000");
    EXPECT_EQ(unixTime(tv(-4, 250000), 0), "-3");
    EXPECT_EQ(unixTime(tv(-4, 250000), 3), "-3.750");
    EXPECT_EQ(unixTime(tv(kMin, 1), 6), "-9223372036854775807.999999");

    EXPECT_EQ(crashText(tv(0, 5)), "<zero>");
    EXPECT_EQ(crashText(Timeval::max()), "<max>");
    EXPECT_EQ(crashText(Timeval::min()), "<min>");
    EXPECT_EQ(crashText(tv(17, 5)), "17.000005");
    // A negative time with a fraction shows the magnitude of its seconds
    // field, one more than the text form.
    EXPECT_EQ(crashText(tv(-2, 500000)), "-2.500000");
    EXPECT_EQ(text(tv(-2, 500000)), "-1.500000");
    EXPECT_EQ(crashText(tv(kMin, 1)), "-9223372036854775808.999999");
}

TEST(TimevalText, ClampedSeconds) {
    for (auto [in, out] : {std::pair{"123", 123L},
                           {"9223372036854775808", INT64_MAX},
                           {"-9223372036854775808", INT64_MIN},
                           {"-99999999999999999999999", INT64_MIN}}) {
        long v = 0;
        EXPECT_TRUE(parse_timet_clamped(in, strlen(in), &v)) << in;
        EXPECT_EQ(v, out) << in;
    }
    for (const char* bad : {"99999999999999999999x", "-", "", "1.5"}) {
        long v = 7;
        EXPECT_FALSE(parse_timet_clamped(bad, strlen(bad), &v)) << bad;
        EXPECT_EQ(v, 7) << bad;
    }
}

TEST(TimevalText, FromDouble) {
    // The magnitude of a negative fraction is stored, not its complement.
    for (auto [in, out] : {std::pair{1.25, tv(1, 250000)},
                           {-1.25, tv(-2, 250000)},
                           {9223372036854775808.0, Timeval::max()},
                           {-9223372036854775808.0, Timeval::min()},
                           {0.9999999999, tv(0, 999999)}}) {
        Timeval t;
        t.setToUnixTimeDouble(in);
        EXPECT_EQ(t, out) << in;
    }
    EXPECT_EQ(Timeval::secondsToTicks(1.5)._ns, 1500000000u);
    EXPECT_EQ(Timeval::secondsToTicks(NAN)._ns, 0u);
    EXPECT_EQ(Timeval::secondsToTicks(1e300)._ns, ~0ull);
}

TEST(TimevalText, Snapping) {
    // Down means earlier for negative times too, and nothing lies below the
    // smallest time to snap to.
    const std::tuple<Timeval, unsigned, Timeval> seconds[] = {
        {tv(127, 654321), 60, tv(120, 0)}, {tv(127, 654321), 1, tv(127, 0)},
        {tv(-7, 5), 5, tv(-10, 0)},        {tv(kMin + 3, 0), 7, tv(kMin + 1, 0)},
        {tv(kMin, 0), 7, tv(kMin, 0)},
    };
    for (auto [t, unit, expected] : seconds) {
        t.snapSecond(unit);
        EXPECT_EQ(t, expected) << unit;
    }
    Timeval t = tv(5, 987654);
    t.snapMillisecond(10);
    EXPECT_EQ(t, tv(5, 980000));
    t.snapMillisecond(0);
    EXPECT_EQ(t, tv(5, 980000));
}

TEST(TimevalText, EncodedSubsecondsRoundTrip) {
    EXPECT_EQ(tv(1, 0).encodedSubseconds(0), 1u);
    EXPECT_EQ(tv(1, 0).encodedSubseconds(3), 8u);
    EXPECT_EQ(tv(1, 50000).encodedSubseconds(3), (2u * 50 + 1) << 1);
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
    auto serialized = [](const Timeval& t) {
        Str s;
        t._serialize(&s);
        return s;
    };
    EXPECT_EQ(serialized(tv(0, 5)), "zNULLzTIMEzzzz");
    EXPECT_EQ(serialized(Timeval::max()), "zMAXzTIMEzzzzz");
    EXPECT_EQ(serialized(Timeval::min()), "zMINzTIMEzzzzz");

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
    const Str big = serialized(tv(0x10000000000ll, 5));
    EXPECT_EQ(big, "VVVVVVVVTPLIFV");
    EXPECT_TRUE(t._resurrect(big.data(), big.size()));
    EXPECT_EQ(t, tv(0xffffffffffll - Timeval::SECONDS_1601_TO_1970, 1000000));
    // Before 1970 reads back as the largest time.
    const Str early = serialized(tv(-100, 0));
    EXPECT_TRUE(t._resurrect(early.data(), early.size()));
    EXPECT_TRUE(t.isMax());
}

TEST(TimevalSerialized, MatchesAnIndependentEncoder) {
    const Timeval times[] = {tv(1, 0),          tv(1700000000, 123456), tv(86400, 999999),
                             tv(2147483648, 1), tv(32503680000, 500),   tv(1, 999999)};
    std::vector<std::string> argv = {"/usr/bin/python3",
                                     TARVEX_SOURCE_DIR "/tests/data/TimevalTest/serialize.py"};
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
        Str lower = s;
        for (auto& c : lower) c = static_cast<char>(tolower(c));
        for (const Str& form : {s, lower}) {
            Timeval back;
            ASSERT_TRUE(back._resurrect(form.data(), form.size())) << form;
            EXPECT_EQ(back, t) << form;
        }
    }
}

// ---------------------------------------------------------------- describe

TEST(DescribeTimeDifference, UnitsAtTheirThresholds) {
    for (const auto& r : testsupport::dataRows("TimevalTest/describe")) {
        const int64_t as = std::stoll(r[1]), af = std::stol(r[2]), bs = std::stoll(r[3]),
                      bf = std::stol(r[4]);
        if (r[0] == "M") {
            EXPECT_EQ(text(describe_time_difference(mt(as, af), mt(bs, bf))), r[5]);
            continue;
        }
        EXPECT_EQ(text(describe_time_difference(tv(as, af), tv(bs, bf))), r[5]);
        EXPECT_EQ(crashText(describe_time_difference(tv(as, af), tv(bs, bf))), r[5]);
    }
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
