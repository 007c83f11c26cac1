#include "util/Str.h"

#include <algorithm>
#include <vector>

#include "libzero/ospath-builder.h"
#include "util/ByteScan.h"

// Constants are constant-initialised, so that other translation units may use
// them from their own static initialisers.

constinit const CharacterClass CharacterClass::DIGITS("0123456789");
constinit const CharacterClass CharacterClass::HEX_DIGITS("0123456789abcdefABCDEF");
#define TX_LETTERS "ABCDEFGHIJKLMNOPQRSTUVWXYZabcdefghijklmnopqrstuvwxyz"
constinit const CharacterClass CharacterClass::ALPHA(TX_LETTERS);
constinit const CharacterClass CharacterClass::ALPHA_UNDER(TX_LETTERS "_");
constinit const CharacterClass CharacterClass::ALPHA_NUM(TX_LETTERS "0123456789");
constinit const CharacterClass CharacterClass::ALPHA_NUM_UNDER(TX_LETTERS "0123456789_");
constinit const CharacterClass CharacterClass::ALPHA_NUM_UNDER_DOT(TX_LETTERS "0123456789_.");
constinit const CharacterClass CharacterClass::ALPHA_NUM_UNDER_DASH(TX_LETTERS "0123456789_-");
constinit const CharacterClass CharacterClass::ALPHA_NUM_UNDER_DASH_DOT(TX_LETTERS "0123456789_-.");
constinit const CharacterClass CharacterClass::COMMA_OR_SPACE(" ,");
constinit const CharacterClass CharacterClass::SEARCH_ESC("\"\\");
constinit const CharacterClass CharacterClass::ALL_WHITESPACES(" \t\n\v\f\r");
#undef TX_LETTERS

constinit const CharacterClass StrlikeTraits::default_trimchars(" \t");

TX_EARLY_CONSTANT const Str Str::EMPTY_STR;
TX_EARLY_CONSTANT const Str Str::LITERAL_TRUE("true");
TX_EARLY_CONSTANT const Str Str::LITERAL_FALSE("false");
constinit const StrSegment StrSegment::EMPTY_STRSEGMENT;

namespace {

constexpr CharacterClass kUriUnreserved(
    "ABCDEFGHIJKLMNOPQRSTUVWXYZabcdefghijklmnopqrstuvwxyz0123456789-_.~");
constexpr CharacterClass kCsvSpecial(",\r\n\"");

// The escaped form of every byte: itself when unreserved, else "%XX".
struct UriEscapeTable {
    char text[256][4];
    unsigned char len[256];

    constexpr UriEscapeTable() : text{}, len{} {
        constexpr char hex[] = "0123456789ABCDEF";
        for (unsigned b = 0; b < 256; ++b) {
            if (kUriUnreserved.contains(static_cast<unsigned char>(b))) {
                text[b][0] = static_cast<char>(b);
                len[b] = 1;
            } else {
                text[b][0] = '%';
                text[b][1] = hex[b >> 4];
                text[b][2] = hex[b & 15];
                len[b] = 3;
            }
        }
    }
};
constexpr UriEscapeTable kUriEscapes;

inline unsigned char ubyte(char c) { return static_cast<unsigned char>(c); }

int hexValue(char c) {
    if (c >= '0' && c <= '9') return c - '0';
    if (c >= 'a' && c <= 'f') return c - 'a' + 10;
    if (c >= 'A' && c <= 'F') return c - 'A' + 10;
    return -1;
}

// [begin, end) of the data with class bytes removed from the chosen ends.
void trimBounds(const char* data, size_t length, const CharacterClass& cls, bool left, bool right,
                size_t* begin, size_t* end) {
    size_t b = 0;
    size_t e = length;
    if (left) {
        while (b < e && cls.contains(data[b])) ++b;
    }
    if (right) {
        while (e > b && cls.contains(data[e - 1])) --e;
    }
    *begin = b;
    *end = e;
}

bool isReservedSearchWord(const Str& s) {
    return s == "AND" || s == "OR" || s == "NOT" || s == "IN";
}

}  // namespace

// ---------------------------------------------------------------- StrSegment

Str StrSegment::toStr() const { return Str(_data, _len); }

bool StrSegment::stripQuotes(char quote) {
    if (_len < 2 || _data[0] != quote || _data[_len - 1] != quote) return false;
    ++_data;
    _len -= 2;
    return true;
}

StrSegment StrSegment::trim(const CharacterClass& cls, bool left, bool right) const {
    StrSegment copy = *this;
    copy.trimInPlace(cls, left, right);
    return copy;
}

StrSegment& StrSegment::trimInPlace(const CharacterClass& cls, bool left, bool right) {
    size_t b, e;
    trimBounds(_data, _len, cls, left, right, &b, &e);
    _data += b;
    _len = e - b;
    return *this;
}

size_t StrSegment::utf8_aware_truncate(size_t limit) {
    if (_len <= limit) return _len;
    size_t p = limit;
    while (p > 0 && bytescan::isUtf8Continuation(ubyte(_data[p]))) --p;
    _len = p;
    return _len;
}

size_t StrSegment::utf8_character_count_truncate(size_t limit) {
    if (_len <= limit) return _len;  // a code point is at least one byte
    size_t pos = 0;
    size_t left = limit;
    while (left >= 16 && pos + 16 <= _len && bytescan::nonAsciiMask16(_data + pos) == 0) {
        pos += 16;
        left -= 16;
    }
    while (left > 0 && pos < _len) {
        const size_t step = bytescan::utf8Step(ubyte(_data[pos]));
        if (step > _len - pos) break;  // a sequence that overruns is cut off whole
        pos += step;
        --left;
    }
    _len = pos;
    return _len;
}

bool StrSegment::accumulateLine(Str* accumulated) {
    const void* hit = _len ? memchr(_data, '\n', _len) : nullptr;
    if (hit == nullptr) {
        accumulated->append(_data, _len);
        _data += _len;
        _len = 0;
        return false;
    }
    const char* p = static_cast<const char*>(hit);
    ASSERT(*p == '\n');
    if (p > _data) {
        const char* lineEnd = p[-1] == '\r' ? p - 1 : p;
        accumulated->append(_data, static_cast<size_t>(lineEnd - _data));
    } else if (!accumulated->empty() && accumulated->back() == '\r') {
        // The CR came at the end of the previous read.
        accumulated->pop_back();
    }
    advanceTo(p + 1);
    return true;
}

void utf8_character_buffer::_set(unsigned codepoint) {
    _len = static_cast<uint8_t>(utf8_encode_codepoint(codepoint, _bytes));
}

// ---------------------------------------------------------------- Str

// Constructing at the final size allocates exactly that; reserve() on an
// empty string would round small sizes up to the growth policy's.
Str operator+(StrSegment a, StrSegment b) {
    if (a._len > Str::MAX_LENGTH || b._len > Str::MAX_LENGTH - a._len) {
        throw std::length_error("basic_string::append");
    }
    Str result(a._len + b._len, '\0');
    if (a._len) memcpy(result.data(), a._data, a._len);
    if (b._len) memcpy(result.data() + a._len, b._data, b._len);
    return result;
}

Str& Str::append(Str&& other) {
    if (&other == this) {
        std::string::append(std::string(*this));
        return *this;
    }
    constexpr size_t kInObject = 15;
    if (empty() && (other.capacity() >= capacity() || capacity() == kInObject)) {
        swap(other);
        return *this;
    }
    const size_t total = size() + other.size();
    const bool receiverFits = capacity() >= total;
    const bool otherFits = other.capacity() >= total;
    if (receiverFits != otherFits ? receiverFits : size() > other.size()) {
        std::string::append(other);
    } else {
        other.insert(0, *this);
        swap(other);
    }
    return *this;
}

Str& Str::prepend(Str&& other) {
    if (&other == this) {
        insert(0, std::string(*this));
        return *this;
    }
    const size_t total = size() + other.size();
    const bool receiverFits = capacity() >= total;
    const bool otherFits = other.capacity() >= total;
    if (receiverFits != otherFits ? receiverFits : size() > other.size()) {
        insert(0, other);
    } else {
        other.std::string::append(*this);
        swap(other);
    }
    return *this;
}

size_t Str::replaceAll(char from, char to) {
    size_t n = 0;
    for (char& c : *this) {
        if (c == from) {
            c = to;
            ++n;
        }
    }
    return n;
}

size_t Str::replaceAll(const CharacterClass& from, char to) {
    size_t n = 0;
    for (char& c : *this) {
        if (from.contains(c)) {
            c = to;
            ++n;
        }
    }
    return n;
}

size_t Str::_replaceAll(const char* from, size_t fromLength, const char* to, size_t toLength) {
    if (fromLength == 0) return 0;
    std::vector<size_t> positions;
    for (size_t pos = mem_find(data(), size(), from, fromLength, 0); pos != MEM_NPOS;
         pos = mem_find(data(), size(), from, fromLength, pos + fromLength)) {
        positions.push_back(pos);
    }
    if (positions.empty()) return 0;

    Str result(size() - positions.size() * fromLength + positions.size() * toLength, '\0');
    char* out = result.data();
    size_t done = 0;
    for (size_t pos : positions) {
        memcpy(out, data() + done, pos - done);
        out += pos - done;
        if (toLength) memcpy(out, to, toLength);
        out += toLength;
        done = pos + fromLength;
    }
    memcpy(out, data() + done, size() - done);
    swap(result);
    return positions.size();
}

Str Str::trim(const CharacterClass& cls, bool left, bool right) const {
    size_t b, e;
    trimBounds(data(), size(), cls, left, right, &b, &e);
    return Str(data() + b, e - b);
}

Str& Str::trimInPlace(const CharacterClass& cls, bool left, bool right) {
    size_t b, e;
    trimBounds(data(), size(), cls, left, right, &b, &e);
    erase(e);
    erase(0, b);
    return *this;
}

bool Str::stripQuotes(char quote) {
    if (size() < 2 || front() != quote || back() != quote) return false;
    pop_back();
    erase(0, 1);
    return true;
}

Str Str::asEscaped(const CharacterClass& cls, char escapeChar) const {
    Str out;
    out.reserve(size() + mem_count_char(data(), size(), cls));
    for (char c : *this) {
        if (cls.contains(c)) out.push_back(escapeChar);
        out.push_back(c);
    }
    return out;
}

Str Str::escapeWhiteSpace() const {
    Str out;
    out.reserve(size());
    for (char c : *this) {
        switch (c) {
            case '\n':
                out.std::string::append("\\n", 2);
                break;
            case '\r':
                out.std::string::append("\\r", 2);
                break;
            case '\t':
                out.std::string::append("\\t", 2);
                break;
            default:
                out.push_back(c);
        }
    }
    return out;
}

Str& Str::makeSafeForLogging() {
    size_t i = 0;
    while (i < size() && ubyte((*this)[i]) >= 32 && ubyte((*this)[i]) <= 126) ++i;
    if (i == size()) return *this;

    static constexpr char hex[] = "0123456789ABCDEF";
    Str out;
    out.reserve(size() + 16);
    out.std::string::append(data(), i);
    for (; i < size(); ++i) {
        const unsigned char b = ubyte((*this)[i]);
        if (b >= 32 && b <= 126) {
            out.push_back(static_cast<char>(b));
        } else if (b == '\n') {
            out.std::string::append("\\n", 2);
        } else if (b == '\r') {
            out.std::string::append("\\r", 2);
        } else if (b == '\t') {
            out.push_back(' ');
        } else {
            const char esc[4] = {'\\', 'x', hex[b >> 4], hex[b & 15]};
            out.std::string::append(esc, 4);
        }
    }
    swap(out);
    return *this;
}

Str& Str::appendDroppingControlCharacters(const char* p, size_t n) {
    if (_aliases(p)) return appendDroppingControlCharacters(Str(p, n).data(), n);
    return _allOrNothing([&] {
        for (size_t i = 0; i < n; ++i) {
            if (ubyte(p[i]) >= 32) push_back(p[i]);
        }
    });
}

Str& Str::appendAsCSV(const char* p, size_t n) {
    if (_aliases(p)) return appendAsCSV(Str(p, n).data(), n);
    _checkAppendLength(n);
    if (mem_find(p, n, kCsvSpecial, 0, true) == MEM_NPOS) {
        std::string::append(p, n);
        return *this;
    }
    reserve(size() + n + 2 + mem_count_char(p, n, '"'));
    push_back('"');
    for (size_t i = 0; i < n; ++i) {
        if (p[i] == '"') push_back('"');
        push_back(p[i]);
    }
    push_back('"');
    return *this;
}

Str& Str::append4bytesSwappedEndian(uint32_t value) {
    const uint32_t big = __builtin_bswap32(value);
    std::string::append(reinterpret_cast<const char*>(&big), sizeof big);
    return *this;
}

Str& Str::append8bytesSwappedEndian(uint64_t value) {
    const uint64_t big = __builtin_bswap64(value);
    std::string::append(reinterpret_cast<const char*>(&big), sizeof big);
    return *this;
}

size_t render_base128(uint64_t v, char out[10]) {
    size_t n = 0;
    while (v >= 128) {
        out[n++] = static_cast<char>((v & 0x7F) | 0x80);
        v >>= 7;
    }
    out[n++] = static_cast<char>(v);
    return n;
}

void Str::_appendBase128(uint64_t v) {
    ASSERT(v >= 128);
    char bytes[10];
    std::string::append(bytes, render_base128(v, bytes));
}

void Str::_appendUtf8Multibyte(uint32_t codepoint) {
    ASSERT(codepoint >= 0x80);
    char bytes[4];
    std::string::append(bytes, utf8_encode_codepoint(codepoint, bytes));
}

Str& Str::appendUriEscaped(const char* p, size_t n) {
    if (_aliases(p)) return appendUriEscaped(Str(p, n).data(), n);
    _checkAppendLength(n);
    return _allOrNothing([&] {
        for (size_t i = 0; i < n; ++i) {
            const unsigned char b = ubyte(p[i]);
            std::string::append(kUriEscapes.text[b], kUriEscapes.len[b]);
        }
    });
}

Str Str::asUriEncoded() const {
    Str out;
    out.reserve(size());
    out.appendUriEscaped(data(), size());
    return out;
}

Str& Str::uriEncode() {
    if (mem_find(data(), size(), kUriUnreserved, 0, false) == MEM_NPOS) return *this;
    Str out = asUriEncoded();
    swap(out);
    return *this;
}

bool Str::uriDecode() {
    if (find_first_of("%+") == npos) return isValidUtf8();
    Str out;
    out.reserve(size());
    const char* p = c_str();  // the look-ahead below relies on the terminator
    for (size_t i = 0; i < size(); ++i) {
        if (p[i] == '+') {
            out.push_back(' ');
        } else if (p[i] == '%' && hexValue(p[i + 1]) >= 0 && hexValue(p[i + 2]) >= 0) {
            out.push_back(static_cast<char>(hexValue(p[i + 1]) * 16 + hexValue(p[i + 2])));
            i += 2;
        } else {
            out.push_back(p[i]);
        }
    }
    if (!out.isValidUtf8()) return false;
    swap(out);
    return true;
}

Str Str::asEscapedSearchTerm(const CharacterClass& cls, bool alwaysQuote,
                             bool keepBackslashes) const {
    if (empty()) return Str("\"\"");
    if (mem_find(data(), size(), cls, 0, false) == MEM_NPOS) {
        if (!alwaysQuote && !isReservedSearchWord(*this)) return *this;
        Str out;
        out.reserve(size() + 2);
        out.push_back('"');
        out.std::string::append(*this);
        out.push_back('"');
        return out;
    }
    Str out;
    out.reserve(size() + 2);
    out.push_back('"');
    for (char c : *this) {
        if (c == '"' || (c == '\\' && !keepBackslashes)) out.push_back('\\');
        out.push_back(c);
    }
    out.push_back('"');
    return out;
}

Str Str::asEscapedSearchTerm(bool alwaysQuote, bool keepBackslashes) const {
    return asEscapedSearchTerm(CharacterClass::ALPHA_NUM_UNDER, alwaysQuote, keepBackslashes);
}

Str& Str::unescapeSearchTerm() {
    if (empty() || front() != '"') return *this;
    size_t b = 1;
    size_t e = size();
    if (e >= 2 && back() == '"') --e;
    Str out;
    out.reserve(e - b);
    for (size_t i = b; i < e; ++i) {
        const char c = (*this)[i];
        if (c == '\\' && i + 1 < e && ((*this)[i + 1] == '\\' || (*this)[i + 1] == '"')) {
            out.push_back((*this)[++i]);
        } else {
            out.push_back(c);
        }
    }
    swap(out);
    return *this;
}

bool mem_parse_into(const char* data, size_t length, Str* dest) {
    if (data == nullptr) return false;
    dest->assign(data, length);
    return true;
}

// ---------------------------------------------------------------- BaseException

BaseException::BaseException(const char* message) noexcept {
    if (message != nullptr) _set_str(message, strlen(message));
}

BaseException::BaseException(const BaseException& other) noexcept : std::exception(other) {
    _set_str(other._message.data(), other._message.size());
}

BaseException& BaseException::operator=(const BaseException& other) noexcept {
    if (this != &other) _set_str(other._message.data(), other._message.size());
    return *this;
}

BaseException::~BaseException() = default;

const char* BaseException::what() const noexcept {
    return _message.empty() ? "BaseException" : _message.c_str();
}

void BaseException::_set_str(const char* data, size_t length) noexcept {
    try {
        _message.assign(data, length);
    } catch (...) {
        // An exception may never make a new exception.
        _message.clear();
    }
}

void append_stringified(Str* dest, const BaseException& e) { dest->append(e.what()); }
