// The printf engine on arbitrary format text: it must not crash, must not
// read an argument it was not given, and must write the same bytes to every
// sink.
#include <cstdint>
#include <cstdlib>
#include <cstring>
#include <string>

#include "FuzzCheck.h"
#include "util/CrashLog.h"
#include "util/PrintfFormat.h"

namespace {

struct BufferHandler : backtrace_writing_handler {
    std::string text;
    BufferHandler() {
        do_write = [](backtrace_writing_handler* h, const char* p, size_t n) {
            static_cast<BufferHandler*>(h)->text.append(p, n);
        };
    }
};

const char* const kStrings[] = {"", "x", "hello", "a longer string of text", "\xc3\xa9t\xc3\xa9"};

void crashFormat(CrashLogWriteHandler& h, const char* fmt, ...) {
    va_list args;
    va_start(args, fmt);
    h.vformat(fmt, args);
    va_end(args);
}

// Eight doubles fill the vector registers and twenty pointers to strings fill
// the rest in order, so any format needing at most that many of each reads
// only arguments that were passed, each usable by any directive of its class.
#define ARGUMENT_PACK                                                                              \
    1.5, -0.0, 1e300, 5e-324, 0.1, -2.5, 123456.789, 1e-7, kStrings[0], kStrings[1], kStrings[2],  \
        kStrings[3], kStrings[4], kStrings[0], kStrings[1], kStrings[2], kStrings[3], kStrings[4], \
        kStrings[0], kStrings[1], kStrings[2], kStrings[3], kStrings[4], kStrings[0], kStrings[1], \
        kStrings[2], kStrings[3], kStrings[4]

bool isFloat(const PrintfFormatAtom& a) {
    return a.conversion >= PrintfFormatAtom::CONV_FLOAT_EXPONENT &&
           a.conversion <= PrintfFormatAtom::CONV_FLOAT_HEX;
}

// Renders one atom through the single-conversion printers, with small values
// for its stars, into both sinks.
void renderAlone(PrintfFormatAtom a, uint8_t seed) {
    if (a.flags & PrintfFormatAtom::FLAG_VARIABLE_WIDTH) a.setVariableWidth(seed % 64 - 16);
    if (a.flags & PrintfFormatAtom::FLAG_VARIABLE_PRECISION) a.setVariablePrecision(seed % 40 - 8);
    Str viaStr;
    BufferHandler buffer;
    CrashLogWriteHandler crash(&buffer);
    const double doubles[] = {0.5, -1e-300, 7.25e18, 1.0 / 3};
    switch (a.conversion) {
        case PrintfFormatAtom::CONV_SIGNED_DECIMAL:
            printSignedInteger(&viaStr, a, -static_cast<int64_t>(seed) * 1000003);
            printSignedInteger(crash, a, -static_cast<int64_t>(seed) * 1000003);
            break;
        case PrintfFormatAtom::CONV_UNSIGNED_DECIMAL:
        case PrintfFormatAtom::CONV_UNSIGNED_HEX:
        case PrintfFormatAtom::CONV_UNSIGNED_OCTAL:
            printUnsignedInteger(&viaStr, a, uint64_t{seed} << 40);
            printUnsignedInteger(crash, a, uint64_t{seed} << 40);
            break;
        case PrintfFormatAtom::CONV_STRING:
        case PrintfFormatAtom::CONV_CHAR:
            printString(&viaStr, a, kStrings[seed % 5]);
            printString(crash, a, kStrings[seed % 5]);
            break;
        case PrintfFormatAtom::CONV_POINTER:
            printPointerValue(&viaStr, a, seed % 2 ? nullptr : &viaStr);
            printPointerValue(crash, a, seed % 2 ? nullptr : &viaStr);
            break;
        case PrintfFormatAtom::CONV_STRERROR:
            printStrerror(&viaStr, seed);
            printStrerror(crash, seed);
            break;
        default:
            if (isFloat(a)) {
                printFloat(&viaStr, a, doubles[seed % 4]);
                printFloat(crash, a, doubles[seed % 4]);
            }
    }
    FUZZ_CHECK(viaStr == buffer.text);
}

}  // namespace

extern "C" int LLVMFuzzerTestOneInput(const uint8_t* data, size_t size) {
    const std::string format(reinterpret_cast<const char*>(data), size);  // stops at a NUL
    PrintfFormatString parsed;
    parsed.set(format.c_str());

    unsigned floats = 0, others = 0;
    bool stars = false;
    for (const PrintfFormatAtom& a : parsed.atoms) {
        // Fields of absurd size only make output, not coverage.
        if ((a.width != PrintfFormatAtom::NONE && a.width > 4096) ||
            (a.precision != PrintfFormatAtom::NONE && a.precision > 4096)) {
            return 0;
        }
        stars |= (a.flags & (PrintfFormatAtom::FLAG_VARIABLE_WIDTH |
                             PrintfFormatAtom::FLAG_VARIABLE_PRECISION)) != 0;
        if (isFloat(a)) {
            ++floats;
        } else if (a.conversion != PrintfFormatAtom::CONV_CONSTANT_STRING &&
                   a.conversion != PrintfFormatAtom::CONV_STRERROR) {
            ++others;
        }
    }

    if (!stars && floats <= 8 && others <= 20) {
        const Str viaStr = Str::fromFormat(format.c_str(), ARGUMENT_PACK);
        BufferHandler buffer;
        CrashLogWriteHandler crash(&buffer);
        crashFormat(crash, format.c_str(), ARGUMENT_PACK);
        FUZZ_CHECK(viaStr == buffer.text);
    }
    uint8_t seed = size ? data[0] : 0;
    for (const PrintfFormatAtom& a : parsed.atoms) renderAlone(a, seed++);
    return 0;
}
