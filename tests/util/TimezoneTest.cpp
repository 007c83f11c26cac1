// Time zones against outside oracles over checked-in TZif files
// (tests/data/tz, rebuilt by its `regenerate`): zdump for every transition,
// offset and abbreviation, Python's zoneinfo for conversions both ways;
// then the loaders' limits on crafted files, POSIX rules, packs, the
// serialized form, aliases and the cache. Nothing here reads the host's
// zones, /etc/localtime or TZ.

#include <gtest/gtest.h>

#include <sys/stat.h>
#include <unistd.h>

#include <algorithm>
#include <climits>
#include <cstdlib>
#include <map>
#include <optional>
#include <sstream>
#include <string>
#include <thread>
#include <vector>

#include "support/TestSupport.h"
#include "util/DateTime.h"
#include "util/LineReader.h"
#include "util/Timeval.h"
#include "util/Timezone.h"

namespace {

const std::string kData = TARVEX_SOURCE_DIR "/tests/data/tz";
const std::string kCases = TARVEX_SOURCE_DIR "/tests/data/TimezoneTest/";

std::unique_ptr<Timezone> load(const std::string& variant, const std::string& name) {
    auto tz = std::make_unique<Timezone>();
    EXPECT_TRUE(
        tz->fromExactZoneinfoPath(Pathname((kData + "/" + variant + "/" + name).c_str()), true))
        << variant << "/" << name;
    return tz;
}

std::unique_ptr<Timezone> posix(const char* text) {
    auto tz = std::make_unique<Timezone>();
    EXPECT_TRUE(tz->fromPosixString(text)) << text;
    return tz;
}

long utc(int y, int mo, int d, int h = 0, int mi = 0, int s = 0) {
    return long(daysFromCivil(y, unsigned(mo), unsigned(d)) * 86400 + h * 3600 + mi * 60 + s);
}

std::vector<std::string> lines(const std::string& text) {
    std::vector<std::string> out;
    std::istringstream in(text);
    for (std::string l; std::getline(in, l);) out.push_back(l);
    return out;
}

// Keeps the tests away from the host's zones: the checked-in fat files are
// the system zones, and no zone directory or TZ is set.
class TimezoneTest : public ::testing::Test {
protected:
    void SetUp() override {
        if (const char* tz = getenv("TZ")) _savedTz = tz;
        unsetenv("TZ");
        setTimezoneSystemPaths(Pathname((kData + "/zoneinfo").c_str()), Pathname("/nonexistent"));
        setupTimezoneSupport();
    }
    void TearDown() override {
        _savedTz ? setenv("TZ", _savedTz->c_str(), 1) : unsetenv("TZ");
        setTimezoneSystemPaths(Pathname(), Pathname());
        setupTimezoneSupport();
    }
    std::optional<std::string> _savedTz;
};

// ---------------------------------------------------------------- zdump

struct ZdumpLine {
    long ut;
    std::string wall;  // "Sun Mar 26 01:59:59 2000"
    std::string abbr;
    int isdst;
    long gmtoff;
};

std::vector<ZdumpLine> zdump(const std::string& zone, int from, int to) {
    const testsupport::ProcessResult r = testsupport::runProcess(
        {"/usr/bin/zdump", "-v", "-c", std::to_string(from) + "," + std::to_string(to), zone});
    EXPECT_EQ(r.exitStatus, 0) << r.err;
    std::vector<ZdumpLine> out;
    for (const std::string& l : lines(r.out)) {
        const size_t eq = l.find(" UT = ");
        if (eq == std::string::npos) continue;
        struct tm t = {};
        const char* ut = l.c_str() + zone.size() + 2;
        EXPECT_NE(strptime(ut, "%a %b %d %H:%M:%S %Y", &t), nullptr) << l;
        ZdumpLine z;
        z.ut = long(timegm(&t));
        const std::string rest = l.substr(eq + 6);  // wall abbr isdst=N gmtoff=N
        const size_t isdstAt = rest.find(" isdst="), abbrAt = rest.rfind(' ', isdstAt - 1);
        z.abbr = rest.substr(abbrAt + 1, isdstAt - abbrAt - 1);
        z.wall = rest.substr(0, abbrAt);
        sscanf(rest.c_str() + isdstAt, " isdst=%d gmtoff=%ld", &z.isdst, &z.gmtoff);
        out.push_back(z);
    }
    return out;
}

// Each instant zdump lists, on both sides of each transition, must read the
// same in our zone; and we must change nowhere else inside the range.
// Before the first transition the first transition's type serves here,
// where zdump uses the file's type 0 (LMT, mostly): those instants are left
// out.
void checkAgainstZdump(const Timezone& tz, const std::string& zdumpName, int from, int to) {
    std::vector<ZdumpLine> expected = zdump(zdumpName, from, to);
    const long first = tz.timecnt() == 0 ? LONG_MIN : long(tz.transitionTime(0));
    std::erase_if(expected, [&](const ZdumpLine& z) { return z.ut <= first; });
    ASSERT_GT(expected.size(), 0u);
    for (const ZdumpLine& z : expected) {
        StructTmInTimezone t(&tz);
        ASSERT_TRUE(t.fromUnixTime(z.ut));
        EXPECT_EQ(t.tm_gmtoff, z.gmtoff) << z.wall;
        EXPECT_EQ(t.tm_isdst, z.isdst) << z.wall;
        EXPECT_STREQ(t.tm_zone, z.abbr.c_str()) << z.wall;
        char wall[64];
        strftime(wall, sizeof wall, "%a %b %e %H:%M:%S %Y", &t);
        EXPECT_EQ(wall, z.wall) << z.ut;
    }
    const long lo = utc(from, 1, 1), hi = utc(to, 1, 1);
    size_t changes = 0;
    for (uint32_t i = 1; i < tz.timecnt(); i++) {
        const long at = long(tz.transitionTime(i));
        if (at < lo || at >= hi) continue;
        const TimezoneOffset &a = tz.typeAt(i - 1), &b = tz.typeAt(i);
        if (a.utoff != b.utoff || a.isDst != b.isDst ||
            strcmp(tz.abbreviation(a), tz.abbreviation(b)) != 0)
            changes++;
    }
    EXPECT_EQ(changes * 2, expected.size()) << zdumpName;
}

const char* const kZones[] = {
    "Asia/Gaza",    "America/Nuuk",     "Australia/Lord_Howe", "Pacific/Chatham",   "Europe/Dublin",
    "Europe/Paris", "America/New_York", "Asia/Jerusalem",      "America/Sao_Paulo", "Test/Late"};

// Truncated tables are checked only inside their range.
TEST_F(TimezoneTest, FatSlimAndTruncatedFilesMatchZdump) {
    for (auto [variant, from, to] :
         {std::tuple{"zoneinfo", 1900, 2100}, std::tuple{"slim", 1900, 2100},
          std::tuple{"truncated", 2001, 2029}}) {
        for (const char* name : kZones) {
            SCOPED_TRACE(std::string(variant) + "/" + name);
            checkAgainstZdump(*load(variant, name), kData + "/" + variant + "/" + name, from, to);
        }
    }
}

TEST_F(TimezoneTest, PosixStringsMatchZdumpFrom1970) {
    for (const char* r :
         {"EST5EDT,M3.2.0,M11.1.0", "<-02>2<-01>,M3.5.0/-1,M10.5.0/0",
          "EET-2EEST,M3.4.4/50,M10.4.4/50", "IST-1GMT0,M10.5.0,M3.5.0/1",
          "<+1030>-10:30<+11>-11,M10.1.0,M4.1.0", "<+1245>-12:45<+1345>,M9.5.0/2:45,M4.1.0/3:45",
          "CCC-5DDD,60/1:30,300", "AAA3BBB,M3.5.0/167,M10.5.0/-167"}) {
        SCOPED_TRACE(r);
        checkAgainstZdump(*posix(r), r, 1970, 2100);
    }
}

// ---------------------------------------------------------------- Python's zoneinfo

std::vector<std::string> python(const std::string& mode, const std::string& path,
                                const std::vector<std::string>& inputs) {
    testsupport::ScratchDir dir;
    std::string text;
    for (const std::string& s : inputs) text += s + "\n";
    testsupport::writeFile(dir / "in", text);
    const testsupport::ProcessResult r = testsupport::runProcess(
        {"/usr/bin/env", "python3", kData + "/zone_oracle.py", mode, path, dir / "in"});
    EXPECT_EQ(r.exitStatus, 0) << r.err;
    std::vector<std::string> out = lines(r.out);
    EXPECT_EQ(out.size(), inputs.size());
    out.resize(inputs.size());
    return out;
}

TEST_F(TimezoneTest, ConversionsMatchPythonZoneinfo) {
    for (const char* name : {"Europe/Dublin", "Australia/Lord_Howe", "America/Nuuk",
                             "Pacific/Chatham", "Asia/Gaza", "America/Sao_Paulo"}) {
        SCOPED_TRACE(name);
        const std::string path = kData + "/zoneinfo/" + name;
        const auto tz = load("zoneinfo", name);
        // Each side of every transition; zdump has checked these instants'
        // fields. (Before the first transition Python uses type 0.)
        const long from = std::max(long(tz->transitionTime(0)) + 1, utc(1900, 1, 1));
        const long to = utc(2100, 1, 1);
        std::vector<long> times;
        for (uint32_t i = 1; i < tz->timecnt(); i++) {
            const long at = long(tz->transitionTime(i));
            if (at > from && at < to) times.insert(times.end(), {at - 1, at});
        }
        // Wall times: a sweep in 20-minute steps across each transition,
        // where gaps and repeats live.
        std::vector<std::string> walls;
        char buf[96];
        for (size_t i = 0; i < times.size(); i++) {
            StructTmInTimezone t(tz.get());
            ASSERT_TRUE(t.fromUnixTime(times[i]));
            // Back again, unless the local time repeats between two types of
            // the same kind: that has no answer.
            StructTmInTimezone s = t;
            if (const long back = s.toUnixTime(); back != times[i]) {
                Timezone::reverse_search_result_type_t r;
                const uint32_t k = tz->reverseSearchAt(times[i] + t.tm_gmtoff, &r);
                EXPECT_EQ(back, -1) << times[i];
                EXPECT_EQ(r, Timezone::MIGHT_ALSO_BE_NEXT_INDEX) << times[i];
                EXPECT_EQ(tz->typeAt(k).isDst, tz->typeAt(k + 1).isDst) << times[i];
            }
            for (int step = -4; step <= 4; step++) {
                GmtStructTm w;
                w.GMT_fromUnixTime(times[i] + t.tm_gmtoff + step * 1200);
                snprintf(buf, sizeof buf, "%d %d %d %d %d 0", w.tm_year + 1900, w.tm_mon + 1,
                         w.tm_mday, w.tm_hour, w.tm_min);
                walls.push_back(buf);
            }
        }
        const std::vector<std::string> instants = python("locals", path, walls);
        for (size_t i = 0; i < walls.size(); i++) {
            long e0, e1;
            int ok0, ok1;
            ASSERT_EQ(sscanf(instants[i].c_str(), "%ld %ld %d %d", &e0, &e1, &ok0, &ok1), 4);
            StructTmInTimezone t(tz.get());
            sscanf(walls[i].c_str(), "%d %d %d %d %d %d", &t.tm_year, &t.tm_mon, &t.tm_mday,
                   &t.tm_hour, &t.tm_min, &t.tm_sec);
            t.tm_year -= 1900, t.tm_mon -= 1, t.tm_isdst = -1;
            StructTmInTimezone copy = t;
            const long unknownDst = copy.toUnixTime();
            // In a gap: -1; one answer: that one; repeated: -1, and tm_isdst
            // picks one of the two instants if the two sides differ in it.
            const bool repeated = ok0 && ok1 && e0 != e1;
            EXPECT_EQ(unknownDst, repeated || (!ok0 && !ok1) ? -1 : ok0 ? e0 : e1) << walls[i];
            for (int isdst = 0; repeated && isdst <= 1; isdst++) {
                copy = t;
                copy.tm_isdst = isdst;
                const long got = copy.toUnixTime();
                if (got == -1) continue;  // both sides of the same kind
                EXPECT_TRUE(got == e0 || got == e1) << walls[i];
                StructTmInTimezone back(tz.get());
                back.fromUnixTime(got);
                EXPECT_EQ(back.tm_isdst, isdst) << walls[i];
            }
        }
    }
}

// ---------------------------------------------------------------- edges of conversion

TEST_F(TimezoneTest, GapsRepeatsAndTheDayBeforeTheEpoch) {
    const auto paris = load("zoneinfo", "Europe/Paris");
    StructTmInTimezone t(paris.get());
    // 2021-03-28 02:30 doesn't exist; the gap ends at 01:00 UTC.
    GmtStructTm g;
    g.GMT_fromUnixTime(utc(2021, 3, 28, 2, 30));
    static_cast<struct tm&>(t) = g;
    t.tm_isdst = -1;
    EXPECT_EQ(t.toUnixTime(), -1);
    EXPECT_EQ(t.tm_isdst, -1);
    EXPECT_EQ(t.nextValidUnixTime(), utc(2021, 3, 28, 1));
    EXPECT_TRUE(t.isAtTransitionTime());
    // Fields out of range are carried over as timegm does, and written back.
    t = StructTmInTimezone(paris.get());
    t.tm_year = 121, t.tm_mon = 0, t.tm_mday = 32, t.tm_hour = 24, t.tm_min = 59, t.tm_sec = 60,
    t.tm_isdst = -1;
    EXPECT_EQ(t.toUnixTime(), utc(2021, 2, 2, 0, 0));
    EXPECT_EQ(t.strftime("%F %T %a %j %Z"), "2021-02-02 01:00:00 Tue 033 CET");
    // One second before the epoch in a zone at offset 0.
    StructTmInTimezone z(getGmtTimezone());
    ASSERT_TRUE(z.fromUnixTime(-1));
    EXPECT_EQ(z.strftime("%Y-%m-%d %H:%M:%S %a %j"), "1969-12-31 23:59:59 Wed 365");
    EXPECT_EQ(z.toUnixTime(), -1);  // a real time here
    Timeval tv;
    EXPECT_TRUE(tv.set(z));
    EXPECT_EQ(tv.sec(), -1);
    GmtStructTm far;
    EXPECT_FALSE(far.GMT_fromUnixTime(32535244800));
    EXPECT_TRUE(far.GMT_fromUnixTime(32535244799));
    // Saturation: the sum stops at the limit and the calendar refuses it.
    StructTmInTimezone east(paris.get());
    EXPECT_FALSE(east.fromUnixTime(LONG_MAX));
    const auto ny = load("zoneinfo", "America/New_York");
    StructTmInTimezone west(ny.get());
    EXPECT_FALSE(west.fromUnixTime(LONG_MIN));
}

TEST_F(TimezoneTest, EmptyTableAndConstantOffsets) {
    auto tz = posix("<+03>-3");
    EXPECT_EQ(tz->timecnt(), 0u);
    EXPECT_EQ(tz->searchAt(123456789), 0u);
    EXPECT_EQ(tz->constantOffsetValue(), 10800);
    StructTmInTimezoneHires t(tz.get());
    Timeval tv(utc(2024, 2, 29, 21, 0, 0), 250000);
    ASSERT_TRUE(tv.gmtime(&t));
    Str out;
    t.appendFtime(out, TimeFormat("%Y-%m-%d %H:%M:%S.%Q %Z %z"));
    EXPECT_EQ(out, "2024-03-01 00:00:00.250 +03 +0300");
    Timeval back;
    ASSERT_TRUE(back.set(t));
    EXPECT_EQ(back, tv);
    EXPECT_EQ(tz->estimatedTzVariable(0, true), "UTC-3");
    EXPECT_EQ(tz->estimatedTzVariable(0, false), "<+03>-3");

    const auto paris = load("zoneinfo", "Europe/Paris");
    const auto dublin = load("zoneinfo", "Europe/Dublin");
    EXPECT_EQ(paris->offsetSeconds(true), 7200);
    EXPECT_EQ(dublin->offsetSeconds(true), 0);  // winter is the daylight side there
    EXPECT_EQ(paris->constantOffset(utc(2021, 1, 1), utc(2021, 3, 28)), 3600);
    EXPECT_EQ(paris->constantOffset(utc(2021, 1, 1), utc(2021, 3, 28, 1)), Timezone::NOT_CONSTANT);
    EXPECT_FALSE(paris->isSimilarTo(*dublin, utc(2021, 1, 1)));
}

TEST_F(TimezoneTest, RenderingAskTheZone) {
    const auto lh = load("zoneinfo", "Australia/Lord_Howe");
    StructTmInTimezone t(lh.get());
    ASSERT_TRUE(t.fromUnixTime(utc(2024, 1, 1)));
    // With tm_isdst unknown the zone's reverse search answers the offset
    // (%Z and %z with it known: EmptyTableAndConstantOffsets).
    t.tm_isdst = -1;
    Str out;
    t.appendFtime(out, TimeFormat("%Z %z %s"));
    EXPECT_EQ(out, " +1100 1704067200");  // no name without tm_isdst
}

// ---------------------------------------------------------------- POSIX rules

TEST_F(TimezoneTest, PosixRuleEdges) {
    // J60: 29 February in a leap year, 2 March in others (as required).
    auto j = posix("AAA3BBB,J60/0,J300/0");
    EXPECT_EQ(j->transitionTime(2 * (2024 - 1970)), utc(2024, 2, 29, 3));
    EXPECT_EQ(j->transitionTime(2 * (2023 - 1970)), utc(2023, 3, 2, 3));
    // Day 365 of a common year is its last day.
    auto n = posix("AAA0BBB,59,365/0");
    EXPECT_EQ(n->transitionTime(2 * (2023 - 1970) + 1), utc(2023, 12, 31, -1));
    // A southern zone: the end of daylight time comes first in the year.
    auto south = posix("<+1030>-10:30<+11>-11,M10.1.0,M4.1.0");
    EXPECT_FALSE(south->typeAt(2 * (2024 - 1970)).isDst);
    EXPECT_TRUE(south->typeAt(2 * (2024 - 1970) + 1).isDst);
    EXPECT_EQ(south->transitionTime(2 * (2024 - 1970)), utc(2024, 4, 7, 2) - 11 * 3600);

    for (const char* bad : {"", "5", "EST", "EST5EDT,M3.2.0", "A24", "A5B,M13.1.0,M1.1.0",
                            "A5B,M3.6.0,M1.1.0", "A5B,J0,J5", "A5B,366,4", "A5B,M3.2.0/168,M11.1.0",
                            "<>5", "A5B,M3.2.0,M11.1.0x", "A5:60", "A5B4x"}) {
        Timezone tz;
        EXPECT_FALSE(tz.fromPosixString(bad)) << bad;
    }
}

TEST_F(TimezoneTest, RulelessDstUsesPosixrulesOrTheUsDefault) {
    // The slim root has no posixrules: the 2007 US rules hold for every year.
    setTimezoneSystemPaths(Pathname((kData + "/slim").c_str()), Pathname("/nonexistent"));
    auto fallback = posix("EST5EDT");
    auto explicitRules = posix("EST5EDT,M3.2.0/2,M11.1.0/2");
    EXPECT_TRUE(fallback->isSimilarTo(*explicitRules, utc(2000, 1, 1)));
    // With posixrules (New York's table) the older rules come back, moved to
    // the new offsets: in 2000 DST began on 2 April at 02:00 local.
    setTimezoneSystemPaths(Pathname((kData + "/zoneinfo").c_str()), Pathname("/nonexistent"));
    auto rebased = posix("XST7XDT");
    StructTmInTimezone t(rebased.get());
    for (auto [at, dst] : {std::pair{utc(2000, 4, 2, 9) - 1, 0}, std::pair{utc(2000, 4, 2, 9), 1},
                           std::pair{utc(2024, 3, 10, 9), 1}, std::pair{utc(2024, 11, 3, 8), 0}}) {
        ASSERT_TRUE(t.fromUnixTime(at));
        EXPECT_EQ(t.tm_isdst, dst) << at;
        EXPECT_STREQ(t.tm_zone, dst ? "XDT" : "XST");
        EXPECT_EQ(t.tm_gmtoff, dst ? -6 * 3600 : -7 * 3600);
    }
}

TEST_F(TimezoneTest, EstimatedTzVariableReproducesTheYear) {
    for (const char* name : {"Europe/Paris", "Europe/Dublin", "Australia/Lord_Howe", "America/Nuuk",
                             "Pacific/Chatham", "Asia/Gaza"}) {
        const auto tz = load("zoneinfo", name);
        const long now = utc(2025, 7, 1);
        const Str text = tz->estimatedTzVariable(now, false);
        SCOPED_TRACE(std::string(name) + " " + text);
        const auto estimate = posix(text.c_str());
        for (long t = now - 150 * 86400; t < now + 150 * 86400; t += 3600) {
            const TimezoneOffset& a = tz->typeAt(tz->searchAt(t));
            const TimezoneOffset& b = estimate->typeAt(estimate->searchAt(t));
            ASSERT_EQ(a.utoff, b.utoff) << t;
            ASSERT_STREQ(tz->abbreviation(a), estimate->abbreviation(b)) << t;
        }
    }
}

// ---------------------------------------------------------------- crafted TZif files

struct CraftedType {
    int32_t utoff;
    uint8_t isDst, nameIndex;
};

void put32(std::string& s, uint32_t v) {
    for (int i = 3; i >= 0; i--) s.push_back(char(v >> (8 * i)));
}

// A TZif file: an empty version-1 block, then the 64-bit block, then the
// footer as given (without its line feeds when `footer` is null).
std::string tzif(char version, const std::vector<int64_t>& times,
                 const std::vector<uint8_t>& indices, const std::vector<CraftedType>& types,
                 const std::string& chars, const char* footer, uint32_t leapcnt = 0) {
    std::string s;
    auto header = [&](uint32_t timecnt, uint32_t typecnt, uint32_t charcnt, uint32_t leaps) {
        s += std::string("TZif") + version + std::string(15, '\0');
        put32(s, 0), put32(s, 0), put32(s, leaps), put32(s, timecnt), put32(s, typecnt);
        put32(s, charcnt);
    };
    header(0, 0, 0, 0);
    header(uint32_t(times.size()), uint32_t(types.size()), uint32_t(chars.size()), leapcnt);
    for (int64_t t : times) put32(s, uint32_t(uint64_t(t) >> 32)), put32(s, uint32_t(t));
    for (uint8_t i : indices) s.push_back(char(i));
    for (const CraftedType& t : types)
        put32(s, uint32_t(t.utoff)), s += {char(t.isDst), char(t.nameIndex)};
    s += chars;
    s.append(leapcnt * 12, '\0');
    if (footer != nullptr) s += std::string("\n") + footer + "\n";
    return s;
}

bool loads(Timezone& tz, const std::string& data) {
    return tz.fromZoneinfoData(data.data(), data.size(), true);
}

TEST_F(TimezoneTest, ZoneinfoLimitsAndFooters) {
    const std::vector<CraftedType> two = {{3600, 0, 0}, {7200, 1, 4}};
    const std::string names("CET\0CEST\0", 9);
    Timezone tz;
    // Footer after a short table: appended past the table's end.
    ASSERT_TRUE(loads(tz, tzif('2', {0, 100}, {0, 1}, two, names, "CET-1CEST,M3.5.0,M10.5.0/3")));
    EXPECT_EQ(tz.typecnt(), 4u);
    EXPECT_GT(tz.timecnt(), 1000u);
    EXPECT_STREQ(tz.abbreviation(tz.typeAt(tz.searchAt(utc(2300, 7, 1)))), "CEST");
    // Footers ignored, the load succeeding all the same.
    for (const char* footer :
         std::initializer_list<const char*>{"", "<+03>-3", "garbage,,", nullptr}) {
        ASSERT_TRUE(loads(tz, tzif('3', {0, 100}, {0, 1}, two, names, footer))) << footer;
        EXPECT_EQ(tz.timecnt(), 2u) << (footer ? footer : "none");
    }
    // A full table gets no footer transitions.
    std::vector<int64_t> times;
    std::vector<uint8_t> idx;
    for (int i = 0; i < 1200; i++) times.push_back(i * 1000), idx.push_back(uint8_t(i & 1));
    ASSERT_TRUE(loads(tz, tzif('2', times, idx, two, names, "CET-1CEST,M3.5.0,M10.5.0/3")));
    EXPECT_EQ(tz.timecnt(), 1200u);
    // A backward step ends the table there.
    ASSERT_TRUE(loads(tz, tzif('2', {0, 100, 50, 200}, {0, 1, 0, 1}, two, names, nullptr)));
    EXPECT_EQ(tz.timecnt(), 2u);
    // Limits and malformed pieces.
    times.push_back(1200000), idx.push_back(0);
    const std::string tooLongName(271, 'A');
    const std::pair<std::string, const char*> bad[] = {
        {tzif('1', {}, {}, two, names, nullptr), "version 1"},
        {tzif('2', times, idx, two, names, nullptr), "1201 transitions"},
        {tzif('2', {}, {}, std::vector<CraftedType>(257, {0, 0, 0}), names, nullptr), "257 types"},
        {tzif('2', {}, {}, two, tooLongName, nullptr), "271 name bytes"},
        {tzif('2', {}, {}, two, names, nullptr, 501), "501 leap seconds"},
        {tzif('2', {0}, {2}, two, names, nullptr), "type index past the types"},
        {tzif('2', {}, {}, {{0, 2, 0}}, names, nullptr), "isdst 2"},
        {tzif('2', {}, {}, {{0, 0, 9}}, names, nullptr), "name index past the names"},
        {tzif('2', {0, 100}, {0, 1}, two, names, nullptr).substr(0, 120), "cut short"},
    };
    for (const auto& [data, why] : bad) EXPECT_FALSE(loads(tz, data)) << why;
}

TEST_F(TimezoneTest, AncientHeaderlessData) {
    std::string s(32, '\0');
    put32(s, 2), put32(s, 2), put32(s, 9);  // times, types, name bytes
    put32(s, uint32_t(-100)), put32(s, 1000);
    s.push_back(1), s.push_back(0);
    put32(s, 3600), s.push_back(0), s.push_back(0);
    put32(s, 7200), s.push_back(1), s.push_back(4);
    s.append("CET\0CEST\0", 9);
    Timezone tz;
    ASSERT_TRUE(tz.fromAncientZoneinfoData(s.data(), s.size()));
    EXPECT_EQ(tz.timecnt(), 2u);
    EXPECT_STREQ(tz.abbreviation(tz.typeAt(tz.searchAt(0))), "CEST");
    EXPECT_FALSE(tz.fromAncientZoneinfoData(s.data(), s.size() - 1));
}

// ---------------------------------------------------------------- names, packs, files

// A pack of the given (name, data) entries, sorted as the lookup wants.
std::string pack(std::map<std::string, std::string> entries) {
    std::string s = "TarvexTZpk1!";
    put32(s, uint32_t(entries.size()));
    std::string names;
    const size_t namesAt = 16 * (entries.size() + 1);
    size_t dataAt = namesAt;
    for (const auto& e : entries) dataAt += e.first.size() + 1;
    dataAt = (dataAt + 15) / 16 * 16;
    std::string data;
    for (const auto& e : entries) {
        put32(s, uint32_t(namesAt + names.size())), put32(s, uint32_t((dataAt + data.size()) / 16));
        put32(s, uint32_t(e.second.size())), put32(s, 0);
        names += e.first + '\0';
        data += e.second;
        data.append((16 - data.size() % 16) % 16, '\0');
    }
    s += names;
    s.append(dataAt - s.size(), '\0');
    return s + data;
}

TEST_F(TimezoneTest, ZoneDirectoryPacksAndCleanedNames) {
    testsupport::ScratchDir dir;
    const std::string paris = testsupport::readFile(kData + "/zoneinfo/Europe/Paris");
    const std::string dublin = testsupport::readFile(kData + "/zoneinfo/Europe/Dublin");
    // A climbing name is cleaned and stays inside the directory.
    ASSERT_EQ(system(("mkdir -p '" + dir / "zones/_._/_._/etc" + "'").c_str()), 0);
    testsupport::writeFile(dir / "zones/_._/_._/etc/passwd", paris);
    testsupport::writeFile(
        dir / "zones.tzpack",
        pack({{"europe/dublin", dublin}, {"europe/paris", paris}, {"zz/last", dublin}}));
    setupTimezoneSupport(Pathname((dir / "zones").c_str()));
    Timezone tz;
    ASSERT_TRUE(tz.fromZoneinfoPath("../../etc/passwd", true));
    EXPECT_EQ(tz.srcName(), "_._/_._/etc/passwd");
    for (const char* name : {"Europe/Dublin", "EUROPE/DUBLIN", "zz/last"}) {
        ASSERT_TRUE(tz.fromZoneinfoPath(name, true)) << name;
        EXPECT_STREQ(tz.abbreviation(tz.typeAt(tz.searchAt(utc(2024, 1, 1)))), "GMT") << name;
    }
    EXPECT_EQ(tz.srcName(), "zz/last");
    // Past the directory and the pack: the system root.
    ASSERT_TRUE(tz.fromZoneinfoPath("Asia/Kolkata", true));
    EXPECT_EQ(tz.constantOffsetValue(), 19800);
    EXPECT_FALSE(tz.fromZoneinfoPath("Europe/Nowhere", true));
    EXPECT_FALSE(tz.fromZoneinfoPath("///", true));
    // Only regular files are read: a FIFO would block the load for good.
    ASSERT_EQ(mkfifo((dir / "zones/Fifo").c_str(), 0644), 0);
    EXPECT_FALSE(tz.fromZoneinfoPath("Fifo", true));

    // Broken packs fail.
    std::string good = pack({{"a", paris}});
    const std::pair<std::string, const char*> bad[] = {
        {good.substr(0, 15), "short"},
        {"X" + good.substr(1), "magic"},
        {good.substr(0, 12) + std::string("\0\0\0\0", 4) + good.substr(16), "no entries"},
        {good.substr(0, 16) + std::string("\0\0\xff\xff", 4) + good.substr(20), "name offset"},
        {good.substr(0, 20) + std::string("\0\0\xff\xff", 4) + good.substr(24), "data offset"},
        {good.substr(0, good.size() - 16), "data past the end"},
    };
    for (const auto& [data, why] : bad) {
        testsupport::writeFile(dir / "bad.tzpack", data);
        EXPECT_FALSE(tz.fromPackedZoneinfoPath(Pathname((dir / "bad.tzpack").c_str()), "a", true))
            << why;
    }
    testsupport::writeFile(dir / "bad.tzpack", pack({{"b/c", paris}}));
    EXPECT_TRUE(tz.fromPackedZoneinfoPath(Pathname((dir / "bad.tzpack").c_str()), "B\\C", true));
}

TEST_F(TimezoneTest, LocaltimeNameFromItsLink) {
    testsupport::ScratchDir dir;
    ASSERT_EQ(symlink((kData + "/zoneinfo/Europe/Paris").c_str(), (dir / "localtime").c_str()), 0);
    // "localtime" and TZ unset: the default zone comes from the link.
    setTimezoneSystemPaths(Pathname((kData + "/zoneinfo").c_str()), Pathname(dir.path().c_str()));
    setupTimezoneSupport();
    EXPECT_EQ(getDefaultTimezone()->srcName(), "Europe/Paris");
    setenv("TZ", "Pacific/Chatham", 1);
    setupTimezoneSupport();
    EXPECT_EQ(getDefaultTimezone()->srcName(), "Pacific/Chatham");
    const Str& text = getDefaultTimezoneSerialized();
    EXPECT_EQ(text.rfind("### SERIALIZED TIMEZONE FORMAT 1.0\n", 0), 0u);
    EXPECT_EQ(&getDefaultTimezoneSerialized(), &text);
}

// ---------------------------------------------------------------- serialized form

Str serialized(const Timezone* tz) {
    StrVector v;
    serializeTimezone(tz, v, 30);
    Str s;
    for (const Str& l : v) s += l + "\n";
    return s;
}

TEST_F(TimezoneTest, SerializeAndRevive) {
    for (const char* name : {"Europe/Dublin", "Asia/Kolkata", "Test/Plus3", "Asia/Gaza"}) {
        SCOPED_TRACE(name);
        const auto tz = load("zoneinfo", name);
        const Str text = serialized(tz.get());
        StringLineReader r1(text), r2(text);
        const Timezone* a = resurrectTimezone(r1);
        ASSERT_NE(a, nullptr);
        EXPECT_EQ(resurrectTimezone(r2), a);  // equal content, one object
        const long now = long(time(nullptr));
        for (long t = now - 86400L * 3000; t < now + 86400L * 3000; t += 86400 * 7) {
            ASSERT_EQ(a->typeAt(a->searchAt(t)).utoff, tz->typeAt(tz->searchAt(t)).utoff) << t;
        }
    }
    // Cases in the data file: a "== ok" or "== bad" line, then the lines.
    std::vector<std::pair<std::string, StrVector>> cases;
    for (const std::string& l : lines(testsupport::readFile(kCases + "serialized"))) {
        if (l.rfind("==", 0) == 0)
            cases.push_back({l, {}});
        else if (!cases.empty())
            cases.back().second.push_back(l.c_str());
    }
    ASSERT_EQ(cases.size(), 15u);
    for (const auto& [verdict, v] : cases) {
        Timezone tz;
        EXPECT_EQ(tz.setFromSerializedData(v), verdict.rfind("== ok", 0) == 0) << verdict;
    }
    StringLineReader noHeader(StrSegment("C0\nY0 NW\n$", 10));
    EXPECT_EQ(resurrectTimezone(noHeader), nullptr);
}

// ---------------------------------------------------------------- aliases and the cache

TEST_F(TimezoneTest, Aliases) {
    // name TAB zone, "-" for none
    size_t checked = 0;
    for (const std::string& l : lines(testsupport::readFile(kCases + "aliases"))) {
        if (l[0] == '#') continue;
        const size_t tab = l.find('\t');
        const char* got = timezoneAlias(l.substr(0, tab).c_str());
        EXPECT_EQ(got == nullptr ? "-" : got, l.substr(tab + 1)) << l;
        checked++;
    }
    EXPECT_EQ(checked, 22u);
}

TEST_F(TimezoneTest, CacheAliasesAndFailures) {
    const Timezone* paris = getTimezone("Europe/Paris", true);
    ASSERT_NE(paris, nullptr);
    EXPECT_EQ(getTimezone("Romance Standard Time", true), paris);
    EXPECT_EQ(getTimezone("Romance Standard Time", false), paris);  // cached under its name
    EXPECT_EQ(getTimezone("", false)->srcName(), "GMT");
    EXPECT_EQ(getTimezone(":Europe/Paris", false)->srcName(), "Europe/Paris");

    // A failed name stays failed while the set holds it.
    testsupport::ScratchDir dir;
    setupTimezoneSupport(Pathname(dir.path().c_str()));
    EXPECT_EQ(getTimezone("Late/Comer", false), nullptr);
    ASSERT_EQ(mkdir((dir / "Late").c_str(), 0755), 0);
    testsupport::writeFile(dir / "Late/Comer",
                           testsupport::readFile(kData + "/zoneinfo/Europe/Paris"));
    EXPECT_EQ(getTimezone("Late/Comer", false), nullptr);
    for (int i = 0; i <= 2048; i++) getTimezone((std::to_string(i) + "No/Such").c_str(), false);
    EXPECT_NE(getTimezone("Late/Comer", false), nullptr);
}

TEST_F(TimezoneTest, CacheUnderThreads) {
    const char* const names[] = {"Europe/Dublin", "Asia/Gaza", "America/Nuuk",
                                 "Irish Standard Time", "EST5EDT,M3.2.0,M11.1.0"};
    const Str text = serialized(load("zoneinfo", "Asia/Gaza").get());
    std::vector<std::vector<const Timezone*>> seen(4);
    std::vector<std::thread> threads;
    for (int k = 0; k < 4; k++) {
        threads.emplace_back([&, k] {
            for (int round = 0; round < 50; round++) {
                for (const char* n : names) seen[k].push_back(getTimezone(n, true));
                StringLineReader r(text);
                seen[k].push_back(resurrectTimezone(r));
            }
        });
    }
    for (std::thread& t : threads) t.join();
    // One object per name, whichever thread and round asked.
    for (size_t i = 0; i < 6; i++) EXPECT_NE(seen[0][i], nullptr) << i;
    for (const auto& s : seen)
        for (size_t i = 0; i < s.size(); i++) EXPECT_EQ(s[i], seen[0][i % 6]) << i;
    EXPECT_EQ(seen[0][0], seen[0][3]);  // the alias and its target: one zone
}

TEST_F(TimezoneTest, UserSpecifier) {
    setenv("TZ", "Europe/Paris", 1);
    setupTimezoneSupport();
    UserTimezoneSpecifier u;
    u.set("Irish Standard Time");
    Pathname guess;
    EXPECT_TRUE(u.guessTzVariableImpl(&guess, false));
    EXPECT_EQ(guess, "Europe/Dublin");
    u.set("Europe/Paris");  // the default's twin: nothing to guess
    EXPECT_FALSE(u.guessTzVariableImpl(&guess, false));
}

}  // namespace
