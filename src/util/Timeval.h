#pragma once
// The time values of the library. Every operation saturates: there is a
// smallest and a largest time, and arithmetic that would pass them stops
// there instead of wrapping.
//
//   Timeval          wall clock, seconds and microseconds
//   MonotonicTime    a clock that never steps, seconds and nanoseconds
//   Interval         a duration in milliseconds; all ones is unbounded
//   MonotonicTime::Ticks   a duration in nanoseconds
//
// Negative times are floored: -1.5 seconds is seconds -2, microseconds
// 500000.

#include <sys/time.h>

#include <compare>
#include <cstdint>
#include <ctime>

#include "util/Str.h"

class Logger;

class CrashLogWriteHandler;
class GmtStructTm;
class LocalStructTm;
class LocalStructTmHires;
class StructTmInTimezone;
class StructTmInTimezoneHires;
class TimeFormatRawParseResult;
class TimeGuesser;
class TimeFormat;
class Timezone;
class ExtraTimevalParseInfo;

// ---------------------------------------------------------------- Interval

class Interval {
public:
    static constexpr uint64_t UNBOUNDED = ~uint64_t(0);

    constexpr Interval() = default;
    constexpr explicit Interval(uint64_t ms) : _ms(ms) {}
    static constexpr Interval unbounded() { return Interval(UNBOUNDED); }
    static constexpr Interval fromSeconds(uint64_t s) {
        return Interval(s > UNBOUNDED / 1000 ? UNBOUNDED : s * 1000);
    }

    constexpr uint64_t ms() const { return _ms; }
    constexpr bool isUnbounded() const { return _ms == UNBOUNDED; }
    constexpr bool isZero() const { return _ms == 0; }

    // Whole seconds, rounded up; unbounded stays unbounded.
    uint64_t secondsRoundedUp() const { return _do_secondsRoundedUp(_ms); }
    static uint64_t _do_secondsRoundedUp(uint64_t ms);
    // usleep() of the span. The product is taken in 32 bits, so spans past
    // about 71 minutes wrap: callers sleep in short steps.
    void sleep() const { _do_sleep(_ms); }
    static void _do_sleep(uint64_t ms);

    // A relative time span in words ("2 hours"); defined with the time parser.
    bool setFromTimespan(const char* text, size_t length);

    friend constexpr auto operator<=>(Interval, Interval) = default;

protected:
    uint64_t _ms = 0;
};

// An Interval whose text form is a relative time span.
class IntervalFromTimespan : public Interval {
public:
    using Interval::Interval;
};

// "%llu.%03u": seconds and milliseconds.
void append_stringified(Str* dest, Interval v);
void crashlog_write(CrashLogWriteHandler& h, Interval v);
// Decimal seconds with an optional fraction, rounded half up to the
// millisecond; a nonzero fraction never rounds to nothing. Too large
// saturates to unbounded.
bool mem_parse_into(const char* p, size_t n, Interval* dest);

// ---------------------------------------------------------------- MonotonicTime

class MonotonicTime {
public:
    // A duration in nanoseconds.
    struct Ticks {
        uint64_t _ns = 0;
        constexpr Ticks() = default;
        constexpr explicit Ticks(uint64_t ns) : _ns(ns) {}
        friend constexpr auto operator<=>(Ticks, Ticks) = default;
    };

    static constexpr int64_t MAX_SEC = INT64_MAX;
    static constexpr int64_t MIN_SEC = INT64_MIN;

    constexpr MonotonicTime() : _ts{0, 0} {}
    constexpr MonotonicTime(int64_t sec, long nsec) : _ts{sec, nsec} {}

    void _MT_setToNow();
    // Logs which clock timed waits use (info when monotonic, warn otherwise)
    // and keeps the same text as a global crash-log notation.
    static void logWhetherMonotonicClockIsUsed(Logger& logger);
    static MonotonicTime now() {
        MonotonicTime t;
        t._MT_setToNow();
        return t;
    }
    static constexpr MonotonicTime max() { return MonotonicTime(MAX_SEC, 999999999); }
    static constexpr MonotonicTime min() { return MonotonicTime(MIN_SEC, 0); }
    void setToMax() { *this = max(); }
    void setToMin() { *this = min(); }
    bool isMax() const { return _ts.tv_sec == MAX_SEC && _ts.tv_nsec == 999999999; }
    bool isMin() const { return _ts.tv_sec == MIN_SEC && _ts.tv_nsec == 0; }

    int64_t sec() const { return _ts.tv_sec; }
    long nsec() const { return _ts.tv_nsec; }
    const struct timespec& timespec() const { return _ts; }

    // Unlike everything else here, addSec wraps (as unsigned arithmetic):
    // it is the cheap step of periodic timers that never come near the end.
    void addSec(unsigned s) {
        _ts.tv_sec = static_cast<time_t>(static_cast<uint64_t>(_ts.tv_sec) + s);
    }
    void subtractSec(unsigned s);
    void _add(Interval v);
    void _add(Ticks v);
    void _subtract(Interval v);
    void _subtract(Ticks v);
    MonotonicTime& operator+=(Interval v) { return _add(v), *this; }
    MonotonicTime& operator-=(Interval v) { return _subtract(v), *this; }
    MonotonicTime& operator+=(Ticks v) { return _add(v), *this; }
    MonotonicTime& operator-=(Ticks v) { return _subtract(v), *this; }
    friend MonotonicTime operator+(MonotonicTime t, Interval v) { return t += v; }
    friend MonotonicTime operator-(MonotonicTime t, Interval v) { return t -= v; }
    friend MonotonicTime operator+(MonotonicTime t, Ticks v) { return t += v; }
    friend MonotonicTime operator-(MonotonicTime t, Ticks v) { return t -= v; }

    // Inline: timer heaps compare on every step of a sift.
    int compare(const MonotonicTime& o) const {
        if (_ts.tv_sec != o._ts.tv_sec) return _ts.tv_sec < o._ts.tv_sec ? -1 : 1;
        if (_ts.tv_nsec != o._ts.tv_nsec) return _ts.tv_nsec < o._ts.tv_nsec ? -1 : 1;
        return 0;
    }
    friend bool operator==(const MonotonicTime& a, const MonotonicTime& b) {
        return a.compare(b) == 0;
    }
    friend std::strong_ordering operator<=>(const MonotonicTime& a, const MonotonicTime& b) {
        return a.compare(b) <=> 0;
    }

    // a - b in seconds, the same magnitude whichever is later.
    static double secDifferenceAsDouble(const MonotonicTime& a, const MonotonicTime& b);
    // a - b in milliseconds, rounded down; 0 when a is before b.
    friend Interval operator-(const MonotonicTime& a, const MonotonicTime& b);
    // a - b in nanoseconds, saturating; 0 when a is before b.
    static Ticks ticksDifference(const MonotonicTime& a, const MonotonicTime& b);

    void renderCrashLogInfoTo(CrashLogWriteHandler& h) const;

private:
    struct timespec _ts;
};

// "%lld.%09u"
void append_stringified(Str* dest, const MonotonicTime& v);
// "%llu.%09lu": seconds and nanoseconds.
void append_stringified(Str* dest, MonotonicTime::Ticks v);
void crashlog_write(CrashLogWriteHandler& h, MonotonicTime::Ticks v);

// ---------------------------------------------------------------- Timeval

class Timeval {
    // Bounds inside which arithmetic cannot overflow: 2^60 seconds and 2^50
    // milliseconds leave room for every carry.
    static constexpr int64_t FAST_SEC = int64_t(1) << 60;
    static constexpr uint64_t FAST_MS = uint64_t(1) << 50;

public:
    static constexpr int64_t MAX_SEC = INT64_MAX;
    static constexpr int64_t MIN_SEC = INT64_MIN;
    // 1601-01-01 to 1970-01-01, the epoch of the serialised form.
    static constexpr int64_t SECONDS_1601_TO_1970 = 11644473600;

    constexpr Timeval() : _tv{0, 0} {}
    constexpr Timeval(int64_t sec, long usec) : _tv{sec, usec} {}
    explicit Timeval(const struct timeval& tv) : _tv(tv) {}

    // gettimeofday(); a failure aborts, as there is no sensible time to go on with.
    void setToNow();
    static Timeval now() {
        Timeval t;
        t.setToNow();
        return t;
    }
    static constexpr Timeval max() { return Timeval(MAX_SEC, 999999); }
    static constexpr Timeval min() { return Timeval(MIN_SEC, 0); }
    void setToMax() { *this = max(); }
    void setToMin() { *this = min(); }
    bool isMax() const { return _tv.tv_sec == MAX_SEC && _tv.tv_usec == 999999; }
    bool isMin() const { return _tv.tv_sec == MIN_SEC && _tv.tv_usec == 0; }
    bool isNull() const { return _tv.tv_sec == 0 && _tv.tv_usec == 0; }
    void clear() { _tv = {0, 0}; }

    int64_t sec() const { return _tv.tv_sec; }
    long usec() const { return _tv.tv_usec; }
    const struct timeval& timeval() const { return _tv; }

    void addSec(unsigned s);
    void subtractSec(unsigned s);
    void addUsec(unsigned long long us);
    void subtractUsec(unsigned long long us);
    // Far from both ends (the common case by eons) no step can overflow.
    void _add(Interval v) {
        if (__builtin_expect(v.ms() < FAST_MS && _tv.tv_sec < FAST_SEC && _tv.tv_sec > -FAST_SEC &&
                                 static_cast<unsigned long>(_tv.tv_usec) < 1000000,
                             1)) {
            _tv.tv_sec += static_cast<int64_t>(v.ms() / 1000);
            _tv.tv_usec += static_cast<long>(v.ms() % 1000) * 1000;
            if (_tv.tv_usec >= 1000000) _tv.tv_usec -= 1000000, ++_tv.tv_sec;
            return;
        }
        _addSaturating(v);
    }
    void _subtract(Interval v) {
        if (__builtin_expect(v.ms() < FAST_MS && _tv.tv_sec < FAST_SEC && _tv.tv_sec > -FAST_SEC &&
                                 static_cast<unsigned long>(_tv.tv_usec) < 1000000,
                             1)) {
            _tv.tv_sec -= static_cast<int64_t>(v.ms() / 1000);
            _tv.tv_usec -= static_cast<long>(v.ms() % 1000) * 1000;
            if (_tv.tv_usec < 0) _tv.tv_usec += 1000000, --_tv.tv_sec;
            return;
        }
        _subtractSaturating(v);
    }
    void _addSaturating(Interval v);
    void _subtractSaturating(Interval v);
    Timeval& operator+=(Interval v) { return _add(v), *this; }
    Timeval& operator-=(Interval v) { return _subtract(v), *this; }
    friend Timeval operator+(Timeval t, Interval v) { return t += v; }
    friend Timeval operator-(Timeval t, Interval v) { return t -= v; }

    // Seconds, then microseconds: -1, 0 or 1.
    int compare(const Timeval& o) const {
        if (_tv.tv_sec != o._tv.tv_sec) return _tv.tv_sec < o._tv.tv_sec ? -1 : 1;
        if (_tv.tv_usec != o._tv.tv_usec) return _tv.tv_usec < o._tv.tv_usec ? -1 : 1;
        return 0;
    }
    friend bool operator==(const Timeval& a, const Timeval& b) { return a.compare(b) == 0; }
    friend std::strong_ordering operator<=>(const Timeval& a, const Timeval& b) {
        return a.compare(b) <=> 0;
    }

    // a - b in microseconds, saturating at the 64-bit limits.
    static int64_t usecDifference(const Timeval& a, const Timeval& b);
    // a - b in seconds, the same magnitude whichever is later.
    static double secDifferenceAsDouble(const Timeval& a, const Timeval& b);
    // a - b in milliseconds, rounded up; 0 when a is before b.
    friend Interval operator-(const Timeval& a, const Timeval& b) {
        int64_t ds = a._tv.tv_sec - b._tv.tv_sec;
        if (__builtin_expect(a._tv.tv_sec < FAST_SEC && a._tv.tv_sec > -FAST_SEC &&
                                 b._tv.tv_sec < FAST_SEC && b._tv.tv_sec > -FAST_SEC && ds >= 0,
                             1)) {
            long du = a._tv.tv_usec - b._tv.tv_usec;
            if (du < 0) du += 1000000, --ds;
            if (ds >= 0) return Interval(static_cast<uint64_t>(ds) * 1000 + (du + 999) / 1000);
            return Interval(0);
        }
        return differenceSaturating(a, b);
    }
    static Interval differenceSaturating(const Timeval& a, const Timeval& b);

    void setToUnixTimeDouble(double seconds);
    double unixEpochAsDouble() const {
        return _tv.tv_usec * 1e-6 + static_cast<double>(_tv.tv_sec);
    }
    // Seconds as nanosecond ticks: negative and NaN give 0, too large saturates.
    static MonotonicTime::Ticks secondsToTicks(double seconds);

    // Rounds down to a multiple of `span` seconds (when span > 1) and drops
    // the microseconds.
    void snapSecond(unsigned span);
    // Rounds the microseconds down to a multiple of `span` milliseconds;
    // span < 1000.
    void snapMillisecond(unsigned span);

    // The first `digits` decimal digits of the fraction as one integer that
    // keeps their leading zeros: (2x + 1) << z for z leading zeros and the
    // value x of the rest; 1 << digits when all are zero.
    uint64_t encodedSubseconds(unsigned digits) const;
    void addEncodedSubseconds(uint64_t encoded);

    // 14 characters: base 32 of seconds since 1601 (8) and nanoseconds (6),
    // or one of the words for the null, smallest and largest time.
    void _serialize(Str* dest) const;
    bool _resurrect(const char* text, size_t length);

    // "MAX_TIME", "MIN_TIME", "ZERO_TIME" or the local time as asctime()
    // writes it (without its newline); "INVALID_TIME (seconds)" when the
    // calendar can't hold it.
    void _printAsctime(Str* dest) const;
    // Seconds, then "." and `digits` fraction digits (none for 0).
    void _printAsUnixTime(Str* dest, unsigned digits) const;
    // The parse of mem_parse_into over a zero-terminated text.
    bool setToUnixTime(const char* text);
    // A negative sign of the text applied to parsed magnitudes.
    bool _finish_mem_parse_into(bool negative, uint64_t seconds, long usec);

    // Calendar conversions (util/DateTime.h); the forms with a time zone
    // come with the time zones, and the parse result's with timestamp
    // extraction.
    bool gmtime(GmtStructTm* out) const;
    bool localtime(LocalStructTm* out) const;
    bool localtime(LocalStructTmHires* out) const;
    bool gmtime(StructTmInTimezone* out) const;
    bool gmtime(StructTmInTimezoneHires* out) const;
    bool set(const GmtStructTm& tm);
    bool set(const LocalStructTm& tm);
    bool set(const LocalStructTmHires& tm);
    bool set(const StructTmInTimezone& tm);
    bool set(const StructTmInTimezoneHires& tm);
    // The fields a time format read, completed by the guesser's rules (the
    // plain ones when null); false when they don't make a time.
    bool set(TimeFormatRawParseResult* parsed, TimeGuesser* guesser, ExtraTimevalParseInfo* extra);
    // rawParse, then set: the text (zero-terminated, or of that length)
    // read by the format, what it lacks guessed, or read in `zone`.
    // `consumed` gets the length the format matched.
    bool parse(const TimeFormat& format, const char* text, TimeGuesser* guesser,
               ExtraTimevalParseInfo* extra = nullptr, unsigned* consumed = nullptr);
    bool parse(const TimeFormat& format, const char* text, size_t length, TimeGuesser* guesser,
               ExtraTimevalParseInfo* extra = nullptr, unsigned* consumed = nullptr);
    bool parse(const TimeFormat& format, const char* text, const Timezone* zone,
               ExtraTimevalParseInfo* extra = nullptr, unsigned* consumed = nullptr);
    bool parse(const TimeFormat& format, const char* text, size_t length, const Timezone* zone,
               ExtraTimevalParseInfo* extra = nullptr, unsigned* consumed = nullptr);
    bool parse(const TimeFormat& format, const char* text, ExtraTimevalParseInfo* extra = nullptr,
               unsigned* consumed = nullptr);
    bool parse(const TimeFormat& format, const char* text, size_t length,
               ExtraTimevalParseInfo* extra = nullptr, unsigned* consumed = nullptr);

    void renderCrashLogInfoTo(CrashLogWriteHandler& h) const;

protected:
    bool negativeWithFraction() const { return _tv.tv_sec < 0 && _tv.tv_usec != 0; }
    // The fraction as written: a negative time's is counted from the other end.
    long writtenFraction() const {
        return negativeWithFraction() ? 1000000 - _tv.tv_usec : _tv.tv_usec;
    }

    struct timeval _tv;
};

// Seconds "." six digits, as _printAsUnixTime(dest, 6).
void append_stringified(Str* dest, const Timeval& v);
// An optional "-", digits, optionally "." and digits (past six ignored).
bool mem_parse_into(const char* p, size_t n, Timeval* dest);
// An optional "-" and digits; out-of-range values clamp to the 64-bit limits.
bool parse_timet_clamped(const char* text, size_t length, long* dest);

// A Timeval that starts as now.
class CurrentTimeval : public Timeval {
public:
    CurrentTimeval() { setToNow(); }
    CurrentTimeval& operator=(const Timeval& t) {
        Timeval::operator=(t);
        return *this;
    }
};

// A cheap, slightly old clock: one shared word that someone refreshes
// regularly. Reading it never enters the kernel once it has been refreshed.
class StaleTimeval : public Timeval {
public:
    StaleTimeval() { setToNow(); }
    StaleTimeval& operator=(const Timeval& t) {
        Timeval::operator=(t);
        return *this;
    }
    // The shared value, or the real clock before the first refresh.
    void setToNow();
    // Reads the real clock into the shared word.
    static void refresh();
};

// ---------------------------------------------------------------- describe_time_difference

// a - b, printable: "-" when a is before b, then the magnitude in a unit
// chosen by its size ("1.500 seconds", "12 microseconds").
struct describe_time_difference {
    struct Unit {
        const char* text;
        size_t length;
    };
    static const Unit UNITS_HOURS, UNITS_SECONDS, UNITS_MILLISECONDS, UNITS_MICROSECONDS,
        UNITS_NANOSECONDS;

    describe_time_difference(const Timeval& a, const Timeval& b);
    describe_time_difference(const MonotonicTime& a, const MonotonicTime& b);

    const Unit* unit;
    union {
        double d;
        uint64_t u;
    } magnitude;
    bool negative;
    bool isInteger;

private:
    void setDouble(const Unit* u, double v) { unit = u, magnitude.d = v, isInteger = false; }
    void setInteger(const Unit* u, uint64_t v) { unit = u, magnitude.u = v, isInteger = true; }
};

// The difference between a time and now, the time first.
struct describe_time_since : describe_time_difference {
    explicit describe_time_since(const Timeval& a) : describe_time_difference(a, Timeval::now()) {}
    explicit describe_time_since(const MonotonicTime& a)
        : describe_time_difference(a, MonotonicTime::now()) {}
};

void append_stringified(Str* dest, const describe_time_difference& v);
void crashlog_write(CrashLogWriteHandler& h, const describe_time_difference& v);
