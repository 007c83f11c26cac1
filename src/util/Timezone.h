#pragma once
// Time zones as objects: each one a self-contained table of transitions, so
// that many zones live side by side in one process without touching libc's
// single TZ. A zone comes from a TZif file (versions 1 to 3, with or
// without its POSIX footer), an older header-less zoneinfo file, an entry
// of a ".tzpack" file, a POSIX TZ string, a Windows or CLDR zone name
// through the alias table, or the serialized text by which a zone travels
// to another process. Published zones are immutable and never freed.
#include <cstddef>
#include <cstdint>
#include <ctime>

#include "util/Pathname.h"
#include "util/Str.h"
#include "util/StrVector.h"

class FileDescriptor;
class LineReader;

// One local time type of a zone.
struct TimezoneOffset {
    enum time_kind_t : int32_t { WALL = 0, STANDARD = 1, GMT = 2 };
    int64_t utoff = 0;        // seconds east of UTC
    uint32_t nameOffset = 0;  // into the zone's names
    bool isDst = false;
    int32_t timeKind = WALL;  // what the zoneinfo ttisstd/ttisgmt flags said
};

// One end of daylight saving time in a POSIX rule.
class DstEndpoint {
public:
    enum endpoint_type_t : int32_t { JULIAN_NO_LEAP = 0, DAY_OF_YEAR = 1, DOW = 2 };

    // One endpoint from `*p` on ("Jn", "n" or "Mm.w.d", then "/time"):
    // `*p` moves behind it. False for anything out of range.
    bool parsePosix(const char** p);
    // Seconds from 1 January 00:00 of `year` to the endpoint, in the
    // local time that was in force before it.
    int64_t secondsFromJanuary(int year) const;

    endpoint_type_t _type = DOW;
    int32_t _month = 0;     // 0-11
    int32_t _weekDays = 0;  // 7 * (week - 1)
    int32_t _day = 0;       // day number; for DOW the weekday less 11
    int64_t _seconds = 7200;
};

class Timezone {
public:
    static constexpr uint32_t MAX_TIMES = 1200;
    static constexpr uint32_t MAX_TYPES = 256;
    static constexpr uint32_t MAX_CHARS = 270;
    static constexpr uint32_t MAX_LEAPS = 500;
    static constexpr int64_t NOT_CONSTANT = 0x40000000;
    // 400 Gregorian years.
    static constexpr int64_t GREGORIAN_CYCLE_SECONDS = 12622780800LL;

    enum reverse_search_result_type_t {
        ONLY_THIS_INDEX = 0,
        MIGHT_ALSO_BE_NEXT_INDEX = 1,
        NO_INDEX_MATCHES = 2,
    };

    Timezone() { init(); }
    Timezone(const Timezone&) = default;
    Timezone& operator=(const Timezone&) = default;

    void init();
    void setToGmt();
    // `posixOffset` in POSIX sign: positive west of Greenwich.
    void setToConstantOffset(const char* name, long posixOffset);
    void setToStaticDst(const char* name1, const char* name2, long stdOffset, long dstOffset,
                        const DstEndpoint& start, const DstEndpoint& end);

    // Loading; each false on failure, the object then half-filled.
    bool fromPathOrPosix(const char* text);
    bool fromZoneinfoPath(const char* name, bool useFooter);
    bool fromExactZoneinfoPath(const Pathname& path, bool useFooter);
    bool fromZoneinfoFile(const FileDescriptor& fd, bool useFooter);
    bool fromPackedZoneinfoPath(const Pathname& path, const char* name, bool useFooter);
    bool fromZoneinfoData(const char* data, size_t size, bool useFooter);
    bool fromAncientZoneinfoData(const char* data, size_t size);
    bool fromPosixString(const char* text);
    bool setFromSerializedData(const StrVector& lines);
    // Appends the lines of the serialized form (without its header),
    // leaving out transitions more than `years` years from now.
    void serialize(StrVector& lines, int years) const;
    void setSrcName(const Pathname& dir, const Str& name);

    // ---- conversions
    // The last transition at or before t; 0 when none (the first
    // transition's type then serves) and for an empty table.
    uint32_t searchAt(time_t t) const;
    // The time of the transition at or before t; the smallest time when
    // there is none.
    time_t transitionTimeFromAt(time_t t) const;
    // The transition whose type makes `local` (local seconds as if UTC) a
    // real time; see reverse_search_result_type_t.
    uint32_t reverseSearchAt(time_t local, reverse_search_result_type_t* result) const;
    // The type of a local time, `isdst` deciding between two; null in a
    // gap, or when the answer is ambiguous.
    const TimezoneOffset* offsetFromReverseSearch(time_t local, int isdst) const;
    // Of the last type with that isDst (else of the other kind); 0 for none.
    long offsetSeconds(bool dst) const;
    // The offset over [from, to], or NOT_CONSTANT when it changes.
    long constantOffset(time_t from, time_t to) const;
    // Same offsets, names and transitions within 3660 days of t.
    bool isSimilarTo(const Timezone& other, time_t t) const;
    // Appends the abbreviation; for POSIX, one with anything but letters
    // becomes "UTC".
    void tzName_reformat(Str& out, const TimezoneOffset& offset, bool forPosix) const;
    // A POSIX TZ text that behaves like this zone around `time`.
    Str estimatedTzVariable(time_t time, bool forPosix) const;
    void setStructTmMetadata(struct tm* t, const TimezoneOffset* offset) const;

    // ---- reading
    uint32_t timecnt() const { return _timecnt; }
    uint32_t typecnt() const { return _typecnt; }
    time_t transitionTime(uint32_t i) const { return time_t(_transitionTimes[i]); }
    // The type in force from transition i on (type 0 without transitions).
    const TimezoneOffset& typeAt(uint32_t i) const {
        return _timecnt == 0 ? _types[0] : _types[_transitionTypes[i]];
    }
    const TimezoneOffset& type(uint32_t t) const { return _types[t]; }
    uint8_t transitionType(uint32_t i) const { return _transitionTypes[i]; }
    const char* abbreviation(const TimezoneOffset& o) const {
        return o.nameOffset < _names.size() ? _names.c_str() + o.nameOffset : "";
    }
    const Str& srcName() const { return _srcName; }
    long constantOffsetValue() const { return long(_constantOffset); }
    bool repeatsBefore() const { return _repeatsBefore; }
    bool repeatsAfter() const { return _repeatsAfter; }

protected:
    bool readZoneinfoTypes(const unsigned char* p, uint32_t typecnt, uint32_t charcnt);
    void checkZoneinfoOrdered();
    void computeZoneinfoConstantOffset();
    void setRepeatFlags();
    bool applyFooter(const char* text, size_t length);
    void rebaseOnPosixRules(const char* name1, const char* name2, long stdOffset, long dstOffset);
    uint32_t _charOffsetForNewZoneName(const char* name, size_t length);
    void afterLoad();

    uint32_t _timecnt;
    uint32_t _typecnt;
    bool _repeatsBefore;
    bool _repeatsAfter;
    int64_t _transitionTimes[MAX_TIMES];
    uint8_t _transitionTypes[MAX_TIMES];
    TimezoneOffset _types[MAX_TYPES];
    Str _names;
    Str _srcName;
    int64_t _constantOffset;
};

// UTC under the name "GMT".
class GmtTimezone : public Timezone {
public:
    GmtTimezone() { setToGmt(); }
};

// ---------------------------------------------------------------- process-wide

// The zone directory searched before the system's; empty for none.
void setupTimezoneSupport();
void setupTimezoneSupport(const Pathname& dir);
// Where the system's zones live ("/usr/share/zoneinfo") and the directory
// of "localtime" ("/etc"); empty texts restore those. Changing them empties
// the name cache and the failure set (the zones themselves stay).
void setTimezoneSystemPaths(const Pathname& zoneinfoRoot, const Pathname& localtimeDir);

// The cached zone of a name, loading it on first use; null when no source
// knows it.
const Timezone* getTimezone(const char* name, bool tryAliases);
const Timezone* getDefaultTimezone();
const Timezone* getGmtTimezone();
// The zoneinfo name of a Windows or CLDR zone name, or null.
const char* timezoneAlias(const char* name);

// "### SERIALIZED TIMEZONE FORMAT 1.0" and the zone's lines.
void serializeTimezone(const Timezone* tz, StrVector& lines, int years);
const Str& getDefaultTimezoneSerialized();
// The zone of a serialized text: one object per distinct content; null for
// a text without the header or one that doesn't load.
const Timezone* resurrectTimezone(LineReader& reader);
// A zone whose name is worked out from dir/localtime, for probing that logic.
const Timezone* setLocalSrcTest(const Pathname& dir);

// A zone as a user named it.
class UserTimezoneSpecifier {
public:
    void set(const Str& text);
    bool resurrect(LineReader& reader);
    const Timezone* tz() const { return _tz; }
    const Str& text() const { return _spec; }
    // A zoneinfo name for the zone, unless it is the default's twin now;
    // with `allowPosix` a POSIX text when no zoneinfo name is known.
    bool guessTzVariableImpl(Pathname* out, bool allowPosix) const;

    Str _spec;
    const Timezone* _tz = nullptr;
};

void append_stringified(Str* dest, const UserTimezoneSpecifier& v);
