#pragma once
// Finding the timestamp in each line of a stream of unknown format. Lines
// are searched by two lists of named-capture patterns, one for times and one
// for dates; the best match by score wins and is tried first on the next
// line; a date is reused while the same text stands at the same place; a
// line without a timestamp takes the previous one. DateParserGuesser fills
// in what lines lack (year, date, zone) from the stream's history.

#include <cstdint>
#include <map>
#include <vector>

#include "util/DateTime.h"
#include "util/Regex.h"
#include "util/Str.h"
#include "util/TimeGuesser.h"
#include "util/Timeval.h"

class DateParser;

// What a capture group of a pattern holds, by its name.
enum DateTimeExtractionKind : uint8_t {
    DT_YEAR = 0,
    DT_MONTH = 1,
    DT_LITMONTH = 2,
    DT_DAY = 3,
    DT_AMPM = 4,
    DT_HOUR = 5,
    DT_MINUTE = 6,
    DT_SECOND = 7,
    DT_SUBSECOND = 8,
    DT_ZONE = 9,
    DT_ORD = 10,
    DT_UTCEPOCH = 11,
    DT_HEXEPOCH = 12,
    DT_OTHER = 13,
};

struct DateTimeRegexExtractions {
    const char* text[DT_OTHER];
    size_t length[DT_OTHER];
    unsigned count;  // non-empty captures

    void clear() {
        for (size_t& l : length) l = 0;
        count = 0;
    }
    bool has(DateTimeExtractionKind k) const { return length[k] != 0; }
    StrSegment get(DateTimeExtractionKind k) const { return StrSegment(text[k], length[k]); }
};

// A pattern, compiled caseless, and the kind of each of its groups.
class DateTimeRegex {
public:
    DateTimeRegex(const Str& name, const Str& pattern);
    // Captures of the first match in the text; `start` and `end` are the
    // whole match's bytes. False when it doesn't match or is empty.
    bool evaluate(const char* text, size_t length, DateTimeRegexExtractions* ex, int* start,
                  int* end) const;
    const Str& name() const { return _name; }
    bool empty() const { return _re.empty(); }

private:
    Str _name;
    Regex _re;
    std::vector<uint8_t> _kinds;  // for groups 1..n
};

// The fields a winning pattern gave.
struct DP_parseState {
    TimeFormatRawParseResult pr;
    Str tzName;
    Str badZone;  // a zone-looking text that is neither name nor offset
    void clear() {
        pr.clear();
        tzName.clear();
        badZone.clear();
    }
};

class DateTimeRegexList {
public:
    virtual ~DateTimeRegexList();
    // The score of a match's captures (-1: not a date or time).
    virtual int parse(const DateTimeRegexExtractions& ex, DP_parseState* ps) const = 0;
    virtual bool valid(DP_parseState* ps, DateParser* parser) const = 0;
    std::vector<DateTimeRegex*> _regexes;
};

class DateRegexList : public DateTimeRegexList {
public:
    int parse(const DateTimeRegexExtractions& ex, DP_parseState* ps) const override;
    bool valid(DP_parseState* ps, DateParser* parser) const override;
};

class TimeRegexList : public DateTimeRegexList {
public:
    int parse(const DateTimeRegexExtractions& ex, DP_parseState* ps) const override;
    bool valid(DP_parseState*, DateParser*) const override { return true; }
};

// The two pattern lists, by name. standard() holds the built-in ones.
class DateParserRegexConf {
public:
    DateParserRegexConf() = default;
    DateParserRegexConf(const DateParserRegexConf&) = delete;
    DateParserRegexConf& operator=(const DateParserRegexConf&) = delete;
    ~DateParserRegexConf();

    static const DateParserRegexConf& standard();
    // A named pattern for either list; false (logged) when it doesn't compile.
    bool addTimePattern(const char* name, const char* pattern);
    bool addDatePattern(const char* name, const char* pattern);
    const DateTimeRegex* findRegexByName(const Str& name) const;
    static const Str& getPatternName(const DateTimeRegex* re);

    DateRegexList _dates;
    TimeRegexList _times;

private:
    bool add(DateTimeRegexList* list, const char* name, const char* pattern);
    std::map<Str, DateTimeRegex*> _byName;
};

struct DateParserRegexListState {
    const DateTimeRegex* last = nullptr;  // the last winner
    unsigned run = 0;                     // its consecutive wins
    unsigned extractionCount = 0;         // captures of its last win
};

class DateParserGuesser : public TimeGuesser {
public:
    DateParserGuesser();

    // Days back and ahead of now that a time may lie (each at most 10950).
    void setMinMaxDays(int daysAgo, int daysHence);
    // How far a line's time may stray from the previous one; values not
    // above 0 are ignored.
    void setMinMaxDiffSecs(int secsAgo, int secsHence);
    // A fixed zone for times that name none.
    bool setTZ(const Str& text);
    // Names of zones in the text that stand for others ("MEZ" -> "CET").
    bool setUserZoneAlias(const std::map<Str, Str>& aliases);
    void resetAllState();

    bool withinDateWindow(const Timeval& t) const;
    bool withinNSecsOfNow(const Timeval& t, long n) const;
    bool withinPermittedTimeRange(const Timeval& t) const;

    bool hasExistingDateContext() override;
    Timeval yearReference() override;
    const Timezone* baseTimezone() override;
    Timeval current() override;
    bool guessDate(TimeFormatRawParseResult* pr, const TimezoneGuessResult& zone) override;
    bool guessTimezone(const char* name, TimezoneGuessResult* result) override;
    bool convertToGmt(int64_t local, int isdst, const TimezoneGuessResult& zone,
                      int64_t* utc) override;

    Timeval _previous;  // the last accepted time (null: none)
    Timeval _now;
    long _maxDiffSecsAgo = 3600;
    long _maxDiffSecsHence = 604800;
    std::map<Str, Str> _zoneAliases;
    const Timezone* _baseZone = nullptr;
    char _lastZoneName[8] = {};
    TimezoneGuessResult _lastZoneResult;
    bool _lastZoneFailed = false;
    bool _haveFixedZone = false;
    TimezoneGuessResult _fixedZone;
    int64_t _gmtCacheHour = INT64_MIN;
    int64_t _gmtCacheDelta = 0;
    const Timezone* _gmtCacheZone = nullptr;
    int _dateYear = -1;
    int _dateMonth = 0;
    int _dateDay = 0;
    int _lastHour = 0;
    int64_t _maxDaysAgoSecs;
    int64_t _maxDaysHenceSecs;
};

class DateParser {
public:
    enum message_type_t {
        TIMESTAMP_USING_PREVIOUS,
        TIMESTAMP_CONSECUTIVE_LIMIT,
        TIMESTAMP_TOO_FAR_FROM_PREVIOUS,
        TIMESTAMP_SOMEWHAT_FAR_FROM_PREVIOUS,
        TIMESTAMP_FORMAT_CHANGED,
        TIMESTAMP_INVALID_TIMEZONE,
        TIMESTAMP_STRPTIME_GENERIC_FAIL,
        TIMESTAMP_STRPTIME_OUTSIDE_WINDOW,
        TIMESTAMP_REGEX_GENERIC_FAIL,
        TIMESTAMP_REGEX_OUTSIDE_WINDOW,
        MESSAGE_TYPE_COUNT
    };
    enum mode_t { MODE_NONE = 0, MODE_SEARCH = 1, MODE_CURRENT_TIME = 2 };

    explicit DateParser(bool cacheEnabled,
                        const DateParserRegexConf& conf = DateParserRegexConf::standard());
    virtual ~DateParser();
    DateParser(const DateParser&) = delete;
    DateParser& operator=(const DateParser&) = delete;

    // The time of a line; a line without one takes the previous line's.
    // Positions are byte offsets into the line (-1: none).
    bool parseDate(Timeval& out, const StrSegment& line, const Timeval& now, int& dateStart,
                   int& dateEnd, int& timeStart, int& timeEnd, ExtraTimevalParseInfo* extra);
    bool parseDate(Timeval& out, const StrSegment& line, const Timeval& now) {
        int ds, de, ts, te;
        return parseDate(out, line, now, ds, de, ts, te, nullptr);
    }
    // Whether the line holds a timestamp, by the same searches.
    bool hasTime(const StrSegment& line);
    // A date in a source's name, used for lines with times only.
    bool setDateByString(const StrSegment& text);
    // How many characters of a line to search; negative: all.
    void setDateLookahead(int n) { _lookahead = n < 0 ? -1 : n; }
    // A fixed format instead of the search; an empty text goes back to it.
    bool setTimeFormat(const Str& format);
    // Lines must start with a match of this; empty: no prefix. False (and
    // no prefix) for a pattern that doesn't compile.
    bool setPrefix(const Str& pattern);
    void setMode(mode_t mode) { _mode = mode; }
    void setMinMaxDiffSecs(int ago, int hence) { _guesser.setMinMaxDiffSecs(ago, hence); }
    void setContext(const char* text, size_t length);
    void resetAllState();
    void resetRegexState();
    DateParserGuesser& guesser() { return _guesser; }

    // "key=value,key=value" into `out`; false (logged) on a bad pair.
    static bool parseTZalias(std::map<Str, Str>& out, const Str& text);
    static const char* getMessageTypeAsStr(message_type_t t);
    static const char* getMessageFormat(message_type_t t);

protected:
    // The owner may catch the warnings.
    virtual void doLog(int type, ...);
    virtual void doLogImpl(message_type_t type, int level, const char* format, va_list args);
    virtual bool isLoggingEnabled(message_type_t type, int level);

private:
    bool prefixOf(StrSegment* seg, const StrSegment& line, size_t* prefixLength);
    bool dateTimeFromString(Timeval& out, const StrSegment& line, int& dateStart, int& dateEnd,
                            int& timeStart, int& timeEnd, ExtraTimevalParseInfo* extra);
    bool generic_getMatch(const DateTimeRegexList& list, DateParserRegexListState& state,
                          const char* text, size_t length, DP_parseState* ps, int* start, int* end,
                          bool keepPattern);
    void screenZone(DateTimeRegexExtractions* ex) const;
    bool matchBoth(const StrSegment& seg, DP_parseState* ps, bool* timeChanged, bool* dateChanged,
                   bool* haveDate);

    const DateParserRegexConf& _conf;
    DateParserRegexListState _timeState;
    DateParserRegexListState _dateState;
    int _lookahead = -1;
    int _patternChanges = 0;
    bool _cacheEnabled;
    int _dateStart = -1;
    int _dateEnd = -1;
    int _cachedTimeStart = -1;
    Str _dateText;
    int64_t _avgForwardSecs = 600;
    DP_parseState _cachedDate;
    bool _haveCachedDate = false;
    mode_t _mode = MODE_SEARCH;
    Regex _prefix;
    TimeFormat _timeFormat;
    DateParserGuesser _guesser;
    ExtraTimevalParseInfo _cachedExtra;
    bool _haveCachedExtra = false;
    Str _context;
    unsigned _sameTimeCount = 0;
    // Scratch reused across lines, so that a line allocates nothing.
    DP_parseState _scratch;
    DP_parseState _best;
    DP_parseState _state;
    Str _failedMatch;
    Str _sanitized;  // a line's bad UTF-8 bytes made '?', positions kept
};
