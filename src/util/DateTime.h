#pragma once
// Broken-down time and the library's strftime-like engine.
//
// TimeFormat compiles a format once into atoms; the same object renders a
// time to text and parses text back into fields, so one format string
// serves both ways. It never calls strftime or strptime. Beyond them it has
// sub-second digits, epoch seconds, several zone-offset forms, width and
// padding on every number, and a tolerant parser: a field read twice with
// different values is counted as a conflict, not fatal.
#include <cstddef>
#include <cstdint>
#include <cstring>
#include <ctime>
#include <vector>

#include "util/Str.h"

class TimeFormat;
class Timezone;

// ---------------------------------------------------------------- StructTm

// The tm structure itself, with calendar operations.
class StructTm : public tm {
public:
    StructTm() { memset(static_cast<tm*>(this), 0, sizeof(tm)); }

    // False past 32535244799 (January 3001), where libc could overrun.
    bool GMT_fromUnixTime(long t);
    bool Local_fromUnixTime(long t);

    // libc's strftime, growing its buffer while the result is empty and the
    // format can't legitimately give an empty text.
    void appendFtime(Str& out, const char* format) const;
    Str strftime(const char* format) const;

    bool isLeapYear() const;
    bool mdayValidForMonth() const;
    void setToLastMday();
    // Moves month and year; a day past the new month's end becomes its last.
    void addCalendarMonths(int n);
    // As %G, %V, %W and %U count them.
    int yearISO8601() const;
    int yearWeekISO8601() const;
    int yearWeekFromMonday() const;
    int yearWeekFromSunday() const;
};

// tm_yday and tm_wday from year, month and day.
void recompute_yday_and_wday(struct tm* t);
// Days in a month (0-11) of a year (tm_year + 1900).
int daysInMonth(int year, int month);
bool isLeapYear(int year);
// Days since 1970-01-01 of a proleptic Gregorian date; the inverse.
int64_t daysFromCivil(int64_t year, unsigned month1, unsigned mday);
void civilFromDays(int64_t days, int64_t* year, unsigned* month1, unsigned* mday);

class GmtStructTm : public StructTm {
public:
    void setToNow();
    void appendFtime(Str& out, const TimeFormat& f, unsigned long usec = 0) const;
    using StructTm::appendFtime;
};

class LocalStructTm : public StructTm {
public:
    void setToNow();
    long timezoneOffsetSeconds() const { return tm_gmtoff; }
    void appendFtime(Str& out, const TimeFormat& f, unsigned long usec = 0) const;
    using StructTm::appendFtime;
};

class LocalStructTmHires : public LocalStructTm {
public:
    void setToNow();
    void appendFtime(Str& out, const TimeFormat& f) const;
    using StructTm::appendFtime;

    unsigned long usec = 0;
};

// ---------------------------------------------------------------- parse results

// The fields a parse found. `have` has one bit a field; `conflicts` is 1
// after clear() (a parse in progress) and counts fields seen twice with
// different values, the first value kept.
class TimeFormatRawParseResult {
public:
    static constexpr uint32_t HAVE_EPOCH = 0x80000000;
    static constexpr uint32_t HAVE_TZOFF = 0x40000000;
    static constexpr uint32_t HAVE_TZNAM = 0x20000000;
    static constexpr uint32_t HAVE_YEAR = 0x10000000;
    static constexpr uint32_t HAVE_CENTURY = 0x8000000;
    static constexpr uint32_t HAVE_YEAR2 = 0x4000000;
    static constexpr uint32_t HAVE_MONTH = 0x2000000;
    static constexpr uint32_t HAVE_MDAY = 0x1000000;
    static constexpr uint32_t HAVE_HOUR = 0x800000;
    static constexpr uint32_t HAVE_HOUR12 = 0x400000;
    static constexpr uint32_t HAVE_PM = 0x200000;
    static constexpr uint32_t HAVE_MINUTE = 0x100000;
    static constexpr uint32_t HAVE_SECOND = 0x80000;
    static constexpr uint32_t HAVE_SUBSEC = 0x40000;
    static constexpr uint32_t EPOCH_NEGATIVE = 0x20000;
    static constexpr uint32_t HAVE_ISOYEAR = 0x80;
    static constexpr uint32_t HAVE_ISOYEAR2 = 0x40;
    static constexpr uint32_t HAVE_WEEK_SUNDAY = 0x20;
    static constexpr uint32_t HAVE_WEEK_MONDAY = 0x10;
    static constexpr uint32_t HAVE_WEEK_ISO = 8;
    static constexpr uint32_t HAVE_MONTHWEEK = 4;
    static constexpr uint32_t HAVE_YDAY = 2;
    static constexpr uint32_t HAVE_WDAY = 1;
    static constexpr size_t TZNAME_MAX = 63;

    TimeFormatRawParseResult() { clear(); }
    // A field's value means something only under its bit: clearing the
    // bits is enough, and a parse per log line does it.
    void clear() {
        have = 0;
        conflicts = 1;
        tzname[0] = 0;
    }
    bool has(uint32_t bits) const { return (have & bits) == bits; }

    // Takes each field it lacks from `other`; the conflict counts add up.
    void mergeIn(const TimeFormatRawParseResult* other);
    // A month name or abbreviation (at least 3 bytes, any case).
    bool setMonth(const StrSegment& name);
    // The digits of a fraction of a second.
    bool setFracsec(const char* begin, const char* end);
    // 3 or more digits: the 4-digit year; fewer: the 2-digit year.
    bool setYear(const StrSegment& digits);

    // The full year when one is known: the 4-digit field, or century and
    // 2-digit year, or a 2-digit year read as 1969-2068; else false.
    bool fullYear(int* year) const;
    // Advances year, month and day by one day (all three must be there).
    void incrementDay();
    // Whether the day exists in the month (29 February without a year).
    bool mdayValidForMonth() const;
    // Month and day from the year and day of year.
    bool computeMmddFromYday();
    // The weekday (0 Sunday) of the date, or -1 without a full date.
    int computedWday() const;
    // Day of year from a year, a week (Sunday, Monday or ISO) and a weekday
    // (Monday when absent); for the ISO week the year is the ISO year.
    bool computeYdayFromYweek();
    // Epoch seconds of the date's midnight in UTC, or false without a date.
    bool dayStartTime(int64_t* out) const;

    // Sets a field, counting a conflict when it was there with another value.
    void set(uint32_t bit, int* field, int value) {
        if ((have & bit) != 0) {
            conflicts += *field != value;
            return;
        }
        *field = value;
        have |= bit;
    }

    uint32_t have;
    unsigned conflicts;
    int64_t epoch = 0;
    int tzoff = 0;  // seconds east of UTC
    char tzname[TZNAME_MAX + 1] = {};
    int year = 0, century = 0, year2 = 0;
    int month = 0;  // 0-11
    int mday = 0, hour = 0, hour12 = 0, pm = 0, minute = 0, second = 0;
    uint32_t subsec = 0;  // as read
    unsigned subsecDigits = 0;
    int isoYear = 0, isoYear2 = 0;
    int weekSunday = 0, weekMonday = 0, weekIso = 0, weekOfMonth = 0;
    int yday = 0;  // 0-365
    int wday = 0;  // 0 Sunday
};

// ---------------------------------------------------------------- TimeFormat

class TimeFormat {
public:
    enum atom_type_t : uint32_t {
        TZ_AS_MINOFFSET = 0,
        TZ_AS_SECOFFSET = 1,
        TZ_AS_NEEDEDOFFSET = 2,
        TZ_AS_MINUTES = 3,
        TZ_AS_HHMM = 4,
        EPOCH = 5,
        YEAR_4 = 6,
        CENTURY = 7,
        YEAR_2 = 8,
        ISO_YEAR_4 = 9,
        ISO_YEAR_2 = 10,
        YEAR_2_OR_4 = 11,
        MONTH_NUM = 12,
        WEEK_SUNDAY = 13,
        WEEK_MONDAY = 14,
        WEEK_ISO = 15,
        MONTHWEEK_NUM = 16,
        MDAY = 17,
        YDAY = 18,
        WDAY_SUNDAY0 = 19,
        WDAY_SUNDAY7 = 20,
        HOUR_24 = 21,
        HOUR_12 = 22,
        MINUTE = 23,
        SECOND = 24,
        SUBSECOND = 25,
        WDAY_ABBREV = 26,
        WDAY_FULL = 27,
        MONTH_ABBREV = 28,
        MONTH_FULL = 29,
        AMPM = 30,
        TZ_NAME = 31,
        LITERAL_WS = 32,
        LITERAL = 33,
        PUNCTUATION = 34,  // transient, during compilation
        ELL = 35,          // transient: %l until its meaning is known
    };
    enum padding_t : uint8_t { PAD_DEFAULT = 0, PAD_SPACE = 1, PAD_ZERO = 2, PAD_NONE = 3 };
    enum case_action_t : uint8_t { CASE_NONE = 0, CASE_UPPER = 1, CASE_REVERSE = 2 };
    enum modifier_t : uint8_t { FMODIFY_NONE = 0, FMODIFY_E = 1, FMODIFY_O = 2 };

    struct atom {
        atom_type_t what;
        union {
            struct {
                uint8_t padding;
                uint8_t act;
                uint8_t mod;
                uint8_t explicitWidth;  // the width came from the format
                uint8_t anyFlag;        // a padding or case flag was given
                uint8_t upper;          // AMPM: "AM" rather than "am"
                uint8_t hint;           // the default width: the size hint
            } conv;
            const char* lit;
        } x;
        uint64_t width;  // for literals, the length
        // For parsing: how many digits a number may take (its width when
        // the next atom could start with a digit), and whether this is the
        // '.' or ',' before a fraction, which may be absent.
        uint8_t maxDigits;
        bool beforeFraction;
    };

    // How a broken-down time answers what the fields alone don't tell.
    struct render_tm_ops {
        // Epoch seconds of the fields.
        long (*to_epoch)(const render_tm_ops* ops, const struct tm* t);
        // The zone's name into buf; false when unknown.
        bool (*get_tzname)(const render_tm_ops* ops, const struct tm* t, char* buf, size_t size);
        // Seconds east of UTC; NO_OFFSET when unknown (the atom writes nothing).
        long (*tz_sec_offset)(const render_tm_ops* ops, const struct tm* t);
    };
    static constexpr long NO_OFFSET = 0x40000000;
    // UTC, and the process's local zone through libc (tm_gmtoff, tm_zone).
    static const render_tm_ops gmt_ops;
    static const render_tm_ops local_ops;

    TimeFormat() = default;
    // For constants: a bad format aborts.
    explicit TimeFormat(const char* format);
    TimeFormat(const TimeFormat& other);
    TimeFormat& operator=(const TimeFormat& other);
    ~TimeFormat();

    // False (and the format reset) for a bad format.
    bool setFtime(const char* format);
    bool setFtime(const char* format, size_t length);
    // As setFtime, the years of %D and %x taking 2 or 4 digits.
    bool setFtimeDyn(const char* format, size_t length);
    void reset();
    bool valid() const { return _atoms != nullptr; }
    const Str& source() const { return _source; }

    // Appends the time; `usec` is the sub-second part.
    void render(Str& out, const struct tm& t, unsigned long usec, const render_tm_ops* ops) const;
    // Reads the text against the format into `r`: the position behind the
    // match, or null.
    const char* rawParse(TimeFormatRawParseResult* r, const char* begin, const char* end) const;

    size_t renderSizeHint() const { return _renderSizeHint; }
    // The format's resolution: 0 seconds, n sub-second digits, -1 minutes,
    // -2 hours, -3 days, -4 weeks, -5 months, -6 years (-7 and 1: none).
    int coarsest() const { return _coarsest; }
    int finest() const { return _finest; }
    const atom* atomsBegin() const { return _atoms; }
    const atom* atomsEnd() const { return _atomsEnd; }

private:
    friend struct TimeFormatTestPeer;
    bool _setFtime(const char* format, size_t length, bool dynamic);
    const char* parseFixedLayout(TimeFormatRawParseResult* r, const char* begin,
                                 const char* end) const;
    static bool endOfDayCheck(const TimeFormatRawParseResult* r);
    void buildFixedLayout();

    atom* _atoms = nullptr;
    atom* _atomsEnd = nullptr;
    Str _literals;
    size_t _renderSizeHint = 0;
    int32_t _coarsest = -7;
    int32_t _finest = 1;
    Str _source;
    bool _dynamic = false;
    bool _hasEpoch = false;   // a %s: a negative time's fraction counts up
    size_t _renderBound = 0;  // the most render() can write
    bool _fixedLayout = false;
    uint32_t _fixedBits = 0;  // set by a fixed layout that sets each field once
    // A fixed layout: its bytes, with marks where digits or a '.'/','
    // go, and its fields.
    static constexpr uint8_t FIXED_DIGIT = 0;
    static constexpr uint8_t FIXED_SEPARATOR = 1;
    enum fixed_tail_t : uint8_t { FIXED_TAIL_ANY, FIXED_TAIL_NO_DIGIT, FIXED_TAIL_NO_SPACE };
    struct FixedField {
        uint16_t offset = 0;
        uint8_t width = 0;
        bool fraction = false;
        bool sundaySeven = false;
        int8_t adjust = 0;
        uint16_t fieldOffset = 0;
        uint32_t min = 0, max = 0;
        uint32_t bit = 0;
    };
    Str _fixedTemplate;
    std::vector<FixedField> _fixedFields;
    fixed_tail_t _fixedTail = FIXED_TAIL_ANY;
};

// ---------------------------------------------------------------- StructTmInTimezone

// Broken-down time in a given zone; a null zone is the process's local
// zone through libc.
class StructTmInTimezone : public StructTm {
public:
    StructTmInTimezone() = default;
    explicit StructTmInTimezone(const Timezone* tz) : _tz(tz) {}

    // Fields, offset and abbreviation of t in the zone; false past the
    // calendar's range.
    bool fromUnixTime(long t);
    // The instant of the fields; -1 for a local time that doesn't exist or
    // is ambiguous with tm_isdst negative. Sets the zone metadata.
    long toUnixTime();
    // As toUnixTime, but a local time in a gap gives the instant the gap ends.
    long nextValidUnixTime();
    bool isAtTransitionTime();
    long timezoneOffsetSeconds() const { return tm_gmtoff; }

    // The conversion as a success flag, for callers where -1 is a real time.
    bool toUnixTimeChecked(long* out, bool nextValid);

    void appendFtime(Str& out, const TimeFormat& f, unsigned long usec = 0) const;
    using StructTm::appendFtime;

    const Timezone* zone() const { return _tz; }
    void setTimezone(const Timezone* tz) { _tz = tz; }

    // The render_tm_ops of a zone: what TimeFormat asks of the fields.
    struct impl {
        TimeFormat::render_tm_ops ops;  // first: the ops pointer is the impl's
        const Timezone* tz;

        explicit impl(const Timezone* zone);
        static long impl_to_epoch(const TimeFormat::render_tm_ops* ops, const struct tm* t);
        static bool impl_get_tzname(const TimeFormat::render_tm_ops* ops, const struct tm* t,
                                    char* buf, size_t size);
        static long impl_tz_sec_offset(const TimeFormat::render_tm_ops* ops, const struct tm* t);
    };

protected:
    const Timezone* _tz = nullptr;
};

class StructTmInTimezoneHires : public StructTmInTimezone {
public:
    StructTmInTimezoneHires() = default;
    explicit StructTmInTimezoneHires(const Timezone* tz) : StructTmInTimezone(tz) {}
    void appendFtime(Str& out, const TimeFormat& f) const;
    using StructTm::appendFtime;

    unsigned long usec = 0;
};

// The format as a java.text.SimpleDateFormat pattern; false (out cleared)
// when some atom has no Java form.
bool toJavaTimeFormat(const TimeFormat& f, Str& out);

// The HTTP date forms: RFC 1123 ("Sun, 06 Nov 1994 08:49:37 GMT"), RFC 1036
// ("Sunday, 06-Nov-94 08:49:37 GMT") and asctime ("Sun Nov  6 08:49:37 1994").
extern const TimeFormat TimeFormat_RFC1123;
extern const TimeFormat TimeFormat_RFC1036;
extern const TimeFormat TimeFormat_ASCTIME;

// The serialized time forms some formats name exactly.
enum SDSTimeFormat {
    SDS_UT = 0,
    SDS_UT_DOT_Q = 1,
    SDS_UT_DOT_3Q = 2,
    SDS_UT_DOT_6Q = 3,
    SDS_UT_DOT_9Q = 4,
    SDS_S = 5,
    SDS_S_DOT_Q = 6,
    SDS_S_DOT_3Q = 7,
    SDS_S_DOT_6Q = 8,
    SDS_S_DOT_9Q = 9,
    SDS_UT_Q = 10,
    SDS_UT_3Q = 11,
    SDS_UT_6Q = 12,
    SDS_UT_9Q = 13,
    SDS_S_Q = 14,
    SDS_S_3Q = 15,
    SDS_S_6Q = 16,
    SDS_S_9Q = 17,
    SDS_ST = 18,
    SDS_OTHER = 19,
};
// Always true.
bool mem_parse_into(const char* data, size_t length, SDSTimeFormat* out);
