#pragma once
// A JSON parser that writes down its events as one line of text, and the
// three ways of feeding it (whole, byte by byte, split in two), for tests
// whose point is that chunking never changes what comes out.

#include <set>
#include <string>

#include "util/JsonStreamingParser.h"

namespace jsontest {

struct Options {
    bool trailingComma = true;
    bool comments = true;
    unsigned maxDepth = 500;
    int endOfBlock = 1;
    bool ignoreOverlength = false;
    std::set<std::string> refusedKeys;
    bool refuseArrays = false;
    JsonStreamingParser::min_seen_at_finish_t minSeen = JsonStreamingParser::AT_FINISH_NEED_NOTHING;
};

// The strict configuration: plain RFC 8259 JSON, one value.
inline Options strict() {
    Options o;
    o.trailingComma = false;
    o.comments = false;
    o.endOfBlock = 0;
    o.minSeen = JsonStreamingParser::AT_FINISH_NEED_VALUE;
    return o;
}

// Events: n t f #number s<string> k<key> [ ] { } < (block starts) > (ends);
// bytes outside printable ASCII as \xhh.
class Recorder : public JsonStreamingParser {
public:
    explicit Recorder(Options o = Options()) : _o(std::move(o)) { setMinSeenAtFinish(_o.minSeen); }
    std::string events;

protected:
    void gotNull() override { add("n"); }
    void gotBool(bool v) override { add(v ? "t" : "f"); }
    void gotNumber(Str& text) override { add("#" + std::string(text)); }
    void gotStringLiteral(Str& value) override { add("s" + printable(value)); }
    bool gotOpenArray() override {
        add("[");
        return !_o.refuseArrays;
    }
    void gotCloseArray() override { add("]"); }
    bool gotOpenObject() override {
        add("{");
        return true;
    }
    void gotCloseObject() override { add("}"); }
    bool gotObjectKey(Str& key) override {
        add("k" + printable(key));
        return _o.refusedKeys.count(key) == 0;
    }
    void gotStartOfBlock() override { add("<"); }
    int gotEndOfBlock() override {
        add(">");
        return _o.endOfBlock;
    }
    bool acceptTrailingComma() override { return _o.trailingComma; }
    bool acceptComments() override { return _o.comments; }
    unsigned maxDepth() override { return _o.maxDepth; }
    bool ignoreOverlengthString() override { return _o.ignoreOverlength; }

private:
    static std::string printable(const std::string& s) {
        std::string out;
        for (unsigned char c : s) {
            if (c >= 0x20 && c < 0x7F && c != '\\') {
                out.push_back(static_cast<char>(c));
            } else {
                static const char hex[] = "0123456789abcdef";
                out += "\\x";
                out.push_back(hex[c >> 4]);
                out.push_back(hex[c & 15]);
            }
        }
        return out;
    }
    void add(const std::string& e) {
        if (!events.empty()) events.push_back(' ');
        events += e;
    }
    Options _o;
};

// The events, then "| OK" or "| ERR <position> <message>".
inline std::string outcome(Recorder& r, const std::string& text, size_t split1, size_t split2 = 0) {
    try {
        if (split2 == 0) {
            r.parse(text.data(), split1);
            r.parse(text.data() + split1, text.size() - split1);
        } else {  // byte by byte
            for (char c : text) r.parse(&c, 1);
        }
        r.finish();
        return r.events + " | OK";
    } catch (const JsonStreamingParser::error& e) {
        return r.events + " | ERR " + std::to_string(e.position()) + " " + e.what();
    }
}

inline std::string whole(const std::string& text, const Options& o = Options()) {
    Recorder r(o);
    return outcome(r, text, text.size());
}

inline std::string byteByByte(const std::string& text, const Options& o = Options()) {
    Recorder r(o);
    return outcome(r, text, 0, 1);
}

}  // namespace jsontest
