#include "util/Logger.h"

#include <sys/uio.h>
#include <unistd.h>

#include <cerrno>
#include <cstdio>
#include <cstring>
#include <new>

#include "libzero/assertion.h"
#include "util/ByteScan.h"
#include "util/CrashLog.h"
#include "util/FileStar.h"
#include "util/PrintfFormat.h"
#include "util/Thread.h"
#include "util/UnicodeStream.h"

// ---------------------------------------------------------------- levels

namespace {
constexpr const char* LEVEL_TEXTS[] = {"DEBUG", "INFO",  "NOTICE", "WARN", "ERROR",
                                       "CRIT",  "ALERT", "FATAL",  "EMERG"};
constexpr int LEVEL_COUNT = 9;
}  // namespace

const char* logLevelText(int level) {
    return level >= 0 && level < LEVEL_COUNT ? LEVEL_TEXTS[level] : "???";
}

int logLevelFromText(StrSegment text) {
    for (int i = 0; i < LEVEL_COUNT; ++i) {
        if (text.equals(LEVEL_TEXTS[i])) return i;
    }
    return -1;
}

LogFormatCallback::~LogFormatCallback() = default;
void LogFormatCallback::beforeFormat(Str&) {}
void LogFormatCallback::afterFormat(Str&) {}

LogObserver::~LogObserver() = default;

// ---------------------------------------------------------------- process-wide state

namespace {

// Static objects that must work before any constructor has run, and must
// not be destroyed at exit while other threads may still log.
template <class T>
union NeverDestroyed {
    T value;
    template <class... A>
    constexpr explicit NeverDestroyed(A... args) : value(args...) {}
    ~NeverDestroyed() {}
};

// Guards the logger lists and the channel map. Loggers in other files are
// destroyed after this file's statics, so it must outlive them all.
constinit NeverDestroyed<PthreadMutexImpl> init_mutex_storage{PthreadMutexImpl::StaticInit{}};
constinit PthreadMutexImpl& init_mutex = init_mutex_storage.value;
constinit Logger* waiting_list = nullptr;  // loggers without a channel
constinit Logger* visited_list = nullptr;  // loggers that have one, for a re-initialisation
std::atomic<bool> initialized_flag{false};
std::atomic<bool> stderr_forbidden{false};

constinit NeverDestroyed<LogChannel> root_channel;
// The channel of the logging system's own messages until its logger has one.
constinit NeverDestroyed<LogChannel> internal_fixed_channel;

using ChannelMap = std::map<Str, LogChannel*, std::less<>>;
ChannelMap& channel_map() {
    static ChannelMap* m = new ChannelMap;
    return *m;
}

LogChannel* find_or_create_locked(StrSegment name) {
    ChannelMap& m = channel_map();
    const auto it = m.find(std::string_view(name));
    if (it != m.end()) return it->second;
    LogChannel* root = &root_channel.value;
    auto* c = new LogChannel;
    c->_level.store(root->level(), std::memory_order_relaxed);
    c->_buffered = root->_buffered;
    c->_appenders = root->_appenders;
    m.emplace(Str(name), c);
    return c;
}

// "<LEVEL> - <text>" and LF to standard error in one write.
void write_fallback(int level, StrSegment text) noexcept {
    if (stderr_forbidden.load(std::memory_order_relaxed)) return;
    const char* lt = logLevelText(level);
    struct iovec v[4] = {{const_cast<char*>(lt), strlen(lt)},
                         {const_cast<char*>(" - "), 3},
                         {const_cast<char*>(text.data()), text.size()},
                         {const_cast<char*>("\n"), 1}};
    const ssize_t ignored = writev(STDERR_FILENO, v, 4);
    (void)ignored;
}

}  // namespace

Timeval log_start_time;

// Helpers with access to the loggers' private fields.
class LoggerRegistry {
public:
    static void assignAll() {
        while (Logger* l = waiting_list) {
            waiting_list = l->_next;
            l->_channel.store(find_or_create_locked(StrSegment(l->_name, l->_name_len)),
                              std::memory_order_relaxed);
            l->_next = visited_list;
            visited_list = l;
        }
    }
    // Every logger loses its channel and waits again; the channels go.
    static void resetAll() {
        while (Logger* l = visited_list) {
            visited_list = l->_next;
            l->_channel.store(nullptr, std::memory_order_relaxed);
            l->_next = waiting_list;
            waiting_list = l;
        }
        for (auto& [name, channel] : channel_map()) delete channel;
        channel_map().clear();
    }
    static void unlink(Logger* logger) {
        for (Logger** p : {&waiting_list, &visited_list}) {
            for (; *p != nullptr; p = &(*p)->_next) {
                if (*p == logger) {
                    *p = logger->_next;
                    return;
                }
            }
        }
    }
    static void add(Logger* logger) {
        if (initialized_flag.load(std::memory_order_relaxed)) {
            logger->_channel.store(
                find_or_create_locked(StrSegment(logger->_name, logger->_name_len)),
                std::memory_order_relaxed);
            logger->_next = visited_list;
            visited_list = logger;
        } else {
            logger->_next = waiting_list;
            waiting_list = logger;
        }
    }
};

namespace {

// The logging system's own logger.
Logger internal_logger("Logger", false, 60, 100);
// Where the thread layer's lines go.
Logger thread_logger("Thread");

// The channel a message of `logger` goes to; null when it goes to the fallback.
LogChannel* channel_for(const Logger* logger) {
    if (!initialized_flag.load(std::memory_order_acquire)) return nullptr;
    if (logger->_logger_is_constructed_slowpath()) {
        if (LogChannel* c = logger->channel()) return c;
    }
    return &root_channel.value;
}

}  // namespace

void thread_log_to_logger(ThreadLogLevel level, const char* text, size_t length) {
    static constexpr int LEVELS[] = {LOG_LEVEL_DEBUG, LOG_LEVEL_INFO, LOG_LEVEL_WARN,
                                     LOG_LEVEL_FATAL};
    thread_logger.logSeg(LEVELS[level], text, length);
}

// ---------------------------------------------------------------- accumulators

namespace {
// A buffer that grew for one huge message is not kept for the thread's life.
constexpr size_t KEEP_ACCUMULATOR_CAPACITY = 65536;

LoggerStreamAccumulator* thread_accumulator() {
    Thread* thr = Thread::current();
    if (thr == nullptr) return nullptr;
    ASSERT(thr->_scratchp != nullptr);
    return &thr->_scratchp.load(std::memory_order_relaxed)->logAccumulator;
}

void hand_back(LoggerStreamAccumulator* acc) {
    if (acc->message.capacity() > KEEP_ACCUMULATOR_CAPACITY) {
        Str().swap(acc->message);
    } else {
        acc->message.clear();
    }
    acc->loggerWord = 0;
}
}  // namespace

LoggerStreamAccumulator* LoggerStreamAccumulator::get(uintptr_t loggerWord) noexcept {
    if (LoggerStreamAccumulator* acc = thread_accumulator()) {
        if (acc->loggerWord == 0) {
            acc->loggerWord = loggerWord;
            acc->message.clear();
            return acc;
        }
    }
    auto* acc = new (std::nothrow) LoggerStreamAccumulator;
    if (acc != nullptr) acc->loggerWord = loggerWord | DYNAMIC_FLAG;
    return acc;
}

void LoggerStreamAccumulator::release(LoggerStreamAccumulator* acc) noexcept {
    if (acc->isDynamic()) {
        delete acc;
    } else {
        hand_back(acc);
    }
}

LoggerStreamAccumulator::scoped_claim::scoped_claim(const Logger* logger) noexcept {
    LoggerStreamAccumulator* acc = thread_accumulator();
    if (acc != nullptr && acc->loggerWord == 0) {
        acc->loggerWord = logger != nullptr ? reinterpret_cast<uintptr_t>(logger) : NOT_CONSTRUCTED;
        acc->message.clear();
        _acc = acc;
    }
}

LoggerStreamAccumulator::scoped_claim::~scoped_claim() {
    if (_acc != nullptr) hand_back(_acc);
}

// ---------------------------------------------------------------- escaping

namespace {

bool must_escape(unsigned char c, bool full) {
    return full ? (c != '\t' && (c < 0x20 || c > 0x7e)) : (c == '\n' || c == '\r');
}

// Where the first byte to escape stands, or n; 16 bytes at a time, since
// nearly every message has none.
size_t first_to_escape(const char* data, size_t n, bool full) {
    size_t i = 0;
    for (; i + 16 <= n; i += 16) {
        unsigned m;
        if (full) {
            // Adding 0x60 rotates 0x20..0x7E onto -128..-34: every other byte
            // compares greater than -34.
            const __m128i v = bytescan::load16(data + i);
            const __m128i rotated = _mm_add_epi8(v, _mm_set1_epi8(0x60));
            m = static_cast<unsigned>(_mm_movemask_epi8(
                    _mm_cmpgt_epi8(rotated, _mm_set1_epi8(static_cast<char>(0xDE))))) &
                ~bytescan::equalMask16(data + i, '\t');
        } else {
            m = bytescan::crOrLfMask16(data + i);
        }
        if (m != 0) return i + static_cast<size_t>(__builtin_ctz(m));
    }
    const auto* p = reinterpret_cast<const unsigned char*>(data);
    while (i < n && !must_escape(p[i], full)) ++i;
    return i;
}

// A message and its escaped form, made at most once and only when needed.
class LogMessage {
public:
    LogMessage(StrSegment raw, bool escaping) : _raw(raw), _escaping(escaping) {}

    // The form to write; the first caller's flag decides it for all.
    StrSegment get(bool full) {
        if (!_escaping) return _raw;
        if (!_built) build(full);
        return _result;
    }

private:
    void build(bool full) {
        _built = true;
        _result = _raw;
        const size_t n = _raw.size();
        const auto* p = reinterpret_cast<const unsigned char*>(_raw.data());
        size_t i = first_to_escape(_raw.data(), n, full);
        if (i == n) return;
        _escaped.reserve(n + 16);
        _escaped.append(_raw.data(), i);
        static constexpr char HEX[] = "0123456789abcdef";
        for (; i < n; ++i) {
            const unsigned char c = p[i];
            if (!must_escape(c, full)) {
                _escaped.push_back(static_cast<char>(c));
            } else if (c == '\n') {
                _escaped.append("\\n", 2);
            } else if (c == '\r') {
                _escaped.append("\\r", 2);
            } else {
                const char e[4] = {'\\', 'x', HEX[c >> 4], HEX[c & 15]};
                _escaped.append(e, 4);
            }
        }
        _result = _escaped.seg();
    }

    StrSegment _raw;
    bool _escaping;
    bool _built = false;
    StrSegment _result;
    Str _escaped;
};

// To the appenders of `channel` (the root appender when it has none, or
// when redirected) but `skip`. The appender list is fixed once configured,
// so it is read without a lock. With observers, the first appender is
// written under the channel's lock and gets them, so that an observer sees
// each line once and is never called after it was removed.
bool deliver(LogChannel* channel, const LogMsgMetadata& md, LogMessage& msg,
             const LogAppender* skip) {
    LogAppender* root = LogAppender::rootAppender();
    const bool toRoot =
        channel->_toRoot.load(std::memory_order_relaxed) || channel->_appenders.empty();
    LogAppender* const* list = toRoot ? &root : channel->_appenders.data();
    const size_t n = toRoot ? 1 : channel->_appenders.size();
    const bool buffered = channel->_buffered;
    size_t next = 0;
    bool took = false;
    if (channel->_observerCount.load(std::memory_order_acquire) != 0) {
        LogAppender* first = nullptr;
        {
            ScopedNologLock lock(channel->_mutex);
            for (; next < n; ++next) {
                LogAppender* a = list[next];
                if (a == skip) continue;
                took |= a->write(md, msg.get(a->escape()), &channel->_observers, buffered);
                first = a;
                ++next;
                break;
            }
        }
        // Its complaints may go to this very channel: not under its lock.
        if (first != nullptr) first->reportNotes();
    }
    for (; next < n; ++next) {
        LogAppender* a = list[next];
        if (a == skip) continue;
        took |= a->write(md, msg.get(a->escape()), nullptr, buffered);
    }
    return took;
}

}  // namespace

// ---------------------------------------------------------------- LogChannel

LogChannel* LogChannel::root() { return &root_channel.value; }

LogChannel* LogChannel::findOrCreate(StrSegment name) {
    ScopedNologLock lock(init_mutex);
    return find_or_create_locked(name);
}

bool LogChannel::changeLevel(StrSegment text) {
    const int level = logLevelFromText(text);
    if (level < 0) return false;
    _level.store(level, std::memory_order_relaxed);
    return true;
}

bool LogChannel::applyConfWord(StrSegment word, bool* appenderSeen) {
    if (changeLevel(word)) {
        _explicit = true;
        return true;
    }
    if (mem_compare_caseless(word.data(), word.size(), "buffered") == 0) {
        _buffered = true;
        return true;
    }
    LogAppender* a = LogAppender::find(word, false);
    if (a == nullptr) return false;
    if (!*appenderSeen) {
        _appenders.clear();
        _toRoot.store(false, std::memory_order_relaxed);
        *appenderSeen = true;
    }
    if (std::find(_appenders.begin(), _appenders.end(), a) == _appenders.end()) {
        _appenders.push_back(a);
    }
    return true;
}

bool LogChannel::setConfig(const char* text) { return setConfig(StrSegment(text)); }

bool LogChannel::setConfig(StrSegment text) {
    static constexpr CharacterClass SEPARATORS(" \t,");
    _buffered = false;
    bool appenderSeen = false;
    bool ok = true;
    size_t i = 0;
    while (i < text.size()) {
        const size_t start = text.find(SEPARATORS, i, false);
        if (start == StrSegment::npos) break;
        size_t end = text.find(SEPARATORS, start);
        if (end == StrSegment::npos) end = text.size();
        if (!applyConfWord(text.substr(start, end - start), &appenderSeen)) ok = false;
        i = end;
    }
    return ok;
}

void LogChannel::addObserver(LogObserver* observer) {
    ScopedNologLock lock(_mutex);
    _observers.push_back(observer);
    _observerCount.store(static_cast<unsigned>(_observers.size()), std::memory_order_release);
}

void LogChannel::removeObserver(LogObserver* observer) {
    ScopedNologLock lock(_mutex);
    const auto it = std::find(_observers.begin(), _observers.end(), observer);
    if (it != _observers.end()) _observers.erase(it);
    _observerCount.store(static_cast<unsigned>(_observers.size()), std::memory_order_release);
}

bool LogChannel::write(const LogMsgMetadata& md, StrSegment message, const LogAppender* skip) {
    LogMessage msg(message, false);
    return deliver(this, md, msg, skip);
}

void LogChannel::writeEscaped(const LogMsgMetadata& md, StrSegment message) {
    const bool escaping = md.logger == nullptr || !md.logger->_logger_is_constructed_slowpath() ||
                          md.logger->shouldEscape();
    LogMessage msg(message, escaping);
    deliver(this, md, msg, nullptr);
}

void LogChannel::finish_vlog(const Logger* logger, LogChannel* channel, int level,
                             LogFormatCallback* callback, int errnum, const char* format,
                             va_list args) noexcept {
    LoggerStreamAccumulator::scoped_claim claim(logger);
    Str& text = claim.str();
    bool rendered = false;
    try {
        Logger::appendVformat(text, errnum, callback, format, args);
        rendered = true;
        const LogMsgMetadata md{CurrentTimeval(), logger, level};
        channel->writeEscaped(md, text.seg());
    } catch (...) {
        write_fallback(level, rendered ? text.seg() : StrSegment(format));
    }
}

void LogChannel::finish_vlog_s(const Logger* logger, LogChannel* channel, int level,
                               StrSegment message) noexcept {
    try {
        const LogMsgMetadata md{CurrentTimeval(), logger, level};
        channel->writeEscaped(md, message);
    } catch (...) {
        write_fallback(level, message);
    }
}

// ---------------------------------------------------------------- the log calls

namespace {

// A finished message: standard error before initialisation, else the
// channel's level, the dedupper and the channel.
void log_text(const Logger* logger, int level, StrSegment text) {
    LogChannel* channel = channel_for(logger);
    if (channel == nullptr) return write_fallback(level, text);
    if (level < channel->level()) return;
    if (LogDedupper* d = logger->_dedupper()) {
        if (!d->admit(logger, channel, level, text)) return;
    }
    LogChannel::finish_vlog_s(logger, channel, level, text);
}

}  // namespace

void LogFormat::cpp_do_log(const Logger* logger, int level, LogFormatCallback* callback,
                           const char* format, va_list args) noexcept {
    const int saved = errno;
    try {
        LogChannel* channel = channel_for(logger);
        // Nothing is formatted for a level that is off.
        if (channel == nullptr || level >= channel->level()) {
            if (channel != nullptr && logger->_dedupper() == nullptr) {
                LogChannel::finish_vlog(logger, channel, level, callback, saved, format, args);
            } else {
                // The fallback and the dedupper take the finished text.
                LoggerStreamAccumulator::scoped_claim claim(logger);
                Str& text = claim.str();
                try {
                    Logger::appendVformat(text, saved, callback, format, args);
                } catch (...) {
                    text.assign(format);
                }
                log_text(logger, level, text.seg());
            }
        }
    } catch (...) {
        // A log call never fails for its caller.
    }
    errno = saved;
}

void LogFormat::do_log(LoggerStreamAccumulator* acc, int level) noexcept {
    const int saved = errno;
    try {
        if (!acc->message.empty()) {
            if ((acc->loggerWord & ~LoggerStreamAccumulator::DYNAMIC_FLAG) ==
                LoggerStreamAccumulator::NOT_CONSTRUCTED) {
                write_fallback(level, acc->message.seg());
            } else {
                log_text(acc->logger(), level, acc->message.seg());
            }
        }
    } catch (...) {}
    LoggerStreamAccumulator::release(acc);
    errno = saved;
}

namespace {
// Appenders that fail in turn would report each other's failures for ever:
// a report made while reporting goes to standard error only.
thread_local int internal_depth = 0;
}  // namespace

void LogFormat::internal(const LogAppender* appender, int level, const char* format, ...) {
    const int saved = errno;
    ++internal_depth;
    try {
        LogChannel* channel = internal_logger.channel();
        if (channel == nullptr) channel = &internal_fixed_channel.value;
        const int threshold = initialized_flag.load(std::memory_order_acquire)
                                  ? channel->level()
                                  : root_channel.value.level();
        if (level >= threshold) {
            Str text;
            va_list args;
            va_start(args, format);
            try {
                Logger::appendVformat(text, saved, nullptr, format, args);
            } catch (...) {
                text.assign(format);
            }
            va_end(args);
            const LogMsgMetadata md{CurrentTimeval(), &internal_logger, level};
            bool took = false;
            if (internal_depth == 1 && initialized_flag.load(std::memory_order_acquire)) {
                try {
                    took = channel->write(md, text.seg(), appender);
                } catch (...) {}
            }
            if (!took) write_fallback(level, text.seg());
        }
    } catch (...) {}
    --internal_depth;
    errno = saved;
}

#if !defined(__GNUC__) || defined(__clang__)
#define TX_LOG_CALL(fn, level)                                     \
    void Logger::fn(const char* format, ...) const {               \
        if (!isLevelEnabled(level)) return;                        \
        va_list args;                                              \
        va_start(args, format);                                    \
        LogFormat::cpp_do_log(this, level, nullptr, format, args); \
        va_end(args);                                              \
    }
TX_LOG_CALL(debug, LOG_LEVEL_DEBUG)
TX_LOG_CALL(info, LOG_LEVEL_INFO)
TX_LOG_CALL(warn, LOG_LEVEL_WARN)
TX_LOG_CALL(error, LOG_LEVEL_ERROR)
TX_LOG_CALL(fatal, LOG_LEVEL_FATAL)
#undef TX_LOG_CALL
#endif

void Logger::_log(int level, const char* format, ...) const {
    va_list args;
    va_start(args, format);
    LogFormat::cpp_do_log(this, level, nullptr, format, args);
    va_end(args);
}

void Logger::vlog(int level, LogFormatCallback* cb, const char* format, va_list args) const {
    if (isLevelEnabled(level)) LogFormat::cpp_do_log(this, level, cb, format, args);
}

void Logger::logSeg(int level, const char* data, size_t length) const {
    if (!isLevelEnabled(level)) return;
    const int saved = errno;
    try {
        log_text(this, level, StrSegment(data, length));
    } catch (...) {}
    errno = saved;
}

void Logger::logException(int level, const std::exception& e) const {
    if (!isLevelEnabled(level)) return;
    const char* what = "std::exception";
    try {
        what = e.what();
    } catch (...) {}
    logSeg(level, what, strlen(what));
}

void Logger::debugSplitLines(const char* data, size_t length) const {
    if (!_isDebugEnabled()) return;
    size_t start = 0;
    for (size_t i = 0; i <= length; ++i) {
        if (i == length || data[i] == '\n' || data[i] == '\r') {
            if (i > start) logSeg(LOG_LEVEL_DEBUG, data + start, i - start);
            start = i + 1;
        }
    }
}

LoggerStreamAccumulator* Logger::_stream_get(int level) const {
    if (!_logger_is_constructed_slowpath()) {
        return LoggerStreamAccumulator::get(LoggerStreamAccumulator::NOT_CONSTRUCTED);
    }
    if (!isLevelEnabled(level)) return nullptr;
    return LoggerStreamAccumulator::get(reinterpret_cast<uintptr_t>(this));
}

// ---------------------------------------------------------------- Logger

Logger::Logger(const char* name, bool dedup, unsigned dedupSeconds, unsigned dedupMaxHeld)
    : _name(name), _name_len(strlen(name)) {
    // clang-format off
    ASSERT((reinterpret_cast<uintptr_t>(this) & LoggerStreamAccumulator::DYNAMIC_FLAG) == 0);
    // clang-format on
    if (dedup) _dedup = new LogDedupper(dedupSeconds, dedupMaxHeld);
    ScopedNologLock lock(init_mutex);
    LoggerRegistry::add(this);
}

Logger::Logger(const char* name, LogChannel* ownChannel) : _name(name), _name_len(strlen(name)) {
    // clang-format off
    ASSERT((reinterpret_cast<uintptr_t>(this) & LoggerStreamAccumulator::DYNAMIC_FLAG) == 0);
    // clang-format on
    _channel.store(ownChannel, std::memory_order_relaxed);
}

Logger::~Logger() {
    removeFromUninitialzedList();
    delete _dedup;
}

void Logger::removeFromUninitialzedList() {
    ScopedNologLock lock(init_mutex);
    LoggerRegistry::unlink(this);
}

bool Logger::shouldEscape() const { return true; }
bool Logger::shouldLimitMsgLength() const { return true; }

int Logger::getLogLevel() const {
    static constexpr int SCALE[] = {1, 2, 2, 3, 4, 4, 4, 5, 4};
    const LogChannel* c = channel();
    if (c == nullptr || !initialized_flag.load(std::memory_order_relaxed)) return 0;
    const int level = c->level();
    return level >= 0 && level < LEVEL_COUNT ? SCALE[level] : 0;
}

namespace {
// Before initialisation a logger's lines are observed on the root channel.
LogChannel* observed_channel(const Logger* logger) {
    LogChannel* c = logger->channel();
    return c != nullptr ? c : &root_channel.value;
}
}  // namespace

void Logger::registerLogObserver(LogObserver* observer) const {
    observed_channel(this)->addObserver(observer);
}

void Logger::unregisterLogObserver(LogObserver* observer) const {
    observed_channel(this)->removeObserver(observer);
}

void Logger::flushDedup() const {
    if (_dedup == nullptr) return;
    const int saved = errno;
    try {
        if (LogChannel* channel = channel_for(this)) _dedup->flush(this, channel);
    } catch (...) {}
    errno = saved;
}

LoggerSimple::LoggerSimple(const char* name) : Logger(name, &_own) {}
bool LoggerSimple::shouldEscape() const { return false; }
bool LoggerSimple::shouldLimitMsgLength() const { return false; }

// The channel is kept: the logger's may change when loggers are initialised.
ScopedLogObserverRegistration::ScopedLogObserverRegistration(Logger* logger, LogObserver* observer)
    : _logger(logger), _observer(observer) {
    ASSERT(_logger);
    ASSERT(_observer);
    _channel = observed_channel(_logger);
    _channel->addObserver(_observer);
}

ScopedLogObserverRegistration::~ScopedLogObserverRegistration() {
    if (_channel != nullptr) _channel->removeObserver(_observer);
}

ScopedLogObserverRegistration::ScopedLogObserverRegistration(
    ScopedLogObserverRegistration&& o) noexcept
    : _logger(o._logger), _observer(o._observer), _channel(o._channel) {
    o._logger = nullptr;
    o._observer = nullptr;
    o._channel = nullptr;
}

ScopedLogObserverRegistration& ScopedLogObserverRegistration::operator=(
    ScopedLogObserverRegistration&& o) noexcept {
    if (this != &o) {
        if (_channel != nullptr) _channel->removeObserver(_observer);
        _logger = o._logger;
        _observer = o._observer;
        _channel = o._channel;
        o._logger = nullptr;
        o._observer = nullptr;
        o._channel = nullptr;
    }
    return *this;
}

// ---------------------------------------------------------------- LogDedupper

// A repeat is the same level and text as the line before it, within the
// window that the first of them opened. Repeats are counted, not written;
// the count goes out as its own line when a different line comes, when the
// window has passed, when `maxHeld` repeats are held, or on flushDedup().
bool LogDedupper::admit(const Logger* logger, LogChannel* channel, int level, StrSegment line) {
    const int64_t now = CurrentTimeval().sec();
    ScopedNologLock lock(_mutex);
    const bool repeat = level == _lastLevel && _last.equals(line) &&
                        now - _firstSeen < static_cast<int64_t>(_seconds);
    if (repeat) {
        if (++_held < _maxHeld) return false;
        writeRepeatsLocked(logger, channel);
        return false;
    }
    writeRepeatsLocked(logger, channel);
    _last.assign(line.data(), line.size());
    _lastLevel = level;
    _firstSeen = now;
    return true;
}

void LogDedupper::flush(const Logger* logger, LogChannel* channel) {
    ScopedNologLock lock(_mutex);
    writeRepeatsLocked(logger, channel);
}

void LogDedupper::writeRepeatsLocked(const Logger* logger, LogChannel* channel) {
    if (_held == 0) return;
    Str text;
    Logger::appendFormat(text, 0, "last message repeated %u times", _held);
    _held = 0;
    LogChannel::finish_vlog_s(logger, channel, _lastLevel, text.seg());
}

// ---------------------------------------------------------------- control

bool Logger::isInitialized() { return initialized_flag.load(std::memory_order_acquire); }

void Logger::initialize() {
    {
        ScopedNologLock lock(init_mutex);
        if (log_start_time.isNull()) log_start_time.setToNow();
        LoggerRegistry::assignAll();
        initialized_flag.store(true, std::memory_order_release);
    }
}

bool Logger::setChannelLevel(const char* name, StrSegment level, StrSegment* oldLevel) {
    if (name != nullptr) {
        LogChannel* c = LogChannel::findOrCreate(StrSegment(name));
        if (oldLevel != nullptr) *oldLevel = StrSegment(logLevelText(c->level()));
        if (!c->changeLevel(level)) return false;
        c->_explicit = true;
        return true;
    }
    ScopedNologLock lock(init_mutex);
    // The root too, so that channels made later follow the change.
    if (!root_channel.value._explicit && !root_channel.value.changeLevel(level)) return false;
    for (auto& [channelName, c] : channel_map()) {
        if (c->_explicit) continue;
        if (!c->changeLevel(level)) return false;
    }
    return true;
}

void Logger::redirectToStderr(const char* name) {
    auto redirect = [](LogChannel* c) { c->_toRoot.store(true, std::memory_order_relaxed); };
    if (name != nullptr) {
        redirect(LogChannel::findOrCreate(StrSegment(name)));
        return;
    }
    ScopedNologLock lock(init_mutex);
    for (auto& [channelName, c] : channel_map()) redirect(c);
}

void Logger::iterateChannels(iterate_channels_callback& cb) {
    ScopedNologLock lock(init_mutex);
    for (auto& [name, c] : channel_map()) cb.channel(name, logLevelText(c->level()), c->_buffered);
}

void Logger::suspendChannelsContaining(const Str& text) {
    LogAppender::forEach([&text](LogAppender* a) { a->suspendIfMatches(text); }, true);
}

void Logger::unsuspend(const path_replacements& replacements) {
    LogAppender::forEach([&replacements](LogAppender* a) { a->unsuspend(replacements); }, true);
}

void Logger::releaseLoggerFds() {
    Thread::assertNotMultithreadedYet();
    LogAppender::releaseAppenderFds();
}

bool Logger::configuration::setAppenderAttribute(StrSegment appender, const Str& name,
                                                 const Str& value) const {
    LogAppender* a = LogAppender::find(appender, false);
    if (a == nullptr) return false;
    return a->setAttribute(name, value, *this);
}

// ---------------------------------------------------------------- configuration files

namespace {

// What the parse of one or two files collects, applied once both are read.
class DeferredLogConf {
public:
    enum error_type { PARSE_ERROR = 1, UNTERMINATED_COMMENT = 2 };
    struct error {
        int type;
        Str path;
        unsigned line;
        Str text;
    };
    struct entry {
        Str path;
        unsigned line;
        Str text;
    };

    explicit DeferredLogConf(const Logger::configuration& conf) : _conf(conf) {}

    void parse(const char* path, FILE* file);
    void apply();
    void report() const;

private:
    void parseLine(const char* path, unsigned lineNo, StrSegment line);
    void fail(const char* path, unsigned lineNo, StrSegment text) {
        _errors.push_back({PARSE_ERROR, Str(path), lineNo, Str(text)});
    }

    const Logger::configuration& _conf;
    bool _haveRoot = false;
    entry _root;
    std::vector<entry> _categories;
    std::vector<error> _errors;
};

constexpr CharacterClass KEY_END(" \t.=");
constexpr CharacterClass BLANKS(" \t");

StrSegment skip_blanks(StrSegment s) { return s.trim(BLANKS, true, false); }

void DeferredLogConf::parse(const char* path, FILE* file) {
    ReadableUnicodeFileStar in(file);
    Str raw;
    unsigned lineNo = 0;
    bool inComment = false;
    unsigned commentStart = 0;
    // Lines count before any header, and inside our section.
    bool counting = true;
    while (in.readLine(&raw)) {
        ++lineNo;
        // XML comments go first, also across lines; then "#" ends the line.
        Str line;
        size_t i = 0;
        while (i <= raw.size()) {
            if (inComment) {
                const size_t end = raw.find("-->", i);
                if (end == Str::npos) {
                    i = raw.size() + 1;
                    break;
                }
                inComment = false;
                i = end + 3;
            } else {
                const size_t start = raw.find("<!--", i);
                if (start == Str::npos) {
                    line.append(raw.data() + i, raw.size() - i);
                    break;
                }
                line.append(raw.data() + i, start - i);
                inComment = true;
                commentStart = lineNo;
                i = start + 4;
            }
        }
        const size_t hash = line.find('#');
        if (hash != Str::npos) line.resize(hash);
        line.trimInPlace(BLANKS, false, true);
        if (line.empty()) continue;

        if (line[0] == '[') {
            static constexpr CharacterClass HEADER_END(" ]");
            const StrSegment header = line.seg().substr(1).trim(HEADER_END, false, true);
            counting = !_conf.section.empty() &&
                       mem_compare_caseless(header.data(), header.size(), _conf.section.data(),
                                            _conf.section.size()) == 0;
            continue;
        }
        if (!counting) continue;
        parseLine(path, lineNo, line.seg());
    }
    if (inComment) _errors.push_back({UNTERMINATED_COMMENT, Str(path), commentStart, Str()});
}

void DeferredLogConf::parseLine(const char* path, unsigned lineNo, StrSegment line) {
    StrSegment rest = line;
    if (rest.startsWith("log4cpp.")) rest = rest.substr(8);
    size_t keyEnd = rest.find(KEY_END);
    if (keyEnd == StrSegment::npos) keyEnd = rest.size();
    const StrSegment key = rest.substr(0, keyEnd);

    if (key.equals("rootCategory")) {
        StrSegment value = skip_blanks(rest.substr(keyEnd));
        if (value.empty() || value[0] != '=') return fail(path, lineNo, line);
        _root = {Str(path), lineNo, Str(value.substr(1))};
        _haveRoot = true;
        return;
    }
    if (key.equals("category") && keyEnd < rest.size() && rest[keyEnd] == '.') {
        _categories.push_back({Str(path), lineNo, Str(rest.substr(keyEnd + 1))});
        return;
    }
    if (key.equals("appender") && keyEnd < rest.size() && rest[keyEnd] == '.') {
        StrSegment after = rest.substr(keyEnd + 1);
        size_t nameEnd = after.find(KEY_END);
        if (nameEnd == StrSegment::npos) nameEnd = after.size();
        const StrSegment name = after.substr(0, nameEnd);
        if (name.empty()) return fail(path, lineNo, line);
        LogAppender* appender = LogAppender::find(name, true);
        after = after.substr(nameEnd);
        if (after.empty() || after[0] != '.') {
            // "appender.name = value" only makes the appender.
            after = skip_blanks(after);
            if (after.empty() || after[0] != '=') return fail(path, lineNo, line);
            return;
        }
        after = after.substr(1);
        size_t attrEnd = after.find(CharacterClass(" \t="));
        if (attrEnd == StrSegment::npos) return fail(path, lineNo, line);
        const Str attribute(after.substr(0, attrEnd));
        after = skip_blanks(after.substr(attrEnd));
        if (after.empty() || after[0] != '=') return fail(path, lineNo, line);
        const Str value(skip_blanks(after.substr(1)));
        if (attribute.empty() || !appender->setAttribute(attribute, value, _conf)) {
            fail(path, lineNo, line);
        }
        return;
    }
    fail(path, lineNo, line);
}

void DeferredLogConf::apply() {
    if (_haveRoot && !LogChannel::root()->setConfig(_root.text.seg())) {
        _errors.push_back({PARSE_ERROR, _root.path, _root.line, _root.text});
    }
    for (const entry& c : _categories) {
        const size_t eq = c.text.find('=');
        const StrSegment name = c.text.seg().substr(0, eq).trim(BLANKS, true, true);
        const StrSegment words = eq == Str::npos ? StrSegment() : c.text.seg().substr(eq + 1);
        if (eq == Str::npos || name.empty() || !LogChannel::findOrCreate(name)->setConfig(words)) {
            _errors.push_back({PARSE_ERROR, c.path, c.line, c.text});
        }
    }
}

void DeferredLogConf::report() const {
    for (const error& e : _errors) {
        switch (e.type) {
            case PARSE_ERROR:
                LogFormat::internal(nullptr, LOG_LEVEL_WARN, "%s:%u: Parse error at \"%s\"",
                                    e.path.c_str(), e.line, e.text.c_str());
                break;
            case UNTERMINATED_COMMENT:
                LogFormat::internal(nullptr, LOG_LEVEL_ERROR,
                                    "%s:%u: Unterminated XML comment started", e.path.c_str(),
                                    e.line);
                break;
            default:
                LogFormat::internal(nullptr, LOG_LEVEL_ERROR,
                                    "I know not this DeferredLogConf::error_type=%d you speak of.",
                                    e.type);
        }
    }
}

// "log.cfg" gives "log-local.cfg"; with no dot in the leaf, or only one at
// its start, "-local" goes at the end.
Str local_override_name(const Str& path) {
    const size_t slash = path.rfind('/');
    const size_t leafStart = slash == Str::npos ? 0 : slash + 1;
    const size_t dot = path.rfind('.');
    if (dot == Str::npos || dot <= leafStart) return path + "-local";
    return Str(path.substr(0, dot) + "-local" + path.substr(dot));
}

void reinit_channels() {
    Thread::assertNotMultithreadedYet();
    ScopedNologLock lock(init_mutex);
    initialized_flag.store(false, std::memory_order_release);
    LoggerRegistry::resetAll();
    LogChannel& root = root_channel.value;
    ScopedNologLock rootLock(root._mutex);
    root._level.store(LOG_LEVEL_INFO, std::memory_order_relaxed);
    root._explicit = false;
    root._buffered = false;
    root._appenders.clear();
    root._toRoot.store(false, std::memory_order_relaxed);
}

}  // namespace

bool Logger::initialize(const configuration& conf) {
    if (initialized_flag.load(std::memory_order_acquire)) {
        LogAppender::reinitAppenders();
        reinit_channels();
    }
    stderr_forbidden.store(!conf.stderrAllowed, std::memory_order_relaxed);

    ScopedFileStar main;
    if (!main.open(conf.path, "r")) {
        const int e = errno;
        initialize();
        errno = e;
        LogFormat::internal(nullptr, LOG_LEVEL_ERROR,
                            "Couldn't open log file configuration \"%s\": %m", conf.path.c_str());
        return false;
    }
    DeferredLogConf deferred(conf);
    deferred.parse(conf.path.c_str(), main.get());
    main.close();
    const Str local = local_override_name(conf.path);
    ScopedFileStar override;
    if (override.open(local, "r")) deferred.parse(local.c_str(), override.get());
    deferred.apply();
    initialize();
    // Forbidden standard error silences the root appender too (unless it was
    // given a file): channels without appenders would otherwise still print.
    LogAppender::forEach(
        [&conf](LogAppender* a) { a->finalSetup(a->name().c_str(), conf.stderrAllowed); }, true);
    deferred.report();
    return true;
}

// ---------------------------------------------------------------- format helpers

void Logger::appendVformat(Str& dest, int errnum, LogFormatCallback* callback, const char* format,
                           va_list args) {
    if (callback) callback->beforeFormat(dest);
    printf_render(&dest, errnum, format, args);
    if (callback) callback->afterFormat(dest);
}

Str Logger::vformat(int errnum, const char* format, va_list args) {
    Str s;
    appendVformat(s, errnum, nullptr, format, args);
    return s;
}

Str Logger::vformat(const char* format, va_list args) { return vformat(errno, format, args); }

void Logger::vformat(Str& dest, int errnum, LogFormatCallback* callback, const char* format,
                     va_list args) {
    Str s;
    appendVformat(s, errnum, callback, format, args);
    dest.swap(s);
}

// Each variadic form hands its list to one of the above; va_end runs on every
// way out.
#define TX_WITH_ARGS(last, call) \
    va_list args;                \
    va_start(args, last);        \
    try {                        \
        call;                    \
    } catch (...) {              \
        va_end(args);            \
        throw;                   \
    }                            \
    va_end(args)

void Logger::format(Str& dest, const char* fmt, ...) {
    const int errnum = errno;
    dest.clear();
    TX_WITH_ARGS(fmt, appendVformat(dest, errnum, nullptr, fmt, args));
}

void Logger::format(Str& dest, int errnum, const char* fmt, ...) {
    dest.clear();
    TX_WITH_ARGS(fmt, appendVformat(dest, errnum, nullptr, fmt, args));
}

void Logger::appendFormat(Str& dest, const char* fmt, ...) {
    const int errnum = errno;
    TX_WITH_ARGS(fmt, appendVformat(dest, errnum, nullptr, fmt, args));
}

void Logger::appendFormat(Str& dest, int errnum, const char* fmt, ...) {
    TX_WITH_ARGS(fmt, appendVformat(dest, errnum, nullptr, fmt, args));
}

Str Logger::fromFormat(const char* fmt, ...) {
    const int errnum = errno;
    Str s;
    TX_WITH_ARGS(fmt, appendVformat(s, errnum, nullptr, fmt, args));
    return s;
}

Str Logger::fromFormat(int errnum, const char* fmt, ...) {
    Str s;
    TX_WITH_ARGS(fmt, appendVformat(s, errnum, nullptr, fmt, args));
    return s;
}
#undef TX_WITH_ARGS

// ---------------------------------------------------------------- BaseException

void BaseException::vformat(const char* prefix, const char* format, va_list args) noexcept {
    vformat(errno, prefix, format, args);
}

void BaseException::vformat(int errnum, const char* prefix, const char* format,
                            va_list args) noexcept {
    try {
        Str message;
        if (prefix != nullptr) message.append(prefix);
        Logger::appendVformat(message, errnum, nullptr, format, args);
        _message.swap(message);
    } catch (...) {
        // An exception may never make a new exception.
        _message.clear();
    }
}

// ---------------------------------------------------------------- elsewhere

void HexDumper::dumpTo(const Logger* dest, const void* data, size_t length) {
    HexDumper_to_Logger(dest).do_dump(data, length);
}

void HexDumper_to_Logger::accept_line(const char* line, size_t length) {
    _logger->logSeg(_level, line, length);
}

void MonotonicTime::logWhetherMonotonicClockIsUsed(Logger& logger) {
    const char* text = "using CLOCK_MONOTONIC";
    int level = LOG_LEVEL_INFO;
    switch (monotonic_clock_decision()) {
        case MONOTONIC_CLOCK_IN_USE:
            break;
        case MONOTONIC_CLOCK_DISABLED:
            text = "CLOCK_MONOTONIC support explicitly disabled";
            level = LOG_LEVEL_WARN;
            break;
        case MONOTONIC_CLOCK_UNAVAILABLE:
            text = "CLOCK_MONOTONIC support not available";
            level = LOG_LEVEL_WARN;
            break;
    }
    logger.logSeg(level, text, strlen(text));
    addGlobalCrashLogNotationConstant(text);
}
