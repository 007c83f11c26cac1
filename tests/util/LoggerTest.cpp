// The logger's format helpers, exceptions that format their messages, and
// layouts: patterns, widths, JSON lines, times and the trimming of long
// messages. Nothing here needs a configured logger.

#include "util/Logger.h"

#include <gtest/gtest.h>

#include <time.h>

#include <cerrno>
#include <string>

namespace {

TEST(LoggerFormat, PercentMIsTheGivenErrorNumber) {
    errno = EINTR;
    EXPECT_EQ(Logger::fromFormat(ENOENT, "open: %m"), "open: No such file or directory");
    EXPECT_EQ(Logger::fromFormat("now: %m"), "now: Interrupted system call");
    EXPECT_EQ(errno, EINTR);

    Str s("stale");
    Logger::format(s, EACCES, "%s: %m", "x");
    EXPECT_EQ(s, "x: Permission denied") << "format replaces";
}

class FileError : public BaseException {
public:
    FileError(int errnum, const char* fmt, ...) {
        va_list args;
        va_start(args, fmt);
        vformat(errnum, "FileError: ", fmt, args);
        va_end(args);
    }
};

TEST(BaseExceptionFormat, PrefixAndErrorNumber) {
    EXPECT_STREQ(FileError(ENOENT, "cannot open %s: %m", "/etc/x").what(),
                 "FileError: cannot open /etc/x: No such file or directory");
}

// ---------------------------------------------------------------- layouts

LoggerSimple layoutLogger("abcdef");
LoggerSimple shortLogger("a");

std::string render(const char* pattern, const Logger* logger, int level, const std::string& msg,
                   LogFormat::eSerialization ser = LogFormat::SERIALIZATION_NORMAL,
                   unsigned long maxMessageSize = 16384) {
    LogFormat f(pattern);
    LogMsgMetadata md{CurrentTimeval(), logger, level};
    Str out;
    f.apply(&out, md, ser, maxMessageSize, StrSegment(msg));
    return out;
}

TEST(LogLayout, WidthsAlignmentAndLiterals) {
    EXPECT_EQ(render("%-8p: %m%n", &layoutLogger, LOG_LEVEL_WARN, "text"), "WARN    : text\n");
    EXPECT_EQ(render("%5.2c|", &layoutLogger, LOG_LEVEL_INFO, ""), "ab|") << "cut, not padded";
    EXPECT_EQ(render("%5.2c|", &shortLogger, LOG_LEVEL_INFO, ""), "    a|");
    EXPECT_EQ(render("%-5c|%05p|", &shortLogger, LOG_LEVEL_INFO, ""), "a    |0INFO|");
    EXPECT_EQ(render("100%% %m", &shortLogger, LOG_LEVEL_INFO, "x"), "100% x");
    EXPECT_EQ(render("[%q%m]", &shortLogger, LOG_LEVEL_INFO, "x"), "[x]") << "unknown letters drop";
    EXPECT_EQ(render("%m %d{never", &shortLogger, LOG_LEVEL_INFO, "x"), "x ")
        << "an unterminated brace ends the pattern";
    EXPECT_EQ(render("%3.p|", &shortLogger, LOG_LEVEL_ERROR, ""), "ERROR|")
        << "a dot without digits sets no maximum";
    EXPECT_EQ(render("%p", &shortLogger, 42, ""), "???");
    EXPECT_EQ(render("%c", nullptr, LOG_LEVEL_INFO, ""), "");
    EXPECT_EQ(render("%99999999999999999999p", &shortLogger, LOG_LEVEL_INFO, "").size(), 65535u)
        << "a minimum width saturates";
    EXPECT_EQ(render("%.100000m", &shortLogger, LOG_LEVEL_INFO, std::string(70000, 'm')).size(),
              70000u)
        << "a maximum width stays as written";
}

TEST(LogLayout, JsonLineIsOneObject) {
    const std::string line = render("%d %p %c %m%n", &shortLogger, LOG_LEVEL_INFO, "[1,2]",
                                    LogFormat::SERIALIZATION_JSON);
    const std::string head = "{\"datetime\":\"";
    ASSERT_EQ(line.compare(0, head.size(), head), 0) << line;
    const std::string tail = "\",\"log_level\":\"INFO\",\"component\":\"a\",\"data\":[1,2]}\n";
    ASSERT_GT(line.size(), head.size() + tail.size());
    EXPECT_EQ(line.substr(line.size() - tail.size()), tail) << line;
    // "YYYY-MM-DD HH:MM:SS,mmm" in between.
    EXPECT_EQ(line.size() - head.size() - tail.size(), 23u) << line;
}

TEST(LogLayout, TimesMatchStrftime) {
    LogFormat f("%d{%Y-%m-%d %H:%M:%S %j %a %b}|%d{ABSOLUTE}|%d{DATE}|%d{%Q}");
    LogMsgMetadata md{CurrentTimeval(), &shortLogger, LOG_LEVEL_INFO};
    md.time = Timeval(1700000000, 123456);
    Str out;
    f.apply(&out, md, LogFormat::SERIALIZATION_NORMAL, 16384, StrSegment());
    const time_t t = 1700000000;
    struct tm tm;
    localtime_r(&t, &tm);
    char a[64], b[64], c[64], d[64];
    strftime(a, sizeof a, "%Y-%m-%d %H:%M:%S %j %a %b", &tm);
    strftime(b, sizeof b, "%H:%M:%S,123", &tm);
    strftime(c, sizeof c, "%d %b %Y %H:%M:%S,123", &tm);
    strftime(d, sizeof d, "%Y-%m-%d %H:%M:%S,123", &tm);
    EXPECT_EQ(out, std::string(a) + "|" + b + "|" + c + "|" + d)
        << "an unknown conversion falls back to ISO 8601";
}

// A thread renders a format's second once: later lines of that second patch
// only their milliseconds; another format or another second in between never
// lends its text, and a copy of a format renders as the format does.
TEST(LogLayout, TimesWithinOneSecondKeepTheirOwnMilliseconds) {
    const LogFormattedTime iso(StrSegment("ISO8601"));
    const LogFormattedTime twice(StrSegment("%l.%S.%l"));
    const LogFormattedTime copy = twice;
    auto render = [](const LogFormattedTime& f, int64_t sec, long usec) {
        Str s("> ");
        f.renderTo(&s, Timeval(sec, usec));
        return std::string(s);
    };
    const time_t t = 1700000000;
    struct tm tm;
    localtime_r(&t, &tm);
    char isoSecond[64];
    strftime(isoSecond, sizeof isoSecond, "%Y-%m-%d %H:%M:%S", &tm);
    const struct {
        const LogFormattedTime* f;
        int64_t sec;
        long usec;
        std::string want;
    } steps[] = {
        {&iso, t, 7000, std::string("> ") + isoSecond + ",007"},
        {&iso, t, 999999, std::string("> ") + isoSecond + ",999"},
        {&twice, t, 5000, "> 005.20.005"},
        {&copy, t, 42000, "> 042.20.042"},
        {&twice, t + 1, 1000, "> 001.21.001"},
        {&twice, t, 123456, "> 123.20.123"},
        {&iso, t, 0, std::string("> ") + isoSecond + ",000"},
    };
    for (const auto& s : steps) {
        EXPECT_EQ(render(*s.f, s.sec, s.usec), s.want) << s.f->format() << " " << s.usec;
    }
}

TEST(LogLayout, BrokenAtomsShowInPlaceOfTheLine) {
    LogFormat f("%m");
    const_cast<std::vector<LogFormat::Atom>&>(f.atoms())[0].kind = 99;
    LogMsgMetadata md{CurrentTimeval(), &shortLogger, LOG_LEVEL_INFO};
    Str out("kept|");
    f.apply(&out, md, LogFormat::SERIALIZATION_NORMAL, 16384, StrSegment("x"));
    EXPECT_EQ(out, "kept|_atoms array invalid!");
}

// ---------------------------------------------------------------- trimming

TEST(LogTrimming, ExactlyTrimToBytesWithTheSkippedCount) {
    std::string text;
    for (int i = 0; i < 5000; ++i) text.push_back(static_cast<char>('a' + i % 26));
    for (size_t trimTo : {45u, 60u, 99u, 100u, 101u, 200u, 2048u}) {
        for (size_t size : {trimTo + 1, trimTo + 9, trimTo + 95, size_t{5000}}) {
            Str out;
            LogFormat::renderTrimmedTo(&out, text.data(), size, trimTo);
            ASSERT_EQ(out.size(), trimTo) << trimTo << " of " << size;
            const size_t open = out.find(" ...{skipping ");
            ASSERT_NE(open, Str::npos) << out;
            const size_t digits = open + 14;
            const size_t skipped = std::stoul(out.substr(digits));
            const size_t close = out.find(" bytes}", digits);
            ASSERT_NE(close, Str::npos) << out;
            const bool shortRoom = out.find("}... ", close) == Str::npos;
            const size_t kept = out.size() - (close + 7 + (shortRoom ? 0 : 4) - open);
            // The head is the start of the text, the tail its end.
            EXPECT_EQ(out.substr(0, open), text.substr(0, open));
            const size_t tail = kept - open;
            EXPECT_EQ(out.substr(out.size() - tail), text.substr(size - tail, tail));
            if (shortRoom) {
                EXPECT_EQ(tail, 0u) << "under 64 bytes of room all goes to the head";
                // The count was made for the whole marker, whose last 4
                // bytes went to the head.
                EXPECT_EQ(skipped, size - kept + 4) << out;
            } else {
                EXPECT_EQ(skipped, size - kept) << out;
                EXPECT_EQ(tail, (trimTo - (close + 11 - open)) / 4) << out;
            }
        }
    }
}

TEST(LogTrimming, HeadNeverEndsInHalfAnEscape) {
    std::string text(300, 'x');
    Str probe;
    LogFormat::renderTrimmedTo(&probe, text.data(), text.size(), 200);
    const size_t head = probe.find(" ...{");
    text[head - 1] = '\\';
    text[head - 2] = '\\';
    Str out;
    LogFormat::renderTrimmedTo(&out, text.data(), text.size(), 200);
    EXPECT_EQ(out.size(), 198u);
    EXPECT_EQ(out.find(" ...{"), head - 2);
    EXPECT_EQ(out.find('\\'), Str::npos);
}

TEST(LogTrimming, LongMessagesPerLoggerKind) {
    std::string msg(20000, 'm');
    msg.replace(0, 5, "START");
    msg.replace(msg.size() - 3, 3, "END");
    Logger limited("Trim.Limited");
    const std::string trimmed = render("%m", &limited, LOG_LEVEL_INFO, msg);
    EXPECT_EQ(trimmed.size(), 2048u);
    EXPECT_EQ(trimmed.substr(0, 5), "START");
    EXPECT_EQ(trimmed.substr(trimmed.size() - 3), "END");
    EXPECT_NE(trimmed.find(" ...{skipping 17982 bytes}... "), std::string::npos) << trimmed;

    EXPECT_EQ(render("%m", &shortLogger, LOG_LEVEL_INFO, msg), msg) << "LoggerSimple keeps all";
    EXPECT_EQ(render("%m", &limited, LOG_LEVEL_INFO, std::string(16384, 'k')).size(), 16384u);
    EXPECT_EQ(render("%m", &limited, LOG_LEVEL_INFO, std::string(700, 'k'), {}, 500).size(), 100u)
        << "a maximum under 800 trims to 100";
    EXPECT_EQ(render("%.44m", &limited, LOG_LEVEL_INFO, std::string(50, 'k')), std::string(44, 'k'))
        << "a narrow maximum width simply cuts";
    EXPECT_EQ(render("%.45m", &limited, LOG_LEVEL_INFO, std::string(50, 'k')).size(), 45u);
}

}  // namespace
