#include "util/TimeGuesser.h"

#include <algorithm>
#include <cstdlib>
#include <cstring>
#include <vector>

#include "libzero/assertion.h"
#include "util/Timezone.h"

namespace {

// ---------------------------------------------------------------- zone names

struct NamedOffset {
    const char* name;
    long offset;  // seconds east of UTC
};

// Abbreviations, sorted for a binary search.
constexpr NamedOffset kAbbreviations[] = {
    {"ACDT", 37800},  {"ACST", 34200},   {"ADT", -10800},  {"AEDT", 39600},  {"AEST", 36000},
    {"AKDT", -28800}, {"AKST", -32400},  {"AST", -14400},  {"AWDT", 32400},  {"AWST", 28800},
    {"BST", 3600},    {"CADT", 37800},   {"CAST", 34200},  {"CDT", -18000},  {"CEDT", 7200},
    {"CEST", 7200},   {"CET", 3600},     {"CETDST", 7200}, {"CST", -21600},  {"CXT", 25200},
    {"EADT", 39600},  {"EAST", 36000},   {"EDT", -14400},  {"EEDT", 10800},  {"EEST", 10800},
    {"EET", 7200},    {"EETDST", 10800}, {"EST", -18000},  {"GMT", 0},       {"HAA", -10800},
    {"HAC", -18000},  {"HADT", -32400},  {"HAE", -14400},  {"HAP", -25200},  {"HAR", -21600},
    {"HAST", -36000}, {"HAT", -9000},    {"HAY", -28800},  {"HDT", -32400},  {"HKT", 28800},
    {"HNA", -14400},  {"HNC", -21600},   {"HNE", -18000},  {"HNP", -28800},  {"HNR", -25200},
    {"HNT", -12600},  {"HNY", -32400},   {"HST", -36000},  {"IST", 19800},   {"JST", 32400},
    {"KST", 32400},   {"MDT", -21600},   {"MEST", 7200},   {"MESZ", 7200},   {"MET", 3600},
    {"METDST", 7200}, {"MEZ", 3600},     {"MSD", 14400},   {"MSK", 10800},   {"MST", -25200},
    {"NDT", -9000},   {"NFT", 41400},    {"NST", -12600},  {"PDT", -25200},  {"PST", -28800},
    {"ROK", 32400},   {"UT", 0},         {"UTC", 0},       {"WADT", 32400},  {"WAST", 28800},
    {"WEDT", 3600},   {"WEST", 3600},    {"WET", 0},       {"WETDST", 3600}, {"YDT", -28800},
    {"YST", -32400},  {"Z", 0},          {"ZULU", 0},
};
static_assert(sizeof kAbbreviations / sizeof kAbbreviations[0] == 78);

// Windows display names: the zones of CLDR's windowsZones.xml with their
// standard offsets, each daylight name an hour ahead.
constexpr NamedOffset kWindowsNames[] = {
    {"Dateline Standard Time", -43200},
    {"Dateline Daylight Time", -39600},
    {"Aleutian Standard Time", -36000},
    {"Aleutian Daylight Time", -32400},
    {"Hawaiian Standard Time", -36000},
    {"Hawaiian Daylight Time", -32400},
    {"Marquesas Standard Time", -34200},
    {"Marquesas Daylight Time", -30600},
    {"Alaskan Standard Time", -32400},
    {"Alaskan Daylight Time", -28800},
    {"Pacific Standard Time (Mexico)", -28800},
    {"Pacific Daylight Time (Mexico)", -25200},
    {"Pacific Standard Time", -28800},
    {"Pacific Daylight Time", -25200},
    {"US Mountain Standard Time", -25200},
    {"US Mountain Daylight Time", -21600},
    {"Mountain Standard Time (Mexico)", -25200},
    {"Mountain Daylight Time (Mexico)", -21600},
    {"Mountain Standard Time", -25200},
    {"Mountain Daylight Time", -21600},
    {"Yukon Standard Time", -25200},
    {"Yukon Daylight Time", -21600},
    {"Central America Standard Time", -21600},
    {"Central America Daylight Time", -18000},
    {"Central Standard Time", -21600},
    {"Central Daylight Time", -18000},
    {"Easter Island Standard Time", -21600},
    {"Easter Island Daylight Time", -18000},
    {"Central Standard Time (Mexico)", -21600},
    {"Central Daylight Time (Mexico)", -18000},
    {"Canada Central Standard Time", -21600},
    {"Canada Central Daylight Time", -18000},
    {"SA Pacific Standard Time", -18000},
    {"SA Pacific Daylight Time", -14400},
    {"Eastern Standard Time (Mexico)", -18000},
    {"Eastern Daylight Time (Mexico)", -14400},
    {"Eastern Standard Time", -18000},
    {"Eastern Daylight Time", -14400},
    {"Haiti Standard Time", -18000},
    {"Haiti Daylight Time", -14400},
    {"Cuba Standard Time", -18000},
    {"Cuba Daylight Time", -14400},
    {"US Eastern Standard Time", -18000},
    {"US Eastern Daylight Time", -14400},
    {"Turks And Caicos Standard Time", -18000},
    {"Turks And Caicos Daylight Time", -14400},
    {"Paraguay Standard Time", -14400},
    {"Paraguay Daylight Time", -10800},
    {"Atlantic Standard Time", -14400},
    {"Atlantic Daylight Time", -10800},
    {"Venezuela Standard Time", -14400},
    {"Venezuela Daylight Time", -10800},
    {"Central Brazilian Standard Time", -14400},
    {"Central Brazilian Daylight Time", -10800},
    {"SA Western Standard Time", -14400},
    {"SA Western Daylight Time", -10800},
    {"Pacific SA Standard Time", -14400},
    {"Pacific SA Daylight Time", -10800},
    {"Newfoundland Standard Time", -12600},
    {"Newfoundland Daylight Time", -9000},
    {"Tocantins Standard Time", -10800},
    {"Tocantins Daylight Time", -7200},
    {"E. South America Standard Time", -10800},
    {"E. South America Daylight Time", -7200},
    {"SA Eastern Standard Time", -10800},
    {"SA Eastern Daylight Time", -7200},
    {"Argentina Standard Time", -10800},
    {"Argentina Daylight Time", -7200},
    {"Greenland Standard Time", -10800},
    {"Greenland Daylight Time", -7200},
    {"Montevideo Standard Time", -10800},
    {"Montevideo Daylight Time", -7200},
    {"Magallanes Standard Time", -10800},
    {"Magallanes Daylight Time", -7200},
    {"Saint Pierre Standard Time", -10800},
    {"Saint Pierre Daylight Time", -7200},
    {"Bahia Standard Time", -10800},
    {"Bahia Daylight Time", -7200},
    {"Mid-Atlantic Standard Time", -7200},
    {"Mid-Atlantic Daylight Time", -3600},
    {"Azores Standard Time", -3600},
    {"Azores Daylight Time", 0},
    {"Cape Verde Standard Time", -3600},
    {"Cape Verde Daylight Time", 0},
    {"GMT Standard Time", 0},
    {"GMT Daylight Time", 3600},
    {"Greenwich Standard Time", 0},
    {"Greenwich Daylight Time", 3600},
    {"Sao Tome Standard Time", 0},
    {"Sao Tome Daylight Time", 3600},
    {"Morocco Standard Time", 3600},
    {"Morocco Daylight Time", 7200},
    {"W. Europe Standard Time", 3600},
    {"W. Europe Daylight Time", 7200},
    {"Central Europe Standard Time", 3600},
    {"Central Europe Daylight Time", 7200},
    {"Romance Standard Time", 3600},
    {"Romance Daylight Time", 7200},
    {"Central European Standard Time", 3600},
    {"Central European Daylight Time", 7200},
    {"W. Central Africa Standard Time", 3600},
    {"W. Central Africa Daylight Time", 7200},
    {"Jordan Standard Time", 7200},
    {"Jordan Daylight Time", 10800},
    {"GTB Standard Time", 7200},
    {"GTB Daylight Time", 10800},
    {"Middle East Standard Time", 7200},
    {"Middle East Daylight Time", 10800},
    {"Egypt Standard Time", 7200},
    {"Egypt Daylight Time", 10800},
    {"E. Europe Standard Time", 7200},
    {"E. Europe Daylight Time", 10800},
    {"Syria Standard Time", 7200},
    {"Syria Daylight Time", 10800},
    {"West Bank Standard Time", 7200},
    {"West Bank Daylight Time", 10800},
    {"South Africa Standard Time", 7200},
    {"South Africa Daylight Time", 10800},
    {"FLE Standard Time", 7200},
    {"FLE Daylight Time", 10800},
    {"Israel Standard Time", 7200},
    {"Israel Daylight Time", 10800},
    {"South Sudan Standard Time", 7200},
    {"South Sudan Daylight Time", 10800},
    {"Kaliningrad Standard Time", 7200},
    {"Kaliningrad Daylight Time", 10800},
    {"Sudan Standard Time", 7200},
    {"Sudan Daylight Time", 10800},
    {"Libya Standard Time", 7200},
    {"Libya Daylight Time", 10800},
    {"Namibia Standard Time", 7200},
    {"Namibia Daylight Time", 10800},
    {"Arabic Standard Time", 10800},
    {"Arabic Daylight Time", 14400},
    {"Turkey Standard Time", 10800},
    {"Turkey Daylight Time", 14400},
    {"Arab Standard Time", 10800},
    {"Arab Daylight Time", 14400},
    {"Belarus Standard Time", 10800},
    {"Belarus Daylight Time", 14400},
    {"Russian Standard Time", 10800},
    {"Russian Daylight Time", 14400},
    {"E. Africa Standard Time", 10800},
    {"E. Africa Daylight Time", 14400},
    {"Iran Standard Time", 12600},
    {"Iran Daylight Time", 16200},
    {"Arabian Standard Time", 14400},
    {"Arabian Daylight Time", 18000},
    {"Astrakhan Standard Time", 14400},
    {"Astrakhan Daylight Time", 18000},
    {"Azerbaijan Standard Time", 14400},
    {"Azerbaijan Daylight Time", 18000},
    {"Russia TZ 3 Standard Time", 14400},
    {"Russia TZ 3 Daylight Time", 18000},
    {"Mauritius Standard Time", 14400},
    {"Mauritius Daylight Time", 18000},
    {"Saratov Standard Time", 14400},
    {"Saratov Daylight Time", 18000},
    {"Georgian Standard Time", 14400},
    {"Georgian Daylight Time", 18000},
    {"Volgograd Standard Time", 14400},
    {"Volgograd Daylight Time", 18000},
    {"Caucasus Standard Time", 14400},
    {"Caucasus Daylight Time", 18000},
    {"Afghanistan Standard Time", 16200},
    {"Afghanistan Daylight Time", 19800},
    {"West Asia Standard Time", 18000},
    {"West Asia Daylight Time", 21600},
    {"Ekaterinburg Standard Time", 18000},
    {"Ekaterinburg Daylight Time", 21600},
    {"Pakistan Standard Time", 18000},
    {"Pakistan Daylight Time", 21600},
    {"Qyzylorda Standard Time", 18000},
    {"Qyzylorda Daylight Time", 21600},
    {"India Standard Time", 19800},
    {"India Daylight Time", 23400},
    {"Sri Lanka Standard Time", 19800},
    {"Sri Lanka Daylight Time", 23400},
    {"Nepal Standard Time", 20700},
    {"Nepal Daylight Time", 24300},
    {"Central Asia Standard Time", 21600},
    {"Central Asia Daylight Time", 25200},
    {"Bangladesh Standard Time", 21600},
    {"Bangladesh Daylight Time", 25200},
    {"Omsk Standard Time", 21600},
    {"Omsk Daylight Time", 25200},
    {"Myanmar Standard Time", 23400},
    {"Myanmar Daylight Time", 27000},
    {"SE Asia Standard Time", 25200},
    {"SE Asia Daylight Time", 28800},
    {"Altai Standard Time", 25200},
    {"Altai Daylight Time", 28800},
    {"W. Mongolia Standard Time", 25200},
    {"W. Mongolia Daylight Time", 28800},
    {"North Asia Standard Time", 25200},
    {"North Asia Daylight Time", 28800},
    {"N. Central Asia Standard Time", 25200},
    {"N. Central Asia Daylight Time", 28800},
    {"Tomsk Standard Time", 25200},
    {"Tomsk Daylight Time", 28800},
    {"China Standard Time", 28800},
    {"China Daylight Time", 32400},
    {"North Asia East Standard Time", 28800},
    {"North Asia East Daylight Time", 32400},
    {"Singapore Standard Time", 28800},
    {"Singapore Daylight Time", 32400},
    {"W. Australia Standard Time", 28800},
    {"W. Australia Daylight Time", 32400},
    {"Taipei Standard Time", 28800},
    {"Taipei Daylight Time", 32400},
    {"Ulaanbaatar Standard Time", 28800},
    {"Ulaanbaatar Daylight Time", 32400},
    {"Aus Central W. Standard Time", 31500},
    {"Aus Central W. Daylight Time", 35100},
    {"Transbaikal Standard Time", 32400},
    {"Transbaikal Daylight Time", 36000},
    {"Tokyo Standard Time", 32400},
    {"Tokyo Daylight Time", 36000},
    {"North Korea Standard Time", 32400},
    {"North Korea Daylight Time", 36000},
    {"Korea Standard Time", 32400},
    {"Korea Daylight Time", 36000},
    {"Yakutsk Standard Time", 32400},
    {"Yakutsk Daylight Time", 36000},
    {"Cen. Australia Standard Time", 34200},
    {"Cen. Australia Daylight Time", 37800},
    {"AUS Central Standard Time", 34200},
    {"AUS Central Daylight Time", 37800},
    {"E. Australia Standard Time", 36000},
    {"E. Australia Daylight Time", 39600},
    {"AUS Eastern Standard Time", 36000},
    {"AUS Eastern Daylight Time", 39600},
    {"West Pacific Standard Time", 36000},
    {"West Pacific Daylight Time", 39600},
    {"Tasmania Standard Time", 36000},
    {"Tasmania Daylight Time", 39600},
    {"Vladivostok Standard Time", 36000},
    {"Vladivostok Daylight Time", 39600},
    {"Lord Howe Standard Time", 37800},
    {"Lord Howe Daylight Time", 41400},
    {"Bougainville Standard Time", 39600},
    {"Bougainville Daylight Time", 43200},
    {"Russia TZ 10 Standard Time", 39600},
    {"Russia TZ 10 Daylight Time", 43200},
    {"Magadan Standard Time", 39600},
    {"Magadan Daylight Time", 43200},
    {"Norfolk Standard Time", 39600},
    {"Norfolk Daylight Time", 43200},
    {"Sakhalin Standard Time", 39600},
    {"Sakhalin Daylight Time", 43200},
    {"Central Pacific Standard Time", 39600},
    {"Central Pacific Daylight Time", 43200},
    {"Russia TZ 11 Standard Time", 43200},
    {"Russia TZ 11 Daylight Time", 46800},
    {"New Zealand Standard Time", 43200},
    {"New Zealand Daylight Time", 46800},
    {"Fiji Standard Time", 43200},
    {"Fiji Daylight Time", 46800},
    {"Chatham Islands Standard Time", 45900},
    {"Chatham Islands Daylight Time", 49500},
    {"Tonga Standard Time", 46800},
    {"Tonga Daylight Time", 50400},
    {"Samoa Standard Time", 46800},
    {"Samoa Daylight Time", 50400},
    {"Line Islands Standard Time", 50400},
    {"Line Islands Daylight Time", 54000},
    {"Coordinated Universal Time", 0},
};

uint32_t windowsNameKey(const char* name, size_t length) {
    uint32_t h = 0, s = 0;
    for (size_t i = 0; i < length; ++i) {
        const unsigned char c = static_cast<unsigned char>(name[i]);
        h = 2 * h + c;
        s += c;
    }
    return ((h + s) << 8) | static_cast<uint32_t>(length & 0xFF);
}

struct KeyedName {
    uint32_t key;
    const NamedOffset* entry;
    bool operator<(const KeyedName& o) const { return key < o.key; }
};

const std::vector<KeyedName>& windowsIndex() {
    static const std::vector<KeyedName> index = [] {
        std::vector<KeyedName> v;
        for (const NamedOffset& e : kWindowsNames) {
            v.push_back({windowsNameKey(e.name, strlen(e.name)), &e});
        }
        std::sort(v.begin(), v.end());
        return v;
    }();
    return index;
}

bool windowsNameOffset(const char* name, long* offset) {
    const size_t length = strlen(name);
    const std::vector<KeyedName>& index = windowsIndex();
    const KeyedName probe{windowsNameKey(name, length), nullptr};
    for (auto it = std::lower_bound(index.begin(), index.end(), probe);
         it != index.end() && it->key == probe.key; ++it) {
        if (strcmp(it->entry->name, name) == 0) {
            *offset = it->entry->offset;
            return true;
        }
    }
    return false;
}

bool abbreviationOffset(const char* name, long* offset) {
    char upper[8];
    size_t n = 0;
    for (; name[n] != '\0'; ++n) {
        const char c = name[n];
        if (n >= 7 || !((c >= 'A' && c <= 'Z') || (c >= 'a' && c <= 'z'))) return false;
        upper[n] = static_cast<char>(c & ~0x20);
    }
    if (n == 0) return false;
    upper[n] = '\0';
    const NamedOffset* end = kAbbreviations + sizeof kAbbreviations / sizeof kAbbreviations[0];
    const NamedOffset* it = std::lower_bound(
        kAbbreviations, end, upper,
        [](const NamedOffset& e, const char* key) { return strcmp(e.name, key) < 0; });
    if (it == end || strcmp(it->name, upper) != 0) return false;
    *offset = it->offset;
    return true;
}

// +hh, +hhmm, +hh:mm, +hh:mm:ss (or -); at most 86399 seconds.
bool offsetText(const char* p, long* offset) {
    if (*p != '+' && *p != '-') return false;
    const bool negative = *p++ == '-';
    auto digits2 = [&p](long* v) {
        if (p[0] < '0' || p[0] > '9' || p[1] < '0' || p[1] > '9') return false;
        *v = (p[0] - '0') * 10 + (p[1] - '0');
        p += 2;
        return true;
    };
    long h, m = 0, s = 0;
    if (!digits2(&h)) return false;
    if (*p == ':') {
        ++p;
        if (!digits2(&m)) return false;
        if (*p == ':') {
            ++p;
            if (!digits2(&s)) return false;
        }
    } else if (*p != '\0' && !digits2(&m)) {
        return false;
    }
    if (*p != '\0' || m > 59 || s > 59) return false;
    const long total = h * 3600 + m * 60 + s;
    if (total > 86399) return false;
    *offset = negative ? -total : total;
    return true;
}

constexpr int64_t kDay = 86400;

int64_t floorDiv(int64_t a, int64_t b) { return a / b - ((a % b != 0) && ((a < 0) != (b < 0))); }

// The local calendar fields of a UTC instant in a zone.
void localFields(int64_t utc, const TimezoneGuessResult& zone, TimeFormatRawParseResult* out) {
    const int64_t local = utc + zone.offsetAt(utc);
    struct tm t;
    const time_t days = static_cast<time_t>(floorDiv(local, kDay) * kDay);
    gmtime_r(&days, &t);
    out->clear();
    out->set(TimeFormatRawParseResult::HAVE_YEAR, &out->year, t.tm_year + 1900);
    out->set(TimeFormatRawParseResult::HAVE_MONTH, &out->month, t.tm_mon);
    out->set(TimeFormatRawParseResult::HAVE_MDAY, &out->mday, t.tm_mday);
    out->yday = t.tm_yday;
    const int64_t second = local - days;
    out->hour = static_cast<int>(second / 3600);
    out->minute = static_cast<int>(second / 60 % 60);
    out->second = static_cast<int>(second % 60);
}

bool isLeapYear_(int y) { return (y % 4 == 0 && y % 100 != 0) || y % 400 == 0; }

int monthLength(int year, int month) {
    static const int days[] = {31, 28, 31, 30, 31, 30, 31, 31, 30, 31, 30, 31};
    return month == 1 && isLeapYear_(year) ? 29 : days[month];
}

int dayOfYear(int year, int month, int mday) {
    int d = mday - 1;
    for (int m = 0; m < month; ++m) d += monthLength(year, m);
    return d;
}

// The 24-hour clock of the fields, when they tell it.
bool hour24(const TimeFormatRawParseResult* pr, int* hour) {
    using R = TimeFormatRawParseResult;
    if (pr->has(R::HAVE_HOUR)) {
        *hour = pr->hour;
        return true;
    }
    if (pr->has(R::HAVE_HOUR12 | R::HAVE_PM)) {
        *hour = pr->hour12 % 12 + (pr->pm ? 12 : 0);
        return true;
    }
    return false;
}

}  // namespace

// ---------------------------------------------------------------- TimezoneGuessResult

long TimezoneGuessResult::offsetAt(int64_t utc) const {
    if (isOffset) return offset;
    const Timezone* z = zone ? zone : getDefaultTimezone();
    if (z == nullptr) return 0;
    return static_cast<long>(z->typeAt(z->searchAt(static_cast<time_t>(utc))).utoff);
}

bool timezone_offset_by_name(const char* name, long* offset) {
    return abbreviationOffset(name, offset) || offsetText(name, offset) ||
           windowsNameOffset(name, offset);
}

// ---------------------------------------------------------------- TimeGuesser

TimeGuesser* TimeGuesser::basic() {
    static TimeGuesser plain;
    return &plain;
}

TimeGuesser::~TimeGuesser() = default;

Timeval TimeGuesser::current() { return Timeval::now(); }
Timeval TimeGuesser::yearReference() { return current(); }
bool TimeGuesser::hasExistingDateContext() { return false; }
const Timezone* TimeGuesser::baseTimezone() { return nullptr; }

const Timezone* TimeGuesser::baseOrDefault() {
    const Timezone* z = baseTimezone();
    return z ? z : getDefaultTimezone();
}

bool TimeGuesser::guessTimezone(const char* name, TimezoneGuessResult* result) {
    if (name == nullptr) {
        result->setZone(baseOrDefault());
        return result->zone != nullptr;
    }
    if (strncmp(name, "GMT", 3) == 0 && name[3] != '\0') name += 3;
    long offset;
    if (timezone_offset_by_name(name, &offset)) {
        result->setOffset(offset);
        return true;
    }
    if (const Timezone* z = getTimezone(name, true)) {
        result->setZone(z);
        return true;
    }
    return false;
}

bool TimeGuesser::convertToGmt(int64_t local, int isdst, const TimezoneGuessResult& zone,
                               int64_t* utc) {
    if (zone.isOffset) {
        *utc = local - zone.offset;
        return true;
    }
    const Timezone* z = zone.zone ? zone.zone : baseOrDefault();
    if (z == nullptr) return false;
    Timezone::reverse_search_result_type_t kind;
    const uint32_t i = z->reverseSearchAt(static_cast<time_t>(local), &kind);
    const TimezoneOffset& here = z->typeAt(i);
    switch (kind) {
        case Timezone::ONLY_THIS_INDEX:
            *utc = local - here.utoff;
            return true;
        case Timezone::MIGHT_ALSO_BE_NEXT_INDEX: {
            const TimezoneOffset& next = z->typeAt(i + 1);
            const TimezoneOffset* pick = &here;
            if (here.isDst != next.isDst) {
                const TimezoneOffset& dst = here.isDst ? here : next;
                const TimezoneOffset& std = here.isDst ? next : here;
                pick = isdst > 0                                            ? &dst
                       : isdst == 0                                         ? &std
                       : ambigiousDst(static_cast<long>(local - dst.utoff)) ? &dst
                                                                            : &std;
            } else if (preferSecond(static_cast<long>(local - here.utoff),
                                    static_cast<long>(local - next.utoff))) {
                pick = &next;
            }
            *utc = local - pick->utoff;
            return true;
        }
        case Timezone::NO_INDEX_MATCHES:
            // No such local time: the clocks jumped over it. Take the instant the
            // gap ends.
            *utc = z->transitionTimeFromAt(static_cast<time_t>(local - here.utoff + kDay));
            return true;
    }
    return false;
}

bool TimeGuesser::preferSecond(long a, long b) {
    const int64_t now = current().sec();
    const auto weighted = [now](long t) {
        const int64_t d = t < now ? (now - t) * 8 : t - now;
        return d;
    };
    return weighted(b) < weighted(a);
}

bool TimeGuesser::usePmInstead(long amTime) { return preferSecond(amTime, amTime + 43200); }

bool TimeGuesser::ambigiousDst(long dstTime) { return !preferSecond(dstTime, dstTime + 3600); }

int TimeGuesser::expandShortYear(unsigned twoDigits) {
    TimeFormatRawParseResult now;
    TimezoneGuessResult zone;
    zone.setZone(baseOrDefault());
    localFields(current().sec(), zone, &now);
    // The nearest such year, but not more than ten years ahead.
    int year = now.year / 100 * 100 + static_cast<int>(twoDigits % 100);
    if (year > now.year + 10) year -= 100;
    if (year <= now.year - 90) year += 100;
    return year;
}

bool TimeGuesser::guessYear(TimeFormatRawParseResult* pr) {
    using R = TimeFormatRawParseResult;
    TimeFormatRawParseResult now;
    TimezoneGuessResult zone;
    zone.setZone(baseOrDefault());
    localFields(yearReference().sec(), zone, &now);
    int year = now.year;
    if (!pr->has(R::HAVE_MONTH | R::HAVE_MDAY)) {
        pr->set(R::HAVE_YEAR, &pr->year, year);
        return true;
    }
    const bool context = hasExistingDateContext();
    if (pr->month == 1 && pr->mday == 29 && !isLeapYear_(year)) {
        // Only a leap year has it: the nearest one, back or (when the stream
        // knows its dates) forward.
        do year += context ? 1 : -1;
        while (!isLeapYear_(year));
    } else if (pr->month == 11 && pr->mday == 31 && now.month == 0 && now.mday == 1) {
        --year;
    } else if (pr->month == 0 && pr->mday == 1 && now.month == 11 && now.mday == 31) {
        ++year;
    } else {
        const int parsed = dayOfYear(year, pr->month, pr->mday);
        if (context) {
            if (parsed + 3 < now.yday) ++year;
        } else if (parsed > now.yday + 3) {
            --year;
        }
    }
    pr->set(R::HAVE_YEAR, &pr->year, year);
    return true;
}

bool TimeGuesser::guessDate(TimeFormatRawParseResult* pr, const TimezoneGuessResult& zone) {
    using R = TimeFormatRawParseResult;
    if (!pr->has(R::HAVE_MINUTE)) return false;
    const int64_t nowUtc = current().sec();
    TimeFormatRawParseResult now;
    localFields(nowUtc, zone, &now);
    const int64_t nowSecond = now.hour * 3600 + now.minute * 60 + now.second;
    int64_t dayShift = 0;
    int hour;
    if (hour24(pr, &hour)) {
        const int64_t parsed =
            hour * 3600 + pr->minute * 60 + (pr->has(R::HAVE_SECOND) ? pr->second : 0);
        // Up to three hours ahead of now is today; anything later, yesterday.
        if (nowSecond + 10800 < parsed) dayShift = -1;
    } else if (pr->has(R::HAVE_HOUR12)) {
        // Without am/pm: the latest reading not more than 90 minutes ahead.
        const int64_t am =
            (pr->hour12 % 12) * 3600 + pr->minute * 60 + (pr->has(R::HAVE_SECOND) ? pr->second : 0);
        int64_t best = 0;
        bool found = false;
        for (int64_t candidate : {am - kDay, am + 43200 - kDay, am, am + 43200}) {
            if (candidate - nowSecond <= 5400 && (!found || candidate > best)) {
                best = candidate;
                found = true;
            }
        }
        const bool pm = ((best % kDay) + kDay) % kDay >= 43200;
        pr->set(R::HAVE_PM, &pr->pm, pm ? 1 : 0);
        if (best < 0) dayShift = -1;
    } else {
        return false;
    }
    if (pr->has(R::HAVE_MDAY) && !pr->has(R::HAVE_MONTH)) {
        // A day of the month alone: this month, or the last one when that
        // is nearer or the day doesn't exist now.
        int year = now.year, month = now.month;
        if (std::abs(pr->mday - now.mday) > 20 || pr->mday > monthLength(year, month)) {
            if (--month < 0) {
                month = 11;
                --year;
            }
        }
        if (pr->mday > monthLength(year, month)) return false;
        pr->set(R::HAVE_YEAR, &pr->year, year);
        pr->set(R::HAVE_MONTH, &pr->month, month);
        return true;
    }
    TimeFormatRawParseResult day = now;
    if (dayShift != 0) {
        int64_t start;
        now.dayStartTime(&start);  // the local date's midnight, read as if UTC
        TimezoneGuessResult utc;
        utc.setOffset(0);
        localFields(start - kDay, utc, &day);
    }
    pr->set(R::HAVE_YEAR, &pr->year, day.year);
    pr->set(R::HAVE_MONTH, &pr->month, day.month);
    pr->set(R::HAVE_MDAY, &pr->mday, day.mday);
    return true;
}

// ---------------------------------------------------------------- Timeval

bool Timeval::set(TimeFormatRawParseResult* pr, TimeGuesser* guesser,
                  ExtraTimevalParseInfo* extra) {
    using R = TimeFormatRawParseResult;
    if (guesser == nullptr) guesser = TimeGuesser::basic();
    long usec = 0;
    int precision = -7;
    if (pr->has(R::HAVE_SUBSEC)) {
        uint64_t v = pr->subsec;
        unsigned digits = pr->subsecDigits;
        for (; digits > 6; --digits) v /= 10;
        for (; digits < 6; ++digits) v *= 10;
        usec = static_cast<long>(v);
        precision = static_cast<int>(pr->subsecDigits);
    }
    if (pr->has(R::HAVE_EPOCH)) {
        int64_t sec = pr->epoch;
        if (usec != 0 && pr->has(R::EPOCH_NEGATIVE)) {  // the fraction counts away from zero
            sec -= 1;
            usec = 1000000 - usec;
        }
        *this = Timeval(sec, usec);
        if (extra) {
            extra->precision = pr->has(R::HAVE_SUBSEC) ? precision : 0;
            extra->zone.setOffset(0);
            extra->zoneFromText = true;
        }
        return true;
    }

    TimezoneGuessResult zone;
    bool zoneFromText = false;
    if (pr->has(R::HAVE_TZOFF)) {
        zone.setOffset(pr->tzoff);
        zoneFromText = true;
    } else if (pr->has(R::HAVE_TZNAM) && guesser->guessTimezone(pr->tzname, &zone)) {
        zoneFromText = true;
    } else if (!guesser->guessTimezone(nullptr, &zone)) {
        zone.setOffset(0);
    }

    // The year.
    if (!pr->has(R::HAVE_YEAR)) {
        if (pr->has(R::HAVE_CENTURY | R::HAVE_YEAR2)) {
            pr->set(R::HAVE_YEAR, &pr->year, pr->century * 100 + pr->year2);
        } else if (pr->has(R::HAVE_YEAR2)) {
            pr->set(R::HAVE_YEAR, &pr->year,
                    guesser->expandShortYear(static_cast<unsigned>(pr->year2)));
        } else if (pr->has(R::HAVE_ISOYEAR | R::HAVE_WEEK_ISO)) {
            // The ISO year serves the ISO week below.
        } else if (pr->has(R::HAVE_MONTH) || pr->has(R::HAVE_YDAY) ||
                   (pr->have & (R::HAVE_WEEK_SUNDAY | R::HAVE_WEEK_MONDAY)) != 0) {
            if (!guesser->guessYear(pr)) return false;
        }
    }
    // The date.
    int dateprecision = -3;
    if (pr->has(R::HAVE_MONTH)) {
        if (!pr->has(R::HAVE_MDAY)) {
            pr->set(R::HAVE_MDAY, &pr->mday, 1);
            dateprecision = -5;
        }
    } else if (pr->has(R::HAVE_YDAY | R::HAVE_YEAR)) {
        if (!pr->computeMmddFromYday()) return false;
    } else if ((pr->have & (R::HAVE_WEEK_SUNDAY | R::HAVE_WEEK_MONDAY | R::HAVE_WEEK_ISO)) != 0) {
        if (!pr->computeYdayFromYweek() || !pr->computeMmddFromYday()) return false;
        if (!pr->has(R::HAVE_WDAY)) dateprecision = -4;
    } else if (pr->has(R::HAVE_YEAR) && !pr->has(R::HAVE_MDAY)) {
        pr->set(R::HAVE_MONTH, &pr->month, 0);
        pr->set(R::HAVE_MDAY, &pr->mday, 1);
        dateprecision = -6;
    } else if (!guesser->guessDate(pr, zone)) {
        return false;
    }
    if (!pr->has(R::HAVE_YEAR)) {
        if (!guesser->guessYear(pr)) return false;
    }
    if (pr->month < 0 || pr->month > 11 || pr->mday < 1 || !pr->mdayValidForMonth()) return false;
    int64_t dayStart;
    if (!pr->dayStartTime(&dayStart)) return false;

    // The time of day.
    int hour = 0;
    bool amTimeToCheck = false;
    if (!hour24(pr, &hour)) {
        if (pr->has(R::HAVE_HOUR12)) {
            hour = pr->hour12 % 12;
            amTimeToCheck = true;
        }
    }
    int64_t local = dayStart + hour * 3600 + (pr->has(R::HAVE_MINUTE) ? pr->minute * 60 : 0) +
                    (pr->has(R::HAVE_SECOND) ? pr->second : 0);
    int64_t utc;
    if (!guesser->convertToGmt(local, -1, zone, &utc)) return false;
    if (amTimeToCheck && guesser->usePmInstead(static_cast<long>(utc))) {
        local += 43200;
        if (!guesser->convertToGmt(local, -1, zone, &utc)) return false;
    }
    *this = Timeval(utc, usec);
    if (extra) {
        if (!pr->has(R::HAVE_SUBSEC)) {
            precision = pr->has(R::HAVE_SECOND)                             ? 0
                        : pr->has(R::HAVE_MINUTE)                           ? -1
                        : (pr->have & (R::HAVE_HOUR | R::HAVE_HOUR12)) != 0 ? -2
                                                                            : dateprecision;
        }
        extra->precision = precision;
        extra->zone = zone;
        extra->zoneFromText = zoneFromText;
    }
    return true;
}

bool Timeval::parse(const TimeFormat& format, const char* text, size_t length, TimeGuesser* guesser,
                    ExtraTimevalParseInfo* extra, unsigned* consumed) {
    TimeFormatRawParseResult r;
    const char* end = format.rawParse(&r, text, text + length);
    if (end == nullptr || !set(&r, guesser, extra)) return false;
    if (consumed) *consumed = static_cast<unsigned>(end - text);
    return true;
}

bool Timeval::parse(const TimeFormat& format, const char* text, TimeGuesser* guesser,
                    ExtraTimevalParseInfo* extra, unsigned* consumed) {
    return parse(format, text, strlen(text), guesser, extra, consumed);
}

bool Timeval::parse(const TimeFormat& format, const char* text, size_t length, const Timezone* zone,
                    ExtraTimevalParseInfo* extra, unsigned* consumed) {
    OnlyOverrideTimezoneTimeGuesser guesser(zone);
    return parse(format, text, length, &guesser, extra, consumed);
}

bool Timeval::parse(const TimeFormat& format, const char* text, const Timezone* zone,
                    ExtraTimevalParseInfo* extra, unsigned* consumed) {
    return parse(format, text, strlen(text), zone, extra, consumed);
}

bool Timeval::parse(const TimeFormat& format, const char* text, size_t length,
                    ExtraTimevalParseInfo* extra, unsigned* consumed) {
    return parse(format, text, length, TimeGuesser::basic(), extra, consumed);
}

bool Timeval::parse(const TimeFormat& format, const char* text, ExtraTimevalParseInfo* extra,
                    unsigned* consumed) {
    return parse(format, text, strlen(text), TimeGuesser::basic(), extra, consumed);
}
