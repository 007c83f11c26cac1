#include "util/PrintfFormat.h"

#include <algorithm>
#include <cerrno>
#include <climits>
#include <cmath>
#include <cstring>

#include "libzero/int-to-ascii.h"
#include "libzero/ospath-builder.h"
#include "util/CrashLog.h"
#include "util/PrintFloatingPoint.h"
#include "util/StrVector.h"

using Atom = PrintfFormatAtom;

// ---------------------------------------------------------------- output

void PrintfOutput::putLarge(const char* data, size_t length) {
    flush();
    if (length <= sizeof _buf) {
        memcpy(_buf, data, length);
        _used = length;
    } else {
        emit(data, length);
    }
}

void PrintfOutput::fill(char c, size_t count) {
    while (count > 0) {
        if (_used == sizeof _buf) flush();
        const size_t n = std::min(count, sizeof _buf - _used);
        memset(_buf + _used, c, n);
        _used += n;
        count -= n;
    }
}

namespace {

class StrOutput final : public PrintfOutput {
public:
    explicit StrOutput(Str* dest) : _dest(dest) {}

private:
    void emit(const char* data, size_t length) override { _dest->append(data, length); }
    Str* _dest;
};

class CrashOutput final : public PrintfOutput {
public:
    explicit CrashOutput(CrashLogWriteHandler& h) : _h(h) {}

private:
    void emit(const char* data, size_t length) override { _h.write(data, length); }
    CrashLogWriteHandler& _h;
};

constexpr char kLowerHex[] = "0123456789abcdef";
constexpr char kUpperHex[] = "0123456789ABCDEF";

// Widths and precisions beyond this are taken as this: output of 2 GiB is
// not a format anyone means.
constexpr uint64_t kMaxFieldSize = INT_MAX;

}  // namespace

// ---------------------------------------------------------------- parsing

namespace {

// Conversion letters that settle a directive with nothing between "%" and
// them. (%z, which options turn into a string, always takes the long way.)
struct ConversionLetter {
    bool plain = false;
    bool upper = false;
    PrintfFormatAtom::Conversion conversion = PrintfFormatAtom::CONV_CONSTANT_STRING;
};

struct ConversionLetters {
    ConversionLetter letters[256];
    constexpr ConversionLetters() : letters{} {
        using A = PrintfFormatAtom;
        auto set = [&](char c, A::Conversion conversion, bool upper) {
            letters[static_cast<unsigned char>(c)] = {true, upper, conversion};
        };
        set('d', A::CONV_SIGNED_DECIMAL, false);
        set('i', A::CONV_SIGNED_DECIMAL, false);
        set('u', A::CONV_UNSIGNED_DECIMAL, false);
        set('x', A::CONV_UNSIGNED_HEX, false);
        set('X', A::CONV_UNSIGNED_HEX, true);
        set('o', A::CONV_UNSIGNED_OCTAL, false);
        set('e', A::CONV_FLOAT_EXPONENT, false);
        set('E', A::CONV_FLOAT_EXPONENT, true);
        set('f', A::CONV_FLOAT_NORMAL, false);
        set('F', A::CONV_FLOAT_NORMAL, true);
        set('g', A::CONV_FLOAT_CHOOSE, false);
        set('G', A::CONV_FLOAT_CHOOSE, true);
        set('a', A::CONV_FLOAT_HEX, false);
        set('A', A::CONV_FLOAT_HEX, true);
        set('c', A::CONV_CHAR, false);
        set('s', A::CONV_STRING, false);
        set('m', A::CONV_STRERROR, false);
        set('p', A::CONV_POINTER, false);
    }
};
constexpr ConversionLetters kConversionLetters;

}  // namespace

bool PrintfFormatAtom::getNext(StrSegment* format, unsigned options) {
    const char* p = format->_data;
    const char* const end = p + format->_len;
    if (p == end) return false;

    flags = 0;
    padding = PAD_LEFT_SPACES;
    sign_nonnegative = SIGN_NONNEGATIVE_NONE;
    conversion = CONV_CONSTANT_STRING;
    size = 4;
    width = NONE;
    precision = NONE;

    auto literalUpTo = [&](const char* from, const char* to, const char* resume) {
        conversion = CONV_CONSTANT_STRING;
        flags = 0;  // stars of a directive that became text take no argument
        literal = from;
        literalLength = static_cast<size_t>(to - from);
        format->advanceTo(resume);
        return true;
    };

    if (*p != '%') {
        const void* pct = memchr(p, '%', static_cast<size_t>(end - p));
        const char* stop = pct ? static_cast<const char*>(pct) : end;
        return literalUpTo(p, stop, stop);
    }

    const char* const start = p++;

    // The common case: a conversion letter right after the "%", or after "l".
    if (p < end) {
        const char* q = p;
        if (*q == 'l' && q + 1 < end) {
            size = 8;
            ++q;
        }
        const ConversionLetter& c = kConversionLetters.letters[static_cast<unsigned char>(*q)];
        if (c.plain && (c.conversion != CONV_POINTER || (options & PRINTF_POINTER)) &&
            (c.conversion != CONV_STRERROR || (options & PRINTF_ALLOW_STRERROR))) {
            conversion = c.conversion;
            flags = c.upper ? uint32_t{FLAG_UPPERCASE} : 0u;
            format->advanceTo(q + 1);
            return true;
        }
        size = 4;
    }

    auto isIntegerLetter = [](char c) { return c && strchr("dioxXu", c) != nullptr; };
    auto at = [&](const char* q) { return q < end ? *q : '\0'; };

    // Flags, in any order, repeated.
    for (bool more = true; more && p < end;) {
        switch (*p) {
            case ' ':
                if (sign_nonnegative == SIGN_NONNEGATIVE_NONE) {
                    sign_nonnegative = SIGN_NONNEGATIVE_SPACE;
                }
                ++p;
                break;
            case '+':
                sign_nonnegative = SIGN_NONNEGATIVE_PLUS;
                ++p;
                break;
            case '-':
                padding = PAD_RIGHT_SPACES;
                ++p;
                break;
            case '0':
                if (padding != PAD_RIGHT_SPACES) padding = PAD_LEFT_ZEROS;
                ++p;
                break;
            case '#':
                flags |= FLAG_ALTERNATE;
                ++p;
                break;
            case '\'':
                flags |= FLAG_GROUPING;
                ++p;
                break;
            case 'I':
                // A flag without effect, unless it is the I32/I64/I modifier.
                if ((at(p + 1) == '3' && at(p + 2) == '2') ||
                    (at(p + 1) == '6' && at(p + 2) == '4') || isIntegerLetter(at(p + 1))) {
                    more = false;
                } else {
                    ++p;
                }
                break;
            default:
                more = false;
        }
    }

    auto readNumber = [&](uint64_t* out) {
        uint64_t v = 0;
        for (; p < end && *p >= '0' && *p <= '9'; ++p) {
            v = std::min<uint64_t>(v * 10 + static_cast<unsigned>(*p - '0'), kMaxFieldSize);
        }
        *out = v;
    };

    if (p < end && *p == '*') {
        flags |= FLAG_VARIABLE_WIDTH;
        ++p;
    } else if (p < end && *p >= '1' && *p <= '9') {
        readNumber(&width);
    }

    if (p < end && *p == '.') {
        ++p;
        if (p < end && *p == '*') {
            flags |= FLAG_VARIABLE_PRECISION;
            ++p;
        } else {
            readNumber(&precision);  // "." alone means 0
        }
    }

    if (p < end) {
        switch (*p) {
            case 'h':
                if (at(p + 1) == 'h') {
                    size = 1;
                    p += 2;
                } else {
                    size = 2;
                    ++p;
                }
                break;
            case 'l':
                size = 8;
                p += at(p + 1) == 'l' ? 2 : 1;
                break;
            case 'q':
            case 'j':
            case 't':
                size = 8;
                ++p;
                break;
            case 'z':
                if (!(options & PRINTF_Z_IS_STRING)) {
                    size = 8;
                    ++p;
                }
                break;
            case 'I':
                if (at(p + 1) == '3' && at(p + 2) == '2') {
                    size = 4;
                    p += 3;
                } else if (at(p + 1) == '6' && at(p + 2) == '4') {
                    size = 8;
                    p += 3;
                } else if (isIntegerLetter(at(p + 1))) {
                    size = 4;
                    ++p;
                }
                break;
            case 'w':
                if (at(p + 1) == 'S' || at(p + 1) == 'c' || at(p + 1) == 's') {
                    size = 8;
                    ++p;
                }
                break;
            default:
                break;
        }
    }

    // The format ended inside the directive: a literal "%", the rest is gone.
    if (p >= end) return literalUpTo(start, start + 1, end);

    const char letter = *p++;
    switch (letter) {
        case 'd':
        case 'i':
            conversion = CONV_SIGNED_DECIMAL;
            break;
        case 'u':
            conversion = CONV_UNSIGNED_DECIMAL;
            break;
        case 'X':
            flags |= FLAG_UPPERCASE;
            [[fallthrough]];
        case 'x':
            conversion = CONV_UNSIGNED_HEX;
            break;
        case 'o':
            conversion = CONV_UNSIGNED_OCTAL;
            break;
        case 'E':
            flags |= FLAG_UPPERCASE;
            [[fallthrough]];
        case 'e':
            conversion = CONV_FLOAT_EXPONENT;
            break;
        case 'F':
            flags |= FLAG_UPPERCASE;
            [[fallthrough]];
        case 'f':
            conversion = CONV_FLOAT_NORMAL;
            break;
        case 'G':
            flags |= FLAG_UPPERCASE;
            [[fallthrough]];
        case 'g':
            conversion = CONV_FLOAT_CHOOSE;
            break;
        case 'A':
            flags |= FLAG_UPPERCASE;
            [[fallthrough]];
        case 'a':
            conversion = CONV_FLOAT_HEX;
            break;
        case 'c':
            conversion = CONV_CHAR;
            break;
        case 's':
            conversion = CONV_STRING;
            break;
        case 'z':  // only reached as a conversion with PRINTF_Z_IS_STRING
            conversion = CONV_STRING;
            break;
        case 'm':
            if (!(options & PRINTF_ALLOW_STRERROR)) return literalUpTo(start, p, p);
            conversion = CONV_STRERROR;
            break;
        case 'p':
            if (options & PRINTF_POINTER) {
                conversion = CONV_POINTER;
            } else {
                // %X of the argument, which is a pointer.
                conversion = CONV_UNSIGNED_HEX;
                flags |= FLAG_UPPERCASE;
                size = sizeof(void*);
            }
            break;
        case '%':
            return literalUpTo(start, start + 1, p);  // "%%", flags or not
        default:
            return literalUpTo(start, p, p);  // unknown: the whole directive as text
    }

    switch (conversion) {
        case CONV_UNSIGNED_DECIMAL:
        case CONV_UNSIGNED_HEX:
        case CONV_UNSIGNED_OCTAL:
            sign_nonnegative = SIGN_NONNEGATIVE_NONE;
            [[fallthrough]];
        case CONV_SIGNED_DECIMAL:
        case CONV_POINTER:
            // A precision says how many digits: zero padding gives way. A
            // variable one is looked at when it is known.
            if (precision != NONE && padding == PAD_LEFT_ZEROS) padding = PAD_LEFT_SPACES;
            break;
        default:
            break;
    }
    format->advanceTo(p);
    return true;
}

void PrintfFormatAtom::setVariableWidth(int w) {
    // clang-format off
    ASSERT(width == (size_t) -1);
    // clang-format on
    if (w < 0) {
        width =
            std::min<uint64_t>(0 - static_cast<uint64_t>(static_cast<int64_t>(w)), kMaxFieldSize);
        padding = PAD_RIGHT_SPACES;
    } else {
        width = static_cast<uint64_t>(w);
    }
}

void PrintfFormatAtom::setVariablePrecision(int p) {
    // clang-format off
    ASSERT(precision == (size_t) -1);
    // clang-format on
    if (p < 0) {
        precision = NONE;  // as if none were given
        return;
    }
    precision = static_cast<uint64_t>(p);
    const bool integer = (conversion >= CONV_SIGNED_DECIMAL && conversion <= CONV_UNSIGNED_OCTAL) ||
                         conversion == CONV_POINTER;
    if (integer && padding == PAD_LEFT_ZEROS) padding = PAD_LEFT_SPACES;
}

unsigned PrintfFormatAtom::inputsNeeded() const {
    return ((flags & FLAG_VARIABLE_WIDTH) ? 1 : 0) + ((flags & FLAG_VARIABLE_PRECISION) ? 1 : 0) +
           (conversion != CONV_CONSTANT_STRING ? 1 : 0);
}

// ---------------------------------------------------------------- padding

namespace {

char signChar(const Atom& a, bool negative) {
    if (negative) return '-';
    switch (a.sign_nonnegative) {
        case Atom::SIGN_NONNEGATIVE_PLUS:
            return '+';
        case Atom::SIGN_NONNEGATIVE_SPACE:
            return ' ';
        default:
            return 0;
    }
}

// Spaces or zeros to reach the width around a body of `used` bytes.
struct FieldPadding {
    size_t left = 0;   // spaces before everything
    size_t zeros = 0;  // zeros between sign or prefix and the digits
    size_t right = 0;  // spaces after

    FieldPadding(const Atom& a, size_t used, bool zerosAllowed) {
        if (a.width == Atom::NONE || a.width <= used) return;
        const size_t padding_needed = a.width - used;
        ASSERT(padding_needed > 0);
        if (a.padding == Atom::PAD_RIGHT_SPACES) {
            right = padding_needed;
        } else if (a.padding == Atom::PAD_LEFT_ZEROS && zerosAllowed) {
            zeros = padding_needed;
        } else {
            left = padding_needed;
        }
    }
};

// Text with width padding only: strings, characters, (nil), nan and inf.
void renderPadded(PrintfOutput& out, const Atom& a, const char* text, size_t length) {
    const FieldPadding pad(a, length, false);
    out.fill(' ', pad.left);
    out.put(text, length);
    out.fill(' ', pad.right);
}

size_t exponentText(char* out, char letter, int exponent, bool twoDigits) {
    size_t n = 0;
    out[n++] = letter;
    out[n++] = exponent < 0 ? '-' : '+';
    const unsigned magnitude = static_cast<unsigned>(exponent < 0 ? -exponent : exponent);
    if (twoDigits && magnitude < 10) out[n++] = '0';
    return n + convertU32ToAscii(magnitude, out + n);
}

}  // namespace

// ---------------------------------------------------------------- integers

void PrintfIntegerRenderingBuffer::addU64(uint64_t value) {
    const unsigned digits = decimalCharactersU64(value);
    ASSERT(digits >= 1);
    _p += digits;
    ASSERT(_p <= &_buf[sizeof(_buf)]);
    convertU64ToAsciiSizeKnown(value, _p - digits, digits);
}

void PrintfIntegerRenderingBuffer::addCommaSeparators() {
    const size_t digits = size();
    if (digits <= 3) return;
    const size_t commas = (digits - 1) / 3;
    // From the back: three digits, a comma, and so on.
    char* from = _p;
    _p += commas;
    ASSERT(_p <= &_buf[sizeof(_buf)]);
    char* to = _p;
    for (size_t moved = 0; from > _buf; ++moved) {
        if (moved > 0 && moved % 3 == 0) *--to = ',';
        *--to = *--from;
    }
}

PrintfRenderedUnsignedInteger::PrintfRenderedUnsignedInteger(const Atom& a, uint64_t value) {
    render(a, value, false);
}

PrintfRenderedSignedInteger::PrintfRenderedSignedInteger(const Atom& a, int64_t value) {
    render(a, value < 0 ? 0 - static_cast<uint64_t>(value) : static_cast<uint64_t>(value),
           value < 0);
}

void PrintfRenderedUnsignedInteger::render(const Atom& a, uint64_t magnitude, bool negative) {
    // Zero with precision 0: no digits and no sign, only padding.
    const bool nothing = magnitude == 0 && a.precision == 0;
    if (!nothing) {
        switch (a.conversion) {
            case Atom::CONV_UNSIGNED_HEX:
            case Atom::CONV_POINTER: {
                const char* hex = a.isUpper() ? kUpperHex : kLowerHex;
                for (int shift = (63 - __builtin_clzll(magnitude | 1)) & ~3; shift >= 0;
                     shift -= 4) {
                    _digits.push_back(hex[(magnitude >> shift) & 15]);
                }
                break;
            }
            case Atom::CONV_UNSIGNED_OCTAL:
                for (int shift = (63 - __builtin_clzll(magnitude | 1)) / 3 * 3; shift >= 0;
                     shift -= 3) {
                    _digits.push_back(static_cast<char>('0' + ((magnitude >> shift) & 7)));
                }
                break;
            default:
                _digits.addU64(magnitude);
                if (a.flags & Atom::FLAG_GROUPING) _digits.addCommaSeparators();
        }
    }

    const size_t ndigits = _digits.size();  // commas count as digits for the precision
    _zeros = a.precision != Atom::NONE && a.precision > ndigits ? a.precision - ndigits : 0;
    const bool alternate = a.flags & Atom::FLAG_ALTERNATE;
    // Octal alternate form: the digits begin with a zero, added if need be.
    if (alternate && a.conversion == Atom::CONV_UNSIGNED_OCTAL && _zeros == 0 &&
        (ndigits == 0 || _digits.data()[0] != '0')) {
        _zeros = 1;
    }
    if (!nothing) {
        if (const char sign = signChar(a, negative)) _prefix[_prefixLength++] = sign;
    }
    const bool hexPrefix = (a.conversion == Atom::CONV_UNSIGNED_HEX && alternate) ||
                           a.conversion == Atom::CONV_POINTER;
    if (hexPrefix && magnitude != 0) {
        _prefix[_prefixLength++] = '0';
        _prefix[_prefixLength++] = a.isUpper() ? 'X' : 'x';
    }
    const FieldPadding pad(a, _prefixLength + _zeros + ndigits, true);
    _leftSpaces = pad.left;
    _zeros += pad.zeros;
    _rightSpaces = pad.right;
}

size_t PrintfRenderedUnsignedInteger::size() const {
    return _leftSpaces + _prefixLength + _zeros + _digits.size() + _rightSpaces;
}

void PrintfRenderedUnsignedInteger::writeTo(PrintfOutput& out) const {
    out.fill(' ', _leftSpaces);
    out.put(_prefix, _prefixLength);
    out.fill('0', _zeros);
    out.put(_digits.data(), _digits.size());
    out.fill(' ', _rightSpaces);
}

namespace {

// The common case, "%d" or "%u" with nothing else, written in place.
bool isPlainDecimal(const Atom& a) {
    return a.width == Atom::NONE && a.precision == Atom::NONE &&
           a.sign_nonnegative == Atom::SIGN_NONNEGATIVE_NONE &&
           (a.flags & Atom::FLAG_GROUPING) == 0 &&
           (a.conversion == Atom::CONV_SIGNED_DECIMAL ||
            a.conversion == Atom::CONV_UNSIGNED_DECIMAL);
}

void renderPlainDecimal(PrintfOutput& out, uint64_t magnitude, bool negative) {
    const unsigned n = decimalCharactersU64(magnitude);
    char* p = out.room(n + 1);
    if (negative) *p = '-';
    convertU64ToAsciiSizeKnown(magnitude, p + negative, n);
    out.commit(n + negative);
}

void renderSigned(PrintfOutput& out, const Atom& a, int64_t v) {
    if (isPlainDecimal(a)) {
        return renderPlainDecimal(out, v < 0 ? 0 - static_cast<uint64_t>(v) : v, v < 0);
    }
    PrintfRenderedSignedInteger(a, v).writeTo(out);
}

void renderUnsigned(PrintfOutput& out, const Atom& a, uint64_t v) {
    if (isPlainDecimal(a)) return renderPlainDecimal(out, v, false);
    PrintfRenderedUnsignedInteger(a, v).writeTo(out);
}

}  // namespace

// ---------------------------------------------------------------- floats

PrintfNonfiniteFloatingPointRenderingBuffer::PrintfNonfiniteFloatingPointRenderingBuffer(
    const Atom& a, double v) {
    StrSegment repl;
    get_nonfinite_double_repl(&repl, v);
    // The first three letters of the text, cased by the conversion.
    const char* word = repl._data + (repl._data[0] == '-' ? 1 : 0);
    if (const char sign = signChar(a, std::signbit(v))) _text[_length++] = sign;
    for (int i = 0; i < 3; ++i) {
        const char c = word[i];
        const bool upper = c >= 'A' && c <= 'Z';
        _text[_length++] = a.isUpper() ? (upper ? c : static_cast<char>(c - 32))
                                       : (upper ? static_cast<char>(c + 32) : c);
    }
}

PrintfRenderedNormalFloat::PrintfRenderedNormalFloat(const Atom& a,
                                                     const ConvertDoubleToStringShortest& value,
                                                     size_t fractionDigits)
    : _value(value) {
    const int point = value._point;
    _sign = signChar(a, value._negative);
    _grouping = a.flags & Atom::FLAG_GROUPING;
    _withPoint = fractionDigits > 0 || (a.flags & Atom::FLAG_ALTERNATE);
    if (point > 0) {
        _intDigits =
            std::min<size_t>(static_cast<size_t>(point), static_cast<size_t>(value._length));
        _intZeros = static_cast<size_t>(point) - _intDigits;
    } else {
        _intZeros = 1;  // "0"
    }
    if (fractionDigits > 0) {
        _fracLeadZeros =
            point < 0 ? std::min<size_t>(fractionDigits, static_cast<size_t>(-point)) : 0;
        _fracStart = point > 0 ? static_cast<size_t>(point) : 0;
        const size_t available =
            static_cast<size_t>(value._length) > _fracStart ? value._length - _fracStart : 0;
        _fracCount = std::min(available, fractionDigits - _fracLeadZeros);
    }
    _fracTrailZeros = fractionDigits - _fracLeadZeros - _fracCount;
    const size_t intTotal = _intDigits + _intZeros;
    const size_t commas = _grouping && intTotal > 3 ? (intTotal - 1) / 3 : 0;
    const size_t used = (_sign ? 1 : 0) + intTotal + commas + (_withPoint ? 1 : 0) + fractionDigits;
    const FieldPadding pad(a, used, true);
    _leftSpaces = pad.left;
    _leftZeros = pad.zeros;
    _rightSpaces = pad.right;
}

size_t PrintfRenderedNormalFloat::size() const {
    const size_t intTotal = _intDigits + _intZeros;
    const size_t commas = _grouping && intTotal > 3 ? (intTotal - 1) / 3 : 0;
    return _leftSpaces + (_sign ? 1 : 0) + _leftZeros + intTotal + commas + (_withPoint ? 1 : 0) +
           _fracLeadZeros + _fracCount + _fracTrailZeros + _rightSpaces;
}

void PrintfRenderedNormalFloat::writeTo(PrintfOutput& out) const {
    out.fill(' ', _leftSpaces);
    if (_sign) out.put1(_sign);
    out.fill('0', _leftZeros);
    const size_t intTotal = _intDigits + _intZeros;
    if (_grouping) {
        for (size_t i = 0; i < intTotal; ++i) {
            if (i > 0 && (intTotal - i) % 3 == 0) out.put1(',');
            out.put1(i < _intDigits ? _value._digits[i] : '0');
        }
    } else {
        out.put(_value._digits, _intDigits);
        out.fill('0', _intZeros);
    }
    if (_withPoint) out.put1('.');
    out.fill('0', _fracLeadZeros);
    if (_fracCount > 0) out.put(_value._digits + _fracStart, _fracCount);
    out.fill('0', _fracTrailZeros);
    out.fill(' ', _rightSpaces);
}

PrintfRenderedExponentialFloat::PrintfRenderedExponentialFloat(
    const Atom& a, const ConvertDoubleToStringShortest& value, size_t fractionDigits)
    : _value(value) {
    _sign = signChar(a, value._negative);
    _withPoint = fractionDigits > 0 || (a.flags & Atom::FLAG_ALTERNATE);
    const size_t available = value._length > 1 ? static_cast<size_t>(value._length - 1) : 0;
    _fracCount = std::min(available, fractionDigits);
    _fracTrailZeros = fractionDigits - _fracCount;
    _exponentLength = static_cast<uint8_t>(exponentText(
        _exponent, a.isUpper() ? 'E' : 'e', value.isZero() ? 0 : value._point - 1, true));
    const size_t used =
        (_sign ? 1 : 0) + 1 + (_withPoint ? 1 : 0) + fractionDigits + _exponentLength;
    const FieldPadding pad(a, used, true);
    _leftSpaces = pad.left;
    _leftZeros = pad.zeros;
    _rightSpaces = pad.right;
}

size_t PrintfRenderedExponentialFloat::size() const {
    return _leftSpaces + (_sign ? 1 : 0) + _leftZeros + 1 + (_withPoint ? 1 : 0) + _fracCount +
           _fracTrailZeros + _exponentLength + _rightSpaces;
}

void PrintfRenderedExponentialFloat::writeTo(PrintfOutput& out) const {
    out.fill(' ', _leftSpaces);
    if (_sign) out.put1(_sign);
    out.fill('0', _leftZeros);
    out.put1(_value.isZero() ? '0' : _value._digits[0]);
    if (_withPoint) out.put1('.');
    out.put(_value._digits + 1, _fracCount);
    out.fill('0', _fracTrailZeros);
    out.put(_exponent, _exponentLength);
    out.fill(' ', _rightSpaces);
}

PrintfRenderedHexFloat::PrintfRenderedHexFloat(const Atom& a, double v) {
    uint64_t bits;
    memcpy(&bits, &v, sizeof bits);
    const int biased = static_cast<int>((bits >> 52) & 0x7FF);
    const uint64_t mantissa = bits & ((uint64_t{1} << 52) - 1);
    int lead = biased == 0 ? 0 : 1;
    const int exponent = biased == 0 ? (mantissa == 0 ? 0 : -1022) : biased - 1023;

    int hex[13];
    for (int i = 0; i < 13; ++i) hex[i] = static_cast<int>((mantissa >> (48 - 4 * i)) & 15);
    size_t count = 13;
    if (a.precision == Atom::NONE) {
        while (count > 0 && hex[count - 1] == 0) --count;
    } else if (a.precision < 13) {
        count = a.precision;
        if (hex[count] > 7) {
            // Round up at the last kept digit; a carry out of it reaches the
            // leading digit, which then reads 2 (or 1 for a subnormal).
            int i = static_cast<int>(count) - 1;
            while (i >= 0 && hex[i] == 15) hex[i--] = 0;
            if (i >= 0) {
                ++hex[i];
            } else {
                ++lead;
            }
        }
    } else {
        _trailZeros = a.precision - 13;
    }

    _upper = a.isUpper();
    const char* digits = _upper ? kUpperHex : kLowerHex;
    _body[_bodyLength++] = digits[lead];
    if (count > 0 || _trailZeros > 0 || (a.flags & Atom::FLAG_ALTERNATE))
        _body[_bodyLength++] = '.';
    for (size_t i = 0; i < count; ++i) _body[_bodyLength++] = digits[hex[i]];
    _exponentLength =
        static_cast<uint8_t>(exponentText(_exponent, _upper ? 'P' : 'p', exponent, false));

    _sign = signChar(a, std::signbit(v));
    const size_t used = (_sign ? 1 : 0) + 2 + _bodyLength + _trailZeros + _exponentLength;
    const FieldPadding pad(a, used, true);
    _leftSpaces = pad.left;
    _leftZeros = pad.zeros;
    _rightSpaces = pad.right;
}

size_t PrintfRenderedHexFloat::size() const {
    return _leftSpaces + (_sign ? 1 : 0) + 2 + _leftZeros + _bodyLength + _trailZeros +
           _exponentLength + _rightSpaces;
}

void PrintfRenderedHexFloat::writeTo(PrintfOutput& out) const {
    out.fill(' ', _leftSpaces);
    if (_sign) out.put1(_sign);
    out.put(_upper ? "0X" : "0x", 2);
    out.fill('0', _leftZeros);
    out.put(_body, _bodyLength);
    out.fill('0', _trailZeros);
    out.put(_exponent, _exponentLength);
    out.fill(' ', _rightSpaces);
}

namespace {

// Fraction digits of a value shown with `fractionDigits` places, without the
// zeros at the end.
size_t significantFraction(const ConvertDoubleToStringShortest& c, int firstFractionIndex,
                           size_t fractionDigits) {
    int n = static_cast<int>(std::min<size_t>(fractionDigits, INT_MAX));
    n = std::min(n, c._length - firstFractionIndex);
    while (n > 0 && c.digitAt(firstFractionIndex + n - 1) == '0') --n;
    return n > 0 ? static_cast<size_t>(n) : 0;
}

void renderFloat(PrintfOutput& out, const Atom& a, double v) {
    if (!std::isfinite(v)) {
        const PrintfNonfiniteFloatingPointRenderingBuffer text(a, v);
        return renderPadded(out, a, text.data(), text.size());
    }
    if (a.conversion == Atom::CONV_FLOAT_HEX) return PrintfRenderedHexFloat(a, v).writeTo(out);

    const bool alternate = a.flags & Atom::FLAG_ALTERNATE;
    const size_t precision = a.precision == Atom::NONE ? 6 : a.precision;
    // Rounding looks at no more places than there can be digits.
    const int places = static_cast<int>(std::min<size_t>(precision, 1000));
    ConvertDoubleToStringShortest c(v);

    switch (a.conversion) {
        case Atom::CONV_FLOAT_NORMAL:
            c.bankersRounding(places);
            return PrintfRenderedNormalFloat(a, c, precision).writeTo(out);
        case Atom::CONV_FLOAT_EXPONENT:
            if (!c.isZero()) c.bankersRounding(places + 1 - c._point);
            return PrintfRenderedExponentialFloat(a, c, precision).writeTo(out);
        default: {
            // %g: round to P significant digits, then choose the form by the
            // decimal exponent of the rounded value.
            const size_t p = precision == 0 ? 1 : precision;
            if (!c.isZero())
                c.bankersRounding(static_cast<int>(std::min<size_t>(p, 1000)) - c._point);
            const int x = c.isZero() ? 0 : c._point - 1;  // -324 to 308
            const bool exponentForm = x < -4 || (x >= 0 && static_cast<size_t>(x) >= p);
            const size_t wanted = exponentForm ? p - 1
                                               : p - 1 + static_cast<size_t>(-std::min(x, 0)) -
                                                     static_cast<size_t>(std::max(x, 0));
            const int firstFraction = exponentForm ? 1 : c._point;
            const size_t frac = alternate ? wanted : significantFraction(c, firstFraction, wanted);
            if (exponentForm) return PrintfRenderedExponentialFloat(a, c, frac).writeTo(out);
            return PrintfRenderedNormalFloat(a, c, frac).writeTo(out);
        }
    }
}

// ---------------------------------------------------------------- strings

void renderStrerror(PrintfOutput& out, const Atom& a, int errnum) {
    UnixStrerrorRenderingState state;
    const char* text = state.render(errnum);
    const size_t n = a.precision == Atom::NONE ? strlen(text) : strnlen(text, a.precision);
    renderPadded(out, a, text, n);
}

void renderPointer(PrintfOutput& out, const Atom& a, const void* pointer) {
    if (pointer == nullptr) return renderPadded(out, a, "(nil)", 5);
    PrintfRenderedUnsignedInteger(a, reinterpret_cast<uintptr_t>(pointer)).writeTo(out);
}

// ---------------------------------------------------------------- one atom

void renderAtom(PrintfOutput& out, Atom& a, va_list* args, int errnum) {
    if (a.conversion == Atom::CONV_CONSTANT_STRING) {
        out.put(a.literal, a.literalLength);
        return;
    }
    if (a.flags & Atom::FLAG_VARIABLE_WIDTH) a.setVariableWidth(va_arg(*args, int));
    if (a.flags & Atom::FLAG_VARIABLE_PRECISION) a.setVariablePrecision(va_arg(*args, int));

    switch (a.conversion) {
        case Atom::CONV_SIGNED_DECIMAL:
            return renderSigned(out, a,
                                a.size <= 4 ? va_arg(*args, int) : va_arg(*args, long long));
        case Atom::CONV_UNSIGNED_DECIMAL:
        case Atom::CONV_UNSIGNED_HEX:
        case Atom::CONV_UNSIGNED_OCTAL: {
            return renderUnsigned(
                out, a, a.size <= 4 ? va_arg(*args, unsigned) : va_arg(*args, unsigned long long));
        }
        case Atom::CONV_FLOAT_EXPONENT:
        case Atom::CONV_FLOAT_NORMAL:
        case Atom::CONV_FLOAT_CHOOSE:
        case Atom::CONV_FLOAT_HEX:
            return renderFloat(out, a, va_arg(*args, double));
        case Atom::CONV_CHAR: {
            const char c = static_cast<char>(va_arg(*args, int));
            return renderPadded(out, a, &c, 1);
        }
        case Atom::CONV_STRING: {
            const char* s = va_arg(*args, const char*);
            const size_t n = a.precision == Atom::NONE ? strlen(s) : strnlen(s, a.precision);
            return renderPadded(out, a, s, n);
        }
        case Atom::CONV_STRERROR:
            return renderStrerror(out, a, errnum);
        case Atom::CONV_POINTER:
            return renderPointer(out, a, va_arg(*args, const void*));
        default:
            return;
    }
}

}  // namespace

// ---------------------------------------------------------------- the engine

void printf_render(PrintfOutput& out, int errnum, const char* format, va_list* args) {
    StrSegment rest(format);
    Atom a;
    while (a.getNext(&rest)) renderAtom(out, a, args, errnum);
    out.flush();
}

void printf_render(Str* sink, int errnum, const char* format, va_list args) {
    va_list copy;
    va_copy(copy, args);
    StrOutput out(sink);
    try {
        printf_render(out, errnum, format, &copy);
    } catch (...) {
        va_end(copy);
        throw;
    }
    va_end(copy);
}

void printf_render(CrashLogWriteHandler& sink, int errnum, const char* format, va_list args) {
    va_list copy;
    va_copy(copy, args);
    CrashOutput out(sink);
    printf_render(out, errnum, format, &copy);
    va_end(copy);
}

const char* UnixStrerrorRenderingState::render(int errnum) {
    if (const char* text = strerrordesc_np(errnum)) return text;
    string_builder sb;
    string_builder_start(&sb, _buffer, sizeof _buffer);
    string_builder_appendz(&sb, "Unknown error ");
    string_builder_append_decimal_i64(&sb, errnum);
    string_builder_finish(&sb);
    return _buffer;
}

// ---------------------------------------------------------------- Str

Str& Str::appendVformat(const char* fmt, va_list args) {
    const int errnum = errno;  // %m: errno as it stood at the call
    const size_t before = size();
    try {
        printf_render(this, errnum, fmt, args);
    } catch (...) {
        resize(before);  // all or nothing
        throw;
    }
    return *this;
}

Str& Str::appendFormat(const char* fmt, ...) {
    va_list args;
    va_start(args, fmt);
    try {
        appendVformat(fmt, args);
    } catch (...) {
        va_end(args);
        throw;
    }
    va_end(args);
    return *this;
}

Str& Str::vformat(const char* fmt, va_list args) {
    const int errnum = errno;
    Str result;
    printf_render(&result, errnum, fmt, args);
    swap(result);
    return *this;
}

Str& Str::format(const char* fmt, ...) {
    va_list args;
    va_start(args, fmt);
    try {
        vformat(fmt, args);
    } catch (...) {
        va_end(args);
        throw;
    }
    va_end(args);
    return *this;
}

Str Str::fromFormat(const char* fmt, ...) {
    Str result;
    va_list args;
    va_start(args, fmt);
    try {
        result.appendVformat(fmt, args);
    } catch (...) {
        va_end(args);
        throw;
    }
    va_end(args);
    return result;
}

// ---------------------------------------------------------------- one conversion

#define TX_DEFINE_PRINTERS(SinkType, MakeOutput)                                               \
    void printSignedInteger(SinkType sink, const Atom& atom, int64_t value) {                  \
        MakeOutput;                                                                            \
        renderSigned(out, atom, value);                                                        \
        out.flush();                                                                           \
    }                                                                                          \
    void printUnsignedInteger(SinkType sink, const Atom& atom, uint64_t value) {               \
        MakeOutput;                                                                            \
        renderUnsigned(out, atom, value);                                                      \
        out.flush();                                                                           \
    }                                                                                          \
    void printFloat(SinkType sink, const Atom& atom, double value) {                           \
        MakeOutput;                                                                            \
        renderFloat(out, atom, value);                                                         \
        out.flush();                                                                           \
    }                                                                                          \
    void printString(SinkType sink, const Atom& atom, const char* text) {                      \
        MakeOutput;                                                                            \
        const size_t n =                                                                       \
            atom.precision == Atom::NONE ? strlen(text) : strnlen(text, atom.precision);       \
        renderPadded(out, atom, text, n);                                                      \
        out.flush();                                                                           \
    }                                                                                          \
    void printString(SinkType sink, const Atom& atom, const char* text, size_t length) {       \
        MakeOutput;                                                                            \
        renderPadded(                                                                          \
            out, atom, text,                                                                   \
            atom.precision == Atom::NONE ? length : std::min<size_t>(length, atom.precision)); \
        out.flush();                                                                           \
    }                                                                                          \
    void printStringNoPrecision(SinkType sink, const Atom& atom, const char* text,             \
                                size_t length) {                                               \
        MakeOutput;                                                                            \
        renderPadded(out, atom, text, length);                                                 \
        out.flush();                                                                           \
    }                                                                                          \
    void printPointerValue(SinkType sink, const Atom& atom, const void* pointer) {             \
        MakeOutput;                                                                            \
        renderPointer(out, atom, pointer);                                                     \
        out.flush();                                                                           \
    }                                                                                          \
    void printStrerror(SinkType sink, int errnum) {                                            \
        MakeOutput;                                                                            \
        renderStrerror(out, Atom(), errnum);                                                   \
        out.flush();                                                                           \
    }

TX_DEFINE_PRINTERS(Str*, StrOutput out(sink))
TX_DEFINE_PRINTERS(CrashLogWriteHandler&, CrashOutput out(sink))
#undef TX_DEFINE_PRINTERS

// ---------------------------------------------------------------- parsed formats

void PrintfFormatString::set(const char* format, unsigned options) {
    set(StrSegment(format), options);
}

void PrintfFormatString::set(StrSegment format, unsigned options) {
    atoms.clear();
    StrSegment rest = format;
    Atom a;
    while (a.getNext(&rest, options)) atoms.push_back(a);
}

unsigned PrintfFormatString::inputsNeeded() const {
    unsigned n = 0;
    for (const Atom& a : atoms) n += a.inputsNeeded();
    return n;
}

void PrintfFormatString::vformat(Str* dest, va_list args) const {
    const int errnum = errno;
    const size_t before = dest->size();
    va_list copy;
    va_copy(copy, args);
    try {
        StrOutput out(dest);
        for (Atom a : atoms) renderAtom(out, a, &copy, errnum);
        out.flush();
    } catch (...) {
        va_end(copy);
        dest->resize(before);
        throw;
    }
    va_end(copy);
}

void PrintfFormatString::format(Str* dest, ...) const {
    va_list args;
    va_start(args, dest);
    try {
        vformat(dest, args);
    } catch (...) {
        va_end(args);
        throw;
    }
    va_end(args);
}

bool mem_parse_into(const char* data, size_t length, PrintfFormatString* dest) {
    if (data == nullptr) return false;
    dest->set(StrSegment(data, length));
    return true;
}

void append_stringified(Str* dest, const PrintfFormatAtom& a) {
    if (a.conversion == Atom::CONV_CONSTANT_STRING) {
        for (size_t i = 0; i < a.literalLength; ++i) {
            if (a.literal[i] == '%') dest->push_back('%');
            dest->push_back(a.literal[i]);
        }
        return;
    }
    dest->push_back('%');
    if (a.padding == Atom::PAD_RIGHT_SPACES) dest->push_back('-');
    if (a.sign_nonnegative == Atom::SIGN_NONNEGATIVE_PLUS) dest->push_back('+');
    if (a.sign_nonnegative == Atom::SIGN_NONNEGATIVE_SPACE) dest->push_back(' ');
    if (a.flags & Atom::FLAG_ALTERNATE) dest->push_back('#');
    if (a.padding == Atom::PAD_LEFT_ZEROS) dest->push_back('0');
    if (a.flags & Atom::FLAG_GROUPING) dest->push_back('\'');
    char digits[20];
    if (a.flags & Atom::FLAG_VARIABLE_WIDTH) {
        dest->push_back('*');
    } else if (a.width != Atom::NONE) {
        dest->append(digits, convertU64ToAscii(a.width, digits));
    }
    if (a.flags & Atom::FLAG_VARIABLE_PRECISION) {
        dest->append(".*");
    } else if (a.precision != Atom::NONE) {
        dest->push_back('.');
        dest->append(digits, convertU64ToAscii(a.precision, digits));
    }
    static constexpr char kLetters[] = "?duxoefgacsmp";  // by Conversion
    char letter = kLetters[a.conversion];
    const bool integer =
        a.conversion >= Atom::CONV_SIGNED_DECIMAL && a.conversion <= Atom::CONV_UNSIGNED_OCTAL;
    if (integer) {
        if (a.size == 8) dest->append("ll");
        if (a.size == 2) dest->append("h");
        if (a.size == 1) dest->append("hh");
    }
    if (a.isUpper() && letter >= 'a' && letter <= 'z') letter = static_cast<char>(letter - 32);
    dest->push_back(letter);
}

void append_stringified(Str* dest, const PrintfFormatString& f) {
    for (const Atom& a : f.atoms) append_stringified(dest, a);
}

// ---------------------------------------------------------------- each conversion

void render_each_vprintf_conversion(StrVector* dest, const char* format, va_list args) {
    const int errnum = errno;
    va_list copy;
    va_copy(copy, args);
    try {
        StrSegment rest(format);
        Atom a;
        while (a.getNext(&rest)) {
            if (a.conversion == Atom::CONV_CONSTANT_STRING) continue;
            dest->emplace_back();
            StrOutput out(&dest->back());
            renderAtom(out, a, &copy, errnum);
            out.flush();
        }
    } catch (...) {
        va_end(copy);
        throw;
    }
    va_end(copy);
}

void render_each_printf_conversion(StrVector* dest, const char* format, ...) {
    va_list args;
    va_start(args, format);
    try {
        render_each_vprintf_conversion(dest, format, args);
    } catch (...) {
        va_end(args);
        throw;
    }
    va_end(args);
}

// ---------------------------------------------------------------- print objects

namespace {

void renderWithCommas(PrintfOutput& out, const print_decimal_number_with_commas& v) {
    const size_t prefixLength = strlen(v.prefix);
    const size_t n = prefixLength + v.zeros;
    if (n == 0) return;
    // The first group is longer by the sign, if there is one.
    size_t group = v.prefix[0] == '-' ? ((n + 1) % 3) + 2 : ((n + 2) % 3) + 1;
    for (size_t i = 0; i < n; ++i) {
        if (group == 0) {
            out.put1(',');
            group = 3;
        }
        out.put1(i < prefixLength ? v.prefix[i] : '0');
        --group;
    }
}

void renderHexBytes(PrintfOutput& out, const void* data, size_t length, const char* hex) {
    const unsigned char* p = static_cast<const unsigned char*>(data);
    for (size_t i = 0; i < length; ++i) {
        const char pair[2] = {hex[p[i] >> 4], hex[p[i] & 15]};
        out.put(pair, 2);
    }
}

Atom pointerAtom() {
    Atom a;
    a.conversion = Atom::CONV_POINTER;
    a.size = 8;
    return a;
}

template <class Render>
void toStr(Str* dest, Render render) {
    StrOutput out(dest);
    render(out);
    out.flush();
}

template <class Render>
void toCrashLog(CrashLogWriteHandler& h, Render render) {
    CrashOutput out(h);
    render(out);
    out.flush();
}

}  // namespace

#define TX_PRINT_OBJECT(Type, body)                               \
    void append_stringified(Str* dest, const Type& v) {           \
        toStr(dest, [&](PrintfOutput& out) { body; });            \
    }                                                             \
    void crashlog_write(CrashLogWriteHandler& h, const Type& v) { \
        toCrashLog(h, [&](PrintfOutput& out) { body; });          \
    }

TX_PRINT_OBJECT(print_decimal_number_with_commas, renderWithCommas(out, v))
TX_PRINT_OBJECT(print_pointer, renderPointer(out, pointerAtom(), v.pointer))
TX_PRINT_OBJECT(print_strerror, renderStrerror(out, Atom(), v.errnum))
TX_PRINT_OBJECT(print_spaces, out.fill(' ', v.count))
TX_PRINT_OBJECT(print_zeros, out.fill('0', v.count))
TX_PRINT_OBJECT(print_lowercase_hex_bytes, renderHexBytes(out, v.data, v.length, kLowerHex))
TX_PRINT_OBJECT(print_uppercase_hex_bytes, renderHexBytes(out, v.data, v.length, kUpperHex))
#undef TX_PRINT_OBJECT
