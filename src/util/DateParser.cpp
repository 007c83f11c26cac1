#include "util/DateParser.h"

#include <climits>
#include <cstdarg>
#include <cstring>

#include "libzero/assertion.h"
#include "util/ByteScan.h"
#include "util/Logger.h"
#include "util/Timezone.h"

namespace {

Logger dp_log("DateParser", false, 60, 100);
Logger dp_verbose_log("DateParserVerbose", true, 300, 10);

// ---------------------------------------------------------------- patterns

// A zone after a time: a word in capitals or an offset. A word that names
// no zone ("INFO") falls back to the base zone when the time is set; a list
// of abbreviations in the pattern would cost four times the match.
#define TX_ZONE "(?<zone>(?-i:[A-Z]{1,5})(?![A-Za-z])|[+-](?:[01]\\d|2[0-3]):?[0-5]\\d(?!\\d))"
#define TX_MONTHS "(?<litmonth>(?:jan|feb|mar|apr|may|jun|jul|aug|sep|oct|nov|dec)[a-z]*)"
#define TX_DAY "(?<day>0?[1-9]|[12]\\d|3[01])"

struct Pattern {
    const char* name;
    const char* text;
};

// Times: the usual clock, the dotted one of some machines, the compact one
// behind a compact date, Unix and TAI64 epochs.
const Pattern kTimePatterns[] = {
    {"hms",
     // Ranges are checked when the fields are read: every item here costs.
     "(?<![\\d:.])(?<hour>\\d\\d?):(?<minute>\\d\\d)(?::(?<second>\\d\\d)"
     "(?:[.,](?<subsecond>\\d{1,9}))?)?(?![\\d:])(?:\\s?(?<ampm>[ap]\\.?m\\.?)(?![a-z]))?"
     "(?:\\s?" TX_ZONE ")?"},
    {"hms_dotted",
     "(?<=\\d\\d[-T ])(?<hour>[01]\\d|2[0-3])\\.(?<minute>[0-5]\\d)\\.(?<second>[0-5]\\d|60)"
     "(?:\\.(?<subsecond>\\d{1,9}))?(?!\\d)"},
    {"hms_compact",
     "(?<=\\d{6}\\s)(?<hour>[01]\\d|2[0-3])(?<minute>[0-5]\\d)(?<second>[0-5]\\d|60)(?!\\d)"},
    {"epoch", "(?<![\\w.])(?<utcepoch>1\\d{9})(?:\\.(?<subsecond>\\d{1,6}))?(?![\\d.])"},
    {"tai64", "(?<utcepoch>@4[0-9a-f]{15,23})(?![0-9a-f])"},
};

// Dates: numeric ones with the year first, month first, or compact; with
// month names in the usual orders (the year possibly behind the time);
// ordinal dates.
const Pattern kDatePatterns[] = {
    {"ymd",
     "(?<![\\d.])(?<year>(?:19|20)\\d\\d)[-/.](?<month>0?[1-9]|1[0-2])[-/.]" TX_DAY "(?!\\d)"},
    {"mdy", "(?<![\\d/])(?<month>0?[1-9]|1[0-2])/" TX_DAY "/(?<year>(?:19|20)?\\d\\d)(?![\\d/])"},
    {"yymmdd_slash", "(?<![\\d/])(?<year>\\d\\d)/(?<month>0[1-9]|1[0-2])/" TX_DAY "(?![\\d/])"},
    {"dmy_name", "(?<![\\d])" TX_DAY "[-/ ]" TX_MONTHS "[-/ ,]+(?<year>(?:19|20)\\d\\d)(?!\\d)"},
    {"md_name_time_y",
     "(?<![a-z])" TX_MONTHS "\\.?\\s+" TX_DAY
     "\\s+\\d\\d?:\\d\\d(?::\\d\\d(?:[.,]\\d+)?)?\\s+(?<year>(?:19|20)\\d\\d)(?!\\d)"},
    {"md_name",
     "(?<![a-z])" TX_MONTHS "\\.?\\s+" TX_DAY "(?!\\d)(?:,?\\s+(?<year>(?:19|20)\\d\\d)(?!\\d))?"},
    {"yymmdd",
     "(?<!\\d)(?<year>\\d\\d)(?<month>0[1-9]|1[0-2])(?<day>0[1-9]|[12]\\d|3[01])(?=\\s+\\d{6}(?!"
     "\\d))"},
    {"md_dash",
     "(?<![\\d-])(?<month>0[1-9]|1[0-2])-(?<day>0[1-9]|[12]\\d|3[01])(?=\\s+\\d\\d?:\\d\\d)"},
    {"ordinal", "(?<![\\d.])(?<year>(?:19|20)\\d\\d)-(?<ord>[0-3]\\d\\d)(?!\\d)"},
};

#undef TX_ZONE
#undef TX_MONTHS
#undef TX_DAY

DateTimeExtractionKind kindOf(const char* name, size_t length) {
    static const char* const names[] = {"year", "month",    "litmonth", "day",       "ampm",
                                        "hour", "minute",   "second",   "subsecond", "zone",
                                        "ord",  "utcepoch", "hexepoch"};
    for (size_t k = 0; k < sizeof names / sizeof names[0]; ++k) {
        if (strlen(names[k]) == length && memcmp(names[k], name, length) == 0) {
            return static_cast<DateTimeExtractionKind>(k);
        }
    }
    return DT_OTHER;
}

bool parseDigits(StrSegment s, long* out) {
    if (s.size() == 0 || s.size() > 18) return false;
    long v = 0;
    for (char c : s) {
        if (c < '0' || c > '9') return false;
        v = v * 10 + (c - '0');
    }
    *out = v;
    return true;
}

bool parseHex(StrSegment s, int64_t* out) {
    if (s.size() == 0 || s.size() > 15) return false;
    int64_t v = 0;
    for (char c : s) {
        const unsigned lower = static_cast<unsigned char>(c) | 0x20;
        int d;
        if (c >= '0' && c <= '9') {
            d = c - '0';
        } else if (lower >= 'a' && lower <= 'f') {
            d = static_cast<int>(lower - 'a' + 10);
        } else {
            return false;
        }
        v = v * 16 + d;
    }
    *out = v;
    return true;
}

bool startsWith(StrSegment s, const char* z) {
    const size_t n = strlen(z);
    return s.size() >= n && memcmp(s.data(), z, n) == 0;
}

// The length of the valid UTF-8 sequence at p[0], or 0 for a bad byte.
size_t utf8SequenceLength(const char* p, size_t n) {
    const unsigned char c = static_cast<unsigned char>(p[0]);
    if (c < 0x80) return 1;
    size_t len;
    unsigned char lo = 0x80, hi = 0xBF;
    if (c >= 0xC2 && c <= 0xDF) {
        len = 2;
    } else if (c >= 0xE0 && c <= 0xEF) {
        len = 3;
        if (c == 0xE0) lo = 0xA0;
        if (c == 0xED) hi = 0x9F;
    } else if (c >= 0xF0 && c <= 0xF4) {
        len = 4;
        if (c == 0xF0) lo = 0x90;
        if (c == 0xF4) hi = 0x8F;
    } else {
        return 0;
    }
    if (len > n) return 0;
    const unsigned char c1 = static_cast<unsigned char>(p[1]);
    if (c1 < lo || c1 > hi) return 0;
    for (size_t k = 2; k < len; ++k) {
        if (!bytescan::isUtf8Continuation(static_cast<unsigned char>(p[k]))) return 0;
    }
    return len;
}

// The line with each byte that isn't part of valid UTF-8 made '?': PCRE2
// only gets checked text, the positions stay those of the line, and a stray
// byte before the timestamp doesn't hide it.
void sanitizeUtf8(const char* p, size_t n, Str* out) {
    out->assign(p, n);
    for (size_t i = 0; i < n;) {
        const size_t len = utf8SequenceLength(p + i, n - i);
        if (len == 0) {
            (*out)[i++] = '?';
        } else {
            i += len;
        }
    }
}

// The morning and afternoon words of the clock, by their first bytes.
bool ampmIsPm(StrSegment s, bool* pm) {
    if (s.size() == 0) return false;
    const char c = s.data()[0];
    if (c == 'a' || c == 'A') return *pm = false, true;
    if (c == 'p' || c == 'P') return *pm = true, true;
    static const struct {
        const char* text;
        bool pm;
    } words[] = {
        {"\xE5\x8D\x88\xE5\x89\x8D", false}, {"\xE5\x8D\x88\xE5\xBE\x8C", true},  // 午前 午後
        {"\xEC\x98\xA4\xEC\xA0\x84", false}, {"\xEC\x98\xA4\xED\x9B\x84", true},  // 오전 오후
        {"\xE4\xB8\x8A\xE5\x8D\x88", false}, {"\xE4\xB8\x8B\xE5\x8D\x88", true},  // 上午 下午
    };
    for (const auto& w : words) {
        if (startsWith(s, w.text)) return *pm = w.pm, true;
    }
    return false;
}

void formatTime(Str* out, const Timeval& t) {
    out->clear();
    append_stringified(out, t);
}

}  // namespace

// ---------------------------------------------------------------- DateTimeRegex

DateTimeRegex::DateTimeRegex(const Str& name, const Str& pattern) : _name(name) {
    try {
        _re.initCaseless(pattern);
    } catch (const RegexException& e) {
        dp_log.warn("Cannot compile RE \"%s\": %s", pattern.c_str(), e.what());
        return;
    }
    _kinds.assign(_re.getCaptureGroupCount(), DT_OTHER);
    // The group names, in the order the pattern opens them.
    for (size_t i = 0; i + 3 < pattern.size(); ++i) {
        if (pattern[i] == '\\') {
            ++i;
            continue;
        }
        if (pattern.compare(i, 3, "(?<") != 0) continue;
        const size_t begin = i + 3;
        if (pattern[begin] == '=' || pattern[begin] == '!') continue;
        const size_t close = pattern.find('>', begin);
        if (close == Str::npos) break;
        const char* name = pattern.data() + begin;
        const size_t length = close - begin;
        const size_t group = _re.findNamedGroup(name, length);
        if (group == Regex::INVALID_GROUP || group == 0 || group > _kinds.size()) continue;
        DateTimeExtractionKind k = kindOf(name, length);
        if (k == DT_OTHER && strncmp(name, "ignored_", 8) != 0) {
            dp_log.warn("Found unknown extraction \"%.*s\" in RE \"%s\", ignoring it",
                        static_cast<int>(length), name, pattern.c_str());
        }
        _kinds[group - 1] = k;
    }
}

// `text` is valid UTF-8 (DateParser::prefixOf made it so): PCRE2 is spared a
// check per pattern.
bool DateTimeRegex::evaluate(const char* text, size_t length, DateTimeRegexExtractions* ex,
                             int* start, int* end) const {
    if (_re.empty()) return false;
    thread_local RegexMatch m;
    if (!_re._matchValid(text, length, &m, nullptr, Regex::MATCH_NORMAL)) return false;
    ex->clear();
    for (size_t g = 1; g < m.size() && g <= _kinds.size(); ++g) {
        const uint8_t k = _kinds[g - 1];
        if (k == DT_OTHER || !m.isGroupSet(static_cast<unsigned>(g))) continue;
        const StrSegment s = m.getGroup(static_cast<unsigned>(g));
        if (s.size() == 0) continue;
        ex->text[k] = s.data();
        ex->length[k] = s.size();
        ++ex->count;
    }
    *start = static_cast<int>(m.getGroupMatchStart(0));
    *end = static_cast<int>(m.getGroupMatchEnd(0));
    return ex->count != 0;
}

// ---------------------------------------------------------------- the lists

DateTimeRegexList::~DateTimeRegexList() = default;

int DateRegexList::parse(const DateTimeRegexExtractions& ex, DP_parseState* ps) const {
    using R = TimeFormatRawParseResult;
    TimeFormatRawParseResult& pr = ps->pr;
    long v;
    if (ex.has(DT_ORD)) {
        if (!parseDigits(ex.get(DT_ORD), &v) || v < 1 || v > 366 || !ex.has(DT_YEAR)) return -1;
        if (!pr.setYear(ex.get(DT_YEAR))) return -1;
        pr.set(R::HAVE_YDAY, &pr.yday, static_cast<int>(v - 1));
        return 8;
    }
    if (!ex.has(DT_DAY) || !parseDigits(ex.get(DT_DAY), &v) || v < 1 || v > 31) return -1;
    pr.set(R::HAVE_MDAY, &pr.mday, static_cast<int>(v));
    int score;
    if (ex.has(DT_LITMONTH)) {
        if (!pr.setMonth(ex.get(DT_LITMONTH))) return -1;
        score = 11;
    } else if (ex.has(DT_MONTH)) {
        if (!parseDigits(ex.get(DT_MONTH), &v) || v < 1 || v > 12) return -1;
        pr.set(R::HAVE_MONTH, &pr.month, static_cast<int>(v - 1));
        score = 6;
    } else {
        return -1;
    }
    if (ex.has(DT_YEAR)) {
        if (!pr.setYear(ex.get(DT_YEAR))) return -1;
        score += static_cast<int>(ex.length[DT_YEAR]) + 1;
    }
    return score;
}

bool DateRegexList::valid(DP_parseState* ps, DateParser* parser) const {
    TimeFormatRawParseResult pr = ps->pr;  // set() fills in what it guesses
    Timeval t;
    return t.set(&pr, &parser->guesser(), nullptr) && parser->guesser().withinPermittedTimeRange(t);
}

int TimeRegexList::parse(const DateTimeRegexExtractions& ex, DP_parseState* ps) const {
    using R = TimeFormatRawParseResult;
    TimeFormatRawParseResult& pr = ps->pr;
    if (ex.has(DT_HEXEPOCH)) {
        int64_t v;
        if (!parseHex(ex.get(DT_HEXEPOCH), &v)) return -1;
        pr.epoch = v;
        pr.have |= R::HAVE_EPOCH;
        return 4;
    }
    if (ex.has(DT_UTCEPOCH)) {
        const StrSegment e = ex.get(DT_UTCEPOCH);
        int64_t v;
        if (e.size() >= 17 && e.data()[0] == '@') {
            // TAI64: the low 32 bits of the label are the seconds.
            if (!parseHex(StrSegment(e.data() + 9, 8), &v)) return -1;
        } else {
            long d;
            if (!parseDigits(e, &d)) return -1;
            v = d;
            if (ex.has(DT_SUBSECOND)) {
                const StrSegment f = ex.get(DT_SUBSECOND);
                pr.setFracsec(f.data(), f.data() + f.size());
            }
        }
        pr.epoch = v;
        pr.have |= R::HAVE_EPOCH;
        return 4;
    }
    long hour;
    if (!ex.has(DT_HOUR) || !parseDigits(ex.get(DT_HOUR), &hour)) return -1;
    int score;
    bool pm;
    if (hour >= 1 && hour <= 12 && ex.has(DT_AMPM)) {
        if (!ampmIsPm(ex.get(DT_AMPM), &pm)) return -1;
        pr.set(R::HAVE_HOUR12, &pr.hour12, static_cast<int>(hour % 12));
        pr.set(R::HAVE_PM, &pr.pm, pm ? 1 : 0);
        score = static_cast<int>(ex.length[DT_HOUR]) + 4;
    } else {
        if (hour > 23) return -1;
        pr.set(R::HAVE_HOUR, &pr.hour, static_cast<int>(hour));
        score = static_cast<int>(ex.length[DT_HOUR]) + 1;
    }
    long minute;
    if (!ex.has(DT_MINUTE) || !parseDigits(ex.get(DT_MINUTE), &minute) || minute > 59) return -1;
    pr.set(R::HAVE_MINUTE, &pr.minute, static_cast<int>(minute));
    score += 3;
    if (ex.has(DT_SECOND)) {
        long second;
        if (!parseDigits(ex.get(DT_SECOND), &second) || second > 60) return -1;
        pr.set(R::HAVE_SECOND, &pr.second, static_cast<int>(second == 60 ? 59 : second));
        score += 3;
        if (ex.has(DT_SUBSECOND)) {
            const StrSegment f = ex.get(DT_SUBSECOND);
            if (pr.setFracsec(f.data(), f.data() + f.size())) score += static_cast<int>(f.size());
        }
    }
    if (ex.has(DT_ZONE)) {
        const StrSegment z = ex.get(DT_ZONE);
        const char c = z.data()[0];
        if (!(c >= '0' && c <= '9') && c != '+' && c != '-') {
            const size_t n = z.size() < R::TZNAME_MAX ? z.size() : R::TZNAME_MAX;
            memcpy(pr.tzname, z.data(), n);
            pr.tzname[n] = '\0';
            pr.have |= R::HAVE_TZNAM;
            ps->tzName.assign(z.data(), n);
            score += static_cast<int>(z.size()) + 1;
        } else {
            // [+-]hh[:]mm, hours 00-23, minutes 00-59.
            const char* p = z.data();
            const char* end = p + z.size();
            const bool negative = *p == '-';
            if (*p == '+' || *p == '-') ++p;
            int digits[4], n = 0;
            for (; p < end && n < 4; ++p) {
                if (*p == ':' && n == 2) continue;
                if (*p < '0' || *p > '9') break;
                digits[n++] = *p - '0';
            }
            const int hh = n == 4 ? digits[0] * 10 + digits[1] : 99;
            const int mm = n == 4 ? digits[2] * 10 + digits[3] : 99;
            if (p == end && hh <= 23 && mm <= 59) {
                const int off = hh * 3600 + mm * 60;
                pr.set(R::HAVE_TZOFF, &pr.tzoff, negative ? -off : off);
                score += static_cast<int>(z.size()) + 1;
            } else {
                ps->badZone.assign(z.data(), z.size());
            }
        }
    }
    return score;
}

// ---------------------------------------------------------------- the configuration

DateParserRegexConf::~DateParserRegexConf() {
    for (auto& [name, re] : _byName) delete re;
}

bool DateParserRegexConf::add(DateTimeRegexList* list, const char* name, const char* pattern) {
    auto* re = new DateTimeRegex(Str(name), Str(pattern));
    if (re->empty()) {
        delete re;
        return false;
    }
    auto [it, inserted] = _byName.emplace(Str(name), re);
    if (!inserted) {
        delete re;
        return false;
    }
    list->_regexes.push_back(re);
    return true;
}

bool DateParserRegexConf::addTimePattern(const char* name, const char* pattern) {
    return add(&_times, name, pattern);
}

bool DateParserRegexConf::addDatePattern(const char* name, const char* pattern) {
    return add(&_dates, name, pattern);
}

const DateTimeRegex* DateParserRegexConf::findRegexByName(const Str& name) const {
    const auto it = _byName.find(name);
    return it == _byName.end() ? nullptr : it->second;
}

const Str& DateParserRegexConf::getPatternName(const DateTimeRegex* re) {
    static const Str none("(none)");
    return re ? re->name() : none;
}

const DateParserRegexConf& DateParserRegexConf::standard() {
    static const DateParserRegexConf* conf = [] {
        auto* c = new DateParserRegexConf;  // lives as long as the process
        for (const Pattern& p : kTimePatterns) c->addTimePattern(p.name, p.text);
        for (const Pattern& p : kDatePatterns) c->addDatePattern(p.name, p.text);
        return c;
    }();
    return *conf;
}

// ---------------------------------------------------------------- DateParserGuesser

DateParserGuesser::DateParserGuesser()
    : _now(Timeval::now()), _maxDaysAgoSecs(1825LL * 86400), _maxDaysHenceSecs(7LL * 86400) {}

void DateParserGuesser::setMinMaxDays(int daysAgo, int daysHence) {
    if (daysAgo > 10950) daysAgo = 10950;
    if (daysHence > 10950) daysHence = 10950;
    dp_log.info("Setting maxDaysAgo=%d and maxDaysHence=%d", daysAgo, daysHence);
    _maxDaysAgoSecs = int64_t(daysAgo) * 86400;
    _maxDaysHenceSecs = int64_t(daysHence) * 86400;
}

void DateParserGuesser::setMinMaxDiffSecs(int secsAgo, int secsHence) {
    if (secsAgo > 0) _maxDiffSecsAgo = secsAgo;
    if (secsHence > 0) _maxDiffSecsHence = secsHence;
}

bool DateParserGuesser::setTZ(const Str& text) {
    TimezoneGuessResult r;
    if (TimeGuesser::guessTimezone(text.c_str(), &r)) {
        _fixedZone = r;
        _haveFixedZone = true;
        _gmtCacheHour = INT64_MIN;
        dp_log.info("Set timezone to: %s", text.c_str());
        return true;
    }
    dp_log.warn("Invalid TZ string: %s", text.c_str());
    return false;
}

bool DateParserGuesser::setUserZoneAlias(const std::map<Str, Str>& aliases) {
    bool ok = true;
    for (const auto& [from, to] : aliases) {
        TimezoneGuessResult r;
        if (!TimeGuesser::guessTimezone(to.c_str(), &r)) {
            dp_log.warn("Invalid TZ Alias %s for string: %s", to.c_str(), from.c_str());
            ok = false;
        }
    }
    _zoneAliases = aliases;
    _lastZoneName[0] = '\0';
    return ok;
}

void DateParserGuesser::resetAllState() {
    _previous = Timeval();
    _now = Timeval::now();
    _lastZoneName[0] = '\0';
    _gmtCacheHour = INT64_MIN;
    _dateYear = -1;
    _lastHour = 0;
}

bool DateParserGuesser::withinDateWindow(const Timeval& t) const {
    if (t.sec() < _now.sec()) return t.sec() + _maxDaysAgoSecs >= _now.sec();
    return t.sec() - _maxDaysHenceSecs <= _now.sec();
}

bool DateParserGuesser::withinNSecsOfNow(const Timeval& t, long n) const {
    const int64_t d = t.sec() - Timeval::now().sec();
    return d >= -n && d <= n;
}

bool DateParserGuesser::withinPermittedTimeRange(const Timeval& t) const {
    return withinDateWindow(t) || withinNSecsOfNow(t, 86400);
}

bool DateParserGuesser::hasExistingDateContext() { return !_previous.isNull(); }

const Timezone* DateParserGuesser::baseTimezone() {
    if (_haveFixedZone && _fixedZone.zone) return _fixedZone.zone;
    return _baseZone;
}

Timeval DateParserGuesser::current() { return _now; }

// Once the stream has a time, a date without a year is read near the
// previous record, not near the clock: a log read long after it was
// written, or one crossing New Year, keeps its years.
Timeval DateParserGuesser::yearReference() { return _previous.isNull() ? _now : _previous; }

bool DateParserGuesser::guessDate(TimeFormatRawParseResult* pr, const TimezoneGuessResult& zone) {
    using R = TimeFormatRawParseResult;
    if (_dateYear < 0) return TimeGuesser::guessDate(pr, zone);
    if (!pr->has(R::HAVE_MINUTE)) return false;
    int hour;
    if (pr->has(R::HAVE_HOUR)) {
        hour = pr->hour;
    } else if (pr->has(R::HAVE_HOUR12 | R::HAVE_PM)) {
        hour = pr->hour12 % 12 + (pr->pm ? 12 : 0);
    } else {
        return false;
    }
    pr->set(R::HAVE_YEAR, &pr->year, _dateYear);
    pr->set(R::HAVE_MONTH, &pr->month, _dateMonth);
    pr->set(R::HAVE_MDAY, &pr->mday, _dateDay);
    // The clock went back further than a time may: the next day began.
    if ((_lastHour - hour) * 3600L > _maxDiffSecsAgo) {
        pr->incrementDay();
        _dateYear = pr->year;
        _dateMonth = pr->month;
        _dateDay = pr->mday;
    }
    _lastHour = hour;
    return true;
}

bool DateParserGuesser::guessTimezone(const char* name, TimezoneGuessResult* result) {
    if (name == nullptr) {
        if (_haveFixedZone) {
            *result = _fixedZone;
            return true;
        }
        return TimeGuesser::guessTimezone(nullptr, result);
    }
    if (_lastZoneName[0] != '\0' && strcmp(name, _lastZoneName) == 0) {
        if (_lastZoneFailed) return _haveFixedZone ? (*result = _fixedZone, true) : false;
        *result = _lastZoneResult;
        return true;
    }
    const char* lookup = name;
    if (!_zoneAliases.empty()) {
        const auto it = _zoneAliases.find(Str(name));
        if (it != _zoneAliases.end()) lookup = it->second.c_str();
    }
    const bool found = TimeGuesser::guessTimezone(lookup, result);
    // A word that names no zone recurs on every line of its log ("INFO"):
    // the miss is remembered as well as a hit.
    if (strlen(name) < sizeof _lastZoneName) {
        strcpy(_lastZoneName, name);
        _lastZoneResult = *result;
        _lastZoneFailed = !found;
    }
    if (found) return true;
    if (_haveFixedZone) {
        *result = _fixedZone;
        return true;
    }
    return false;
}

bool DateParserGuesser::convertToGmt(int64_t local, int isdst, const TimezoneGuessResult& zone,
                                     int64_t* utc) {
    if (zone.isOffset) {
        *utc = local - zone.offset;
        return true;
    }
    const int64_t hour = local >= 0 ? local / 3600 : (local - 3599) / 3600;
    if (hour == _gmtCacheHour && zone.zone == _gmtCacheZone && isdst < 0) {
        *utc = local - _gmtCacheDelta;
        return true;
    }
    if (!TimeGuesser::convertToGmt(local, isdst, zone, utc)) return false;
    // Only an hour that maps one way is kept: in a gap the answer is the
    // gap's end, and in a repeated hour each line must choose for itself.
    const Timezone* z = zone.zone ? zone.zone : baseTimezone();
    if (z == nullptr) z = getDefaultTimezone();
    Timezone::reverse_search_result_type_t kind = Timezone::NO_INDEX_MATCHES;
    if (z != nullptr) z->reverseSearchAt(static_cast<time_t>(local), &kind);
    if (isdst < 0 && kind == Timezone::ONLY_THIS_INDEX) {
        _gmtCacheHour = hour;
        _gmtCacheZone = zone.zone;
        _gmtCacheDelta = local - *utc;
    }
    return true;
}

// ---------------------------------------------------------------- DateParser

namespace {

struct MessageInfo {
    const char* token;
    const char* format;
    int level;
};

const MessageInfo kMessages[DateParser::MESSAGE_TYPE_COUNT] = {
    {"TIMESTAMP_USING_PREVIOUS",
     "Failed to parse timestamp in the first %d characters (lookahead limit) of the record. "
     "Defaulting to timestamp of previous record (%s).",
     LOG_LEVEL_WARN},
    {"TIMESTAMP_CONSECUTIVE_LIMIT",
     "The same timestamp has been used for %uK consecutive times.  If more than 200K records "
     "have the same timestamp, their order may not be kept.",
     LOG_LEVEL_WARN},
    {"TIMESTAMP_TOO_FAR_FROM_PREVIOUS",
     "Time parsed (%s) is too far away from the previous record's time (%s) to be accepted.  If "
     "this is a correct time, the limits of %d seconds back or %d seconds ahead may be overly "
     "restrictive.",
     LOG_LEVEL_WARN},
    {"TIMESTAMP_SOMEWHAT_FAR_FROM_PREVIOUS",
     "Accepted time (%s) is suspiciously far away from the previous record's time (%s), but "
     "still accepted because it was extracted by the same pattern.",
     LOG_LEVEL_WARN},
    {"TIMESTAMP_FORMAT_CHANGED",
     "Accepted time format has changed (%s), possibly indicating a problem in extracting "
     "timestamps.",
     LOG_LEVEL_WARN},
    {"TIMESTAMP_INVALID_TIMEZONE", "Ignored invalid timezone specifier \"%s\".", LOG_LEVEL_DEBUG},
    {"TIMESTAMP_STRPTIME_GENERIC_FAIL", "Could not use strptime to parse timestamp from \"%s\".",
     LOG_LEVEL_DEBUG},
    {"TIMESTAMP_STRPTIME_OUTSIDE_WINDOW",
     "The time format specified is matching timestamps (%s) outside of the acceptable time "
     "window. If this timestamp is correct, consider widening the window of days back and days "
     "ahead.",
     LOG_LEVEL_WARN},
    {"TIMESTAMP_REGEX_GENERIC_FAIL", "Could not use regex to parse timestamp from \"%s\".",
     LOG_LEVEL_DEBUG},
    {"TIMESTAMP_REGEX_OUTSIDE_WINDOW",
     "A possible timestamp match (%s) is outside of the acceptable time window. If this "
     "timestamp is correct, consider widening the window of days back and days ahead.",
     LOG_LEVEL_WARN},
};

}  // namespace

const char* DateParser::getMessageTypeAsStr(message_type_t t) {
    return t < MESSAGE_TYPE_COUNT ? kMessages[t].token : "";
}

const char* DateParser::getMessageFormat(message_type_t t) {
    return t < MESSAGE_TYPE_COUNT ? kMessages[t].format : "";
}

DateParser::DateParser(bool cacheEnabled, const DateParserRegexConf& conf)
    : _conf(conf), _cacheEnabled(cacheEnabled) {}

DateParser::~DateParser() = default;

bool DateParser::isLoggingEnabled(message_type_t, int level) {
    return dp_verbose_log.isLevelEnabled(level);
}

// The type is an int: va_start on a parameter that undergoes promotion (an
// enum) is undefined.
void DateParser::doLog(int type, ...) {
    if (type < 0 || type >= MESSAGE_TYPE_COUNT) return;
    const int level = kMessages[type].level;
    const auto t = static_cast<message_type_t>(type);
    if (!isLoggingEnabled(t, level)) return;
    va_list args;
    va_start(args, type);
    doLogImpl(t, level, kMessages[type].format, args);
    va_end(args);
}

// The context joins the format (its '%' doubled for that) and is printed
// with the message.
void DateParser::doLogImpl(message_type_t, int level, const char* format, va_list args) {
    Str withContext(format);
    withContext.append(_context);
    Str text;
    text.appendVformat(withContext.c_str(), args);
    switch (level) {
        case LOG_LEVEL_DEBUG:
            dp_verbose_log.debugSeg(text.data(), text.size());
            break;
        default:
            dp_verbose_log.warnSeg(text.data(), text.size());
    }
}

void DateParser::setContext(const char* text, size_t length) {
    _context.assign(" Context: ");
    for (size_t i = 0; i < length; ++i) {
        if (text[i] == '%') {
            _context.append("%%");
        } else if (text[i] == ':' && i + 1 < length && text[i + 1] == ':') {
            _context.push_back('=');
            ++i;
        } else {
            _context.push_back(text[i]);
        }
    }
}

void DateParser::resetRegexState() {
    _timeState = DateParserRegexListState();
    _dateState = DateParserRegexListState();
}

void DateParser::resetAllState() {
    resetRegexState();
    _guesser.resetAllState();
    _patternChanges = 0;
    _dateStart = _dateEnd = _cachedTimeStart = -1;
    _dateText.clear();
    _avgForwardSecs = 600;
    _haveCachedDate = false;
    _haveCachedExtra = false;
    _sameTimeCount = 0;
}

bool DateParser::setTimeFormat(const Str& format) {
    if (format.empty()) {
        _timeFormat.reset();
        return true;
    }
    return _timeFormat.setFtime(format.data(), format.size());
}

bool DateParser::setPrefix(const Str& pattern) {
    _prefix.clear();
    if (pattern.empty()) return true;
    try {
        _prefix.init(pattern);
    } catch (const RegexException& e) {
        dp_log.warn("Cannot compile RE \"%s\": %s", pattern.c_str(), e.what());
        return false;
    }
    return true;
}

bool DateParser::parseTZalias(std::map<Str, Str>& out, const Str& text) {
    std::map<Str, Str> found;
    bool ok = true;
    size_t at = 0;
    while (at <= text.size()) {
        size_t comma = text.find(',', at);
        if (comma == Str::npos) comma = text.size();
        const Str pair = text.substr(at, comma - at);
        at = comma + 1;
        if (pair.empty() && comma == text.size()) break;
        const size_t eq = pair.find('=');
        if (eq == Str::npos || pair.find('=', eq + 1) != Str::npos) {
            dp_log.warn(
                "Zone alias: While parsing '%s', incorrect number (not 1) of '=' in "
                "Timezone pair '%s'.",
                text.c_str(), pair.c_str());
            ok = false;
            break;
        }
        const Str key = pair.substr(0, eq), value = pair.substr(eq + 1);
        if (key.empty()) {
            dp_log.warn("Zone alias: While parsing '%s', found empty key in '%s'.", text.c_str(),
                        pair.c_str());
            ok = false;
            break;
        }
        if (value.empty()) {
            dp_log.warn("Zone alias: While parsing '%s', found empty value in '%s'.", text.c_str(),
                        pair.c_str());
            ok = false;
            break;
        }
        found[key] = value;
    }
    if (!ok) {
        dp_log.warn(
            "Zone alias: Since error encountered reading alias setting, will ignore this "
            "setting, and use default rules.");
        return false;
    }
    for (const auto& [key, value] : found) {
        dp_log.info("Zone alias: Adding substitution for '%s' of '%s' for this parser", key.c_str(),
                    value.c_str());
        out[key] = value;
    }
    return true;
}

bool DateParser::prefixOf(StrSegment* seg, const StrSegment& line, size_t* prefixLength) {
    // Positions are ints; a line of more than a gigabyte is searched in its
    // first one.
    const size_t n = line.size() < (size_t(1) << 30) ? line.size() : (size_t(1) << 30);
    const char* base = line.data();
    if (!mem_is_valid_utf8(base, n)) {
        sanitizeUtf8(base, n, &_sanitized);
        base = _sanitized.data();
    }
    *seg = StrSegment(base, n);
    if (!_prefix.empty()) {
        thread_local RegexMatch m;
        if (!_prefix._matchValid(seg->data(), seg->size(), &m, nullptr, Regex::MATCH_NORMAL) ||
            m.getGroupMatchStart(0) != 0) {
            return false;
        }
        const size_t skip = m.getGroupMatchEnd(0);
        *seg = StrSegment(seg->data() + skip, seg->size() - skip);
    }
    *prefixLength = static_cast<size_t>(seg->data() - base);
    if (_lookahead > 0) {
        size_t bytes = 0;
        for (int chars = 0; chars < _lookahead && bytes < seg->size(); ++chars) {
            bytes += bytescan::utf8Step(static_cast<unsigned char>(seg->data()[bytes]));
        }
        if (bytes < seg->size()) *seg = StrSegment(seg->data(), bytes);
    }
    return true;
}

// A word in capitals after a time is a zone only if the zone table or the
// user's aliases know it: otherwise a log's level word ("INFO", "WARNING")
// would count as a capture on some lines and not others, and the sticky
// pattern would drop the lines whose word differs.
void DateParser::screenZone(DateTimeRegexExtractions* ex) const {
    if (!ex->has(DT_ZONE)) return;
    const StrSegment z = ex->get(DT_ZONE);
    char name[8];
    if (z.size() < sizeof name) {
        for (size_t i = 0; i < z.size(); ++i) {
            if (z.data()[i] < 'A' || z.data()[i] > 'Z') return;  // not a capitalised word
            name[i] = z.data()[i];
        }
        name[z.size()] = '\0';
        long offset;
        if (timezone_offset_by_name(name, &offset)) return;
        if (!_guesser._zoneAliases.empty() &&
            _guesser._zoneAliases.count(Str(name, z.size())) != 0) {
            return;
        }
    } else {
        for (char c : z) {
            if (c < 'A' || c > 'Z') return;
        }
    }
    ex->length[DT_ZONE] = 0;
    --ex->count;
}

bool DateParser::generic_getMatch(const DateTimeRegexList& list, DateParserRegexListState& state,
                                  const char* text, size_t length, DP_parseState* ps, int* start,
                                  int* end, bool keepPattern) {
    DateTimeRegexExtractions ex;
    int bestScore = -1, bestStart = INT_MAX, bestEnd = -1;
    const DateTimeRegex* winner = nullptr;
    unsigned winnerCount = 0;
    bool winnerInPs = false;
    _failedMatch.clear();

    if (_cacheEnabled && state.last != nullptr) {
        int s, e;
        ps->clear();
        int score = -1;
        if (state.last->evaluate(text, length, &ex, &s, &e)) {
            screenZone(&ex);
            score = list.parse(ex, ps);
        }
        if (score >= 0) {
            *start = s;
            *end = e;
            if (keepPattern) {
                if (state.run > 9) {
                    if (ex.count == state.extractionCount) return true;
                    ++_patternChanges;
                    return false;
                }
                state.extractionCount = ex.count;
            } else {
                if (state.run > 9) return true;
                ++state.run;
            }
            bestScore = score;
            bestStart = s;
            bestEnd = e;
            winner = state.last;
            winnerCount = ex.count;
            winnerInPs = true;
        } else {
            if (keepPattern && state.run > 9) return false;
            if (!keepPattern) state.run = 0;
        }
    }

    for (const DateTimeRegex* re : list._regexes) {
        if (re == state.last && _cacheEnabled) continue;  // done above
        int s, e;
        if (!re->evaluate(text, length, &ex, &s, &e)) continue;
        screenZone(&ex);
        _scratch.clear();
        const int score = list.parse(ex, &_scratch);
        if (score < 0 || score < bestScore || (score == bestScore && s >= bestStart)) continue;
        if (!list.valid(&_scratch, this)) {
            _failedMatch.assign(text + s, static_cast<size_t>(e - s));
            continue;
        }
        std::swap(_best, _scratch);
        bestScore = score;
        bestStart = s;
        bestEnd = e;
        winner = re;
        winnerCount = ex.count;
        winnerInPs = false;
    }

    if (winner == nullptr) {
        if (!_failedMatch.empty()) {
            doLog(TIMESTAMP_REGEX_GENERIC_FAIL, _failedMatch.c_str());
        }
        return false;
    }
    if (winner != state.last) {
        if (state.last != nullptr && state.run > 9) {
            doLog(TIMESTAMP_FORMAT_CHANGED, winner->name().c_str());
        }
        state.last = winner;
        state.run = 1;
    } else if (keepPattern) {
        ++state.run;
    }
    state.extractionCount = winnerCount;
    if (!winnerInPs) std::swap(*ps, _best);
    *start = bestStart;
    *end = bestEnd;
    if (!ps->badZone.empty()) doLog(TIMESTAMP_INVALID_TIMEZONE, ps->badZone.c_str());
    return true;
}

bool DateParser::dateTimeFromString(Timeval& out, const StrSegment& line, int& dateStart,
                                    int& dateEnd, int& timeStart, int& timeEnd,
                                    ExtraTimevalParseInfo* extra) {
    using R = TimeFormatRawParseResult;
    dateStart = dateEnd = timeStart = timeEnd = -1;
    _patternChanges = 0;
    StrSegment seg;
    size_t skipped = 0;
    if (!prefixOf(&seg, line, &skipped) || seg.size() == 0) return false;
    const int prefixLength = static_cast<int>(skipped);
    const char* text = seg.data();
    const size_t length = seg.size();
    bool byFormat = false;

    if (_timeFormat.valid()) {
        unsigned consumed = 0;
        if (out.parse(_timeFormat, text, length, &_guesser, extra, &consumed)) {
            dateStart = 0;
            dateEnd = static_cast<int>(consumed);
            byFormat = true;
            goto accepted;
        }
        _failedMatch.assign(text, length < 64 ? length : 64);
        doLog(TIMESTAMP_STRPTIME_GENERIC_FAIL, _failedMatch.c_str());
    }

    for (;;) {
        int ts, te;
        if (!generic_getMatch(_conf._times, _timeState, text, length, &_state, &ts, &te,
                              _patternChanges <= 9)) {
            return false;
        }
        timeStart = ts;
        timeEnd = te;
        if (_state.pr.has(R::HAVE_EPOCH)) break;

        const bool hasClock = (_state.pr.have & (R::HAVE_HOUR | R::HAVE_HOUR12)) != 0 &&
                              _state.pr.has(R::HAVE_MINUTE);
        if (_cacheEnabled && _avgForwardSecs <= 599 && hasClock && _haveCachedDate &&
            ts == _cachedTimeStart && _dateEnd <= static_cast<int>(length) &&
            memcmp(text + _dateStart, _dateText.data(), _dateText.size()) == 0) {
            // The same date text at the same place: no date search.
            _state.pr.mergeIn(&_cachedDate.pr);
            dateStart = _dateStart;
            dateEnd = _dateEnd;
            if (out.set(&_state.pr, &_guesser, extra) && _guesser.withinPermittedTimeRange(out)) {
                goto accepted;
            }
            resetRegexState();
            _avgForwardSecs = 600;
            dateStart = dateEnd = -1;
            continue;
        }

        int ds, de;
        if (generic_getMatch(_conf._dates, _dateState, text, length, &_cachedDate, &ds, &de,
                             _patternChanges <= 9)) {
            ASSERT(!_cachedDate.pr.has(R::HAVE_TZNAM));
            _state.pr.mergeIn(&_cachedDate.pr);
            _haveCachedDate = true;
            _dateStart = ds < 0 ? 0 : ds;
            _dateEnd = de;
            _dateText.assign(text + _dateStart, static_cast<size_t>(de - _dateStart));
            _cachedTimeStart = ts;
            dateStart = _dateStart;
            dateEnd = de;
        } else {
            _haveCachedDate = false;
        }
        break;
    }

    {
        const bool ok = out.set(&_state.pr, &_guesser, extra);
        if (ok && !_guesser.withinPermittedTimeRange(out)) {
            Str when;
            formatTime(&when, out);
            doLog(TIMESTAMP_REGEX_OUTSIDE_WINDOW, when.c_str());
            resetRegexState();
            return false;
        }
        if (!ok) {
            resetRegexState();
            return false;
        }
    }

accepted:
    if (byFormat && !_guesser.withinPermittedTimeRange(out)) {
        Str when;
        formatTime(&when, out);
        doLog(TIMESTAMP_STRPTIME_OUTSIDE_WINDOW, when.c_str());
        return false;
    }
    if (_cacheEnabled && !_guesser._previous.isNull() && out.sec() > _guesser._previous.sec()) {
        _avgForwardSecs = (out.sec() - _guesser._previous.sec() + 2 * _avgForwardSecs) / 3;
    }
    if (extra) {
        _cachedExtra = *extra;
        _haveCachedExtra = true;
    }
    for (int* p : {&dateStart, &dateEnd, &timeStart, &timeEnd}) {
        if (*p >= 0) *p += prefixLength;
    }
    return true;
}

bool DateParser::parseDate(Timeval& out, const StrSegment& line, const Timeval& now, int& dateStart,
                           int& dateEnd, int& timeStart, int& timeEnd,
                           ExtraTimevalParseInfo* extra) {
    if (_mode == MODE_NONE) return false;
    if (_mode == MODE_CURRENT_TIME) {
        out = Timeval::now();
        if (extra) extra->precision = -7;
        dateStart = dateEnd = timeStart = timeEnd = -1;
        return true;
    }
    _guesser._now = now;
    if (!dateTimeFromString(out, line, dateStart, dateEnd, timeStart, timeEnd, extra)) {
        if (_guesser._previous.isNull()) return false;
        if (extra) {
            if (!_haveCachedExtra) return false;
            *extra = _cachedExtra;
        }
        out = _guesser._previous;
        dateStart = dateEnd = timeStart = timeEnd = -1;  // nothing of this line was read
        Str when;
        formatTime(&when, out);
        doLog(TIMESTAMP_USING_PREVIOUS, _lookahead, when.c_str());
    }
    if (out == _guesser._previous) {
        if (++_sameTimeCount % 100000 == 0) {
            doLog(TIMESTAMP_CONSECUTIVE_LIMIT, _sameTimeCount / 1000);
        }
    } else {
        _sameTimeCount = 0;
    }
    _guesser._previous = out;
    return true;
}

bool DateParser::matchBoth(const StrSegment& seg, DP_parseState* ps, bool* timeChanged,
                           bool* dateChanged, bool* haveDate) {
    const DateTimeRegex* lastTime = _timeState.last;
    const DateTimeRegex* lastDate = _dateState.last;
    int ts, te, ds, de;
    const bool keep = _patternChanges <= 9;
    if (!generic_getMatch(_conf._times, _timeState, seg.data(), seg.size(), ps, &ts, &te, keep)) {
        return false;
    }
    *timeChanged = _timeState.last != lastTime;
    DP_parseState date;
    *haveDate =
        generic_getMatch(_conf._dates, _dateState, seg.data(), seg.size(), &date, &ds, &de, keep);
    *dateChanged = *haveDate && _dateState.last != lastDate;
    if (*haveDate) ps->pr.mergeIn(&date.pr);
    return true;
}

bool DateParser::hasTime(const StrSegment& line) {
    if (_mode == MODE_CURRENT_TIME) return true;
    if (_mode == MODE_NONE) return false;
    StrSegment seg;
    size_t skipped = 0;
    if (!prefixOf(&seg, line, &skipped) || seg.size() == 0) return false;
    if (_timeFormat.valid()) {
        Timeval t;
        if (t.parse(_timeFormat, seg.data(), seg.size(), &_guesser)) return true;
        _failedMatch.assign(seg.data(), seg.size() < 64 ? seg.size() : 64);
        doLog(TIMESTAMP_STRPTIME_GENERIC_FAIL, _failedMatch.c_str());
        return false;
    }
    DP_parseState ps;
    bool timeChanged = false, dateChanged = false, haveDate = false;
    if (!matchBoth(seg, &ps, &timeChanged, &dateChanged, &haveDate)) return false;
    if (!haveDate || _patternChanges > 9 || _guesser._previous.isNull()) return true;
    Timeval t;
    if (!t.set(&ps.pr, &_guesser, nullptr)) return true;
    const int64_t d = t.sec() - _guesser._previous.sec();
    if (d >= -_guesser._maxDiffSecsAgo && d <= _guesser._maxDiffSecsHence) return true;
    Str when, before;
    formatTime(&when, t);
    formatTime(&before, _guesser._previous);
    if (!timeChanged && !dateChanged) {
        doLog(TIMESTAMP_SOMEWHAT_FAR_FROM_PREVIOUS, when.c_str(), before.c_str());
        return true;
    }
    ++_patternChanges;
    doLog(TIMESTAMP_TOO_FAR_FROM_PREVIOUS, when.c_str(), before.c_str(),
          static_cast<int>(_guesser._maxDiffSecsAgo), static_cast<int>(_guesser._maxDiffSecsHence));
    return false;
}

bool DateParser::setDateByString(const StrSegment& text) {
    Str source("source::");
    sanitizeUtf8(text.data(), text.size(), &_sanitized);
    source.append(_sanitized);
    DP_parseState ps;
    int ds, de;
    DateParserRegexListState state;
    const bool cache = _cacheEnabled;
    _cacheEnabled = false;
    const bool found =
        generic_getMatch(_conf._dates, state, source.data(), source.size(), &ps, &ds, &de, true);
    _cacheEnabled = cache;
    if (!found) return false;
    Timeval t;
    if (!t.set(&ps.pr, &_guesser, nullptr)) return false;
    _guesser._dateYear = ps.pr.year;
    _guesser._dateMonth = ps.pr.month;
    _guesser._dateDay = ps.pr.mday;
    _guesser._lastHour = 0;
    return true;
}
