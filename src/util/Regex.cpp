#define PCRE2_CODE_UNIT_WIDTH 8
#include "util/Regex.h"

#include <dlfcn.h>
#include <pcre2.h>

#include <algorithm>
#include <atomic>
#include <cstdio>
#include <new>

#include "libzero/assertion.h"
#include "libzero/djb2.h"
#include "util/BasicConversions.h"
#include "util/CrashLog.h"
#include "util/HashedStr.h"
#include "util/Logger.h"
#include "util/ThreadLocks.h"

Logger regex_log("Regex");

static_assert(sizeof(PCRE2_SIZE) == sizeof(unsigned long), "ovectors are passed as unsigned long");

namespace {

constexpr uint32_t COMPILE_OPTIONS = PCRE2_UTF | PCRE2_AUTO_CALLOUT;
constexpr uint32_t FULL_COMPILE_OPTIONS = COMPILE_OPTIONS | PCRE2_ANCHORED;
constexpr uint32_t JIT_OPTIONS = PCRE2_JIT_COMPLETE | PCRE2_JIT_PARTIAL_HARD;
static_assert(COMPILE_OPTIONS == 0x00080004 && FULL_COMPILE_OPTIONS == 0x80080004 &&
              JIT_OPTIONS == 5);

// ---------------------------------------------------------------- JIT decision

std::atomic<int> jit_state{PCRE2JIT_NOT_CHECKED_YET};
Mutex jit_check_mutex{PthreadMutexImpl::StaticInit{}};

bool selinux_enabled_via_libselinux() {
    // No link-time dependency: a system without libselinux has no SELinux.
    void* lib = dlopen("libselinux.so.1", RTLD_NOW | RTLD_LOCAL);
    if (lib == nullptr) return false;
    auto fn = reinterpret_cast<int (*)()>(dlsym(lib, "is_selinux_enabled"));
    const bool enabled = fn != nullptr && fn() > 0;
    dlclose(lib);
    return enabled;
}

bool pax_mprotect_active(const char* statusPath) {
    FILE* f = fopen(statusPath, "re");
    if (f == nullptr) return false;
    char line[256];
    bool found = false;
    while (fgets(line, sizeof line, f) != nullptr) {
        if (strncmp(line, "PaX:", 4) == 0) {
            found = strchr(line + 4, 'E') != nullptr;
            break;
        }
    }
    fclose(f);
    return found;
}

bool jit_trial() {
    int err = 0;
    PCRE2_SIZE off = 0;
    static const char pattern[] = "^a[bcd]e$";
    pcre2_code* code = pcre2_compile(reinterpret_cast<PCRE2_SPTR>(pattern), sizeof pattern - 1,
                                     COMPILE_OPTIONS, &err, &off, nullptr);
    if (code == nullptr) return false;
    bool ok = false;
    size_t jitSize = 0;
    if (pcre2_jit_compile(code, JIT_OPTIONS) == 0 &&
        pcre2_pattern_info(code, PCRE2_INFO_JITSIZE, &jitSize) == 0 && jitSize > 0) {
        pcre2_match_data* md = pcre2_match_data_create_from_pattern(code, nullptr);
        if (md != nullptr) {
            ok = pcre2_jit_match(code, reinterpret_cast<PCRE2_SPTR>("ace"), 3, 0,
                                 PCRE2_NO_UTF_CHECK, md, nullptr) >= 0;
            pcre2_match_data_free(md);
        }
    }
    pcre2_code_free(code);
    return ok;
}

int current_jit_state() {
    const int s = jit_state.load(std::memory_order_acquire);
    if (s != PCRE2JIT_NOT_CHECKED_YET) return s;
    ScopedLock lock(jit_check_mutex);
    if (jit_state.load(std::memory_order_relaxed) == PCRE2JIT_NOT_CHECKED_YET) {
        jit_state.store(regex_jit_check("/proc/self/status", nullptr), std::memory_order_release);
    }
    return jit_state.load(std::memory_order_relaxed);
}

bool jit_usable() { return current_jit_state() >= PCRE2JIT_ENABLED; }

const char* jit_state_text(int state, int* level) {
    *level = LOG_LEVEL_INFO;
    switch (state) {
        case PCRE2JIT_NOT_AVAILABLE:
            *level = LOG_LEVEL_WARN;
            return "JIT not available in regex library";
        case PCRE2JIT_EXPLICITLY_DISABLED:
            return "Regex JIT explicitly disabled";
        case PCRE2JIT_DOES_NOT_WORK:
            *level = LOG_LEVEL_WARN;
            return "Regex JIT did not seem to work";
        case PCRE2JIT_DISABLED_LATER:
            *level = LOG_LEVEL_DEBUG;
            return "Regex JIT disabled in this process now, but was enabled earlier";
        case PCRE2JIT_DISABLED_PAX:
            return "Regex JIT disabled due to PaX MPROTECT";
        case PCRE2JIT_DISABLED_SELINUX:
            return "Regex JIT disabled due to SELinux";
        case PCRE2JIT_ENABLED:
            return "Regex JIT enabled";
        case PCRE2JIT_EXPLICITLY_ENABLED:
            return "Regex JIT explicitly enabled";
        default:
            return nullptr;
    }
}

bool should_try_re2() {
    static const bool answer = [] {
        EnvironmentVariable env("TARVEX_RE2_REGEXES");
        switch (env.parseBool()) {
            case EnvironmentVariable::BOOL_FALSE:
                return false;
            case EnvironmentVariable::BOOL_INVALID:
                regex_log.warn("Can't parse TARVEX_RE2_REGEXES setting of \"%s\", disabling re2",
                               env.value());
                return false;
            default:
                return true;
        }
    }();
    static const bool noted = addGlobalCrashLogNotationConstant(
        answer ? "RE2 regex engine enabled\n" : "RE2 regex engine disabled\n");
    (void)noted;
    return answer;
}

// ---------------------------------------------------------------- compiling

class CompileNotation : public ScopedPerThreadCrashLogNotation {
public:
    CompileNotation(const char* pattern, size_t length) : _pattern(pattern, length) { publish(); }
    void setStage(const char* stage) {
        _stage = stage;
        publish();
    }
    void renderTo(CrashLogWriteHandler& h) const override {
        h.write("WHILE COMPILING REGEX: /");
        h.write(_pattern);
        h.write("/");
        if (_stage != nullptr) {
            h.write(" (");
            h.write(_stage);
            h.write(")");
        }
    }

private:
    StrSegment _pattern;
    const char* _stage = nullptr;
};

void jit_compile(Regex::impl::one_re* re) {
    size_t jitSize = 0;
    re->jit = pcre2_jit_compile(re->code, JIT_OPTIONS) == 0 &&
              pcre2_pattern_info(re->code, PCRE2_INFO_JITSIZE, &jitSize) == 0 && jitSize > 0;
}

Str pcre2_error_text(int code) {
    PCRE2_UCHAR buffer[512];
    const int n = pcre2_get_error_message(code, buffer, sizeof buffer);
    return n < 0 ? Str("unknown error") : Str(reinterpret_cast<const char*>(buffer), size_t(n));
}

// ---------------------------------------------------------------- match data

// Grows only; one per thread, freed when the thread ends.
struct ThreadMatchData {
    pcre2_match_data* data = nullptr;
    uint32_t pairs = 0;
    ~ThreadMatchData() {
        if (data != nullptr) pcre2_match_data_free(data);
    }
};
thread_local ThreadMatchData tls_match_data;

pcre2_match_data* _tmp_match_data(uint32_t pairs) {
    ThreadMatchData& t = tls_match_data;
    if (__builtin_expect(pairs > t.pairs, 0)) {
        const uint32_t want = std::max<uint32_t>(pairs, 16);
        pcre2_match_data* fresh = pcre2_match_data_create(want, nullptr);
        if (fresh == nullptr) throw std::bad_alloc();
        if (t.data != nullptr) pcre2_match_data_free(t.data);
        t.data = fresh;
        t.pairs = want;
    }
    return t.data;
}

// The raw match: PCRE2's result code; the text is valid UTF-8.
int run_match(const Regex::impl::one_re& re, const char* data, size_t length, size_t offset,
              uint32_t options, pcre2_match_data* md, pcre2_match_context* ctx) {
    const PCRE2_SPTR subject = reinterpret_cast<PCRE2_SPTR>(data != nullptr ? data : "");
    options |= PCRE2_NO_UTF_CHECK;
    if (re.jit && (options & PCRE2_ANCHORED) == 0) {
        const int rc = pcre2_jit_match(re.code, subject, length, offset, options, md, ctx);
        if (rc != PCRE2_ERROR_JIT_BADOPTION && rc != PCRE2_ERROR_JIT_STACKLIMIT) return rc;
    }
    return pcre2_match(re.code, subject, length, offset, options | PCRE2_NO_JIT, md, ctx);
}

// False for a failure; logs limits and throws on exhausted memory.
bool check_result(int rc, const Regex::impl* impl, RegexMatch* match) {
    if (rc >= 0 || rc == PCRE2_ERROR_PARTIAL) return true;
    switch (rc) {
        case PCRE2_ERROR_NOMATCH:
            return false;
        case PCRE2_ERROR_MATCHLIMIT:
            regex_log.error("Failed in pcre_exec: Error PCRE_ERROR_MATCHLIMIT for regex: %s",
                            impl->_pattern);
            if (match != nullptr) match->_setLimitExceeded(2);
            return false;
        case PCRE2_ERROR_DEPTHLIMIT:
            regex_log.error("Failed in pcre_exec: Error PCRE_ERROR_DEPTHLIMIT for regex: %s",
                            impl->_pattern);
            if (match != nullptr) match->_setLimitExceeded(1);
            return false;
        case PCRE2_ERROR_NOMEMORY:
            throw std::bad_alloc();
        default:
            return false;
    }
}

// Steps past one UTF-8 character of valid text.
size_t utf8_step(const char* p, size_t available) {
    const unsigned char b = static_cast<unsigned char>(*p);
    const size_t n = b < 0xC0 ? 1 : b < 0xE0 ? 2 : b < 0xF0 ? 3 : 4;
    return std::min(n, available);
}

// ---------------------------------------------------------------- the cache

enum regex_cache_state_t {
    REGEX_CACHE_UNITIALIZED = 0,
    REGEX_CACHE_INITIALIZED = 1,
    REGEX_CACHE_DESTROYED = 2,
};
int regex_cache_state = REGEX_CACHE_UNITIALIZED;

using StringToRegexImpl = HashedStrMap<Regex::impl*>;

struct GlobalRegexCache {
    StringToRegexImpl _active;
    StringToRegexImpl _recent;
    StringToRegexImpl _old;
    Mutex _mutex;
    size_t _hiwater = 8;
    uint32_t _hits = 0;
    uint32_t _misses = 0;
    uint32_t _races = 0;
    uint64_t _rotations = 0;
    uint64_t _freed = 0;

    Regex::impl* lookup(const char* text, size_t length, uint64_t hash) {
        auto it = _active.find(text, length, hash);
        if (it != _active.end()) {
            Regex::impl* i = it->second.value;
            ++i->_refcnt;
            return i;
        }
        for (StringToRegexImpl* gen : {&_recent, &_old}) {
            it = gen->find(text, length, hash);
            if (it == gen->end()) continue;
            Regex::impl* i = it->second.value;
            ASSERT(i->_refcnt == 0);
            gen->erase(it);
            _active.insert(i->_pattern, i->_pattern_len, i->_pattern_hash, i);
            ++i->_refcnt;
            return i;
        }
        return nullptr;
    }

    void rotate() {
        ASSERT(regex_cache_state == REGEX_CACHE_INITIALIZED);
        ++_rotations;
        _freed += _old.size();
        for (auto& e : _old) delete e.second.value;
        _old.clear();
        _recent.swap(_old);
    }
};

// Never destroyed: handles may outlive static destruction; what is unused
// is freed at exit, and later drops free their objects alone.
GlobalRegexCache* regex_cache = nullptr;

GlobalRegexCache& cache() {
    if (__builtin_expect(regex_cache == nullptr, 0)) regex_cache = new GlobalRegexCache();
    return *regex_cache;
}

struct GlobalRegexCacheSingletonConstructor {
    GlobalRegexCacheSingletonConstructor() { cache(); }
    ~GlobalRegexCacheSingletonConstructor() {
        GlobalRegexCache& c = cache();
        ScopedLock lock(c._mutex);
        if (regex_cache_state == REGEX_CACHE_INITIALIZED) {
            for (StringToRegexImpl* gen : {&c._recent, &c._old}) {
                for (auto& e : *gen) delete e.second.value;
                gen->clear();
            }
        }
        regex_cache_state = REGEX_CACHE_DESTROYED;
    }
} regex_cache_singleton_constructor;

}  // namespace

// ---------------------------------------------------------------- JIT

pcre2_jit_enabled_state regex_jit_check(const char* statusPath, bool (*selinuxEnabled)()) {
    int state = PCRE2JIT_NOT_CHECKED_YET;
    EnvironmentVariable env("TARVEX_JIT_REGEXES");
    switch (env.parseBool()) {
        case EnvironmentVariable::BOOL_TRUE:
            state = PCRE2JIT_EXPLICITLY_ENABLED;
            break;
        case EnvironmentVariable::BOOL_FALSE:
            return PCRE2JIT_EXPLICITLY_DISABLED;
        case EnvironmentVariable::BOOL_INVALID:
            regex_log.warn("Can't parse TARVEX_JIT_REGEXES setting of \"%s\", ignoring",
                           env.value());
            break;
        default:
            break;
    }
    ScopedPerThreadCrashLogConstantStringNotation note(
        "**********\n***\n*** Crashed while determining whether Regex JIT works\n***\n*** "
        "Functionality can be explicitly disabled by setting TARVEX_JIT_REGEXES");
    uint32_t haveJit = 0;
    if (pcre2_config(PCRE2_CONFIG_JIT, &haveJit) < 0 || haveJit == 0) return PCRE2JIT_NOT_AVAILABLE;
    if (state != PCRE2JIT_EXPLICITLY_ENABLED) {
        if (pax_mprotect_active(statusPath)) return PCRE2JIT_DISABLED_PAX;
        const bool selinux =
            selinuxEnabled != nullptr ? selinuxEnabled() : selinux_enabled_via_libselinux();
        if (selinux) return PCRE2JIT_DISABLED_SELINUX;
    }
    if (!jit_trial()) return PCRE2JIT_DOES_NOT_WORK;
    return state == PCRE2JIT_EXPLICITLY_ENABLED ? PCRE2JIT_EXPLICITLY_ENABLED : PCRE2JIT_ENABLED;
}

pcre2_jit_enabled_state regex_jit_state() {
    return static_cast<pcre2_jit_enabled_state>(current_jit_state());
}

void Regex::disableFutherJitCompiling() {
    ScopedLock lock(jit_check_mutex);
    const int s = jit_state.load(std::memory_order_relaxed);
    if (s == PCRE2JIT_NOT_CHECKED_YET) {
        jit_state.store(PCRE2JIT_DISABLED_FOR_FUTURE_BUT_WASNT_USED_ANYWAY);
    } else if (s >= PCRE2JIT_ENABLED) {
        jit_state.store(PCRE2JIT_DISABLED_LATER);
    }
}

void Regex::_resetJitCheckForTesting() { jit_state.store(PCRE2JIT_NOT_CHECKED_YET); }

void Regex::logAlternativeRegexEngineDetails(Logger& log) {
    int level = LOG_LEVEL_INFO;
    const char* text = jit_state_text(current_jit_state(), &level);
    if (text != nullptr) {
        switch (level) {
            case LOG_LEVEL_WARN:
                log.warn("%s", text);
                break;
            case LOG_LEVEL_DEBUG:
                log.debug("%s", text);
                break;
            default:
                log.info("%s", text);
                break;
        }
    }
    log.info("RE2 library %s", should_try_re2() ? "enabled" : "disabled");
}

// ---------------------------------------------------------------- impl

constinit Regex::impl Regex::EMPTY_IMPL;

Regex::impl::~impl() {
    ASSERT(_refcnt < 2);
    if (_re.code != nullptr) pcre2_code_free(_re.code);
    if (_full_re.code != nullptr) pcre2_code_free(_full_re.code);
    free(_pattern);
}

Regex::impl* Regex::impl::compile(const char* pattern, size_t length) {
    impl* i = new impl();
    try {
        i->_internal_init(pattern, length);
    } catch (...) {
        delete i;
        throw;
    }
    return i;
}

void Regex::impl::_internal_init(const char* pattern, size_t length) {
    _pattern = static_cast<char*>(malloc(length + 1));
    if (_pattern == nullptr) throw std::bad_alloc();
    if (length > 0) memcpy(_pattern, pattern, length);
    _pattern[length] = '\0';
    _pattern_len = length;
    _pattern_hash = djb2_hash_n(pattern, length);

    CompileNotation note(_pattern, length);
    const bool useJit = jit_usable();
    int err = 0;
    PCRE2_SIZE off = 0;
    _re.code = pcre2_compile(reinterpret_cast<PCRE2_SPTR>(_pattern), length, COMPILE_OPTIONS, &err,
                             &off, nullptr);
    if (_re.code == nullptr) {
        if (err == PCRE2_ERROR_NOMEMORY) throw std::bad_alloc();
        Str message("Regex: ");
        message.append(pcre2_error_text(err));
        message.appendFormat(" at offset %zu of /%s/", size_t(off), _pattern);
        throw RegexException(message.c_str());
    }
    if (useJit) {
        note.setStage("during JIT compile");
        jit_compile(&_re);
    }
    note.setStage(nullptr);

    pcre2_pattern_info(_re.code, PCRE2_INFO_CAPTURECOUNT, &_capture_count);
    uint32_t options = 0;
    const int rc = pcre2_pattern_info(_re.code, PCRE2_INFO_ALLOPTIONS, &options);
    if (rc != 0) {
        regex_log.error("Failed to lookup PCRE options with return=%d (regex=%s).", rc, _pattern);
    } else {
        _anchored = (options & PCRE2_ANCHORED) != 0;
    }

    uint32_t nameCount = 0, entrySize = 0;
    PCRE2_SPTR table = nullptr;
    if (pcre2_pattern_info(_re.code, PCRE2_INFO_NAMECOUNT, &nameCount) != 0 ||
        (nameCount > 0 &&
         (pcre2_pattern_info(_re.code, PCRE2_INFO_NAMEENTRYSIZE, &entrySize) != 0 ||
          pcre2_pattern_info(_re.code, PCRE2_INFO_NAMETABLE, &table) != 0))) {
        regex_log.error("Failed to get info about name table (regex=%s).", _pattern);
        nameCount = 0;
    }
    if (nameCount > 0) {
        _named_groups.reserve(nameCount);
        for (uint32_t n = 0; n < nameCount; ++n) {
            const PCRE2_SPTR e = table + size_t(n) * entrySize;
            const char* name = reinterpret_cast<const char*>(e + 2);
            _named_groups.push_back({name, strlen(name), uint32_t(e[0]) << 8 | e[1]});
        }
        std::stable_sort(_named_groups.begin(), _named_groups.end(),
                         [](const named_group& a, const named_group& b) {
                             return mem_compare_normal(a.name, a.length, b.name, b.length) < 0;
                         });
        // Equal names stand together; the last of each run is kept.
        size_t out = 0;
        bool dropped = false;
        for (size_t k = 0; k < _named_groups.size(); ++k) {
            const named_group& g = _named_groups[k];
            if (out > 0 && mem_equals(_named_groups[out - 1].name, _named_groups[out - 1].length,
                                      g.name, g.length)) {
                _named_groups[out - 1] = g;
                dropped = true;
            } else {
                _named_groups[out++] = g;
            }
        }
        _named_groups.resize(out);
        if (dropped) {
            regex_log.warn(
                "Multiple named subpatterns with the same name were found. This is not supported. "
                "The last match will be returned.");
        }
    }

    note.setStage("compiling full-match pattern");
    Str full("(?:");
    full.append(_pattern, length);
    full.append(")\\z");
    _full_re.code = pcre2_compile(reinterpret_cast<PCRE2_SPTR>(full.data()), full.size(),
                                  FULL_COMPILE_OPTIONS, &err, &off, nullptr);
    uint32_t fullCount = 0;
    if (_full_re.code != nullptr &&
        (pcre2_pattern_info(_full_re.code, PCRE2_INFO_CAPTURECOUNT, &fullCount) != 0 ||
         fullCount != _capture_count)) {
        // Not the same pattern once wrapped: full matches use the plain one.
        pcre2_code_free(_full_re.code);
        _full_re.code = nullptr;
    }
    if (_full_re.code != nullptr && useJit) {
        note.setStage("during full-match JIT compile");
        jit_compile(&_full_re);
    }
}

// ---------------------------------------------------------------- cache

Regex::impl* Regex::_get(const char* text, size_t length, uint64_t hash) {
    GlobalRegexCache& c = cache();
    {
        ScopedLock lock(c._mutex);
        if (regex_cache_state == REGEX_CACHE_UNITIALIZED)
            regex_cache_state = REGEX_CACHE_INITIALIZED;
        if (impl* i = c.lookup(text, length, hash)) {
            ++c._hits;
            return i;
        }
        ++c._misses;
    }
    impl* fresh = impl::compile(text, length);
    ScopedLock lock(c._mutex);
    if (impl* winner = c.lookup(text, length, hash)) {
        ++c._races;
        delete fresh;
        return winner;
    }
    if (regex_cache_state == REGEX_CACHE_DESTROYED) {
        fresh->_refcnt = 1;
        return fresh;
    }
    c._active.insert(fresh->_pattern, fresh->_pattern_len, hash, fresh);
    fresh->_refcnt = 1;
    return fresh;
}

Regex::Regex(const Regex& other) : _impl(other._impl) {
    if (_impl == &EMPTY_IMPL) return;
    ScopedLock lock(cache()._mutex);
    ASSERT(regex_cache_state != REGEX_CACHE_UNITIALIZED);
    ++_impl->_refcnt;
}

void Regex::_set(const Regex& other) {
    if (_impl == other._impl) return;
    clear();
    if (other._impl == &EMPTY_IMPL) return;
    ScopedLock lock(cache()._mutex);
    ASSERT(regex_cache_state != REGEX_CACHE_UNITIALIZED);
    ++other._impl->_refcnt;
    _impl = other._impl;
}

void Regex::init(const char* pattern, size_t length) {
    impl* i = _get(pattern, length, djb2_hash_n(pattern, length));
    clear();
    _impl = i;
}

void Regex::initCaseless(const Str& pattern) {
    Str text("(?i)");
    text.append(pattern);
    init(text);
}

void Regex::clear() {
    impl* i = _impl;
    if (i == &EMPTY_IMPL) return;
    _impl = &EMPTY_IMPL;
    GlobalRegexCache& c = cache();
    ScopedLock lock(c._mutex);
    ASSERT(regex_cache_state != REGEX_CACHE_UNITIALIZED);
    ASSERT(i->_refcnt > 0);
    if (--i->_refcnt > 0) return;
    if (regex_cache_state == REGEX_CACHE_DESTROYED) {
        c._active.erase(i->_pattern, i->_pattern_len, i->_pattern_hash);
        delete i;
        return;
    }
    c._active.erase(i->_pattern, i->_pattern_len, i->_pattern_hash);
    c._recent.insert(i->_pattern, i->_pattern_len, i->_pattern_hash, i);
    if (c._recent.size() > c._hiwater) c.rotate();
}

void Regex::rotateCache() {
    GlobalRegexCache& c = cache();
    ScopedLock lock(c._mutex);
    if (regex_cache_state == REGEX_CACHE_UNITIALIZED) regex_cache_state = REGEX_CACHE_INITIALIZED;
    c.rotate();
}

void Regex::setCacheHiwater(size_t hiwater) {
    GlobalRegexCache& c = cache();
    ScopedLock lock(c._mutex);
    c._hiwater = hiwater;
}

Regex::metrics Regex::getMetricsDestructive() {
    metrics m;
    GlobalRegexCache& c = cache();
    ScopedLock lock(c._mutex);
    if (regex_cache_state != REGEX_CACHE_INITIALIZED) return m;
    m = {c._hits, c._misses, c._races, c._rotations, c._freed};
    c._hits = c._misses = c._races = 0;
    c._rotations = c._freed = 0;
    return m;
}

// ---------------------------------------------------------------- matching

bool Regex::_matchValid(const char* data, size_t length, RegexMatch* match, StrSegment* rest,
                        MatchMode mode) const {
    if (match != nullptr) match->clear();
    ASSERT(data != nullptr || length == 0);
    const impl* i = _impl;
    const bool useFull = mode == MATCH_FULL && i->_full_re.code != nullptr;
    const impl::one_re& re = useFull ? i->_full_re : i->_re;
    if (re.code == nullptr) return false;
    uint32_t options = 0;
    if (mode == MATCH_NOTBOL) options = PCRE2_NOTBOL;
    if (mode == MATCH_PARTIAL) options = PCRE2_PARTIAL_HARD;
    pcre2_match_data* md = _tmp_match_data(i->_capture_count + 1);
    pcre2_match_context* ctx = match != nullptr ? match->_matchContext() : nullptr;
    const int rc = run_match(re, data, length, 0, options, md, ctx);
    if (!check_result(rc, i, match)) return false;
    const int groups = rc == PCRE2_ERROR_PARTIAL ? 1 : rc;
    ASSERT(groups > 0 && uint32_t(groups) <= i->_capture_count + 1);
    const PCRE2_SIZE* ov = pcre2_get_ovector_pointer(md);
    if (mode == MATCH_FULL && (ov[0] != 0 || ov[1] != length)) return false;
    if (rest != nullptr) *rest = StrSegment(data + ov[1], length - ov[1]);
    if (match != nullptr) {
        match->init(this, data, ov, rc == PCRE2_ERROR_PARTIAL ? 1 : i->_capture_count + 1);
    }
    return true;
}

bool Regex::matchBase(const char* data, size_t length, RegexMatch* match, StrSegment* rest,
                      MatchMode mode) const {
    if (match != nullptr) match->clear();
    ASSERT(data != nullptr || length == 0);
    // Invalid UTF-8 is undefined behaviour for PCRE2 without its own check.
    if (!mem_is_valid_utf8(data, length)) return false;
    return _matchValid(data, length, match, rest, mode);
}

bool Regex::_matchAndConsume(StrSegment* seg, RegexMatch* match, MatchMode mode) const {
    if (seg->size() == 0) return false;
    StrSegment rest;
    if (!matchBase(seg->data(), seg->size(), match, &rest, mode)) return false;
    *seg = rest;
    return true;
}

long mem_regexmatch(const Regex& re, const char* data, size_t length, size_t offset,
                    mem_regexmatch_mode_t mode) {
    ASSERT(data != nullptr || length == 0);
    if (offset > length || !mem_is_valid_utf8(data, length)) return -1;
    // A start inside a character would be invalid UTF-8 to PCRE2.
    if (offset < length && (static_cast<unsigned char>(data[offset]) & 0xC0) == 0x80) return -1;
    const Regex::impl* i = re._getImpl();
    const Regex::impl::one_re* prog = &i->_re;
    uint32_t options = 0;
    if (mode == MEM_REGEXMATCH_FULL) {
        if (i->_full_re.code == nullptr) return -1;
        prog = &i->_full_re;
    } else if (mode == MEM_REGEXMATCH_ANCHORED && !i->_anchored) {
        options = PCRE2_ANCHORED;  // run_match sends it to the interpreter
    }
    if (prog->code == nullptr) return -1;
    pcre2_match_data* md = _tmp_match_data(i->_capture_count + 1);
    const int rc = run_match(*prog, data, length, offset, options, md, nullptr);
    if (rc == PCRE2_ERROR_PARTIAL || !check_result(rc, i, nullptr)) return -1;
    const PCRE2_SIZE* ov = pcre2_get_ovector_pointer(md);
    if (mode == MEM_REGEXMATCH_FULL && (ov[0] != offset || ov[1] != length)) return -1;
    return long(ov[0]);
}

long mem_regexmatch(const Regex& re, const char* data, size_t length, mem_regexmatch_mode_t mode) {
    return mem_regexmatch(re, data, length, 0, mode);
}

size_t Regex::findNamedGroup(const char* name, size_t length) const {
    const auto& v = _impl->_named_groups;
    auto it = std::lower_bound(v.begin(), v.end(), StrSegment(name, length),
                               [](const impl::named_group& g, StrSegment key) {
                                   return mem_compare_normal(g.name, g.length, key.data(),
                                                             key.size()) < 0;
                               });
    if (it == v.end() || !mem_equals(it->name, it->length, name, length) || it->group == 0) {
        return INVALID_GROUP;
    }
    return it->group;
}

bool Regex::_matchEmpty() const {
    if (_impl->_re.code == nullptr) return false;
    uint32_t value = 0;
    const int rc = pcre2_pattern_info(_impl->_re.code, PCRE2_INFO_MATCHEMPTY, &value);
    if (rc != 0) {
        Str message;
        message.format("Regex %s: ", _impl->_pattern);
        message.append(pcre2_error_text(rc));
        throw RegexException(message.c_str());
    }
    return value != 0;
}

// ---------------------------------------------------------------- replacing

size_t Regex::replaceAfterFirstMatch(Str* out, const char* from, StrSegment rest,
                                     const RegexReplacementPattern& pattern,
                                     RegexMatch* match) const {
    // The loop matches without PCRE2's check, so the rest is checked here, once.
    const bool restValid = mem_is_valid_utf8(rest.data(), rest.size());
    size_t count = 0;
    for (;;) {
        const char* matchBegin = match->text() + match->matchStart();
        out->append(from, size_t(matchBegin - from));
        pattern.substitute(out, *match);
        ++count;
        from = rest.data();
        if (match->matchLength() == 0) {
            // Past one character, so that the next match can't be here again.
            if (rest.size() == 0) break;
            const size_t step = utf8_step(rest.data(), rest.size());
            out->append(rest.data(), step);
            rest = StrSegment(rest.data() + step, rest.size() - step);
            from = rest.data();
        }
        if (rest.size() == 0 || !restValid) break;
        StrSegment next;
        if (!_matchValid(rest.data(), rest.size(), match, &next, MATCH_NOTBOL)) break;
        rest = next;
    }
    out->append(from, size_t(rest.data() + rest.size() - from));
    return count;
}

size_t Regex::_replaceAll(Str* out, const char* data, size_t length,
                          const RegexReplacementPattern& pattern) const {
    out->clear();
    RegexMatch match;
    StrSegment rest;
    if (!matchBase(data, length, &match, &rest, MATCH_NORMAL)) {
        out->append(data, length);
        return 0;
    }
    return replaceAfterFirstMatch(out, data, rest, pattern, &match);
}

size_t Regex::split(const char* data, size_t length, StrSegmentVector* out) const {
    size_t count = 1;
    if (!mem_is_valid_utf8(data, length)) {
        out->push_back(StrSegment(data, length));
        return count;
    }
    RegexMatch match;
    const char* pieceStart = data;
    StrSegment rest(data, length);
    MatchMode mode = MATCH_NORMAL;
    StrSegment scan = rest;
    while (scan.size() > 0 || scan.data() == data) {
        StrSegment next;
        if (!_matchValid(scan.data(), scan.size(), &match, &next, mode)) break;
        const char* mb = match.text() + match.matchStart();
        if (match.matchLength() == 0) {
            // An empty match splits between characters, never at a piece's start.
            if (mb == pieceStart) {
                if (next.size() == 0) break;
                const size_t step = utf8_step(next.data(), next.size());
                scan = StrSegment(next.data() + step, next.size() - step);
                mode = MATCH_NOTBOL;
                continue;
            }
        }
        out->push_back(StrSegment(pieceStart, size_t(mb - pieceStart)));
        ++count;
        pieceStart = next.data();
        scan = next;
        mode = MATCH_NOTBOL;
        if (scan.size() == 0) break;
    }
    out->push_back(StrSegment(pieceStart, size_t(data + length - pieceStart)));
    return count;
}

void Regex::escapeMetaChars(Str* out, const char* data, size_t length) {
    static const CharacterClass meta("\\^$.[]|()?*+{}-/#");
    out->reserve(out->size() + length + length / 4);
    for (size_t k = 0; k < length; ++k) {
        const unsigned char b = static_cast<unsigned char>(data[k]);
        if (meta.contains(b)) out->push_back('\\');
        out->push_back(char(b));
    }
}

void append_stringified(Str* dest, const Regex& re) {
    dest->push_back('/');
    dest->append(re.pattern());
    dest->push_back('/');
}

void crashlog_write(CrashLogWriteHandler& h, const Regex& re) {
    h.write("/");
    h.write(re.pattern());
    h.write("/");
}

Str Regex::escapeMetaChars(const char* data, size_t length) {
    Str out;
    escapeMetaChars(&out, data, length);
    return out;
}

// ---------------------------------------------------------------- RegexMatch

RegexMatch::~RegexMatch() {
    if (_context != nullptr) pcre2_match_context_free(_context);
}

void RegexMatch::swap(RegexMatch& other) noexcept {
    _groups.swap(other._groups);
    std::swap(_text, other._text);
    std::swap(_context, other._context);
    std::swap(_matchStart, other._matchStart);
    std::swap(_matchLength, other._matchLength);
    std::swap(_limitExceeded, other._limitExceeded);
}

size_t RegexMatch::getGroupMatchStart(unsigned idx) const {
    ASSERT(idx < size());
    const group& g = _groups[idx];
    ASSERT(g.valid());
    return g.start;
}

size_t RegexMatch::getGroupMatchEnd(unsigned idx) const {
    ASSERT(idx < size());
    const group& g = _groups[idx];
    ASSERT(g.valid());
    return g.end;
}

StrSegment RegexMatch::getGroup(unsigned idx) const {
    if (!isGroupSet(idx)) return StrSegment();
    return StrSegment(_text + _groups[idx].start, _groups[idx].end - _groups[idx].start);
}

void RegexMatch::setLimits(const RegexMatchLimits& limits) {
    if (_context == nullptr) {
        _context = pcre2_match_context_create(nullptr);
        if (_context == nullptr) throw std::bad_alloc();
    }
    pcre2_set_match_limit(_context, limits.matchLimit);
    pcre2_set_depth_limit(_context, limits.depthLimit);
}

void RegexMatch::init(const Regex*, const char* text, const unsigned long* ovector, size_t count) {
    _text = text;
    _groups.resize(count);
    for (size_t k = 0; k < count; ++k) {
        const unsigned long s = ovector[2 * k], e = ovector[2 * k + 1];
        if (s == PCRE2_UNSET) {
            _groups[k] = group();
        } else {
            _groups[k].start = s;
            _groups[k].end = e;
        }
    }
    _matchStart = ovector[0];
    _matchLength = ovector[1] > ovector[0] ? ovector[1] - ovector[0] : 0;
}

// ---------------------------------------------------------------- replacement patterns

const RegexReplacementPatternWithoutBackrefs RegexReplacementConstants::EMPTY{StrSegment()};

void RegexReplacementPattern::initWithoutBackrefs(StrSegment text) {
    clear();
    _literals.push_back(Str(text));
    _refs.push_back(NO_GROUP);
    _refNames.push_back(Str());
    _pieceCount = 1;
}

void RegexReplacementPattern::initWithBackrefs(StrSegment text) {
    clear();
    Str literal;
    size_t k = 0;
    while (k < text.size()) {
        const char c = text[k];
        if (c != '\\' || k + 1 == text.size()) {
            literal.push_back(c);
            ++k;
            continue;
        }
        const char n = text[k + 1];
        if (n == '\\') {
            literal.push_back('\\');
            k += 2;
            continue;
        }
        if (n < '0' || n > '9') {
            literal.push_back(c);
            ++k;
            continue;
        }
        size_t end = k + 1, group = 0;
        while (end < text.size() && text[end] >= '0' && text[end] <= '9' && group < 100000) {
            group = group * 10 + size_t(text[end] - '0');
            ++end;
        }
        _literals.push_back(std::move(literal));
        literal = Str();
        _refs.push_back(group);
        _refNames.push_back(Str(text.substr(k, end - k)));
        k = end;
    }
    _literals.push_back(std::move(literal));
    _refs.push_back(NO_GROUP);
    _refNames.push_back(Str());
    _pieceCount = _literals.size();
}

void RegexReplacementPattern::substitute(Str* out, const RegexMatch& match) const {
    for (size_t k = 0; k < _literals.size(); ++k) {
        out->append(_literals[k]);
        if (_refs[k] != NO_GROUP && _refs[k] < match.size()) {
            out->append(match.getGroup(unsigned(_refs[k])));
        }
    }
}

bool RegexReplacementPattern::substitute(Str* out, const RegexMatch& match,
                                         StrSegment* unresolved) const {
    for (size_t k = 0; k < _literals.size(); ++k) {
        out->append(_literals[k]);
        if (_refs[k] == NO_GROUP) continue;
        if (_refs[k] >= match.size()) {
            if (unresolved != nullptr) *unresolved = _refNames[k].seg();
            return false;
        }
        out->append(match.getGroup(unsigned(_refs[k])));
    }
    return true;
}

// ---------------------------------------------------------------- Str

size_t Str::replaceAll(const Regex& re, const RegexReplacementPattern& replacement) {
    Str out;
    const size_t n = re._replaceAll(&out, data(), size(), replacement);
    if (n > 0) swap(out);
    return n;
}

size_t Str::eraseAll(const Regex& re) {
    RegexReplacementPattern nothing;
    nothing.initWithoutBackrefs(StrSegment());
    return replaceAll(re, nothing);
}
