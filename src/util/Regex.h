#pragma once
// Regular expressions over PCRE2 (8-bit, UTF mode). A Regex is a handle on a
// compiled object shared by every handle of the same pattern text, found in
// a process-wide cache of three generations: a pattern dropped and asked for
// again soon is not compiled again.
//
// Subjects must be UTF-8. Public entry points check that they are before
// PCRE2 sees them (a text that is not valid UTF-8 never matches); loops
// inside this class check once and then match without the check.

#include <cstddef>
#include <cstdint>
#include <utility>
#include <vector>

#include "util/Str.h"
#include "util/StrVector.h"

struct pcre2_real_code_8;
struct pcre2_real_match_context_8;
class Logger;
class RegexMatch;
class RegexReplacementPattern;

class RegexException : public BaseException {
public:
    explicit RegexException(const char* message) noexcept : BaseException(message) {}
};

enum pcre2_jit_enabled_state {
    PCRE2JIT_NOT_CHECKED_YET = 0,
    PCRE2JIT_DISABLED_FOR_FUTURE_BUT_WASNT_USED_ANYWAY = 1,
    PCRE2JIT_NOT_AVAILABLE = 2,
    PCRE2JIT_EXPLICITLY_DISABLED = 3,
    PCRE2JIT_DOES_NOT_WORK = 4,
    PCRE2JIT_DISABLED_LATER = 5,
    PCRE2JIT_DISABLED_PAX = 6,
    PCRE2JIT_DISABLED_SELINUX = 7,
    PCRE2JIT_ENABLED = 8,
    PCRE2JIT_EXPLICITLY_ENABLED = 9,
};

// The process's state; runs the check on first use.
pcre2_jit_enabled_state regex_jit_state();
// The check itself, without touching the process's state: the environment
// variable, the status file at `statusPath` (its "PaX:" line) and SELinux as
// `selinuxEnabled` reports it (null: ask libselinux, if it can be loaded).
pcre2_jit_enabled_state regex_jit_check(const char* statusPath, bool (*selinuxEnabled)());

enum mem_regexmatch_mode_t {
    MEM_REGEXMATCH_PLAIN = 0,
    MEM_REGEXMATCH_FULL = 1,
    MEM_REGEXMATCH_ANCHORED = 2,
};

class Regex {
public:
    enum MatchMode { MATCH_NORMAL = 0, MATCH_NOTBOL = 1, MATCH_FULL = 2, MATCH_PARTIAL = 3 };
    static constexpr size_t INVALID_GROUP = ~size_t{0};

    class impl {
    public:
        struct one_re {
            pcre2_real_code_8* code = nullptr;
            bool jit = false;
        };
        struct named_group {
            const char* name;  // points into the compiled pattern's name table
            size_t length;
            uint32_t group;
        };

        constexpr impl() = default;
        ~impl();
        impl(const impl&) = delete;
        impl& operator=(const impl&) = delete;

        // Throws RegexException when `pattern` does not compile.
        static impl* compile(const char* pattern, size_t length);

        one_re _re;
        one_re _full_re;
        uint32_t _capture_count = 0;
        std::vector<named_group> _named_groups;
        bool _anchored = false;
        // The pattern text (owned, zero-terminated) and its djb2 hash.
        char* _pattern = nullptr;
        size_t _pattern_len = 0;
        uint64_t _pattern_hash = 0;
        size_t _refcnt = 0;

    private:
        void _internal_init(const char* pattern, size_t length);
    };
    static impl EMPTY_IMPL;

    Regex() = default;
    Regex(const Str& pattern) { init(pattern); }
    Regex(const char* pattern) { init(pattern, strlen(pattern)); }
    Regex(const Regex& other);
    Regex(Regex&& other) noexcept : _impl(other._impl) { other._impl = &EMPTY_IMPL; }
    Regex& operator=(const Regex& other) {
        _set(other);
        return *this;
    }
    Regex& operator=(Regex&& other) noexcept {
        std::swap(_impl, other._impl);
        return *this;
    }
    ~Regex() { clear(); }

    void init(const Str& pattern) { init(pattern.data(), pattern.size()); }
    void init(const char* pattern, size_t length);
    // Case-insensitive: "(?i)" in front.
    void initCaseless(const Str& pattern);
    void clear();
    void _set(const Regex& other);

    bool empty() const { return _impl == &EMPTY_IMPL; }
    StrSegment pattern() const {
        return StrSegment(_impl->_pattern ? _impl->_pattern : "", _impl->_pattern_len);
    }
    uint32_t getCaptureGroupCount() const { return _impl->_capture_count; }
    const impl* _getImpl() const { return _impl; }

    // Whether the text matches; `match` (if not null) gets the groups and
    // `rest` (if not null) what follows the match.
    bool matchBase(const char* data, size_t length, RegexMatch* match, StrSegment* rest,
                   MatchMode mode = MATCH_NORMAL) const;
    bool matches(StrSegment text) const {
        return matchBase(text.data(), text.size(), nullptr, nullptr);
    }
    bool fullyMatches(StrSegment text) const {
        return matchBase(text.data(), text.size(), nullptr, nullptr, MATCH_FULL);
    }
    bool match(StrSegment text, RegexMatch* m) const {
        return matchBase(text.data(), text.size(), m, nullptr);
    }
    // False for an empty segment; on a match, `seg` becomes what follows it.
    bool _matchAndConsume(StrSegment* seg, RegexMatch* match, MatchMode mode) const;

    // Every match replaced by `pattern`, into `out` (which is replaced);
    // the number of replacements. Without a match `out` is the text itself.
    size_t _replaceAll(Str* out, const char* data, size_t length,
                       const RegexReplacementPattern& pattern) const;
    // `match` was found in text starting at `from`; `rest` follows it.
    size_t replaceAfterFirstMatch(Str* out, const char* from, StrSegment rest,
                                  const RegexReplacementPattern& pattern, RegexMatch* match) const;
    // The pieces between matches, appended to `out`; their count.
    size_t split(const char* data, size_t length, StrSegmentVector* out) const;

    // A group's number, or INVALID_GROUP.
    size_t findNamedGroup(const char* name) const { return findNamedGroup(name, strlen(name)); }
    size_t findNamedGroup(const char* name, size_t length) const;
    bool _matchEmpty() const;

    // A backslash before each byte with a meaning in patterns.
    static void escapeMetaChars(Str* out, const char* data, size_t length);
    static Str escapeMetaChars(const char* data, size_t length);

    static void rotateCache();
    static void setCacheHiwater(size_t hiwater);
    struct metrics {
        uint32_t hits = 0;
        uint32_t misses = 0;
        uint32_t races = 0;
        uint64_t rotations = 0;
        uint64_t freed = 0;
    };
    static metrics getMetricsDestructive();
    static void disableFutherJitCompiling();
    static void logAlternativeRegexEngineDetails(Logger& log);
    // Forgets the JIT decision, so that the next compile checks again.
    static void _resetJitCheckForTesting();

    // Internal: matching on text known to be valid UTF-8.
    bool _matchValid(const char* data, size_t length, RegexMatch* match, StrSegment* rest,
                     MatchMode mode) const;
    static impl* _get(const char* text, size_t length, uint64_t hash);

private:
    impl* _impl = &EMPTY_IMPL;
};

class CrashLogWriteHandler;
// "/pattern/"; the crash form allocates nothing.
void append_stringified(Str* dest, const Regex& re);
void crashlog_write(CrashLogWriteHandler& h, const Regex& re);

// Where the regex matches, or -1; the text must be valid UTF-8 or it does not.
long mem_regexmatch(const Regex& re, const char* data, size_t length, mem_regexmatch_mode_t mode);
long mem_regexmatch(const Regex& re, const char* data, size_t length, size_t offset,
                    mem_regexmatch_mode_t mode);

class RegexMatch {
public:
    struct RegexMatchLimits {
        uint32_t matchLimit;
        uint32_t depthLimit;
    };
    // A group's start and end in the text; start is npos when it did not take part.
    struct group {
        size_t start = ~size_t{0};
        size_t end = ~size_t{0};
        bool valid() const { return start != ~size_t{0}; }
    };

    RegexMatch() = default;
    ~RegexMatch();
    RegexMatch(const RegexMatch&) = delete;
    RegexMatch& operator=(const RegexMatch&) = delete;

    void clear() {
        _groups.clear();
        _text = nullptr;
        _matchStart = 0;
        _matchLength = 0;
        _limitExceeded = 0;
    }
    void swap(RegexMatch& other) noexcept;
    size_t size() const { return _groups.size(); }
    size_t getGroupMatchStart(unsigned idx) const;
    size_t getGroupMatchEnd(unsigned idx) const;
    bool isGroupSet(unsigned idx) const { return idx < size() && _groups[idx].valid(); }
    // The group's text; empty when it did not take part.
    StrSegment getGroup(unsigned idx) const;
    const char* text() const { return _text; }
    size_t matchStart() const { return _matchStart; }
    size_t matchLength() const { return _matchLength; }
    // 0 none, 1 depth limit, 2 match limit.
    int limitExceeded() const { return _limitExceeded; }

    void setLimits(const RegexMatchLimits& limits);
    pcre2_real_match_context_8* _matchContext() const { return _context; }
    // `ovector` holds a start and end for each of `count` groups.
    void init(const Regex* re, const char* text, const unsigned long* ovector, size_t count);
    void _setLimitExceeded(int which) { _limitExceeded = which; }

private:
    std::vector<group> _groups;
    const char* _text = nullptr;
    pcre2_real_match_context_8* _context = nullptr;
    size_t _matchStart = 0;
    size_t _matchLength = 0;
    int _limitExceeded = 0;
};

// Literal pieces, each followed by a group reference (or none).
class RegexReplacementPattern {
public:
    static constexpr size_t NO_GROUP = ~size_t{0};

    RegexReplacementPattern() = default;
    void clear() {
        _literals.clear();
        _refs.clear();
        _refNames.clear();
        _pieceCount = ~size_t{0};
    }
    bool valid() const { return _pieceCount != ~size_t{0}; }
    size_t pieceCount() const { return _pieceCount; }
    bool hasBackrefs() const { return _refs.size() > 0 && _refs.front() != NO_GROUP; }

    // The text as it stands.
    void initWithoutBackrefs(StrSegment text);
    // "\N" (decimal digits) is group N, "\\" a backslash; any other
    // backslash stands for itself.
    void initWithBackrefs(StrSegment text);

    void substitute(Str* out, const RegexMatch& match) const;
    // False, with the reference's text in `unresolved`, at the first
    // reference to a group the match does not have; out holds what came before.
    bool substitute(Str* out, const RegexMatch& match, StrSegment* unresolved) const;

private:
    StrVector _literals;
    std::vector<size_t> _refs;
    StrVector _refNames;
    size_t _pieceCount = ~size_t{0};
};

class RegexReplacementPatternWithoutBackrefs : public RegexReplacementPattern {
public:
    explicit RegexReplacementPatternWithoutBackrefs(StrSegment text) { initWithoutBackrefs(text); }
};

struct RegexReplacementConstants {
    // Replaces by nothing: erasing.
    static const RegexReplacementPatternWithoutBackrefs EMPTY;
};
