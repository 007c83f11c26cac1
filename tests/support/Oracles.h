#pragma once
// Other people's decoders as oracles: python3's codecs, over many inputs in
// one run (tests/data/decode.py), and glibc's iconv(3).

#include <errno.h>
#include <iconv.h>

#include <optional>
#include <string>
#include <vector>

#include <gtest/gtest.h>

#include "support/TestSupport.h"
#include "util/Str.h"

namespace oracle {

inline std::string hex(const std::string& bytes) {
    static const char digits[] = "0123456789abcdef";
    std::string out;
    for (unsigned char c : bytes) {
        out.push_back(digits[c >> 4]);
        out.push_back(digits[c & 15]);
    }
    return out;
}

// Runs argv with, as its last argument, a file of the inputs in hex, one a
// line; returns what it prints, one line an input.
inline std::vector<std::string> runOverHex(std::vector<std::string> argv,
                                           const std::vector<std::string>& inputs) {
    testsupport::ScratchDir dir;
    std::string text;
    for (const std::string& s : inputs) text += hex(s) + "\n";
    testsupport::writeFile(dir / "in.hex", text);
    argv.push_back(dir / "in.hex");
    const testsupport::ProcessResult r = testsupport::runProcess(argv);
    std::vector<std::string> lines;
    size_t at = 0;
    for (size_t nl; (nl = r.out.find('\n', at)) != std::string::npos; at = nl + 1) {
        lines.push_back(r.out.substr(at, nl - at));
    }
    EXPECT_EQ(lines.size(), inputs.size()) << argv[1] << " failed: " << r.err;
    lines.resize(inputs.size(), "?");
    return lines;
}

// python3's verdict on each input: see tests/data/decode.py.
inline std::vector<std::string> python(const std::string& codec, const std::string& errors,
                                       const std::vector<std::string>& inputs) {
    return runOverHex(
        {"/usr/bin/env", "python3", TARVEX_SOURCE_DIR "/tests/data/decode.py", codec, errors},
        inputs);
}

// "41,e9" to its code points.
inline std::vector<uint32_t> codepoints(const std::string& line) {
    std::vector<uint32_t> cps;
    if (line.empty() || line == "-") return cps;
    for (size_t at = 0; at <= line.size();) {
        size_t comma = line.find(',', at);
        if (comma == std::string::npos) comma = line.size();
        cps.push_back(static_cast<uint32_t>(std::stoul(line.substr(at, comma - at), nullptr, 16)));
        at = comma + 1;
    }
    return cps;
}

inline std::string utf8(const std::vector<uint32_t>& cps) {
    Str s;
    for (uint32_t cp : cps) s.appendUtf8Codepoint(cp);
    return s;
}

// glibc's converter from one character set to another.
class Iconv {
public:
    explicit Iconv(const std::string& from, const std::string& to = "UTF-8")
        : _cd(iconv_open(to.c_str(), from.c_str())) {
        EXPECT_TRUE(ok()) << from << " to " << to;
    }
    ~Iconv() {
        if (ok()) iconv_close(_cd);
    }
    Iconv(const Iconv&) = delete;
    Iconv& operator=(const Iconv&) = delete;
    bool ok() const { return _cd != reinterpret_cast<iconv_t>(-1); }

    // Converts from `from` to the end or to the first byte glibc refuses
    // (or leaves incomplete), appending to *out; returns where it stopped.
    size_t convertPrefix(const std::string& in, size_t from, std::string* out) {
        iconv(_cd, nullptr, nullptr, nullptr, nullptr);
        char* ip = const_cast<char*>(in.data()) + from;
        size_t il = in.size() - from;
        char buf[4096];
        for (;;) {
            char* op = buf;
            size_t ol = sizeof buf;
            const size_t r = iconv(_cd, &ip, &il, &op, &ol);
            out->append(buf, static_cast<size_t>(op - buf));
            if (r != static_cast<size_t>(-1)) break;
            if (errno != E2BIG) return static_cast<size_t>(ip - in.data());
        }
        char* op = buf;
        size_t ol = sizeof buf;
        iconv(_cd, nullptr, nullptr, &op, &ol);
        out->append(buf, static_cast<size_t>(op - buf));
        return in.size();
    }
    std::optional<std::string> convert(const std::string& in) {
        std::string out;
        if (!ok() || convertPrefix(in, 0, &out) != in.size()) return std::nullopt;
        return out;
    }

private:
    iconv_t _cd;
};

// UTF-8 text as glibc writes it in `to`.
inline std::string fromUtf8(const std::string& text, const std::string& to) {
    const auto out = Iconv("UTF-8", to).convert(text);
    EXPECT_TRUE(out) << to;
    return out.value_or("");
}

}  // namespace oracle
