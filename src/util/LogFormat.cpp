// Layouts: a pattern turned into atoms, and one line rendered from them.

#include <time.h>

#include <algorithm>
#include <atomic>
#include <cstring>

#include "libzero/assertion.h"
#include "libzero/int-to-ascii.h"
#include "util/Logger.h"
#include "util/Thread.h"

// ---------------------------------------------------------------- time

namespace {

constexpr const char* ISO8601_FORMAT = "%Y-%m-%d %H:%M:%S,%l";
constexpr const char* MONTHS[] = {"Jan", "Feb", "Mar", "Apr", "May", "Jun",
                                  "Jul", "Aug", "Sep", "Oct", "Nov", "Dec"};
constexpr const char* MONTHS_LONG[] = {"January",   "February", "March",    "April",
                                       "May",       "June",     "July",     "August",
                                       "September", "October",  "November", "December"};
constexpr const char* DAYS[] = {"Sun", "Mon", "Tue", "Wed", "Thu", "Fri", "Sat"};
constexpr const char* DAYS_LONG[] = {"Sunday",   "Monday", "Tuesday", "Wednesday",
                                     "Thursday", "Friday", "Saturday"};
// The conversions renderTo knows.
constexpr const char* KNOWN_CONVERSIONS = "YymdeHIMSlbBaAjpZzsFTnt%";

std::atomic<uint64_t> next_time_format_id{1};

// The broken-down time of the last second this thread converted.
struct CachedTm {
    int64_t sec = INT64_MIN;
    struct tm tm = {};
};
thread_local CachedTm cached_tm;

const struct tm& broken_down(int64_t sec) {
    CachedTm& c = cached_tm;
    if (c.sec != sec) {
        const time_t t = static_cast<time_t>(sec);
        localtime_r(&t, &c.tm);
        c.sec = sec;
    }
    return c.tm;
}

// Padded on the left to `width`; only %s can be negative, and it has no width.
void append_padded(Str* sink, long value, int width, char pad = '0') {
    char buf[24];
    const size_t n = convertI64ToAscii(value, buf);
    if (static_cast<size_t>(width) > n) sink->append(width - n, pad);
    sink->append(buf, n);
}

}  // namespace

bool LogFormattedTime::acceptsFormat(StrSegment format) {
    for (size_t i = 0; i < format.size(); ++i) {
        if (format[i] != '%') continue;
        if (++i == format.size() || strchr(KNOWN_CONVERSIONS, format[i]) == nullptr) return false;
    }
    return true;
}

LogFormattedTime::LogFormattedTime(StrSegment braceText)
    : _brace(braceText), _id(next_time_format_id.fetch_add(1)) {
    if (braceText.empty() || braceText.equals("ISO8601")) {
        _format = ISO8601_FORMAT;
    } else if (braceText.equals("ABSOLUTE")) {
        _format = "%H:%M:%S,%l";
    } else if (braceText.equals("DATE")) {
        _format = "%d %b %Y %H:%M:%S,%l";
    } else if (acceptsFormat(braceText)) {
        _format = Str(braceText);
    } else {
        _format = ISO8601_FORMAT;
    }
}

namespace {
constexpr int MAX_MILLIS_FIELDS = 4;

// `millisAt`, when given, receives where each %l's three digits went.
void render_time(Str* sink, const char* f, const struct tm& tm, const Timeval& time,
                 size_t* millisAt = nullptr, int* millisCount = nullptr) {
    for (; *f != '\0'; ++f) {
        if (*f != '%') {
            sink->push_back(*f);
            continue;
        }
        switch (*++f) {
            case 'Y':
                append_padded(sink, tm.tm_year + 1900L, 4);
                break;
            case 'y':
                append_padded(sink, (tm.tm_year + 1900L) % 100, 2);
                break;
            case 'm':
                append_padded(sink, tm.tm_mon + 1, 2);
                break;
            case 'd':
                append_padded(sink, tm.tm_mday, 2);
                break;
            case 'e':
                append_padded(sink, tm.tm_mday, 2, ' ');
                break;
            case 'H':
                append_padded(sink, tm.tm_hour, 2);
                break;
            case 'I':
                append_padded(sink, (tm.tm_hour + 11) % 12 + 1, 2);
                break;
            case 'M':
                append_padded(sink, tm.tm_min, 2);
                break;
            case 'S':
                append_padded(sink, tm.tm_sec, 2);
                break;
            case 'l':
                if (millisAt != nullptr && *millisCount < MAX_MILLIS_FIELDS) {
                    millisAt[(*millisCount)++] = sink->size();
                }
                append_padded(sink, time.usec() / 1000, 3);
                break;
            case 'b':
                sink->append(MONTHS[tm.tm_mon]);
                break;
            case 'B':
                sink->append(MONTHS_LONG[tm.tm_mon]);
                break;
            case 'a':
                sink->append(DAYS[tm.tm_wday]);
                break;
            case 'A':
                sink->append(DAYS_LONG[tm.tm_wday]);
                break;
            case 'j':
                append_padded(sink, tm.tm_yday + 1, 3);
                break;
            case 'p':
                sink->append(tm.tm_hour < 12 ? "AM" : "PM");
                break;
            case 'Z':
                sink->append(tm.tm_zone != nullptr ? tm.tm_zone : "");
                break;
            case 'z': {
                const long off = tm.tm_gmtoff;
                sink->push_back(off < 0 ? '-' : '+');
                const long a = off < 0 ? -off : off;
                append_padded(sink, a / 3600, 2);
                append_padded(sink, a / 60 % 60, 2);
                break;
            }
            case 's':
                append_padded(sink, time.sec(), 1);
                break;
            case 'F':
                render_time(sink, "%Y-%m-%d", tm, time, millisAt, millisCount);
                break;
            case 'T':
                render_time(sink, "%H:%M:%S", tm, time, millisAt, millisCount);
                break;
            case 'n':
                sink->push_back('\n');
                break;
            case 't':
                sink->push_back('\t');
                break;
            case '%':
                sink->push_back('%');
                break;
            default:
                return;  // refused at construction; the end of the text
        }
    }
}

// The text of the last second this thread rendered, with where its
// milliseconds stand: within one second a line only patches three digits.
struct RenderedSecond {
    uint64_t formatId = 0;
    int64_t sec = INT64_MIN;
    size_t millisAt[MAX_MILLIS_FIELDS];
    int millisCount = 0;
    Str text;
};
thread_local RenderedSecond rendered_second;

}  // namespace

void LogFormattedTime::renderTo(Str* sink, const Timeval& time) const {
    RenderedSecond& r = rendered_second;
    if (r.formatId != _id || r.sec != time.sec()) {
        r.text.clear();
        r.millisCount = 0;
        render_time(&r.text, _format.c_str(), broken_down(time.sec()), time, r.millisAt,
                    &r.millisCount);
        r.formatId = _id;
        r.sec = time.sec();
    }
    const size_t base = sink->size();
    sink->append(r.text.data(), r.text.size());
    const unsigned ms = static_cast<unsigned>(time.usec() / 1000);
    const char digits[3] = {char('0' + ms / 100), char('0' + ms / 10 % 10), char('0' + ms % 10)};
    for (int i = 0; i < r.millisCount; ++i) memcpy(sink->data() + base + r.millisAt[i], digits, 3);
}

// ---------------------------------------------------------------- patterns

namespace {
// Padding past this is refused rather than allocated for every line; a
// maximum width is only a cut and stays as large as written.
constexpr int32_t MAX_WIDTH = 65535;
}  // namespace

LogFormat::LogFormat(const char* pattern) : _pattern(pattern) {
    const char* p = _pattern.c_str();
    const char* const end = p + _pattern.size();
    while (p < end) {
        if (*p != '%') {
            const char* q = static_cast<const char*>(memchr(p, '%', end - p));
            if (q == nullptr) q = end;
            Atom a{ATOM_LITERAL};
            a.text = p;
            a.length = q - p;
            _atoms.push_back(a);
            p = q;
            continue;
        }
        if (p + 1 < end && p[1] == '%') {
            Atom a{ATOM_LITERAL};
            a.text = "%";
            a.length = 1;
            _atoms.push_back(a);
            p += 2;
            continue;
        }
        ++p;
        Atom a{ATOM_LITERAL};
        if (p < end && *p == '-') {
            a.pad = 0;
            ++p;
        } else if (p < end && *p == '0') {
            a.pad = '0';
            ++p;
        }
        // A minimum width saturates: a line is never padded past MAX_WIDTH.
        for (; p < end && *p >= '0' && *p <= '9'; ++p) {
            a.minWidth = std::min<int32_t>(a.minWidth * 10 + (*p - '0'), MAX_WIDTH);
        }
        if (p < end && *p == '.') {
            ++p;
            if (p < end && *p >= '0' && *p <= '9') {
                a.maxWidth = 0;
                for (; p < end && *p >= '0' && *p <= '9'; ++p) {
                    a.maxWidth = a.maxWidth > (NO_MAX_WIDTH - 10) / 10
                                     ? NO_MAX_WIDTH - 1
                                     : a.maxWidth * 10 + (*p - '0');
                }
            }
        }
        if (p >= end) break;
        const char conversion = *p++;
        StrSegment brace;
        if (p < end && *p == '{') {
            const char* close = static_cast<const char*>(memchr(p, '}', end - p));
            if (close == nullptr) break;  // unterminated: the rest of the pattern is lost
            brace = StrSegment(p + 1, close - p - 1);
            p = close + 1;
        }
        switch (conversion) {
            case 'm':
                a.kind = ATOM_MESSAGE;
                break;
            case 'n':
                a.kind = ATOM_LITERAL;
                a.text = "\n";
                a.length = 1;
                break;
            case 'c':
                a.kind = ATOM_COMPONENT;
                break;
            case 'p':
                a.kind = ATOM_PRIORITY;
                break;
            case 't':
                a.kind = ATOM_THREAD_NAME;
                break;
            case 'T':
                a.kind = ATOM_THREAD_ID;
                break;
            case 'r':
                a.kind = ATOM_MS_SINCE_START;
                break;
            case 'R':
                a.kind = ATOM_SEC_SINCE_START;
                break;
            case 'u':
                a.kind = ATOM_CLOCK;
                break;
            case 'd':
                a.kind = ATOM_DATE;
                a.time = new LogFormattedTime(brace);
                break;
            default:
                continue;  // unknown: dropped
        }
        _atoms.push_back(a);
    }
}

LogFormat::~LogFormat() {
    for (Atom& a : _atoms) delete a.time;
}

LogFormat* LogFormat::defaultLayout() {
    static LogFormat* f = new LogFormat("%m%n");
    return f;
}

LogFormat* LogFormat::basicLayout() {
    static LogFormat* f = new LogFormat("%R %p %c %m%n");
    return f;
}

LogFormat* LogFormat::simpleLayout() {
    static LogFormat* f = new LogFormat("%-8p: %m%n");
    return f;
}

bool LogFormat::isShared(const LogFormat* f) {
    return f == defaultLayout() || f == basicLayout() || f == simpleLayout();
}

// ---------------------------------------------------------------- rendering

void LogFormat::Atom::renderTo(Str* sink, const char* data, size_t len) const {
    if (maxWidth != NO_MAX_WIDTH && len > maxWidth) {
        sink->append(data, maxWidth);
        return;
    }
    const size_t fill = static_cast<size_t>(minWidth) > len ? minWidth - len : 0;
    if (fill != 0 && pad != 0) sink->append(fill, pad);
    sink->append(data, len);
    if (fill != 0 && pad == 0) sink->append(fill, ' ');
}

void LogFormat::Atom::renderNumberTo(Str* sink, unsigned long long value) const {
    char buf[24];
    renderTo(sink, buf, convertU64ToAscii(value, buf));
}

void LogFormat::Atom::renderMessageTo(Str* sink, StrSegment message, const Logger* logger,
                                      unsigned long maxMessageSize) const {
    if (maxWidth != NO_MAX_WIDTH && message.size() > maxWidth) {
        if (maxWidth < 45) {
            sink->append(message.data(), maxWidth);
        } else {
            renderTrimmedTo(sink, message.data(), message.size(), maxWidth);
        }
        return;
    }
    if (message.size() <= maxMessageSize) {
        renderTo(sink, message.data(), message.size());
        return;
    }
    const bool limit = logger == nullptr || !logger->_logger_is_constructed_slowpath() ||
                       logger->shouldLimitMsgLength();
    const size_t trimTo = maxMessageSize < 800 ? 100 : maxMessageSize / 8;
    if (limit && message.size() > trimTo) {
        renderTrimmedTo(sink, message.data(), message.size(), trimTo);
    } else {
        sink->append(message.data(), message.size());
    }
}

namespace {
// " ...{skipping <n> bytes}... " into `buf`; its length.
size_t skip_marker(char* buf, size_t skipped) {
    size_t n = 0;
    memcpy(buf + n, " ...{skipping ", 14), n += 14;
    n += convertU64ToAscii(skipped, buf + n);
    memcpy(buf + n, " bytes}... ", 11), n += 11;
    return n;
}
}  // namespace

void LogFormat::renderTrimmedTo(Str* sink, const char* text, size_t size, size_t trimTo) {
    ASSERT(size > trimTo && trimTo >= 45);
    // The count depends on the marker's length and the length on the count.
    char marker[64];
    size_t buflen = skip_marker(marker, size - trimTo);
    for (;;) {
        const size_t again = skip_marker(marker, size - trimTo + buflen);
        if (again == buflen) break;
        buflen = again;
    }
    const size_t room = trimTo - buflen;
    size_t emit_left;
    size_t emit_right;
    if (room < 64) {
        emit_left = room + 4;
        buflen -= 4;
        emit_right = 0;
    } else {
        emit_right = room / 4;
        emit_left = room - emit_right;
    }
    ASSERT(emit_left + buflen + emit_right == trimTo);
    // A cut must not leave half of an escape behind.
    size_t head = emit_left;
    while (head > 0 && text[head - 1] == '\\') --head;
    sink->append(text, head);
    sink->append(marker, buflen);
    sink->append(text + size - emit_right, emit_right);
}

void LogFormat::apply(Str* sink, const LogMsgMetadata& md, eSerialization serialization,
                      unsigned long maxMessageSize, StrSegment message) const {
    const bool json = serialization == SERIALIZATION_JSON;
    const size_t lineStart = sink->size();
    if (json) sink->push_back('{');
    for (const Atom& a : _atoms) {
        switch (a.kind) {
            case ATOM_MESSAGE:
                if (json) sink->append("\"data\":");
                a.renderMessageTo(sink, message, md.logger, maxMessageSize);
                if (json) sink->push_back('}');
                break;
            case ATOM_LITERAL:
                if (json && (a.length == 0 || a.text[0] != '\n')) break;
                sink->append(a.text, a.length);
                break;
            case ATOM_COMPONENT: {
                if (json) sink->append("\"component\":\"");
                const Logger* l = md.logger;
                if (l != nullptr && l->_logger_is_constructed_slowpath()) {
                    a.renderTo(sink, l->name(), l->nameLength());
                } else {
                    a.renderTo(sink, "", 0);
                }
                if (json) sink->append("\",");
                break;
            }
            case ATOM_PRIORITY: {
                if (json) sink->append("\"log_level\":\"");
                const char* t = logLevelText(md.level);
                a.renderTo(sink, t, strlen(t));
                if (json) sink->append("\",");
                break;
            }
            case ATOM_THREAD_NAME: {
                const char* name = Thread::currentName();
                size_t n = strlen(name);
                if (a.maxWidth == NO_MAX_WIDTH && n > 100) n = 100;
                a.renderTo(sink, name, n);
                break;
            }
            case ATOM_THREAD_ID:
                a.renderNumberTo(sink, static_cast<unsigned long long>(Thread::currentId()));
                break;
            case ATOM_MS_SINCE_START:
            case ATOM_SEC_SINCE_START: {
                const int64_t us = (md.time.sec() - log_start_time.sec()) * 1000000 +
                                   (md.time.usec() - log_start_time.usec());
                const int64_t v = a.kind == ATOM_MS_SINCE_START ? us / 1000 : us / 1000000;
                a.renderNumberTo(sink, static_cast<unsigned long long>(v < 0 ? 0 : v));
                break;
            }
            case ATOM_CLOCK:
                a.renderNumberTo(sink, static_cast<unsigned long long>(clock()));
                break;
            case ATOM_DATE: {
                if (json) sink->append("\"datetime\":\"");
                // Rendered in place, then cut or padded as renderTo would.
                const size_t at = sink->size();
                a.time->renderTo(sink, md.time);
                const size_t n = sink->size() - at;
                if (a.maxWidth != NO_MAX_WIDTH && n > a.maxWidth) {
                    sink->resize(at + a.maxWidth);
                } else if (static_cast<size_t>(a.minWidth) > n) {
                    const size_t fill = a.minWidth - n;
                    if (a.pad == 0) {
                        sink->append(fill, ' ');
                    } else {
                        sink->insert(at, fill, a.pad);
                    }
                }
                if (json) sink->append("\",");
                break;
            }
            default:
                sink->resize(lineStart);
                sink->append("_atoms array invalid!");
                return;
        }
    }
}
