#pragma once
// The library's own printf engine. It renders straight into a Str or a
// CrashLogWriteHandler, with no locale and no temporary string; floats use
// the shortest digits that read back to the same double, so output is the
// same on every platform; the CrashLogWriteHandler path allocates nothing and
// is safe in a signal handler.
//
// Where it differs from the C library's printf, on purpose:
//   - bad format text is printed as it stands ("%y" stays "%y"); there is no
//     %n and no L modifier ("%Lf" prints "%Lf");
//   - h and hh do not narrow: "%hhd" of 300 prints "300";
//   - "'" groups by three with "," in every locale;
//   - float digits beyond the shortest ones are zeros, and a final "5" of the
//     shortest digits rounds to even: "%.2f" of 1.005 is "1.00";
//   - a zero with precision 0 prints no sign either: "%+.0d" of 0 is "";
//   - %a rounds up when the first dropped hex digit is over 7.

#include <cstdarg>
#include <cstddef>
#include <cstdint>
#include <cstring>
#include <vector>

#include "util/PrintFloatingPoint.h"
#include "util/Str.h"

class CrashLogWriteHandler;
class StrVector;

// Options of PrintfFormatAtom::getNext.
constexpr unsigned PRINTF_ALLOW_STRERROR = 1;  // %m is the text of errno
constexpr unsigned PRINTF_POINTER = 2;         // %p is a pointer, not %X
constexpr unsigned PRINTF_Z_IS_STRING = 8;     // %z is a string, not a size modifier
constexpr unsigned PRINTF_DEFAULT_OPTIONS = PRINTF_ALLOW_STRERROR | PRINTF_POINTER;

// One parsed directive, or one run of literal text.
struct PrintfFormatAtom {
    enum Flags : uint32_t {
        FLAG_ALTERNATE = 1,
        FLAG_VARIABLE_WIDTH = 2,
        FLAG_VARIABLE_PRECISION = 4,
        FLAG_UPPERCASE = 8,
        FLAG_GROUPING = 16,
    };
    enum Padding : uint8_t { PAD_LEFT_SPACES = 0, PAD_RIGHT_SPACES = 1, PAD_LEFT_ZEROS = 2 };
    enum SignNonnegative : uint8_t {
        SIGN_NONNEGATIVE_NONE = 0,
        SIGN_NONNEGATIVE_SPACE = 1,
        SIGN_NONNEGATIVE_PLUS = 2,
    };
    enum Conversion : uint8_t {
        CONV_CONSTANT_STRING = 0,
        CONV_SIGNED_DECIMAL = 1,
        CONV_UNSIGNED_DECIMAL = 2,
        CONV_UNSIGNED_HEX = 3,
        CONV_UNSIGNED_OCTAL = 4,
        CONV_FLOAT_EXPONENT = 5,
        CONV_FLOAT_NORMAL = 6,
        CONV_FLOAT_CHOOSE = 7,
        CONV_FLOAT_HEX = 8,
        CONV_CHAR = 9,
        CONV_STRING = 10,
        CONV_STRERROR = 11,
        CONV_POINTER = 12,
    };
    static constexpr uint64_t NONE = ~uint64_t{0};  // no width or precision

    uint32_t flags = 0;
    Padding padding = PAD_LEFT_SPACES;
    SignNonnegative sign_nonnegative = SIGN_NONNEGATIVE_NONE;
    Conversion conversion = CONV_CONSTANT_STRING;
    const char* literal = nullptr;  // CONV_CONSTANT_STRING: the text, in the format
    size_t literalLength = 0;
    unsigned size = 4;  // directives: bytes of the argument
    uint64_t width = NONE;
    uint64_t precision = NONE;

    // Takes the next atom off the front of `format`; false when it is empty.
    bool getNext(StrSegment* format, unsigned options = PRINTF_DEFAULT_OPTIONS);
    // Fill in a "*": a negative width is made positive and pads on the right;
    // a negative precision counts as none.
    void setVariableWidth(int w);
    void setVariablePrecision(int p);
    // Arguments the atom takes: one for each "*", one for a conversion (%m
    // included, though it takes none from the list).
    unsigned inputsNeeded() const;
    bool isUpper() const { return flags & FLAG_UPPERCASE; }
};

// The directive rebuilt from its fields ("ll" for 8-byte integers, "*" for
// the variable forms); literal text with "%" doubled.
void append_stringified(Str* dest, const PrintfFormatAtom& atom);

// A format parsed once and kept. The literal runs point into the format
// text, which has to outlive this object.
class PrintfFormatString {
public:
    std::vector<PrintfFormatAtom> atoms;

    void set(const char* format, unsigned options = PRINTF_DEFAULT_OPTIONS);
    void set(StrSegment format, unsigned options = PRINTF_DEFAULT_OPTIONS);
    unsigned inputsNeeded() const;
    // Append the rendering to `dest`.
    void format(Str* dest, ...) const;
    void vformat(Str* dest, va_list args) const;
};

bool mem_parse_into(const char* data, size_t length, PrintfFormatString* dest);
void append_stringified(Str* dest, const PrintfFormatString& f);

// One conversion, by the atom's flags, width and precision.
void printSignedInteger(Str* sink, const PrintfFormatAtom& atom, int64_t value);
void printUnsignedInteger(Str* sink, const PrintfFormatAtom& atom, uint64_t value);
void printFloat(Str* sink, const PrintfFormatAtom& atom, double value);
void printString(Str* sink, const PrintfFormatAtom& atom, const char* text);  // strnlen
void printString(Str* sink, const PrintfFormatAtom& atom, const char* text, size_t length);
void printStringNoPrecision(Str* sink, const PrintfFormatAtom& atom, const char* text,
                            size_t length);
void printPointerValue(Str* sink, const PrintfFormatAtom& atom, const void* pointer);
// The text of an error number, as %m renders it, with no padding.
void printStrerror(Str* sink, int errnum);

void printSignedInteger(CrashLogWriteHandler& sink, const PrintfFormatAtom& atom, int64_t value);
void printUnsignedInteger(CrashLogWriteHandler& sink, const PrintfFormatAtom& atom, uint64_t value);
void printFloat(CrashLogWriteHandler& sink, const PrintfFormatAtom& atom, double value);
void printString(CrashLogWriteHandler& sink, const PrintfFormatAtom& atom, const char* text);
void printString(CrashLogWriteHandler& sink, const PrintfFormatAtom& atom, const char* text,
                 size_t length);
void printStringNoPrecision(CrashLogWriteHandler& sink, const PrintfFormatAtom& atom,
                            const char* text, size_t length);
void printPointerValue(CrashLogWriteHandler& sink, const PrintfFormatAtom& atom,
                       const void* pointer);
void printStrerror(CrashLogWriteHandler& sink, int errnum);

// The text of an error number, as %m renders it: glibc's description (a
// constant, the same in every locale), or "Unknown error N" in the state's
// own buffer. No allocation, no lock: safe in a signal handler.
class UnixStrerrorRenderingState {
public:
    const char* render(int errnum);

private:
    char _buffer[32];
};

// Each conversion of the format, without the literal text, rendered into an
// element of its own (appended).
void render_each_vprintf_conversion(StrVector* dest, const char* format, va_list args);
void render_each_printf_conversion(StrVector* dest, const char* format, ...);

// Where the engine writes: a staging buffer on the caller's stack, emptied
// into the real destination by emit(). A sink is a subclass.
class PrintfOutput {
public:
    void put(const char* data, size_t length) {
        if (length <= sizeof _buf - _used) {
            memcpy(_buf + _used, data, length);
            _used += length;
        } else {
            putLarge(data, length);
        }
    }
    void put1(char c) {
        if (_used == sizeof _buf) flush();
        _buf[_used++] = c;
    }
    void fill(char c, size_t count);
    // Room for `length` bytes written in place; commit() what was written.
    char* room(size_t length) {
        if (length > sizeof _buf - _used) flush();
        return _buf + _used;
    }
    void commit(size_t length) { _used += length; }
    void flush() {
        if (_used) {
            const size_t n = _used;
            _used = 0;
            emit(_buf, n);
        }
    }

protected:
    PrintfOutput() = default;
    ~PrintfOutput() = default;
    virtual void emit(const char* data, size_t length) = 0;

private:
    void putLarge(const char* data, size_t length);
    char _buf[256];
    size_t _used = 0;
};

// ---------------------------------------------------------------- rendered values
// The pieces of one rendered value and its padding, worked out once and then
// written alike to every sink; size() is known before anything is written.

// Digits (and commas) of an integer, on the stack.
class PrintfIntegerRenderingBuffer {
public:
    static constexpr size_t CAPACITY = 32;  // 22 octal digits, or 20 decimal and 6 commas

    void addU32(uint32_t value) { addU64(value); }
    void addU64(uint64_t value);  // decimal
    void push_back(char c) {
        ++_p;
        ASSERT(_p <= &_buf[sizeof(_buf)]);
        _p[-1] = c;
    }
    // Groups the digits by three from the right with ",".
    void addCommaSeparators();
    const char* data() const { return _buf; }
    size_t size() const { return static_cast<size_t>(_p - _buf); }
    void clear() { _p = _buf; }

private:
    char _buf[CAPACITY];
    char* _p = _buf;
};

// Left spaces, sign byte or prefix, zeros, the digits, right spaces.
class PrintfRenderedUnsignedInteger {
public:
    // Also %p (CONV_POINTER, non-null): alternate hexadecimal, sign allowed.
    PrintfRenderedUnsignedInteger(const PrintfFormatAtom& atom, uint64_t value);
    size_t size() const;
    void writeTo(PrintfOutput& out) const;

protected:
    PrintfRenderedUnsignedInteger() = default;
    void render(const PrintfFormatAtom& atom, uint64_t magnitude, bool negative);

    size_t _leftSpaces = 0;
    char _prefix[3];
    uint8_t _prefixLength = 0;
    size_t _zeros = 0;
    PrintfIntegerRenderingBuffer _digits;
    size_t _rightSpaces = 0;
};

class PrintfRenderedSignedInteger : public PrintfRenderedUnsignedInteger {
public:
    PrintfRenderedSignedInteger(const PrintfFormatAtom& atom, int64_t value);
};

// "nan", "-inf", "INF"...: a sign and three letters.
class PrintfNonfiniteFloatingPointRenderingBuffer {
public:
    PrintfNonfiniteFloatingPointRenderingBuffer(const PrintfFormatAtom& atom, double value);
    const char* data() const { return _text; }
    size_t size() const { return _length; }

private:
    char _text[4];
    uint8_t _length = 0;
};

// %f, and %g in its fixed form, of a value already rounded to the places
// shown: digits before the point (grouped on request), zeros up to the
// point; after it leading zeros, digits, trailing zeros.
class PrintfRenderedNormalFloat {
public:
    PrintfRenderedNormalFloat(const PrintfFormatAtom& atom,
                              const ConvertDoubleToStringShortest& value, size_t fractionDigits);
    size_t size() const;
    void writeTo(PrintfOutput& out) const;

private:
    ConvertDoubleToStringShortest _value;
    char _sign = 0;
    bool _grouping = false;
    bool _withPoint = false;
    size_t _leftSpaces = 0, _leftZeros = 0, _rightSpaces = 0;
    size_t _intDigits = 0;  // of the digit string
    size_t _intZeros = 0;   // behind them, up to the point (at least "0" in all)
    size_t _fracLeadZeros = 0, _fracStart = 0, _fracCount = 0, _fracTrailZeros = 0;
};

// %e, and %g in its exponent form: one digit, the point, the digits and
// their trailing zeros, the exponent with at least two digits.
class PrintfRenderedExponentialFloat {
public:
    PrintfRenderedExponentialFloat(const PrintfFormatAtom& atom,
                                   const ConvertDoubleToStringShortest& value,
                                   size_t fractionDigits);
    size_t size() const;
    void writeTo(PrintfOutput& out) const;

private:
    ConvertDoubleToStringShortest _value;
    char _sign = 0;
    bool _withPoint = false;
    size_t _leftSpaces = 0, _leftZeros = 0, _rightSpaces = 0;
    size_t _fracCount = 0, _fracTrailZeros = 0;
    char _exponent[8];
    uint8_t _exponentLength = 0;
};

// %a: sign, "0x", zeros, the leading digit, mantissa digits and trailing
// zeros, "p" and the binary exponent.
class PrintfRenderedHexFloat {
public:
    PrintfRenderedHexFloat(const PrintfFormatAtom& atom, double value);
    size_t size() const;
    void writeTo(PrintfOutput& out) const;

private:
    char _sign = 0;
    bool _upper = false;
    size_t _leftSpaces = 0, _leftZeros = 0, _rightSpaces = 0, _trailZeros = 0;
    char _body[16];  // leading digit, point, 13 mantissa digits
    uint8_t _bodyLength = 0;
    char _exponent[8];
    uint8_t _exponentLength = 0;
};

// The engine itself: renders `format` into `out`, with %m as the text of
// `errnum`, and flushes. `args` is consumed.
void printf_render(PrintfOutput& out, int errnum, const char* format, va_list* args);
void printf_render(Str* sink, int errnum, const char* format, va_list args);
void printf_render(CrashLogWriteHandler& sink, int errnum, const char* format, va_list args);

// ---------------------------------------------------------------- print objects
// Small values that print themselves, by append_stringified and crashlog_write.

// Digits given as a prefix and a count of zeros behind it, grouped by three.
struct print_decimal_number_with_commas {
    const char* prefix;
    size_t zeros = 0;
};
struct print_pointer {
    const void* pointer;
};
struct print_strerror {
    int errnum;
};
struct print_spaces {
    size_t count;
};
struct print_zeros {
    size_t count;
};
struct print_lowercase_hex_bytes {
    const void* data;
    size_t length;
};
struct print_uppercase_hex_bytes {
    const void* data;
    size_t length;
};

void append_stringified(Str* dest, const print_decimal_number_with_commas& v);
void append_stringified(Str* dest, const print_pointer& v);
void append_stringified(Str* dest, const print_strerror& v);
void append_stringified(Str* dest, const print_spaces& v);
void append_stringified(Str* dest, const print_zeros& v);
void append_stringified(Str* dest, const print_lowercase_hex_bytes& v);
void append_stringified(Str* dest, const print_uppercase_hex_bytes& v);

void crashlog_write(CrashLogWriteHandler& h, const print_decimal_number_with_commas& v);
void crashlog_write(CrashLogWriteHandler& h, const print_pointer& v);
void crashlog_write(CrashLogWriteHandler& h, const print_strerror& v);
void crashlog_write(CrashLogWriteHandler& h, const print_spaces& v);
void crashlog_write(CrashLogWriteHandler& h, const print_zeros& v);
void crashlog_write(CrashLogWriteHandler& h, const print_lowercase_hex_bytes& v);
void crashlog_write(CrashLogWriteHandler& h, const print_uppercase_hex_bytes& v);
