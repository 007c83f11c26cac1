// Calendar arithmetic, broken-down times and the TimeFormat engine.
#include "util/DateTime.h"

#include <algorithm>
#include <cerrno>
#include <climits>
#include <cstdio>
#include <cstdlib>
#include <vector>

#include "libzero/assertion.h"
#include "libzero/int-to-ascii.h"
#include "util/ByteScan.h"
#include "util/Pathname.h"
#include "util/Timeval.h"
#include "util/Timezone.h"

namespace {

const char* const kWdayFull[7] = {"Sunday",   "Monday", "Tuesday", "Wednesday",
                                  "Thursday", "Friday", "Saturday"};
const char* const kMonthFull[12] = {"January",   "February", "March",    "April",
                                    "May",       "June",     "July",     "August",
                                    "September", "October",  "November", "December"};

bool isWs(char c) {
    return c == ' ' || c == '\t' || c == '\n' || c == '\r' || c == '\v' || c == '\f';
}
bool isDigit(char c) { return c >= '0' && c <= '9'; }
bool isUpper(char c) { return c >= 'A' && c <= 'Z'; }
bool isLower(char c) { return c >= 'a' && c <= 'z'; }
bool isAlpha(char c) { return isUpper(c) || isLower(c); }
char toLower(char c) { return isUpper(c) ? char(c + 32) : c; }

bool equalsNoCase(const char* a, size_t n, const char* b) {
    for (size_t i = 0; i < n; i++) {
        if (b[i] == 0 || toLower(a[i]) != toLower(b[i])) return false;
    }
    return b[n] == 0;
}
bool prefixNoCase(const char* a, size_t n, const char* full) {
    if (strlen(full) < n) return false;
    for (size_t i = 0; i < n; i++) {
        if (toLower(a[i]) != toLower(full[i])) return false;
    }
    return true;
}

int64_t floorDiv(int64_t a, int64_t b) { return a / b - ((a % b != 0) && ((a < 0) != (b < 0))); }
int64_t floorMod(int64_t a, int64_t b) { return a - floorDiv(a, b) * b; }

// ISO weeks in a year: 53 when it starts on a Thursday, or on a Wednesday
// in a leap year.
int isoWeeksInYear(int year) {
    auto p = [](int64_t y) {
        return floorMod(y + floorDiv(y, 4) - floorDiv(y, 100) + floorDiv(y, 400), 7);
    };
    return 52 + (p(year) == 4 || p(year - 1) == 3);
}

// (year, week) of ISO 8601 from the year, the day of year (0-based) and
// the weekday (0 Sunday).
void isoWeek(int year, int yday, int wday, int* isoYear, int* week) {
    const int isoWday = wday == 0 ? 7 : wday;
    int w = (yday + 1 - isoWday + 10) / 7;
    int y = year;
    if (w < 1) {
        y = year - 1;
        w = isoWeeksInYear(y);
    } else if (w > isoWeeksInYear(year)) {
        y = year + 1;
        w = 1;
    }
    *isoYear = y;
    *week = w;
}

}  // namespace

// ---------------------------------------------------------------- calendar

// A multiple of 100 is a leap year when it is one of 16 (400 = 16 * 25).
bool isLeapYear(int y) { return (y & 3) == 0 && (y % 25 != 0 || (y & 15) == 0); }

int daysInMonth(int year, int month) {
    static const int days[12] = {31, 28, 31, 30, 31, 30, 31, 31, 30, 31, 30, 31};
    if (month < 0 || month > 11) return 0;
    return month == 1 && isLeapYear(year) ? 29 : days[month];
}

// Proleptic Gregorian days, by eras of 400 years (146097 days), with years
// starting in March so that the leap day comes last.
int64_t daysFromCivil(int64_t y, unsigned m, unsigned d) {
    y -= m <= 2;
    const int64_t era = floorDiv(y, 400);
    const unsigned yoe = unsigned(y - era * 400);
    const unsigned doy = (153 * (m > 2 ? m - 3 : m + 9) + 2) / 5 + d - 1;
    const unsigned doe = yoe * 365 + yoe / 4 - yoe / 100 + doy;
    return era * 146097 + int64_t(doe) - 719468;
}

void civilFromDays(int64_t z, int64_t* year, unsigned* month1, unsigned* mday) {
    z += 719468;
    const int64_t era = floorDiv(z, 146097);
    const unsigned doe = unsigned(z - era * 146097);
    const unsigned yoe = (doe - doe / 1460 + doe / 36524 - doe / 146096) / 365;
    const unsigned doy = doe - (365 * yoe + yoe / 4 - yoe / 100);
    const unsigned mp = (5 * doy + 2) / 153;
    *mday = doy - (153 * mp + 2) / 5 + 1;
    *month1 = mp < 10 ? mp + 3 : mp - 9;
    *year = int64_t(yoe) + era * 400 + (*month1 <= 2);
}

void recompute_yday_and_wday(struct tm* t) {
    static const int daysBefore[12] = {0, 31, 59, 90, 120, 151, 181, 212, 243, 273, 304, 334};
    // Sakamoto's weekday: 32-bit arithmetic for the years anyone parses.
    static const int monthShift[12] = {0, 3, 2, 5, 0, 3, 5, 1, 4, 6, 2, 4};
    const int64_t year = int64_t(t->tm_year) + 1900;
    if (t->tm_mon >= 0 && t->tm_mon < 12 && year >= 1 && year <= 1000000 && t->tm_mday >= 0 &&
        t->tm_mday <= 31) {
        const int y = int(year), m = t->tm_mon;
        t->tm_yday = daysBefore[m] + t->tm_mday - 1 + (m > 1 && isLeapYear(y));
        const int ys = y - (m < 2);
        t->tm_wday = (ys + ys / 4 - ys / 100 + ys / 400 + monthShift[m] + t->tm_mday) % 7;
        return;
    }
    const int64_t days = daysFromCivil(year, unsigned(t->tm_mon + 1), unsigned(t->tm_mday));
    t->tm_yday = int(days - daysFromCivil(year, 1, 1));
    t->tm_wday = int(floorMod(days + 4, 7));  // 1970-01-01 was a Thursday
}

// ---------------------------------------------------------------- StructTm

static constexpr long LAST_SAFE_UNIX_TIME = 32535244799;  // 3001-01-01 23:59:59 minus a day

// UTC needs no zone: the calendar arithmetic alone, without gmtime_r's
// trip through the zone machinery and its lock.
bool StructTm::GMT_fromUnixTime(long t) {
    if (t > LAST_SAFE_UNIX_TIME) return false;
    const int64_t days = floorDiv(t, 86400);
    // Not t - days * 86400: near the smallest long that product overflows.
    const int64_t secs = t % 86400 < 0 ? t % 86400 + 86400 : t % 86400;
    int64_t year;
    unsigned month1, mday;
    civilFromDays(days, &year, &month1, &mday);
    if (year - 1900 < INT_MIN || year - 1900 > INT_MAX) return false;
    tm_sec = int(secs % 60);
    tm_min = int(secs / 60 % 60);
    tm_hour = int(secs / 3600);
    tm_mday = int(mday);
    tm_mon = int(month1) - 1;
    tm_year = int(year - 1900);
    tm_wday = int(floorMod(days + 4, 7));
    tm_yday = int(days - daysFromCivil(year, 1, 1));
    tm_isdst = 0;
    tm_gmtoff = 0;
    tm_zone = "GMT";
    return true;
}

bool StructTm::Local_fromUnixTime(long t) {
    if (t > LAST_SAFE_UNIX_TIME) return false;
    const time_t tt = t;
    return localtime_r(&tt, this) != nullptr;
}

namespace {

// A format that is one %p conversion (flags, width, E or O allowed) can
// rightly give nothing, in a locale without AM/PM strings.
bool mayRenderEmpty(const char* f) {
    if (*f == 0) return true;
    if (*f++ != '%') return false;
    while (*f == '#' || *f == '-' || *f == '^' || *f == '_') f++;
    while (isDigit(*f)) f++;
    if (*f == 'E' || *f == 'O') f++;
    return f[0] == 'p' && f[1] == 0;
}

}  // namespace

void StructTm::appendFtime(Str& out, const char* format) const {
    const bool emptyIsFine = mayRenderEmpty(format);
    // Doubling from 64 bytes; a format that keeps giving nothing past 1 MiB
    // is taken at its word.
    for (size_t size = 64; size <= (size_t(1) << 20); size *= 2) {
        const size_t at = out.size();
        out.resize(at + size);
        const size_t n = ::strftime(&out[at], size, format, this);
        out.resize(at + n);
        if (n != 0 || emptyIsFine) return;
    }
}

Str StructTm::strftime(const char* format) const {
    Str s;
    appendFtime(s, format);
    return s;
}

bool StructTm::isLeapYear() const { return ::isLeapYear(tm_year + 1900); }

bool StructTm::mdayValidForMonth() const {
    return tm_mday >= 1 && tm_mday <= daysInMonth(tm_year + 1900, tm_mon);
}

void StructTm::setToLastMday() { tm_mday = daysInMonth(tm_year + 1900, tm_mon); }

void StructTm::addCalendarMonths(int n) {
    const int64_t months = int64_t(tm_year) * 12 + tm_mon + n;
    tm_year = int(floorDiv(months, 12));
    tm_mon = int(floorMod(months, 12));
    if (!mdayValidForMonth()) setToLastMday();
    recompute_yday_and_wday(this);
}

int StructTm::yearISO8601() const {
    int y, w;
    isoWeek(tm_year + 1900, tm_yday, tm_wday, &y, &w);
    return y;
}

int StructTm::yearWeekISO8601() const {
    int y, w;
    isoWeek(tm_year + 1900, tm_yday, tm_wday, &y, &w);
    return w;
}

int StructTm::yearWeekFromMonday() const { return (tm_yday + 7 - (tm_wday + 6) % 7) / 7; }
int StructTm::yearWeekFromSunday() const { return (tm_yday + 7 - tm_wday) / 7; }

void GmtStructTm::setToNow() { GMT_fromUnixTime(long(time(nullptr))); }
void LocalStructTm::setToNow() { Local_fromUnixTime(long(time(nullptr))); }

void LocalStructTmHires::setToNow() {
    const Timeval now = Timeval::now();
    Local_fromUnixTime(long(now.sec()));
    usec = (unsigned long)now.usec();
}

void GmtStructTm::appendFtime(Str& out, const TimeFormat& f, unsigned long usec) const {
    f.render(out, *this, usec, &TimeFormat::gmt_ops);
}
void LocalStructTm::appendFtime(Str& out, const TimeFormat& f, unsigned long usec) const {
    f.render(out, *this, usec, &TimeFormat::local_ops);
}
void LocalStructTmHires::appendFtime(Str& out, const TimeFormat& f) const {
    f.render(out, *this, usec, &TimeFormat::local_ops);
}

// ---------------------------------------------------------------- render_tm_ops

namespace {

long gmtToEpoch(const TimeFormat::render_tm_ops*, const struct tm* t) {
    struct tm copy = *t;
    return long(timegm(&copy));
}
bool gmtName(const TimeFormat::render_tm_ops*, const struct tm*, char* buf, size_t size) {
    if (size < 4) return false;
    memcpy(buf, "UTC", 4);
    return true;
}
long gmtOffset(const TimeFormat::render_tm_ops*, const struct tm*) { return 0; }

long localToEpoch(const TimeFormat::render_tm_ops*, const struct tm* t) {
    struct tm copy = *t;
    return long(mktime(&copy));
}
bool localName(const TimeFormat::render_tm_ops*, const struct tm* t, char* buf, size_t size) {
    if (t->tm_zone == nullptr) return false;
    const size_t n = strlen(t->tm_zone);
    if (n + 1 > size) return false;
    memcpy(buf, t->tm_zone, n + 1);
    return true;
}
long localOffset(const TimeFormat::render_tm_ops*, const struct tm* t) { return t->tm_gmtoff; }

}  // namespace

const TimeFormat::render_tm_ops TimeFormat::gmt_ops = {gmtToEpoch, gmtName, gmtOffset};
const TimeFormat::render_tm_ops TimeFormat::local_ops = {localToEpoch, localName, localOffset};

// ---------------------------------------------------------------- StructTmInTimezone

namespace {

// gmtime_r and timegm by arithmetic for the years 1 to 3000 with fields in
// range: zone conversions run once a log line, and libc's take 45 and 100 ns.
// Anything else goes to libc.
constexpr int64_t FIRST_FAST_SECOND = -62135596800;  // 0001-01-01
constexpr int64_t LAST_CALENDAR_SECOND = 32535244799;

bool breakDownFast(int64_t t, struct tm* out) {
    if (t < FIRST_FAST_SECOND || t > LAST_CALENDAR_SECOND) return false;
    // The civil-from-days walk on unsigned numbers counted from 0000-03-01,
    // all positive here, with the day of the year from the same pass.
    const uint64_t shifted = uint64_t(t + int64_t(719468) * 86400);
    const uint64_t z = shifted / 86400;
    const unsigned secs = unsigned(shifted - z * 86400);
    const uint64_t era = z / 146097;
    const unsigned doe = unsigned(z - era * 146097);
    const unsigned yoe = (doe - doe / 1460 + doe / 36524 - doe / 146096) / 365;
    const unsigned doy = doe - (365 * yoe + yoe / 4 - yoe / 100);  // from 1 March
    const unsigned mp = (5 * doy + 2) / 153;
    const unsigned month1 = mp < 10 ? mp + 3 : mp - 9;
    const int64_t marchYear = int64_t(yoe + era * 400);
    const bool leap = (marchYear % 4 == 0 && marchYear % 100 != 0) || marchYear % 400 == 0;
    out->tm_year = int(marchYear + (month1 <= 2) - 1900);
    out->tm_mon = int(month1 - 1);
    out->tm_mday = int(doy - (153 * mp + 2) / 5 + 1);
    out->tm_hour = int(secs / 3600);
    out->tm_min = int(secs / 60 % 60);
    out->tm_sec = int(secs % 60);
    out->tm_wday = int((z + 3) % 7);
    out->tm_yday = int(month1 >= 3 ? doy + 59 + leap : doy - 306);
    return true;
}

// timegm: false when libc can't represent the fields either.
bool fieldsToSeconds(struct tm* t, int64_t* out) {
    const int64_t year = int64_t(t->tm_year) + 1900;
    if (year >= 1 && year <= 3000 && t->tm_mon >= 0 && t->tm_mon <= 11 && t->tm_mday >= 1 &&
        (t->tm_mday <= 28 || t->tm_mday <= daysInMonth(int(year), t->tm_mon)) &&
        unsigned(t->tm_hour) < 24 && unsigned(t->tm_min) < 60 && unsigned(t->tm_sec) < 60) {
        static const int daysBefore[12] = {0, 31, 59, 90, 120, 151, 181, 212, 243, 273, 304, 334};
        const int64_t days = daysFromCivil(year, unsigned(t->tm_mon + 1), unsigned(t->tm_mday));
        *out = days * 86400 + t->tm_hour * 3600 + t->tm_min * 60 + t->tm_sec;
        t->tm_wday = int(floorMod(days + 4, 7));
        t->tm_yday =
            daysBefore[t->tm_mon] + t->tm_mday - 1 + (t->tm_mon >= 2 && isLeapYear(int(year)));
        t->tm_isdst = 0;
        return true;
    }
    errno = 0;
    const time_t r = timegm(t);
    if (r == time_t(-1) && errno != 0) return false;
    *out = r;
    return true;
}

}  // namespace

bool StructTmInTimezone::fromUnixTime(long t) {
    if (_tz == nullptr) return Local_fromUnixTime(t);
    const TimezoneOffset& o = _tz->typeAt(_tz->searchAt(time_t(t)));
    long sum;
    if (__builtin_add_overflow(t, long(o.utoff), &sum)) sum = o.utoff > 0 ? LONG_MAX : LONG_MIN;
    if (sum >= -86399 && sum <= -1) {
        // The last day before the epoch, without asking libc about it.
        if (!breakDownFast(sum + 86400, this)) return false;
        tm_mday = 31;
        tm_mon = 11;
        tm_year = 69;
        tm_wday = 3;
        tm_yday = 364;
    } else if (!breakDownFast(sum, this) && !GMT_fromUnixTime(sum)) {
        return false;
    }
    _tz->setStructTmMetadata(this, &o);
    return true;
}

bool StructTmInTimezone::toUnixTimeChecked(long* out, bool nextValid) {
    if (_tz == nullptr) {
        errno = 0;
        const time_t t = mktime(this);
        if (t == time_t(-1) && errno != 0) return false;
        *out = long(t);
        return true;
    }
    const int isdst = tm_isdst;
    int64_t local;
    if (!fieldsToSeconds(this, &local)) {
        tm_isdst = isdst;
        return false;
    }
    const TimezoneOffset* o = _tz->offsetFromReverseSearch(local, isdst);
    if (o == nullptr) {
        tm_isdst = isdst;
        if (!nextValid) return false;
        Timezone::reverse_search_result_type_t r;
        _tz->reverseSearchAt(local, &r);
        if (r != Timezone::NO_INDEX_MATCHES) return false;
        long later;
        if (__builtin_add_overflow(long(local), 86400L, &later)) later = LONG_MAX;
        *out = long(_tz->transitionTimeFromAt(time_t(later)));
        return true;
    }
    _tz->setStructTmMetadata(this, o);
    long r;
    if (__builtin_sub_overflow(long(local), long(o->utoff), &r)) {
        r = o->utoff > 0 ? LONG_MIN : LONG_MAX;
    }
    *out = r;
    return true;
}

long StructTmInTimezone::toUnixTime() {
    long t;
    return toUnixTimeChecked(&t, false) ? t : -1;
}

long StructTmInTimezone::nextValidUnixTime() {
    long t;
    return toUnixTimeChecked(&t, true) ? t : -1;
}

bool StructTmInTimezone::isAtTransitionTime() {
    if (_tz == nullptr) return false;
    const long t = nextValidUnixTime();
    return _tz->timecnt() != 0 && _tz->transitionTimeFromAt(time_t(t)) == time_t(t);
}

void StructTmInTimezone::appendFtime(Str& out, const TimeFormat& f, unsigned long usec) const {
    if (_tz == nullptr) {
        f.render(out, *this, usec, &TimeFormat::local_ops);
        return;
    }
    const impl ops(_tz);
    f.render(out, *this, usec, &ops.ops);
}

void StructTmInTimezoneHires::appendFtime(Str& out, const TimeFormat& f) const {
    StructTmInTimezone::appendFtime(out, f, usec);
}

StructTmInTimezone::impl::impl(const Timezone* zone)
    : ops{impl_to_epoch, impl_get_tzname, impl_tz_sec_offset}, tz(zone) {}

namespace {

const Timezone* zoneOf(const TimeFormat::render_tm_ops* ops) {
    return reinterpret_cast<const StructTmInTimezone::impl*>(ops)->tz;
}

const TimezoneOffset* reverseSearch(const Timezone* tz, const struct tm* t) {
    struct tm copy = *t;
    int64_t local;
    if (!fieldsToSeconds(&copy, &local)) return nullptr;
    return tz->offsetFromReverseSearch(local, t->tm_isdst);
}

}  // namespace

long StructTmInTimezone::impl::impl_to_epoch(const TimeFormat::render_tm_ops* ops,
                                             const struct tm* t) {
    struct tm copy = *t;
    int64_t local;
    if (!fieldsToSeconds(&copy, &local)) return -1;
    const TimezoneOffset* o = zoneOf(ops)->offsetFromReverseSearch(local, t->tm_isdst);
    if (o == nullptr) return -1;
    long epoch;
    if (__builtin_sub_overflow(long(local), long(o->utoff), &epoch)) {
        return o->utoff > 0 ? LONG_MIN : LONG_MAX;  // saturates, as the conversions do
    }
    return epoch;
}

bool StructTmInTimezone::impl::impl_get_tzname(const TimeFormat::render_tm_ops* ops,
                                               const struct tm* t, char* buf, size_t size) {
    if (size == 0) return false;
    if (t->tm_isdst >= 0 && t->tm_zone != nullptr) {
        const size_t n = strlen(t->tm_zone);
        if (n < size) {
            memcpy(buf, t->tm_zone, n + 1);
            return true;
        }
    }
    if (t->tm_isdst < 0) return false;
    const Timezone* tz = zoneOf(ops);
    const TimezoneOffset* o = reverseSearch(tz, t);
    if (o == nullptr) return false;
    const char* name = tz->abbreviation(*o);
    const size_t n = std::min(strlen(name), size - 1);
    memcpy(buf, name, n);
    buf[n] = 0;
    return true;
}

long StructTmInTimezone::impl::impl_tz_sec_offset(const TimeFormat::render_tm_ops* ops,
                                                  const struct tm* t) {
    if (t->tm_isdst >= 0) return t->tm_gmtoff;
    const Timezone* tz = zoneOf(ops);
    if (tz->constantOffsetValue() != Timezone::NOT_CONSTANT) return tz->constantOffsetValue();
    const TimezoneOffset* o = reverseSearch(tz, t);
    return o == nullptr ? 0 : long(o->utoff);
}

// ---------------------------------------------------------------- compiling

namespace {

using atom = TimeFormat::atom;

struct LetterInfo {
    TimeFormat::atom_type_t what;
    uint8_t width;  // default width (for names, the size hint)
    TimeFormat::padding_t pad;
    bool nameWidthIsHint;  // the width only sizes the output: no padding by default
};

// The single conversions by letter; composites are expanded separately.
bool letterInfo(char c, LetterInfo* i) {
    using T = TimeFormat;
    switch (c) {
        case 'a':
            *i = {T::WDAY_ABBREV, 3, T::PAD_SPACE, true};
            return true;
        case 'A':
            *i = {T::WDAY_FULL, 9, T::PAD_SPACE, true};
            return true;
        case 'b':
        case 'h':
            *i = {T::MONTH_ABBREV, 3, T::PAD_SPACE, true};
            return true;
        case 'B':
            *i = {T::MONTH_FULL, 9, T::PAD_SPACE, true};
            return true;
        case 'C':
            *i = {T::CENTURY, 2, T::PAD_ZERO, false};
            return true;
        case 'd':
            *i = {T::MDAY, 2, T::PAD_ZERO, false};
            return true;
        case 'e':
            *i = {T::MDAY, 2, T::PAD_SPACE, false};
            return true;
        case 'G':
            *i = {T::ISO_YEAR_4, 4, T::PAD_ZERO, false};
            return true;
        case 'g':
            *i = {T::ISO_YEAR_2, 2, T::PAD_ZERO, false};
            return true;
        case 'H':
            *i = {T::HOUR_24, 2, T::PAD_ZERO, false};
            return true;
        case 'k':
            *i = {T::HOUR_24, 2, T::PAD_SPACE, false};
            return true;
        case 'I':
            *i = {T::HOUR_12, 2, T::PAD_ZERO, false};
            return true;
        case 'l':
            *i = {T::ELL, 2, T::PAD_SPACE, false};
            return true;
        case 'j':
            *i = {T::YDAY, 3, T::PAD_ZERO, false};
            return true;
        case 'm':
            *i = {T::MONTH_NUM, 2, T::PAD_ZERO, false};
            return true;
        case 'M':
            *i = {T::MINUTE, 2, T::PAD_ZERO, false};
            return true;
        case 'N':
            *i = {T::SUBSECOND, 9, T::PAD_ZERO, false};
            return true;
        case 'Q':
            *i = {T::SUBSECOND, 3, T::PAD_ZERO, false};
            return true;
        case 'f':
        case 'q':
            *i = {T::SUBSECOND, 6, T::PAD_ZERO, false};
            return true;
        case 'p':
        case 'P':
            *i = {T::AMPM, 2, T::PAD_SPACE, true};
            return true;
        case 's':
            *i = {T::EPOCH, 10, T::PAD_NONE, false};
            return true;
        case 'S':
            *i = {T::SECOND, 2, T::PAD_ZERO, false};
            return true;
        case 'u':
            *i = {T::WDAY_SUNDAY7, 1, T::PAD_ZERO, false};
            return true;
        case 'w':
            *i = {T::WDAY_SUNDAY0, 1, T::PAD_ZERO, false};
            return true;
        case 'U':
            *i = {T::WEEK_SUNDAY, 2, T::PAD_ZERO, false};
            return true;
        case 'W':
            *i = {T::WEEK_MONDAY, 2, T::PAD_ZERO, false};
            return true;
        case 'V':
            *i = {T::WEEK_ISO, 2, T::PAD_ZERO, false};
            return true;
        case 'y':
            *i = {T::YEAR_2, 2, T::PAD_ZERO, false};
            return true;
        case 'Y':
        case 'o':
            *i = {T::YEAR_4, 4, T::PAD_ZERO, false};
            return true;
        case 'z':
            *i = {T::TZ_AS_HHMM, 5, T::PAD_ZERO, false};
            return true;
        case 'Z':
            *i = {T::TZ_NAME, 3, T::PAD_SPACE, true};
            return true;
        case 1:
            *i = {T::YEAR_2_OR_4, 2, T::PAD_ZERO, false};
            return true;  // internal
        default:
            return false;
    }
}

// Composites as the formats they stand for; \1 is the year that takes 2 or
// 4 digits in a dynamic format.
const char* composite(char c, bool longForm, bool dynamic) {
    switch (c) {
        case 'D':
            return dynamic ? "%m/%d/%\1" : "%m/%d/%y";
        case 'F':
            return "%Y-%m-%d";
        case 'R':
            return "%H:%M";
        case 'T':
        case 'X':
            return "%H:%M:%S";
        case 'r':
            return "%I:%M:%S %p";
        case 'v':
            return "%e-%^b-%Y";
        case 'x':
            return longForm ? "%A, %B %d, %Y" : dynamic ? "%m/%d/%\1" : "%m/%d/%y";
        case 'c':
            return longForm ? "%A, %B %d, %Y %H:%M:%S" : "%a %b %e %H:%M:%S %Y";
        case '+':
            return "%a %b %e %H:%M:%S %Z %Y";
        default:
            return nullptr;
    }
}

bool isNameAtom(TimeFormat::atom_type_t w) {
    return w == TimeFormat::WDAY_ABBREV || w == TimeFormat::WDAY_FULL ||
           w == TimeFormat::MONTH_ABBREV || w == TimeFormat::MONTH_FULL || w == TimeFormat::AMPM ||
           w == TimeFormat::TZ_NAME;
}

// Widths past this are refused: a format is not a way to ask for megabytes.
constexpr uint64_t MAX_WIDTH = 1024;

struct Compiler {
    std::vector<atom> atoms;
    std::vector<std::pair<size_t, size_t>> literals;  // per atom: offset and length in text
    Str text;
    bool dynamic;

    void literal(TimeFormat::atom_type_t what, const char* p, size_t n) {
        atom a{};
        a.what = what;
        a.width = n;
        literals.resize(atoms.size());
        literals.push_back({text.size(), n});
        text.append(p, n);
        atoms.push_back(a);
    }

    // `caseOverride`: a composite's case flag, for the names inside it.
    bool compile(const char* f, size_t len, uint8_t caseOverride) {
        size_t i = 0;
        while (i < len) {
            if (f[i] != '%') {
                size_t j = i;
                const bool ws = isWs(f[i]);
                while (j < len && f[j] != '%' && isWs(f[j]) == ws) j++;
                literal(ws ? TimeFormat::LITERAL_WS : TimeFormat::LITERAL, f + i, j - i);
                i = j;
                continue;
            }
            if (!conversion(f, len, &i, caseOverride)) return false;
        }
        return true;
    }

    bool conversion(const char* f, size_t len, size_t* ip, uint8_t caseOverride) {
        size_t i = *ip + 1;
        uint8_t pad = TimeFormat::PAD_DEFAULT, act = TimeFormat::CASE_NONE;
        uint8_t mod = TimeFormat::FMODIFY_NONE;
        bool caseSeen = false, padSeen = false, haveWidth = false, hash = false;
        uint64_t width = 0;
        for (;; i++) {
            if (i >= len) return false;  // a lone % at the end
            const char c = f[i];
            if (mod != TimeFormat::FMODIFY_NONE && !isAlpha(c) && c != ':' && c != 1) return false;
            if (c == '#' || c == '^') {
                if (haveWidth || caseSeen) return false;
                caseSeen = true;
                hash = c == '#';
                act = c == '^' ? TimeFormat::CASE_UPPER : TimeFormat::CASE_REVERSE;
            } else if ((c == '_' || c == '-' || c == '0') && !haveWidth) {
                if (padSeen) return false;
                padSeen = true;
                pad = c == '_'   ? TimeFormat::PAD_SPACE
                      : c == '-' ? TimeFormat::PAD_NONE
                                 : TimeFormat::PAD_ZERO;
            } else if (c == '_' || c == '-') {
                return false;  // a flag after the width
            } else if (isDigit(c)) {
                haveWidth = true;
                width = width * 10 + uint64_t(c - '0');
                if (width > MAX_WIDTH) return false;
            } else if (c == 'E' || c == 'O') {
                if (mod != TimeFormat::FMODIFY_NONE) return false;
                mod = c == 'E' ? TimeFormat::FMODIFY_E : TimeFormat::FMODIFY_O;
            } else {
                break;
            }
        }
        const char letter = f[i];
        const bool anyFlag = caseSeen || padSeen || haveWidth || mod != TimeFormat::FMODIFY_NONE;
        *ip = i + 1;
        if (letter == '%') {
            if (anyFlag) return false;
            literal(TimeFormat::LITERAL, "%", 1);
            return true;
        }
        if (letter == 'n' || letter == 't') {
            if (anyFlag) return false;
            literal(TimeFormat::LITERAL_WS, letter == 'n' ? "\n" : "\t", 1);
            return true;
        }
        if (letter == ':') {
            size_t colons = 0;
            while (i < len && f[i] == ':') {
                colons++;
                i++;
            }
            if (colons > 3 || i >= len || f[i] != 'z' || mod != TimeFormat::FMODIFY_NONE)
                return false;
            *ip = i + 1;
            static const TimeFormat::atom_type_t kinds[3] = {TimeFormat::TZ_AS_MINOFFSET,
                                                             TimeFormat::TZ_AS_SECOFFSET,
                                                             TimeFormat::TZ_AS_NEEDEDOFFSET};
            static const uint8_t widths[3] = {6, 9, 9};
            // %:::z is as long as it needs: its 9 only sizes the output.
            push(kinds[colons - 1], widths[colons - 1], TimeFormat::PAD_ZERO, pad, act, mod,
                 haveWidth, width, colons == 3, caseOverride);
            return true;
        }
        const bool longForm = (hash && (letter == 'c' || letter == 'x')) ||
                              (mod == TimeFormat::FMODIFY_E && letter == 'x');
        if (const char* expansion = composite(letter, longForm, dynamic)) {
            if (haveWidth || padSeen) return false;
            if (mod == TimeFormat::FMODIFY_O) return false;
            if (mod == TimeFormat::FMODIFY_E && letter != 'c' && letter != 'x' && letter != 'X') {
                return false;
            }
            const uint8_t inner = longForm && hash ? uint8_t(TimeFormat::CASE_NONE) : act;
            return compile(expansion, strlen(expansion),
                           inner != TimeFormat::CASE_NONE ? inner : caseOverride);
        }
        LetterInfo info;
        if (!letterInfo(letter, &info)) return false;
        if (letter == 'z' && mod == TimeFormat::FMODIFY_E) {
            info = {TimeFormat::TZ_AS_MINUTES, 4, TimeFormat::PAD_NONE, false};
        } else if (mod == TimeFormat::FMODIFY_E &&
                   (info.what < TimeFormat::YEAR_4 || info.what > TimeFormat::YEAR_2)) {
            return false;
        } else if (mod == TimeFormat::FMODIFY_O &&
                   (info.what < TimeFormat::YEAR_2 || info.what > TimeFormat::SECOND)) {
            return false;
        }
        // A two-letter month abbreviation could not be told apart on parsing.
        if (info.what == TimeFormat::MONTH_ABBREV && haveWidth && (width == 1 || width == 2))
            return false;
        push(info.what, info.width, info.pad, pad, act, mod, haveWidth, width, info.nameWidthIsHint,
             caseOverride);
        if (letter == 'p') atoms.back().x.conv.upper = 1;
        return true;
    }

    void push(TimeFormat::atom_type_t what, uint8_t defWidth, TimeFormat::padding_t defPad,
              uint8_t pad, uint8_t act, uint8_t mod, bool haveWidth, uint64_t width, bool hintOnly,
              uint8_t caseOverride) {
        atom a{};
        a.what = what;
        a.x.conv.padding = pad != TimeFormat::PAD_DEFAULT ? pad : uint8_t(defPad);
        a.x.conv.act = act != TimeFormat::CASE_NONE ? act : isNameAtom(what) ? caseOverride : act;
        a.x.conv.mod = mod;
        a.x.conv.explicitWidth = haveWidth;
        a.x.conv.anyFlag = pad != TimeFormat::PAD_DEFAULT || act != TimeFormat::CASE_NONE;
        a.width = haveWidth ? width : hintOnly ? 0 : defWidth;
        a.x.conv.hint = defWidth;
        atoms.push_back(a);
    }
};

bool hasType(const std::vector<atom>& v, TimeFormat::atom_type_t w) {
    for (const atom& a : v) {
        if (a.what == w) return true;
    }
    return false;
}

// %l after %S or %s (a one-byte ',' or '.' between allowed), with no flag
// and no width, is milliseconds; after %S only when the format has an hour,
// or no minute, since "%M:%S.%l" reads best as a 12-hour clock field.
void resolveEll(std::vector<atom>& v, const std::vector<std::pair<size_t, size_t>>& lits,
                const Str& text) {
    const bool hasHour = hasType(v, TimeFormat::HOUR_24) || hasType(v, TimeFormat::HOUR_12);
    const bool hasMinute = hasType(v, TimeFormat::MINUTE);
    for (size_t i = 0; i < v.size(); i++) {
        atom& a = v[i];
        if (a.what != TimeFormat::ELL) continue;
        bool millis = false;
        if (!a.x.conv.explicitWidth && !a.x.conv.anyFlag && a.x.conv.mod == 0 && i > 0) {
            size_t prev = i - 1;
            if (v[prev].what == TimeFormat::LITERAL && v[prev].width == 1 && prev > 0) {
                const char c = text[lits[prev].first];
                if (c == '.' || c == ',') prev--;
            }
            if (v[prev].what == TimeFormat::EPOCH) millis = true;
            if (v[prev].what == TimeFormat::SECOND) millis = hasHour || !hasMinute;
        }
        if (millis) {
            a.what = TimeFormat::SUBSECOND;
            a.x.conv.padding = TimeFormat::PAD_ZERO;
            a.width = 3;
        } else {
            a.what = TimeFormat::HOUR_12;
        }
    }
}

int resolution(TimeFormat::atom_type_t w, uint64_t width) {
    switch (w) {
        case TimeFormat::SECOND:
        case TimeFormat::EPOCH:
            return 0;
        case TimeFormat::SUBSECOND:
            return int(width);
        case TimeFormat::MINUTE:
            return -1;
        case TimeFormat::HOUR_24:
        case TimeFormat::HOUR_12:
            return -2;
        case TimeFormat::MDAY:
        case TimeFormat::YDAY:
            return -3;
        case TimeFormat::WEEK_SUNDAY:
        case TimeFormat::WEEK_MONDAY:
        case TimeFormat::WEEK_ISO:
        case TimeFormat::MONTHWEEK_NUM:
            return -4;
        case TimeFormat::MONTH_NUM:
        case TimeFormat::MONTH_ABBREV:
        case TimeFormat::MONTH_FULL:
            return -5;
        case TimeFormat::YEAR_4:
        case TimeFormat::CENTURY:
        case TimeFormat::YEAR_2:
        case TimeFormat::ISO_YEAR_4:
        case TimeFormat::ISO_YEAR_2:
        case TimeFormat::YEAR_2_OR_4:
            return -6;
        default:
            return INT_MIN;
    }
}

}  // namespace

namespace {

// The numeric fields from YEAR_4 to SECOND, in the order of their types:
// range, bit, field and what is added to the value read.
struct NumericField {
    int min, max;
    uint32_t bit;
    int TimeFormatRawParseResult::*field;
    int adjust;
};
using RR = TimeFormatRawParseResult;
const NumericField kNumeric[TimeFormat::SECOND - TimeFormat::YEAR_4 + 1] = {
    {1971, 2999, RR::HAVE_YEAR, &RR::year, 0},          // YEAR_4
    {19, 29, RR::HAVE_CENTURY, &RR::century, 0},        // CENTURY
    {0, 99, RR::HAVE_YEAR2, &RR::year2, 0},             // YEAR_2
    {1971, 2999, RR::HAVE_ISOYEAR, &RR::isoYear, 0},    // ISO_YEAR_4
    {0, 99, RR::HAVE_ISOYEAR2, &RR::isoYear2, 0},       // ISO_YEAR_2
    {0, 2999, RR::HAVE_YEAR2, &RR::year2, 0},           // YEAR_2_OR_4, see below
    {1, 12, RR::HAVE_MONTH, &RR::month, -1},            // MONTH_NUM
    {0, 53, RR::HAVE_WEEK_SUNDAY, &RR::weekSunday, 0},  // WEEK_SUNDAY
    {0, 53, RR::HAVE_WEEK_MONDAY, &RR::weekMonday, 0},  // WEEK_MONDAY
    {1, 53, RR::HAVE_WEEK_ISO, &RR::weekIso, 0},        // WEEK_ISO
    {1, 5, RR::HAVE_MONTHWEEK, &RR::weekOfMonth, 0},    // MONTHWEEK_NUM
    {1, 31, RR::HAVE_MDAY, &RR::mday, 0},               // MDAY
    {1, 366, RR::HAVE_YDAY, &RR::yday, -1},             // YDAY
    {0, 6, RR::HAVE_WDAY, &RR::wday, 0},                // WDAY_SUNDAY0
    {1, 7, RR::HAVE_WDAY, &RR::wday, 0},                // WDAY_SUNDAY7: 7 is Sunday, 0
    {0, 24, RR::HAVE_HOUR, &RR::hour, 0},               // HOUR_24
    {1, 12, RR::HAVE_HOUR12, &RR::hour12, 0},           // HOUR_12
    {0, 59, RR::HAVE_MINUTE, &RR::minute, 0},           // MINUTE
    {0, 60, RR::HAVE_SECOND, &RR::second, 0},           // SECOND
};

}  // namespace

namespace {
size_t renderBound(const atom& a);
bool canStartWithDigit(const atom* a, const atom* end);
}  // namespace

TimeFormat::TimeFormat(const char* format) {
    if (!setFtime(format)) {
        fprintf(stderr, "bad TimeFormat constant: \"%s\"\n", format);
        abort();
    }
}

TimeFormat::TimeFormat(const TimeFormat& other) {
    if (other.valid()) _setFtime(other._source.data(), other._source.size(), other._dynamic);
}

TimeFormat& TimeFormat::operator=(const TimeFormat& other) {
    if (this != &other) {
        reset();
        if (other.valid()) _setFtime(other._source.data(), other._source.size(), other._dynamic);
    }
    return *this;
}

TimeFormat::~TimeFormat() { reset(); }

void TimeFormat::reset() {
    delete[] _atoms;
    _atoms = _atomsEnd = nullptr;
    _literals.clear();
    _source.clear();
    _renderSizeHint = 0;
    _coarsest = -7;
    _finest = 1;
    _dynamic = false;
    _hasEpoch = false;
    _renderBound = 0;
    _fixedLayout = false;
    _fixedBits = 0;
    _fixedTemplate.clear();
    _fixedFields.clear();
}

bool TimeFormat::setFtime(const char* format) { return _setFtime(format, strlen(format), false); }
bool TimeFormat::setFtime(const char* format, size_t length) {
    return _setFtime(format, length, false);
}
bool TimeFormat::setFtimeDyn(const char* format, size_t length) {
    return _setFtime(format, length, true);
}

bool TimeFormat::_setFtime(const char* format, size_t length, bool dynamic) {
    reset();
    // The internal year letter must not come from outside.
    if (memchr(format, 1, length) != nullptr) return false;
    Compiler c;
    c.dynamic = dynamic;
    if (!c.compile(format, length, CASE_NONE)) return false;
    c.literals.resize(c.atoms.size());
    resolveEll(c.atoms, c.literals, c.text);
    ASSERT(_atoms == nullptr);
    const size_t n = c.atoms.size();
    _atoms = new atom[n == 0 ? 1 : n];
    _atomsEnd = _atoms + n;
    _literals = std::move(c.text);
    _source.assign(format, length);
    _dynamic = dynamic;
    int coarsest = INT_MAX, finest = INT_MIN;
    for (size_t i = 0; i < n; i++) {
        atom* a = &_atoms[i];
        ASSERT(a < &_atoms[n]);
        *a = c.atoms[i];
        _hasEpoch |= a->what == EPOCH;
        if (a->what == LITERAL || a->what == LITERAL_WS) {
            a->x.lit = _literals.data() + c.literals[i].first;
            _renderSizeHint += a->width;
            _renderBound += a->width;
            continue;
        }
        _renderSizeHint += (a->width > a->x.conv.hint ? a->width : a->x.conv.hint) + 1;
        _renderBound += renderBound(*a);
        const int r = resolution(a->what, a->width);
        if (r != INT_MIN) {
            if (r < coarsest) coarsest = r;
            if (r > finest) finest = r;
        }
    }
    // What parsing needs of the neighbours, worked out once.
    for (atom* a = _atoms; a < _atomsEnd; a++) {
        const bool nextDigit = canStartWithDigit(a + 1, _atomsEnd);
        a->maxDigits = uint8_t(nextDigit && a->width > 0 && a->width < 19 ? a->width : 19);
        a->beforeFraction = a->what == LITERAL && a->width == 1 &&
                            (a->x.lit[0] == '.' || a->x.lit[0] == ',') && a + 1 < _atomsEnd &&
                            a[1].what == SUBSECOND;
    }
    // Literals and zero-padded numbers of fixed width only: such a format
    // is first tried as a fixed layout.
    _fixedLayout = n > 0;
    for (const atom* a = _atoms; a < _atomsEnd; a++) {
        const bool number = a->what >= YEAR_4 && a->what <= SECOND && a->what != YEAR_2_OR_4 &&
                            a->x.conv.padding == PAD_ZERO && a->width >= 1 && a->width <= 4;
        const bool fraction = a->what == SUBSECOND && a->width >= 1 && a->width <= 9;
        if (!number && !fraction && a->what != LITERAL && a->what != LITERAL_WS)
            _fixedLayout = false;
    }
    // The fields such a layout sets, if it sets each only once.
    _fixedBits = 0;
    for (const atom* a = _atoms; _fixedLayout && a < _atomsEnd; a++) {
        if (a->what != SUBSECOND && (a->what < YEAR_4 || a->what > SECOND)) continue;
        const uint32_t bit = a->what == SUBSECOND ? TimeFormatRawParseResult::HAVE_SUBSEC
                                                  : kNumeric[a->what - YEAR_4].bit;
        if ((_fixedBits & bit) != 0) {
            _fixedBits = 0;
            break;
        }
        _fixedBits |= bit;
    }
    if (_fixedLayout) buildFixedLayout();
    if (coarsest != INT_MAX) {
        _coarsest = coarsest;
        _finest = finest;
    }
    return true;
}

// ---------------------------------------------------------------- rendering

namespace {

// "00" to "99": two-digit fields are one copy.
const char kDigitPairs[201] =
    "00010203040506070809101112131415161718192021222324252627282930313233343536373839"
    "40414243444546474849505152535455565758596061626364656667686970717273747576777879"
    "8081828384858687888990919293949596979899";

// Rendering writes into space reserved for the format's largest output.
struct Writer {
    char* w;

    void bytes(const char* p, size_t n) {
        // Mostly one to three bytes: a call to memcpy costs more.
        if (n <= 8) {
            for (size_t i = 0; i < n; i++) w[i] = p[i];
        } else {
            memcpy(w, p, n);
        }
        w += n;
    }
    void fill(size_t n, char c) {
        memset(w, c, n);
        w += n;
    }

    void padded(bool negative, const char* digits, size_t n, uint64_t width, uint8_t pad) {
        const size_t len = n + (negative ? 1 : 0);
        const size_t gap = width > len && pad != TimeFormat::PAD_NONE ? size_t(width - len) : 0;
        if (pad == TimeFormat::PAD_SPACE) fill(gap, ' ');
        if (negative) *w++ = '-';
        if (pad == TimeFormat::PAD_ZERO) fill(gap, '0');
        bytes(digits, n);
    }

    void number(bool negative, uint64_t mag, uint64_t width, uint8_t pad) {
        if (!negative && mag < 100 && width == 2 && pad != TimeFormat::PAD_NONE) {
            w[0] = mag < 10 && pad == TimeFormat::PAD_SPACE ? ' ' : kDigitPairs[2 * mag];
            w[1] = kDigitPairs[2 * mag + 1];
            w += 2;
            return;
        }
        char buf[24];
        padded(negative, buf, convertU64ToAscii(mag, buf), width, pad);
    }
    void number(int64_t v, uint64_t width, uint8_t pad) {
        number(v < 0, v < 0 ? uint64_t(0) - uint64_t(v) : uint64_t(v), width, pad);
    }

    void name(const char* text, size_t n, const atom& a) {
        // A width of exactly 2 gives the two-letter forms ("Su", "Ja").
        if (a.x.conv.explicitWidth && a.width == 2 && n > 2) n = 2;
        if (a.width > n && a.x.conv.padding != TimeFormat::PAD_NONE) fill(size_t(a.width - n), ' ');
        char* start = w;
        bytes(text, n);
        if (a.x.conv.act == TimeFormat::CASE_NONE) return;
        for (char* c = start; c < w; c++) {
            if (isLower(*c)) {
                *c = char(*c - 32);
            } else if (isUpper(*c) && a.x.conv.act == TimeFormat::CASE_REVERSE) {
                *c = char(*c + 32);
            }
        }
    }

    void offset(const atom& a, long off) {
        if (off == TimeFormat::NO_OFFSET) return;
        const bool negative = off < 0;
        const long s = negative ? -off : off;
        const unsigned hh = unsigned(s / 3600 % 100), mm = unsigned(s / 60 % 60),
                       ss = unsigned(s % 60);
        char body[16];
        size_t n = 0;
        auto two = [&](unsigned v) {
            body[n++] = kDigitPairs[2 * v];
            body[n++] = kDigitPairs[2 * v + 1];
        };
        switch (a.what) {
            case TimeFormat::TZ_AS_HHMM:
                two(hh);
                two(mm);
                break;
            case TimeFormat::TZ_AS_MINOFFSET:
            case TimeFormat::TZ_AS_SECOFFSET:
            case TimeFormat::TZ_AS_NEEDEDOFFSET: {
                const bool needed = a.what == TimeFormat::TZ_AS_NEEDEDOFFSET;
                two(hh);
                if (!needed || mm != 0 || ss != 0) {
                    body[n++] = ':';
                    two(mm);
                }
                if (a.what == TimeFormat::TZ_AS_SECOFFSET || (needed && ss != 0)) {
                    body[n++] = ':';
                    two(ss);
                }
                break;
            }
            default:  // minutes, capped at 999
                n = convertU64ToAscii(uint64_t(s / 60 > 999 ? 999 : s / 60), body);
        }
        const char* digits = body;
        if (a.x.conv.padding == TimeFormat::PAD_NONE) {
            while (n > 1 && *digits == '0' && isDigit(digits[1])) {
                digits++;
                n--;
            }
        }
        // The sign always shows; zero padding goes between it and the digits.
        const size_t gap = a.width > n + 1 && a.x.conv.padding != TimeFormat::PAD_NONE
                               ? size_t(a.width - n - 1)
                               : 0;
        if (a.x.conv.padding == TimeFormat::PAD_SPACE) fill(gap, ' ');
        *w++ = negative ? '-' : '+';
        if (a.x.conv.padding == TimeFormat::PAD_ZERO) fill(gap, '0');
        bytes(digits, n);
    }
};

constexpr size_t kMaxNameBytes = 63;

// The most an atom can write.
size_t renderBound(const atom& a) {
    const size_t width = size_t(a.width);
    switch (a.what) {
        case TimeFormat::LITERAL:
        case TimeFormat::LITERAL_WS:
        case TimeFormat::SUBSECOND:
            return width;
        case TimeFormat::WDAY_ABBREV:
        case TimeFormat::WDAY_FULL:
        case TimeFormat::MONTH_ABBREV:
        case TimeFormat::MONTH_FULL:
        case TimeFormat::AMPM:
        case TimeFormat::TZ_NAME:
            return width > kMaxNameBytes ? width : kMaxNameBytes;
        default:  // numbers and offsets: 20 digits and a sign at most
            return (width > 21 ? width : 21) + 1;
    }
}

}  // namespace

void TimeFormat::render(Str& out, const struct tm& t, unsigned long usec,
                        const render_tm_ops* ops) const {
    const size_t old = out.size();
    out.resize(old + _renderBound);
    Writer o{&out[old]};
    // A negative %s with a fraction is written as -(seconds + 1), and the
    // fraction then counts up from it: found once, and only when there is %s.
    int negativeEpoch = -1;
    auto epochIsNegative = [&] {
        if (negativeEpoch < 0) negativeEpoch = ops->to_epoch(ops, &t) < 0;
        return negativeEpoch == 1;
    };
    const int year = t.tm_year + 1900;
    int isoYear = 0, isoWeekNo = -1;
    auto iso = [&] {
        if (isoWeekNo < 0) isoWeek(year, t.tm_yday, t.tm_wday, &isoYear, &isoWeekNo);
    };
    for (const atom* a = _atoms; a < _atomsEnd; a++) {
        const uint8_t pad = a->what < LITERAL_WS ? a->x.conv.padding : uint8_t(PAD_NONE);
        switch (a->what) {
            case LITERAL:
            case LITERAL_WS:
                o.bytes(a->x.lit, size_t(a->width));
                break;
            case YEAR_4:
                o.number(year, a->width, pad);
                break;
            case CENTURY:
                o.number(floorDiv(year, 100), a->width, pad);
                break;
            case YEAR_2:
                o.number(floorMod(year, 100), a->width, pad);
                break;
            case YEAR_2_OR_4:
                o.number(a->width >= 4 ? year : floorMod(year, 100), a->width, pad);
                break;
            case ISO_YEAR_4:
                iso();
                o.number(isoYear, a->width, pad);
                break;
            case ISO_YEAR_2:
                iso();
                o.number(floorMod(isoYear, 100), a->width, pad);
                break;
            case MONTH_NUM:
                o.number(t.tm_mon + 1, a->width, pad);
                break;
            case WEEK_SUNDAY:
                o.number((t.tm_yday + 7 - t.tm_wday) / 7, a->width, pad);
                break;
            case WEEK_MONDAY:
                o.number((t.tm_yday + 7 - (t.tm_wday + 6) % 7) / 7, a->width, pad);
                break;
            case WEEK_ISO:
                iso();
                o.number(isoWeekNo, a->width, pad);
                break;
            case MONTHWEEK_NUM:
                ASSERT(a->what == MONTHWEEK_NUM);
                o.number((t.tm_mday + 6) / 7, a->width, pad);
                break;
            case MDAY:
                o.number(t.tm_mday, a->width, pad);
                break;
            case YDAY:
                o.number(t.tm_yday + 1, a->width, pad);
                break;
            case WDAY_SUNDAY0:
                o.number(t.tm_wday, a->width, pad);
                break;
            case WDAY_SUNDAY7:
                o.number(t.tm_wday == 0 ? 7 : t.tm_wday, a->width, pad);
                break;
            case HOUR_24:
                o.number(t.tm_hour, a->width, pad);
                break;
            case HOUR_12:
                o.number(t.tm_hour % 12 == 0 ? 12 : t.tm_hour % 12, a->width, pad);
                break;
            case MINUTE:
                o.number(t.tm_min, a->width, pad);
                break;
            case SECOND:
                o.number(t.tm_sec, a->width, pad);
                break;
            case SUBSECOND: {
                unsigned long u = usec % 1000000;
                if (_hasEpoch && u != 0 && epochIsNegative()) u = 1000000 - u;
                static const unsigned long pow10[6] = {100000, 10000, 1000, 100, 10, 1};
                for (uint64_t i = 0; i < a->width; i++) {
                    *o.w++ = i < 6 ? char('0' + u / pow10[i] % 10) : '0';
                }
                break;
            }
            case EPOCH: {
                const int64_t e = ops->to_epoch(ops, &t);
                negativeEpoch = e < 0;
                if (e < 0 && usec % 1000000 != 0) {
                    // -(e + 1) may be 0 (for -0.25 s): the sign is written apart.
                    o.number(true, uint64_t(-(e + 1)), a->width, pad);
                } else {
                    o.number(e, a->width, pad);
                }
                break;
            }
            case WDAY_ABBREV:
            case WDAY_FULL:
                if (t.tm_wday >= 0 && t.tm_wday < 7) {
                    const char* n = kWdayFull[t.tm_wday];
                    o.name(n, a->what == WDAY_ABBREV ? 3 : strlen(n), *a);
                } else {
                    o.name("???", 3, *a);
                }
                break;
            case MONTH_ABBREV:
            case MONTH_FULL:
                if (t.tm_mon >= 0 && t.tm_mon < 12) {
                    const char* n = kMonthFull[t.tm_mon];
                    o.name(n, a->what == MONTH_ABBREV ? 3 : strlen(n), *a);
                } else {
                    o.name("???", 3, *a);
                }
                break;
            case AMPM: {
                const bool pm = t.tm_hour >= 12;
                o.name(a->x.conv.upper ? (pm ? "PM" : "AM") : (pm ? "pm" : "am"), 2, *a);
                break;
            }
            case TZ_NAME: {
                char buf[kMaxNameBytes + 1];
                if (ops->get_tzname(ops, &t, buf, sizeof buf)) o.name(buf, strlen(buf), *a);
                break;
            }
            case TZ_AS_MINOFFSET:
            case TZ_AS_SECOFFSET:
            case TZ_AS_NEEDEDOFFSET:
            case TZ_AS_MINUTES:
            case TZ_AS_HHMM:
                o.offset(*a, ops->tz_sec_offset(ops, &t));
                break;
            default:
                ASSERT(a != nullptr && a->what < PUNCTUATION);
                break;
        }
    }
    out.resize(size_t(o.w - out.data()));
}

// ---------------------------------------------------------------- parsing

namespace {

bool canStartWithDigit(const atom* a, const atom* end) {
    if (a >= end) return false;
    switch (a->what) {
        case TimeFormat::LITERAL:
            return isDigit(a->x.lit[0]);
        case TimeFormat::LITERAL_WS:
        case TimeFormat::WDAY_ABBREV:
        case TimeFormat::WDAY_FULL:
        case TimeFormat::MONTH_ABBREV:
        case TimeFormat::MONTH_FULL:
        case TimeFormat::AMPM:
        case TimeFormat::TZ_NAME:
        case TimeFormat::TZ_AS_MINOFFSET:
        case TimeFormat::TZ_AS_SECOFFSET:
        case TimeFormat::TZ_AS_NEEDEDOFFSET:
        case TimeFormat::TZ_AS_MINUTES:
        case TimeFormat::TZ_AS_HHMM:
            return false;
        default:
            return true;
    }
}

// The span of a name: letters, ending where lower case turns to upper
// ("MonJan" is "Mon" then "Jan").
size_t nameSpan(const char* p, const char* end) {
    size_t n = 0;
    while (p + n < end && isAlpha(p[n])) {
        if (n > 0 && isLower(p[n - 1]) && isUpper(p[n])) break;
        n++;
    }
    return n;
}

int weekdayFromName(const char* p, size_t n) {
    for (int d = 0; d < 7; d++) {
        const char* full = kWdayFull[d];
        if ((n == 2 || n == 3) && prefixNoCase(p, n, full)) return d;
        if (equalsNoCase(p, n, full)) return d;
    }
    if (n == 4 && equalsNoCase(p, n, "tues")) return 2;
    if (n == 4 && equalsNoCase(p, n, "thur")) return 4;
    return -1;
}

int monthFromName(const char* p, size_t n, bool fullOnly) {
    for (int m = 0; m < 12; m++) {
        if (fullOnly ? equalsNoCase(p, n, kMonthFull[m])
                     : n >= 3 && prefixNoCase(p, n, kMonthFull[m])) {
            return m;
        }
    }
    return -1;
}

bool startsWith(const char* p, const char* end, const char* s) {
    const size_t n = strlen(s);
    return size_t(end - p) >= n && memcmp(p, s, n) == 0;
}

// AM, PM, A.M., P.M. in any case, and the Japanese, Korean and Chinese forms.
const char* parseAmPm(const char* p, const char* end, int* pm) {
    struct Form {
        const char* text;
        int pm;
        bool caseless;
    };
    static const Form forms[] = {
        {"a.m.", 0, true},
        {"p.m.", 1, true},
        {"am", 0, true},
        {"pm", 1, true},
        {"\xE5\x8D\x88\xE5\x89\x8D", 0, false},
        {"\xE5\x8D\x88\xE5\xBE\x8C", 1, false},
        {"\xEC\x98\xA4\xEC\xA0\x84", 0, false},
        {"\xEC\x98\xA4\xED\x9B\x84", 1, false},
        {"\xE4\xB8\x8A\xE5\x8D\x88", 0, false},
        {"\xE4\xB8\x8B\xE5\x8D\x88", 1, false},
    };
    for (const Form& f : forms) {
        const size_t n = strlen(f.text);
        if (size_t(end - p) < n) continue;
        if (f.caseless ? prefixNoCase(p, n, f.text) : memcmp(p, f.text, n) == 0) {
            *pm = f.pm;
            return p + n;
        }
    }
    return nullptr;
}

bool tzNameByte(char c) {
    return isAlpha(c) || isDigit(c) || c == '+' || c == '-' || c == '/' || c == '_';
}

// "+hh", "+hhmm", "+hh:mm", "+hh:mm:ss"; 1 or 2 hour digits, 3 or 4
// digits in the compact form. The seconds east of UTC, or null.
const char* parseOffset(const char* p, const char* end, int* out) {
    if (p >= end || (*p != '+' && *p != '-')) return nullptr;
    const int sign = *p++ == '-' ? -1 : 1;
    const char* d = p;
    while (p < end && isDigit(*p) && p - d < 6) p++;
    const size_t n = size_t(p - d);
    int h = 0, m = 0, s = 0;
    auto two = [](const char* x) { return (x[0] - '0') * 10 + (x[1] - '0'); };
    if (p < end && *p == ':' && (n == 1 || n == 2)) {
        h = n == 1 ? d[0] - '0' : two(d);
        if (end - p < 3 || !isDigit(p[1]) || !isDigit(p[2])) return nullptr;
        m = two(p + 1);
        p += 3;
        if (end - p >= 3 && *p == ':' && isDigit(p[1]) && isDigit(p[2])) {
            s = two(p + 1);
            p += 3;
        }
    } else if (n == 1 || n == 2) {
        h = n == 1 ? d[0] - '0' : two(d);
    } else if (n == 3 || n == 4) {
        h = n == 3 ? d[0] - '0' : two(d);
        m = two(d + n - 2);
    } else if (n == 6) {
        h = two(d);
        m = two(d + 2);
        s = two(d + 4);
    } else {
        return nullptr;
    }
    if (m > 59 || s > 59) return nullptr;
    const int total = h * 3600 + m * 60 + s;
    if (total > 86399) return nullptr;
    *out = sign * total;
    return p;
}

}  // namespace

const char* TimeFormat::rawParse(TimeFormatRawParseResult* r, const char* begin,
                                 const char* end) const {
    using R = TimeFormatRawParseResult;
    if (_atoms == nullptr || begin == nullptr || end < begin) return nullptr;
    if (_fixedLayout) {
        // A text laid out exactly as the format renders parses the same by
        // either way; anything else is left to the general parser, from the
        // state the result had.
        const uint32_t have = r->have;
        const unsigned conflicts = r->conflicts;
        if (const char* q = parseFixedLayout(r, begin, end)) return q;
        r->have = have;
        r->conflicts = conflicts;
    }
    const char* p = begin;
    for (const atom* a = _atoms; a < _atomsEnd; a++) {
        const bool subsecondSeparator = a->beforeFraction;
        if (p == end) {
            // The text may end early only before whitespace and absent fractions.
            if (a->what == LITERAL_WS) continue;
            if (subsecondSeparator) {
                a++;
                continue;
            }
            return nullptr;
        }
        switch (a->what) {
            case LITERAL_WS:
                while (p < end && isWs(*p)) p++;
                continue;
            case LITERAL:
                if (subsecondSeparator) {
                    if (*p == '.' || *p == ',') {
                        p++;
                    } else {
                        a++;  // no fraction here
                    }
                    continue;
                }
                // Mostly one byte or two: compared in place, not by a call.
                if (size_t(end - p) < a->width) return nullptr;
                for (size_t i = 0; i < a->width; i++) {
                    if (p[i] != a->x.lit[i]) return nullptr;
                }
                p += a->width;
                continue;
            default:
                break;
        }

        if (a->what >= YEAR_4 && a->what <= SECOND) {
            // A digit is the common case: whitespace is looked for only then.
            if (!isDigit(*p)) {
                while (p < end && isWs(*p)) p++;
            }
            const char* d = p;
            uint64_t v = 0;  // 19 digits at most: no overflow
            const ptrdiff_t left = end - p;
            // Most fields are two digits, years four: taken whole when the
            // text has exactly that many before a non-digit.
            if (left >= 2 && a->maxDigits >= 2 && isDigit(p[0]) && isDigit(p[1]) &&
                (a->maxDigits == 2 || left == 2 || !isDigit(p[2]))) {
                v = uint64_t((p[0] - '0') * 10 + (p[1] - '0'));
                p += 2;
            } else if (left >= 4 && a->maxDigits >= 4 && isDigit(p[0]) && isDigit(p[1]) &&
                       isDigit(p[2]) && isDigit(p[3]) &&
                       (a->maxDigits == 4 || left == 4 || !isDigit(p[4]))) {
                v = uint64_t((p[0] - '0') * 1000 + (p[1] - '0') * 100 + (p[2] - '0') * 10 +
                             (p[3] - '0'));
                p += 4;
            } else {
                const char* limit = size_t(end - p) > a->maxDigits ? p + a->maxDigits : end;
                while (p < limit && isDigit(*p)) v = v * 10 + uint64_t(*p++ - '0');
            }
            const NumericField& f = kNumeric[a->what - YEAR_4];
            // Too large: give digits back until it fits (131 for %d is 13).
            while (v > uint64_t(f.max)) {
                v /= 10;
                p--;
            }
            if (p == d || v < uint64_t(f.min)) return nullptr;
            int iv = int(v);
            if (a->what == YEAR_2_OR_4 && (p - d > 2 || iv >= 100)) {
                if (iv < 1971) return nullptr;
                r->set(R::HAVE_YEAR, &r->year, iv);
                continue;
            }
            if (a->what == WDAY_SUNDAY7) iv %= 7;
            r->set(f.bit, &(r->*f.field), iv + f.adjust);
            continue;
        }
        if (a->what <= TZ_AS_HHMM) {
            int off;
            const char* q;
            if (a->what == TZ_AS_MINUTES) {
                if (*p != '+' && *p != '-') return nullptr;
                const int sign = *p == '-' ? -1 : 1;
                q = p + 1;
                int minutes = 0, digits = 0;
                while (q < end && isDigit(*q) && digits < 4) {
                    minutes = minutes * 10 + (*q++ - '0');
                    digits++;
                }
                if (digits == 0 || minutes > 1439) return nullptr;
                off = sign * minutes * 60;
            } else {
                q = parseOffset(p, end, &off);
                if (q == nullptr) return nullptr;
            }
            r->set(R::HAVE_TZOFF, &r->tzoff, off);
            p = q;
            continue;
        }
        if (isNameAtom(a->what)) {
            if (a->what == AMPM) {
                int pm;
                const char* q = parseAmPm(p, end, &pm);
                if (q == nullptr) return nullptr;
                r->set(R::HAVE_PM, &r->pm, pm);
                p = q;
                continue;
            }
            if (a->what == TZ_NAME) {
                size_t n = 0;
                const size_t limit = a->x.conv.explicitWidth ? size_t(a->width) : SIZE_MAX;
                while (p + n < end && n < limit && tzNameByte(p[n])) n++;
                if (n == 0) return nullptr;
                for (const char* more : {" Standard Time", " Daylight Time"}) {
                    if (startsWith(p + n, end, more)) {
                        n += strlen(more);
                        for (const char* tail : {" (Mexico)", " 2"}) {
                            if (startsWith(p + n, end, tail)) n += strlen(tail);
                        }
                        break;
                    }
                }
                // The longest name seen stands.
                if ((r->have & R::HAVE_TZNAM) == 0 || n > strlen(r->tzname)) {
                    const size_t keep = n < R::TZNAME_MAX ? n : R::TZNAME_MAX;
                    memcpy(r->tzname, p, keep);
                    r->tzname[keep] = 0;
                    r->have |= R::HAVE_TZNAM;
                }
                p += n;
                continue;
            }
            const size_t n = nameSpan(p, end);
            int v;
            if (a->what == WDAY_ABBREV || a->what == WDAY_FULL) {
                v = weekdayFromName(p, n);
                if (v < 0) return nullptr;
                r->set(R::HAVE_WDAY, &r->wday, v);
            } else {
                v = monthFromName(p, n, a->what == MONTH_FULL);
                if (v < 0) return nullptr;
                r->set(R::HAVE_MONTH, &r->month, v);
            }
            p += n;
            continue;
        }

        // Numbers: whitespace before them is skipped (a digit is the common case).
        while (p < end && uint8_t(*p) <= ' ' && isWs(*p)) p++;
        if (a->what == EPOCH) {
            bool negative = false;
            if (p < end && (*p == '+' || *p == '-')) negative = *p++ == '-';
            const size_t maxDigits = a->x.conv.explicitWidth ? size_t(a->width) : 10;
            const char* d = p;
            uint64_t v = 0;
            bool overflow = false;
            while (p < end && isDigit(*p) && size_t(p - d) < maxDigits) {
                const unsigned digit = unsigned(*p++ - '0');
                if (v > (uint64_t(INT64_MAX) - digit) / 10) overflow = true;
                if (!overflow) v = v * 10 + digit;
            }
            if (p == d) return nullptr;
            int64_t e = overflow   ? (negative ? INT64_MIN : INT64_MAX)
                        : negative ? -int64_t(v)
                                   : int64_t(v);
            if (overflow) r->conflicts++;
            if ((r->have & R::HAVE_EPOCH) != 0 && r->epoch != e) {
                r->conflicts++;
            } else if ((r->have & R::HAVE_EPOCH) == 0) {
                r->epoch = e;
                r->have |= R::HAVE_EPOCH | (negative ? R::EPOCH_NEGATIVE : 0);
            }
            continue;
        }
        if (a->what != SUBSECOND) return nullptr;
        const char* d = p;
        const char* limit = size_t(end - p) > a->maxDigits ? p + a->maxDigits : end;
        while (p < limit && isDigit(*p)) p++;
        if (p == d) return nullptr;
        {
            // Nine digits are kept (nanoseconds); more are read and dropped.
            const unsigned digits = p - d > 9 ? 9 : unsigned(p - d);
            uint32_t frac = 0;
            for (unsigned i = 0; i < digits; i++) frac = frac * 10 + uint32_t(d[i] - '0');
            if ((r->have & R::HAVE_SUBSEC) != 0) {
                r->conflicts += r->subsec != frac || r->subsecDigits != digits;
            } else {
                r->subsec = frac;
                r->subsecDigits = digits;
                r->have |= R::HAVE_SUBSEC;
            }
            continue;
        }
    }
    return endOfDayCheck(r) ? p : nullptr;
}

namespace {

// 16 bytes of text against 16 of a layout template: a digit where the
// template has the digit mark, '.' or ',' where it has the separator mark,
// the very byte elsewhere.
bool fixedBlockMatches(const char* text, const char* templ) {
    const __m128i x = bytescan::load16(text);
    const __m128i t = bytescan::load16(templ);
    const __m128i d = _mm_sub_epi8(x, _mm_set1_epi8('0'));
    const __m128i isDigit = _mm_cmpeq_epi8(_mm_min_epu8(d, _mm_set1_epi8(9)), d);
    const __m128i isSep =
        _mm_or_si128(_mm_cmpeq_epi8(x, _mm_set1_epi8('.')), _mm_cmpeq_epi8(x, _mm_set1_epi8(',')));
    const __m128i wantDigit = _mm_cmpeq_epi8(t, _mm_setzero_si128());
    const __m128i wantSep = _mm_cmpeq_epi8(t, _mm_set1_epi8(1));
    const __m128i same = _mm_andnot_si128(_mm_or_si128(wantDigit, wantSep), _mm_cmpeq_epi8(x, t));
    const __m128i ok = _mm_or_si128(
        _mm_or_si128(_mm_and_si128(wantDigit, isDigit), _mm_and_si128(wantSep, isSep)), same);
    return _mm_movemask_epi8(ok) == 0xFFFF;
}

}  // namespace

// The layout as a byte template (each byte a literal, a digit mark or the
// '.'/',' mark) and the fields at their offsets.
void TimeFormat::buildFixedLayout() {
    _fixedTemplate.clear();
    _fixedFields.clear();
    for (const atom* a = _atoms; a < _atomsEnd; a++) {
        if (a->what == LITERAL || a->what == LITERAL_WS) {
            if (a->beforeFraction) {
                _fixedTemplate.push_back(FIXED_SEPARATOR);
                continue;
            }
            for (uint64_t i = 0; i < a->width; i++) {
                // A literal byte that reads as a mark can't be in a template.
                if (uint8_t(a->x.lit[i]) <= FIXED_SEPARATOR) {
                    _fixedLayout = false;
                    return;
                }
            }
            _fixedTemplate.append(a->x.lit, size_t(a->width));
            continue;
        }
        FixedField f;
        f.offset = uint16_t(_fixedTemplate.size());
        f.width = uint8_t(a->width);
        f.fraction = a->what == SUBSECOND;
        if (!f.fraction) {
            const NumericField& n = kNumeric[a->what - YEAR_4];
            f.min = uint32_t(n.min);
            f.max = uint32_t(n.max);
            f.adjust = int8_t(n.adjust);
            f.sundaySeven = a->what == WDAY_SUNDAY7;
            f.bit = n.bit;
            TimeFormatRawParseResult probe;
            f.fieldOffset = uint16_t(reinterpret_cast<char*>(&(probe.*n.field)) -
                                     reinterpret_cast<char*>(&probe));
        }
        _fixedFields.push_back(f);
        _fixedTemplate.append(size_t(a->width), char(FIXED_DIGIT));
    }
    // What follows the layout matters only where the general parser would
    // read on: a last number that takes all digits, a last run of blanks.
    const atom& last = _atomsEnd[-1];
    _fixedTail = last.what == LITERAL_WS                               ? FIXED_TAIL_NO_SPACE
                 : last.what != LITERAL && last.maxDigits > last.width ? FIXED_TAIL_NO_DIGIT
                                                                       : FIXED_TAIL_ANY;
    if (_fixedTemplate.size() > UINT16_MAX) _fixedLayout = false;
}

const char* TimeFormat::parseFixedLayout(TimeFormatRawParseResult* r, const char* begin,
                                         const char* end) const {
    using R = TimeFormatRawParseResult;
    const size_t length = _fixedTemplate.size();
    if (size_t(end - begin) < length) return nullptr;
    // Every byte checked first, 16 at a time where the layout is that long
    // (the last block overlapping the one before), the fields read after.
    if (length >= 16) {
        for (size_t at = 0;; at += 16) {
            if (at + 16 > length) at = length - 16;
            if (!fixedBlockMatches(begin + at, _fixedTemplate.data() + at)) return nullptr;
            if (at + 16 == length) break;
        }
    } else {
        const uint8_t* t = reinterpret_cast<const uint8_t*>(_fixedTemplate.data());
        const uint8_t* x = reinterpret_cast<const uint8_t*>(begin);
        for (size_t i = 0; i < length; i++) {
            const uint8_t want = t[i], c = x[i];
            if (want == FIXED_DIGIT) {
                if (uint8_t(c - '0') > 9) return nullptr;
            } else if (want == FIXED_SEPARATOR) {
                if (c != '.' && c != ',') return nullptr;
            } else if (c != want) {
                return nullptr;
            }
        }
    }
    const char* p = begin + length;
    if (p < end) {
        if (_fixedTail == FIXED_TAIL_NO_DIGIT && isDigit(*p)) return nullptr;
        if (_fixedTail == FIXED_TAIL_NO_SPACE && isWs(*p)) return nullptr;
    }
    // Each field once, none there yet (the common case: a fresh result):
    // plain stores, the bits set together at the end.
    const bool fresh = _fixedBits != 0 && (r->have & _fixedBits) == 0;
    char* const base = reinterpret_cast<char*>(r);
    for (const FixedField& f : _fixedFields) {
        const char* d = begin + f.offset;
        uint32_t v;
        if (f.width == 2) {
            v = uint32_t(d[0] - '0') * 10 + uint32_t(d[1] - '0');
        } else {
            v = 0;
            for (unsigned i = 0; i < f.width; i++) v = v * 10 + uint32_t(d[i] - '0');
        }
        if (f.fraction) {
            if (fresh) {
                r->subsec = v;
                r->subsecDigits = f.width;
            } else if ((r->have & R::HAVE_SUBSEC) != 0) {
                r->conflicts += r->subsec != v || r->subsecDigits != f.width;
            } else {
                r->subsec = v;
                r->subsecDigits = f.width;
                r->have |= R::HAVE_SUBSEC;
            }
            continue;
        }
        if (v < f.min || v > f.max) return nullptr;
        const int value = f.sundaySeven ? int(v % 7) : int(v) + f.adjust;
        int* field = reinterpret_cast<int*>(base + f.fieldOffset);
        if (fresh) {
            *field = value;
        } else {
            r->set(f.bit, field, value);
        }
    }
    if (fresh) r->have |= _fixedBits;
    return endOfDayCheck(r) ? p : nullptr;
}

// 24 o'clock is the end of a day, nothing past it.
bool TimeFormat::endOfDayCheck(const TimeFormatRawParseResult* r) {
    using R = TimeFormatRawParseResult;
    if (r->has(R::HAVE_HOUR) && r->hour == 24) {
        if ((r->has(R::HAVE_MINUTE) && r->minute != 0) ||
            (r->has(R::HAVE_SECOND) && r->second != 0) ||
            (r->has(R::HAVE_SUBSEC) && r->subsec != 0)) {
            return false;
        }
    }
    return true;
}

// ---------------------------------------------------------------- parse results

void TimeFormatRawParseResult::mergeIn(const TimeFormatRawParseResult* o) {
    struct Field {
        uint32_t bit;
        int TimeFormatRawParseResult::*member;
    };
    static const Field fields[] = {
        {HAVE_TZOFF, &TimeFormatRawParseResult::tzoff},
        {HAVE_YEAR, &TimeFormatRawParseResult::year},
        {HAVE_CENTURY, &TimeFormatRawParseResult::century},
        {HAVE_YEAR2, &TimeFormatRawParseResult::year2},
        {HAVE_MONTH, &TimeFormatRawParseResult::month},
        {HAVE_MDAY, &TimeFormatRawParseResult::mday},
        {HAVE_HOUR, &TimeFormatRawParseResult::hour},
        {HAVE_HOUR12, &TimeFormatRawParseResult::hour12},
        {HAVE_PM, &TimeFormatRawParseResult::pm},
        {HAVE_MINUTE, &TimeFormatRawParseResult::minute},
        {HAVE_SECOND, &TimeFormatRawParseResult::second},
        {HAVE_ISOYEAR, &TimeFormatRawParseResult::isoYear},
        {HAVE_ISOYEAR2, &TimeFormatRawParseResult::isoYear2},
        {HAVE_WEEK_SUNDAY, &TimeFormatRawParseResult::weekSunday},
        {HAVE_WEEK_MONDAY, &TimeFormatRawParseResult::weekMonday},
        {HAVE_WEEK_ISO, &TimeFormatRawParseResult::weekIso},
        {HAVE_MONTHWEEK, &TimeFormatRawParseResult::weekOfMonth},
        {HAVE_YDAY, &TimeFormatRawParseResult::yday},
        {HAVE_WDAY, &TimeFormatRawParseResult::wday},
    };
    for (const Field& f : fields) {
        if ((have & f.bit) == 0 && (o->have & f.bit) != 0) {
            this->*f.member = o->*f.member;
            have |= f.bit;
        }
    }
    if ((have & HAVE_EPOCH) == 0 && (o->have & HAVE_EPOCH) != 0) {
        epoch = o->epoch;
        have |= HAVE_EPOCH | (o->have & EPOCH_NEGATIVE);
    }
    if ((have & HAVE_SUBSEC) == 0 && (o->have & HAVE_SUBSEC) != 0) {
        subsec = o->subsec;
        subsecDigits = o->subsecDigits;
        have |= HAVE_SUBSEC;
    }
    if ((have & HAVE_TZNAM) == 0 && (o->have & HAVE_TZNAM) != 0) {
        memcpy(tzname, o->tzname, sizeof tzname);
        have |= HAVE_TZNAM;
    }
    conflicts += o->conflicts;
}

bool TimeFormatRawParseResult::setMonth(const StrSegment& name) {
    const int m = monthFromName(name._data, name._len, false);
    if (m < 0) return false;
    set(HAVE_MONTH, &month, m);
    return true;
}

bool TimeFormatRawParseResult::setFracsec(const char* begin, const char* end) {
    if (begin >= end) return false;
    // Nine digits are kept (nanoseconds); more are read and dropped.
    uint32_t v = 0;
    unsigned digits = 0;
    for (const char* p = begin; p < end; p++) {
        if (!isDigit(*p)) return false;
        if (digits < 9) {
            v = v * 10 + uint32_t(*p - '0');
            digits++;
        }
    }
    if ((have & HAVE_SUBSEC) != 0) {
        if (subsec != v || subsecDigits != digits) conflicts++;
        return true;
    }
    subsec = v;
    subsecDigits = digits;
    have |= HAVE_SUBSEC;
    return true;
}

bool TimeFormatRawParseResult::setYear(const StrSegment& digits) {
    if (digits._len == 0 || digits._len > 9) return false;
    int v = 0;
    for (size_t i = 0; i < digits._len; i++) {
        if (!isDigit(digits._data[i])) return false;
        v = v * 10 + (digits._data[i] - '0');
    }
    if (digits._len >= 3) {
        set(HAVE_YEAR, &year, v);
    } else {
        set(HAVE_YEAR2, &year2, v);
    }
    return true;
}

bool TimeFormatRawParseResult::fullYear(int* out) const {
    if (has(HAVE_YEAR)) {
        *out = year;
    } else if (has(HAVE_YEAR2 | HAVE_CENTURY)) {
        *out = century * 100 + year2;
    } else if (has(HAVE_YEAR2)) {
        *out = year2 < 69 ? 2000 + year2 : 1900 + year2;  // as POSIX reads %y
    } else {
        return false;
    }
    return true;
}

void TimeFormatRawParseResult::incrementDay() {
    int y;
    if (!fullYear(&y) || !has(HAVE_MONTH | HAVE_MDAY)) return;
    if (++mday > daysInMonth(y, month)) {
        mday = 1;
        if (++month == 12) {
            month = 0;
            y++;
            have = (have & ~(HAVE_YEAR2 | HAVE_CENTURY)) | HAVE_YEAR;
            year = y;
        }
    }
    if (has(HAVE_YDAY))
        yday = int(daysFromCivil(y, unsigned(month + 1), unsigned(mday)) - daysFromCivil(y, 1, 1));
    if (has(HAVE_WDAY)) wday = (wday + 1) % 7;
}

bool TimeFormatRawParseResult::mdayValidForMonth() const {
    if (!has(HAVE_MONTH | HAVE_MDAY)) return false;
    int y;
    const int days = fullYear(&y) ? daysInMonth(y, month)
                     : month == 1 ? 29
                                  : daysInMonth(2001, month);
    return mday >= 1 && mday <= days;
}

bool TimeFormatRawParseResult::computeMmddFromYday() {
    int y;
    if (!fullYear(&y) || !has(HAVE_YDAY) || yday < 0 || yday >= 365 + isLeapYear(y)) return false;
    int64_t yy;
    unsigned m1, d;
    civilFromDays(daysFromCivil(y, 1, 1) + yday, &yy, &m1, &d);
    set(HAVE_MONTH, &month, int(m1) - 1);
    set(HAVE_MDAY, &mday, int(d));
    return true;
}

int TimeFormatRawParseResult::computedWday() const {
    int y;
    if (!fullYear(&y) || !mdayValidForMonth()) return -1;
    return int(floorMod(daysFromCivil(y, unsigned(month + 1), unsigned(mday)) + 4, 7));
}

bool TimeFormatRawParseResult::computeYdayFromYweek() {
    const int wd = has(HAVE_WDAY) ? wday : 1;  // Monday when no weekday is given
    int64_t day;                               // days since the epoch
    int y;
    if (has(HAVE_WEEK_ISO)) {
        if (has(HAVE_ISOYEAR)) {
            y = isoYear;
        } else if (has(HAVE_ISOYEAR2)) {
            y = 2000 + isoYear2;
        } else if (!fullYear(&y)) {
            return false;
        }
        // Week 1 holds 4 January; weeks start on Monday.
        const int64_t jan4 = daysFromCivil(y, 1, 4);
        const int64_t jan4Monday = jan4 - floorMod(jan4 + 3, 7);
        day = jan4Monday + (weekIso - 1) * 7 + (wd == 0 ? 6 : wd - 1);
    } else if (has(HAVE_WEEK_MONDAY) || has(HAVE_WEEK_SUNDAY)) {
        if (!fullYear(&y)) return false;
        const int64_t jan1 = daysFromCivil(y, 1, 1);
        const int jan1Wday = int(floorMod(jan1 + 4, 7));
        if (has(HAVE_WEEK_MONDAY)) {
            // Week 1 starts on the first Monday; days before it are week 0.
            const int64_t firstMonday = jan1 + (8 - jan1Wday) % 7;
            day = firstMonday + (weekMonday - 1) * 7 + (wd == 0 ? 6 : wd - 1);
        } else {
            const int64_t firstSunday = jan1 + (7 - jan1Wday) % 7;
            day = firstSunday + (weekSunday - 1) * 7 + wd;
        }
    } else {
        return false;
    }
    int64_t yy;
    unsigned m1, d;
    civilFromDays(day, &yy, &m1, &d);
    if (yy < 1 || yy > 9999) return false;
    have = (have & ~(HAVE_YEAR2 | HAVE_CENTURY));
    year = int(yy);
    have |= HAVE_YEAR;
    month = int(m1) - 1;
    mday = int(d);
    have |= HAVE_MONTH | HAVE_MDAY;
    yday = int(day - daysFromCivil(yy, 1, 1));
    have |= HAVE_YDAY;
    return true;
}

bool TimeFormatRawParseResult::dayStartTime(int64_t* out) const {
    int y;
    if (!fullYear(&y) || !mdayValidForMonth()) return false;
    *out = daysFromCivil(y, unsigned(month + 1), unsigned(mday)) * 86400;
    return true;
}

// ---------------------------------------------------------------- Java patterns

bool toJavaTimeFormat(const TimeFormat& f, Str& out) {
    out.clear();
    auto fail = [&] {
        out.clear();
        return false;
    };
    // Zero padding doubles the letter; no padding is the single letter;
    // Java has no blank padding.
    auto numeric = [&](const TimeFormat::atom& a, char c) {
        if (a.x.conv.padding == TimeFormat::PAD_SPACE) return false;
        out.push_back(c);
        if (a.x.conv.padding == TimeFormat::PAD_ZERO) out.push_back(c);
        return true;
    };
    for (const TimeFormat::atom* a = f.atomsBegin(); a < f.atomsEnd(); a++) {
        bool ok = true;
        switch (a->what) {
            case TimeFormat::YEAR_4:
                out.append(a->width <= 1 ? "y" : a->width == 2 ? "yy" : "yyyy");
                break;
            case TimeFormat::YEAR_2:
            case TimeFormat::YEAR_2_OR_4:
                out.append("yy");
                break;
            case TimeFormat::MONTH_NUM:
                ok = numeric(*a, 'M');
                break;
            case TimeFormat::MDAY:
                ok = numeric(*a, 'd');
                break;
            case TimeFormat::HOUR_24:
                ok = numeric(*a, 'H');
                break;
            case TimeFormat::HOUR_12:
                ok = numeric(*a, 'h');
                break;
            case TimeFormat::MINUTE:
                ok = numeric(*a, 'm');
                break;
            case TimeFormat::SECOND:
                ok = numeric(*a, 's');
                break;
            case TimeFormat::SUBSECOND:
                out.append(size_t(a->width), 'S');
                break;
            case TimeFormat::WDAY_ABBREV:
            case TimeFormat::WDAY_FULL:
                out.push_back('E');
                break;
            case TimeFormat::MONTH_ABBREV:
            case TimeFormat::MONTH_FULL:
                out.append("MMM");
                break;
            case TimeFormat::AMPM:
                ok = a->x.conv.upper != 0 && a->x.conv.act != TimeFormat::CASE_REVERSE;
                out.push_back('a');
                break;
            case TimeFormat::TZ_AS_MINOFFSET:
                out.append("ZZ");
                break;
            case TimeFormat::TZ_AS_HHMM:
                out.push_back('Z');
                break;
            case TimeFormat::TZ_NAME:
                out.append("zzz");
                break;
            case TimeFormat::LITERAL:
            case TimeFormat::LITERAL_WS: {
                bool letters = false;
                for (uint64_t i = 0; i < a->width; i++) letters |= isAlpha(a->x.lit[i]);
                if (letters) out.push_back('\'');
                for (uint64_t i = 0; i < a->width; i++) {
                    if (a->x.lit[i] == '\'') out.push_back('\'');
                    out.push_back(a->x.lit[i]);
                }
                if (letters) out.push_back('\'');
                break;
            }
            default:
                ok = false;
        }
        if (!ok) return fail();
    }
    return true;
}

// ---------------------------------------------------------------- constants

const TimeFormat TimeFormat_RFC1123("%a, %d %b %Y %H:%M:%S GMT");
const TimeFormat TimeFormat_RFC1036("%A, %d-%b-%y %H:%M:%S GMT");
const TimeFormat TimeFormat_ASCTIME("%a %b %e %H:%M:%S %Y");

bool mem_parse_into(const char* data, size_t length, SDSTimeFormat* out) {
    static const char* const names[] = {"%UT",   "%UT.%Q", "%UT.%3Q", "%UT.%6Q", "%UT.%9Q",
                                        "%s",    "%s.%Q",  "%s.%3Q",  "%s.%6Q",  "%s.%9Q",
                                        "%UT%Q", "%UT%3Q", "%UT%6Q",  "%UT%9Q",  "%s%Q",
                                        "%s%3Q", "%s%6Q",  "%s%9Q",   "%ST"};
    *out = SDS_OTHER;
    for (size_t i = 0; i < sizeof names / sizeof names[0]; i++) {
        if (strlen(names[i]) == length && memcmp(names[i], data, length) == 0) {
            *out = SDSTimeFormat(i);
            break;
        }
    }
    return true;
}

// ---------------------------------------------------------------- Timeval and friends

bool Timeval::gmtime(GmtStructTm* out) const { return out->GMT_fromUnixTime(long(_tv.tv_sec)); }
bool Timeval::localtime(LocalStructTm* out) const {
    return out->Local_fromUnixTime(long(_tv.tv_sec));
}

bool Timeval::localtime(LocalStructTmHires* out) const {
    if (!out->Local_fromUnixTime(long(_tv.tv_sec))) return false;
    out->usec = (unsigned long)_tv.tv_usec;
    return true;
}

namespace {

// timegm and mktime give -1 both for an error and for 23:59:59 on the last
// day of 1969 (UTC): errno tells them apart.
bool fromFields(time_t (*convert)(struct tm*), struct tm copy, int64_t* out) {
    errno = 0;
    const time_t t = convert(&copy);
    if (t == time_t(-1) && errno != 0) return false;
    *out = t;
    return true;
}

}  // namespace

bool Timeval::set(const GmtStructTm& t) {
    int64_t s;
    if (!fromFields(timegm, t, &s)) return false;
    *this = Timeval(s, 0);
    return true;
}

bool Timeval::set(const LocalStructTm& t) {
    int64_t s;
    if (!fromFields(mktime, t, &s)) return false;
    *this = Timeval(s, 0);
    return true;
}

bool Timeval::set(const LocalStructTmHires& t) {
    int64_t s;
    if (!fromFields(mktime, t, &s) || t.usec >= 1000000) return false;
    *this = Timeval(s, long(t.usec));
    return true;
}

void Timeval::_printAsctime(Str* dest) const {
    if (isMax()) {
        dest->append("MAX_TIME");
    } else if (isMin()) {
        dest->append("MIN_TIME");
    } else if (_tv.tv_sec == 0) {
        dest->append("ZERO_TIME");
    } else {
        LocalStructTm t;
        if (localtime(&t)) {
            t.appendFtime(*dest, TimeFormat_ASCTIME);
        } else {
            dest->append("INVALID_TIME (");
            char buf[24];
            snprintf(buf, sizeof buf, "%lld", (long long)_tv.tv_sec);
            dest->append(buf);
            dest->append(")");
        }
    }
}

void append_stringified(Str* dest, const PathnameOpResult& v) {
    dest->append(v.description);
    dest->append(v.success ? " succeeded in " : " failed in ");
    char buf[24];
    snprintf(buf, sizeof buf, "%llu", (unsigned long long)v.attempts);
    dest->append(buf);
    dest->append(" attempt(s) made between ");
    v.first_attempt._printAsctime(dest);
    dest->append(" and ");
    v.last_attempt._printAsctime(dest);
    if (!v.success) {
        snprintf(buf, sizeof buf, "%d", v.status);
        dest->append(" [status code: ");
        dest->append(buf);
        dest->append(" description: \"");
        dest->append(strerror(v.status));
        dest->append("\"]");
    }
}
