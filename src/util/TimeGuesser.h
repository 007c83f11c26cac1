#pragma once
// Turning the fields a time format read into a Timeval, and guessing what
// the text left out: its zone, its year, its date, the half of the day.
// TimeGuesser holds the rules; a log reader overrides them with what its
// stream has taught it (util/DateParser.h).

#include <cstdint>

#include "util/DateTime.h"
#include "util/Timeval.h"

class Timezone;

// A zone with rules, or a fixed offset.
struct TimezoneGuessResult {
    const Timezone* zone = nullptr;
    long offset = 0;  // seconds east of UTC, when isOffset
    bool isOffset = false;

    void setZone(const Timezone* z) {
        zone = z;
        offset = 0;
        isOffset = false;
    }
    void setOffset(long seconds) {
        zone = nullptr;
        offset = seconds;
        isOffset = true;
    }
    bool valid() const { return isOffset || zone != nullptr; }
    // Seconds east of UTC in force at a UTC instant.
    long offsetAt(int64_t utc) const;
};

// What Timeval::set learned besides the time.
class ExtraTimevalParseInfo {
public:
    // The finest field the text gave, on TimeFormat's scale: n sub-second
    // digits, 0 seconds, -1 minutes, -2 hours, -3 days, -4 weeks, -5
    // months, -6 years; -7 unknown.
    int precision = -7;
    TimezoneGuessResult zone;   // the zone the fields were read in
    bool zoneFromText = false;  // the text named it or gave an offset
};

class TimeGuesser {
public:
    // The rules alone, against the real clock and the default zone.
    static TimeGuesser* basic();

    virtual ~TimeGuesser();
    // A zone for a name from the text (null: the base zone): an
    // abbreviation, an offset, a Windows display name, a zoneinfo name.
    virtual bool guessTimezone(const char* name, TimezoneGuessResult* result);
    // Local seconds (the fields read as if UTC) to UTC; `isdst` -1 when
    // unknown. A local time in a gap maps to the gap's end.
    virtual bool convertToGmt(int64_t local, int isdst, const TimezoneGuessResult& zone,
                              int64_t* utc);
    // A year for a date that came without one.
    virtual bool guessYear(TimeFormatRawParseResult* pr);
    // A date for a time that came without one.
    virtual bool guessDate(TimeFormatRawParseResult* pr, const TimezoneGuessResult& zone);
    virtual Timeval current();
    // Whether earlier times of the stream tell the date.
    virtual bool hasExistingDateContext();
    // Null: the process's default zone.
    virtual const Timezone* baseTimezone();
    virtual int expandShortYear(unsigned twoDigits);
    // Whether a 12-hour time without am/pm is the afternoon one; `amTime` is
    // the morning reading.
    virtual bool usePmInstead(long amTime);
    // Whether a local time that occurs twice is the daylight-saving reading;
    // `dstTime` is that reading, the other lying an hour later.
    virtual bool ambigiousDst(long dstTime);

protected:
    // The day a date without a year is read near: today by default; a log
    // reader takes its previous record, so that an old log (or one crossing
    // New Year) keeps its years.
    virtual Timeval yearReference();
    // Which of two instants lies nearer now, a past one counting 8 times
    // its distance: true for b.
    bool preferSecond(long a, long b);
    const Timezone* baseOrDefault();
};

// The rules, with another base zone.
class OnlyOverrideTimezoneTimeGuesser : public TimeGuesser {
public:
    explicit OnlyOverrideTimezoneTimeGuesser(const Timezone* zone) : _zone(zone) {}
    const Timezone* baseTimezone() override { return _zone; }

private:
    const Timezone* _zone;
};

// The offset of an abbreviation of the built-in table ("CEST" 7200), of an
// offset text ("+0530"), or of a Windows display name ("Tokyo Standard
// Time"); false for anything else.
bool timezone_offset_by_name(const char* name, long* offset);
