// JSON text from anywhere, arriving in any pieces: where it is cut changes
// neither the events, nor the verdict, nor the error's text and position;
// an accepted document prints to compact text that parses to the same tree
// and prints the same again, and its indented form reads back to it too.
#include <cstdint>
#include <string>

#include "FuzzCheck.h"
#include "util/AppendStr.h"
#include "util/CrashLog.h"
#include "util/JsonParser.h"

namespace {

class Recorder : public JsonStreamingParser {
public:
    explicit Recorder(bool strict) : _strict(strict) {
        // Limits bound what earlier chunks left, so they depend on the cuts.
        setMaxKeyLength(SIZE_MAX);
        setMaxValueLength(SIZE_MAX);
        setMaxNumberLength(SIZE_MAX);
    }
    std::string events;

protected:
    void gotNull() override { events += 'n'; }
    void gotBool(bool v) override { events += v ? 't' : 'f'; }
    void gotNumber(Str& text) override { events += "#" + text + ";"; }
    void gotStringLiteral(Str& value) override {
        events += "s" + std::to_string(value.size()) + ":" + value;
    }
    bool gotOpenArray() override { return events += '[', true; }
    void gotCloseArray() override { events += ']'; }
    bool gotOpenObject() override { return events += '{', true; }
    void gotCloseObject() override { events += '}'; }
    bool gotObjectKey(Str& key) override {
        events += "k" + std::to_string(key.size()) + ":" + key;
        return key != "skip";  // refused keys skip their values
    }
    int gotEndOfBlock() override { return _strict ? 0 : 1; }
    bool acceptTrailingComma() override { return !_strict; }
    bool acceptComments() override { return !_strict; }

private:
    bool _strict;
};

std::string outcome(const char* text, size_t size, size_t piece, bool strict) {
    Recorder r(strict);
    try {
        for (size_t at = 0; at < size; at += piece)
            r.parse(text + at, piece < size - at ? piece : size - at);
        r.finish();
        return r.events + "|OK";
    } catch (const JsonStreamingParser::error& e) {
        return r.events + "|" + std::to_string(e.position()) + " " + e.what();
    }
}

std::string compact(const JsonDocument& doc) {
    AppendStr out;
    out << doc;
    Str s;
    append_stringified(&s, out);
    return s;
}

}  // namespace

extern "C" int LLVMFuzzerTestOneInput(const uint8_t* data, size_t size) {
    const char* text = reinterpret_cast<const char*>(data);
    for (bool strict : {false, true}) {
        const std::string whole = outcome(text, size, size ? size : 1, strict);
        const size_t pieces[] = {1, 7, size > 0 ? 1 + data[size - 1] % size : 1};
        for (size_t piece : pieces) FUZZ_CHECK(outcome(text, size, piece, strict) == whole);
    }

    JsonDocument doc;
    if (mem_parse_into(text, size, &doc)) {
        const std::string once = compact(doc);
        JsonDocument again;
        FUZZ_CHECK(mem_parse_into(once.data(), once.size(), &again));
        FUZZ_CHECK(compact(again) == once);

        AppendStr pretty;
        JsonPrettyPrinter printer(&pretty, 3);
        FUZZ_CHECK(mem_parse_into(text, size, static_cast<JsonStreamingParser*>(&printer)));
        Str indented;
        append_stringified(&indented, pretty);
        JsonDocument fromPretty;
        FUZZ_CHECK(mem_parse_into(indented.data(), indented.size(), &fromPretty));
        FUZZ_CHECK(compact(fromPretty) == once);

        AppendStr binary;
        doc.renderCborTo(&binary);
        FUZZ_CHECK(!binary.empty());
        Str crash;
        CrashLogWriteHandlerAppendToStr h(&crash);
        crashlog_write(h, doc);
        FUZZ_CHECK(!crash.empty());
    }

    Str decoded;
    mem_decode_json_string_into(&decoded, text, size);
    return 0;
}
