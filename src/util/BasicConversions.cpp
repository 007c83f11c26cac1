#include "util/BasicConversions.h"

#include <atomic>
#include <cmath>
#include <limits>
#include <memory>
#include <mutex>
#include <type_traits>
#include <vector>

#include "libzero/int-to-ascii.h"
#include "util/CrashLog.h"
#include "util/PrintFloatingPoint.h"
#include "util/PrintfFormat.h"
#include "util/StrVector.h"

// ---------------------------------------------------------------- stringify

namespace {

void appendSigned(Str* dest, int64_t v) {
    char digits[21];
    dest->append(digits, convertI64ToAscii(v, digits));
}

void appendUnsigned(Str* dest, uint64_t v) {
    char digits[20];
    dest->append(digits, convertU64ToAscii(v, digits));
}

}  // namespace

void append_stringified(Str* dest, bool v) { dest->push_back(v ? '1' : '0'); }
void append_stringified(Str* dest, char v) { dest->push_back(v); }
void append_stringified(Str* dest, signed char v) { appendSigned(dest, v); }
void append_stringified(Str* dest, unsigned char v) { appendUnsigned(dest, v); }
void append_stringified(Str* dest, short v) { appendSigned(dest, v); }
void append_stringified(Str* dest, unsigned short v) { appendUnsigned(dest, v); }
void append_stringified(Str* dest, int v) { appendSigned(dest, v); }
void append_stringified(Str* dest, unsigned v) { appendUnsigned(dest, v); }
void append_stringified(Str* dest, long v) { appendSigned(dest, v); }
void append_stringified(Str* dest, unsigned long v) { appendUnsigned(dest, v); }
void append_stringified(Str* dest, long long v) { appendSigned(dest, v); }
void append_stringified(Str* dest, unsigned long long v) { appendUnsigned(dest, v); }

void append_stringified(Str* dest, double v) {
    if (!std::isfinite(v)) {
        StrSegment text;
        get_nonfinite_double_repl(&text, v);
        dest->append(text);
        return;
    }
    const ConvertDoubleToStringShortest c(v);
    const size_t n = c.sizeFixedPoint();
    const size_t before = dest->size();
    dest->resize(before + n);
    c.renderFixedPointPrereserved(dest->data() + before);
}

void append_stringified(Str* dest, const char* v) { dest->append(v ? v : "(null)"); }
void append_stringified(Str* dest, StrSegment v) { dest->append(v); }
void append_stringified(Str* dest, const std::string& v) { dest->std::string::append(v); }
void append_stringified(Str* dest, const void* v) { append_stringified(dest, print_pointer{v}); }

// ---------------------------------------------------------------- parse

namespace {

inline bool isBlank(char c) { return c == ' ' || c == '\t'; }

// Base 10 into an integer type, with the overflow test before each step.
template <class T>
bool parseInteger(const char* p, size_t n, T* dest) {
    if (p == nullptr || n == 0) return false;
    size_t i = 0;
    while (i < n && isBlank(p[i])) ++i;
    if (i == n) return false;
    bool negative = false;
    if constexpr (std::is_signed_v<T>) {
        if (p[i] == '-') {
            negative = true;
            ++i;
            while (i < n && isBlank(p[i])) ++i;
        }
    }
    using U = std::make_unsigned_t<T>;
    const uint64_t limit = negative ? uint64_t{static_cast<U>(std::numeric_limits<T>::max())} + 1
                                    : uint64_t{static_cast<U>(std::numeric_limits<T>::max())};
    if (i == n || p[i] < '0' || p[i] > '9') return false;
    uint64_t v = 0;
    for (; i < n && p[i] >= '0' && p[i] <= '9'; ++i) {
        const unsigned d = static_cast<unsigned>(p[i] - '0');
        if (v > limit / 10) return false;
        v *= 10;
        if (v > limit - d) return false;
        v += d;
    }
    while (i < n && isBlank(p[i])) ++i;
    if (i != n) return false;
    *dest = static_cast<T>(negative ? static_cast<U>(0 - v) : static_cast<U>(v));
    return true;
}

}  // namespace

bool mem_parse_into(const char* p, size_t n, bool* dest) {
    return p != nullptr && mem_tryToBool(p, n, dest);
}
bool mem_parse_into(const char* p, size_t n, short* dest) { return parseInteger(p, n, dest); }
bool mem_parse_into(const char* p, size_t n, unsigned short* dest) {
    return parseInteger(p, n, dest);
}
bool mem_parse_into(const char* p, size_t n, int* dest) { return parseInteger(p, n, dest); }
bool mem_parse_into(const char* p, size_t n, unsigned* dest) { return parseInteger(p, n, dest); }
bool mem_parse_into(const char* p, size_t n, long* dest) { return parseInteger(p, n, dest); }
bool mem_parse_into(const char* p, size_t n, unsigned long* dest) {
    return parseInteger(p, n, dest);
}
bool mem_parse_into(const char* p, size_t n, long long* dest) { return parseInteger(p, n, dest); }
bool mem_parse_into(const char* p, size_t n, unsigned long long* dest) {
    return parseInteger(p, n, dest);
}
bool mem_parse_into(const char* p, size_t n, double* dest) {
    return p != nullptr && mem_tryToDouble(p, n, dest);
}

// ---------------------------------------------------------------- from doubles

namespace {

// Within the open interval (lo, hi), and exactly an integer.
template <class T>
bool setIfIntegral(T* dest, double v, double lo, double hi) {
    if (!(v > lo && v < hi)) return false;  // NaN fails here too
    const T t = static_cast<T>(v);
    if (static_cast<double>(t) != v) return false;
    *dest = t;
    return true;
}

// 2^53: from here on a double no longer tells neighbouring integers apart.
constexpr double kTwoTo53 = 9007199254740992.0;

}  // namespace

bool set_integer_from_distinct_double(short* dest, double v) {
    return setIfIntegral(dest, v, -32768.5, 32767.5);
}
bool set_integer_from_distinct_double(unsigned short* dest, double v) {
    return setIfIntegral(dest, v, -0.5, 65535.5);
}
bool set_integer_from_distinct_double(int* dest, double v) {
    return setIfIntegral(dest, v, -2147483648.5, 2147483647.5);
}
bool set_integer_from_distinct_double(unsigned* dest, double v) {
    return setIfIntegral(dest, v, -0.5, 4294967295.5);
}
// The lower bound lies 2 beyond -2^53 on purpose.
bool set_integer_from_distinct_double(long* dest, double v) {
    return setIfIntegral(dest, v, -9007199254740994.0, kTwoTo53);
}
bool set_integer_from_distinct_double(long long* dest, double v) {
    return setIfIntegral(dest, v, -9007199254740994.0, kTwoTo53);
}
bool set_integer_from_distinct_double(unsigned long* dest, double v) {
    if (v < 0) return false;
    return setIfIntegral(dest, v, -1.0, kTwoTo53);
}
bool set_integer_from_distinct_double(unsigned long long* dest, double v) {
    if (v < 0) return false;
    return setIfIntegral(dest, v, -1.0, kTwoTo53);
}

// ---------------------------------------------------------------- byte sizes

bool parse_sizeBytes_string(const Str& text, unsigned long& result, bool decimalUnits) {
    // Units are ASCII: lower-casing ASCII is all the lower-casing needed.
    Str lower(text);
    for (char& c : lower) {
        if (c >= 'A' && c <= 'Z') c = static_cast<char>(c + 32);
    }
    size_t digits = 0;
    while (digits < lower.size() && lower[digits] >= '0' && lower[digits] <= '9') ++digits;
    unsigned long long number;
    if (!mem_tryToUnsignedLongLong(lower.data(), digits, &number, 10)) return false;
    const StrSegment unit = StrSegment(lower.data() + digits, lower.size() - digits)
                                .trim(CharacterClass::ALL_WHITESPACES);

    struct Unit {
        const char* name;
        unsigned long decimal;
        unsigned long binary;
    };
    static constexpr Unit kUnits[] = {
        {"", 1, 1},
        {"kb", 1000ul, 1ul << 10},
        {"kib", 1ul << 10, 1ul << 10},
        {"mb", 1000000ul, 1ul << 20},
        {"mib", 1ul << 20, 1ul << 20},
        {"gb", 1000000000ul, 1ul << 30},
        {"gib", 1ul << 30, 1ul << 30},
        {"tb", 1000000000000ul, 1ul << 40},
        {"tib", 1ul << 40, 1ul << 40},
    };
    for (const Unit& u : kUnits) {
        if (unit.equals(u.name)) {
            result = number * (decimalUnits ? u.decimal : u.binary);
            return true;
        }
    }
    return false;
}

bool mem_parse_into(const char* p, size_t n, ByteSizeWithUnits* dest) {
    if (p == nullptr) return false;
    unsigned long bytes;
    if (!parse_sizeBytes_string(Str(p, n), bytes, false)) return false;
    dest->bytes = bytes;
    return true;
}

void append_stringified(Str* dest, const ByteSizeWithUnits& v) { appendUnsigned(dest, v.bytes); }

void append_stringified(Str* dest, const sizeBytes_to_verbose& v) {
    appendUnsigned(dest, v.bytes);
    if (v.bytes < 1025) return;
    if (v.bytes < (1ul << 20)) {
        dest->appendFormat(" (%.1fMB)", static_cast<double>(v.bytes) / (1 << 20));
    } else if (v.bytes < (1ul << 30)) {
        dest->appendFormat(" (%luMB)", v.bytes >> 20);
    } else {
        dest->appendFormat(" (%luMB,%luGB)", v.bytes >> 20, v.bytes >> 30);
    }
}

// ---------------------------------------------------------------- Base64

namespace {

constexpr char kBase64[] = "ABCDEFGHIJKLMNOPQRSTUVWXYZabcdefghijklmnopqrstuvwxyz0123456789+/";

struct Base64Values {
    signed char v[256];
    constexpr Base64Values() : v{} {
        for (int i = 0; i < 256; ++i) v[i] = -1;
        for (int i = 0; i < 64; ++i)
            v[static_cast<unsigned char>(kBase64[i])] = static_cast<signed char>(i);
    }
};
constexpr Base64Values kBase64Values;

}  // namespace

void Base64::encode(Str& dest, const void* data, size_t length) {
    const unsigned char* p = static_cast<const unsigned char*>(data);
    const size_t groups = length / 3 + (length % 3 != 0);
    dest._checkAppendLength(groups > dest.max_size() / 4 ? dest.max_size() + 1 : groups * 4);
    dest.reserve(dest.size() + groups * 4);
    size_t i = 0;
    for (; i + 3 <= length; i += 3) {
        const uint32_t w = uint32_t{p[i]} << 16 | uint32_t{p[i + 1]} << 8 | p[i + 2];
        const char out[4] = {kBase64[w >> 18], kBase64[(w >> 12) & 63], kBase64[(w >> 6) & 63],
                             kBase64[w & 63]};
        dest.append(out, 4);
    }
    if (i < length) {
        const uint32_t w = uint32_t{p[i]} << 16 | (i + 1 < length ? uint32_t{p[i + 1]} << 8 : 0);
        const char out[4] = {kBase64[w >> 18], kBase64[(w >> 12) & 63],
                             i + 1 < length ? kBase64[(w >> 6) & 63] : '=', '='};
        dest.append(out, 4);
    }
}

bool Base64::decode(Str& dest, const void* data, size_t length) {
    const unsigned char* p = static_cast<const unsigned char*>(data);
    const size_t before = dest.size();
    uint32_t acc = 0;
    int inGroup = 0;
    size_t i = 0;
    for (; i < length; ++i) {
        if (p[i] == '=') break;
        const int v = kBase64Values.v[p[i]];
        if (v < 0) {
            dest.resize(before);
            return false;
        }
        acc = acc << 6 | static_cast<uint32_t>(v);
        if (++inGroup == 4) {
            const char out[3] = {static_cast<char>(acc >> 16), static_cast<char>(acc >> 8),
                                 static_cast<char>(acc)};
            dest.append(out, 3);
            acc = 0;
            inGroup = 0;
        }
    }
    if (i < length) {
        // Padding may stand third or fourth in a group, and only padding
        // may follow it.
        bool ok = inGroup >= 2;
        for (size_t k = i; ok && k < length; ++k) ok = p[k] == '=';
        if (!ok) {
            dest.resize(before);
            return false;
        }
    }
    // The complete bytes of a group cut short.
    if (inGroup == 2) dest.push_back(static_cast<char>(acc >> 4));
    if (inGroup == 3) {
        const char out[2] = {static_cast<char>(acc >> 10), static_cast<char>(acc >> 2)};
        dest.append(out, 2);
    }
    return true;
}

// ---------------------------------------------------------------- hex dump

HexDumper::~HexDumper() = default;

namespace {

// At least eight lower-case hexadecimal digits.
size_t hexOffset(uint64_t v, char* out) {
    static constexpr char hex[] = "0123456789abcdef";
    int digits = 8;
    while (digits < 16 && (v >> (4 * digits)) != 0) ++digits;
    for (int i = 0; i < digits; ++i) out[i] = hex[(v >> (4 * (digits - 1 - i))) & 15];
    return static_cast<size_t>(digits);
}

}  // namespace

void HexDumper::do_dump(const void* data, size_t length) noexcept {
    static constexpr char hex[] = "0123456789abcdef";
    const unsigned char* p = static_cast<const unsigned char*>(data);
    try {
        char line[96];
        for (size_t offset = 0; offset < length; offset += 16) {
            size_t n = hexOffset(offset, line);
            line[n++] = ' ';
            line[n++] = ' ';
            const size_t count = std::min<size_t>(16, length - offset);
            for (size_t j = 0; j < 16; ++j) {
                if (j == 8) line[n++] = ' ';
                if (j < count) {
                    line[n++] = hex[p[offset + j] >> 4];
                    line[n++] = hex[p[offset + j] & 15];
                    line[n++] = ' ';
                } else {
                    line[n++] = ' ';
                    line[n++] = ' ';
                    line[n++] = ' ';
                }
            }
            line[n++] = ' ';
            line[n++] = '|';
            for (size_t j = 0; j < count; ++j) {
                const unsigned char c = p[offset + j];
                line[n++] = c >= 0x20 && c <= 0x7E ? static_cast<char>(c) : '.';
            }
            line[n++] = '|';
            accept_line(line, n);
        }
        accept_line(line, hexOffset(length, line));
    } catch (...) {
        // The dump stops; the caller is not told.
    }
}

void HexDumper::dumpTo(Str* dest, const void* data, size_t length) {
    HexDumper_to_Str(dest).do_dump(data, length);
}

void HexDumper::dumpTo(StrVector* dest, const void* data, size_t length) {
    HexDumper_to_StrVector(dest).do_dump(data, length);
}

void HexDumper::dumpTo(CrashLogWriteHandler& dest, const void* data, size_t length) {
    HexDumper_to_CrashLog(dest).do_dump(data, length);
}

void HexDumper_to_Str::accept_line(const char* line, size_t length) {
    _dest->append(line, length);
    _dest->push_back('\n');
}

void HexDumper_to_StrVector::accept_line(const char* line, size_t length) {
    _dest->push_back(line, length);
}

void HexDumper_to_CrashLog::accept_line(const char* line, size_t length) {
    _dest.write(line, length);
    _dest.write("\n", 1);
}

// ---------------------------------------------------------------- environment

EnvironmentVariable::EnvironmentVariable(const char* name) : _value(getenv(name)) {}

EnvironmentVariable::ParsedBool EnvironmentVariable::parseBool() const {
    if (!isSet()) return BOOL_UNSET;
    switch (_value[0]) {
        case '0':
        case 'F':
        case 'f':
        case 'N':
        case 'n':
            return BOOL_FALSE;
        case '1':
        case 'T':
        case 't':
        case 'Y':
        case 'y':
            return BOOL_TRUE;
        default:
            return BOOL_INVALID;
    }
}

namespace {

// Every block ever set stays allocated: a reader may still hold one.
struct EnvironmentBlock {
    std::vector<std::string> strings;
    std::vector<const char*> pointers;
};

std::atomic<const char* const*> globalEnvironment{nullptr};

}  // namespace

void EnvironmentVariable::setGlobalCache(const char* const* environment) {
    static std::mutex lock;
    static std::vector<std::unique_ptr<EnvironmentBlock>> blocks;
    auto block = std::make_unique<EnvironmentBlock>();
    for (const char* const* e = environment; e && *e; ++e) block->strings.emplace_back(*e);
    for (const std::string& s : block->strings) block->pointers.push_back(s.c_str());
    block->pointers.push_back(nullptr);
    std::lock_guard<std::mutex> guard(lock);
    globalEnvironment.store(block->pointers.data(), std::memory_order_release);
    blocks.push_back(std::move(block));
}

const char* const* EnvironmentVariable::getGlobalCache() {
    return globalEnvironment.load(std::memory_order_acquire);
}

void append_stringified(Str* dest, const EnvironmentVariable& v) {
    if (v.isSet()) dest->append(v.value());
}

void append_stringified(Str* dest, const EnvironmentVariable::describe& d) {
    dest->push_back('$');
    dest->append(d.name);
}

void crashlog_write(CrashLogWriteHandler& h, const EnvironmentVariable& v) {
    if (v.isSet()) h.write(v.value());
}

void crashlog_write(CrashLogWriteHandler& h, const EnvironmentVariable::describe& d) {
    h.write("$", 1);
    h.write(d.name);
}
