// Zone tables: loading from every source, the alias table, the process-wide
// cache, serialization, and the conversions between UTC and local time.
#include "util/Timezone.h"

#include <fcntl.h>
#include <sys/mman.h>
#include <sys/stat.h>
#include <unistd.h>

#include <algorithm>
#include <atomic>
#include <cerrno>
#include <climits>
#include <cstdlib>
#include <map>
#include <memory>
#include <set>

#include "libzero/assertion.h"
#include "libzero/djb2.h"
#include "util/DateTime.h"
#include "util/FileDescriptor.h"
#include "util/HashedStr.h"
#include "util/LineReader.h"
#include "util/SHA.h"
#include "util/ThreadLocks.h"

namespace {

constexpr int64_t SECONDS_PER_DAY = 86400;

uint32_t be32(const unsigned char* p) {
    return (uint32_t(p[0]) << 24) | (uint32_t(p[1]) << 16) | (uint32_t(p[2]) << 8) | p[3];
}
int32_t sbe32(const unsigned char* p) { return int32_t(be32(p)); }
int64_t sbe64(const unsigned char* p) { return int64_t((uint64_t(be32(p)) << 32) | be32(p + 4)); }

bool isDigit(char c) { return c >= '0' && c <= '9'; }
bool isAlpha(char c) { return (c >= 'a' && c <= 'z') || (c >= 'A' && c <= 'Z'); }

// A read-only mapping of a whole regular file.
class MappedFile {
public:
    explicit MappedFile(int fd) {
        struct stat st;
        if (fstat(fd, &st) != 0 || !S_ISREG(st.st_mode)) return;
        _size = size_t(st.st_size);
        _ok = true;
        if (_size == 0) return;
        void* p = mmap(nullptr, _size, PROT_READ, MAP_PRIVATE, fd, 0);
        if (p == MAP_FAILED) {
            _ok = false;
            _size = 0;
            return;
        }
        _data = static_cast<const char*>(p);
    }
    ~MappedFile() {
        if (_data != nullptr) munmap(const_cast<char*>(_data), _size);
    }
    MappedFile(const MappedFile&) = delete;
    MappedFile& operator=(const MappedFile&) = delete;

    bool ok() const { return _ok; }
    const char* data() const { return _data != nullptr ? _data : ""; }
    size_t size() const { return _size; }

private:
    const char* _data = nullptr;
    size_t _size = 0;
    bool _ok = false;
};

class OpenedFile {
public:
    // Only a regular file: a FIFO named like a zone would block a load (and
    // the default zone's lock with it), so the open doesn't wait and
    // anything else is refused.
    explicit OpenedFile(const char* path) : _fd(open(path, O_RDONLY | O_CLOEXEC | O_NONBLOCK)) {
        struct stat st;
        if (_fd >= 0 && (fstat(_fd, &st) != 0 || !S_ISREG(st.st_mode))) {
            ::close(_fd);
            _fd = -1;
        }
    }
    ~OpenedFile() {
        if (_fd >= 0) ::close(_fd);
    }
    OpenedFile(const OpenedFile&) = delete;
    OpenedFile& operator=(const OpenedFile&) = delete;
    int fd() const { return _fd; }

private:
    int _fd;
};

// Where zones are looked for. Read by every load, so they sit under a lock
// of their own rather than the cache's.
struct ZonePaths {
    Pathname dir;
    Pathname root = "/usr/share/zoneinfo";
    Pathname etc = "/etc";
};

Mutex& pathsMutex() {
    static Mutex m(PthreadMutexImpl::StaticInit{});
    return m;
}
ZonePaths& zonePaths() {
    static ZonePaths* p = new ZonePaths;  // outlives every thread still converting at exit
    return *p;
}
ZonePaths currentPaths() {
    ScopedLock<Mutex> l(pathsMutex());
    return zonePaths();
}

// A relative zone name made safe: it can't climb out of the directory.
Str cleanZoneName(const char* name) {
    Str out;
    const char* p = name;
    while (*p != 0) {
        while (*p == '/') p++;
        if (*p == 0) break;
        const size_t componentStart = out.size();
        if (!out.empty()) out.push_back('/');
        const size_t first = out.size();
        for (; *p != 0 && *p != '/'; p++) {
            const char c = *p;
            if (isAlpha(c) || isDigit(c)) {
                out.push_back(c);
            } else if (c == ' ' || c == '+' || c == '-' || c == '.' || c == ':') {
                out.push_back(out.size() == first ? '_' : c);
            } else {
                out.push_back('_');
            }
        }
        // "..", or any name ending in a dot, never reaches the file system.
        if (out.size() > first && out.back() == '.') out.push_back('_');
        if (out.size() == first) out.resize(componentStart);
    }
    return out;
}

// ---------------------------------------------------------------- aliases

struct AliasRow {
    const char* name;
    const char* zone;
};

// Windows zone names without " Standard Time" and CLDR metazone names, in
// strcmp order.
constexpr AliasRow kAliases[] = {
    {"AUS Central", "Australia/Darwin"},
    {"AUS Eastern", "Australia/Sydney"},
    {"Acre", "America/Rio_Branco"},
    {"Afghanistan", "Asia/Kabul"},
    {"Africa_Central", "Africa/Kigali"},
    {"Africa_Eastern", "Africa/Nairobi"},
    {"Africa_FarWestern", "Africa/El_Aaiun"},
    {"Africa_Southern", "Africa/Johannesburg"},
    {"Africa_Western", "Africa/Lagos"},
    {"Aktyubinsk", "Asia/Aqtobe"},
    {"Alaska", "America/Juneau"},
    {"Alaska_Hawaii", "America/Anchorage"},
    {"Alaskan", "America/Anchorage"},
    {"Almaty", "Asia/Almaty"},
    {"Amazon", "America/Manaus"},
    {"America_Central", "America/Chicago"},
    {"America_Eastern", "America/New_York"},
    {"America_Mountain", "America/Denver"},
    {"America_Pacific", "America/Los_Angeles"},
    {"Anadyr", "Asia/Anadyr"},
    {"Aqtau", "Asia/Aqtau"},
    {"Aqtobe", "Asia/Aqtobe"},
    {"Arab", "Asia/Riyadh"},
    {"Arabian", "Asia/Dubai"},
    {"Arabic", "Asia/Baghdad"},
    {"Argentina", "America/Argentina/Buenos_Aires"},
    {"Argentina_Western", "America/Argentina/San_Luis"},
    {"Armenia", "Asia/Yerevan"},
    {"Armenian", "Asia/Yerevan"},
    {"Ashkhabad", "Asia/Ashgabat"},
    {"Atlantic", "America/Halifax"},
    {"Australia_Central", "Australia/Adelaide"},
    {"Australia_CentralWestern", "Australia/Eucla"},
    {"Australia_Eastern", "Australia/Sydney"},
    {"Australia_Western", "Australia/Perth"},
    {"Azerbaijan", "Asia/Baku"},
    {"Azores", "Atlantic/Azores"},
    {"Baku", "Asia/Baku"},
    {"Bangladesh", "Asia/Dhaka"},
    {"Bering", "America/Adak"},
    {"Bhutan", "Asia/Thimphu"},
    {"Bolivia", "America/La_Paz"},
    {"Borneo", "Asia/Kuching"},
    {"Brasilia", "America/Sao_Paulo"},
    {"British", "Europe/London"},
    {"Brunei", "Asia/Brunei"},
    {"Canada Central", "America/Regina"},
    {"Cape Verde", "Atlantic/Cape_Verde"},
    {"Cape_Verde", "Atlantic/Cape_Verde"},
    {"Caucasus", "Asia/Yerevan"},
    {"Cen. Australia", "Australia/Adelaide"},
    {"Central", "America/Chicago"},
    {"Central America", "America/Guatemala"},
    {"Central Asia", "Asia/Bishkek"},
    {"Central Brazilian", "America/Cuiaba"},
    {"Central Europe", "Europe/Budapest"},
    {"Central European", "Europe/Warsaw"},
    {"Central Pacific", "Pacific/Guadalcanal"},
    {"Chamorro", "Pacific/Saipan"},
    {"Changbai", "Asia/Harbin"},
    {"Chatham", "Pacific/Chatham"},
    {"Chile", "America/Santiago"},
    {"China", "Asia/Shanghai"},
    {"Choibalsan", "Asia/Choibalsan"},
    {"Christmas", "Indian/Christmas"},
    {"Cocos", "Indian/Cocos"},
    {"Colombia", "America/Bogota"},
    {"Cook", "Pacific/Rarotonga"},
    {"Cuba", "America/Havana"},
    {"Dacca", "Asia/Dhaka"},
    {"Dateline", "Etc/GMT+12"},
    {"Davis", "Antarctica/Davis"},
    {"Dominican", "America/Santo_Domingo"},
    {"DumontDUrville", "Antarctica/DumontDUrville"},
    {"Dushanbe", "Asia/Dushanbe"},
    {"Dutch_Guiana", "America/Paramaribo"},
    {"E. Africa", "Africa/Nairobi"},
    {"E. Australia", "Australia/Brisbane"},
    {"E. Europe", "Europe/Chisinau"},
    {"E. South America", "America/Sao_Paulo"},
    {"East_Timor", "Asia/Dili"},
    {"Easter", "Pacific/Easter"},
    {"Eastern", "America/New_York"},
    {"Ecuador", "America/Guayaquil"},
    {"Egypt", "Africa/Cairo"},
    {"Ekaterinburg", "Asia/Yekaterinburg"},
    {"Europe_Central", "Europe/Paris"},
    {"Europe_Eastern", "Europe/Bucharest"},
    {"Europe_Western", "Atlantic/Canary"},
    {"FLE", "Europe/Kiev"},
    {"Falkland", "Atlantic/Stanley"},
    {"Fiji", "Pacific/Fiji"},
    {"French_Guiana", "America/Cayenne"},
    {"French_Southern", "Indian/Kerguelen"},
    {"Frunze", "Asia/Bishkek"},
    {"GMT", "Europe/London"},
    {"GTB", "Europe/Bucharest"},
    {"Galapagos", "Pacific/Galapagos"},
    {"Gambier", "Pacific/Gambier"},
    {"Georgia", "Asia/Tbilisi"},
    {"Georgian", "Asia/Tbilisi"},
    {"Gilbert_Islands", "Pacific/Tarawa"},
    {"Greenland", "America/Godthab"},
    {"Greenland_Central", "America/Scoresbysund"},
    {"Greenland_Eastern", "America/Scoresbysund"},
    {"Greenland_Western", "America/Godthab"},
    {"Greenwich", "Atlantic/Reykjavik"},
    {"Guam", "Pacific/Guam"},
    {"Gulf", "Asia/Dubai"},
    {"Guyana", "America/Guyana"},
    {"Hawaii", "Pacific/Honolulu"},
    {"Hawaii_Aleutian", "Pacific/Honolulu"},
    {"Hawaiian", "Pacific/Honolulu"},
    {"Hong_Kong", "Asia/Hong_Kong"},
    {"Hovd", "Asia/Hovd"},
    {"India", "Asia/Kolkata"},
    {"Indian_Ocean", "Indian/Chagos"},
    {"Indochina", "Asia/Bangkok"},
    {"Indonesia_Central", "Asia/Makassar"},
    {"Indonesia_Eastern", "Asia/Jayapura"},
    {"Indonesia_Western", "Asia/Jakarta"},
    {"Iran", "Asia/Tehran"},
    {"Irish", "Europe/Dublin"},
    {"Irkutsk", "Asia/Irkutsk"},
    {"Israel", "Asia/Jerusalem"},
    {"Japan", "Asia/Tokyo"},
    {"Jerusalem", "Asia/Jerusalem"},
    {"Jordan", "Asia/Amman"},
    {"Kamchatka", "Asia/Kamchatka"},
    {"Karachi", "Asia/Karachi"},
    {"Kashgar", "Asia/Kashgar"},
    {"Kazakhstan_Eastern", "Asia/Almaty"},
    {"Kazakhstan_Western", "Asia/Aqtobe"},
    {"Kizilorda", "Asia/Qyzylorda"},
    {"Korea", "Asia/Seoul"},
    {"Kosrae", "Pacific/Kosrae"},
    {"Krasnoyarsk", "Asia/Krasnoyarsk"},
    {"Kuybyshev", "Europe/Samara"},
    {"Kwajalein", "Pacific/Kwajalein"},
    {"Kyrgystan", "Asia/Bishkek"},
    {"Lanka", "Asia/Colombo"},
    {"Liberia", "Africa/Monrovia"},
    {"Line_Islands", "Pacific/Kiritimati"},
    {"Long_Shu", "Asia/Chongqing"},
    {"Lord_Howe", "Australia/Lord_Howe"},
    {"Macau", "Asia/Macau"},
    {"Magadan", "Asia/Magadan"},
    {"Malaya", "Asia/Kuala_Lumpur"},
    {"Malaysia", "Asia/Kuching"},
    {"Maldives", "Indian/Maldives"},
    {"Marquesas", "Pacific/Marquesas"},
    {"Marshall_Islands", "Pacific/Majuro"},
    {"Mauritius", "Indian/Mauritius"},
    {"Mawson", "Antarctica/Mawson"},
    {"Mexico", "America/Mexico_City"},
    {"Mid-Atlantic", "Atlantic/South_Georgia"},
    {"Middle East", "Asia/Beirut"},
    {"Mongolia", "Asia/Ulaanbaatar"},
    {"Montevideo", "America/Montevideo"},
    {"Moscow", "Europe/Moscow"},
    {"Mountain", "America/Denver"},
    {"Myanmar", "Asia/Rangoon"},
    {"N. Central Asia", "Asia/Novosibirsk"},
    {"Namibia", "Africa/Windhoek"},
    {"Nauru", "Pacific/Nauru"},
    {"Nepal", "Asia/Kathmandu"},
    {"New Zealand", "Pacific/Auckland"},
    {"New_Caledonia", "Pacific/Noumea"},
    {"New_Zealand", "Pacific/Auckland"},
    {"Newfoundland", "America/St_Johns"},
    {"Niue", "Pacific/Niue"},
    {"Norfolk", "Pacific/Norfolk"},
    {"Noronha", "America/Noronha"},
    {"North Asia", "Asia/Krasnoyarsk"},
    {"North Asia East", "Asia/Irkutsk"},
    {"North_Mariana", "Pacific/Saipan"},
    {"Novosibirsk", "Asia/Novosibirsk"},
    {"Omsk", "Asia/Omsk"},
    {"Oral", "Asia/Oral"},
    {"Pacific", "America/Los_Angeles"},
    {"Pacific SA", "America/Santiago"},
    {"Pakistan", "Asia/Karachi"},
    {"Palau", "Pacific/Palau"},
    {"Papua_New_Guinea", "Pacific/Port_Moresby"},
    {"Paraguay", "America/Asuncion"},
    {"Peru", "America/Lima"},
    {"Philippines", "Asia/Manila"},
    {"Phoenix_Islands", "Pacific/Enderbury"},
    {"Pierre_Miquelon", "America/Miquelon"},
    {"Pitcairn", "Pacific/Pitcairn"},
    {"Ponape", "Pacific/Pohnpei"},
    {"Qyzylorda", "Asia/Qyzylorda"},
    {"Reunion", "Indian/Reunion"},
    {"Romance", "Europe/Paris"},
    {"Rothera", "Antarctica/Rothera"},
    {"Russian", "Europe/Moscow"},
    {"SA Eastern", "America/Cayenne"},
    {"SA Pacific", "America/Bogota"},
    {"SA Western", "America/La_Paz"},
    {"SE Asia", "Asia/Bangkok"},
    {"Sakhalin", "Asia/Sakhalin"},
    {"Samara", "Europe/Samara"},
    {"Samarkand", "Asia/Samarkand"},
    {"Samoa", "Pacific/Apia"},
    {"Seychelles", "Indian/Mahe"},
    {"Shevchenko", "Asia/Aqtau"},
    {"Singapore", "Asia/Singapore"},
    {"Solomon", "Pacific/Guadalcanal"},
    {"South Africa", "Africa/Johannesburg"},
    {"South_Georgia", "Atlantic/South_Georgia"},
    {"Sri Lanka", "Asia/Colombo"},
    {"Suriname", "America/Paramaribo"},
    {"Sverdlovsk", "Asia/Yekaterinburg"},
    {"Syowa", "Antarctica/Syowa"},
    {"Tahiti", "Pacific/Tahiti"},
    {"Taipei", "Asia/Taipei"},
    {"Tajikistan", "Asia/Dushanbe"},
    {"Tashkent", "Asia/Tashkent"},
    {"Tasmania", "Australia/Hobart"},
    {"Tbilisi", "Asia/Tbilisi"},
    {"Tokelau", "Pacific/Fakaofo"},
    {"Tokyo", "Asia/Tokyo"},
    {"Tonga", "Pacific/Tongatapu"},
    {"Truk", "Pacific/Chuuk"},
    {"Turkey", "Europe/Istanbul"},
    {"Turkmenistan", "Asia/Ashgabat"},
    {"Tuvalu", "Pacific/Funafuti"},
    {"Uralsk", "Asia/Oral"},
    {"Uruguay", "America/Montevideo"},
    {"Urumqi", "Asia/Urumqi"},
    {"Uzbekistan", "Asia/Tashkent"},
    {"Vanuatu", "Pacific/Efate"},
    {"Venezuela", "America/Caracas"},
    {"Vladivostok", "Asia/Vladivostok"},
    {"Volgograd", "Europe/Volgograd"},
    {"Vostok", "Antarctica/Vostok"},
    {"W. Australia", "Australia/Perth"},
    {"W. Central Africa", "Africa/Lagos"},
    {"W. Europe", "Europe/Berlin"},
    {"Wake", "Pacific/Wake"},
    {"Wallis", "Pacific/Wallis"},
    {"West Asia", "Asia/Tashkent"},
    {"West Pacific", "Pacific/Port_Moresby"},
    {"Yakutsk", "Asia/Yakutsk"},
    {"Yekaterinburg", "Asia/Yekaterinburg"},
    {"Yerevan", "Asia/Yerevan"},
    {"Yukon", "America/Yakutat"},
};
static_assert(sizeof kAliases / sizeof kAliases[0] == 247);

constexpr int constexprStrcmp(const char* a, const char* b) {
    while (*a != 0 && *a == *b) a++, b++;
    return int((unsigned char)*a) - int((unsigned char)*b);
}
constexpr bool aliasesSorted() {
    for (size_t i = 1; i < sizeof kAliases / sizeof kAliases[0]; i++) {
        if (constexprStrcmp(kAliases[i - 1].name, kAliases[i].name) >= 0) return false;
    }
    return true;
}
static_assert(aliasesSorted(), "the alias lookup is a binary search");

bool endsWith(const Str& s, const char* suffix) {
    const size_t n = strlen(suffix);
    return s.size() >= n && memcmp(s.data() + s.size() - n, suffix, n) == 0;
}
bool startsWith(const Str& s, const char* prefix) {
    const size_t n = strlen(prefix);
    return s.size() >= n && memcmp(s.data(), prefix, n) == 0;
}

}  // namespace

const char* timezoneAlias(const char* name) {
    Str s(name);
    Str base = s;
    if (s.size() > 14 && endsWith(s, " Standard Time")) {
        base = s.substr(0, s.size() - 14);
        if (startsWith(base, "US ")) {
            base.erase(0, 3);
            if (base == "Mountain") return "America/Phoenix";
            if (base == "Eastern") return "Etc/GMT+5";
        }
    } else if (endsWith(s, " Daylight Time")) {
        if (s == "Greenwich Daylight Time") return "Europe/London";
        base = s.substr(0, s.size() - 14);
        if (startsWith(base, "US ")) base.erase(0, 3);
    } else if (s.size() > 23 &&
               (endsWith(s, " Standard Time (Mexico)") || endsWith(s, " Daylight Time (Mexico)"))) {
        base = s.substr(0, s.size() - 23);
        if (base == "Central") return "America/Mexico_City";
        if (base == "Mountain") return "America/Chihuahua";
        if (base == "Pacific") return "America/Tijuana";
        return nullptr;
    } else if (s == "Mexico Standard Time 2" || s == "Mexico Daylight Time 2") {
        return "America/Chihuahua";
    } else if (s == "GMT" || s == "Greenwich") {
        return nullptr;
    }
    size_t lo = 0, hi = sizeof kAliases / sizeof kAliases[0];
    while (lo < hi) {
        const size_t mid = (lo + hi) / 2;
        const int c = strcmp(base.c_str(), kAliases[mid].name);
        if (c == 0) return kAliases[mid].zone;
        if (c < 0) {
            hi = mid;
        } else {
            lo = mid + 1;
        }
    }
    return nullptr;
}

// ---------------------------------------------------------------- DstEndpoint

namespace {

// Digits into *out, at most `max`; false without a digit or past it.
bool readNumber(const char** p, long max, long* out) {
    const char* s = *p;
    if (!isDigit(*s)) return false;
    long v = 0;
    while (isDigit(*s)) {
        v = v * 10 + (*s - '0');
        if (v > max) return false;
        s++;
    }
    *p = s;
    *out = v;
    return true;
}

// [+-]hh[:mm[:ss]] in seconds, signed as written.
bool readHms(const char** p, long maxHours, long* out) {
    const char* s = *p;
    long sign = 1;
    if (*s == '+' || *s == '-') sign = *s++ == '-' ? -1 : 1;
    long h, m = 0, sec = 0;
    if (!readNumber(&s, maxHours, &h)) return false;
    if (*s == ':') {
        s++;
        if (!readNumber(&s, 59, &m)) return false;
        if (*s == ':') {
            s++;
            if (!readNumber(&s, 59, &sec)) return false;
        }
    }
    *p = s;
    *out = sign * (h * 3600 + m * 60 + sec);
    return true;
}

// A zone abbreviation: "<...>" or a run up to a digit, ',', '-' or '+'.
bool readPosixName(const char** p, Str* out) {
    const char* s = *p;
    if (*s == '<') {
        const char* e = strchr(s + 1, '>');
        if (e == nullptr || e == s + 1) return false;
        out->assign(s + 1, size_t(e - s - 1));
        *p = e + 1;
        return true;
    }
    const char* e = s;
    while (*e != 0 && !isDigit(*e) && *e != ',' && *e != '-' && *e != '+') e++;
    if (e == s) return false;
    out->assign(s, size_t(e - s));
    *p = e;
    return true;
}

int64_t yearStart(int year) { return daysFromCivil(year, 1, 1) * SECONDS_PER_DAY; }

}  // namespace

bool DstEndpoint::parsePosix(const char** p) {
    const char* s = *p;
    long n;
    if (*s == 'J') {
        s++;
        if (!readNumber(&s, 365, &n) || n < 1) return false;
        _type = JULIAN_NO_LEAP;
        _day = int32_t(n - 1);
        _month = 0;
        _weekDays = 0;
    } else if (isDigit(*s)) {
        if (!readNumber(&s, 365, &n)) return false;
        _type = DAY_OF_YEAR;
        _day = int32_t(n);
        _month = 0;
        _weekDays = 0;
    } else if (*s == 'M') {
        s++;
        long m, w, d;
        if (!readNumber(&s, 12, &m) || m < 1 || *s++ != '.') return false;
        if (!readNumber(&s, 5, &w) || w < 1 || *s++ != '.') return false;
        if (!readNumber(&s, 6, &d)) return false;
        _type = DOW;
        _month = int32_t(m - 1);
        _weekDays = int32_t(7 * (w - 1));
        _day = int32_t(d - 11);
    } else {
        return false;
    }
    _seconds = 7200;
    if (*s == '/') {
        s++;
        long t;
        if (!readHms(&s, 167, &t)) return false;
        _seconds = t;
    }
    *p = s;
    return true;
}

int64_t DstEndpoint::secondsFromJanuary(int year) const {
    int64_t days = 0;
    const bool leap = isLeapYear(year);
    switch (_type) {
        case JULIAN_NO_LEAP:
            // Shifted after February in common years rather than in leap
            // years: the opposite of POSIX, and relied upon as it is.
            days = _day <= 58 ? _day : (leap ? _day : _day + 1);
            break;
        case DAY_OF_YEAR:
            days = (_day == 365 && !leap) ? 364 : _day;
            break;
        case DOW: {
            const int64_t monthStart = daysFromCivil(year, unsigned(_month + 1), 1);
            const int64_t wdayOfFirst = ((monthStart + 4) % 7 + 7) % 7;
            const int64_t weekday = _day + 11;
            int64_t mday = (weekday - wdayOfFirst + 7) % 7 + _weekDays;
            if (mday >= daysInMonth(year, _month)) mday -= 7;
            days = monthStart - daysFromCivil(year, 1, 1) + mday;
            break;
        }
    }
    return days * SECONDS_PER_DAY + _seconds;
}

// ---------------------------------------------------------------- Timezone: building

void Timezone::init() {
    _timecnt = 0;
    _typecnt = 0;
    _repeatsBefore = true;
    _repeatsAfter = true;
    _types[0] = TimezoneOffset();
    _names.clear();
    _srcName.clear();
    _constantOffset = NOT_CONSTANT;
}

void Timezone::setToGmt() {
    init();
    _names.assign("GMT", 4);
    _typecnt = 1;
    _types[0] = TimezoneOffset{0, 0, false, TimezoneOffset::GMT};
    _constantOffset = 0;
    _srcName = "GMT";
}

void Timezone::setToConstantOffset(const char* name, long posixOffset) {
    init();
    _names.assign(name);
    _names.push_back(0);
    _typecnt = 1;
    _types[0] = TimezoneOffset{-int64_t(posixOffset), 0, false, TimezoneOffset::WALL};
    _constantOffset = -int64_t(posixOffset);
}

void Timezone::setToStaticDst(const char* name1, const char* name2, long stdOffset, long dstOffset,
                              const DstEndpoint& start, const DstEndpoint& end) {
    init();
    _names.assign(name2);
    _names.push_back(0);
    const uint32_t stdName = uint32_t(_names.size());
    _names.append(name1);
    _names.push_back(0);
    _typecnt = 2;
    _types[0] = TimezoneOffset{-int64_t(dstOffset), 0, true, TimezoneOffset::WALL};
    _types[1] = TimezoneOffset{-int64_t(stdOffset), stdName, false, TimezoneOffset::WALL};
    for (int year = 1970; _timecnt + 2 <= MAX_TIMES; year++) {
        const int64_t base = yearStart(year);
        const int64_t s = start.secondsFromJanuary(year) + stdOffset + base;
        const int64_t e = end.secondsFromJanuary(year) + dstOffset + base;
        if (s <= e) {
            _transitionTimes[_timecnt] = s, _transitionTypes[_timecnt++] = 0;
            _transitionTimes[_timecnt] = e, _transitionTypes[_timecnt++] = 1;
        } else {
            _transitionTimes[_timecnt] = e, _transitionTypes[_timecnt++] = 1;
            _transitionTimes[_timecnt] = s, _transitionTypes[_timecnt++] = 0;
        }
    }
    if (stdOffset == dstOffset) _constantOffset = -int64_t(stdOffset);
}

bool Timezone::fromPathOrPosix(const char* text) {
    if (*text == 0) {
        setToGmt();
        return true;
    }
    if (*text == ':') return fromZoneinfoPath(text + 1, true);
    if (fromZoneinfoPath(text, true)) return true;
    if (const char* alias = timezoneAlias(text)) {
        if (fromZoneinfoPath(alias, true)) return true;
    }
    return fromPosixString(text);
}

bool Timezone::fromZoneinfoPath(const char* name, bool useFooter) {
    if (name[0] == '/') {
        struct stat st;
        if (stat(name, &st) != 0 || !S_ISREG(st.st_mode)) return false;
        if (!fromExactZoneinfoPath(Pathname(name), useFooter)) return false;
        const char* slash = strrchr(name, '/');
        setSrcName(Pathname(Str(name, size_t(slash - name))), Str(slash + 1));
        return true;
    }
    const Str clean = cleanZoneName(name);
    if (clean.empty()) return false;
    const ZonePaths paths = currentPaths();
    if (clean == "localtime") {
        if (fromExactZoneinfoPath(Pathname(paths.etc + "/localtime"), useFooter)) {
            setSrcName(paths.etc, clean);
            return true;
        }
    }
    if (!paths.dir.empty()) {
        if (fromExactZoneinfoPath(Pathname(paths.dir + "/" + clean), useFooter)) {
            setSrcName(paths.dir, clean);
            return true;
        }
        if (fromPackedZoneinfoPath(Pathname(paths.dir + ".tzpack"), clean.c_str(), useFooter)) {
            if (clean != "localtime") _srcName = clean;
            return true;
        }
    }
    if (fromExactZoneinfoPath(Pathname(paths.root + "/" + clean), useFooter)) {
        setSrcName(paths.root, clean);
        return true;
    }
    return false;
}

bool Timezone::fromExactZoneinfoPath(const Pathname& path, bool useFooter) {
    OpenedFile f(path.c_str());
    if (f.fd() < 0) return false;
    return fromZoneinfoFile(FileDescriptor(f.fd()), useFooter);
}

bool Timezone::fromZoneinfoFile(const FileDescriptor& fd, bool useFooter) {
    MappedFile m(fd.fd());
    if (!m.ok()) return false;
    return fromZoneinfoData(m.data(), m.size(), useFooter);
}

bool Timezone::fromPackedZoneinfoPath(const Pathname& path, const char* name, bool useFooter) {
    OpenedFile f(path.c_str());
    if (f.fd() < 0) return false;
    MappedFile m(f.fd());
    if (!m.ok()) return false;
    const size_t size = m.size();
    const unsigned char* d = reinterpret_cast<const unsigned char*>(m.data());
    if (size < 16 || memcmp(d, "TarvexTZpk1!", 12) != 0) return false;
    const uint32_t n = be32(d + 12);
    if (n == 0 || n >= size / 16) return false;
    Str key(name);
    for (char& c : key) {
        if (c >= 'A' && c <= 'Z') c = char(c + 32);
        if (c == '\\') c = '/';
    }
    size_t lo = 0, hi = n;
    while (lo < hi) {
        const size_t mid = (lo + hi) / 2;
        const unsigned char* e = d + 16 * (mid + 1);
        const uint32_t nameAt = be32(e);
        if (nameAt >= size) return false;
        const char* entryName = reinterpret_cast<const char*>(d + nameAt);
        if (memchr(entryName, 0, size - nameAt) == nullptr) return false;
        const int c = strcmp(key.c_str(), entryName);
        if (c < 0) {
            hi = mid;
        } else if (c > 0) {
            lo = mid + 1;
        } else {
            const uint64_t unit = be32(e + 4);
            const uint64_t length = be32(e + 8);
            if (unit >= (size + 15) / 16 || unit * 16 + length > size) return false;
            return fromZoneinfoData(m.data() + unit * 16, size_t(length), useFooter);
        }
    }
    return false;
}

bool Timezone::readZoneinfoTypes(const unsigned char* p, uint32_t typecnt, uint32_t charcnt) {
    for (uint32_t i = 0; i < typecnt; i++, p += 6) {
        const unsigned isDst = p[4], nameIndex = p[5];
        if (isDst > 1 || nameIndex >= charcnt) return false;
        _types[i] = TimezoneOffset{sbe32(p), nameIndex, isDst == 1, TimezoneOffset::WALL};
    }
    return true;
}

void Timezone::checkZoneinfoOrdered() {
    for (uint32_t i = 1; i < _timecnt; i++) {
        if (_transitionTimes[i] < _transitionTimes[i - 1]) {
            _timecnt = i;
            return;
        }
    }
}

void Timezone::computeZoneinfoConstantOffset() {
    if (_timecnt == 0) {
        _constantOffset = _types[0].utoff;
        return;
    }
    const int64_t candidate = _types[_transitionTypes[_timecnt - 1]].utoff;
    _constantOffset = candidate;
    for (uint32_t i = 0; i < _timecnt; i++) {
        if (_transitionTimes[i] < 0) continue;
        if (_types[_transitionTypes[i]].utoff != candidate) {
            _constantOffset = NOT_CONSTANT;
            return;
        }
    }
}

void Timezone::setRepeatFlags() {
    auto repeats = [this](uint32_t a, uint32_t b) {
        int64_t cycleLater;  // a time from a file can lie near the 64-bit limit
        return _transitionTypes[a] == _transitionTypes[b] &&
               !__builtin_add_overflow(_transitionTimes[a], GREGORIAN_CYCLE_SECONDS, &cycleLater) &&
               _transitionTimes[b] == cycleLater;
    };
    _repeatsBefore = _timecnt > 800 && repeats(0, 800);
    _repeatsAfter = _timecnt > 800 && repeats(_timecnt - 801, _timecnt - 1);
}

bool Timezone::fromZoneinfoData(const char* data, size_t size, bool useFooter) {
    init();
    if (size < 44 || memcmp(data, "TZif", 4) != 0) return fromAncientZoneinfoData(data, size);
    const unsigned char* d = reinterpret_cast<const unsigned char*>(data);
    const unsigned version = d[4];
    if (version >= 1 && version <= 49) return false;
    size_t block = 0;
    const int passes = version >= '2' ? 2 : 1;
    for (int pass = 1; pass <= passes; pass++) {
        if (block + 44 > size) return false;
        const unsigned char* h = d + block + 20;
        const uint32_t gmtcnt = be32(h), stdcnt = be32(h + 4), leapcnt = be32(h + 8),
                       timecnt = be32(h + 12), typecnt = be32(h + 16), charcnt = be32(h + 20);
        if (timecnt > MAX_TIMES || leapcnt > MAX_LEAPS || typecnt > MAX_TYPES ||
            charcnt > MAX_CHARS)
            return false;
        if ((gmtcnt != 0 && gmtcnt != typecnt) || (stdcnt != 0 && stdcnt != typecnt)) return false;
        const size_t tsize = pass == 1 ? 4 : 8;
        const size_t need = 44 + timecnt * (tsize + 1) + typecnt * 6 + charcnt +
                            leapcnt * (tsize + 4) + stdcnt + gmtcnt;
        if (size - block < need) return false;
        const unsigned char* p = d + block + 44;
        for (uint32_t i = 0; i < timecnt; i++, p += tsize) {
            _transitionTimes[i] = tsize == 4 ? sbe32(p) : sbe64(p);
        }
        for (uint32_t i = 0; i < timecnt; i++) {
            if (p[i] >= typecnt) return false;
            _transitionTypes[i] = p[i];
        }
        p += timecnt;
        if (!readZoneinfoTypes(p, typecnt, charcnt)) return false;
        p += typecnt * 6;
        _names.assign(reinterpret_cast<const char*>(p), charcnt);
        p += charcnt + leapcnt * (tsize + 4);
        for (uint32_t i = 0; i < stdcnt; i++) {
            if (p[i] > 1) return false;
            if (p[i] == 1) _types[i].timeKind = TimezoneOffset::STANDARD;
        }
        p += stdcnt;
        // Only the standard flags must be 0 or 1; a GMT flag is set by 1.
        for (uint32_t i = 0; i < gmtcnt; i++) {
            if (p[i] == 1) _types[i].timeKind = TimezoneOffset::GMT;
        }
        _timecnt = timecnt;
        _typecnt = typecnt;
        if (typecnt == 0) _types[0] = TimezoneOffset();
        checkZoneinfoOrdered();
        block += need;
    }
    const size_t rest = size - block;
    if (useFooter && rest >= 3 && data[block] == '\n' && data[size - 1] == '\n' &&
        _typecnt + 2 <= MAX_TYPES) {
        applyFooter(data + block + 1, rest - 2);
    }
    afterLoad();
    return true;
}

bool Timezone::applyFooter(const char* text, size_t length) {
    if (memchr(text, 0, length) != nullptr) return false;
    auto scratch = std::make_unique<Timezone>();
    if (!scratch->fromPosixString(Str(text, length).c_str())) return false;
    if (scratch->_typecnt != 2 || _names.size() + scratch->_names.size() > 256) return false;
    const uint32_t nameBase = uint32_t(_names.size());
    const uint32_t typeBase = _typecnt;
    _names.append(scratch->_names);
    for (uint32_t i = 0; i < scratch->_timecnt && _timecnt < MAX_TIMES; i++) {
        if (_timecnt > 0 && scratch->_transitionTimes[i] <= _transitionTimes[_timecnt - 1]) {
            continue;
        }
        _transitionTimes[_timecnt] = scratch->_transitionTimes[i];
        _transitionTypes[_timecnt++] = uint8_t(scratch->_transitionTypes[i] + typeBase);
    }
    for (uint32_t i = 0; i < 2; i++) {
        TimezoneOffset o = scratch->_types[i];
        o.nameOffset += nameBase;
        _types[typeBase + i] = o;
    }
    _typecnt += 2;
    return true;
}

void Timezone::afterLoad() {
    setRepeatFlags();
    computeZoneinfoConstantOffset();
}

bool Timezone::fromAncientZoneinfoData(const char* data, size_t size) {
    init();
    if (size < 44) return false;
    const unsigned char* d = reinterpret_cast<const unsigned char*>(data);
    const uint32_t timecnt = be32(d + 32), typecnt = be32(d + 36), charcnt = be32(d + 40);
    if (timecnt > MAX_TIMES || typecnt > MAX_TYPES || charcnt < 1 || charcnt > MAX_CHARS) {
        return false;
    }
    if (44 + 5 * size_t(timecnt) + 6 * size_t(typecnt) + charcnt > size) return false;
    const unsigned char* p = d + 44;
    for (uint32_t i = 0; i < timecnt; i++, p += 4) _transitionTimes[i] = sbe32(p);
    for (uint32_t i = 0; i < timecnt; i++) {
        if (p[i] >= typecnt) return false;
        _transitionTypes[i] = p[i];
    }
    p += timecnt;
    if (!readZoneinfoTypes(p, typecnt, charcnt)) return false;
    p += typecnt * 6;
    _names.assign(reinterpret_cast<const char*>(p), charcnt);
    _timecnt = timecnt;
    _typecnt = typecnt;
    checkZoneinfoOrdered();
    afterLoad();
    return true;
}

bool Timezone::fromPosixString(const char* text) {
    init();
    const char* p = text;
    Str name1, name2;
    long stdOffset, dstOffset;
    if (!readPosixName(&p, &name1) || !readHms(&p, 23, &stdOffset)) return false;
    if (*p == 0) {
        setToConstantOffset(name1.c_str(), stdOffset);
        return true;
    }
    if (!readPosixName(&p, &name2)) return false;
    if (*p == 0 || *p == ',' || *p == ';') {
        dstOffset = stdOffset - 3600;
    } else if (!readHms(&p, 23, &dstOffset)) {
        return false;
    }
    if (*p == 0) {
        if (fromZoneinfoPath("posixrules", false)) {
            rebaseOnPosixRules(name1.c_str(), name2.c_str(), stdOffset, dstOffset);
            return true;
        }
        DstEndpoint start, end;
        const char* rules = "M3.2.0/2,M11.1.0/2";
        start.parsePosix(&rules);
        rules++;
        end.parsePosix(&rules);
        setToStaticDst(name1.c_str(), name2.c_str(), stdOffset, dstOffset, start, end);
        return true;
    }
    if (*p != ',' && *p != ';') return false;
    p++;
    DstEndpoint start, end;
    if (!start.parsePosix(&p) || *p++ != ',' || !end.parsePosix(&p) || *p != 0) return false;
    setToStaticDst(name1.c_str(), name2.c_str(), stdOffset, dstOffset, start, end);
    return true;
}

void Timezone::rebaseOnPosixRules(const char* name1, const char* name2, long stdOffset,
                                  long dstOffset) {
    // The old offsets: of the first standard and the first daylight type
    // that a transition reaches (type 0 is mostly local mean time, which
    // no rule was written in).
    int64_t oldStd = 0, oldDst = 0;
    bool haveStd = false, haveDst = false;
    for (uint32_t i = 0; i < _timecnt + _typecnt; i++) {
        const TimezoneOffset& o = i < _timecnt ? typeAt(i) : _types[i - _timecnt];
        if (!o.isDst && !haveStd) oldStd = o.utoff, haveStd = true;
        if (o.isDst && !haveDst) oldDst = o.utoff, haveDst = true;
    }
    const int64_t newStd = -int64_t(stdOffset), newDst = -int64_t(dstOffset);
    // A wall-clock transition after daylight time was written in daylight
    // time; the others in standard time.
    for (uint32_t i = 0; i < _timecnt; i++) {
        const TimezoneOffset& o = _types[_transitionTypes[i]];
        if (o.timeKind == TimezoneOffset::GMT) continue;
        const bool afterDst = i > 0 && _types[_transitionTypes[i - 1]].isDst;
        if (o.timeKind == TimezoneOffset::WALL && afterDst) {
            _transitionTimes[i] += oldDst - newDst;
        } else {
            _transitionTimes[i] += oldStd - newStd;
        }
    }
    _names.assign(name1);
    _names.push_back(0);
    const uint32_t dstName = uint32_t(_names.size());
    _names.append(name2);
    _names.push_back(0);
    for (uint32_t i = 0; i < _typecnt; i++) {
        _types[i].utoff = _types[i].isDst ? newDst : newStd;
        _types[i].nameOffset = _types[i].isDst ? dstName : 0;
    }
    _srcName.clear();
    checkZoneinfoOrdered();
    afterLoad();
}

void Timezone::setSrcName(const Pathname& dir, const Str& name) {
    if (name != "localtime") {
        _srcName = name;
        return;
    }
    _srcName.clear();
    const Str link = dir + "/localtime";
    struct stat st;
    if (lstat(link.c_str(), &st) != 0 || !S_ISLNK(st.st_mode)) return;
    char resolved[PATH_MAX];
    if (::realpath(link.c_str(), resolved) == nullptr) return;
    const Str r(resolved);
    const size_t at = r.rfind("zoneinfo");
    if (at == Str::npos) return;
    size_t from = at + 8;
    if (from < r.size() && r[from] == '/') from++;
    Str tail = r.substr(from);
    while (!tail.empty() && tail.back() == '/') tail.pop_back();
    _srcName = tail;
}

// ---------------------------------------------------------------- serialization

namespace {

const char kSerializedHeader[] = "### SERIALIZED TIMEZONE FORMAT 1.0";

bool parseInt64(const Str& s, size_t from, int64_t* out) {
    if (from >= s.size()) return false;
    errno = 0;
    char* end;
    const long long v = strtoll(s.c_str() + from, &end, 10);
    if (errno != 0 || end != s.c_str() + s.size() || end == s.c_str() + from) return false;
    if (!isDigit(s[from]) && s[from] != '-') return false;
    *out = v;
    return true;
}

int hexValue(char c) {
    if (isDigit(c)) return c - '0';
    if (c >= 'A' && c <= 'F') return c - 'A' + 10;
    if (c >= 'a' && c <= 'f') return c - 'a' + 10;
    return -1;
}

}  // namespace

void Timezone::serialize(StrVector& lines, int years) const {
    Str line;
    if (_constantOffset != NOT_CONSTANT) {
        line.appendFormat("C%ld", long(_constantOffset));
        lines.push_back(line);
    }
    if (_typecnt == 0) lines.push_back("Z");
    for (uint32_t i = 0; i < std::max<uint32_t>(_typecnt, 1); i++) {
        const TimezoneOffset& o = _types[i];
        line.clear();
        line.appendFormat("Y%ld %c%c", long(o.utoff), o.isDst ? 'Y' : 'N',
                          o.timeKind == TimezoneOffset::GMT        ? 'G'
                          : o.timeKind == TimezoneOffset::STANDARD ? 'S'
                                                                   : 'W');
        for (const char* n = abbreviation(o); *n != 0; n++) {
            line.appendFormat(" %02X", unsigned((unsigned char)*n));
        }
        lines.push_back(line);
    }
    const int32_t span = int32_t(uint32_t(years) * 31536000u);
    const int64_t limit = int64_t(time(nullptr)) + span;
    auto transition = [&](uint32_t i) {
        line.clear();
        line.appendFormat("@%lld %u", (long long)_transitionTimes[i],
                          unsigned(_transitionTypes[i]));
        lines.push_back(line);
    };
    // Of the times before 1970 only the last matters: it sets the offset
    // in force at 1970.
    int64_t pendingBefore1970 = -1;
    for (uint32_t i = 0; i < _timecnt; i++) {
        if (_transitionTimes[i] > limit) break;
        if (_transitionTimes[i] < 0) {
            pendingBefore1970 = i;
            continue;
        }
        if (pendingBefore1970 >= 0) {
            transition(uint32_t(pendingBefore1970));
            pendingBefore1970 = -1;
        }
        transition(i);
    }
    if (pendingBefore1970 >= 0) {
        transition(uint32_t(pendingBefore1970));
    }
    if (_repeatsBefore) lines.push_back("B");
    if (_repeatsAfter) lines.push_back("F");
    lines.push_back("$");
}

uint32_t Timezone::_charOffsetForNewZoneName(const char* name, size_t length) {
    for (size_t at = 0; at < _names.size();) {
        const size_t n = strlen(_names.c_str() + at);
        if (n == length && memcmp(_names.data() + at, name, length) == 0) return uint32_t(at);
        at += n + 1;
    }
    const uint32_t at = uint32_t(_names.size());
    _names.append(name, length);
    _names.push_back(0);
    return at;
}

bool Timezone::setFromSerializedData(const StrVector& lines) {
    init();
    _repeatsBefore = _repeatsAfter = false;
    bool sawZ = false, sawConstant = false;
    if (lines.empty() || lines.back() != "$") return false;
    for (size_t li = 0; li + 1 < lines.size(); li++) {
        const Str& l = lines[li];
        if (l.empty()) return false;
        switch (l[0]) {
            case 'C': {
                int64_t v;
                if (!parseInt64(l, 1, &v)) return false;
                _constantOffset = v;
                sawConstant = true;
                break;
            }
            case 'Z':
                sawZ = true;
                break;
            case 'B':
                _repeatsBefore = true;
                break;
            case 'F':
                _repeatsAfter = true;
                break;
            case 'Y': {
                if (_typecnt >= MAX_TYPES) return false;
                const size_t sp = l.find(' ');
                if (sp == Str::npos) return false;
                int64_t off;
                if (!parseInt64(Str(l, 0, sp), 1, &off)) return false;
                if (l.size() < sp + 3 || (l.size() > sp + 3 && l[sp + 3] != ' ')) return false;
                const char d = l[sp + 1], k = l[sp + 2];
                if ((d != 'Y' && d != 'N') || (k != 'W' && k != 'S' && k != 'G')) return false;
                Str name;
                for (size_t at = sp + 3; at < l.size(); at += 3) {
                    if (at + 3 > l.size() || l[at] != ' ') return false;
                    const int hi = hexValue(l[at + 1]), lo = hexValue(l[at + 2]);
                    if (hi < 0 || lo < 0 || (hi == 0 && lo == 0)) return false;
                    name.push_back(char(hi * 16 + lo));
                }
                TimezoneOffset& o = _types[_typecnt++];
                o.utoff = off;
                o.isDst = d == 'Y';
                o.timeKind = k == 'G'   ? TimezoneOffset::GMT
                             : k == 'S' ? TimezoneOffset::STANDARD
                                        : TimezoneOffset::WALL;
                o.nameOffset = _charOffsetForNewZoneName(name.data(), name.size());
                break;
            }
            case '@': {
                if (_timecnt >= MAX_TIMES) return false;
                const size_t sp = l.find(' ');
                if (sp == Str::npos || l.find(' ', sp + 1) != Str::npos) return false;
                int64_t t, type;
                if (!parseInt64(Str(l, 0, sp), 1, &t) || !parseInt64(l, sp + 1, &type)) {
                    return false;
                }
                if (type < 0 || type >= int64_t(MAX_TYPES)) return false;
                if (_timecnt > 0 && t < _transitionTimes[_timecnt - 1]) return false;
                _transitionTimes[_timecnt] = t;
                _transitionTypes[_timecnt++] = uint8_t(type);
                break;
            }
            default:
                return false;
        }
    }
    if (_typecnt == 0) return false;
    if (_timecnt == 0 && !sawConstant) return false;
    for (uint32_t i = 0; i < _timecnt; i++) {
        if (_transitionTypes[i] > _typecnt) return false;
    }
    if (sawZ) {
        if (_typecnt != 1) return false;
        _typecnt = 0;
    }
    return true;
}

// ---------------------------------------------------------------- conversions

uint32_t Timezone::searchAt(time_t t) const {
    // Branch-free: the halving compiles to conditional moves, and times
    // from a log are too scattered for a predictor to learn the branches.
    const int64_t* base = _transitionTimes;
    for (uint32_t n = _timecnt; n > 1;) {
        const uint32_t half = n / 2;
        base = base[half] <= int64_t(t) ? base + half : base;
        n -= half;
    }
    return uint32_t(base - _transitionTimes);
}

time_t Timezone::transitionTimeFromAt(time_t t) const {
    if (_timecnt == 0) return time_t(INT64_MIN);
    return time_t(_transitionTimes[searchAt(t)]);
}

uint32_t Timezone::reverseSearchAt(time_t local, reverse_search_result_type_t* result) const {
    *result = ONLY_THIS_INDEX;
    if (_timecnt == 0) return 0;
    uint32_t i = searchAt(local);
    // Whether local time under the offset of index j falls in j's span:
    // -1 before it, 1 after it, 0 in it.
    auto where = [this, local](uint32_t j, bool* overflow) {
        int64_t u;
        *overflow = __builtin_sub_overflow(int64_t(local), typeAt(j).utoff, &u);
        if (j > 0 && u < _transitionTimes[j]) return -1;
        if (j + 1 < _timecnt && u >= _transitionTimes[j + 1]) return 1;
        return 0;
    };
    bool overflow;
    int dir = 0;
    for (;;) {
        const int w = where(i, &overflow);
        if (overflow) return local < 0x10000001 ? 0 : _timecnt - 1;
        if (w == 0) break;
        if (dir != 0 && w != dir) {
            // Neither side takes it: a gap. The later side is the one with
            // the larger offset.
            *result = NO_INDEX_MATCHES;
            const uint32_t other = uint32_t(int(i) + w);
            return typeAt(other).utoff > typeAt(i).utoff ? other : i;
        }
        dir = w;
        i = uint32_t(int(i) + w);
    }
    bool o2;
    if (i > 0 && where(i - 1, &o2) == 0 && !o2) {
        *result = MIGHT_ALSO_BE_NEXT_INDEX;
        return i - 1;
    }
    if (i + 1 < _timecnt && where(i + 1, &o2) == 0 && !o2) {
        *result = MIGHT_ALSO_BE_NEXT_INDEX;
        return i;
    }
    return i;
}

const TimezoneOffset* Timezone::offsetFromReverseSearch(time_t local, int isdst) const {
    reverse_search_result_type_t r;
    const uint32_t i = reverseSearchAt(local, &r);
    switch (r) {
        case ONLY_THIS_INDEX:
            return &typeAt(i);
        case NO_INDEX_MATCHES:
            return nullptr;
        case MIGHT_ALSO_BE_NEXT_INDEX: {
            const TimezoneOffset& a = typeAt(i);
            const TimezoneOffset& b = typeAt(i + 1);
            if (isdst < 0 || a.isDst == b.isDst) return nullptr;
            return a.isDst == (isdst != 0) ? &a : &b;
        }
    }
    return nullptr;
}

long Timezone::offsetSeconds(bool dst) const {
    if (_timecnt == 0) return 0;
    for (uint32_t i = _timecnt; i-- > 0;) {
        if (typeAt(i).isDst == dst) return long(typeAt(i).utoff);
    }
    return long(typeAt(_timecnt - 1).utoff);
}

long Timezone::constantOffset(time_t from, time_t to) const {
    if (_constantOffset != NOT_CONSTANT) return long(_constantOffset);
    const uint32_t i = searchAt(from);
    const int64_t off = typeAt(i).utoff;
    for (uint32_t j = i + 1; j < _timecnt && _transitionTimes[j] <= to; j++) {
        if (typeAt(j).utoff != off) return long(NOT_CONSTANT);
    }
    return long(off);
}

bool Timezone::isSimilarTo(const Timezone& other, time_t t) const {
    const time_t from = t - 316224000, to = t + 316224000;
    const long a = constantOffset(from, to), b = other.constantOffset(from, to);
    if (a != b) return false;
    if (a != long(NOT_CONSTANT)) {
        return strcmp(abbreviation(typeAt(searchAt(t))),
                      other.abbreviation(other.typeAt(other.searchAt(t)))) == 0;
    }
    uint32_t i = searchAt(from), j = other.searchAt(from);
    for (;;) {
        const bool endA = i >= _timecnt || _transitionTimes[i] > to;
        const bool endB = j >= other._timecnt || other._transitionTimes[j] > to;
        if (endA || endB) return endA && endB;
        const TimezoneOffset& x = typeAt(i);
        const TimezoneOffset& y = other.typeAt(j);
        if (_transitionTimes[i] != other._transitionTimes[j] || x.utoff != y.utoff ||
            x.isDst != y.isDst || strcmp(abbreviation(x), other.abbreviation(y)) != 0)
            return false;
        i++, j++;
    }
}

void Timezone::tzName_reformat(Str& out, const TimezoneOffset& offset, bool forPosix) const {
    const char* name = abbreviation(offset);
    if (forPosix) {
        bool letters = *name != 0;
        for (const char* c = name; *c != 0; c++) letters = letters && isAlpha(*c);
        if (!letters) {
            out.append("UTC");
            return;
        }
    }
    out.append(name);
}

namespace {

void appendPosixOffset(Str& out, int64_t utoff) {
    int64_t v = -utoff;  // POSIX counts west
    if (v < 0) {
        out.push_back('-');
        v = -v;
    }
    out.appendFormat("%ld", long(v / 3600));
    const long m = long(v / 60 % 60), s = long(v % 60);
    if (m != 0 || s != 0) out.appendFormat(":%ld", m);
    if (s != 0) out.appendFormat(":%ld", s);
}

// ",Mm.w.d[/time]" for the local moment `wall` (seconds as if UTC).
void appendRule(Str& out, int64_t wall) {
    const int64_t days = wall >= 0 ? wall / SECONDS_PER_DAY : -((-wall - 1) / SECONDS_PER_DAY) - 1;
    const int64_t secs = wall - days * SECONDS_PER_DAY;
    int64_t year;
    unsigned month, mday;
    civilFromDays(days, &year, &month, &mday);
    const int wday = int(((days + 4) % 7 + 7) % 7);
    int week = int((mday - 1) / 7 + 1);
    if (int(mday) + 7 > daysInMonth(int(year), int(month - 1))) week = 5;
    out.appendFormat(",M%u.%d.%d", month, week, wday);
    if (secs != 7200) {
        out.appendFormat("/%ld", long(secs / 3600));
        const long m = long(secs / 60 % 60), s = long(secs % 60);
        if (m != 0 || s != 0) out.appendFormat(":%ld", m);
        if (s != 0) out.appendFormat(":%ld", s);
    }
}

}  // namespace

Str Timezone::estimatedTzVariable(time_t time, bool forPosix) const {
    struct Kind {
        std::vector<uint32_t> transitions;
    } t_dst, t_std;
    const int64_t half = 31622400 / 2;
    for (uint32_t i = searchAt(time_t(int64_t(time) - half)); i < _timecnt; i++) {
        if (_transitionTimes[i] > int64_t(time) + half) break;
        if (_transitionTimes[i] < int64_t(time) - half) continue;
        if (i == 0) continue;
        const bool toDst = typeAt(i).isDst, fromDst = typeAt(i - 1).isDst;
        if (toDst && !fromDst) t_dst.transitions.push_back(i);
        if (!toDst && fromDst) t_std.transitions.push_back(i);
    }
    auto name = [&](Str& out, const TimezoneOffset& o) {
        Str n;
        tzName_reformat(n, o, forPosix);
        bool letters = true;
        for (char c : n) letters = letters && isAlpha(c);
        if (!letters) {
            out.push_back('<');
            out.append(n);
            out.push_back('>');
        } else {
            out.append(n);
        }
    };
    Str out;
    if (t_dst.transitions.empty() || t_std.transitions.empty()) {
        const TimezoneOffset& o = typeAt(searchAt(time));
        name(out, o);
        appendPosixOffset(out, o.utoff);
        return out;
    }
    ASSERT(!t_dst.transitions.empty());
    ASSERT(!t_std.transitions.empty());
    const uint32_t d = t_dst.transitions.front(), s = t_std.transitions.front();
    const TimezoneOffset& dstType = typeAt(d);
    const TimezoneOffset& stdType = typeAt(s);
    name(out, stdType);
    appendPosixOffset(out, stdType.utoff);
    name(out, dstType);
    if (dstType.utoff != stdType.utoff + 3600) appendPosixOffset(out, dstType.utoff);
    appendRule(out, _transitionTimes[d] + typeAt(d - 1).utoff);
    appendRule(out, _transitionTimes[s] + typeAt(s - 1).utoff);
    return out;
}

void Timezone::setStructTmMetadata(struct tm* t, const TimezoneOffset* offset) const {
    t->tm_isdst = offset->isDst ? 1 : 0;
    t->tm_gmtoff = long(offset->utoff);
    t->tm_zone = abbreviation(*offset);
}

// ---------------------------------------------------------------- process-wide

namespace {

struct ZoneCache {
    Mutex mutex{PthreadMutexImpl::StaticInit{}};
    std::map<Str, const Timezone*> zones;
    std::set<Str> failed;
    HashedStrMap<const Timezone*> revived;
    // Zones and texts handed out and no longer in the map: never freed,
    // since callers may hold them, and kept reachable here.
    std::vector<const void*> retired;
};

ZoneCache& zoneCache() {
    static ZoneCache* c = new ZoneCache;  // threads may still look zones up during exit
    return *c;
}

std::atomic<const Timezone*> g_defaultZone{nullptr};
std::atomic<const Str*> g_defaultSerialized{nullptr};
thread_local bool t_findingDefault = false;

}  // namespace

void setupTimezoneSupport() { setupTimezoneSupport(Pathname()); }

void setupTimezoneSupport(const Pathname& dir) {
    {
        ScopedLock<Mutex> l(pathsMutex());
        zonePaths().dir = dir;
    }
    tzset();
    g_defaultZone.store(nullptr, std::memory_order_seq_cst);
    ZoneCache& c = zoneCache();
    ScopedLock<Mutex> l(c.mutex);
    if (const Str* old = g_defaultSerialized.exchange(nullptr, std::memory_order_seq_cst)) {
        c.retired.push_back(old);
    }
    // Names looked up before (the default among them, or one that failed)
    // may find another zone in the new directory.
    for (const auto& z : c.zones) c.retired.push_back(z.second);
    c.zones.clear();
    c.failed.clear();
}

void setTimezoneSystemPaths(const Pathname& zoneinfoRoot, const Pathname& localtimeDir) {
    {
        ScopedLock<Mutex> l(pathsMutex());
        zonePaths().root = zoneinfoRoot.empty() ? Pathname("/usr/share/zoneinfo") : zoneinfoRoot;
        zonePaths().etc = localtimeDir.empty() ? Pathname("/etc") : localtimeDir;
    }
    ZoneCache& c = zoneCache();
    ScopedLock<Mutex> l(c.mutex);
    for (const auto& z : c.zones) c.retired.push_back(z.second);
    c.zones.clear();
    c.failed.clear();
}

const Timezone* getTimezone(const char* name, bool tryAliases) {
    ASSERT(name != nullptr);
    ZoneCache& c = zoneCache();
    {
        ScopedLock<Mutex> l(c.mutex);
        auto it = c.zones.find(Str(name));
        if (it != c.zones.end()) return it->second;
        if (c.failed.count(Str(name)) != 0) return nullptr;
    }
    if (tryAliases) {
        if (const char* alias = timezoneAlias(name)) {
            if (const Timezone* tz = getTimezone(alias, false)) {
                ScopedLock<Mutex> l(c.mutex);
                return c.zones.emplace(Str(name), tz).first->second;
            }
        }
    }
    // Loaded outside the lock: a slow disk must not stall every lookup.
    std::unique_ptr<Timezone> tz(new Timezone);
    const bool ok = tz->fromPathOrPosix(name);
    ScopedLock<Mutex> l(c.mutex);
    if (!ok) {
        if (c.failed.size() > 2048) c.failed.clear();
        c.failed.insert(Str(name));
        return nullptr;
    }
    auto r = c.zones.emplace(Str(name), tz.get());
    if (r.second) tz.release();
    return r.first->second;
}

const Timezone* getGmtTimezone() {
    static const GmtTimezone* gmt = new GmtTimezone;
    return gmt;
}

const Timezone* getDefaultTimezone() {
    const Timezone* tz = g_defaultZone.load(std::memory_order_acquire);
    if (tz != nullptr) return tz;
    ScopedSingleThreadedRecursionCheck check;
    if (check.recursing() || t_findingDefault) {
        // Logging from inside the lookup lands here; it gets UTC rather
        // than a deadlock.
        static const GmtTimezone* privateGmt = new GmtTimezone;
        return privateGmt;
    }
    static Mutex m(PthreadMutexImpl::StaticInit{});
    ScopedLock<Mutex> l(m);
    tz = g_defaultZone.load(std::memory_order_acquire);
    if (tz != nullptr) return tz;
    struct Finding {  // reset even when a lookup throws
        Finding() { t_findingDefault = true; }
        ~Finding() { t_findingDefault = false; }
    } finding;
    const char* env = getenv("TZ");
    const char* name = env != nullptr && *env != 0 ? env : "localtime";
    tz = getTimezone(name, true);
    if (tz == nullptr) tz = getTimezone("GMT", false);
    if (tz == nullptr) tz = getTimezone("", false);
    g_defaultZone.store(tz, std::memory_order_seq_cst);
    return tz;
}

void serializeTimezone(const Timezone* tz, StrVector& lines, int years) {
    lines.push_back(kSerializedHeader);
    tz->serialize(lines, years);
}

const Str& getDefaultTimezoneSerialized() {
    const Str* s = g_defaultSerialized.load(std::memory_order_acquire);
    if (s != nullptr) return *s;
    static Mutex m(PthreadMutexImpl::StaticInit{});
    ScopedLock<Mutex> l(m);
    s = g_defaultSerialized.load(std::memory_order_acquire);
    if (s != nullptr) return *s;
    StrVector lines;
    serializeTimezone(getDefaultTimezone(), lines, 30);
    Str* text = new Str;  // handed out by reference for good
    for (size_t i = 0; i < lines.size(); i++) {
        if (i != 0) text->push_back('\n');
        text->append(lines[i]);
    }
    g_defaultSerialized.store(text, std::memory_order_seq_cst);
    return *text;
}

const Timezone* resurrectTimezone(LineReader& reader) {
    Str line;
    if (!reader.readline(line) || line != kSerializedHeader) return nullptr;
    StrVector lines;
    EvpMdContext sha(SHA1Hash::md());
    while (reader.readline(line)) {
        sha.update(line.data(), line.size());
        lines.push_back(line);
    }
    SHA1HashResult digest;
    sha.evpFinalize(digest.bytes);
    const Str key = digest.hex();
    ZoneCache& c = zoneCache();
    {
        ScopedLock<Mutex> l(c.mutex);
        if (const Timezone* const* hit = c.revived.get(key.data(), key.size())) return *hit;
    }
    std::unique_ptr<Timezone> tz(new Timezone);
    if (!tz->setFromSerializedData(lines)) return nullptr;
    ScopedLock<Mutex> l(c.mutex);
    auto r =
        c.revived.emplace(key.data(), key.size(), djb2_hash_n(key.data(), key.size()), tz.get());
    if (r.second) tz.release();
    return r.first->second.value;
}

const Timezone* setLocalSrcTest(const Pathname& dir) {
    Timezone* tz = new Timezone;  // published zones are never freed
    if (!tz->fromExactZoneinfoPath(Pathname(dir + "/localtime"), true)) tz->setToGmt();
    tz->setSrcName(dir, Str("localtime"));
    ZoneCache& c = zoneCache();
    ScopedLock<Mutex> l(c.mutex);
    c.retired.push_back(tz);
    return tz;
}

// ---------------------------------------------------------------- UserTimezoneSpecifier

void UserTimezoneSpecifier::set(const Str& text) {
    _spec = text;
    _tz = getTimezone(text.c_str(), true);
}

bool UserTimezoneSpecifier::resurrect(LineReader& reader) {
    _spec.clear();
    _tz = resurrectTimezone(reader);
    return _tz != nullptr;
}

bool UserTimezoneSpecifier::guessTzVariableImpl(Pathname* out, bool allowPosix) const {
    if (_tz == nullptr) return false;
    const time_t now = time(nullptr);
    if (_tz->isSimilarTo(*getDefaultTimezone(), now)) return false;
    if (!_spec.empty()) {
        if (const char* alias = timezoneAlias(_spec.c_str())) {
            *out = Pathname(alias);
            return true;
        }
    }
    if (!_tz->srcName().empty()) {
        *out = Pathname(_tz->srcName());
        return true;
    }
    if (!allowPosix) return false;
    *out = Pathname(_tz->estimatedTzVariable(now, true));
    return true;
}

void append_stringified(Str* dest, const UserTimezoneSpecifier& v) {
    if (!v._spec.empty()) {
        dest->append(v._spec);
        return;
    }
    Pathname guess;
    if (v.guessTzVariableImpl(&guess, true)) {
        dest->append(guess);
    } else {
        dest->append("default");
    }
}
