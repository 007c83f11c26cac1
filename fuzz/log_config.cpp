// The logger's configuration files and layout patterns on arbitrary bytes.
// File names are masked off, so that an input can't create files.
#include <sys/mman.h>
#include <unistd.h>

#include <cstdint>
#include <cstring>
#include <string>

#include "FuzzCheck.h"
#include "util/Logger.h"

namespace {
Logger fuzzed("Fuzz.Channel");

struct LevelCheck : iterate_channels_callback {
    void channel(const Str& name, const char* level, bool) override {
        FUZZ_CHECK(!name.empty());
        FUZZ_CHECK(logLevelFromText(level) >= 0);
    }
};
}  // namespace

extern "C" int LLVMFuzzerTestOneInput(const uint8_t* data, size_t size) {
    const char* text = reinterpret_cast<const char*>(data);
    const int fd = memfd_create("log.cfg", 0);
    if (fd < 0) return 0;
    if (write(fd, text, size) != static_cast<ssize_t>(size)) {
        close(fd);
        return 0;
    }
    Logger::configuration conf;
    conf.path = Str("/proc/self/fd/") + std::to_string(fd);
    conf.attributeMask =
        Logger::configuration::ALL_ATTRIBUTES & ~(1u << LogAppender::ATTR_FILE_NAME);
    conf.stderrAllowed = false;
    conf.section = "main";
    FUZZ_CHECK(Logger::initialize(conf));
    close(fd);
    LevelCheck check;
    Logger::iterateChannels(check);
    fuzzed.info("after %zu bytes", size);

    // The same bytes as a layout: rendering never fails, and a pattern
    // without "%" is its own output.
    const std::string pattern(text, strnlen(text, size));
    LogFormat format(pattern.c_str());
    LogMsgMetadata md{CurrentTimeval(), &fuzzed, LOG_LEVEL_WARN};
    for (auto ser : {LogFormat::SERIALIZATION_NORMAL, LogFormat::SERIALIZATION_JSON}) {
        Str out;
        format.apply(&out, md, ser, 50, StrSegment(text, size));
        if (ser == LogFormat::SERIALIZATION_NORMAL && pattern.find('%') == std::string::npos) {
            FUZZ_CHECK(out == pattern);
        }
    }
    return 0;
}
