// Appenders: named outputs to a file with size-based rollover, or to a
// descriptor, set up by attribute names from the configuration file.

#include <sys/stat.h>
#include <unistd.h>

#include <cerrno>
#include <cstring>

#include "util/Logger.h"
#include "util/Thread.h"

namespace {

using AppenderMap = std::map<Str, LogAppender*, std::less<>>;
AppenderMap& appender_map() {
    static AppenderMap* m = new AppenderMap;
    return *m;
}
// Never destroyed: loggers may write during the destruction of statics.
union AppenderMapMutex {
    PthreadMutexImpl value;
    constexpr AppenderMapMutex() : value(PthreadMutexImpl::StaticInit{}) {}
    ~AppenderMapMutex() {}
};
constinit AppenderMapMutex appender_map_mutex_storage;
constinit PthreadMutexImpl& appender_map_mutex = appender_map_mutex_storage.value;

constexpr const char* ATTRIBUTE_NAMES[] = {
    "maxFileSize", "maxBackupIndex", "layout",         "layout.ConversionPattern",
    "fileName",    "serialization",  "maxMessageSize", "bufferSize",
    "escape"};

// A path moved away under an open appender is noticed within this many seconds.
constexpr int64_t INODE_CHECK_SECONDS = 5;
// A buffer that grew during an outage is given back once written.
constexpr size_t KEEP_BUFFER_CAPACITY = 1 << 20;

Str do_replacement(const Str& value, const Logger::path_replacements& replacements) {
    Str out = value;
    for (const auto& [from, to] : replacements) {
        if (!from.empty()) out.replaceAll(from.seg(), to.seg());
    }
    return out;
}

// Lines are rendered outside every lock, into a buffer each thread reuses;
// a nested write (from an observer, say) gets a local one.
// Set when the thread's scratch is destroyed (at thread exit, and for the
// main thread before static destructors run, which may still log).
thread_local bool render_scratch_gone = false;
struct RenderScratch {
    Str line;
    bool busy = false;
    ~RenderScratch() { render_scratch_gone = true; }
};
thread_local RenderScratch render_scratch;

}  // namespace

LogAppender::LogAppender(StrSegment name) : _name(name) {}

LogAppender::~LogAppender() {
    if (_fd >= 0 && !_filename.empty()) ::close(_fd);
    LogFormat* f = _format.load(std::memory_order_relaxed);
    if (f != nullptr && !LogFormat::isShared(f)) delete f;
    for (LogFormat* r : _retiredFormats) delete r;
}

LogAppender* LogAppender::rootAppender() {
    static LogAppender* root = [] {
        auto* a = new LogAppender(StrSegment("rootAppender"));
        a->_fd = STDERR_FILENO;
        return a;
    }();
    return root;
}

LogAppender* LogAppender::find(StrSegment name, bool create) {
    if (name.equals("rootAppender")) return rootAppender();
    ScopedNologLock lock(appender_map_mutex);
    AppenderMap& m = appender_map();
    const auto it = m.find(std::string_view(name));
    if (it != m.end()) return it->second;
    if (!create) return nullptr;
    auto* a = new LogAppender(name);
    m.emplace(Str(name), a);
    return a;
}

void LogAppender::forEach(const std::function<void(LogAppender*)>& fn, bool withRoot) {
    if (withRoot) fn(rootAppender());
    ScopedNologLock lock(appender_map_mutex);
    for (const auto& [name, a] : appender_map()) fn(a);
}

// ---------------------------------------------------------------- notes

void LogAppender::note(int level, const char* format, ...) {
    const int saved = errno;
    try {
        Str text;
        va_list args;
        va_start(args, format);
        Logger::appendVformat(text, saved, nullptr, format, args);
        va_end(args);
        _notes.emplace_back(level, std::move(text));
        _hasNotes.store(true, std::memory_order_relaxed);
    } catch (...) {}
    errno = saved;
}

void LogAppender::reportNotes() {
    // Notes are made under the lock by the thread that now calls this, so
    // the flag it set is visible to it without the lock.
    if (!_hasNotes.load(std::memory_order_relaxed)) return;
    std::vector<std::pair<int, Str>> notes;
    {
        ScopedNologLock lock(_mutex);
        notes.swap(_notes);
        _hasNotes.store(false, std::memory_order_relaxed);
    }
    for (const auto& [level, text] : notes) LogFormat::internal(this, level, "%s", text.c_str());
}

// ---------------------------------------------------------------- attributes

void LogAppender::setFormat(LogFormat* f) {
    LogFormat* old = _format.exchange(f, std::memory_order_acq_rel);
    if (old != nullptr && !LogFormat::isShared(old)) _retiredFormats.push_back(old);
}

void LogAppender::clearFormat() {
    ScopedNologLock lock(_mutex);
    setFormat(LogFormat::defaultLayout());
}

// Digits with no leading zero (but "0"), up to the end or white space. A
// restricted configuration may only raise a limit.
bool LogAppender::setNumber(const Str& value, const Logger::configuration& conf, uint64_t current,
                            uint64_t* out) {
    size_t i = 0;
    uint64_t v = 0;
    for (; i < value.size() && value[i] >= '0' && value[i] <= '9'; ++i) {
        if (__builtin_mul_overflow(v, 10, &v) || __builtin_add_overflow(v, value[i] - '0', &v)) {
            return false;
        }
    }
    if (i == 0 || (value[0] == '0' && i > 1)) return false;
    for (size_t j = i; j < value.size(); ++j) {
        if (!CharacterClass::ALL_WHITESPACES.contains(value[j])) return false;
    }
    if (conf.attributeMask != Logger::configuration::ALL_ATTRIBUTES && v < current) return false;
    *out = v;
    return true;
}

bool LogAppender::setAttribute(const Str& name, const Str& value,
                               const Logger::configuration& conf) {
    int attr = -1;
    for (int i = 0; i < static_cast<int>(std::size(ATTRIBUTE_NAMES)); ++i) {
        if (name.equals(ATTRIBUTE_NAMES[i])) attr = i;
    }
    if (attr < 0 || (conf.attributeMask & (1u << attr)) == 0) return false;
    const Str replaced = do_replacement(value, conf.replacements);

    bool ok = true;
    {
        ScopedNologLock lock(_mutex);
        uint64_t n = 0;
        switch (attr) {
            case ATTR_FILE_NAME: {
                closeLocked();
                _fd = -1;
                _filename = replaced;
                _configuredName = value;
                // A placeholder in the path: the volume it names isn't ready yet.
                bool placeholder = false;
                for (const auto& [from, to] : conf.replacements) {
                    if (!from.empty() && value.find(from) != Str::npos) placeholder = true;
                }
                _suspended = placeholder;
                break;
            }
            case ATTR_MAX_FILE_SIZE:
                ok = setNumber(replaced, conf, static_cast<uint64_t>(_maxFileSize), &n) &&
                     n <= static_cast<uint64_t>(INT64_MAX);
                if (ok) _maxFileSize = static_cast<int64_t>(n);
                break;
            case ATTR_MAX_BACKUP_INDEX:
                ok = setNumber(replaced, conf, _maxBackupIndex, &n) && n <= UINT32_MAX;
                if (ok) _maxBackupIndex = static_cast<uint32_t>(n);
                break;
            case ATTR_MAX_MESSAGE_SIZE:
                ok = setNumber(replaced, conf, maxMessageSize(), &n);
                if (ok) _maxMessageSize.store(n, std::memory_order_relaxed);
                break;
            case ATTR_LAYOUT:
                if (replaced.equals("BasicLayout")) {
                    setFormat(LogFormat::basicLayout());
                } else if (replaced.equals("SimpleLayout")) {
                    setFormat(LogFormat::simpleLayout());
                } else {
                    ok = replaced.equals("PatternLayout");
                }
                break;
            case ATTR_CONVERSION_PATTERN:
                setFormat(new LogFormat(replaced.c_str()));
                break;
            case ATTR_SERIALIZATION:
                if (replaced.equals("JSON")) {
                    _serialization.store(LogFormat::SERIALIZATION_JSON, std::memory_order_relaxed);
                } else {
                    note(LOG_LEVEL_ERROR, "Invalid serialization='%s'", value.c_str());
                    ok = false;
                }
                break;
            case ATTR_BUFFER_SIZE: {
                ByteSizeWithUnits size;
                ok = mem_parse_into(replaced.data(), replaced.size(), &size);
                if (ok) _bufferSize = size.bytes;
                break;
            }
            case ATTR_ESCAPE: {
                bool escape = true;
                ok = mem_parse_into(replaced.data(), replaced.size(), &escape);
                if (ok) {
                    _escape.store(escape, std::memory_order_relaxed);
                } else {
                    note(LOG_LEVEL_ERROR, "Invalid escape='%s'", value.c_str());
                }
                break;
            }
        }
    }
    reportNotes();
    return ok;
}

void LogAppender::finalSetup(const char* name, bool stderrAllowed) {
    {
        ScopedNologLock lock(_mutex);
        if (_format.load(std::memory_order_relaxed) == nullptr)
            setFormat(LogFormat::defaultLayout());
        bool done = false;
        if (_filename.empty()) {
            if (!stderrAllowed) {
                _to_devnull.store(true);
                done = true;
            } else {
                if (_fd < 0) {
                    note(LOG_LEVEL_WARN, "Appender \"%s\" has no filename, assuming stderr", name);
                    _fd = STDERR_FILENO;
                }
                if (_maxBackupIndex != 0) {
                    note(LOG_LEVEL_WARN,
                         "Appender \"%s\" has maxBackupIndex set without specifying a filename, "
                         "ignoring",
                         name);
                    _maxBackupIndex = 0;
                }
                if (_maxFileSize != 0) {
                    note(LOG_LEVEL_WARN,
                         "Appender \"%s\" has maxFileSize set without specifying a filename, "
                         "ignoring",
                         name);
                    _maxFileSize = 0;
                }
            }
        } else if (_maxBackupIndex != 0 && _maxFileSize == 0) {
            note(LOG_LEVEL_WARN,
                 "Appender \"%s\" has maxBackupIndex set without specifying maxFileSize, ignoring",
                 name);
            _maxBackupIndex = 0;
        }
        if (!done) {
            const int s = serialization();
            if (s != LogFormat::SERIALIZATION_NORMAL && s != LogFormat::SERIALIZATION_JSON) {
                note(LOG_LEVEL_WARN,
                     "Appender \"%s\" has _serialization set to non-normative value, BUG!, "
                     "ignoring pointedly.",
                     name);
                _serialization.store(LogFormat::SERIALIZATION_NORMAL);
            }
            if (_suspended) {
                _to_devnull.store(true);
            } else if (!_filename.empty() && openFile()) {
                // A bad path is reported now, not with the first message.
                closeLocked();
            }
        }
    }
    reportNotes();
}

// ---------------------------------------------------------------- files

void LogAppender::closeLocked() {
    // Only descriptors we opened are closed. Standard error is borrowed, and
    // an appender without a file keeps writing there.
    if (_filename.empty()) return;
    if (_fd >= 0) ::close(_fd);
    _fd = -1;
}

void LogAppender::filenameWithSuffix(Pathname& out, unsigned index) const {
    out = _filename;
    if (index != 0) out.appendFormat(".%u", index);
}

bool LogAppender::openFile() {
    if (_filename.empty()) return false;
    const int fd = _filename.openCreateOrAppend(Pathname::CREATE_NORMAL);
    if (fd >= 0) {
        _fd = fd;
        if (_failureReported) {
            note(LOG_LEVEL_DEBUG, "Successfully opened \"%s\" now.", _filename.c_str());
            _failureReported = false;
        }
        return true;
    }
    if (!_failureReported) {
        note(LOG_LEVEL_ERROR, "Failed opening \"%s\": %m", _filename.c_str());
        _failureReported = true;
    }
    return false;
}

bool LogAppender::openAndInitFile(const Timeval& time) {
    if (!openFile()) return false;
    struct stat st;
    if (fstat(_fd, &st) != 0) {
        note(LOG_LEVEL_ERROR, "Error calling fstat on \"%s\": %m", _filename.c_str());
        closeLocked();
        return false;
    }
    _fileSize = static_cast<uint64_t>(st.st_size);
    _inode = st.st_ino;
    _lastInodeCheck = time.sec();
    return true;
}

void LogAppender::rotateFile(const Timeval& time) {
    closeLocked();
    Pathname from;
    Pathname to;
    unsigned n = 0;
    for (; n < _maxBackupIndex; ++n) {
        filenameWithSuffix(from, n);
        if (!from.exists()) break;
    }
    if (n == _maxBackupIndex) {
        filenameWithSuffix(to, n);
        if (!to.unlink() && errno != ENOENT) {
            note(LOG_LEVEL_WARN, "Error unlinking \"%s\": %m", to.c_str());
        }
    }
    for (unsigned k = n; k >= 1; --k) {
        filenameWithSuffix(from, k - 1);
        filenameWithSuffix(to, k);
        if (!from.renameTo(to)) {
            note(LOG_LEVEL_WARN, "Error renaming \"%s\" to \"%s\": %m", from.c_str(), to.c_str());
        }
    }
    if (!openAndInitFile(time))
        note(LOG_LEVEL_ERROR, "Error opening \"%s\": %m", _filename.c_str());
}

// Somebody may have moved the file away (log rotation by an outside tool):
// a path that no longer names the open file is opened afresh.
void LogAppender::checkMovedLocked(const Timeval& time) {
    const int64_t now = time.sec();
    if (_lastInodeCheck <= now && now - _lastInodeCheck <= INODE_CHECK_SECONDS) return;
    struct stat st;
    if (_filename.stat(&st) && st.st_ino == _inode) {
        _lastInodeCheck = now;
        return;
    }
    closeLocked();
    openAndInitFile(time);
}

bool LogAppender::writeBufferLocked() {
    if (_fd < 0) return false;
    const char* p = _buffer.data();
    size_t left = _buffer.size();
    while (left != 0) {
        const ssize_t n = ::write(_fd, p, left);
        if (n < 0 && errno == EINTR) continue;
        if (n <= 0) {
            if (_filename.empty()) {
                _buffer.clear();  // nothing better to do with standard error
            } else {
                if (n == 0) errno = EIO;
                note(LOG_LEVEL_ERROR, "Error writing to \"%s\": %m", _filename.c_str());
                closeLocked();
                // What was not written waits for the next successful open.
                _buffer.erase(0, p - _buffer.data());
            }
            return false;
        }
        p += n;
        left -= static_cast<size_t>(n);
        _fileSize += static_cast<uint64_t>(n);
    }
    if (_buffer.capacity() > KEEP_BUFFER_CAPACITY) {
        Str().swap(_buffer);
    } else {
        _buffer.clear();
    }
    return true;
}

// ---------------------------------------------------------------- writing

bool LogAppender::write(const LogMsgMetadata& md, StrSegment message,
                        const std::vector<LogObserver*>* observers, bool buffered) {
    if (_to_devnull.load(std::memory_order_relaxed)) return false;

    RenderScratch* scratch = render_scratch_gone ? nullptr : &render_scratch;
    Str nested;
    const bool useScratch = scratch != nullptr && !scratch->busy;
    Str& line = useScratch ? scratch->line : nested;
    struct Release {
        RenderScratch* s;
        ~Release() {
            if (s == nullptr) return;
            s->busy = false;
            if (s->line.capacity() > KEEP_BUFFER_CAPACITY) Str().swap(s->line);
        }
    } release{useScratch ? scratch : nullptr};
    if (useScratch) scratch->busy = true;
    line.clear();
    const LogFormat* format = _format.load(std::memory_order_acquire);
    if (format == nullptr) format = LogFormat::defaultLayout();
    format->apply(&line, md, static_cast<LogFormat::eSerialization>(serialization()),
                  maxMessageSize(), message);

    bool took = false;
    {
        ScopedNologLock lock(_mutex);
        if (!_to_devnull.load(std::memory_order_relaxed)) {
            if (_fd >= 0 || openAndInitFile(md.time)) {
                if (!_filename.empty()) checkMovedLocked(md.time);
                if (observers != nullptr) {
                    for (LogObserver* o : *observers) {
                        try {
                            o->observe(line);
                        } catch (...) {}
                    }
                }
                _buffer.append(line);
                took = true;
                if (!buffered || _buffer.size() >= _bufferSize) {
                    if (writeBufferLocked() && _maxFileSize > 0 &&
                        _fileSize > static_cast<uint64_t>(_maxFileSize)) {
                        rotateFile(md.time);
                    }
                }
            }
        }
    }
    if (observers == nullptr) reportNotes();
    return took;
}

void LogAppender::flush() {
    {
        ScopedNologLock lock(_mutex);
        if (!_buffer.empty()) {
            if (_fd < 0 && !_filename.empty()) openAndInitFile(CurrentTimeval());
            writeBufferLocked();
        }
    }
    reportNotes();
}

size_t LogAppender::bufferedBytes() {
    ScopedNologLock lock(_mutex);
    return _buffer.size();
}

// ---------------------------------------------------------------- suspension

void LogAppender::suspendIfMatches(const Str& text) {
    if (_suspended || _to_devnull.load() || _configuredName.find(text) == Str::npos) return;
    ScopedNologLock lock(_mutex);
    closeLocked();
    _to_devnull.store(true);
    _suspended = true;
}

void LogAppender::unsuspend(const Logger::path_replacements& replacements) {
    if (!_suspended) return;
    const Str name = do_replacement(_configuredName, replacements);
    {
        ScopedNologLock lock(_mutex);
        _filename = name;
        if (openFile()) closeLocked();
        _to_devnull.store(false);
        _suspended = false;
    }
    reportNotes();
}

// ---------------------------------------------------------------- resets

void LogAppender::resetToDefaultsLocked() {
    _maxFileSize = 0;
    _maxBackupIndex = 0;
    _maxMessageSize.store(DEFAULT_MAX_MESSAGE_SIZE);
    _bufferSize = DEFAULT_BUFFER_SIZE;
    _serialization.store(LogFormat::SERIALIZATION_NORMAL);
    setFormat(LogFormat::defaultLayout());
}

void LogAppender::releaseAppenderFds() {
    forEach(
        [](LogAppender* a) {
            {
                ScopedNologLock lock(a->_mutex);
                if (!a->_buffer.empty()) a->writeBufferLocked();
                a->closeLocked();
                a->resetToDefaultsLocked();
            }
            a->reportNotes();
        },
        true);
}

void LogAppender::reinitAppenders() {
    Thread::assertNotMultithreadedYet();
    releaseAppenderFds();
    AppenderMap doomed;
    {
        ScopedNologLock lock(appender_map_mutex);
        doomed.swap(appender_map());
    }
    for (auto& [name, a] : doomed) delete a;
    LogAppender* root = rootAppender();
    ScopedNologLock lock(root->_mutex);
    root->closeLocked();
    root->_filename.clear();
    root->_configuredName.clear();
    root->_fd = STDERR_FILENO;
    root->_buffer.clear();
    root->_to_devnull.store(false);
    root->_escape.store(true);
    root->_suspended = false;
    root->_failureReported = false;
    for (LogFormat* f : root->_retiredFormats) delete f;
    root->_retiredFormats.clear();
}
