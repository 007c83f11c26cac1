#pragma once
// Logging through named channels.
//
// Code owns a Logger, usually a static object named after its component. A
// logger points at a LogChannel, the shared per-name record of level and
// appenders; a channel writes through LogAppenders, each of which renders a
// line with its LogFormat and writes it to a file or a descriptor.
//
// Loggers work before main() and before any configuration: until
// Logger::initialize() runs, every message goes to standard error as
// "<LEVEL> - <text>". A log call never fails for its caller and never
// changes errno; a disabled level costs one load and one comparison.

#include <sys/types.h>

#include <atomic>
#include <cstdarg>
#include <cstdint>
#include <exception>
#include <functional>
#include <map>
#include <vector>

#include "util/BasicConversions.h"
#include "util/Pathname.h"
#include "util/Str.h"
#include "util/ThreadLocks.h"
#include "util/Timeval.h"

class Logger;
class LogAppender;
class LogChannel;
class LogDedupper;
class LogFormat;

// The levels, in the order of their numbers.
enum InternalLogLevel : int32_t {
    LOG_LEVEL_DEBUG = 0,
    LOG_LEVEL_INFO = 1,
    LOG_LEVEL_NOTICE = 2,
    LOG_LEVEL_WARN = 3,
    LOG_LEVEL_ERROR = 4,
    LOG_LEVEL_CRIT = 5,
    LOG_LEVEL_ALERT = 6,
    LOG_LEVEL_FATAL = 7,
    LOG_LEVEL_EMERG = 8,
};
// "DEBUG" ... "EMERG"; "???" for any other number.
const char* logLevelText(int level);
// The level of an exact text, or -1.
int logLevelFromText(StrSegment text);

// Runs around the formatting of a message, so that an owner can add a prefix
// or a suffix. The defaults do nothing.
class LogFormatCallback {
public:
    virtual ~LogFormatCallback();
    virtual void beforeFormat(Str& message);
    virtual void afterFormat(Str& message);
};

// What a line is about besides its text.
struct LogMsgMetadata {
    CurrentTimeval time;
    const Logger* logger;
    int level;
};

// Sees each formatted line of a channel, under the appender's lock: it must
// not log to the same channel.
class LogObserver {
public:
    virtual ~LogObserver();
    virtual void observe(const Str& line) = 0;
};

// The buffer in which a stream-style message grows. Each Thread holds one in
// its scratch, so steady-state logging allocates nothing; a thread without
// one (or whose one is busy) gets one from the heap, marked by DYNAMIC_FLAG.
struct LoggerStreamAccumulator {
    static constexpr uintptr_t DYNAMIC_FLAG = 1;
    // The logger word of a message whose logger is not constructed yet.
    static constexpr uintptr_t NOT_CONSTRUCTED = 2;

    Str message;
    // 0 while free; else the logger, with DYNAMIC_FLAG for a heap one.
    uintptr_t loggerWord = 0;

    const Logger* logger() const {
        return reinterpret_cast<const Logger*>(loggerWord & ~DYNAMIC_FLAG);
    }
    bool isDynamic() const { return (loggerWord & DYNAMIC_FLAG) != 0; }

    // The calling thread's accumulator if free, else a new one; null when
    // that allocation fails. `loggerWord` is a Logger* or NOT_CONSTRUCTED.
    static LoggerStreamAccumulator* get(uintptr_t loggerWord) noexcept;
    // Frees a heap accumulator, or hands the thread's back.
    static void release(LoggerStreamAccumulator* acc) noexcept;

    // The calling thread's buffer for one formatted message, when it has a
    // Thread and the buffer is free; else `str()` is a buffer of its own.
    // Recursive log calls thus each get their own.
    class scoped_claim {
    public:
        explicit scoped_claim(const Logger* logger) noexcept;
        ~scoped_claim();
        scoped_claim(const scoped_claim&) = delete;
        scoped_claim& operator=(const scoped_claim&) = delete;
        Str& str() { return _acc != nullptr ? _acc->message : _local; }

    private:
        LoggerStreamAccumulator* _acc = nullptr;
        Str _local;
    };
};

// `log._stream_warn() << "text " << value;` logs one line at the end of the
// expression. A stream for a disabled level holds null and renders nothing.
template <int LEVEL>
class LoggerStream {
public:
    explicit LoggerStream(LoggerStreamAccumulator* acc) noexcept
        : _acc(acc), _exceptions(std::uncaught_exceptions()) {}
    LoggerStream(LoggerStream&& o) noexcept : _acc(o._acc), _exceptions(o._exceptions) {
        o._acc = nullptr;
    }
    LoggerStream(const LoggerStream&) = delete;
    LoggerStream& operator=(const LoggerStream&) = delete;
    ~LoggerStream() {
        if (_acc == nullptr) return;
        if (std::uncaught_exceptions() > _exceptions) {
            _had_exception(_acc);
        } else {
            _finish(_acc);
        }
    }

    template <class T>
    LoggerStream& operator<<(const T& value) {
        if (_acc != nullptr) append_stringified(&_acc->message, value);
        return *this;
    }

    static void _finish(LoggerStreamAccumulator* acc) noexcept;
    static void _had_exception(LoggerStreamAccumulator* acc) noexcept;

private:
    LoggerStreamAccumulator* _acc;
    int _exceptions;
};
using DebugLoggerStream = LoggerStream<LOG_LEVEL_DEBUG>;
using InfoLoggerStream = LoggerStream<LOG_LEVEL_INFO>;
using WarnLoggerStream = LoggerStream<LOG_LEVEL_WARN>;
using ErrorLoggerStream = LoggerStream<LOG_LEVEL_ERROR>;
using FatalLoggerStream = LoggerStream<LOG_LEVEL_FATAL>;

// ---------------------------------------------------------------- channels

// The shared record of one channel name: level, appenders, observers. The
// level is a plain word read without a lock; a change may take a moment to
// be seen by other threads.
class LogChannel {
public:
    LogChannel() = default;
    LogChannel(const LogChannel&) = delete;
    LogChannel& operator=(const LogChannel&) = delete;

    int level() const { return _level.load(std::memory_order_relaxed); }
    bool isExplicit() const { return _explicit; }
    bool isBuffered() const { return _buffered; }

    // Exact match of one of the nine level texts; false leaves the level.
    bool changeLevel(StrSegment text);
    // A level, "buffered" in any case, or an appender's name; the first
    // appender word empties the list (`appenderSeen` keeps track).
    bool applyConfWord(StrSegment word, bool* appenderSeen);
    // Words split at blanks, tabs and commas; all are tried, false if any failed.
    bool setConfig(const char* text);
    bool setConfig(StrSegment text);

    // The channel of `name`, made as a copy of the root's level, buffered
    // flag and appenders when new.
    static LogChannel* findOrCreate(StrSegment name);
    static LogChannel* root();

    void addObserver(LogObserver* observer);
    void removeObserver(LogObserver* observer);

    // To each appender but `skip`; no appender means the root appender.
    // True when an appender took the line.
    // With observers the caller holds the channel's lock: the appender's
    // complaints then wait for the caller's reportNotes().
    bool write(const LogMsgMetadata& md, StrSegment message, const LogAppender* skip);
    // The same with the logger's escaping: an escaped copy is made only
    // when the message needs one, and once for all appenders.
    void writeEscaped(const LogMsgMetadata& md, StrSegment message);

    // Render `format` into the calling thread's buffer (or a local one) and
    // write it; on failure the message goes to standard error.
    static void finish_vlog(const Logger* logger, LogChannel* channel, int level,
                            LogFormatCallback* callback, int errnum, const char* format,
                            va_list args) noexcept;
    static void finish_vlog_s(const Logger* logger, LogChannel* channel, int level,
                              StrSegment message) noexcept;

    std::atomic<int32_t> _level{LOG_LEVEL_INFO};
    std::atomic<bool> _explicit{false};
    bool _buffered = false;
    // Set while configuring, before other threads run; read without a lock.
    std::vector<LogAppender*> _appenders;
    // Set by redirectToStderr(): the list stands, the root appender writes.
    std::atomic<bool> _toRoot{false};
    // Under _mutex.
    std::vector<LogObserver*> _observers;
    std::atomic<unsigned> _observerCount{0};
    PthreadMutexImpl _mutex{PthreadMutexImpl::StaticInit{}};
};

// ---------------------------------------------------------------- Logger

class iterate_channels_callback {
public:
    virtual ~iterate_channels_callback() = default;
    virtual void channel(const Str& name, const char* levelText, bool buffered) = 0;
};

class Logger {
public:
    // Substring to replacement, applied in map order to appender file names.
    using path_replacements = std::map<Str, Str>;

    // What initialize() takes.
    struct configuration {
        // All of an appender's attributes may be set.
        static constexpr unsigned ALL_ATTRIBUTES = 511;

        Str path;
        // Only lines before the first section header, and those of the
        // section of this name (in any case), count; empty means none does.
        Str section;
        // Bit n allows the n-th appender attribute (see LogAppender).
        unsigned attributeMask = ALL_ATTRIBUTES;
        path_replacements replacements;
        // False silences standard error, the fallback included.
        bool stderrAllowed = true;

        // A run-time change of one attribute, under the appender's lock.
        // False for an unknown appender or a refused attribute.
        bool setAppenderAttribute(StrSegment appender, const Str& name, const Str& value) const;
    };

    // `name` is stored as given and must outlive the logger. With `dedup`,
    // repeats of the same line within `dedupSeconds` are held back and
    // counted, at most `dedupMaxHeld` of them.
    explicit Logger(const char* name, bool dedup = false, unsigned dedupSeconds = 60,
                    unsigned dedupMaxHeld = 100);
    virtual ~Logger();
    Logger(const Logger&) = delete;
    Logger& operator=(const Logger&) = delete;

    // Whether messages of this logger are escaped, and whether long ones are trimmed.
    virtual bool shouldEscape() const;
    virtual bool shouldLimitMsgLength() const;

    const char* name() const { return _name; }
    size_t nameLength() const { return _name_len; }
    LogChannel* channel() const { return _channel.load(std::memory_order_relaxed); }

    // The one load and one comparison that a disabled level costs. Before
    // initialisation every level is on: it goes to standard error.
    bool isLevelEnabled(int level) const {
        const LogChannel* c = _channel.load(std::memory_order_relaxed);
        return c == nullptr || level >= c->level();
    }
    bool _isDebugEnabled() const { return isLevelEnabled(LOG_LEVEL_DEBUG); }
    // 1 debug, 2 info, 3 warn, 4 error, 5 fatal; 0 with no channel.
    int getLogLevel() const;

#if defined(__GNUC__) && !defined(__clang__)
// Inlined, so that a disabled level is tested before any argument is passed.
#define TX_LOG_CALL(fn, level)                                                                    \
    __attribute__((always_inline, format(printf, 2, 3))) void fn(const char* format, ...) const { \
        if (isLevelEnabled(level)) _log(level, format, __builtin_va_arg_pack());                  \
    }
#else
#define TX_LOG_CALL(fn, level) \
    void fn(const char* format, ...) const __attribute__((format(printf, 2, 3)));
#endif
    TX_LOG_CALL(debug, LOG_LEVEL_DEBUG)
    TX_LOG_CALL(info, LOG_LEVEL_INFO)
    TX_LOG_CALL(warn, LOG_LEVEL_WARN)
    TX_LOG_CALL(error, LOG_LEVEL_ERROR)
    TX_LOG_CALL(fatal, LOG_LEVEL_FATAL)
#undef TX_LOG_CALL

    void vdebug(const char* format, va_list args) const {
        vlog(LOG_LEVEL_DEBUG, nullptr, format, args);
    }
    void vinfo(const char* format, va_list args) const {
        vlog(LOG_LEVEL_INFO, nullptr, format, args);
    }
    void vwarn(const char* format, va_list args) const {
        vlog(LOG_LEVEL_WARN, nullptr, format, args);
    }
    void verror(const char* format, va_list args) const {
        vlog(LOG_LEVEL_ERROR, nullptr, format, args);
    }
    void vfatal(const char* format, va_list args) const {
        vlog(LOG_LEVEL_FATAL, nullptr, format, args);
    }
    void vdebug(LogFormatCallback* cb, const char* format, va_list args) const {
        vlog(LOG_LEVEL_DEBUG, cb, format, args);
    }
    void vinfo(LogFormatCallback* cb, const char* format, va_list args) const {
        vlog(LOG_LEVEL_INFO, cb, format, args);
    }
    void vwarn(LogFormatCallback* cb, const char* format, va_list args) const {
        vlog(LOG_LEVEL_WARN, cb, format, args);
    }
    void verror(LogFormatCallback* cb, const char* format, va_list args) const {
        vlog(LOG_LEVEL_ERROR, cb, format, args);
    }
    void vfatal(LogFormatCallback* cb, const char* format, va_list args) const {
        vlog(LOG_LEVEL_FATAL, cb, format, args);
    }
    void vlog(int level, LogFormatCallback* cb, const char* format, va_list args) const;

    // The bytes as they are, with no formatting.
    void debugSeg(const char* data, size_t length) const { logSeg(LOG_LEVEL_DEBUG, data, length); }
    void infoSeg(const char* data, size_t length) const { logSeg(LOG_LEVEL_INFO, data, length); }
    void warnSeg(const char* data, size_t length) const { logSeg(LOG_LEVEL_WARN, data, length); }
    void errorSeg(const char* data, size_t length) const { logSeg(LOG_LEVEL_ERROR, data, length); }
    void fatalSeg(const char* data, size_t length) const { logSeg(LOG_LEVEL_FATAL, data, length); }
    void logSeg(int level, const char* data, size_t length) const;

    // The text of what().
    void debug(const std::exception& e) const { logException(LOG_LEVEL_DEBUG, e); }
    void info(const std::exception& e) const { logException(LOG_LEVEL_INFO, e); }
    void warn(const std::exception& e) const { logException(LOG_LEVEL_WARN, e); }
    void error(const std::exception& e) const { logException(LOG_LEVEL_ERROR, e); }
    void fatal(const std::exception& e) const { logException(LOG_LEVEL_FATAL, e); }
    void logException(int level, const std::exception& e) const;

    // Each non-empty line (ended by CR or LF) as a debug message; nothing at
    // all when debug is off.
    void debugSplitLines(const char* data, size_t length) const;

    DebugLoggerStream _stream_debug() const {
        return DebugLoggerStream(_stream_get(LOG_LEVEL_DEBUG));
    }
    InfoLoggerStream _stream_info() const { return InfoLoggerStream(_stream_get(LOG_LEVEL_INFO)); }
    WarnLoggerStream _stream_warn() const { return WarnLoggerStream(_stream_get(LOG_LEVEL_WARN)); }
    ErrorLoggerStream _stream_error() const {
        return ErrorLoggerStream(_stream_get(LOG_LEVEL_ERROR));
    }
    FatalLoggerStream _stream_fatal() const {
        return FatalLoggerStream(_stream_get(LOG_LEVEL_FATAL));
    }

    // Observers of this logger's channel.
    void registerLogObserver(LogObserver* observer) const;
    void unregisterLogObserver(LogObserver* observer) const;
    // Writes out repeats held back by the dedupper.
    void flushDedup() const;

    // ---- control

    // Gives every waiting logger its channel; safe to call more than once.
    static void initialize();
    // Reads the file and its "-local" override; false when the main file
    // can't be opened (the reason is logged). Again before a second thread
    // exists: the old appenders and channels are torn down first.
    static bool initialize(const configuration& conf);
    static bool isInitialized();
    // With a name: that channel's level, made explicit; the old level's text
    // goes to `oldLevel`. With null: every channel without an explicit level.
    static bool setChannelLevel(const char* name, StrSegment level, StrSegment* oldLevel);
    // The channel (null: all channels) writes to the root appender.
    static void redirectToStderr(const char* name);
    static void suspendChannelsContaining(const Str& text);
    static void unsuspend(const path_replacements& replacements);
    // In a child or before a daemon step, while single-threaded.
    static void releaseLoggerFds();
    static void iterateChannels(iterate_channels_callback& cb);

    // The printf engine with %m as the text of `errnum`; the forms without
    // it take errno as it stands at the call.
    static Str vformat(const char* format, va_list args);
    static Str vformat(int errnum, const char* format, va_list args);
    // Replaces `dest`; the callback, when given, runs before and after.
    static void vformat(Str& dest, int errnum, LogFormatCallback* callback, const char* format,
                        va_list args);
    // Appends; the callback, when given, runs before and after.
    static void appendVformat(Str& dest, int errnum, LogFormatCallback* callback,
                              const char* format, va_list args);

    static void format(Str& dest, const char* fmt, ...) __attribute__((format(printf, 2, 3)));
    static void format(Str& dest, int errnum, const char* fmt, ...)
        __attribute__((format(printf, 3, 4)));
    static void appendFormat(Str& dest, const char* fmt, ...) __attribute__((format(printf, 2, 3)));
    static void appendFormat(Str& dest, int errnum, const char* fmt, ...)
        __attribute__((format(printf, 3, 4)));
    static Str fromFormat(const char* fmt, ...) __attribute__((format(printf, 1, 2)));
    static Str fromFormat(int errnum, const char* fmt, ...) __attribute__((format(printf, 2, 3)));

    // ---- internals shared with the rest of the logging code

    void _log(int level, const char* format, ...) const __attribute__((format(printf, 3, 4)));
    LoggerStreamAccumulator* _stream_get(int level) const;
    // Whether the constructor has run (static objects are zero before it).
    bool _logger_is_constructed_slowpath() const { return _name != nullptr; }
    LogDedupper* _dedupper() const { return _dedup; }
    void removeFromUninitialzedList();

protected:
    // A logger with a channel of its own, never on the waiting list.
    Logger(const char* name, LogChannel* ownChannel);

private:
    friend class LoggerRegistry;
    const char* _name;
    size_t _name_len;
    std::atomic<LogChannel*> _channel{nullptr};
    Logger* _next = nullptr;
    LogDedupper* _dedup = nullptr;
};

// A logger with a private channel at level INFO that writes to the root
// appender; its messages are never escaped nor trimmed.
class LoggerSimple : public Logger {
public:
    explicit LoggerSimple(const char* name);
    bool shouldEscape() const override;
    bool shouldLimitMsgLength() const override;

private:
    LogChannel _own;
};

// Adds an observer to a logger's channel for its lifetime.
class ScopedLogObserverRegistration {
public:
    ScopedLogObserverRegistration(Logger* logger, LogObserver* observer);
    ~ScopedLogObserverRegistration();
    ScopedLogObserverRegistration(ScopedLogObserverRegistration&& o) noexcept;
    ScopedLogObserverRegistration& operator=(ScopedLogObserverRegistration&& o) noexcept;
    ScopedLogObserverRegistration(const ScopedLogObserverRegistration&) = delete;
    ScopedLogObserverRegistration& operator=(const ScopedLogObserverRegistration&) = delete;

private:
    Logger* _logger;
    LogObserver* _observer;
    LogChannel* _channel = nullptr;
};

// Holds back repeats of one logger's last line. Internal to Logger.
class LogDedupper {
public:
    LogDedupper(unsigned seconds, unsigned maxHeld) : _seconds(seconds), _maxHeld(maxHeld) {}
    // False when the line was held back as a repeat.
    bool admit(const Logger* logger, LogChannel* channel, int level, StrSegment line);
    void flush(const Logger* logger, LogChannel* channel);

private:
    void writeRepeatsLocked(const Logger* logger, LogChannel* channel);

    PthreadMutexImpl _mutex;
    unsigned _seconds;
    unsigned _maxHeld;
    Str _last;
    int _lastLevel = -1;
    int64_t _firstSeen = 0;
    unsigned _held = 0;
};

// ---------------------------------------------------------------- layouts

// When logging started (the first initialisation), for %r and %R.
extern Timeval log_start_time;

// The broken-down time of a %d atom: a strftime-like text, with %l for
// milliseconds. "ISO8601" (or nothing), "ABSOLUTE" and "DATE" are names.
class LogFormattedTime {
public:
    explicit LogFormattedTime(StrSegment braceText);
    void renderTo(Str* sink, const Timeval& time) const;
    const Str& braceText() const { return _brace; }
    const Str& format() const { return _format; }
    // Whether every conversion of `format` is one this renderer knows.
    static bool acceptsFormat(StrSegment format);

private:
    Str _brace;
    Str _format;
    // Keys the per-thread cache of rendered seconds; copied with the format
    // it stands for.
    uint64_t _id;
};

class LogFormat {
public:
    enum eSerialization { SERIALIZATION_NORMAL = 1, SERIALIZATION_JSON = 2 };
    enum AtomKind {
        ATOM_MESSAGE = 0,
        ATOM_LITERAL = 1,
        ATOM_COMPONENT = 2,
        ATOM_PRIORITY = 3,
        ATOM_THREAD_NAME = 4,
        ATOM_THREAD_ID = 5,
        ATOM_MS_SINCE_START = 6,
        ATOM_SEC_SINCE_START = 7,
        ATOM_CLOCK = 8,
        ATOM_DATE = 9,
    };
    static constexpr uint32_t NO_MAX_WIDTH = 0xFFFFFFFFu;

    struct Atom {
        int kind;
        const char* text = nullptr;        // literals
        LogFormattedTime* time = nullptr;  // %d
        size_t length = 0;
        int32_t minWidth = 0;
        uint32_t maxWidth = NO_MAX_WIDTH;
        char pad = ' ';  // 0 pads on the right with blanks; else on the left with this

        void renderTo(Str* sink, const char* data, size_t length) const;
        void renderMessageTo(Str* sink, StrSegment message, const Logger* logger,
                             unsigned long maxMessageSize) const;
        void renderNumberTo(Str* sink, unsigned long long value) const;
    };

    explicit LogFormat(const char* pattern);
    ~LogFormat();
    LogFormat(const LogFormat&) = delete;
    LogFormat& operator=(const LogFormat&) = delete;

    // One line for `message` appended to `sink`.
    void apply(Str* sink, const LogMsgMetadata& md, eSerialization serialization,
               unsigned long maxMessageSize, StrSegment message) const;

    const Str& pattern() const { return _pattern; }
    const std::vector<Atom>& atoms() const { return _atoms; }
    // The layouts shared by every appender, never freed: "%m%n",
    // "%R %p %c %m%n", "%-8p: %m%n".
    static LogFormat* defaultLayout();
    static LogFormat* basicLayout();
    static LogFormat* simpleLayout();
    static bool isShared(const LogFormat* f);

    // `text` of `size` bytes in exactly `trimTo` bytes, with a marker
    // saying how many were skipped; trailing backslashes of the head go.
    static void renderTrimmedTo(Str* sink, const char* text, size_t size, size_t trimTo);

    // The logging system's own messages, written to every appender but
    // `appender`, else to standard error.
    static void internal(const LogAppender* appender, int level, const char* format, ...)
        __attribute__((format(printf, 3, 4)));
    static void do_log(LoggerStreamAccumulator* acc, int level) noexcept;
    static void cpp_do_log(const Logger* logger, int level, LogFormatCallback* callback,
                           const char* format, va_list args) noexcept;

private:
    Str _pattern;
    std::vector<Atom> _atoms;
};

// ---------------------------------------------------------------- appenders

// A named output: a file with size-based rollover, or a descriptor. The
// root appender ("rootAppender") writes to standard error.
class LogAppender {
public:
    // The attributes and the bit of configuration::attributeMask of each.
    enum Attribute {
        ATTR_MAX_FILE_SIZE = 0,
        ATTR_MAX_BACKUP_INDEX = 1,
        ATTR_LAYOUT = 2,
        ATTR_CONVERSION_PATTERN = 3,
        ATTR_FILE_NAME = 4,
        ATTR_SERIALIZATION = 5,
        ATTR_MAX_MESSAGE_SIZE = 6,
        ATTR_BUFFER_SIZE = 7,
        ATTR_ESCAPE = 8,
    };
    static constexpr unsigned long DEFAULT_MAX_MESSAGE_SIZE = 16384;
    static constexpr unsigned long DEFAULT_BUFFER_SIZE = 16384;

    explicit LogAppender(StrSegment name);
    ~LogAppender();
    LogAppender(const LogAppender&) = delete;
    LogAppender& operator=(const LogAppender&) = delete;

    // The appender of that name ("rootAppender" is the root); made when
    // `create`, else null when unknown.
    static LogAppender* find(StrSegment name, bool create);
    static LogAppender* rootAppender();

    bool setAttribute(const Str& name, const Str& value, const Logger::configuration& conf);
    // After all attributes are set; warns about settings that can't apply.
    void finalSetup(const char* name, bool stderrAllowed);

    // Renders the line and writes it (or holds it, when `buffered`). False
    // when the line was dropped.
    bool write(const LogMsgMetadata& md, StrSegment message,
               const std::vector<LogObserver*>* observers, bool buffered);
    // Writes out a held buffer.
    void flush();
    // Logs the complaints gathered under the appender's lock.
    void reportNotes();

    bool openFile();
    bool openAndInitFile(const Timeval& time);
    void rotateFile(const Timeval& time);
    void filenameWithSuffix(Pathname& out, unsigned index) const;
    // Back to the default layout; shared layouts are never freed.
    void clearFormat();
    void suspendIfMatches(const Str& text);
    void unsuspend(const Logger::path_replacements& replacements);

    // Every appender written out, closed and set back to its defaults.
    static void releaseAppenderFds();
    // The same, then the named appenders are freed and the root appender
    // writes to standard error again.
    static void reinitAppenders();
    // Every named appender in name order, after the root appender when asked.
    static void forEach(const std::function<void(LogAppender*)>& fn, bool withRoot);

    const Str& name() const { return _name; }
    int fd() const { return _fd; }
    const Pathname& fileName() const { return _filename; }
    const Str& configuredName() const { return _configuredName; }
    int64_t maxFileSize() const { return _maxFileSize; }
    uint64_t fileSize() const { return _fileSize; }
    uint32_t maxBackupIndex() const { return _maxBackupIndex; }
    int serialization() const { return _serialization.load(std::memory_order_relaxed); }
    unsigned long maxMessageSize() const { return _maxMessageSize.load(std::memory_order_relaxed); }
    unsigned long bufferSize() const { return _bufferSize; }
    const LogFormat* layout() const { return _format.load(std::memory_order_acquire); }
    bool escape() const { return _escape.load(std::memory_order_relaxed); }
    bool isSuspended() const { return _suspended; }
    bool dropsAll() const { return _to_devnull.load(std::memory_order_relaxed); }
    size_t bufferedBytes();

private:
    friend class LogChannel;
    void resetToDefaultsLocked();
    void closeLocked();
    bool writeBufferLocked();
    void checkMovedLocked(const Timeval& time);
    // The appender's own complaints wait here while its lock is held, and
    // are logged once it is released.
    void note(int level, const char* format, ...) __attribute__((format(printf, 3, 4)));
    void setFormat(LogFormat* f);
    bool setNumber(const Str& value, const Logger::configuration& conf, uint64_t current,
                   uint64_t* out);

    int _fd = -1;
    Pathname _filename;
    Str _configuredName;
    int64_t _maxFileSize = 0;
    uint64_t _fileSize = 0;
    uint32_t _maxBackupIndex = 0;
    std::atomic<int> _serialization{LogFormat::SERIALIZATION_NORMAL};
    std::atomic<unsigned long> _maxMessageSize{DEFAULT_MAX_MESSAGE_SIZE};
    unsigned long _bufferSize = DEFAULT_BUFFER_SIZE;
    std::atomic<LogFormat*> _format{nullptr};
    PthreadMutexImpl _mutex;
    std::atomic<bool> _to_devnull{false};
    bool _failureReported = false;
    bool _suspended = false;
    std::atomic<bool> _escape{true};
    ino_t _inode = 0;
    int64_t _lastInodeCheck = 0;
    Str _buffer;

    Str _name;
    // Layouts replaced while other threads may be rendering with them; freed
    // when the appenders are torn down, single-threaded.
    std::vector<LogFormat*> _retiredFormats;
    std::vector<std::pair<int, Str>> _notes;
    std::atomic<bool> _hasNotes{false};
};

template <int LEVEL>
void LoggerStream<LEVEL>::_finish(LoggerStreamAccumulator* acc) noexcept {
    LogFormat::do_log(acc, LEVEL);
}

template <int LEVEL>
void LoggerStream<LEVEL>::_had_exception(LoggerStreamAccumulator* acc) noexcept {
    acc->message.clear();
    LoggerStreamAccumulator::release(acc);
}
