#include "util/Timeval.h"

#include "util/ThreadLocks.h"

#include <strings.h>
#include <unistd.h>

#include <atomic>
#include <cmath>
#include <cstdio>
#include <cstdlib>

#include "libzero/assertion.h"
#include "libzero/int-to-ascii.h"
#include "util/CrashLog.h"
#include "util/DateTime.h"

namespace {

constexpr long ONE_MILLION = 1000000;
constexpr long ONE_BILLION_AS_TVNSECS_TYPE = 1000000000;

// The add and subtract of both clocks, on (seconds, fraction) with the
// fraction's unit as a parameter. The fraction may reach twice the unit
// before the carry; that bounds what callers may pass.
template <class Sec, class Frac>
bool saturatingAdd(Sec& sec, Frac& frac, uint64_t addSec, uint64_t addFrac, long unit) {
    int64_t s;
    if (addSec > static_cast<uint64_t>(INT64_MAX) ||
        __builtin_add_overflow(static_cast<int64_t>(sec), static_cast<int64_t>(addSec), &s)) {
        return false;
    }
    sec = s;
    frac += static_cast<Frac>(addFrac);
    if (frac >= unit) {
        if (sec == INT64_MAX) return false;
        ++sec;
        frac -= unit;
    }
    return true;
}

template <class Sec, class Frac>
bool saturatingSubtract(Sec& sec, Frac& frac, uint64_t subSec, uint64_t subFrac, long unit) {
    int64_t s;
    // INT64_MIN seconds can still be reached by subtracting 2^63.
    if (subSec > static_cast<uint64_t>(INT64_MAX) + 1 ||
        __builtin_sub_overflow(static_cast<int64_t>(sec), static_cast<__int128>(subSec), &s)) {
        return false;
    }
    sec = s;
    frac -= static_cast<Frac>(subFrac);
    if (frac < 0) {
        if (sec == INT64_MIN) return false;
        --sec;
        frac += unit;
    }
    return true;
}

// Magnitude of a later minus an earlier time; sec may use the full unsigned range.
struct Difference {
    uint64_t sec;
    uint32_t frac;
};

template <class Sec, class Frac>
Difference laterMinusEarlier(Sec laterSec, Frac laterFrac, Sec earlierSec, Frac earlierFrac,
                             long unit) {
    Difference d;
    d.sec = static_cast<uint64_t>(laterSec) - static_cast<uint64_t>(earlierSec);
    long f = laterFrac - earlierFrac;
    if (f < 0) {
        d.sec -= 1;
        f += unit;
    }
    d.frac = static_cast<uint32_t>(f);
    return d;
}

// The six digits of a fraction of a second, leading zeros kept.
void sixDigits(long fraction, char* out) {
    for (int i = 5; i >= 0; --i, fraction /= 10) out[i] = static_cast<char>('0' + fraction % 10);
}

void appendDigits(Str* dest, uint64_t v) {
    char buf[24];
    dest->append(buf, convertU64ToAscii(v, buf));
}

// `count` digits, zero-padded on the left.
void appendPadded(Str* dest, uint64_t v, unsigned count) {
    char buf[24];
    unsigned n = decimalCharactersU64(v);
    if (n < count) dest->append(count - n, '0');
    convertU64ToAsciiSizeKnown(v, buf, n);
    dest->append(buf, n);
}

}  // namespace

// ---------------------------------------------------------------- Interval

uint64_t Interval::_do_secondsRoundedUp(uint64_t ms) {
    if (ms > 18446744073709550616ull) return ms == UNBOUNDED ? UNBOUNDED : 18446744073709552ull;
    return (ms + 999) / 1000;
}

void Interval::_do_sleep(uint64_t ms) {
    usleep(static_cast<useconds_t>(static_cast<uint32_t>(ms) * 1000u));
}

void append_stringified(Str* dest, Interval v) {
    appendDigits(dest, v.ms() / 1000);
    dest->push_back('.');
    appendPadded(dest, v.ms() % 1000, 3);
}

void crashlog_write(CrashLogWriteHandler& h, Interval v) {
    h.format("%llu.%03u", static_cast<unsigned long long>(v.ms() / 1000),
             static_cast<unsigned>(v.ms() % 1000));
}

bool mem_parse_into(const char* p, size_t n, Interval* dest) {
    const char* end = p + n;
    if (p == end) return false;
    uint64_t whole = 0;
    bool saturated = false;
    const char* start = p;
    for (; p < end && *p >= '0' && *p <= '9'; ++p) {
        if (!saturated && __builtin_mul_overflow(whole, 10, &whole)) saturated = true;
        if (!saturated && __builtin_add_overflow(whole, *p - '0', &whole)) saturated = true;
    }
    if (p == start) return false;
    unsigned frac4 = 0;  // the first four fraction digits, padded with zeros
    bool anyNonzero = false;
    unsigned fracDigits = 0;
    if (p < end) {
        if (*p != '.') return false;
        for (++p; p < end; ++p, ++fracDigits) {
            if (*p < '0' || *p > '9') return false;
            if (fracDigits < 4) frac4 = frac4 * 10 + (*p - '0');
            anyNonzero |= *p != '0';
        }
    }
    for (; fracDigits < 4; ++fracDigits) frac4 *= 10;
    if (saturated || whole >= 18446744073709552ull) {
        *dest = Interval::unbounded();
        return true;
    }
    uint64_t ms = whole * 1000;
    unsigned fracMs = (frac4 + 5) / 10;
    if (fracMs == 0 && whole == 0 && anyNonzero) fracMs = 1;
    if (__builtin_add_overflow(ms, fracMs, &ms)) ms = Interval::UNBOUNDED;
    *dest = Interval(ms);
    return true;
}

// ---------------------------------------------------------------- MonotonicTime

void MonotonicTime::_MT_setToNow() {
    // The same clock as the timed waits, so that deadlines computed from it
    // and waits on conditions agree.
    monotonic_clock_now(&_ts);
}

void MonotonicTime::subtractSec(unsigned s) {
    if (!saturatingSubtract(_ts.tv_sec, _ts.tv_nsec, s, 0, ONE_BILLION_AS_TVNSECS_TYPE)) setToMin();
}

void MonotonicTime::_add(Interval v) {
    if (v.isUnbounded()) return setToMax();
    if (!saturatingAdd(_ts.tv_sec, _ts.tv_nsec, v.ms() / 1000, (v.ms() % 1000) * 1000000,
                       ONE_BILLION_AS_TVNSECS_TYPE)) {
        return setToMax();
    }
    // clang-format off
    ASSERT(_ts.tv_nsec < 2 * ONE_BILLION_AS_TVNSECS_TYPE);
    // clang-format on
}

void MonotonicTime::_add(Ticks v) {
    if (!saturatingAdd(_ts.tv_sec, _ts.tv_nsec, v._ns / 1000000000, v._ns % 1000000000,
                       ONE_BILLION_AS_TVNSECS_TYPE)) {
        setToMax();
    }
}

void MonotonicTime::_subtract(Interval v) {
    if (v.isUnbounded()) return setToMin();
    if (!saturatingSubtract(_ts.tv_sec, _ts.tv_nsec, v.ms() / 1000, (v.ms() % 1000) * 1000000,
                            ONE_BILLION_AS_TVNSECS_TYPE)) {
        return setToMin();
    }
    ASSERT(_ts.tv_nsec >= -ONE_BILLION_AS_TVNSECS_TYPE);
}

void MonotonicTime::_subtract(Ticks v) {
    if (!saturatingSubtract(_ts.tv_sec, _ts.tv_nsec, v._ns / 1000000000, v._ns % 1000000000,
                            ONE_BILLION_AS_TVNSECS_TYPE)) {
        setToMin();
    }
}

double MonotonicTime::secDifferenceAsDouble(const MonotonicTime& a, const MonotonicTime& b) {
    if (a < b) return -secDifferenceAsDouble(b, a);
    Difference d = laterMinusEarlier(a._ts.tv_sec, a._ts.tv_nsec, b._ts.tv_sec, b._ts.tv_nsec,
                                     ONE_BILLION_AS_TVNSECS_TYPE);
    return static_cast<double>(d.sec) + d.frac * 1e-9;
}

Interval operator-(const MonotonicTime& a, const MonotonicTime& b) {
    if (a < b) return Interval(0);
    Difference d = laterMinusEarlier(a._ts.tv_sec, a._ts.tv_nsec, b._ts.tv_sec, b._ts.tv_nsec,
                                     ONE_BILLION_AS_TVNSECS_TYPE);
    struct {
        uint64_t sec;
        uint32_t nsec;
    } rv{d.sec, d.frac}, *rvp = &rv;
    // clang-format off
    ASSERT(rvp->nsec < (unsigned) ONE_BILLION_AS_TVNSECS_TYPE);
    // clang-format on
    uint64_t ms;
    if (__builtin_mul_overflow(rvp->sec, 1000u, &ms) ||
        __builtin_add_overflow(ms, rvp->nsec / 1000000, &ms)) {
        return Interval::unbounded();
    }
    return Interval(ms);
}

MonotonicTime::Ticks MonotonicTime::ticksDifference(const MonotonicTime& a,
                                                    const MonotonicTime& b) {
    if (a < b) return Ticks(0);
    Difference d = laterMinusEarlier(a._ts.tv_sec, a._ts.tv_nsec, b._ts.tv_sec, b._ts.tv_nsec,
                                     ONE_BILLION_AS_TVNSECS_TYPE);
    uint64_t ns;
    if (__builtin_mul_overflow(d.sec, 1000000000u, &ns) ||
        __builtin_add_overflow(ns, d.frac, &ns)) {
        return Ticks(UINT64_MAX);
    }
    return Ticks(ns);
}

void MonotonicTime::renderCrashLogInfoTo(CrashLogWriteHandler& h) const {
    h.format("%lld.%09u", static_cast<long long>(_ts.tv_sec), static_cast<unsigned>(_ts.tv_nsec));
}

void append_stringified(Str* dest, const MonotonicTime& v) {
    dest->appendFormat("%lld.%09u", static_cast<long long>(v.sec()),
                       static_cast<unsigned>(v.nsec()));
}

void append_stringified(Str* dest, MonotonicTime::Ticks v) {
    appendDigits(dest, v._ns / 1000000000);
    dest->push_back('.');
    appendPadded(dest, v._ns % 1000000000, 9);
}

void crashlog_write(CrashLogWriteHandler& h, MonotonicTime::Ticks v) {
    h.format("%llu.%09lu", static_cast<unsigned long long>(v._ns / 1000000000),
             static_cast<unsigned long>(v._ns % 1000000000));
}

// ---------------------------------------------------------------- Timeval

void Timeval::setToNow() {
    if (gettimeofday(&_tv, nullptr) != 0) abort();
}

void Timeval::addSec(unsigned s) {
    if (!saturatingAdd(_tv.tv_sec, _tv.tv_usec, s, 0, ONE_MILLION)) setToMax();
}

void Timeval::subtractSec(unsigned s) {
    if (!saturatingSubtract(_tv.tv_sec, _tv.tv_usec, s, 0, ONE_MILLION)) setToMin();
}

void Timeval::addUsec(unsigned long long us) {
    if (!saturatingAdd(_tv.tv_sec, _tv.tv_usec, us / ONE_MILLION, us % ONE_MILLION, ONE_MILLION)) {
        setToMax();
    }
}

void Timeval::subtractUsec(unsigned long long us) {
    if (!saturatingSubtract(_tv.tv_sec, _tv.tv_usec, us / ONE_MILLION, us % ONE_MILLION,
                            ONE_MILLION)) {
        setToMin();
    }
}

void Timeval::_addSaturating(Interval v) {
    if (v.isUnbounded()) return setToMax();
    if (!saturatingAdd(_tv.tv_sec, _tv.tv_usec, v.ms() / 1000, (v.ms() % 1000) * 1000,
                       ONE_MILLION)) {
        return setToMax();
    }
    ASSERT(_tv.tv_usec < 2000000);
}

void Timeval::_subtractSaturating(Interval v) {
    if (v.isUnbounded()) return setToMin();
    if (!saturatingSubtract(_tv.tv_sec, _tv.tv_usec, v.ms() / 1000, (v.ms() % 1000) * 1000,
                            ONE_MILLION)) {
        return setToMin();
    }
    ASSERT(_tv.tv_usec >= -1000000);
}

int64_t Timeval::usecDifference(const Timeval& a, const Timeval& b) {
    __int128 d = (static_cast<__int128>(a._tv.tv_sec) - b._tv.tv_sec) * ONE_MILLION +
                 (a._tv.tv_usec - b._tv.tv_usec);
    if (d > INT64_MAX) return INT64_MAX;
    if (d < INT64_MIN) return INT64_MIN;
    return static_cast<int64_t>(d);
}

double Timeval::secDifferenceAsDouble(const Timeval& a, const Timeval& b) {
    if (a < b) return -secDifferenceAsDouble(b, a);
    Difference d =
        laterMinusEarlier(a._tv.tv_sec, a._tv.tv_usec, b._tv.tv_sec, b._tv.tv_usec, ONE_MILLION);
    return static_cast<double>(d.sec) + d.frac * 1e-6;
}

Interval Timeval::differenceSaturating(const Timeval& a, const Timeval& b) {
    if (a < b) return Interval(0);
    Difference d =
        laterMinusEarlier(a._tv.tv_sec, a._tv.tv_usec, b._tv.tv_sec, b._tv.tv_usec, ONE_MILLION);
    uint64_t ms;
    if (__builtin_mul_overflow(d.sec, 1000u, &ms) ||
        __builtin_add_overflow(ms, (d.frac + 999) / 1000, &ms)) {
        return Interval::unbounded();
    }
    return Interval(ms);
}

void Timeval::setToUnixTimeDouble(double seconds) {
    if (seconds >= 9223372036854775808.0) return setToMax();
    if (seconds <= -9223372036854775808.0) return setToMin();
    if (std::isnan(seconds)) return clear();
    double whole;
    double frac = std::modf(seconds, &whole);
    int64_t sec = static_cast<int64_t>(whole);
    long usec;
    if (frac < 0) {
        // The magnitude of the fraction is kept, not its complement; callers
        // of this form have always seen it so.
        sec -= 1;
        usec = static_cast<long>(-frac * 1e6);
    } else {
        usec = static_cast<long>(frac * 1e6);
    }
    if (usec >= ONE_MILLION) {
        usec -= ONE_MILLION;
        if (sec == INT64_MAX) return setToMax();
        ++sec;
    }
    _tv.tv_sec = sec;
    _tv.tv_usec = usec;
}

MonotonicTime::Ticks Timeval::secondsToTicks(double seconds) {
    if (!(seconds > 0)) return MonotonicTime::Ticks(0);
    double ns = seconds * 1e9;
    if (ns >= 18446744073709551616.0) return MonotonicTime::Ticks(UINT64_MAX);
    return MonotonicTime::Ticks(static_cast<uint64_t>(ns));
}

void Timeval::snapSecond(unsigned span) {
    // Down means toward the past for negative times too, as the fraction of
    // a negative time is floored as well.
    if (span > 1) {
        int64_t r = _tv.tv_sec % static_cast<int64_t>(span);
        if (r < 0) r += span;
        int64_t s;
        _tv.tv_sec = __builtin_sub_overflow(_tv.tv_sec, r, &s) ? INT64_MIN : s;
    }
    _tv.tv_usec = 0;
}

void Timeval::snapMillisecond(unsigned span) {
    ASSERT(span < 1000);
    if (span == 0) return;
    _tv.tv_usec -= _tv.tv_usec % (span * 1000);
}

uint64_t Timeval::encodedSubseconds(unsigned digits) const {
    long fraction = writtenFraction();
    // The digits as written, then zeros past the sixth.
    char text[6];
    sixDigits(fraction, text);
    unsigned z = 0;
    while (z < digits && (z >= 6 || text[z] == '0')) {
        if (z >= 6) return uint64_t(1) << digits;
        ++z;
    }
    if (z == digits) return uint64_t(1) << digits;
    uint64_t x = 0;
    for (unsigned i = z; i < digits; ++i) x = x * 10 + (i < 6 ? text[i] - '0' : 0);
    return (2 * x + 1) << z;
}

void Timeval::addEncodedSubseconds(uint64_t encoded) {
    if (encoded != 0 && (encoded & (encoded - 1)) == 0) return;
    ASSERT(encoded > 1);
    unsigned z = __builtin_ctzll(encoded);
    uint64_t x = encoded >> (z + 1);
    unsigned count = z + decimalCharactersU64(x);
    for (; count < 6; ++count) x *= 10;
    for (; count > 6; --count) x /= 10;
    // Codes of more than six digits are larger than a million; what must
    // hold is that the digits, at the scale of microseconds, are a fraction.
    ASSERT(x < 1000000);
    if (x == 0) return;
    if (_tv.tv_sec < 0) {
        if (_tv.tv_sec == INT64_MIN) return setToMin();
        _tv.tv_sec -= 1;
        x = ONE_MILLION - x;
    }
    addUsec(x);
}

// ---------------------------------------------------------------- serialised form

namespace {

constexpr char BASE32_DIGITS[] = "0123456789ABCDEFGHIJKLMNOPQRSTUV";
constexpr char NULL_WORD[] = "zNULLzTIMEzzzz";
constexpr char MIN_WORD[] = "zMINzTIMEzzzzz";
constexpr char MAX_WORD[] = "zMAXzTIMEzzzzz";
constexpr uint64_t MAX_SERIALIZED_SECONDS = 0xffffffffffull;

void putBase32(char* out, uint64_t v, unsigned count) {
    for (unsigned i = count; i-- > 0; v >>= 5) out[i] = BASE32_DIGITS[v & 31];
}

bool getBase32(const char* in, unsigned count, uint64_t* v) {
    uint64_t r = 0;
    for (unsigned i = 0; i < count; ++i) {
        char c = in[i];
        unsigned d;
        if (c >= '0' && c <= '9') {
            d = c - '0';
        } else if (c >= 'A' && c <= 'V') {
            d = c - 'A' + 10;
        } else if (c >= 'a' && c <= 'v') {
            d = c - 'a' + 10;
        } else {
            return false;
        }
        r = r << 5 | d;
    }
    *v = r;
    return true;
}

}  // namespace

void Timeval::_serialize(Str* dest) const {
    if (_tv.tv_sec == 0) return (void)dest->append(NULL_WORD, 14);
    if (isMin()) return (void)dest->append(MIN_WORD, 14);
    if (isMax()) return (void)dest->append(MAX_WORD, 14);
    __int128 since1601 = static_cast<__int128>(_tv.tv_sec) + SECONDS_1601_TO_1970;
    uint64_t sec, nsec;
    if (since1601 > static_cast<__int128>(MAX_SERIALIZED_SECONDS)) {
        sec = MAX_SERIALIZED_SECONDS;
        nsec = 999999999;
    } else if (since1601 < 0) {
        // Nothing before 1601 can be written; such times read back as the
        // largest time like everything before 1970.
        sec = 0;
        nsec = 0;
    } else {
        sec = static_cast<uint64_t>(since1601);
        long usec = _tv.tv_usec > 999999 ? 999999 : _tv.tv_usec;
        nsec = static_cast<uint64_t>(usec < 0 ? 0 : usec) * 1000;
    }
    char out[14];
    putBase32(out, sec, 8);
    putBase32(out + 8, nsec, 6);
    dest->append(out, 14);
}

bool Timeval::_resurrect(const char* text, size_t length) {
    if (length != 14) return false;
    if (text[0] == 'z' || text[0] == 'Z') {
        if (strncasecmp(text, NULL_WORD, 14) == 0) return clear(), true;
        if (strncasecmp(text, MIN_WORD, 14) == 0) return setToMin(), true;
        if (strncasecmp(text, MAX_WORD, 14) == 0) return setToMax(), true;
        return false;
    }
    uint64_t sec, nsec;
    if (!getBase32(text, 8, &sec) || !getBase32(text + 8, 6, &nsec)) return false;
    if (nsec > 999999999) return false;
    int64_t unixSec = static_cast<int64_t>(sec) - SECONDS_1601_TO_1970;
    if (unixSec < 0) return setToMax(), true;
    // May reach a full million: kept as read rather than rounded into the seconds.
    _tv.tv_sec = unixSec;
    _tv.tv_usec = static_cast<long>((nsec + 500) / 1000);
    return true;
}

// ---------------------------------------------------------------- text

void Timeval::_printAsUnixTime(Str* dest, unsigned digits) const {
    if (negativeWithFraction()) {
        dest->push_back('-');
        appendDigits(dest, ~static_cast<uint64_t>(_tv.tv_sec));
    } else {
        char buf[24];
        dest->append(buf, convertI64ToAscii(_tv.tv_sec, buf));
    }
    if (digits == 0) return;
    dest->push_back('.');
    char text[6];
    sixDigits(writtenFraction(), text);
    dest->append(text, digits < 6 ? digits : 6);
    if (digits > 6) dest->append(digits - 6, '0');
}

void append_stringified(Str* dest, const Timeval& v) { v._printAsUnixTime(dest, 6); }

void Timeval::renderCrashLogInfoTo(CrashLogWriteHandler& h) const {
    if (_tv.tv_sec == 0) return h.write("<zero>");
    if (isMax()) return h.write("<max>");
    if (isMin()) return h.write("<min>");
    if (negativeWithFraction()) {
        // The magnitude of the seconds field: one more than the text form
        // prints. Crash reports have always shown it so, and readers of old
        // reports rely on it.
        h.format("-%llu.%06ld", static_cast<unsigned long long>(-static_cast<uint64_t>(_tv.tv_sec)),
                 writtenFraction());
        return;
    }
    h.format("%lld.%06ld", static_cast<long long>(_tv.tv_sec), static_cast<long>(_tv.tv_usec));
}

bool Timeval::_finish_mem_parse_into(bool negative, uint64_t seconds, long usec) {
    if (!negative) {
        if (seconds > static_cast<uint64_t>(INT64_MAX)) return false;
        _tv.tv_sec = static_cast<int64_t>(seconds);
        _tv.tv_usec = usec;
        return true;
    }
    if (usec != 0) {
        seconds += 1;
        usec = ONE_MILLION - usec;
    }
    // seconds + 1 may have wrapped to 0.
    if (seconds > static_cast<uint64_t>(INT64_MAX) + 1 || (seconds == 0 && usec != 0)) return false;
    _tv.tv_sec = static_cast<int64_t>(-seconds);
    _tv.tv_usec = usec;
    return true;
}

bool mem_parse_into(const char* p, size_t n, Timeval* dest) {
    const char* end = p + n;
    bool negative = p < end && *p == '-';
    if (negative) ++p;
    const char* digits = p;
    uint64_t sec = 0;
    for (; p < end && *p >= '0' && *p <= '9'; ++p) {
        if (__builtin_mul_overflow(sec, 10, &sec) || __builtin_add_overflow(sec, *p - '0', &sec)) {
            return false;
        }
    }
    if (p == digits) return false;
    long usec = 0;
    if (p < end) {
        if (*p != '.') return false;
        unsigned count = 0;
        for (++p; p < end; ++p, ++count) {
            if (*p < '0' || *p > '9') return false;
            if (count < 6) usec = usec * 10 + (*p - '0');
        }
        for (; count < 6; ++count) usec *= 10;
    }
    Timeval t;
    if (!t._finish_mem_parse_into(negative, sec, usec)) return false;
    *dest = t;
    return true;
}

bool Timeval::setToUnixTime(const char* text) { return mem_parse_into(text, strlen(text), this); }

bool parse_timet_clamped(const char* text, size_t length, long* dest) {
    const char* p = text;
    const char* end = text + length;
    bool negative = p < end && *p == '-';
    if (negative) ++p;
    if (p == end) return false;
    uint64_t magnitude = 0;
    bool clamped = false;
    for (; p < end; ++p) {
        if (*p < '0' || *p > '9') return false;
        if (!clamped && (__builtin_mul_overflow(magnitude, 10, &magnitude) ||
                         __builtin_add_overflow(magnitude, *p - '0', &magnitude))) {
            clamped = true;
        }
    }
    if (negative) {
        *dest = clamped || magnitude > static_cast<uint64_t>(INT64_MAX) + 1
                    ? INT64_MIN
                    : static_cast<long>(-magnitude);
    } else {
        *dest = clamped || magnitude > static_cast<uint64_t>(INT64_MAX)
                    ? INT64_MAX
                    : static_cast<long>(magnitude);
    }
    return true;
}

// ---------------------------------------------------------------- StaleTimeval

namespace {

// Seconds above bit 30, nanoseconds below; zero until the first refresh.
std::atomic<uint64_t>& staleWord() {
    static std::atomic<uint64_t> word{0};
    return word;
}

}  // namespace

void StaleTimeval::refresh() {
    Timeval t = Timeval::now();
    staleWord().store(static_cast<uint64_t>(t.sec()) << 30 | static_cast<uint64_t>(t.usec()) * 1000,
                      std::memory_order_relaxed);
}

void StaleTimeval::setToNow() {
    uint64_t w = staleWord().load(std::memory_order_relaxed);
    if (w == 0) return Timeval::setToNow();
    _tv.tv_sec = static_cast<int64_t>(w >> 30);
    _tv.tv_usec = static_cast<long>((w & ((1u << 30) - 1)) / 1000);
}

// ---------------------------------------------------------------- describe_time_difference

const describe_time_difference::Unit describe_time_difference::UNITS_HOURS = {" hours", 6};
const describe_time_difference::Unit describe_time_difference::UNITS_SECONDS = {" seconds", 8};
const describe_time_difference::Unit describe_time_difference::UNITS_MILLISECONDS = {
    " milliseconds", 13};
const describe_time_difference::Unit describe_time_difference::UNITS_MICROSECONDS = {
    " microseconds", 13};
const describe_time_difference::Unit describe_time_difference::UNITS_NANOSECONDS = {" nanoseconds",
                                                                                    12};

describe_time_difference::describe_time_difference(const Timeval& a, const Timeval& b) {
    negative = a < b;
    const Timeval& later = negative ? b : a;
    const Timeval& earlier = negative ? a : b;
    Difference diff =
        laterMinusEarlier(later.sec(), later.usec(), earlier.sec(), earlier.usec(), ONE_MILLION);
    // Past 2^64 microseconds only the hours matter, and a double holds them.
    double d = static_cast<double>(diff.sec) * 1e6 + diff.frac;
    uint64_t du =
        diff.sec > UINT64_MAX / ONE_MILLION ? UINT64_MAX : diff.sec * ONE_MILLION + diff.frac;
    if (d > 8e9) {
        setDouble(&UNITS_HOURS, d / 3.6e9);
    } else if (d > 3e6) {
        setDouble(&UNITS_SECONDS, d / 1e6);
    } else if (d > 3000) {
        if (a.usec() % 1000 == 0 && b.usec() % 1000 == 0) {
            setInteger(&UNITS_MILLISECONDS, du / 1000);
        } else {
            setDouble(&UNITS_MILLISECONDS, d / 1000);
        }
    } else {
        setInteger(&UNITS_MICROSECONDS, du);
    }
}

describe_time_difference::describe_time_difference(const MonotonicTime& a, const MonotonicTime& b) {
    negative = a < b;
    const MonotonicTime& later = negative ? b : a;
    const MonotonicTime& earlier = negative ? a : b;
    Difference diff = laterMinusEarlier(later.sec(), later.nsec(), earlier.sec(), earlier.nsec(),
                                        ONE_BILLION_AS_TVNSECS_TYPE);
    double s = static_cast<double>(diff.sec) + diff.frac * 1e-9;
    // Below 3 seconds the exact count of nanoseconds fits easily.
    uint64_t ns = diff.sec * 1000000000 + diff.frac;
    if (s > 8000) {
        setDouble(&UNITS_HOURS, s / 3600);
    } else if (s > 3) {
        setDouble(&UNITS_SECONDS, s);
    } else if (s > 0.003) {
        if (a.nsec() % 1000000 == 0 && b.nsec() % 1000000 == 0) {
            setInteger(&UNITS_MILLISECONDS, ns / 1000000);
        } else {
            setDouble(&UNITS_MILLISECONDS, s * 1000);
        }
    } else if (s > 3e-6) {
        if (a.nsec() % 1000 == 0 && b.nsec() % 1000 == 0) {
            setInteger(&UNITS_MICROSECONDS, ns / 1000);
        } else {
            setDouble(&UNITS_MICROSECONDS, s * 1e6);
        }
    } else {
        setInteger(&UNITS_NANOSECONDS, ns);
    }
}

namespace {

template <class Out>
void renderDifference(Out&& out, const describe_time_difference& v) {
    const char* sign = v.negative ? "-" : "";
    size_t unitLength = v.unit->length;
    if (v.isInteger) {
        if (v.magnitude.u == 1) --unitLength;
        out("%s%llu%.*s", sign, static_cast<unsigned long long>(v.magnitude.u),
            static_cast<int>(unitLength), v.unit->text);
    } else {
        double m = v.magnitude.d;
        int precision = m >= 99.5 ? 1 : m >= 9.95 ? 2 : 3;
        out("%s%5.*f%.*s", sign, precision, m, static_cast<int>(unitLength), v.unit->text);
    }
}

}  // namespace

void append_stringified(Str* dest, const describe_time_difference& v) {
    renderDifference([dest](const char* fmt, auto... args) { dest->appendFormat(fmt, args...); },
                     v);
}

void crashlog_write(CrashLogWriteHandler& h, const describe_time_difference& v) {
    renderDifference([&h](const char* fmt, auto... args) { h.format(fmt, args...); }, v);
}

// ---------------------------------------------------------------- zone forms

bool Timeval::gmtime(StructTmInTimezone* out) const { return out->fromUnixTime(long(_tv.tv_sec)); }

bool Timeval::gmtime(StructTmInTimezoneHires* out) const {
    if (!out->fromUnixTime(long(_tv.tv_sec))) return false;
    out->usec = (unsigned long)_tv.tv_usec;
    return true;
}

bool Timeval::set(const StructTmInTimezone& tm) {
    StructTmInTimezone copy = tm;
    long s;
    if (!copy.toUnixTimeChecked(&s, false)) return false;
    *this = Timeval(s, 0);
    return true;
}

bool Timeval::set(const StructTmInTimezoneHires& tm) {
    StructTmInTimezoneHires copy = tm;
    long s;
    if (!copy.toUnixTimeChecked(&s, false) || tm.usec >= 1000000) return false;
    *this = Timeval(s, long(tm.usec));
    return true;
}
