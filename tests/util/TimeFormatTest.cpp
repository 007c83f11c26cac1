// The compiler's refusals, parsing rules and round trips of TimeFormat, and
// the calendar helpers. Rendering against glibc and GNU date is in
// TimeFormatOracleTest.cpp.
#include "util/DateTime.h"

#include <gtest/gtest.h>

#include <map>
#include <random>
#include <sstream>

#include "support/TestSupport.h"
#include "util/Pathname.h"
#include "util/Timeval.h"

// Formats of literals and fixed-width numbers first try the text as a fixed
// layout; this turns that off, for the differential below.
struct TimeFormatTestPeer {
    static void generalOnly(TimeFormat& f) { f._fixedLayout = false; }
};

namespace {

using R = TimeFormatRawParseResult;

std::string render(const char* format, int64_t t, unsigned long usec = 0) {
    TimeFormat f;
    EXPECT_TRUE(f.setFtime(format)) << format;
    GmtStructTm g;
    EXPECT_TRUE(g.GMT_fromUnixTime(long(t)));
    Str out;
    g.appendFtime(out, f, usec);
    return out;
}

// The parse of `text`: how far it got (-1: refused) and the fields.
struct Parsed {
    long consumed;
    R r;
};
Parsed parse(const char* format, const std::string& text) {
    TimeFormat f;
    EXPECT_TRUE(f.setFtime(format)) << format;
    Parsed p{-1, {}};
    const char* end = f.rawParse(&p.r, text.data(), text.data() + text.size());
    if (end != nullptr) p.consumed = end - text.data();
    return p;
}

TEST(TimeFormat, RefusesBadFormatsAndResets) {
    const char* bad[] = {
        "%",   "abc%", "%5-d", "%^#a", "%_-d",   "%EEY", "%OEd",    "%J",
        "%5%", "%-%",  "%3D",  "%_F",  "%ED",    "%OF",  "%Ea",     "%OY",
        "%2b", "%1b",  "%1h",  "%:x",  "%::::z", "%E:z", "%99999d", "%\x01",
    };
    for (const char* f : bad) {
        TimeFormat t("%Y");
        EXPECT_FALSE(t.setFtime(f)) << f;
        EXPECT_FALSE(t.valid()) << f;
    }
    for (const char* f :
         {"%Ey", "%EC", "%Oy", "%OS", "%Ec", "%Ex", "%EX", "%Ez", "%#c", "%^x", "%3b"}) {
        EXPECT_TRUE(TimeFormat().setFtime(f)) << f;
    }
}

TEST(TimeFormat, EllIsMillisecondsOnlyAfterSeconds) {
    const int64_t t = 1700000000;  // 22:13:20 UTC
    const std::pair<const char*, const char*> cases[] = {
        {"%H:%M:%S.%l", "22:13:20.123"},  // milliseconds
        {"%S,%l", "20,123"},              // no minute: milliseconds
        {"%s%l", "1700000000123"},
        {"%M:%S.%l", "13:20.10"},  // no hour: a 12-hour clock field
        {"%l:%M", "10:13"},
        {"%S.%_l", "20.10"},  // a flag: the hour
    };
    for (auto [format, text] : cases) EXPECT_EQ(render(format, t, 123456), text) << format;
}

TEST(TimeFormat, NegativeEpochWithAFractionCountsUp) {
    // The text is the value, where GNU date prints the floored seconds and
    // the fraction above them ("-2.750").
    const std::tuple<int64_t, unsigned long, const char*> cases[] = {
        {-2, 750000, "-1.250"}, {-1, 750000, "-0.250"}, {-1, 0, "-1.000"}, {5, 250000, "5.250"}};
    for (auto [sec, usec, text] : cases) EXPECT_EQ(render("%s.%3N", sec, usec), text) << sec;
    // Without %s the fraction is the time's own.
    EXPECT_EQ(render("%H:%M:%S.%3N", -2, 750000), "23:59:58.750");
}

TEST(TimeFormat, ParsesByTheTolerantRules) {
#define FLAG(name) \
    { #name, R::name }
    const std::map<std::string, uint32_t> flags = {
        FLAG(HAVE_YEAR),   FLAG(HAVE_YEAR2),  FLAG(HAVE_MONTH),    FLAG(HAVE_MDAY),
        FLAG(HAVE_WDAY),   FLAG(HAVE_HOUR),   FLAG(HAVE_HOUR12),   FLAG(HAVE_PM),
        FLAG(HAVE_MINUTE), FLAG(HAVE_SECOND), FLAG(HAVE_SUBSEC),   FLAG(HAVE_TZNAM),
        FLAG(HAVE_TZOFF),  FLAG(HAVE_EPOCH),  FLAG(EPOCH_NEGATIVE)};
#undef FLAG
    for (const auto& row : testsupport::dataRows("TimeFormatTest/parse")) {
        uint32_t have = 0;
        std::istringstream names(row[3]);
        for (std::string n; names >> n;) have |= flags.at(n);
        const Parsed p = parse(row[0].c_str(), row[1]);
        EXPECT_EQ(p.consumed, std::stol(row[2])) << row[0] << " on " << row[1];
        EXPECT_EQ(p.r.have & have, have) << row[0] << " on " << row[1];
    }
    EXPECT_EQ(parse("%Y", "19999").r.year, 1999);
    EXPECT_EQ(parse("%z", "-5").r.tzoff, -5 * 3600);
    EXPECT_EQ(parse("%z", "+23:59:59").r.tzoff, 86399);
    EXPECT_STREQ(parse("%Z", "Pacific Standard Time (Mexico) x").r.tzname,
                 "Pacific Standard Time (Mexico)");
    EXPECT_EQ(parse("%20s", "-99999999999999999999").r.epoch, INT64_MIN);
    EXPECT_EQ(parse("%s", "123456789012").r.epoch, 1234567890) << "ten digits at most";
}

TEST(TimeFormat, ConflictsAreCountedAndTheFirstValueStands) {
    const Parsed same = parse("%d %d", "05 05");
    const Parsed differ = parse("%Y-%m-%d %F", "2024-02-03 2025-02-04");
    EXPECT_EQ(same.r.conflicts, 1u);
    EXPECT_EQ(differ.r.conflicts, 3u);
    EXPECT_EQ(std::tuple(differ.r.year, differ.r.mday), std::tuple(2024, 3));
    // An epoch past 64 bits saturates and counts as one.
    EXPECT_EQ(parse("%20s", "99999999999999999999").r.conflicts, 2u);
}

// Every atom, rendered and parsed back, over random times: the fields come
// back as they went.
TEST(TimeFormat, RendersAndParsesBackOverRandomTimes) {
    // %s reads 10 digits unless a width says more: times past 2286 need one.
    const char* formats[] = {
        "%Y-%m-%dT%H:%M:%S.%6N%z",
        "%a, %d %b %Y %H:%M:%S %Z",
        "%A %B %e %I:%M:%S %p %y %C",
        "%12s.%3N",
        "%G-W%V-%u %j",
        "%c",
        "%D %r",
        "%F %T %:z",
        "%x %X %::z",
    };
    std::mt19937_64 rng(7);
    for (int i = 0; i < 400; i++) {
        // 1972 to 2999: the ISO year of early January 1971 is 1970, below the parser's range.
        const int64_t t = 63072000 + int64_t(rng() % (32503680000 - 63072000));
        const unsigned long usec = rng() % 1000000;
        GmtStructTm g;
        ASSERT_TRUE(g.GMT_fromUnixTime(long(t)));
        for (const char* fmt : formats) {
            TimeFormat f(fmt);
            Str text;
            g.appendFtime(text, f, usec);
            R r;
            const char* end = f.rawParse(&r, text.data(), text.data() + text.size());
            ASSERT_EQ(end, text.data() + text.size()) << fmt << ": " << text;
            EXPECT_EQ(r.conflicts, 1u) << fmt << ": " << text;
            int year;
            if (r.has(R::HAVE_YEAR) || r.has(R::HAVE_CENTURY | R::HAVE_YEAR2)) {
                ASSERT_TRUE(r.fullYear(&year));
                EXPECT_EQ(year, g.tm_year + 1900) << fmt << ": " << text;
            }
            // Each field found, against what went in.
            for (auto [flag, got, want] :
                 {std::tuple{R::HAVE_MONTH, int64_t(r.month), int64_t(g.tm_mon)},
                  {R::HAVE_MDAY, r.mday, g.tm_mday},
                  {R::HAVE_HOUR, r.hour, g.tm_hour},
                  {R::HAVE_MINUTE, r.minute, g.tm_min},
                  {R::HAVE_WDAY, r.wday, g.tm_wday},
                  {R::HAVE_YDAY, r.yday, g.tm_yday},
                  {R::HAVE_EPOCH, r.epoch, t}}) {
                if (!r.has(flag)) continue;
                EXPECT_EQ(got, want) << fmt << ": " << text << " flag " << flag;
            }
            if (r.has(R::HAVE_SUBSEC) && r.subsecDigits == 6) {
                EXPECT_EQ(r.subsec, usec) << text;
            }
            // The date again from the year, the week and the weekday alone.
            for (uint32_t week : {R::HAVE_WEEK_ISO, R::HAVE_WEEK_SUNDAY, R::HAVE_WEEK_MONDAY}) {
                if (!r.has(week | R::HAVE_WDAY)) continue;
                R fromWeek;
                fromWeek.have = r.have & (week | R::HAVE_WDAY | R::HAVE_YEAR | R::HAVE_ISOYEAR);
                std::tie(fromWeek.year, fromWeek.isoYear, fromWeek.weekIso, fromWeek.weekSunday,
                         fromWeek.weekMonday, fromWeek.wday) =
                    std::tie(r.year, r.isoYear, r.weekIso, r.weekSunday, r.weekMonday, r.wday);
                ASSERT_TRUE(fromWeek.computeYdayFromYweek()) << text;
                EXPECT_EQ(fromWeek.year, g.tm_year + 1900) << fmt << ": " << text;
                EXPECT_EQ(fromWeek.yday, g.tm_yday) << fmt << ": " << text;
            }
        }
    }
}

// The fixed-layout path must answer exactly as the general parser does,
// whatever the text: rendered lines with one byte changed, added or taken.
TEST(TimeFormat, FixedLayoutParsesAsTheGeneralParserDoes) {
    const char* formats[] = {"%Y-%m-%d %H:%M:%S.%3N", "%Y%m%d%H%M%S", "%d/%m/%y %H:%M",
                             "%H:%M:%S %j %u", "%Y-%m-%dT%H:%M:%S,%6N"};
    const char mutations[] = {'0', '9', '5', ' ', '.', ',', '-', 'x', '\t'};
    std::mt19937_64 rng(11);
    for (const char* fmt : formats) {
        TimeFormat fixed(fmt), general(fmt);
        TimeFormatTestPeer::generalOnly(general);
        for (int i = 0; i < 3000; i++) {
            GmtStructTm g;
            ASSERT_TRUE(g.GMT_fromUnixTime(long(63072000 + rng() % 2000000000)));
            Str text;
            g.appendFtime(text, fixed, rng() % 1000000);
            // Unchanged, a byte replaced, one inserted, one taken out.
            const size_t at = rng() % (text.size() + 1), kind = rng() % 4;
            const char m = mutations[rng() % sizeof mutations];
            if (kind == 1 && at < text.size()) text[at] = m;
            if (kind == 2) text.insert(at, 1, m);
            if (kind == 3 && at < text.size()) text.erase(at, 1);
            R a, b;
            const char* endA = fixed.rawParse(&a, text.data(), text.data() + text.size());
            const char* endB = general.rawParse(&b, text.data(), text.data() + text.size());
            ASSERT_EQ(endA, endB) << fmt << ": '" << text << "'";
            if (endA == nullptr) continue;
            ASSERT_EQ(a.have, b.have) << fmt << ": '" << text << "'";
            ASSERT_EQ(a.conflicts, b.conflicts) << text;
            EXPECT_TRUE(a.year == b.year && a.year2 == b.year2 && a.month == b.month &&
                        a.mday == b.mday && a.hour == b.hour && a.minute == b.minute &&
                        a.second == b.second && a.yday == b.yday && a.wday == b.wday &&
                        a.subsec == b.subsec && a.subsecDigits == b.subsecDigits)
                << fmt << ": '" << text << "'";
        }
    }
}

TEST(TimeFormat, CalendarHelpers) {
    R r;
    ASSERT_TRUE(r.setYear(StrSegment("2024")));
    r.set(R::HAVE_YDAY, &r.yday, 59);  // the 60th day of a leap year
    ASSERT_TRUE(r.computeMmddFromYday());
    EXPECT_EQ(std::tuple(r.month, r.mday), std::tuple(1, 29));
    EXPECT_EQ(r.computedWday(), 4);  // a Thursday
    r.incrementDay();
    EXPECT_EQ(std::tuple(r.month, r.mday), std::tuple(2, 1));
    int64_t start;
    ASSERT_TRUE(r.dayStartTime(&start));
    EXPECT_EQ(start, 1709251200);  // 2024-03-01T00:00:00Z

    R noYear;
    noYear.set(R::HAVE_MONTH, &noYear.month, 1);
    noYear.set(R::HAVE_MDAY, &noYear.mday, 29);
    EXPECT_TRUE(noYear.mdayValidForMonth()) << "29 February without a year";
    EXPECT_TRUE(noYear.setMonth(StrSegment("MAR")));
    EXPECT_EQ(noYear.conflicts, 2u);

    R a, b;
    a.set(R::HAVE_HOUR, &a.hour, 5);
    b.set(R::HAVE_HOUR, &b.hour, 7);
    b.set(R::HAVE_MINUTE, &b.minute, 30);
    a.mergeIn(&b);
    EXPECT_EQ(std::tuple(a.hour, a.minute, a.conflicts), std::tuple(5, 30, 2u));

    StructTm t;
    ASSERT_TRUE(t.GMT_fromUnixTime(1706659200));  // 2024-01-31
    t.addCalendarMonths(1);
    EXPECT_EQ(std::tuple(t.tm_mon, t.tm_mday), std::tuple(1, 29));
    t.addCalendarMonths(-14);
    EXPECT_EQ(std::tuple(t.tm_year, t.tm_mon, t.tm_mday), std::tuple(122, 11, 29));
}

TEST(TimeFormat, LibcFormsAndTheirTexts) {
    StructTm t;
    ASSERT_TRUE(t.GMT_fromUnixTime(784111777));
    EXPECT_EQ(t.strftime(std::string(300, 'x').c_str()).size(), 300u) << "the buffer grows";
    EXPECT_EQ(t.strftime(""), "");

    Str asctime;
    Timeval(0, 5)._printAsctime(&asctime);
    Timeval::max()._printAsctime(&asctime);
    Timeval::min()._printAsctime(&asctime);
    EXPECT_EQ(asctime, "ZERO_TIMEMAX_TIMEMIN_TIME");

    PathnameOpResult failed{"rename a", false, ENOENT, 3, Timeval(0, 0), Timeval(0, 0)};
    Str text;
    append_stringified(&text, failed);
    EXPECT_EQ(text,
              "rename a failed in 3 attempt(s) made between ZERO_TIME and ZERO_TIME "
              "[status code: 2 description: \"No such file or directory\"]");
}

TEST(TimeFormat, JavaPatternsAndSerializedForms) {
    // Format and its Java pattern, "" when there is none.
    const std::pair<const char*, const char*> cases[] = {
        {"%Y-%m-%d %H:%M:%S.%3N", "yyyy-MM-dd HH:mm:ss.SSS"},
        {"%a, %d %b %Y %H:%M:%S %Z", "E, dd MMM yyyy HH:mm:ss zzz"},
        {"%-d/%-m %I %p %z", "d/M hh a Z"},
        {"%e", ""},
        {"%P", ""},
        {"%j", ""},
        {"T%H at %M", "'T'HH 'at' mm"},
    };
    for (auto [format, want] : cases) {
        Str java("junk");
        EXPECT_EQ(toJavaTimeFormat(TimeFormat(format), java), *want != 0) << format;
        EXPECT_EQ(java, want) << format;
    }
    SDSTimeFormat sds;
    EXPECT_TRUE(mem_parse_into("%UT%Q", 5, &sds));
    EXPECT_EQ(sds, SDS_UT_Q);
    EXPECT_TRUE(mem_parse_into("%s.%6Qx", 7, &sds));
    EXPECT_EQ(sds, SDS_OTHER);
}

// Weekday and day of year from the fields, against the calendar's own
// arithmetic (GMT_fromUnixTime), over days from 1600 to 2400.
TEST(TimeFormat, RecomputedWeekdayAndDayOfYear) {
    for (int64_t day = -135140; day <= 157054; day += 3) {  // 3: every weekday comes round
        StructTm want;
        ASSERT_TRUE(want.GMT_fromUnixTime(long(day * 86400)));
        struct tm t = {};
        t.tm_year = want.tm_year, t.tm_mon = want.tm_mon, t.tm_mday = want.tm_mday;
        recompute_yday_and_wday(&t);
        ASSERT_EQ(t.tm_wday, want.tm_wday) << day;
        ASSERT_EQ(t.tm_yday, want.tm_yday) << day;
    }
}

}  // namespace
