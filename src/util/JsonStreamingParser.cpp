#include "util/JsonStreamingParser.h"

#include <cerrno>
#include <cstring>

#include "libzero/assertion.h"
#include "util/AppendStr.h"
#include "util/ByteScan.h"
#include "util/FileDescriptor.h"
#include "util/FileStar.h"
#include "util/Pathname.h"

namespace {

enum json_ctype : uint8_t {
    JSON_CTYPE_QUOTE = 0,
    JSON_CTYPE_BACKSLASH = 1,
    JSON_CTYPE_CTRL = 2,
    JSON_CTYPE_CTRL_WHITESPACE = 4,
    JSON_CTYPE_SPACE = 5,
    JSON_CTYPE_OPEN_CURLY = 6,
    JSON_CTYPE_OPEN_SQUARE = 7,
    JSON_CTYPE_CLOSE_CURLY = 8,
    JSON_CTYPE_CLOSE_SQUARE = 9,
    JSON_CTYPE_ZERO = 10,
    JSON_CTYPE_NONZERO_DIGIT = 11,
    JSON_CTYPE_POINT = 12,
    JSON_CTYPE_EXPONENT = 13,
    JSON_CTYPE_MINUS = 14,
    JSON_CTYPE_COLON = 15,
    JSON_CTYPE_T = 16,
    JSON_CTYPE_F = 17,
    JSON_CTYPE_N = 18,
    JSON_CTYPE_SLASH = 19,
    JSON_CTYPE_COMMA = 20,
    JSON_CTYPE_OTHER = 21,
};

struct CtypeTable {
    uint8_t t[256];
    constexpr CtypeTable() : t() {
        for (int i = 0; i < 256; ++i) t[i] = JSON_CTYPE_OTHER;
        for (int i = 0; i < 0x20; ++i) t[i] = JSON_CTYPE_CTRL;
        t[uint8_t('\t')] = t[uint8_t('\n')] = t[uint8_t('\r')] = JSON_CTYPE_CTRL_WHITESPACE;
        t[uint8_t(' ')] = JSON_CTYPE_SPACE;
        t[uint8_t('"')] = JSON_CTYPE_QUOTE;
        t[uint8_t('\\')] = JSON_CTYPE_BACKSLASH;
        t[uint8_t('{')] = JSON_CTYPE_OPEN_CURLY;
        t[uint8_t('[')] = JSON_CTYPE_OPEN_SQUARE;
        t[uint8_t('}')] = JSON_CTYPE_CLOSE_CURLY;
        t[uint8_t(']')] = JSON_CTYPE_CLOSE_SQUARE;
        t[uint8_t('0')] = JSON_CTYPE_ZERO;
        for (int i = '1'; i <= '9'; ++i) t[i] = JSON_CTYPE_NONZERO_DIGIT;
        t[uint8_t('.')] = JSON_CTYPE_POINT;
        t[uint8_t('e')] = t[uint8_t('E')] = JSON_CTYPE_EXPONENT;
        t[uint8_t('-')] = JSON_CTYPE_MINUS;
        t[uint8_t(':')] = JSON_CTYPE_COLON;
        t[uint8_t('t')] = JSON_CTYPE_T;
        t[uint8_t('f')] = JSON_CTYPE_F;
        t[uint8_t('n')] = JSON_CTYPE_N;
        t[uint8_t('/')] = JSON_CTYPE_SLASH;
        t[uint8_t(',')] = JSON_CTYPE_COMMA;
    }
};
constexpr CtypeTable kCtype;

inline unsigned ctype(char c) { return kCtype.t[static_cast<unsigned char>(c)]; }
inline bool isWhitespace(char c) { return c == ' ' || c == '\n' || c == '\r' || c == '\t'; }
inline bool isDigit(char c) { return static_cast<unsigned char>(c - '0') < 10; }
// A string's run stops at '"', '\' or any byte below 0x20.
inline bool endsStringRun(char c) { return ctype(c) <= JSON_CTYPE_CTRL_WHITESPACE; }

// Usually there is none, or one blank; indented documents have long runs.
inline const char* skipWhitespace(const char* p, const char* end) {
    if (p<end&& static_cast<unsigned char>(*p)> ' ') return p;
    while (end - p >= 16) {
        const __m128i v = bytescan::load16(p);
        const __m128i ws = _mm_or_si128(_mm_or_si128(_mm_cmpeq_epi8(v, _mm_set1_epi8(' ')),
                                                     _mm_cmpeq_epi8(v, _mm_set1_epi8('\n'))),
                                        _mm_or_si128(_mm_cmpeq_epi8(v, _mm_set1_epi8('\r')),
                                                     _mm_cmpeq_epi8(v, _mm_set1_epi8('\t'))));
        const unsigned mask = static_cast<unsigned>(_mm_movemask_epi8(ws));
        if (mask != 0xFFFF) return p + __builtin_ctz(~mask);
        p += 16;
    }
    while (p < end && isWhitespace(*p)) ++p;
    return p;
}

inline const char* scanStringRun(const char* p, const char* end) {
    const __m128i quote = _mm_set1_epi8('"');
    const __m128i backslash = _mm_set1_epi8('\\');
    const __m128i ctrlMax = _mm_set1_epi8(0x1F);
    while (end - p >= 16) {
        const __m128i v = bytescan::load16(p);
        const __m128i ctrl = _mm_cmpeq_epi8(_mm_max_epu8(v, ctrlMax), ctrlMax);
        const __m128i hits = _mm_or_si128(
            _mm_or_si128(_mm_cmpeq_epi8(v, quote), _mm_cmpeq_epi8(v, backslash)), ctrl);
        const unsigned mask = static_cast<unsigned>(_mm_movemask_epi8(hits));
        if (mask != 0) return p + __builtin_ctz(mask);
        p += 16;
    }
    while (p < end && !endsStringRun(*p)) ++p;
    return p;
}

inline const char* skipDigits(const char* p, const char* end) {
    while (end - p >= 16) {
        const __m128i v = bytescan::load16(p);
        const __m128i digits = _mm_and_si128(_mm_cmpgt_epi8(v, _mm_set1_epi8('0' - 1)),
                                             _mm_cmplt_epi8(v, _mm_set1_epi8('9' + 1)));
        const unsigned mask = static_cast<unsigned>(_mm_movemask_epi8(digits));
        if (mask != 0xFFFF) return p + __builtin_ctz(~mask);
        p += 16;
    }
    while (p < end && isDigit(*p)) ++p;
    return p;
}

inline int hexValue(char c) {
    if (isDigit(c)) return c - '0';
    const unsigned lower = static_cast<unsigned char>(c) | 0x20;
    if (lower >= 'a' && lower <= 'f') return static_cast<int>(lower - 'a' + 10);
    return -1;
}

const char kRue[] = "rue";
const char kAlse[] = "alse";
const char kUll[] = "ull";

}  // namespace

// ---------------------------------------------------------------- error

JsonStreamingParser::error::error(long position, const Str& message) noexcept
    : _errorPosition(position) {
    _set_str(message.data(), message.size());
}

JsonStreamingParser::error::error(long position, Str&& message) noexcept
    : _errorPosition(position) {
    _message = std::move(message);
}

JsonStreamingParser::error::error(long position, const char* message) noexcept
    : BaseException(message), _errorPosition(position) {}

// ---------------------------------------------------------------- hooks

JsonStreamingParser::JsonStreamingParser() : _literal(nullptr) {}
JsonStreamingParser::~JsonStreamingParser() = default;

void JsonStreamingParser::gotNull() {}
void JsonStreamingParser::gotBool(bool) {}
void JsonStreamingParser::gotNumber(Str&) {}
void JsonStreamingParser::gotStringLiteral(Str&) {}
bool JsonStreamingParser::gotOpenArray() { return true; }
void JsonStreamingParser::gotCloseArray() {}
bool JsonStreamingParser::gotOpenObject() { return true; }
void JsonStreamingParser::gotCloseObject() {}
bool JsonStreamingParser::gotObjectKey(Str&) { return true; }
void JsonStreamingParser::gotStartOfBlock() {}
int JsonStreamingParser::gotEndOfBlock() { return 1; }
bool JsonStreamingParser::acceptTrailingComma() { return true; }
bool JsonStreamingParser::acceptComments() { return true; }
bool JsonStreamingParser::acceptControlCharacter(char) { return false; }
unsigned JsonStreamingParser::maxDepth() { return 500; }
void JsonStreamingParser::gotNulInString(Str* buffer) { buffer->push_back('\0'); }
bool JsonStreamingParser::ignoreOverlengthString() { return false; }

// ---------------------------------------------------------------- errors

void JsonStreamingParser::throwAt(long position, const char* message) {
    _position = position;
    throw error(position, message);
}

void JsonStreamingParser::unexpected(const char* p, const char* end, const char* context) {
    _position -= end - p;
    Str message("Unexpected character");
    if (context != nullptr) {
        message.push_back(' ');
        message.append(context);
    }
    message.append(": '");
    const unsigned char c = static_cast<unsigned char>(*p);
    if (c >= 0x20 && c <= 0x7E) {
        if (c == '"' || c == '\'' || c == '\\') message.push_back('\\');
        message.push_back(static_cast<char>(c));
    } else {
        message.appendFormat("\\%02X", c);
    }
    message.push_back('\'');
    throw error(_position, std::move(message));
}

// ---------------------------------------------------------------- the machine

void JsonStreamingParser::checkLimits() {
    switch (_state) {
        case IN_STRING:
        case GOT_BACKSLASH:
        case GOT_BACKSLASH_U:
        case SURROGATE_WANT_BACKSLASH:
        case SURROGATE_WANT_U:
            if (_isKey) {
                if (_buffer.size() > _maxKeyLength) throwAt(_position, "Key name too long");
            } else if (_buffer.size() > _maxValueLength) {
                // A skipped string only gathers the NULs its escapes stand for;
                // they are dropped rather than counted as a value of its own.
                if (_ignoringLevel != 0) {
                    _buffer.clear();
                    return;
                }
                if (!ignoreOverlengthString()) {
                    throw error(
                        _position,
                        Str::fromFormat("String value too long. valueSize=%lu, maxValueSize=%lu",
                                        static_cast<unsigned long>(_buffer.size()),
                                        static_cast<unsigned long>(_maxValueLength)));
                }
                ASSERT(_ignoringLevel == 0);
                _buffer.clear();
                _ignoringLevel = IGNORE_NEXT_VALUE;
                gotNull();
            }
            break;
        case NUMBER_AFTER_DIGIT:
        case NUMBER_AFTER_POINT:
        case NUMBER_AFTER_DECIMAL:
        case NUMBER_AFTER_E:
        case NUMBER_AFTER_E_SIGN:
        case NUMBER_AFTER_EXPONENT:
            if (_buffer.size() > _maxNumberLength) throwAt(_position, "Number too long");
            break;
        default:
            break;
    }
}

void JsonStreamingParser::openBlock(const char* p, const char* end, unsigned char c) {
    _tokenStart = _position - (end - p);
    if (_stack.empty()) {
        _seenBlock = true;
        gotStartOfBlock();
    } else if (maxDepth() < _stack.size()) {
        throwAt(_tokenStart, "Nesting too deep");
    }
    const bool isObject = c == '{';
    _stack.push_back(isObject ? STACK_LEVEL_OBJECT : STACK_LEVEL_ARRAY);
    if (_ignoringLevel != 0) {
        ++_ignoringLevel;
    } else if (!(isObject ? gotOpenObject() : gotOpenArray())) {
        _ignoringLevel = 1;
    }
    _state = FIRST_ELEMENT;
}

// `p` is behind the closer.
bool JsonStreamingParser::closeBlock(const char* p, const char* end) {
    if (_ignoringLevel != 0) {
        --_ignoringLevel;
    } else {
        _tokenEnd = _position - (end - p);
        if (_stack.back() == STACK_LEVEL_ARRAY) {
            gotCloseArray();
        } else {
            gotCloseObject();
        }
    }
    _stack.pop_back();
    if (!_stack.empty()) {
        _state = AFTER_VALUE;
        if (_ignoringLevel == IGNORE_NEXT_VALUE) _ignoringLevel = 0;
        return false;
    }
    switch (gotEndOfBlock()) {
        case 1:
            _state = START_VALUE;
            return false;
        case 2:
            _state = AFTER_VALUE;
            return true;
        case 0:
            _state = EXPECTING_END_OF_STREAM;
            return false;
        default:
            _state = AFTER_VALUE;
            return false;
    }
}

void JsonStreamingParser::appendCodepoint(uint32_t cp) {
    if (cp < 0x80) {
        _buffer.push_back(static_cast<char>(cp));
    } else {
        const utf8_character_buffer u(cp);
        _buffer.append(u.data(), u.size());
    }
}

void JsonStreamingParser::deliverPendingNumber() {
    switch (_state) {
        case NUMBER_AFTER_ZERO:
        case NUMBER_AFTER_DIGIT:
        case NUMBER_AFTER_DECIMAL:
        case NUMBER_AFTER_EXPONENT:
            if (_ignoringLevel == 0) {
                _tokenEnd = _position;
                gotNumber(_buffer);
            }
            endOfValue();
            break;
        default:
            break;
    }
}

// The states jump to one another directly while bytes remain; _state is kept
// current at every label so that a chunk can end, or a hook throw, anywhere.
void JsonStreamingParser::parse(const char* data, size_t length) {
    _position += static_cast<int64_t>(length);
    checkLimits();
    const char* p = data;
    const char* const end = data + length;
    const char* numStart = data;  // the number's bytes not yet in _buffer
    char c;

#define POS(ptr) (_position - (end - (ptr)))
// A comment stands where whitespace may; one that isn't accepted is a bad
// byte of the state it stands in.
#define TRY_COMMENT()             \
    do {                          \
        if (acceptComments()) {   \
            _savedState = _state; \
            ++p;                  \
            _state = GOT_SLASH;   \
            goto got_slash;       \
        }                         \
    } while (0)

dispatch:
    switch (_state) {
        case START_VALUE:
            goto start_value;
        case IN_STRING:
            goto in_string;
        case NUMBER_AFTER_ZERO:
        case NUMBER_AFTER_DIGIT:
        case NUMBER_AFTER_MINUS:
        case NUMBER_AFTER_POINT:
        case NUMBER_AFTER_DECIMAL:
        case NUMBER_AFTER_E:
        case NUMBER_AFTER_E_SIGN:
        case NUMBER_AFTER_EXPONENT:
            goto number;
        case GETTING_LITERAL:
            goto literal;
        case FIRST_ELEMENT:
            goto first_element;
        case AFTER_COMMA:
            goto after_comma;
        case AFTER_KEY:
            goto after_key;
        case AFTER_VALUE:
            goto after_value;
        case GOT_BACKSLASH:
            goto got_backslash;
        case EXPECTING_END_OF_STREAM:
            goto expecting_end_of_stream;
        case GOT_BACKSLASH_U:
            goto got_backslash_u;
        case SURROGATE_WANT_BACKSLASH:
            goto surrogate_want_backslash;
        case SURROGATE_WANT_U:
            goto surrogate_want_u;
        case GOT_SLASH:
            goto got_slash;
        case IGNORE_REST_OF_LINE:
            goto ignore_rest_of_line;
        case IGNORING_C_COMMENT:
            goto ignoring_c_comment;
        case IGNORING_C_COMMENT_GOT_STAR:
            goto ignoring_c_comment_got_star;
    }
    ASSERT(0 && "JsonStreamingParser: bad _state");

start_value:
    _state = START_VALUE;
    p = skipWhitespace(p, end);
    if (p == end) return;
    c = *p;
    switch (ctype(c)) {
        case JSON_CTYPE_QUOTE:
            _isKey = false;
            _buffer.clear();
            ++p;
            _tokenStart = POS(p);
            goto in_string;
        case JSON_CTYPE_OPEN_CURLY:
        case JSON_CTYPE_OPEN_SQUARE:
            openBlock(p, end, static_cast<unsigned char>(c));
            ++p;
            goto first_element;
        case JSON_CTYPE_MINUS:
            _state = NUMBER_AFTER_MINUS;
            goto number_start;
        case JSON_CTYPE_ZERO:
            _state = NUMBER_AFTER_ZERO;
            goto number_start;
        case JSON_CTYPE_NONZERO_DIGIT:
            _state = NUMBER_AFTER_DIGIT;
            goto number_start;
        case JSON_CTYPE_T:
            _literal = kRue;
            goto literal_start;
        case JSON_CTYPE_F:
            _literal = kAlse;
            goto literal_start;
        case JSON_CTYPE_N:
            _literal = kUll;
            goto literal_start;
        case JSON_CTYPE_SLASH:
            TRY_COMMENT();
            break;
        default:
            break;
    }
    unexpected(p, end, "while looking for value");

number_start:
    _buffer.clear();
    _tokenStart = POS(p);
    numStart = p;
    {
        // Most numbers lie whole in the chunk: read them in one go. Anything
        // else (a bad byte, the chunk's end) goes through the states below.
        const char* q = p;
        if (*q == '-') ++q;
        if (q < end && *q == '0') {
            ++q;
        } else if (q < end && isDigit(*q)) {
            q = skipDigits(q + 1, end);
        } else {
            goto number_by_state;
        }
        if (q < end && *q == '.') {
            if (++q == end || !isDigit(*q)) goto number_by_state;
            q = skipDigits(q + 1, end);
        }
        if (q < end && (*q == 'e' || *q == 'E')) {
            if (++q < end && (*q == '+' || *q == '-')) ++q;
            if (q == end || !isDigit(*q)) goto number_by_state;
            q = skipDigits(q + 1, end);
        }
        if (q == end) goto number_by_state;  // it may go on in the next chunk
        p = q;
        goto number_end;
    }
number_by_state:
    p = numStart + 1;  // _state already tells what the first byte was
number:
    for (;;) {
        if (p == end) {
            _buffer.append(numStart, static_cast<size_t>(end - numStart));
            return;
        }
        c = *p;
        switch (_state) {
            case NUMBER_AFTER_MINUS:
                if (c == '0') {
                    _state = NUMBER_AFTER_ZERO;
                } else if (isDigit(c)) {
                    _state = NUMBER_AFTER_DIGIT;
                } else {
                    unexpected(p, end, "after minus sign");
                }
                ++p;
                continue;
            case NUMBER_AFTER_DIGIT:
            case NUMBER_AFTER_DECIMAL:
                while (isDigit(c)) {
                    if (++p == end) break;
                    c = *p;
                }
                if (p == end) continue;
                [[fallthrough]];
            case NUMBER_AFTER_ZERO:
                if (c == '.' && _state != NUMBER_AFTER_DECIMAL) {
                    _state = NUMBER_AFTER_POINT;
                } else if (c == 'e' || c == 'E') {
                    _state = NUMBER_AFTER_E;
                } else {
                    goto number_end;
                }
                ++p;
                continue;
            case NUMBER_AFTER_POINT:
                if (!isDigit(c)) unexpected(p, end, "after decimal point");
                _state = NUMBER_AFTER_DECIMAL;
                ++p;
                continue;
            case NUMBER_AFTER_E:
                if (c == '+' || c == '-') {
                    _state = NUMBER_AFTER_E_SIGN;
                    ++p;
                    continue;
                }
                [[fallthrough]];
            case NUMBER_AFTER_E_SIGN:
                if (!isDigit(c)) unexpected(p, end, "after exponent");
                _state = NUMBER_AFTER_EXPONENT;
                ++p;
                continue;
            case NUMBER_AFTER_EXPONENT:
                while (isDigit(c)) {
                    if (++p == end) break;
                    c = *p;
                }
                if (p == end) continue;
                goto number_end;
            default:
                ASSERT(0 && "JsonStreamingParser: bad _state");
        }
    }
number_end:
    if (_ignoringLevel == 0) {
        _tokenEnd = POS(p);
        _buffer.append(numStart, static_cast<size_t>(p - numStart));
        gotNumber(_buffer);
    }
    endOfValue();
    goto after_value;

literal_start:
    _state = GETTING_LITERAL;
    _tokenStart = POS(p);
    ++p;
literal:
    while (*_literal != '\0') {
        if (p == end) return;
        if (*p != *_literal) unexpected(p, end, "while parsing literal token");
        ++p;
        ++_literal;
    }
    if (_ignoringLevel == 0) {
        _tokenEnd = POS(p);
        if (_literal == kUll + 3) {
            gotNull();
        } else {
            gotBool(_literal == kRue + 3);
        }
    }
    endOfValue();
    goto after_value;

in_string:
    _state = IN_STRING;
    for (;;) {
        const char* run = p;
        p = scanStringRun(p, end);
        if (p != run && _ignoringLevel == 0) _buffer.append(run, static_cast<size_t>(p - run));
        if (p == end) return;
        c = *p;
        if (c == '"') {
            _tokenEnd = POS(p);
            ++p;
            if (_isKey) {
                if (_ignoringLevel == 0 && !gotObjectKey(_buffer))
                    _ignoringLevel = IGNORE_NEXT_VALUE;
                goto after_key;
            }
            if (_ignoringLevel == 0) gotStringLiteral(_buffer);
            endOfValue();
            goto after_value;
        }
        if (c == '\\') {
            ++p;
            goto got_backslash;
        }
        if (!acceptControlCharacter(c)) unexpected(p, end, "in string");
        if (c == '\0') {
            gotNulInString(&_buffer);
        } else if (_ignoringLevel == 0) {
            _buffer.push_back(c);
        }
        ++p;
    }

got_backslash:
    _state = GOT_BACKSLASH;
    if (p == end) return;
    c = *p;
    switch (c) {
        case '"':
        case '/':
        case '\\':
            break;
        case 'b':
            c = '\b';
            break;
        case 'f':
            c = '\f';
            break;
        case 'n':
            c = '\n';
            break;
        case 'r':
            c = '\r';
            break;
        case 't':
            c = '\t';
            break;
        case 'u':
            ++p;
            _hexWanted = 4;
            _codepoint = 0;
            _surrogate_cp = 0;
            goto got_backslash_u;
        default:
            unexpected(p, end, "while parsing backslash escape");
    }
    if (_ignoringLevel == 0) _buffer.push_back(c);
    ++p;
    goto in_string;

got_backslash_u:
    _state = GOT_BACKSLASH_U;
    while (_hexWanted > 0) {
        if (p == end) return;
        const int h = hexValue(*p);
        if (h < 0) unexpected(p, end, "inside \\u escape");
        ASSERT(_codepoint < 0x1000);
        _codepoint = (_codepoint << 4) | static_cast<uint32_t>(h);
        ++p;
        --_hexWanted;
    }
    if (_surrogate_cp == 0) {
        if (_codepoint >= 0xD800 && _codepoint <= 0xDFFF) {
            // Positions name the backslash of the escape that started the pair.
            if (_codepoint >= 0xDC00) throwAt(POS(p) - 6, "Bare surrogate pair in string");
            _surrogate_cp = _codepoint;
            _codepoint = 0;
            _hexWanted = 4;
            goto surrogate_want_backslash;
        }
        if (_codepoint == 0) {
            gotNulInString(&_buffer);
        } else if (_ignoringLevel == 0) {
            appendCodepoint(_codepoint);
        }
    } else {
        if (_codepoint < 0xDC00 || _codepoint > 0xDFFF) {
            throwAt(POS(p) - 12, "Bare surrogate pair in string");
        }
        if (_ignoringLevel == 0) appendCodepoint((_surrogate_cp << 10) + _codepoint - 0x35FDC00);
    }
    goto in_string;

surrogate_want_backslash:
    _state = SURROGATE_WANT_BACKSLASH;
    if (p == end) return;
    if (*p != '\\') throwAt(POS(p) - 6, "Bare surrogate pair in string");
    ++p;
surrogate_want_u:
    _state = SURROGATE_WANT_U;
    if (p == end) return;
    if (*p != 'u') throwAt(POS(p) - 7, "Bare surrogate pair in string");
    ++p;
    goto got_backslash_u;

first_element:
    _state = FIRST_ELEMENT;
    p = skipWhitespace(p, end);
    if (p == end) return;
    c = *p;
    if (c == '}' || c == ']') goto after_value;
    if (c == '/') TRY_COMMENT();
    goto element_start;

after_comma:
    _state = AFTER_COMMA;
    p = skipWhitespace(p, end);
    if (p == end) return;
    c = *p;
    if ((c == '}' || c == ']') && acceptTrailingComma()) goto after_value;
    if (c == '/') TRY_COMMENT();
element_start:
    ASSERT(!_stack.empty());
    if (_stack.back() == STACK_LEVEL_OBJECT) {
        if (c != '"') unexpected(p, end, "while expecting '\\\"'");
        _isKey = true;
        _buffer.clear();
        ++p;
        _tokenStart = POS(p);
        goto in_string;
    }
    goto start_value;

after_key:
    _state = AFTER_KEY;
    p = skipWhitespace(p, end);
    if (p == end) return;
    c = *p;
    if (c == ':') {
        ++p;
        goto start_value;
    }
    if (c == '/') TRY_COMMENT();
    unexpected(p, end, "while expecting ':'");

after_value:
    _state = AFTER_VALUE;
    p = skipWhitespace(p, end);
    if (p == end) return;
    c = *p;
    switch (c) {
        case ',':
            if (_stack.empty()) break;
            ++p;
            goto after_comma;
        case ']':
        case '}':
            if (_stack.empty() ||
                _stack.back() != (c == ']' ? STACK_LEVEL_ARRAY : STACK_LEVEL_OBJECT)) {
                break;
            }
            ++p;
            if (closeBlock(p, end)) return;
            goto dispatch;
        case '/':
            TRY_COMMENT();
            break;
        default:
            break;
    }
    unexpected(p, end, nullptr);

expecting_end_of_stream:
    _state = EXPECTING_END_OF_STREAM;
    p = skipWhitespace(p, end);
    if (p == end) return;
    if (*p == '/') TRY_COMMENT();
    unexpected(p, end, "while expecting EOF");

got_slash:
    if (p == end) return;
    if (*p == '/') {
        ++p;
        goto ignore_rest_of_line;
    }
    if (*p == '*') {
        ++p;
        goto ignoring_c_comment;
    }
    // The report names the slash, which may lie in an earlier chunk.
    throwAt(POS(p) - 1, "Unexpected character: '/'");

ignore_rest_of_line:
    _state = IGNORE_REST_OF_LINE;
    {
        const void* lf = memchr(p, '\n', static_cast<size_t>(end - p));
        if (lf == nullptr) return;
        p = static_cast<const char*>(lf) + 1;
    }
    _state = static_cast<state_t>(_savedState);
    goto dispatch;

ignoring_c_comment:
    _state = IGNORING_C_COMMENT;
    {
        const void* star = memchr(p, '*', static_cast<size_t>(end - p));
        if (star == nullptr) return;
        p = static_cast<const char*>(star) + 1;
    }
ignoring_c_comment_got_star:
    _state = IGNORING_C_COMMENT_GOT_STAR;
    while (p < end && *p == '*') ++p;
    if (p == end) return;
    if (*p++ != '/') goto ignoring_c_comment;
    _state = static_cast<state_t>(_savedState);
    goto dispatch;

#undef POS
#undef TRY_COMMENT
}

// ---------------------------------------------------------------- the rest

void JsonStreamingParser::finish() {
    deliverPendingNumber();
    bool unexpectedEof = !_stack.empty();
    if (_min_seen_at_finish == AT_FINISH_NEED_VALUE && !_seenBlock && !_seenScalar) {
        unexpectedEof = true;
    }
    if (_min_seen_at_finish == AT_FINISH_NEED_BLOCK && !_seenBlock) unexpectedEof = true;
    if (_state != START_VALUE && _state != AFTER_VALUE && _state != EXPECTING_END_OF_STREAM) {
        unexpectedEof = true;
    }
    if (unexpectedEof) throw error(_position, "Unexpected EOF");
}

void JsonStreamingParser::forceEndOfBlock() {
    deliverPendingNumber();
    _tokenEnd = _position;
    const bool wasEmpty = _stack.empty();
    while (!_stack.empty()) {
        // Blocks inside a skipped value close silently; under a refused key
        // (the top bit alone) the key's own object closes as usual.
        if ((_ignoringLevel & ~IGNORE_NEXT_VALUE) != 0) {
            --_ignoringLevel;
        } else {
            _ignoringLevel = 0;
            if (_stack.back() == STACK_LEVEL_ARRAY) {
                gotCloseArray();
            } else {
                gotCloseObject();
            }
        }
        _stack.pop_back();
    }
    _ignoringLevel = 0;  // nothing is open that could still be skipped
    if (wasEmpty &&
        (_state == START_VALUE || _state == AFTER_VALUE || _state == EXPECTING_END_OF_STREAM)) {
        return;
    }
    _state = gotEndOfBlock() == 1 ? START_VALUE : EXPECTING_END_OF_STREAM;
}

void JsonStreamingParser::resetParserState() {
    _state = START_VALUE;
    _stack.clear();
    _ignoringLevel = 0;
    _seenBlock = false;
    _seenScalar = false;
}

void JsonStreamingParser::parse(const AppendStr& text) {
    PortableIovecCursor cursor;
    cursor.start(text);
    StrSegment seg;
    while (cursor.getSeg(&seg)) parse(seg.data(), seg.size());
}

namespace {

template <class Source>
void parseStream(JsonStreamingParser* parser, Source& source) {
    char buf[16384];
    for (;;) {
        const ssize_t n = source.read(buf, sizeof buf);
        if (n == 0) break;
        if (n < 0)
            throw JsonStreamingParser::error(parser->position(),
                                             Str::fromFormat("error reading: %m"));
        parser->parse(buf, static_cast<size_t>(n));
    }
    parser->finish();
}

}  // namespace

void JsonStreamingParser::parse(const FileDescriptor& fd) {
    FileDescriptor f = fd;
    parseStream(this, f);
}

void JsonStreamingParser::parse(FileStar& f) { parseStream(this, f); }

void JsonStreamingParser::parse(const Pathname& path) {
    ScopedFileDescriptor fd(path);
    if (!fd.valid()) {
        throw error(_position, Str::fromFormat("cannot open \"%s\": %m", path.c_str()));
    }
    parse(static_cast<const FileDescriptor&>(fd));
}

bool mem_parse_into(const char* text, size_t length, JsonStreamingParser* parser) {
    if (text == nullptr) return false;
    try {
        parser->parse(text, length);
        parser->finish();
    } catch (const JsonStreamingParser::error&) {
        return false;
    }
    return true;
}

// ---------------------------------------------------------------- one bare string

namespace {

// Feeds the text between two quotes; exactly one string literal, closed by
// our own quote, is a success.
class OnlyUnencodeJsonString : public JsonStreamingParser {
public:
    explicit OnlyUnencodeJsonString(Str* dest) : _dest(dest) {}
    int phase = 0;

protected:
    void gotStringLiteral(Str& value) override {
        if (phase != 1) throw error(0, "");
        _dest->swap(value);
        phase = 2;
    }

private:
    Str* _dest;
};

}  // namespace

bool mem_decode_json_string_into(Str* dest, const char* text, size_t length) {
    OnlyUnencodeJsonString parser(dest);
    try {
        parser.parse("\"", 1);
        parser.parse(text, length);
        parser.phase = 1;
        parser.parse("\"", 1);
    } catch (const JsonStreamingParser::error&) {
        return false;
    }
    return parser.phase == 2;
}
