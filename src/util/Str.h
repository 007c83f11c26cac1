#pragma once
// Byte strings: `Str` (owning, zero-terminated), `StrSegment` (a view), and the
// `mem_*` functions on (pointer, length) that hold the real logic, so that one
// implementation serves every string-like type. Text is UTF-8 by convention;
// nothing here enforces it unless it says so.

#include <algorithm>
#include <cstdarg>
#include <cstddef>
#include <cstdint>
#include <cstring>
#include <exception>
#include <stdexcept>
#include <string>
#include <string_view>
#include <type_traits>

#include "libzero/assertion.h"

// For constants that other translation units may read from their own static
// initialisers. GCC evaluates the platform string at compile time; clang 14
// cannot with libstdc++ 12, so there such constants are initialised before
// every ordinary static initialiser instead.
#if defined(__clang__)
#define TX_EARLY_CONSTANT __attribute__((init_priority(101)))
#else
#define TX_EARLY_CONSTANT constinit
#endif

class Str;
class StrSegment;
class AppendStr;
class Regex;
class RegexReplacementPattern;
class UnicodeCodepoint;

// ---------------------------------------------------------------- byte sets

// A set of bytes: byte b is bit (b mod 64) of word (b div 64).
class CharacterClass {
public:
    uint64_t _bits[4];

    constexpr CharacterClass() : _bits{0, 0, 0, 0} {}
    // `positive`: the class is the listed bytes; otherwise all bytes but them.
    constexpr explicit CharacterClass(const char* text, bool positive = true) : _bits{0, 0, 0, 0} {
        setAll(!positive);
        set(text, positive);
    }

    constexpr void setAll(bool value) {
        for (uint64_t& w : _bits) w = value ? ~uint64_t{0} : 0;
    }
    constexpr void set(char c, bool value) {
        const unsigned char b = static_cast<unsigned char>(c);
        const uint64_t bit = uint64_t{1} << (b & 63);
        if (value) {
            _bits[b >> 6] |= bit;
        } else {
            _bits[b >> 6] &= ~bit;
        }
    }
    constexpr void set(const char* text, bool value) {
        for (; *text; ++text) set(*text, value);
    }
    constexpr void set_multi(const char* p, size_t n, bool value) {
        for (size_t i = 0; i < n; ++i) set(p[i], value);
    }

    constexpr bool contains(unsigned char b) const { return (_bits[b >> 6] >> (b & 63)) & 1; }
    constexpr bool contains(char c) const { return contains(static_cast<unsigned char>(c)); }

    constexpr bool operator==(const CharacterClass&) const = default;

    static const CharacterClass DIGITS;
    static const CharacterClass HEX_DIGITS;
    static const CharacterClass ALPHA;
    static const CharacterClass ALPHA_UNDER;
    static const CharacterClass ALPHA_NUM;
    static const CharacterClass ALPHA_NUM_UNDER;
    static const CharacterClass ALPHA_NUM_UNDER_DOT;
    static const CharacterClass ALPHA_NUM_UNDER_DASH;
    static const CharacterClass ALPHA_NUM_UNDER_DASH_DOT;
    static const CharacterClass COMMA_OR_SPACE;
    static const CharacterClass SEARCH_ESC;
    static const CharacterClass ALL_WHITESPACES;  // isspace() in the C locale
};

// A zero-terminated text can't name byte 0; this class treats it as listed.
class CharacterClassIncludingNul : public CharacterClass {
public:
    constexpr explicit CharacterClassIncludingNul(const char* text, bool positive = true)
        : CharacterClass(text, positive) {
        set('\0', positive);
    }
};

struct StrlikeTraits {
    static const CharacterClass default_trimchars;  // blank and tab, not line ends
};

// ---------------------------------------------------------------- mem_ family
// Every function takes (data, length); data need not be zero-terminated.
// Positions are byte offsets; "not found" is the largest size_t, and the same
// value as a count means "to the end".

constexpr size_t MEM_NPOS = ~size_t{0};

size_t mem_bytes_for_substring(size_t length, size_t offset, size_t count);

// The memcmp value of the common prefix, else -1, 0 or 1 by length.
int mem_compare_normal(const char* a, size_t alen, const char* b, size_t blen);
int mem_compare_normal(const char* a, size_t alen, const char* z);
bool mem_equals(const char* a, size_t alen, const char* b, size_t blen);
bool mem_equals_cstring(const char* a, size_t alen, const char* z);
// Strips one pair of double quotes, then one pair of single quotes, from the
// data, and compares the rest exactly.
bool mem_equalsIgnoreQuotes(const char* data, size_t length, const char* z);
// Caseless over Unicode, by the simple lower-case mappings: -1, 0 or 1 as for
// the texts lower-cased, compared by code point. A byte that starts no valid
// sequence compares as itself, above ASCII and below every multi-byte
// character. Defined with the character tables.
int mem_compare_caseless(const char* a, size_t alen, const char* b, size_t blen);
int mem_compare_caseless(const char* a, size_t alen, const char* z);

// Copies the bytes from `offset` on, at most `count`, and returns how many.
size_t mem_copy_piece(const char* data, size_t length, char* dest, size_t count, size_t offset);

size_t mem_find(const char* data, size_t length, char c, size_t offset = 0);
size_t mem_find(const char* data, size_t length, const char* s, size_t slen, size_t offset = 0);
// The first byte whose membership in `cls` equals `member`.
size_t mem_find(const char* data, size_t length, const CharacterClass& cls, size_t offset,
                bool member);
size_t mem_find_first_of(const char* data, size_t length, char c, size_t offset = 0);
// The set forms take every argument: with a default offset, a call like
// (data, length, "ab", 4) would read 4 as the set's length.
size_t mem_find_first_of(const char* data, size_t length, const char* set, size_t setlen,
                         size_t offset);
size_t mem_find_first_not_of(const char* data, size_t length, char c, size_t offset = 0);
size_t mem_find_first_not_of(const char* data, size_t length, const char* set, size_t setlen,
                             size_t offset);

// Last position at or before `offset`; MEM_NPOS searches from the end.
size_t mem_rfind(const char* data, size_t length, char c, size_t offset = MEM_NPOS);
size_t mem_rfind(const char* data, size_t length, const char* s, size_t slen,
                 size_t offset = MEM_NPOS);
size_t mem_rfind(const char* data, size_t length, const CharacterClass& cls, size_t offset,
                 bool member);
size_t mem_find_last_of(const char* data, size_t length, char c, size_t offset = MEM_NPOS);
size_t mem_find_last_of(const char* data, size_t length, const char* set, size_t setlen,
                        size_t offset);
size_t mem_find_last_not_of(const char* data, size_t length, char c, size_t offset = MEM_NPOS);
size_t mem_find_last_not_of(const char* data, size_t length, const char* set, size_t setlen,
                            size_t offset);

bool mem_startswith(const char* data, size_t length, const char* s, size_t slen);
bool mem_startswith(const char* data, size_t length, const char* z);
bool mem_startswith(const char* data, size_t length, const CharacterClass& cls);
bool mem_endswith(const char* data, size_t length, const char* s, size_t slen);
bool mem_endswith(const char* data, size_t length, const char* z);
bool mem_endswith(const char* data, size_t length, const CharacterClass& cls);

// Occurrences from `offset`, over at most `count` bytes.
size_t mem_count_char(const char* data, size_t length, char c, size_t offset = 0,
                      size_t count = MEM_NPOS);
size_t mem_count_char(const char* data, size_t length, const CharacterClass& cls, size_t offset = 0,
                      size_t count = MEM_NPOS);

bool mem_contains_whitespace(const char* data, size_t length);
bool mem_contains_non_ascii(const char* data, size_t length);
// Line feeds plus one: empty data has one line.
size_t mem_linecount(const char* data, size_t length);
size_t mem_find_first_cr_or_lf(const char* data, size_t length, size_t offset = 0);

// Strict UTF-8: no overlong forms, surrogates, values over U+10FFFF, or
// truncated sequences.
bool mem_is_valid_utf8(const char* data, size_t length);
// Counts by lead bytes only, without validation: below 0x80 one byte,
// 0x80-0xDF two, 0xE0-0xEF three, 0xF0-0xF4 four, 0xF5-0xFF one.
size_t mem_count_utf8_codepoints(const char* data, size_t length);
// Byte range of `count` code points from code point `start`; false when the
// data ends before `start`.
bool mem_substr_utf8_codepoints(const char* data, size_t length, size_t start, size_t count,
                                size_t* startByte, size_t* endByte);
// Display columns: the sum of codepoint_width over the code points, a byte
// that starts no valid sequence counting one. Defined with the character
// tables.
size_t mem_display_width(const char* data, size_t length);

// Zero-terminated copies: by malloc (null on exhaustion), by new[] (raises).
char* mem_strdup(const char* data, size_t length);
char* mem_copystr(const char* data, size_t length);

// ---------------------------------------------------------------- numbers
// mem_tryToX stores and returns true, or returns false and leaves *out alone.
// The integer forms accept what strtol(3) accepts in the C locale (leading
// white space, a sign, base 0 auto-detection), consuming every byte, with at
// least one digit and no overflow. The unsigned forms refuse a minus sign
// instead of wrapping around. None of them changes errno.

bool mem_tryToUnsignedLongLong(const char* data, size_t length, unsigned long long* out,
                               int base = 10);
bool mem_tryToUnsignedLong(const char* data, size_t length, unsigned long* out, int base = 10);
bool mem_tryToSizet(const char* data, size_t length, size_t* out, int base = 10);
bool mem_tryToLong(const char* data, size_t length, long* out, int base = 10);
bool mem_tryToLongLong(const char* data, size_t length, long long* out, int base = 10);
bool mem_tryToInt(const char* data, size_t length, int* out, int base = 10);
bool mem_tryToUnsigned(const char* data, size_t length, unsigned* out, int base = 10);
// All bytes consumed, at least one byte, finite result; no white space, no hex.
bool mem_tryToDouble(const char* data, size_t length, double* out);
// Caseless "t", "true", "yes", exactly "1"; caseless "f", "false", "no", exactly "0".
bool mem_tryToBool(const char* data, size_t length, bool* out);

unsigned long long mem_toUnsignedLongLong(const char* data, size_t length, unsigned long long dflt,
                                          int base = 10);
unsigned long mem_toUnsignedLong(const char* data, size_t length, unsigned long dflt,
                                 int base = 10);
size_t mem_toSizet(const char* data, size_t length, size_t dflt, int base = 10);
long mem_toLong(const char* data, size_t length, long dflt, int base = 10);
long long mem_toLongLong(const char* data, size_t length, long long dflt, int base = 10);
int mem_toInt(const char* data, size_t length, int dflt, int base = 10);
unsigned mem_toUnsigned(const char* data, size_t length, unsigned dflt, int base = 10);
double mem_toDouble(const char* data, size_t length, double dflt);
bool mem_toBool(const char* data, size_t length, bool ifEmpty, bool ifInvalid);

// ---------------------------------------------------------------- splitting

// Receives the tokens of the split family, in order.
class StrSegmentTokenAcceptor {
public:
    virtual ~StrSegmentTokenAcceptor();
    virtual void accept(StrSegment token) = 0;
};

constexpr uint32_t SPLIT_NO_LIMIT = 0xFFFFFFFFu;

// Each separator ends a token, possibly empty; after `maximum` separators the
// rest is the last token. Empty input gives no token; maximum 0 gives the
// whole input as one.
void mem_split(const char* data, size_t length, StrSegmentTokenAcceptor& acceptor, char sep,
               uint32_t maximum = SPLIT_NO_LIMIT);
void mem_split(const char* data, size_t length, StrSegmentTokenAcceptor& acceptor,
               const CharacterClass& sep, uint32_t maximum = SPLIT_NO_LIMIT);
// A multi-byte separator; one of length 0 makes one-byte tokens.
void mem_split_mbyte(const char* data, size_t length, StrSegmentTokenAcceptor& acceptor,
                     const char* sep, size_t seplen, uint32_t maximum = SPLIT_NO_LIMIT);
void mem_split_mbytez(const char* data, size_t length, StrSegmentTokenAcceptor& acceptor,
                      const char* sep, uint32_t maximum = SPLIT_NO_LIMIT);
// Runs of separators are skipped and no empty token is emitted; after
// `maximum` tokens the rest, from its first non-separator, is the last one.
void mem_splitNonEmpty(const char* data, size_t length, StrSegmentTokenAcceptor& acceptor, char sep,
                       uint32_t maximum = SPLIT_NO_LIMIT);
void mem_splitNonEmpty(const char* data, size_t length, StrSegmentTokenAcceptor& acceptor,
                       const CharacterClass& sep, uint32_t maximum = SPLIT_NO_LIMIT);
void mem_splitNonEmpty_mbyte(const char* data, size_t length, StrSegmentTokenAcceptor& acceptor,
                             const char* sep, size_t seplen, uint32_t maximum = SPLIT_NO_LIMIT);
void mem_splitNonEmpty_mbytez(const char* data, size_t length, StrSegmentTokenAcceptor& acceptor,
                              const char* sep, uint32_t maximum = SPLIT_NO_LIMIT);
// Lines at LF, without one CR before it; a last piece without LF is emitted
// when not empty, and keeps a CR at its end.
void mem_split_lines(const char* data, size_t length, StrSegmentTokenAcceptor& acceptor);

// ---------------------------------------------------------------- StrSegment

// Pointer and length, owning nothing; valid as long as what it looks at.
class StrSegment {
public:
    typedef size_t size_type;
    static constexpr size_t npos = MEM_NPOS;

    const char* _data = "";
    size_t _len = 0;

    constexpr StrSegment() = default;
    constexpr StrSegment(const char* data, size_t length) : _data(data), _len(length) {}
    constexpr StrSegment(const char* z) : _data(z), _len(std::char_traits<char>::length(z)) {}
    StrSegment(const std::string& s) : _data(s.data()), _len(s.size()) {}
    constexpr StrSegment(std::string_view v) : _data(v.data()), _len(v.size()) {}

    static const StrSegment EMPTY_STRSEGMENT;

    constexpr const char* data() const { return _data; }
    constexpr size_t size() const { return _len; }
    constexpr size_t length() const { return _len; }
    constexpr bool empty() const { return _len == 0; }
    constexpr const char* begin() const { return _data; }
    constexpr const char* end() const { return _data + _len; }
    constexpr char operator[](size_t i) const { return _data[i]; }
    constexpr char front() const { return _data[0]; }
    constexpr char back() const { return _data[_len - 1]; }
    constexpr operator std::string_view() const { return {_data, _len}; }

    void assign(const char* z) {
        _data = z;
        _len = strlen(z);
    }
    void assign(const char* data, size_t length) {
        _data = data;
        _len = length;
    }
    // Moves the start to `p`, which must lie within the view.
    void advanceTo(const char* p) {
        // clang-format off
        ASSERT(_len >= (size_type) (p - _data));
        // clang-format on
        _len -= static_cast<size_t>(p - _data);
        _data = p;
    }
    void pop_back() { --_len; }

    // An offset past the end gives an empty view; never raises.
    StrSegment substr(size_t offset, size_t count = npos) const {
        if (offset >= _len) return StrSegment(_data + _len, 0);
        return StrSegment(_data + offset, mem_bytes_for_substring(_len, offset, count));
    }
    Str toStr() const;

    size_t find(char c, size_t offset = 0) const { return mem_find(_data, _len, c, offset); }
    size_t find(StrSegment s, size_t offset = 0) const {
        return mem_find(_data, _len, s._data, s._len, offset);
    }
    size_t find(const CharacterClass& cls, size_t offset = 0, bool member = true) const {
        return mem_find(_data, _len, cls, offset, member);
    }
    size_t rfind(char c, size_t offset = npos) const { return mem_rfind(_data, _len, c, offset); }
    size_t rfind(StrSegment s, size_t offset = npos) const {
        return mem_rfind(_data, _len, s._data, s._len, offset);
    }
    bool startsWith(StrSegment s) const { return mem_startswith(_data, _len, s._data, s._len); }
    bool endsWith(StrSegment s) const { return mem_endswith(_data, _len, s._data, s._len); }
    bool equals(StrSegment s) const { return mem_equals(_data, _len, s._data, s._len); }
    int compare(StrSegment s) const { return mem_compare_normal(_data, _len, s._data, s._len); }

    // When at least 2 long and both ends are `quote`, drops both.
    bool stripQuotes(char quote = '"');
    StrSegment trim(const CharacterClass& cls = StrlikeTraits::default_trimchars, bool left = true,
                    bool right = true) const;
    StrSegment& trimInPlace(const CharacterClass& cls = StrlikeTraits::default_trimchars,
                            bool left = true, bool right = true);

    // Cuts to at most `limit` bytes without splitting a UTF-8 sequence;
    // returns the new length.
    size_t utf8_aware_truncate(size_t limit);
    // Keeps the first `limit` code points (by lead bytes); a last sequence that
    // overruns the data is cut off whole. Returns the new length.
    size_t utf8_character_count_truncate(size_t limit);
    // Takes one line off the front into `accumulated`, across reads: true when
    // a line ended in this segment. A CR LF split over two reads is one end.
    bool accumulateLine(Str* accumulated);
    // Defined with the character tables.
    bool removeFirstCodepoint(UnicodeCodepoint* codepoint);

    friend bool operator==(StrSegment a, StrSegment b) { return a.equals(b); }
    friend bool operator<(StrSegment a, StrSegment b) { return a.compare(b) < 0; }
};

// The UTF-8 bytes of one code point.
struct utf8_character_buffer {
    char _bytes[4] = {};
    uint8_t _len = 0;

    utf8_character_buffer() = default;
    explicit utf8_character_buffer(uint32_t codepoint) { _set(codepoint); }
    // Code points past U+10FFFF leave the buffer empty.
    void _set(unsigned codepoint);
    const char* data() const { return _bytes; }
    size_t size() const { return _len; }
};

// ---------------------------------------------------------------- Str

// Runs a growing operation made of several appends to `buffer` (a Str or an
// AppendStr): if one throws, what the earlier ones added is taken back, so a
// failure never leaves half an escape or half a number behind.
template <typename Buffer, typename F>
void grow_all_or_nothing(Buffer& buffer, F f) {
    const auto before = buffer.size();
    try {
        f();
    } catch (...) {
        buffer.resize(before);
        throw;
    }
}

// The owning byte string: the platform string (15 bytes in the object, heap
// beyond, always zero-terminated, at most 2^62 - 1 bytes) plus the operations
// below. Appending past that limit raises std::length_error with the text
// "basic_string::append". The platform string's own limit under C++20 is
// 2^63 - 1, and below it a huge append fails as std::bad_alloc; so the
// appends and the library's growing operations check the stated limit first.
class Str : public std::string {
public:
    using std::string::append;
    using std::string::basic_string;
    using std::string::find;
    using std::string::rfind;
    using std::string::operator=;
    using std::string::operator+=;

    static constexpr size_t MAX_LENGTH = (size_t{1} << 62) - 1;

    constexpr Str() noexcept = default;
    Str(const std::string& s) : std::string(s) {}
    Str(std::string&& s) noexcept : std::string(std::move(s)) {}
    explicit Str(StrSegment s) : std::string(s._data, s._len) {}
    Str(const Str&) = default;
    Str(Str&&) noexcept = default;
    Str& operator=(const Str&) = default;
    Str& operator=(Str&&) noexcept = default;
    ~Str() = default;

    static const Str EMPTY_STR;
    static const Str LITERAL_TRUE;
    static const Str LITERAL_FALSE;

    // A new Str holding append_stringified of the value. The Str* argument
    // makes the call find every overload declared where this is used.
    template <class T>
    static Str from(const T& value) {
        Str s;
        append_stringified(&s, value);
        return s;
    }

    // (Conversion to StrSegment goes through StrSegment's constructor.)
    StrSegment seg() const { return StrSegment(data(), size()); }

    size_t max_size() const noexcept { return MAX_LENGTH; }
    Str& append(const char* data, size_t length) {
        _checkAppendLength(length);
        std::string::append(data, length);
        return *this;
    }
    Str& append(const char* z) { return append(z, strlen(z)); }
    Str& append(const std::string& s) { return append(s.data(), s.size()); }
    Str& append(size_t count, char c) {
        _checkAppendLength(count);
        std::string::append(count, c);
        return *this;
    }
    Str& operator+=(const std::string& s) { return append(s.data(), s.size()); }
    Str& operator+=(const char* z) { return append(z, strlen(z)); }
    // Moves whichever way copies fewer bytes; `other` is left unspecified.
    Str& append(Str&& other);
    Str& prepend(Str&& other);
    Str& append(StrSegment s) { return append(s._data, s._len); }

    Str substr(size_t pos = 0, size_t n = npos) const { return Str(std::string::substr(pos, n)); }

    size_t find(const CharacterClass& cls, size_t offset = 0, bool member = true) const {
        return mem_find(data(), size(), cls, offset, member);
    }
    size_t rfind(const CharacterClass& cls, size_t offset = npos, bool member = true) const {
        return mem_rfind(data(), size(), cls, offset, member);
    }
    bool equals(StrSegment s) const { return mem_equals(data(), size(), s._data, s._len); }
    bool startsWith(StrSegment s) const { return mem_startswith(data(), size(), s._data, s._len); }
    bool endsWith(StrSegment s) const { return mem_endswith(data(), size(), s._data, s._len); }
    bool isValidUtf8() const { return mem_is_valid_utf8(data(), size()); }

    // Through the printf engine.
    Str& format(const char* fmt, ...) __attribute__((format(printf, 2, 3)));
    Str& vformat(const char* fmt, va_list args);
    static Str fromFormat(const char* fmt, ...) __attribute__((format(printf, 1, 2)));
    Str& appendFormat(const char* fmt, ...) __attribute__((format(printf, 2, 3)));
    Str& appendVformat(const char* fmt, va_list args);

    // In place; the number of bytes replaced.
    size_t replaceAll(char from, char to);
    size_t replaceAll(const CharacterClass& from, char to);
    // Non-overlapping, left to right; the number of matches.
    size_t _replaceAll(const char* from, size_t fromLength, const char* to, size_t toLength);
    size_t replaceAll(StrSegment from, StrSegment to) {
        return _replaceAll(from._data, from._len, to._data, to._len);
    }
    // Defined with the regular expressions.
    size_t replaceAll(const Regex& re, const RegexReplacementPattern& replacement);
    size_t eraseAll(const Regex& re);

    // Case over all of Unicode by the simple case mappings, with an ASCII fast
    // path. Bytes that are not valid UTF-8 are copied as they stand.
    Str& toLowercase();
    Str& toUppercase();
    Str asLowercase() const;
    Str asUppercase() const;
    // `out` receives the mapped text; it may be `in` itself.
    static void str_tolower(const Str& in, Str* out);
    static void str_toupper(const Str& in, Str* out);
    // Replaces each base character followed by combining marks with the one
    // composed character they make, where there is one; otherwise, and for
    // pure ASCII, the text stays as it is. The marks count as a set.
    Str& resolveUnicodeCombiningMarks();

    Str trim(const CharacterClass& cls = StrlikeTraits::default_trimchars, bool left = true,
             bool right = true) const;
    Str& trimInPlace(const CharacterClass& cls = StrlikeTraits::default_trimchars, bool left = true,
                     bool right = true);
    // When at least 2 long and both ends are `quote`, removes both.
    bool stripQuotes(char quote = '"');

    // A copy with `escapeChar` before each byte of `cls`.
    Str asEscaped(const CharacterClass& cls, char escapeChar = '\\') const;
    // A copy with LF, CR and tab spelled \n, \r, \t.
    Str escapeWhiteSpace() const;
    // Printable ASCII stays; LF and CR become \n and \r, tab a blank, any other
    // byte \xHH. Allocates only when something changes.
    Str& makeSafeForLogging();
    Str& appendDroppingControlCharacters(const char* data, size_t length);
    // Quoted, with quotes doubled, only when a comma, CR, LF or quote occurs.
    Str& appendAsCSV(const char* data, size_t length);
    // Big-endian bytes of the value.
    Str& append4bytesSwappedEndian(uint32_t value);
    Str& append8bytesSwappedEndian(uint64_t value);
    // Seven bits a byte, least significant first, the top bit marking "more".
    void appendBase128(uint64_t v) {
        if (v < 128) {
            push_back(static_cast<char>(v));
        } else {
            _appendBase128(v);
        }
    }
    void _appendBase128(uint64_t v);
    void appendUtf8Codepoint(uint32_t codepoint) {
        if (codepoint < 0x80) {
            push_back(static_cast<char>(codepoint));
        } else {
            _appendUtf8Multibyte(codepoint);
        }
    }
    void _appendUtf8Multibyte(uint32_t codepoint);

    // Whether `p` points into this string's buffer: an append from there
    // must copy first, since growing may move the buffer.
    bool _aliases(const char* p) const { return p >= data() && p <= data() + capacity(); }
    // Raises the length error of an append past the limit, before any byte
    // of the input is read.
    void _checkAppendLength(size_t n) const {
        if (n > MAX_LENGTH - std::min(size(), MAX_LENGTH)) {
            throw std::length_error("basic_string::append");
        }
    }
    template <typename F>
    Str& _allOrNothing(F f) {
        grow_all_or_nothing(*this, f);
        return *this;
    }

    // Unreserved bytes (letters, digits, "-_.~") stay; all others are %XX.
    Str& appendUriEscaped(const char* data, size_t length);
    Str asUriEncoded() const;
    Str& uriEncode();
    // "+" is a blank, %XX a byte; false, with the string unchanged, when the
    // result is not valid UTF-8.
    bool uriDecode();

    // Quoted when needed for a search language: reserved words, bytes outside
    // `cls`; the overload without a class uses ALPHA_NUM_UNDER.
    Str asEscapedSearchTerm(const CharacterClass& cls, bool alwaysQuote = false,
                            bool keepBackslashes = false) const;
    Str asEscapedSearchTerm(bool alwaysQuote = false, bool keepBackslashes = false) const;
    Str& unescapeSearchTerm();
};

// New strings of exactly the needed size. The template takes any pair of
// string-likes of which one is a Str: forwarding references bind exactly,
// so it beats the platform string's own overloads for every value category.
Str operator+(StrSegment a, StrSegment b);

template <class A, class B>
concept StrConcatenation = (std::is_base_of_v<Str, std::remove_cvref_t<A>> ||
                            std::is_base_of_v<Str, std::remove_cvref_t<B>>)&&std::
    is_constructible_v<StrSegment, A>&& std::is_constructible_v<StrSegment, B>;

template <class A, class B>
requires StrConcatenation<A, B>
inline Str operator+(A&& a, B&& b) { return StrSegment(a) + StrSegment(b); }
inline Str operator+(const Str& a, char c) { return StrSegment(a) + StrSegment(&c, 1); }

template <>
struct std::hash<Str> : std::hash<std::string> {};

// A Str that is kept in lower case.
class LStrContainer : public Str {
public:
    using Str::Str;
};

// Seven bits a byte, least significant first, the top bit marking "more":
// the bytes written (at most 10).
size_t render_base128(uint64_t v, char out[10]);

// Replaces the target; false only for null data.
bool mem_parse_into(const char* data, size_t length, Str* dest);
// Replaces the target with the text lower-cased; defined with the case tables.
bool mem_parse_into(const char* data, size_t length, LStrContainer* dest);

// ---------------------------------------------------------------- exceptions

// The root of the library's exceptions. Making or copying one never raises:
// a message that can't be stored is left empty.
class BaseException : public std::exception {
public:
    BaseException() noexcept {}
    explicit BaseException(const char* message) noexcept;
    BaseException(const BaseException& other) noexcept;
    BaseException(BaseException&& other) noexcept = default;
    BaseException& operator=(const BaseException& other) noexcept;
    BaseException& operator=(BaseException&& other) noexcept = default;
    ~BaseException() override;

    // The message, or "BaseException" when it is empty.
    const char* what() const noexcept override;
    const Str& what_as_str() const noexcept { return _message; }

    void _set_str(const char* data, size_t length) noexcept;

protected:
    // prefix (if not null) + the formatted text, with %m the text of `errno`
    // as it stands at the call, or of `errnum`.
    void vformat(const char* prefix, const char* format, va_list args) noexcept;
    void vformat(int errnum, const char* prefix, const char* format, va_list args) noexcept;

    Str _message;
};

void append_stringified(Str* dest, const BaseException& e);
