#include "util/PrintFloatingPoint.h"

#include <algorithm>
#include <charconv>
#include <cmath>

void get_nonfinite_double_repl(StrSegment* out, double value) {
    const bool negative = std::signbit(value);
    if (std::isnan(value)) {
        out->assign(negative ? "-NaN" : "NaN");
    } else {
        out->assign(negative ? "-Infinity" : "Infinity");
    }
}

void ConvertDoubleToStringShortest::set(double v) {
    ASSERT(std::isfinite(v));
    _negative = std::signbit(v);
    if (v == 0) {
        setToZero();
        return;
    }
    // libstdc++'s to_chars (Ryu) gives the same shortest, closest digits as
    // double-conversion, about twice as fast; it writes "d.ddde+XX".
    char text[32];
    const std::to_chars_result r =
        std::to_chars(text, text + sizeof text, std::fabs(v), std::chars_format::scientific);
    ASSERT(r.ec == std::errc());
    const char* p = text;
    int length = 0;
    _digits[length++] = *p++;
    if (*p == '.') {
        for (++p; *p != 'e'; ++p) _digits[length++] = *p;
    }
    ++p;  // the 'e'
    const bool negativeExponent = *p == '-';
    int exponent = 0;
    for (++p; p < r.ptr; ++p) exponent = exponent * 10 + (*p - '0');
    const int point = (negativeExponent ? -exponent : exponent) + 1;
    _length = length;
    _point = point;
}

void ConvertDoubleToStringShortest::setToZero() {
    _length = 0;
    _point = 1;
}

void ConvertDoubleToStringShortest::roundUpAt(int keep) {
    int i = keep - 1;
    while (i >= 0 && _digits[i] == '9') --i;
    if (i < 0) {
        // Carried past the first digit: 99.9 -> 100, one digit "1" a place up.
        _digits[0] = '1';
        _length = 1;
        ++_point;
        return;
    }
    ++_digits[i];
    _length = i + 1;  // the nines behind it became zeros
}

void ConvertDoubleToStringShortest::bankersRounding(int digitsAfterPoint) {
    const int keep = digitsAfterPoint + _point;
    if (keep < 0 || keep >= _length) return;
    const char next = _digits[keep];
    if (next < '5') {
        if (keep == 0) {
            setToZero();
        } else {
            _length = keep;
        }
        return;
    }
    if (next == '5' && keep + 1 == _length) {
        // Exactly halfway, as far as the shortest digits tell: to even. With
        // nothing kept the digit before is an implicit, even, zero.
        if (keep == 0) {
            setToZero();
            return;
        }
        if (((_digits[keep - 1] - '0') & 1) == 0) {
            _length = keep;
            return;
        }
    }
    roundUpAt(keep);
}

bool ConvertDoubleToStringShortest::shouldRoundAwayFromZero(unsigned originalLength) const {
    if (static_cast<unsigned>(_length) >= originalLength) return false;
    const char first = _digits[_length];
    if (first != '5') return first > '5';
    return !_negative || static_cast<unsigned>(_length) + 1 < originalLength;
}

void ConvertDoubleToStringShortest::roundForSigfigsAndPrecision(
    const DoubleWithSignificantFigures& d) {
    int keep = _length;
    if (d.sigfigs != DoubleWithSignificantFigures::MAX_SIGFIGS)
        keep = std::min<int>(keep, d.sigfigs);
    if (d.precision != DoubleWithSignificantFigures::MAX_PRECISION) {
        keep = std::min(keep, d.precision + _point);
    }
    if (keep >= _length) return;
    if (keep < 0) {
        setToZero();  // everything lies behind the last place kept
        return;
    }
    const int original = _length;
    _length = keep;
    if (shouldRoundAwayFromZero(static_cast<unsigned>(original))) {
        roundUpAt(keep);
    } else if (keep == 0) {
        setToZero();
    }
}

size_t ConvertDoubleToStringShortest::sizeFixedPoint() const {
    const size_t intDigits = _point > 0 ? static_cast<size_t>(_point) : 1;
    const size_t fracDigits = _length > _point ? static_cast<size_t>(_length - _point) : 0;
    return (_negative ? 1 : 0) + intDigits + (fracDigits ? 1 + fracDigits : 0);
}

void ConvertDoubleToStringShortest::renderFixedPointPrereserved(char* out) const {
    if (_negative) *out++ = '-';
    if (_point > 0) {
        for (int i = 0; i < _point; ++i) *out++ = digitAt(i);
    } else {
        *out++ = '0';
    }
    if (_length > _point) {
        *out++ = '.';
        for (int i = _point; i < _length; ++i) *out++ = digitAt(i);
    }
}

void append_stringified(Str* dest, const DoubleWithSignificantFigures& d) {
    if (!std::isfinite(d.value)) {
        StrSegment text;
        get_nonfinite_double_repl(&text, d.value);
        dest->append(text);
        return;
    }
    ConvertDoubleToStringShortest c(d.value);
    c.roundForSigfigsAndPrecision(d);
    char buf[400];  // 309 integer digits for 1e308, or "0." and 324 places for 5e-324
    const size_t n = c.sizeFixedPoint();
    ASSERT(n <= sizeof buf);
    c.renderFixedPointPrereserved(buf);
    dest->append(buf, n);
}
