#include "util/HttpHeaders.h"

#include <unistd.h>

#include <cstdarg>
#include <cstdlib>
#include <cstring>

#include "libzero/assertion.h"
#include "libzero/djb2.h"
#include "util/AppendStr.h"
#include "util/BasicConversions.h"
#include "util/ByteScan.h"
#include "util/DateTime.h"
#include "util/FileDescriptor.h"
#include "util/HttpArguments.h"
#include "util/Pathname.h"
#include "util/TcpChannel.h"
#include "util/UTF8Converter.h"

namespace {

constexpr CharacterClass kHeaderKeyChars(
    "0123456789abcdefghijklmnopqrstuvwxyzABCDEFGHIJKLMNOPQRSTUVWXYZ!#$%&'*+-.^_`|~ ");
constexpr CharacterClass kKeyRightTrim(":\t ");
constexpr CharacterClass kCompressionTokenEnd(" \t;");
constexpr CharacterClass kUserAgentSeparators(";()");
constexpr CharacterClass kCookieNameChars(
    "abcdefghijklmnopqrstuvwxyzABCDEFGHIJKLMNOPQRSTUVWXYZ0123456789!#$%&'*+-.^_`|");
constexpr CharacterClass kCookieValueChars(
    "!#$%&'()*+-./0123456789:<=>?@ABCDEFGHIJKLMNOPQRSTUVWXYZ[]^_`abcdefghijklmnopqrstuvwxyz{|}");
constexpr CharacterClass kCookieDomainChars(
    "-.0123456789:ABCDEFGHIJKLMNOPQRSTUVWXYZ[]abcdefghijklmnopqrstuvwxyz");

inline bool isBlank(char c) { return c == ' ' || c == '\t'; }

inline StrSegment skipBlanks(StrSegment s) {
    while (!s.empty() && isBlank(s[0])) s = s.substr(1);
    return s;
}

inline StrSegment trimBlanks(StrSegment s) {
    s = skipBlanks(s);
    while (!s.empty() && isBlank(s.back())) s.pop_back();
    return s;
}

// HTTP compares its tokens caselessly in ASCII only: a folding that knew
// Unicode would let "\xE2\x84\xAAeep-alive" (Kelvin sign) pass for "keep-alive".
constexpr char asciiLower(char c) { return c >= 'A' && c <= 'Z' ? char(c + 32) : c; }

bool asciiEqualsCaseless(const char* a, const char* b, size_t n) {
    for (size_t i = 0; i < n; ++i) {
        if (a[i] != b[i] && asciiLower(a[i]) != asciiLower(b[i])) return false;
    }
    return true;
}

inline bool equalsCaseless(StrSegment s, const char* z) {
    const size_t n = strlen(z);
    return s.size() == n && asciiEqualsCaseless(s.data(), z, n);
}

inline bool startsCaseless(StrSegment s, const char* z, size_t zlen) {
    return s.size() >= zlen && asciiEqualsCaseless(s.data(), z, zlen);
}

// Each byte of a header key folded to lower case; 0 for a byte no key has.
struct KeyFoldTable {
    char fold[256];
    constexpr KeyFoldTable() : fold() {
        for (unsigned c = 0; c < 256; ++c) {
            fold[c] = kHeaderKeyChars.contains(static_cast<unsigned char>(c))
                          ? asciiLower(static_cast<char>(c))
                          : '\0';
        }
    }
};
constexpr KeyFoldTable kKeyFold;

// Bit i set when byte i is an ASCII letter, a digit or "-".
inline unsigned commonKeyByteMask16(const char* p) {
    const __m128i v = bytescan::load16(p);
    const __m128i lower = _mm_or_si128(v, _mm_set1_epi8(0x20));
    // Signed compares: bytes from 0x80 up are negative and match nothing.
    const __m128i letter = _mm_and_si128(_mm_cmpgt_epi8(lower, _mm_set1_epi8('a' - 1)),
                                         _mm_cmplt_epi8(lower, _mm_set1_epi8('z' + 1)));
    const __m128i digit = _mm_and_si128(_mm_cmpgt_epi8(v, _mm_set1_epi8('0' - 1)),
                                        _mm_cmplt_epi8(v, _mm_set1_epi8('9' + 1)));
    const __m128i dash = _mm_cmpeq_epi8(v, _mm_set1_epi8('-'));
    return unsigned(_mm_movemask_epi8(_mm_or_si128(_mm_or_si128(letter, digit), dash)));
}

// A received key against a known key's text. Received keys hold key bytes
// only, and among those the 0x20 bit tells cases apart just for letters and
// for "^" against "~", which no known key holds: or-ing it into both sides
// compares eight bytes at a time exactly.
bool sameKeyCaseless(const char* received, const char* known, size_t n) {
    constexpr uint64_t CASE = 0x2020202020202020ULL;
    size_t i = 0;
    for (; i + 8 <= n; i += 8) {
        uint64_t a, b;
        memcpy(&a, received + i, 8);
        memcpy(&b, known + i, 8);
        if ((a | CASE) != (b | CASE)) return false;
    }
    for (; i < n; ++i) {
        if ((received[i] | 0x20) != (known[i] | 0x20)) return false;
    }
    return true;
}

// The queryable keys sorted by hash, filled while the keys are constructed
// during process start; zero-initialised before any of them.
struct QueryableKeyTable {
    uint64_t hashes[HttpHeader::MAX_QUERYABLE_KEYS];  // ascending
    const HttpHeader::queryable_key* byHash[HttpHeader::MAX_QUERYABLE_KEYS];
    unsigned count;
    // The same keys by hash in an open-addressed table at most 29% full, for
    // the parser's lookup: a line costs one multiply and one or two probes,
    // where a binary search costs a dependent load a step.
    static constexpr unsigned INDEX_SIZE = 256;
    const HttpHeader::queryable_key* index[INDEX_SIZE];
    static unsigned slotOf(uint64_t hash) { return unsigned((hash * 0x9E3779B97F4A7C15ULL) >> 56); }
};
QueryableKeyTable g_queryableKeys;

[[noreturn]] void keyTableAbort(const char* why, const char* text) {
    static const char prefix[] = "fatal: HTTP header key table: ";
    (void)!::write(2, prefix, sizeof(prefix) - 1);
    (void)!::write(2, why, strlen(why));
    (void)!::write(2, text, strlen(text));
    (void)!::write(2, "\n", 1);
    abort();
}

const HttpHeader::queryable_key* findQueryableKey(uint64_t hash, const char* key, size_t length) {
    const QueryableKeyTable& t = g_queryableKeys;
    for (unsigned i = QueryableKeyTable::slotOf(hash);;
         i = (i + 1) % QueryableKeyTable::INDEX_SIZE) {
        const HttpHeader::queryable_key* k = t.index[i];
        if (k == nullptr) return nullptr;
        if (k->hash == hash) {  // hashes are unique among the keys
            return k->length == length && sameKeyCaseless(key, k->text, length) ? k : nullptr;
        }
    }
}

}  // namespace

// ---------------------------------------------------------------- methods and versions

namespace {
const char* const kMethodNames[] = {"GET", "POST", "PUT", "DELETE", "HEAD", "OPTIONS", "PATCH"};
}

const char* HttpMethod::c_str() const {
    if (_v == 0 || (_v & (_v - 1)) != 0 || _v > PATCH) return "???";
    return kMethodNames[__builtin_ctz(_v)];
}

HttpMethod HttpMethod::getMethodByName(const Str& name) {
    for (unsigned i = 0; i < 7; ++i) {
        if (name == kMethodNames[i]) return HttpMethod(1u << i);
    }
    return HttpMethod(UNKNOWN);
}

void HttpMethod::appendSetTo(AppendStr* out) const {
    bool first = true;
    for (unsigned i = 0; i < 7; ++i) {
        if ((_v & (1u << i)) == 0) continue;
        if (!first) out->push_back(',');
        out->append(kMethodNames[i]);
        first = false;
    }
}

bool mem_parse_into(const char* data, size_t length, HttpMethod* out) {
    uint32_t m = 0;
    auto is = [&](const char* name) { return asciiEqualsCaseless(data, name, length); };
    constexpr uint32_t GET = HttpMethod::GET, PUT = HttpMethod::PUT, POST = HttpMethod::POST,
                       HEAD = HttpMethod::HEAD, PATCH = HttpMethod::PATCH,
                       DELETE = HttpMethod::DELETE, OPTIONS = HttpMethod::OPTIONS;
    switch (length) {
        case 3:
            m = is("GET") ? GET : is("PUT") ? PUT : 0;
            break;
        case 4:
            m = is("POST") ? POST : is("HEAD") ? HEAD : 0;
            break;
        case 5:
            m = is("PATCH") ? PATCH : 0;
            break;
        case 6:
            m = is("DELETE") ? DELETE : 0;
            break;
        case 7:
            m = is("OPTIONS") ? OPTIONS : 0;
            break;
        default:
            break;
    }
    *out = HttpMethod(m);
    return m != 0;
}

const char* http_version_suffix(http_version_t v) {
    switch (v) {
        case HTTPVERSION_0_9:
            return " HTTP/0.9";
        case HTTPVERSION_1_0:
            return " HTTP/1.0";
        default:
            return " HTTP/1.1";
    }
}

// ---------------------------------------------------------------- keys

HttpHeader::queryable_key::queryable_key(const char* text, unsigned length)
    : predefined_key(text, length), hash(djb2_hash_n_nocase(text, length)) {
    QueryableKeyTable& t = g_queryableKeys;
    if (t.count >= MAX_QUERYABLE_KEYS) keyTableAbort("more than 73 queryable keys at ", text);
    unsigned at = t.count;
    while (at > 0 && t.hashes[at - 1] >= hash) {
        if (t.hashes[at - 1] == hash) keyTableAbort("two keys with one hash: ", text);
        t.byHash[at] = t.byHash[at - 1];
        t.hashes[at] = t.hashes[at - 1];
        --at;
    }
    t.byHash[at] = this;
    t.hashes[at] = hash;
    unsigned i = QueryableKeyTable::slotOf(hash);
    while (t.index[i] != nullptr) i = (i + 1) % QueryableKeyTable::INDEX_SIZE;
    t.index[i] = this;
    slot = int(t.count++);
}

#define TARVEX_DEFINE_QKEY(member, text) \
    const HttpHeader::queryable_key HttpHeader::__qkey_##member(text, sizeof(text) - 1);
#define TARVEX_DEFINE_PKEY(member, text) \
    const HttpHeader::predefined_key HttpHeader::__pkey_##member(text, sizeof(text) - 1);
TARVEX_HTTP_QUERYABLE_KEYS(TARVEX_DEFINE_QKEY)
TARVEX_HTTP_PREDEFINED_KEYS(TARVEX_DEFINE_PKEY)
#undef TARVEX_DEFINE_QKEY
#undef TARVEX_DEFINE_PKEY

// ---------------------------------------------------------------- HttpHeader

void HttpHeader::key(StrSegment* out) const {
    if (_pkey != nullptr) {
        *out = StrSegment(_pkey->text, _pkey->length);
        return;
    }
    StrSegment k(_s.data(), _valueOffset);
    while (!k.empty() && kKeyRightTrim.contains(k.back())) k.pop_back();
    *out = k;
}

namespace {

// Fields of an HTTP date to a time, in GMT.
bool httpDateToTimeval(const TimeFormatRawParseResult& r, Timeval* out) {
    int64_t day;
    if (!r.mdayValidForMonth() || !r.dayStartTime(&day)) return false;
    const int64_t s = int64_t(r.has(TimeFormatRawParseResult::HAVE_HOUR) ? r.hour : 0) * 3600 +
                      (r.has(TimeFormatRawParseResult::HAVE_MINUTE) ? r.minute : 0) * 60 +
                      (r.has(TimeFormatRawParseResult::HAVE_SECOND) ? r.second : 0);
    *out = Timeval(day + s, 0);
    return true;
}

bool parseHttpDate(StrSegment v, Timeval* out) {
    const char* begin = v.begin();
    const char* end = v.end();
    TimeFormatRawParseResult r[3];
    const TimeFormat* formats[3] = {&TimeFormat_RFC1123, &TimeFormat_RFC1036, &TimeFormat_ASCTIME};
    size_t best = 0;
    int winner = -1;
    for (int i = 0; i < 3; ++i) {
        const char* stop = formats[i]->rawParse(&r[i], begin, end);
        if (stop == nullptr) continue;
        const size_t used = size_t(stop - begin);
        if (used > best) best = used, winner = i;
        if (stop == end) break;  // nothing can consume more
    }
    return winner >= 0 && httpDateToTimeval(r[winner], out);
}

bool isAnyKey(StrSegment k, const char* const* names, size_t n) {
    for (size_t i = 0; i < n; ++i) {
        if (equalsCaseless(k, names[i])) return true;
    }
    return false;
}

}  // namespace

bool HttpHeader::parseTimeInto(Timeval* out) const { return parseHttpDate(value(), out); }

bool http_parse_date(StrSegment text, Timeval* out) { return parseHttpDate(text, out); }

bool http_equals_caseless(StrSegment s, const char* z) { return equalsCaseless(s, z); }

bool HttpHeader::keepHeaderFor304NotModified() const {
    static const char* const keep[] = {"Date",          "Server", "ETag",      "Expires",
                                       "Cache-Control", "Vary",   "Connection"};
    return isAnyKey(key(), keep, 7);
}

bool HttpHeader::getHeaderKeyValue(StrSegment* in, StrSegment* key, StrSegment* value) {
    StrSegment s = *in;
    while (!s.empty() && (isBlank(s[0]) || s[0] == ';')) s = s.substr(1);
    *in = s;
    if (s.empty() || s[0] == '=') return false;
    const size_t eq = s.find('=');
    if (eq == StrSegment::npos) return false;
    *key = trimBlanks(s.substr(0, eq));
    StrSegment rest = s.substr(eq + 1);
    if (!get_next_token(rest, value, ';')) *value = StrSegment(rest.end(), 0);
    *in = rest;
    return true;
}

// ---------------------------------------------------------------- token helpers

bool get_next_token(StrSegment& rest, StrSegment* out, char sep) {
    const char* p = rest.begin();
    const char* end = rest.end();
    while (p < end && (isBlank(*p) || *p == sep)) ++p;
    if (p == end) {
        rest = StrSegment(end, 0);
        return false;
    }
    if (*p == '"') {
        const char* close = static_cast<const char*>(memchr(p + 1, '"', size_t(end - p - 1)));
        if (close == nullptr) {
            rest = StrSegment(end, 0);
            return false;
        }
        *out = StrSegment(p + 1, size_t(close - p - 1));
        rest = StrSegment(close + 1, size_t(end - close - 1));
        return true;
    }
    const char* stop = static_cast<const char*>(memchr(p, sep, size_t(end - p)));
    if (stop == nullptr) stop = end;
    const char* last = stop;
    while (last > p && isBlank(last[-1])) --last;
    *out = StrSegment(p, size_t(last - p));
    rest = StrSegment(stop, size_t(end - stop));
    return true;
}

etag_entry_t parse_next_matching_etag_value(StrSegment& rest, StrSegment* value) {
    const char* p = rest.begin();
    const char* end = rest.end();
    for (;;) {
        while (p < end && (isBlank(*p) || *p == ',')) ++p;
        if (p == end) {
            rest = StrSegment(end, 0);
            return ETAG_END;
        }
        if (end - p >= 2 && (*p == 'W' || *p == 'w') && p[1] == '/') p += 2;
        if (p < end && *p == '*') {
            rest = StrSegment(p + 1, size_t(end - p - 1));
            return ETAG_WILDCARD;
        }
        if (p < end && *p == '"') {
            const char* close = static_cast<const char*>(memchr(p + 1, '"', size_t(end - p - 1)));
            if (close == nullptr) {
                rest = StrSegment(end, 0);
                return ETAG_END;
            }
            if (close == p + 1) {  // an empty tag names nothing
                p = close + 1;
                continue;
            }
            *value = StrSegment(p + 1, size_t(close - p - 1));
            rest = StrSegment(close + 1, size_t(end - close - 1));
            return ETAG_VALUE;
        }
        const char* q = p;
        while (q < end && !isBlank(*q) && *q != ',') ++q;
        if (q == p) continue;  // a lone "W/"
        *value = StrSegment(p, size_t(q - p));
        rest = StrSegment(q, size_t(end - q));
        return ETAG_VALUE;
    }
}

void print_http_header_value_with_escaping(Str* out, const char* data, size_t length) {
    static const char hex[] = "0123456789abcdef";
    for (size_t i = 0; i < length; ++i) {
        const unsigned char c = static_cast<unsigned char>(data[i]);
        if (c == '\\' || c == '"') {
            out->push_back('\\');
            out->push_back(char(c));
        } else if (c >= 0x20 && c <= 0x7E) {
            out->push_back(char(c));
        } else if (c == '\r') {
            out->append("\\r", 2);
        } else if (c == '\n') {
            out->append("\\n", 2);
        } else if (c == '\t') {
            out->append("\\t", 2);
        } else {
            const char esc[4] = {'\\', 'x', hex[c >> 4], hex[c & 15]};
            out->append(esc, 4);
        }
    }
}

// ---------------------------------------------------------------- small values

void HttpCompressionAlgorithm::_appendAcceptEncodingHeaderTo(AppendStr* out) const {
    ASSERT((_flags & (FLAG_GZIP | FLAG_BROTLI | FLAG_ZSTD)) != 0);
    out->append("Accept-Encoding: ", 17);
    const char* sep = "";
    if (_flags & FLAG_GZIP) out->append(sep), out->append("gzip", 4), sep = ", ";
    if (_flags & FLAG_BROTLI) out->append(sep), out->append("br", 2), sep = ", ";
    if (_flags & FLAG_ZSTD) out->append(sep), out->append("zstd", 4);
    out->append("\r\n", 2);
}

void HttpCompressionAlgorithm::_appendContentEncodingHeaderTo(AppendStr* out) const {
    switch (_flags) {
        case FLAG_GZIP:
            out->append("Content-Encoding: gzip\r\n", 24);
            break;
        case FLAG_BROTLI:
            out->append("Content-Encoding: br\r\n", 22);
            break;
        case FLAG_ZSTD:
            out->append("Content-Encoding: zstd\r\n", 24);
            break;
        default:
            ASSERT(_flags == FLAG_GZIP || _flags == FLAG_BROTLI || _flags == FLAG_ZSTD);
    }
}

void append_stringified(Str* out, HttpCompressionAlgorithm a) {
    const uint8_t f = a.flags();
    if (f == 0) {
        out->append("identity", 8);
        return;
    }
    if (f & HttpCompressionAlgorithm::FLAG_UNKNOWN) {
        out->push_back('?');
        return;
    }
    const char* sep = "";
    if (f & HttpCompressionAlgorithm::FLAG_GZIP) out->append(sep).append("gzip"), sep = ",";
    if (f & HttpCompressionAlgorithm::FLAG_BROTLI) out->append(sep).append("br"), sep = ",";
    if (f & HttpCompressionAlgorithm::FLAG_ZSTD) out->append(sep).append("zstd");
}

namespace {
constexpr StrSegment kEtagStrong("ETag: \"");
constexpr StrSegment kEtagWeak("ETag: W/\"");
constexpr size_t kEtagEnd = 3;  // "\"\r\n"
}  // namespace

void HttpEtagValue::set(StrSegment value, bool weak) {
    _line.clear();
    _line.append(weak ? kEtagWeak : kEtagStrong).append(value).append("\"\r\n", 3);
    _fromStat = false;
}

void HttpEtagValue::set(const FileDescriptorStat& st, bool weak) {
    _line.assign(weak ? kEtagWeak : kEtagStrong);
    st.appendEtag(&_line);
    _line.append("\"\r\n", 3);
    _fromStat = true;
}

bool HttpEtagValue::isWeak() const { return _line.startsWith(kEtagWeak); }

StrSegment HttpEtagValue::getValue() const {
    if (!valid()) return StrSegment();
    const size_t start = isWeak() ? kEtagWeak.size() : kEtagStrong.size();
    return StrSegment(_line.data() + start, _line.size() - start - kEtagEnd);
}

void HttpEtagValue::render(AppendStr* out) const { out->append(_line.data(), _line.size()); }

void HttpEtagValue::renderForceWeak(AppendStr* out) const {
    ASSERT(_line.size() >= kEtagStrong.size() + kEtagEnd);
    if (isWeak()) {
        render(out);
        return;
    }
    out->append(kEtagWeak);
    out->append(_line.data() + kEtagStrong.size(), _line.size() - kEtagStrong.size());
}

bool HttpLastModifiedValue::set(const Timeval& t) {
    // Years 1000 to 9999: the four-digit years the fixed-size line has room for.
    if (t.sec() < -30610224000 || t.sec() > 253402300799) {
        clear();
        return false;
    }
    _time = t;
    _setHeader(time_t(t.sec()));
    _valid = true;
    return true;
}

void HttpLastModifiedValue::_setHeader(time_t t) {
    Str tmp("Last-Modified: ");
    GmtStructTm tm;
    if (Timeval(t, 0).gmtime(&tm)) tm.appendFtime(tmp, TimeFormat_RFC1123);
    tmp.append("\r\n", 2);
    ASSERT(tmp.size() == sizeof(_header));
    memcpy(_header, tmp.data(), sizeof(_header));
}

void append_stringified(Str* out, const HttpLastModifiedValue& v) {
    if (v.time().isMax() || !v.valid()) {
        out->push_back('?');
        return;
    }
    out->append(v.date());
}

const HttpVaryHeaderValue::entry HttpVaryHeaderValue::vary_table[6] = {
    {2, "Accept-Encoding"}, {4, "Accept-Language"}, {8, "Cookie"},
    {16, "Authorization"},  {32, "User-Agent"},     {64, "Origin"},
};

void HttpVaryHeaderValue::_add(const char* text, size_t length) {
    StrSegment rest(text, length);
    StrSegment token;
    while ((_bitmask & VARY_ANY) == 0 && get_next_token(rest, &token, ',')) {
        uint32_t bit = VARY_ANY;
        for (const entry& e : vary_table) {
            if (equalsCaseless(token, e.name)) {
                bit = e.bit;
                break;
            }
        }
        _bitmask |= bit;
    }
}

void HttpVaryHeaderValue::appendTo(AppendStr* out) const {
    ASSERT(_bitmask != 0);
    if (_bitmask & VARY_ANY) {
        out->push_back('*');
        return;
    }
    const char* sep = "";
    for (const entry& e : vary_table) {
        if (_bitmask & e.bit) out->append(sep), out->append(e.name), sep = ", ";
    }
}

// ---------------------------------------------------------------- user agents

const char* HttpUserAgent::e_as_str(user_agent_t e) {
    static const char* const names[] = {"?", "Firefox", "Chrome", "Safari", "IE", "iOS", "Opera"};
    return e <= USER_AGENT_OPERA ? names[e] : "?";
}

bool HttpUserAgent::isIE6() const {
    if (_e != USER_AGENT_IE) return false;
    unsigned n = 0;
    size_t i = 0;
    for (; i < _version.size() && _version[i] >= '0' && _version[i] <= '8' && n < 7; ++i) {
        n = n * 10 + unsigned(_version[i] - '0');
    }
    return i == 0 || n < 7;
}

bool mem_parse_into(const char* data, size_t length, HttpUserAgent* out) {
    enum { MSIE, OPERA, FIREFOX, CHROME, SAFARI, VERSION, TRIDENT, RV, N_NAMES };
    static const char* const names[N_NAMES] = {"MSIE",   "Opera",   "Firefox", "Chrome",
                                               "Safari", "Version", "Trident", "rv"};
    bool seen[N_NAMES] = {};
    StrSegment version[N_NAMES];
    bool appleDevice = false;

    const char* p = data;
    const char* end = data + length;
    while (p < end) {
        const char* q = p;
        while (q < end && !kUserAgentSeparators.contains(*q)) ++q;
        StrSegment piece = trimBlanks(StrSegment(p, size_t(q - p)));
        p = q + (q < end);
        while (!piece.empty()) {
            const char* w = piece.begin();
            const char* pend = piece.end();
            const char* n = w;
            while (n < pend && *n != ' ' && *n != '/') ++n;
            const StrSegment name(w, size_t(n - w));
            const char* v = n < pend ? n + 1 : n;
            const char* ve = v;
            while (ve < pend && !isBlank(*ve)) ++ve;
            for (int i = 0; i < N_NAMES; ++i) {
                if (name == names[i]) {
                    seen[i] = true;
                    version[i] = StrSegment(v, size_t(ve - v));
                }
            }
            if (name.size() >= 2 && name[0] == 'i' && name[1] == 'P') appleDevice = true;
            piece = skipBlanks(StrSegment(ve, size_t(pend - ve)));
        }
    }

    auto result = [&](HttpUserAgent::user_agent_t e, StrSegment v) {
        out->_e = e;
        out->_version = v;
        return true;
    };
    if (seen[CHROME]) return result(HttpUserAgent::USER_AGENT_CHROME, version[CHROME]);
    if (seen[SAFARI]) {
        if (!appleDevice) return result(HttpUserAgent::USER_AGENT_SAFARI, version[SAFARI]);
        return result(HttpUserAgent::USER_AGENT_IOS,
                      seen[VERSION] ? version[VERSION] : version[SAFARI]);
    }
    if (seen[OPERA]) return result(HttpUserAgent::USER_AGENT_OPERA, version[OPERA]);
    if (seen[MSIE]) return result(HttpUserAgent::USER_AGENT_IE, version[MSIE]);
    if (seen[TRIDENT] && seen[RV]) return result(HttpUserAgent::USER_AGENT_IE, version[RV]);
    if (seen[FIREFOX]) return result(HttpUserAgent::USER_AGENT_FIREFOX, version[FIREFOX]);
    result(HttpUserAgent::USER_AGENT_UNKNOWN, StrSegment());
    return false;
}

void append_stringified(Str* out, const HttpUserAgent& ua) {
    out->append(HttpUserAgent::e_as_str(ua._e));
    if (!ua._version.empty()) out->push_back(' '), out->append(ua._version);
}

// ---------------------------------------------------------------- HttpHeaders: adding

void HttpHeaders::_resetSlots() {
    memset(_slots, 0xFF, sizeof(_slots));
    _slotsInUse = false;
}

void HttpHeaders::_link(const HttpHeader::queryable_key& key, uint32_t index) {
    slot& s = _slots[key.slot];
    _slotsInUse = true;
    if (s.first == NONE) {
        s.first = s.last = index;
    } else {
        _h[s.last]._next = index;
        s.last = index;
    }
}

void HttpHeaders::addDestructive(const HttpHeader::predefined_key& key, Str& value) {
    _h.emplace_back();
    HttpHeader& h = _h.back();
    h._pkey = &key;
    h._s.swap(value);
}

void HttpHeaders::addDestructive(const HttpHeader::queryable_key& key, Str& value) {
    addDestructive(static_cast<const HttpHeader::predefined_key&>(key), value);
    _link(key, uint32_t(_h.size() - 1));
}

void HttpHeaders::setDestructive(const HttpHeader::queryable_key& key, Str& value) {
    const uint32_t slot = _slots[key.slot].first;
    if (slot == NONE) {
        addDestructive(key, value);
        return;
    }
    ASSERT(slot < _h.size());
    HttpHeader& x = _h[slot];
    ASSERT(x._pkey == &key);
    x._s.swap(value);
    x._valueOffset = 0;
}

void HttpHeaders::add(const HttpHeader& h) { _h.push_back(h); }

void HttpHeaders::_addRawLine(Str& line, uint32_t valueOffset) {
    ASSERT(valueOffset > 0 && valueOffset <= line.size());
    _h.emplace_back();
    _h.back()._s.swap(line);
    _h.back()._valueOffset = valueOffset;
}

void HttpHeaders::_forgetKey(const HttpHeader::queryable_key& key) {
    _slots[key.slot].first = _slots[key.slot].last = NONE;
}

void HttpHeaders::addFormat(const HttpHeader::predefined_key& key, const char* format, ...) {
    Str value;
    va_list args;
    va_start(args, format);
    value.vformat(format, args);
    va_end(args);
    addDestructive(key, value);
}

void HttpHeaders::addTime(const HttpHeader::predefined_key& key, const Timeval& t) {
    GmtStructTm tm;
    if (!t.gmtime(&tm)) return;
    Str value;
    tm.appendFtime(value, TimeFormat_RFC1123);
    addDestructive(key, value);
}

Str HttpHeaders::requestBasicAuthWithoutHeader(const Str& realm) {
    Str s("Basic");
    if (!realm.empty()) {
        s.append(" realm=\"", 8);
        for (char c : realm) {
            if (c != '"' && c >= 0x20 && c <= 0x7D) s.push_back(c);
        }
        s.push_back('"');
    }
    return s;
}

void HttpHeaders::requestBasicAuth(const Str& realm) {
    Str s = requestBasicAuthWithoutHeader(realm);
    addDestructive(HttpHeader::__pkey_www_authenticate, s);
}

namespace {
Str basicCredentials(const Str& user, const Str& password) {
    Str plain(user);
    plain.push_back(':');
    plain.append(password);
    Str s("Basic ");
    Base64::encode(s, plain.data(), plain.size());
    return s;
}
}  // namespace

void HttpHeaders::setBasicAuthentication(const Str& user, const Str& password) {
    Str s = basicCredentials(user, password);
    setDestructive(HttpHeader::__qkey_authorization, s);
}

void HttpHeaders::addBasicAuthentication(const Str& user, const Str& password) {
    Str s = basicCredentials(user, password);
    addDestructive(HttpHeader::__qkey_authorization, s);
}

void HttpHeaders::addCookie(const HttpCookie& c) {
    auto all = [](const Str& s, auto ok) {
        for (char ch : s) {
            if (!ok(static_cast<unsigned char>(ch))) return false;
        }
        return true;
    };
    if (c.name.empty()) throw HttpInternalErrorException("addCookie() called with an empty name");
    if (!all(c.name, [](unsigned char b) { return kCookieNameChars.contains(b); })) {
        throw HttpInternalErrorException("addCookie() called with an invalid name");
    }
    if (!all(c.value, [](unsigned char b) { return kCookieValueChars.contains(b); })) {
        throw HttpInternalErrorException("addCookie() called with an invalid value");
    }
    if (!all(c.path, [](unsigned char b) { return b >= 0x20 && b <= 0x7E && b != ';'; })) {
        throw HttpInternalErrorException("addCookie() called with an invalid path");
    }
    if (!all(c.domain, [](unsigned char b) { return kCookieDomainChars.contains(b); })) {
        throw HttpInternalErrorException("addCookie() called with an invalid domain name");
    }
    if (!c.domain.empty() && c.domain.back() == '.') {
        throw HttpInternalErrorException(
            "addCookie() called with an invalid domain name ending in '.'");
    }

    Str s;
    s.append(c.name).push_back('=');
    s.append(c.value);
    if (!c.domain.empty()) s.append("; Domain=").append(c.domain);
    if (!c.path.empty()) s.append("; Path=").append(c.path);
    if (c.secure) s.append("; Secure");
    if (c.httpOnly) s.append("; HttpOnly");
    if (c.hasLifetime) {
        if (c.lifetimeSeconds < 0) {
            s.append("; Expires=Thu, 01 Jan 1970 00:00:00 GMT");
        } else if (c.lifetimeSeconds > 0) {
            s.appendFormat("; Max-Age=%ld", c.lifetimeSeconds);
            const int64_t now = Timeval::now().sec();
            const int64_t expires =
                c.lifetimeSeconds > INT64_MAX - now ? INT64_MAX : now + c.lifetimeSeconds;
            GmtStructTm tm;
            // A date past what can be written leaves Max-Age to speak alone.
            if (Timeval(expires, 0).gmtime(&tm)) {
                s.append("; Expires=");
                tm.appendFtime(s, TimeFormat_RFC1123);
            }
        }
    }
    switch (c.sameSite) {
        case HttpCookie::SAMESITE_UNSET:
            break;
        case HttpCookie::SAMESITE_NONE:
            s.append("; SameSite=None");
            break;
        case HttpCookie::SAMESITE_LAX:
            s.append("; SameSite=Lax");
            break;
        default:
            s.append("; SameSite");
            break;
    }
    addDestructive(HttpHeader::__pkey_set_cookie, s);
}

HttpHeaders::line_kind_t HttpHeaders::_takeParsedLine(const char* d, size_t len) {
    if (len == 0) return LINE_END;

    if (isBlank(d[0])) {
        size_t i = 1;
        while (i < len && isBlank(d[i])) ++i;
        if (i == len) return LINE_END;  // a blank line ends the head like an empty one
        if (_h.empty()) throw HttpBadRequestException("Header continuation line without a header");
        Str& previous = _h.back()._s;
        previous.push_back(' ');
        previous.append(d + i, len - i);
        return LINE_CONTINUATION;
    }

    // Most keys are letters, digits and "-": sixteen bytes at a time find
    // where such a run ends, and a byte at a time only past that.
    size_t i = 0;
    while (i + 16 <= len) {
        const unsigned common = commonKeyByteMask16(d + i);
        if (common != 0xFFFF) {
            i += unsigned(__builtin_ctz(~common));
            break;
        }
        i += 16;
    }
    while (i < len && kKeyFold.fold[uint8_t(d[i])] != 0) ++i;
    // Then the hash of the key, four bytes a step: the chain of multiplies
    // is a quarter as long.
    uint64_t hash = DJB2_INITIAL;
    const char* fold = kKeyFold.fold;
    size_t j = 0;
    for (; j + 4 <= i; j += 4) {
        const uint64_t f0 = uint8_t(fold[uint8_t(d[j])]), f1 = uint8_t(fold[uint8_t(d[j + 1])]),
                       f2 = uint8_t(fold[uint8_t(d[j + 2])]), f3 = uint8_t(fold[uint8_t(d[j + 3])]);
        hash = hash * (33 * 33 * 33 * 33) + f0 * (33 * 33 * 33) + f1 * (33 * 33) + f2 * 33 + f3;
    }
    for (; j < i; ++j) hash = hash * 33 + uint8_t(fold[uint8_t(d[j])]);  // ASCII: no sign to mind
    if (i == len || d[i] != ':') throw HttpBadRequestException("Malformed header line");
    if (i == 0) throw HttpBadRequestException("Header line with an empty key");
    if (d[i - 1] == ' ') throw HttpBadRequestException("Blank before the colon of a header key");

    const uint32_t index = uint32_t(_h.size());
    _h.emplace_back();
    HttpHeader& h = _h.back();
    if (const HttpHeader::queryable_key* k = findQueryableKey(hash, d, i)) {
        h._pkey = k;
        _link(*k, index);
    }
    size_t v = i + 1;
    while (v < len && isBlank(d[v])) ++v;
    h._valueOffset = uint32_t(v);
    return LINE_HEADER;
}

size_t HttpHeaders::addParsedHeaderLine(Str* line, StrVector* freeList) {
    const size_t len = line->size();
    switch (_takeParsedLine(line->data(), len)) {
        case LINE_END:
            return 0;
        case LINE_CONTINUATION:
            line->clear();
            return len + 1;
        case LINE_HEADER:
            break;
    }
    _h.back()._s.swap(*line);
    if (freeList != nullptr && !freeList->empty()) {
        *line = std::move(freeList->back());
        freeList->pop_back();
        line->clear();
    }
    return len;
}

size_t HttpHeaders::_addParsedHeaderBytes(const char* data, size_t length, StrVector* freeList) {
    switch (_takeParsedLine(data, length)) {
        case LINE_END:
            return 0;
        case LINE_CONTINUATION:
            return length + 1;
        case LINE_HEADER:
            break;
    }
    Str& s = _h.back()._s;
    if (freeList != nullptr && !freeList->empty()) {
        s = std::move(freeList->back());
        freeList->pop_back();
    }
    s.assign(data, length);
    return length;
}

void HttpHeaders::clear(StrVector* freeList) {
    if (freeList != nullptr && freeList->size() < _h.size()) {
        freeList->reserve(freeList->size() + _h.size());
        for (HttpHeader& h : _h) {
            // A huge line's capacity is not worth keeping: a client could
            // otherwise pile up one more per request for the connection's life.
            if (h._s.capacity() <= MAX_RECYCLED_CAPACITY) freeList->push_back(std::move(h._s));
        }
    }
    _h.clear();
    if (_slotsInUse) _resetSlots();  // a reply's extra headers often used none
}

// ---------------------------------------------------------------- HttpHeaders: reading

void HttpHeaders::appendTo(AppendStr* out) const {
    for (const HttpHeader& h : _h) {
        if (h._valueOffset == 0 && h._pkey != nullptr) {
            out->append(h._pkey->text, h._pkey->length);
            out->append(": ", 2);
        }
        out->appendDroppingControlCharacters(h._s.data(), h._s.size());
        out->append("\r\n", 2);
    }
}

void HttpHeaders::getNextWithKey(const_iterator* it) const {
    ASSERT(*it != end());
    const uint32_t next = (*it)->_next;
    *it = next == 0 ? end() : _h.begin() + next;
}

namespace {
// Calls f(token) for each comma-separated token of each header with the key;
// f returns false to stop.
template <class F>
void forEachToken(const HttpHeaders& hs, const HttpHeader::queryable_key& key, F f) {
    for (auto it = hs.find(key); it != hs.end(); hs.getNextWithKey(&it)) {
        StrSegment rest = it->value();
        StrSegment token;
        while (get_next_token(rest, &token, ',')) {
            if (!f(token)) return;
        }
    }
}
}  // namespace

int HttpHeaders::hasKeepalive() const {
    int result = 2;
    forEachToken(*this, HttpHeader::__qkey_connection, [&](StrSegment t) {
        if (equalsCaseless(t, "close")) {
            result = 0;
            return false;
        }
        if (equalsCaseless(t, "Keep-Alive")) result = 1;
        return true;
    });
    return result;
}

int HttpHeaders::transferEncoding() const {
    int result = 0;
    forEachToken(*this, HttpHeader::__qkey_transfer_encoding, [&](StrSegment t) {
        if (equalsCaseless(t, "identity")) return true;
        if (equalsCaseless(t, "chunked") && result == 0) {
            result = 1;
            return true;
        }
        result = 2;
        return false;
    });
    return result;
}

int HttpHeaders::expects() const {
    int result = 0;
    forEachToken(*this, HttpHeader::__qkey_expect, [&](StrSegment t) {
        if (equalsCaseless(t, "100-continue")) {
            result = 1;
            return true;
        }
        result = 2;
        return false;
    });
    return result;
}

HttpCompressionAlgorithm HttpHeaders::contentEncoding() const {
    uint8_t flags = 0;
    for (auto it = find(HttpHeader::__qkey_content_encoding); it != end(); getNextWithKey(&it)) {
        StrSegment v = trimBlanks(it->value());
        if (v.size() > 2 && (v[0] == 'x' || v[0] == 'X') && v[1] == '-') {
            v = v.substr(2);
            if (!equalsCaseless(v, "gzip")) return HttpCompressionAlgorithm::FLAG_UNKNOWN;
        }
        if (equalsCaseless(v, "gzip")) {
            flags |= HttpCompressionAlgorithm::FLAG_GZIP;
        } else if (equalsCaseless(v, "br")) {
            flags |= HttpCompressionAlgorithm::FLAG_BROTLI;
        } else if (equalsCaseless(v, "zstd")) {
            flags |= HttpCompressionAlgorithm::FLAG_ZSTD;
        } else if (!equalsCaseless(v, "identity")) {
            return HttpCompressionAlgorithm::FLAG_UNKNOWN;
        }
    }
    if ((flags & (flags - 1)) != 0) return HttpCompressionAlgorithm::FLAG_UNKNOWN;
    return flags;
}

namespace {
// A "q" parameter that is zero: only "0" and "." with at least one "0" and at
// most one ".". "q=0.5", "q=" and "q=." leave the algorithm accepted.
bool hasZeroQ(StrSegment params) {
    StrSegment p;
    while (get_next_token(params, &p, ';')) {
        if (p.size() < 3 || (p[0] != 'q' && p[0] != 'Q')) continue;
        StrSegment rest = skipBlanks(p.substr(1));
        if (rest.empty() || rest[0] != '=') continue;
        StrSegment value = trimBlanks(rest.substr(1));
        if (value.size() >= 2 && value[0] == '"' && value.back() == '"') {
            value = value.substr(1, value.size() - 2);
        }
        unsigned zeros = 0, dots = 0;
        bool other = false;
        for (char c : value) {
            if (c == '0') {
                ++zeros;
            } else if (c == '.') {
                ++dots;
            } else {
                other = true;
            }
        }
        if (!other && zeros > 0 && dots <= 1) return true;
    }
    return false;
}

bool acceptsAlgorithm(StrSegment token, const char* name, size_t nameLength) {
    if (!startsCaseless(token, name, nameLength)) return false;
    StrSegment rest = token.substr(nameLength);
    if (!rest.empty() && !kCompressionTokenEnd.contains(rest[0])) return false;
    return !hasZeroQ(rest);
}
}  // namespace

HttpCompressionAlgorithm HttpHeaders::acceptEncoding() const {
    uint8_t flags = 0;
    forEachToken(*this, HttpHeader::__qkey_accept_encoding, [&](StrSegment t) {
        if (t.size() > 3 && (t[0] == 'x' || t[0] == 'X') && t[1] == '-') {
            if (acceptsAlgorithm(t.substr(2), "gzip", 4)) {
                flags |= HttpCompressionAlgorithm::FLAG_GZIP;
            }
            return true;
        }
        if (acceptsAlgorithm(t, "gzip", 4)) flags |= HttpCompressionAlgorithm::FLAG_GZIP;
        if (acceptsAlgorithm(t, "br", 2)) flags |= HttpCompressionAlgorithm::FLAG_BROTLI;
        if (acceptsAlgorithm(t, "zstd", 4)) flags |= HttpCompressionAlgorithm::FLAG_ZSTD;
        return true;
    });
    return flags;
}

bool HttpHeaders::_contentTypeIs(const char* type) const {
    const HttpHeader* h = get(HttpHeader::__qkey_content_type);
    if (h == nullptr) return false;
    StrSegment v = h->value();
    const size_t semi = v.find(';');
    if (semi != StrSegment::npos) v = v.substr(0, semi);
    return equalsCaseless(trimBlanks(v), type);
}

bool HttpHeaders::isFormUrlEncoded() const {
    return _contentTypeIs("application/x-www-form-urlencoded");
}

bool HttpHeaders::isJson() const { return _contentTypeIs("application/json"); }

bool HttpHeaders::getMultipartBoundary(StrSegment* boundary) const {
    if (!_contentTypeIs("multipart/form-data")) return false;
    StrSegment v = get(HttpHeader::__qkey_content_type)->value();
    StrSegment params = v.substr(v.find(';'));
    StrSegment key, value;
    while (HttpHeader::getHeaderKeyValue(&params, &key, &value)) {
        if (equalsCaseless(key, "boundary")) {
            *boundary = value;
            return true;
        }
    }
    *boundary = StrSegment();
    return true;
}

bool HttpHeaders::isAjax() const {
    const HttpHeader* h = get(HttpHeader::__qkey_x_requested_with);
    return h != nullptr && equalsCaseless(h->value(), "XMLHttpRequest");
}

bool HttpHeaders::getBasicAuthenticationCredentials(Str* user, Str* password) const {
    for (auto it = find(HttpHeader::__qkey_authorization); it != end(); getNextWithKey(&it)) {
        const StrSegment v = it->value();
        if (v.size() <= 5 || !startsCaseless(v, "basic", 5) || !isBlank(v[5])) continue;
        const StrSegment encoded = skipBlanks(v.substr(6));
        if (encoded.empty()) continue;
        Str decoded;
        if (!Base64::decode(decoded, encoded.data(), encoded.size())) return false;
        const size_t colon = decoded.find(':');
        if (colon == Str::npos) return false;
        user->assign(decoded.data(), colon);
        password->assign(decoded.data() + colon + 1, decoded.size() - colon - 1);
        return true;
    }
    return false;
}

HttpUserAgent HttpHeaders::userAgent() const {
    HttpUserAgent ua;
    if (const HttpHeader* h = get(HttpHeader::__qkey_user_agent)) {
        const StrSegment v = h->value();
        mem_parse_into(v.data(), v.size(), &ua);
    }
    return ua;
}

namespace {
int hexValue(char c) {
    if (c >= '0' && c <= '9') return c - '0';
    if (c >= 'a' && c <= 'f') return c - 'a' + 10;
    if (c >= 'A' && c <= 'F') return c - 'A' + 10;
    return -1;
}

// charset'language'percent-encoded-text, converted to UTF-8.
bool decodeExtendedValue(StrSegment v, Str* out) {
    const size_t q1 = v.find('\'');
    if (q1 == StrSegment::npos) return false;
    const size_t q2 = v.find('\'', q1 + 1);
    if (q2 == StrSegment::npos) return false;
    const StrSegment charset = v.substr(0, q1);
    const StrSegment text = v.substr(q2 + 1);
    Str decoded;
    for (size_t i = 0; i < text.size(); ++i) {
        if (text[i] != '%') {
            decoded.push_back(text[i]);
            continue;
        }
        if (i + 2 >= text.size()) return false;
        const int hi = hexValue(text[i + 1]);
        const int lo = hexValue(text[i + 2]);
        if (hi < 0 || lo < 0) return false;
        decoded.push_back(char(hi * 16 + lo));
        i += 2;
    }
    UTF8Converter converter;
    if (!converter.choose(charset)) return false;
    Str converted;
    if (!converter.convert(&converted, decoded.seg())) {
        out->swap(decoded);  // the engine left it as it was
        return true;
    }
    if (converter.invalidBytes() != 0) return false;
    out->swap(converted);
    return true;
}
}  // namespace

bool HttpHeaders::getContentDispositionFilename(Pathname* out) const {
    const HttpHeader* h = get(HttpHeader::__qkey_content_disposition);
    if (h == nullptr) return false;
    const StrSegment v = h->value();
    const size_t semi = v.find(';');
    if (semi == StrSegment::npos) return false;
    StrSegment params = v.substr(semi);
    StrSegment key, value, extended, plain;
    bool haveExtended = false, havePlain = false, plainFromFilename = false;
    while (HttpHeader::getHeaderKeyValue(&params, &key, &value)) {
        if (equalsCaseless(key, "filename*")) {
            extended = value, haveExtended = true;
        } else if (equalsCaseless(key, "filename")) {
            plain = value, havePlain = true, plainFromFilename = true;
        } else if (equalsCaseless(key, "name") && !plainFromFilename && !havePlain) {
            plain = value, havePlain = true;
        }
    }
    if (haveExtended) {
        Str decoded;
        if (decodeExtendedValue(extended, &decoded)) {
            out->assign(decoded);
            return true;
        }
    }
    if (!havePlain) return false;
    out->assign(plain.data(), plain.size());
    return true;
}

HttpHeaders::const_cookie_iterator::const_cookie_iterator(const HttpHeaders& h)
    : _headers(h), _it(h.find(HttpHeader::__qkey_cookie)) {
    if (_it != _headers.end()) _rest = _it->value();
}

bool HttpHeaders::const_cookie_iterator::getNext(StrSegment* name, StrSegment* value) {
    while (_it != _headers.end()) {
        const char* p = _rest.begin();
        const char* end = _rest.end();
        while (p < end && (isBlank(*p) || *p == ';')) ++p;
        const char* eq = p;
        while (eq < end && *eq != '=' && *eq != ';') ++eq;
        if (eq == end || *eq != '=') {  // a pair without "=" ends this header
            _headers.getNextWithKey(&_it);
            if (_it != _headers.end()) _rest = _it->value();
            continue;
        }
        const char* ne = eq;
        while (ne > p && isBlank(ne[-1])) --ne;
        *name = StrSegment(p, size_t(ne - p));
        const char* v = eq + 1;
        while (v < end && isBlank(*v)) ++v;
        if (v < end && *v == '"') {
            const char* close = static_cast<const char*>(memchr(v + 1, '"', size_t(end - v - 1)));
            if (close == nullptr) {
                _rest = StrSegment(end, 0);
                continue;
            }
            *value = StrSegment(v + 1, size_t(close - v - 1));
            _rest = StrSegment(close + 1, size_t(end - close - 1));
            return true;
        }
        const char* ve = static_cast<const char*>(memchr(v, ';', size_t(end - v)));
        if (ve == nullptr) ve = end;
        const char* vt = ve;
        while (vt > v && isBlank(vt[-1])) --vt;
        *value = StrSegment(v, size_t(vt - v));
        _rest = StrSegment(ve, size_t(end - ve));
        return true;
    }
    return false;
}

// ---------------------------------------------------------------- preconditions

http_status_code_t HttpHeaders::checkIfClientWantsBodyWithModtime(time_t mtime) const {
    Timeval t;
    for (auto it = find(HttpHeader::__qkey_if_modified_since); it != end(); getNextWithKey(&it)) {
        if (it->parseTimeInto(&t) && int64_t(mtime) <= t.sec()) return 304;
    }
    for (auto it = find(HttpHeader::__qkey_if_unmodified_since); it != end(); getNextWithKey(&it)) {
        if (it->parseTimeInto(&t) && int64_t(mtime) > t.sec()) return 412;
    }
    return 200;
}

bool HttpHeaders::_anyEtagMatches(const HttpHeader::queryable_key& key, StrSegment value,
                                  bool exists, bool wildcardNeedsExisting) const {
    for (auto it = find(key); it != end(); getNextWithKey(&it)) {
        StrSegment rest = it->value();
        StrSegment entry;
        for (etag_entry_t e; (e = parse_next_matching_etag_value(rest, &entry)) != ETAG_END;) {
            if (e == ETAG_WILDCARD ? (exists || !wildcardNeedsExisting) : entry == value) {
                return true;
            }
        }
    }
    return false;
}

http_status_code_t HttpHeaders::checkEtagFiltering(const HttpEtagValue& etag) const {
    const StrSegment value = etag.getValue();
    if (_anyEtagMatches(HttpHeader::__qkey_if_none_match, value, true, false)) return 304;
    if (!has(HttpHeader::__qkey_if_match)) return 200;
    return _anyEtagMatches(HttpHeader::__qkey_if_match, value, true, false) ? 200 : 412;
}

http_status_code_t HttpHeaders::checkPreconditions(const HttpLastModifiedValue& lastModified,
                                                   const HttpEtagValue* etagp) const {
    const bool dates =
        has(HttpHeader::__qkey_if_modified_since) || has(HttpHeader::__qkey_if_unmodified_since);
    if (!lastModified.valid() || !dates) return etagp != nullptr ? checkEtagFiltering(*etagp) : 200;
    const http_status_code_t r =
        checkIfClientWantsBodyWithModtime(time_t(lastModified.time().sec()));
    if (r == 200 || etagp == nullptr ||
        (!has(HttpHeader::__qkey_if_none_match) && !has(HttpHeader::__qkey_if_match))) {
        return r;
    }
    // A matching entity tag overrides a failed date test.
    const http_status_code_t e = checkEtagFiltering(*etagp);
    return e == 412 ? r : e;
}

http_status_code_t HttpHeaders::checkPreconditionsSoFar(const HttpLastModifiedValue& lastModified,
                                                        const HttpEtagValue* etagp) const {
    const bool etags = has(HttpHeader::__qkey_if_none_match) || has(HttpHeader::__qkey_if_match);
    if (lastModified.valid()) {
        if (etagp != nullptr) return checkPreconditions(lastModified, etagp);
        return etags ? 0 : checkIfClientWantsBodyWithModtime(time_t(lastModified.time().sec()));
    }
    ASSERT(etagp != nullptr);
    const bool dates =
        has(HttpHeader::__qkey_if_modified_since) || has(HttpHeader::__qkey_if_unmodified_since);
    return dates ? 0 : checkEtagFiltering(*etagp);
}

bool HttpHeaders::verifyPutPreconditions(bool exists, const Timeval* mtime, const Str& etag) const {
    if (mtime != nullptr && exists &&
        checkIfClientWantsBodyWithModtime(time_t(mtime->sec())) != 200) {
        return false;
    }
    if (has(HttpHeader::__qkey_if_match) &&
        !_anyEtagMatches(HttpHeader::__qkey_if_match, etag.seg(), exists, true)) {
        return false;
    }
    for (auto it = find(HttpHeader::__qkey_if_none_match); it != end(); getNextWithKey(&it)) {
        StrSegment rest = it->value();
        StrSegment entry;
        for (etag_entry_t e; (e = parse_next_matching_etag_value(rest, &entry)) != ETAG_END;) {
            if (e == ETAG_WILDCARD) return !exists;
            if (entry == etag.seg()) return false;
        }
    }
    return true;
}

// ---------------------------------------------------------------- stripping

void HttpHeaders::stripHeadersFor304NotModified() {
    _resetSlots();
    size_t kept = 0;
    for (size_t i = 0; i < _h.size(); ++i) {
        if (!_h[i].keepHeaderFor304NotModified()) continue;
        if (kept != i) _h[kept] = std::move(_h[i]);
        _h[kept]._next = 0;
        ++kept;
    }
    _h.resize(kept);
}

void HttpHeaders::stripHeadersFor303SeeOther() {
    _resetSlots();
    size_t kept = 0;
    for (size_t i = 0; i < _h.size(); ++i) {
        if (startsCaseless(_h[i].key(), "Content-", 8)) continue;
        if (kept != i) _h[kept] = std::move(_h[i]);
        _h[kept]._next = 0;
        ++kept;
    }
    _h.resize(kept);
}

// ---------------------------------------------------------------- first lines

namespace {
const char kSlash[] = "/";

StrSegment nextWord(const char*& p, const char* end) {
    while (p < end && isBlank(*p)) ++p;
    const char* w = p;
    while (p < end && !isBlank(*p)) ++p;
    return StrSegment(w, size_t(p - w));
}
}  // namespace

bool interpret_version_token(StrSegment t, http_version_t* out) {
    if (t.size() < 6 || !startsCaseless(t, "HTTP/", 5)) return false;
    size_t p = 5;
    while (p < t.size() && t[p] == '0') ++p;
    if (p == t.size()) return false;
    const char major = t[p];
    if (major >= '2' && major <= '9') throw HttpServerException(505, "HTTP version not supported");
    if (major != '1') return false;
    ++p;
    if (p < t.size() && t[p] >= '0' && t[p] <= '9') {
        throw HttpServerException(505, "HTTP version not supported");
    }
    if (p == t.size() || t[p] != '.' || p + 1 == t.size()) return false;
    ++p;
    while (p < t.size() && t[p] == '0') ++p;
    if (p == t.size()) {
        *out = HTTPVERSION_1_0;
        return true;
    }
    if (t[p] >= '0' && t[p] <= '9') {
        *out = HTTPVERSION_1_1;
        return true;
    }
    return false;
}

void HttpServerRequestFirstLine::clear() {
    if (_raw.capacity() > 8192) Str().swap(_raw);  // a 500 KB URL is not kept
    _raw.clear();
    _method = HttpMethod::UNKNOWN;
    _version = HTTPVERSION_0_9;
    _url = StrSegment();
}

void HttpServerRequestFirstLine::_setForError(bool urlSlash) {
    _method = HttpMethod::UNKNOWN;
    _version = HTTPVERSION_1_0;
    _url = urlSlash ? StrSegment(kSlash, 1) : StrSegment();
}

void HttpServerRequestFirstLine::setDestructive(Str& line) {
    _raw.swap(line);
    _url = StrSegment();
    const char* p = _raw.data();
    const char* end = p + _raw.size();
    const StrSegment method = nextWord(p, end);
    if (p == end) throw HttpBadRequestException("Malformed request line");
    mem_parse_into(method.data(), method.size(), &_method);
    _version = HTTPVERSION_0_9;
    _url = nextWord(p, end);
    if (_url.empty()) throw HttpBadRequestException("Request line without a URL");
    for (StrSegment t = nextWord(p, end); !t.empty(); t = nextWord(p, end)) {
        http_version_t v;
        if (interpret_version_token(t, &v)) _version = v;
    }
    if (_version == HTTPVERSION_0_9 && _method != HttpMethod::GET) {
        _method = HttpMethod::GET;
        throw HttpBadRequestException("HTTP/0.9 request with a method other than GET");
    }
    // An absolute URL, as a proxy would send it: keep the path.
    if (_url.size() >= 9 && _url[0] != '/') {
        size_t skip = startsCaseless(_url, "http://", 7)    ? 7
                      : startsCaseless(_url, "https://", 8) ? 8
                                                            : 0;
        if (skip != 0) {
            const size_t slash = _url.find('/', skip);
            _url = slash == StrSegment::npos ? StrSegment(kSlash, 1) : _url.substr(slash);
        }
    }
}

void HttpServerRequestFirstLine::removeFirstUrlElement() {
    StrSegment u = _url;
    while (!u.empty() && u[0] == '/') u = u.substr(1);
    const size_t slash = u.find('/');
    _url = slash == StrSegment::npos ? StrSegment(kSlash, 1) : u.substr(slash);
}

void HttpServerRequestFirstLine::urlPieces(StrSegment* path, StrSegment* params,
                                           StrSegment* query) const {
    const size_t q = _url.find('?');
    const StrSegment beforeQuery = _url.substr(0, q);
    const size_t semi = beforeQuery.find(';');
    if (path != nullptr) *path = beforeQuery.substr(0, semi);
    if (params != nullptr) {
        *params = semi == StrSegment::npos ? StrSegment(beforeQuery.end(), 0)
                                           : beforeQuery.substr(semi + 1);
    }
    if (query != nullptr) {
        *query = q == StrSegment::npos ? StrSegment(_url.end(), 0) : _url.substr(q + 1);
    }
}

bool HttpServerRequestFirstLine::urlPieces(StrSegment* path, HttpArguments* params,
                                           HttpArguments* query) const {
    StrSegment p, q;
    urlPieces(path, &p, &q);
    if (query != nullptr) query->clear();  // no stale arguments when params fail
    if (params != nullptr && !mem_parse_into(p.data(), p.size(), params)) return false;
    if (query != nullptr && !mem_parse_into(q.data(), q.size(), query)) return false;
    return true;
}

void append_stringified(Str* out, const HttpServerRequestFirstLine& l) {
    out->append(l._method.c_str()).push_back(' ');
    out->append(l._url).append(http_version_suffix(l._version));
}

bool HttpServerRequest::supportsKeepalive() const {
    const int k = headers.hasKeepalive();
    return k == 2 ? firstLine._version >= HTTPVERSION_1_1 : k == 1;
}

void HttpServerRequest::clear(StrVector* freeList) {
    firstLine.clear();
    headers.clear(freeList);
}

void HttpClientResponseFirstLine::clear() {
    _raw.clear();
    _version = HTTPVERSION_0_9;
    _status = 0;
    _description = StrSegment();
}

void HttpClientResponseFirstLine::setDestructive(Str& line) {
    _raw.swap(line);
    _status = 0;
    _description = StrSegment();
    const char* p = _raw.data();
    const char* end = p + _raw.size();
    const StrSegment version = nextWord(p, end);
    if (p == end) throw HttpBadRequestException("Malformed response line");
    http_version_t v;
    if (interpret_version_token(version, &v)) _version = v;
    while (p < end && isBlank(*p)) ++p;
    unsigned status = 0;
    for (; p < end && *p >= '0' && *p <= '9' && status < 1000; ++p)
        status = status * 10 + unsigned(*p - '0');
    if (status < 100 || status > 599)
        throw HttpInternalErrorException("Can't parse HTTP response code");
    _status = status;
    while (p < end && isBlank(*p)) ++p;
    _description = StrSegment(p, size_t(end - p));
}

void append_stringified(Str* out, const HttpClientResponseFirstLine& l) {
    if (l._raw.empty()) {
        out->append("Uninitialized HttpClientResponse structure");
        return;
    }
    out->append(l._raw);
}

bool HttpClientResponse::supportsKeepalive() const {
    const int k = headers.hasKeepalive();
    return k == 2 ? firstLine._version >= HTTPVERSION_1_1 : k == 1;
}

void HttpClientResponse::clear(StrVector* freeList) {
    firstLine.clear();
    headers.clear(freeList);
}

// ---------------------------------------------------------------- parsers

void HttpHeaderParserHelper::clear() {
    _state = STATE_FIRST_LINE;
    _size = 0;
    _line.clear();
    _firstLineOverflowed = false;
}

void HttpHeaderParserHelper::_startOversize() {
    _size += _line.size();
    const bool cr = !_line.empty() && _line.back() == '\r';
    Str().swap(_line);  // don't keep half a megabyte for the connection's life
    _state = cr ? STATE_OVERSIZE_CR : STATE_OVERSIZE;
}

bool HttpHeaderParserHelper::_throwAwayOversize(StrSegment* in) {
    const char* p = in->begin();
    const char* end = in->end();
    while (p < end) {
        if (_state == STATE_OVERSIZE || _state == STATE_OVERSIZE_CR) {
            // Inside a line only its LF matters.
            const char* lf = static_cast<const char*>(memchr(p, '\n', size_t(end - p)));
            if (lf == nullptr) {
                _state = end[-1] == '\r' ? STATE_OVERSIZE_CR : STATE_OVERSIZE;
                _size += size_t(end - p);
                p = end;
                break;
            }
            _size += size_t(lf - p) + 1;
            p = lf + 1;
            _state = STATE_OVERSIZE_LINE_START;
            continue;
        }
        const char c = *p;
        ++_size;
        if (c == '\n') {
            in->advanceTo(p);
            return true;
        }
        if (c == '\r') {
            _state = _state == STATE_OVERSIZE_LINE_START ? STATE_OVERSIZE_LINE_START_CR
                                                         : STATE_OVERSIZE_CR;
        } else {
            _state = STATE_OVERSIZE;
        }
        ++p;
    }
    in->advanceTo(end);
    return false;
}

bool HttpServerRequestParser::parse(TcpAsyncDataBuffer& buffer, HttpServerRequest* request) {
    auto& ring = buffer._rbuf;
    for (;;) {
        switch (_state) {
            case STATE_FIRST_LINE:
                if (!ring.accumulateLine(&_line)) {
                    if (_line.size() <= MAX_HEAD_SIZE) return false;
                    _firstLineOverflowed = true;
                    request->firstLine._setForError(false);
                    _startOversize();
                    break;
                }
                if (_line.size() > MAX_HEAD_SIZE) {
                    // The same line arriving whole: still the URI's fault,
                    // however the reads fell.
                    _firstLineOverflowed = true;
                    request->firstLine._setForError(false);
                    _startOversize();
                    _state = STATE_OVERSIZE_LINE_START;
                    break;
                }
                if (_line.empty()) {
                    // Before the request line the size counts the empty lines.
                    if (++_size > MAX_EMPTY_LINES) {
                        request->firstLine._setForError(false);
                        throw HttpBadRequestException("Too many empty lines before the request");
                    }
                    break;
                }
                _size += _line.size();
                try {
                    request->firstLine.setDestructive(_line);
                } catch (const HttpException&) {
                    _line.clear();
                    request->firstLine._setForError(true);
                    throw;
                }
                _line.clear();
                if (request->firstLine._version == HTTPVERSION_0_9) {
                    clear();
                    return true;
                }
                _state = STATE_HEADERS;
                break;
            case STATE_HEADERS: {
                size_t n;
                struct iovec v[2];
                const char* lf;
                if (_line.empty() && ring.dataSegments(v) != 0 &&
                    (lf = static_cast<const char*>(memchr(v[0].iov_base, '\n', v[0].iov_len)))) {
                    // The common case: the whole line lies in the ring, and is
                    // copied once, into its header's string.
                    const char* p = static_cast<const char*>(v[0].iov_base);
                    const size_t used = size_t(lf - p) + 1;
                    const size_t len = used - 1 - (used > 1 && lf[-1] == '\r');
                    ring.consume(used);  // the bytes stay where they are until the next read
                    n = request->headers._addParsedHeaderBytes(p, len, &_freeList);
                } else {
                    if (!ring.accumulateLine(&_line)) {
                        if (_line.size() + _size <= MAX_HEAD_SIZE) return false;
                        _startOversize();
                        break;
                    }
                    n = request->headers.addParsedHeaderLine(&_line, &_freeList);
                }
                if (n == 0) {
                    _line.clear();
                    if (request->firstLine._method == HttpMethod::UNKNOWN) {
                        throw HttpNotImplementedException();
                    }
                    clear();
                    return true;
                }
                _size += n;
                if (_size > MAX_HEAD_SIZE || request->headers.size() == MAX_HEADER_LINES + 1) {
                    _state = STATE_OVERSIZE_LINE_START;
                }
                break;
            }
            default: {
                struct iovec v[2];
                const unsigned n = ring.dataSegments(v);
                for (unsigned i = 0; i < n; ++i) {
                    StrSegment s(static_cast<const char*>(v[i].iov_base), v[i].iov_len);
                    if (_throwAwayOversize(&s)) {
                        ring.consume(v[i].iov_len - s.size() + 1);
                        const bool uri = _firstLineOverflowed;
                        clear();
                        if (uri) throw HttpRequestUriTooLongException("Request-URI too long");
                        throw HttpRequestEntityTooLargeException("Request header too large");
                    }
                    ring.consume(v[i].iov_len);
                }
                return false;
            }
        }
    }
}

bool HttpClientResponseParser::parse(StrSegment* in, HttpClientResponse* response) {
    for (;;) {
        switch (_state) {
            case STATE_FIRST_LINE:
                if (!in->accumulateLine(&_line) || _line.size() > MAX_HEAD_SIZE) {
                    if (_line.size() <= MAX_HEAD_SIZE) return false;
                    clear();
                    Str().swap(_line);
                    throw HttpRequestEntityTooLargeException("Response line too long");
                }
                if (_line.empty()) {
                    if (++_size > MAX_EMPTY_LINES) {
                        throw HttpBadRequestException("Too many empty lines before the response");
                    }
                    break;
                }
                _size += _line.size();
                try {
                    response->firstLine.setDestructive(_line);
                } catch (const HttpException&) {
                    _line.clear();
                    throw;
                }
                _line.clear();
                _state = STATE_HEADERS;
                break;
            case STATE_HEADERS: {
                if (!in->accumulateLine(&_line)) {
                    if (_line.size() + _size <= MAX_HEAD_SIZE) return false;
                    _startOversize();
                    break;
                }
                const size_t n = response->headers.addParsedHeaderLine(&_line, &_freeList);
                if (n == 0) {
                    _line.clear();
                    clear();
                    return true;
                }
                _size += n;
                if (_size > MAX_HEAD_SIZE || response->headers.size() == MAX_HEADER_LINES + 1) {
                    _state = STATE_OVERSIZE_LINE_START;
                }
                break;
            }
            default: {
                if (_throwAwayOversize(in)) {
                    in->advanceTo(in->begin() + 1);
                    clear();
                    throw HttpRequestEntityTooLargeException("Response header too large");
                }
                return false;
            }
        }
    }
}
