#pragma once
// Doubles as text: the shortest digits that read back to the same double (by
// double-conversion), and the rounding rules the printf engine applies to
// them. Everything here works in caller-supplied or member buffers: no
// allocation, safe in a signal handler.

#include <cstddef>
#include <cstdint>

#include "util/Str.h"

// "NaN", "-NaN", "Infinity" or "-Infinity". The sign is the sign bit's, so a
// negative NaN is "-NaN".
void get_nonfinite_double_repl(StrSegment* out, double value);

// A double kept to a number of significant figures and to a number of places
// after the point; MAX_* means "all".
struct DoubleWithSignificantFigures {
    static constexpr uint16_t MAX_SIGFIGS = 65535;
    static constexpr uint16_t MAX_PRECISION = 65535;

    double value;
    uint16_t sigfigs = MAX_SIGFIGS;
    uint16_t precision = MAX_PRECISION;
};

// The shortest digits of a finite double: value = 0.DIGITS x 10^point, so
// `point` is the position of the decimal point relative to the first digit.
// Zero has no digits.
class ConvertDoubleToStringShortest {
public:
    static constexpr int MAX_DIGITS = 17;

    char _digits[MAX_DIGITS + 1];
    int _length = 0;
    int _point = 1;
    bool _negative = false;

    ConvertDoubleToStringShortest() = default;
    explicit ConvertDoubleToStringShortest(double v) { set(v); }

    // `v` must be finite.
    void set(double v);
    void setToZero();
    bool isZero() const { return _length == 0; }

    // Cuts to `digitsAfterPoint` places after the point. Below a final "5"
    // the digits are cut; a final "5" (exactly halfway, as far as the
    // shortest digits tell) goes to the even neighbour; anything else rounds
    // up, carrying over nines.
    void bankersRounding(int digitsAfterPoint);
    // For a cut of the digits to `_length` from `originalLength`: above "5"
    // away, below towards zero; exactly "5" away for positive values, and for
    // negative ones only when further digits follow (halves go towards
    // positive infinity).
    bool shouldRoundAwayFromZero(unsigned originalLength) const;
    // Keeps `sigfigs` digits, or the digits up to `precision` places, which
    // ever cuts first, by shouldRoundAwayFromZero.
    void roundForSigfigsAndPrecision(const DoubleWithSignificantFigures& d);

    // The fixed-point text, never an exponent: sign, integer digits (at least
    // "0"), and the fraction digits there are, behind a point.
    size_t sizeFixedPoint() const;
    // Writes exactly sizeFixedPoint() bytes; no terminator.
    void renderFixedPointPrereserved(char* out) const;

    // The digit at position i of the digit string, "0" outside it.
    char digitAt(int i) const { return i >= 0 && i < _length ? _digits[i] : '0'; }

private:
    void roundUpAt(int keep);  // adds one unit at digit keep-1, carrying
};

// append_stringified of a DoubleWithSignificantFigures: rounded, fixed point.
void append_stringified(Str* dest, const DoubleWithSignificantFigures& d);
