// Configured logging, in a process that never starts a second thread, so
// that every case may configure the loggers afresh: configuration files and
// their errors, levels and inheritance, escaping, appenders with rollover,
// buffering, suspension and moved files, observers, streams and errno.

#include <fcntl.h>
#include <sys/stat.h>
#include <unistd.h>

#include <cerrno>
#include <functional>
#include <stdexcept>
#include <string>
#include <vector>

#include <gtest/gtest.h>

#include "support/TestSupport.h"
#include "support/TextMatch.h"
#include "util/BasicConversions.h"
#include "util/Logger.h"

namespace {

using testsupport::contains;
using testsupport::fileExists;
using testsupport::readFile;
using testsupport::ScratchDir;
using testsupport::writeFile;

const std::string kData = TARVEX_SOURCE_DIR "/tests/data/LoggerConfigTest/";

Logger channelLog("Test.Channel");
Logger otherLog("Other");
LoggerSimple simpleLog("Simple");

void logInfo(const std::string& text) { otherLog.infoSeg(text.data(), text.size()); }

// Standard error captured until text() or the end of the object.
struct StderrCapture {
    StderrCapture() { testing::internal::CaptureStderr(); }
    ~StderrCapture() { text(); }
    std::string text() {
        return std::exchange(_on, false) ? testing::internal::GetCapturedStderr() : "";
    }
    bool _on = true;
};

class LoggerConfig : public testing::Test {
protected:
    // Writes the configuration (with "@DIR@" standing for the scratch
    // directory), initialises, and gives what went to standard error.
    std::string configure(const std::string& text, Logger::configuration conf = {}) {
        writeFile(dir / "log.cfg", expand(text));
        conf.path = dir / "log.cfg";
        StderrCapture capture;
        Logger::initialize(conf);
        return capture.text();
    }
    std::string expand(std::string text) const {
        for (size_t at; (at = text.find("@DIR@")) != std::string::npos;) {
            text.replace(at, 5, dir.path());
        }
        return text;
    }
    std::string file(const std::string& name) const {
        return fileExists(dir / name) ? readFile(dir / name) : "<missing>";
    }

    ScratchDir dir;
};

// ---------------------------------------------------------------- configuration files

TEST_F(LoggerConfig, CategoriesAppendersCommentsAndOrder) {
    EXPECT_EQ(configure(readFile(kData + "comments-and-order.cfg")), "");

    channelLog.debug("debug %d", 1);
    otherLog.info("info is below WARN");
    otherLog.warn("warn %s", "too");
    EXPECT_EQ(file("a2.log"), "debug 1\n");
    EXPECT_EQ(file("a1.log"), "WARN Other: warn too\n");
    EXPECT_FALSE(fileExists(dir / "wrong.log"));
    ASSERT_NE(LogAppender::find("A3", false), nullptr);
    EXPECT_EQ(LogAppender::find("A3", false)->fileName(), dir / "a3.log");
    EXPECT_EQ(LogAppender::find("A4", false), nullptr);
}

TEST_F(LoggerConfig, BadLinesAreReportedWithFileAndLine) {
    // Numbered lines: the messages name them.
    const std::string err = configure(readFile(kData + "bad-lines.cfg"));
    const std::string cfg = dir / "log.cfg";
    EXPECT_TRUE(testsupport::containsInOrder(
        err, {"Invalid serialization='XML'", "Invalid escape='maybe'",
              cfg + ":2: Parse error at \"bogus line\"",
              cfg + ":3: Parse error at \"appender.A1.maxFileSize=012\"",
              cfg + ":5: Parse error at \"appender.A1.noSuchAttribute=1\"",
              cfg + ":6: Parse error at \"appender.A1.fileName\"",
              cfg + ":7: Parse error at \"appender.A1.serialization=XML\"",
              cfg + ":8: Parse error at \"appender.A1.escape=maybe\"",
              cfg + ":11: Unterminated XML comment started",
              // Categories are applied once both files are read.
              cfg + ":9: Parse error at \"Other=NOTALEVEL\""}));
    EXPECT_FALSE(contains(err, ":4:")) << "\"0\" is a valid size";
    EXPECT_FALSE(contains(err, ":10:"));
    EXPECT_EQ(LogAppender::find("A1", false)->maxFileSize(), 0);
}

TEST_F(LoggerConfig, MissingFileIsAnErrorAndLoggersStillWork) {
    Logger::configuration conf;
    conf.path = dir / "absent.cfg";
    StderrCapture capture;
    EXPECT_FALSE(Logger::initialize(conf));
    otherLog.info("still here");
    const std::string err = capture.text();
    EXPECT_TRUE(contains(err, "Couldn't open log file configuration \"" + conf.path +
                                  "\": No such file or directory\n"));
    EXPECT_TRUE(contains(err, "still here\n"));
    EXPECT_TRUE(Logger::isInitialized());
}

TEST_F(LoggerConfig, LocalOverrideComesLater) {
    writeFile(dir / "log-local.cfg",
              expand("category.Other=ERROR\nappender.A1.fileName=@DIR@/local.log\n"));
    configure(
        "rootCategory=DEBUG, A1\ncategory.Other=DEBUG\nappender.A1.fileName=@DIR@/main.log\n");
    otherLog.warn("dropped");
    otherLog.error("kept");
    channelLog.debug("root level");
    EXPECT_EQ(file("local.log"), "kept\nroot level\n");
    EXPECT_FALSE(fileExists(dir / "main.log")) << "the override came before any open";

    // A leaf without a dot, or with one only at its start, gets "-local" at the end.
    for (const std::string leaf : {"logcfg", ".logcfg"}) {
        writeFile(dir / leaf, "rootCategory=INFO\n");
        writeFile(dir / (leaf + "-local"), "category.Other=FATAL\n");
        Logger::configuration conf;
        conf.path = dir / leaf;
        ASSERT_TRUE(Logger::initialize(conf));
        EXPECT_EQ(otherLog.getLogLevel(), 5) << leaf;
    }
}

TEST_F(LoggerConfig, SectionsSelectLines) {
    const std::string text =
        "category.Before=WARN\n[ other ]\ncategory.Other=ERROR\n[Mine] \n"
        "category.Test.Channel=DEBUG\n";
    Logger::configuration conf;
    conf.section = "mine";
    configure(text, conf);
    EXPECT_EQ(LogChannel::findOrCreate("Before")->level(), LOG_LEVEL_WARN);
    EXPECT_EQ(otherLog.channel()->level(), LOG_LEVEL_INFO);
    EXPECT_EQ(channelLog.channel()->level(), LOG_LEVEL_DEBUG);

    configure(text);  // no section: nothing after the first header counts
    EXPECT_EQ(LogChannel::findOrCreate("Before")->level(), LOG_LEVEL_WARN);
    EXPECT_EQ(channelLog.channel()->level(), LOG_LEVEL_INFO);
}

// ---------------------------------------------------------------- levels

TEST_F(LoggerConfig, LevelsAndInheritance) {
    configure(
        "rootCategory=INFO, A1\nappender.A1.fileName=@DIR@/a.log\ncategory.Test.Channel=WARN\n"
        "category.B=DEBUG, buffered\n");
    struct Collect : iterate_channels_callback {
        std::string seen;
        void channel(const Str& name, const char* level, bool buffered) override {
            if (name == "B" || name == "Test.Channel") {
                seen += name + "=" + level + (buffered ? "+b " : " ");
            }
        }
    } c;
    Logger::iterateChannels(c);
    EXPECT_EQ(c.seen, "B=DEBUG+b Test.Channel=WARN ");
    StrSegment old;
    EXPECT_TRUE(Logger::setChannelLevel("Other", "ERROR", &old));
    EXPECT_EQ(Str(old), "INFO");
    EXPECT_FALSE(Logger::setChannelLevel("Other", "LOUD", nullptr));
    EXPECT_EQ(otherLog.channel()->level(), LOG_LEVEL_ERROR) << "a bad level changes nothing";

    // Channels without an explicit level follow a change of all.
    Logger late("Late.Made");  // after initialisation: a copy of the root channel
    EXPECT_EQ(late.channel()->level(), LOG_LEVEL_INFO);
    late.info("inherited the appender");
    EXPECT_EQ(file("a.log"), "inherited the appender\n");
    EXPECT_TRUE(Logger::setChannelLevel(nullptr, "DEBUG", nullptr));
    EXPECT_EQ(late.channel()->level(), LOG_LEVEL_DEBUG);
    EXPECT_FALSE(late.channel()->isExplicit());
    EXPECT_EQ(channelLog.channel()->level(), LOG_LEVEL_WARN) << "explicit in the file";
    EXPECT_EQ(otherLog.channel()->level(), LOG_LEVEL_ERROR) << "explicit by setChannelLevel";

    // Redirected, a channel writes to the root appender.
    StderrCapture capture;
    Logger::redirectToStderr("Test.Channel");
    channelLog.error("to stderr");
    EXPECT_EQ(capture.text(), "to stderr\n");
}

// ---------------------------------------------------------------- escaping

TEST_F(LoggerConfig, EscapingOfMessages) {
    configure(
        "rootCategory=INFO, FULL, LINES\nappender.FULL.fileName=@DIR@/full.log\n"
        "appender.LINES.fileName=@DIR@/lines.log\nappender.LINES.escape=false\n");
    const std::string msg = "tab\tnl\ncr\rctl\x01\x7f utf8 \xc3\xa9";
    logInfo(msg);
    // The first appender decides the escaped form for all of them.
    EXPECT_EQ(file("full.log"), "tab\tnl\\ncr\\rctl\\x01\\x7f utf8 \\xc3\\xa9\n");
    EXPECT_EQ(file("lines.log"), file("full.log"));

    configure(
        "rootCategory=INFO, LINES\nappender.LINES.fileName=@DIR@/lines2.log\n"
        "appender.LINES.escape=no\n");
    logInfo(msg);
    EXPECT_EQ(file("lines2.log"), "tab\tnl\\ncr\\rctl\x01\x7f utf8 \xc3\xa9\n");

    // Unlike Str::makeSafeForLogging, UTF-8 is escaped too.
    StderrCapture capture;
    simpleLog.info("%s", msg.c_str());  // a LoggerSimple escapes nothing
    EXPECT_EQ(capture.text(), msg + "\n");
}

// ---------------------------------------------------------------- appenders

TEST_F(LoggerConfig, RolloverPastTheLimitShiftsBackupsUpToTheFirstGap) {
    writeFile(dir / "f.1", "one\n");
    writeFile(dir / "f.2", "two\n");
    configure(
        "rootCategory=INFO, R\nappender.R.fileName=@DIR@/f\nappender.R.maxFileSize=10\n"
        "appender.R.maxBackupIndex=2\n");
    logInfo(std::string(8, 'a'));  // 9 bytes with its LF
    logInfo("");                   // to exactly 10: not over the limit
    EXPECT_EQ(file("f").size(), 10u);
    EXPECT_EQ(file("f.1"), "one\n");
    logInfo("b");  // 12: over
    EXPECT_EQ(file("f.1"), std::string(8, 'a') + "\n\nb\n");
    EXPECT_EQ(file("f.2"), "one\n") << "the oldest went, the rest moved up";
    EXPECT_FALSE(fileExists(dir / "f.3"));
    EXPECT_EQ(file("f"), "");
    otherLog.info("next");
    EXPECT_EQ(file("f"), "next\n");
    EXPECT_EQ(LogAppender::find("R", false)->fileSize(), 5u);

    testsupport::removeTree(dir / "f.1");
    writeFile(dir / "f.2", "stays\n");
    otherLog.info("abcdef");
    EXPECT_EQ(file("f.1"), "next\nabcdef\n");
    EXPECT_EQ(file("f.2"), "stays\n") << "a gap stops the shift";

    configure("rootCategory=INFO, Z\nappender.Z.fileName=@DIR@/z\nappender.Z.maxFileSize=5\n");
    otherLog.info("restart me");
    EXPECT_EQ(file("z"), "") << "no backups: deleted and started again";
    EXPECT_FALSE(fileExists(dir / "z.1"));
}

TEST_F(LoggerConfig, FinalSetupWarnings) {
    const std::string err = configure(
        "rootCategory=INFO, S\nappender.S = an appender with no attributes\n"
        "appender.S.maxFileSize=100\nappender.S.maxBackupIndex=3\n"
        "appender.F.fileName=@DIR@/f.log\nappender.F.maxBackupIndex=3\n");
    for (const char* warning :
         {"Appender \"S\" has no filename, assuming stderr",
          "Appender \"S\" has maxBackupIndex set without specifying a filename, ignoring",
          "Appender \"S\" has maxFileSize set without specifying a filename, ignoring",
          "Appender \"F\" has maxBackupIndex set without specifying maxFileSize, ignoring"}) {
        EXPECT_TRUE(contains(err, warning));
    }
    EXPECT_EQ(LogAppender::find("F", false)->maxBackupIndex(), 0u);
    EXPECT_TRUE(fileExists(dir / "f.log")) << "opened once at set-up";
    EXPECT_EQ(LogAppender::find("S", false)->fd(), STDERR_FILENO);
}

TEST_F(LoggerConfig, MovedFileIsNoticedWithinFiveSeconds) {
    configure("rootCategory=INFO, M\nappender.M.fileName=@DIR@/m.log\n");
    LogAppender* m = LogAppender::find("M", false);
    LogMsgMetadata md{CurrentTimeval(), &otherLog, LOG_LEVEL_INFO};
    m->write(md, "first", nullptr, false);
    ASSERT_EQ(rename((dir / "m.log").c_str(), (dir / "m.log.old").c_str()), 0);
    md.time.addSec(5);
    m->write(md, "within five seconds", nullptr, false);
    EXPECT_FALSE(fileExists(dir / "m.log"));
    md.time.addSec(1);
    m->write(md, "after six", nullptr, false);
    EXPECT_EQ(file("m.log.old"), "first\nwithin five seconds\n");
    EXPECT_EQ(file("m.log"), "after six\n");
}

TEST_F(LoggerConfig, UnwritablePathIsReportedOnceThenRecovers) {
    const std::string err =
        configure("rootCategory=DEBUG, U\nappender.U.fileName=@DIR@/later/u.log\n");
    StderrCapture capture;
    otherLog.info("lost one");
    otherLog.info("lost two");
    ASSERT_EQ(mkdir((dir / "later").c_str(), 0755), 0);
    otherLog.info("found");
    const std::string all = err + capture.text();
    const std::string failed = "Failed opening \"" + dir / "later/u.log" + "\": No such file";
    const size_t first = all.find(failed);
    ASSERT_NE(first, std::string::npos) << all;
    EXPECT_EQ(all.find(failed, first + 1), std::string::npos) << "said once\n" << all;
    EXPECT_TRUE(contains(all, "Successfully opened \"" + dir / "later/u.log" + "\" now."));
    EXPECT_EQ(file("later/u.log"), "found\n");
}

TEST_F(LoggerConfig, BufferedChannelsWriteByTheBufferful) {
    configure(
        "rootCategory=INFO\ncategory.Other=INFO, B, buffered\nappender.B.fileName=@DIR@/b.log\n"
        "appender.B.bufferSize=1kib\n");
    LogAppender* b = LogAppender::find("B", false);
    EXPECT_EQ(b->bufferSize(), 1024u);
    const std::string line(99, 'x');  // 100 bytes a line
    for (int i = 0; i < 10; ++i) logInfo(line);
    EXPECT_EQ(file("b.log"), "");
    EXPECT_EQ(b->bufferedBytes(), 1000u);
    logInfo(line);
    EXPECT_EQ(file("b.log").size(), 1100u);
    otherLog.info("held");
    Logger::releaseLoggerFds();  // writes out, closes, back to defaults
    EXPECT_EQ(file("b.log").size(), 1105u);
    EXPECT_EQ(b->fd(), -1);
    EXPECT_EQ(b->bufferSize(), LogAppender::DEFAULT_BUFFER_SIZE);
    otherLog.info("reopened");
    EXPECT_EQ(file("b.log").size(), 1105u) << "still buffered by the channel";
    b->flush();
    EXPECT_EQ(file("b.log").size(), 1114u);
}

TEST_F(LoggerConfig, SuspendedWhileTheVolumeIsAway) {
    Logger::configuration conf;
    conf.replacements["@VOL@"] = dir.path();
    configure("rootCategory=INFO, V\nappender.V.fileName=@VOL@/v.log\n", conf);
    LogAppender* v = LogAppender::find("V", false);
    EXPECT_TRUE(v->isSuspended()) << "a placeholder path waits for unsuspend";
    EXPECT_EQ(v->configuredName(), "@VOL@/v.log");
    otherLog.info("dropped");
    EXPECT_FALSE(fileExists(dir / "v.log"));

    Logger::unsuspend(conf.replacements);
    otherLog.info("written");
    EXPECT_EQ(file("v.log"), "written\n");

    Logger::suspendChannelsContaining("@VOL@");
    EXPECT_TRUE(v->dropsAll());
    otherLog.info("dropped again");
    ASSERT_EQ(mkdir((dir / "elsewhere").c_str(), 0755), 0);
    Logger::unsuspend({{"@VOL@", dir / "elsewhere"}});
    otherLog.info("moved");
    EXPECT_EQ(file("v.log"), "written\n");
    EXPECT_EQ(file("elsewhere/v.log"), "moved\n");
}

TEST_F(LoggerConfig, RestrictedConfigurationsOnlyRaiseLimits) {
    Logger::configuration conf;
    conf.attributeMask =
        (1u << LogAppender::ATTR_MAX_FILE_SIZE) | (1u << LogAppender::ATTR_FILE_NAME);
    EXPECT_EQ(configure("rootCategory=INFO, L\nappender.L.fileName=@DIR@/l.log\n"
                        "appender.L.maxFileSize=5000\nappender.L.maxFileSize=4000\n"
                        "appender.L.maxMessageSize=100\n",
                        conf),
              "");
    const std::string log = file("l.log");  // the configured appenders hear of it
    EXPECT_TRUE(contains(log, ":4: Parse error"));
    EXPECT_TRUE(contains(log, ":5: Parse error")) << "masked off";
    LogAppender* l = LogAppender::find("L", false);
    EXPECT_EQ(l->maxFileSize(), 5000);
    EXPECT_TRUE(conf.setAppenderAttribute("L", "maxFileSize", "6000"));
    EXPECT_FALSE(conf.setAppenderAttribute("L", "maxFileSize", "10"));
    EXPECT_FALSE(conf.setAppenderAttribute("nobody", "maxFileSize", "10"));
    EXPECT_EQ(l->maxFileSize(), 6000);
}

TEST_F(LoggerConfig, StandardErrorCanBeForbidden) {
    Logger::configuration conf;
    conf.stderrAllowed = false;
    EXPECT_EQ(configure("rootCategory=INFO, S\nappender.S.layout=SimpleLayout\nbad line\n"
                        "category.Test.Channel=ERROR\n",
                        conf),
              "");
    StderrCapture capture;
    otherLog.error("nowhere");
    Logger::redirectToStderr("Test.Channel");
    channelLog.error("not even through the root appender");
    EXPECT_TRUE(LogAppender::find("S", false)->dropsAll());
    EXPECT_EQ(capture.text(), "");
}

// ---------------------------------------------------------------- calls

struct Seen : LogObserver {
    std::vector<std::string> lines;
    void observe(const Str& line) override { lines.push_back(line); }
};

TEST_F(LoggerConfig, ObserversSeeEachLineOnce) {
    configure(
        "rootCategory=INFO, O1, O2\nappender.O1.fileName=@DIR@/o1.log\n"
        "appender.O2.fileName=@DIR@/o2.log\nappender.O2.layout=SimpleLayout\n");
    Seen seen;
    {
        ScopedLogObserverRegistration reg(&otherLog, &seen);
        ScopedLogObserverRegistration moved(std::move(reg));
        otherLog.warn("one");
        otherLog.debug("below the level");
    }
    otherLog.warn("after");
    EXPECT_EQ(seen.lines, std::vector<std::string>{"one\n"});
    EXPECT_EQ(file("o2.log"), "WARN    : one\nWARN    : after\n");
}

struct LogsWhileStringified {
    const Logger* log;
};
void append_stringified(Str* dest, const LogsWhileStringified& v) {
    v.log->info("inner %d", 1);
    dest->append("value");
}

TEST_F(LoggerConfig, StreamsAndTheirEdgesAndRepeats) {
    configure("rootCategory=DEBUG, S\nappender.S.fileName=@DIR@/s.log\n");
    otherLog._stream_info() << "n=" << 42 << " d=" << 1.5 << " s=" << Str("str");
    otherLog._stream_warn();  // empty: nothing
    otherLog._stream_error() << "outer " << LogsWhileStringified{&otherLog} << " done";
    Logger::setChannelLevel("Other", "INFO", nullptr);
    bool rendered = false;
    otherLog._stream_debug() << (rendered = true);
    EXPECT_TRUE(rendered) << "arguments are evaluated, but the stream is null";
    try {
        otherLog._stream_info() << "partial" << [] {
            throw std::runtime_error("midway");
            return 0;
        }();
    } catch (const std::runtime_error&) {}
    otherLog.info("after the exception");
    // Repeats are held back and counted.
    Logger dedup("Dedup", true, 60, 3);
    for (int i = 0; i < 5; ++i) dedup.info("same");
    dedup.flushDedup();
    dedup.info("other");
    dedup.info("same");
    EXPECT_EQ(file("s.log"),
              "n=42 d=1.5 s=str\ninner 1\nouter value done\nafter the exception\nsame\n"
              "last message repeated 3 times\nlast message repeated 1 times\nother\nsame\n");
}

TEST_F(LoggerConfig, OtherCallForms) {
    configure(
        "rootCategory=DEBUG, S\nappender.S.fileName=@DIR@/s.log\nappender.S.layout=SimpleLayout\n");
    otherLog.debugSplitLines("a\r\nb\n\nc", 7);
    otherLog.error(std::runtime_error("what it said"));
    struct Bracket : LogFormatCallback {
        void beforeFormat(Str& m) override { m.append("<"); }
        void afterFormat(Str& m) override { m.append(">"); }
    } bracket;
    auto vcall = [&](const char* fmt, ...) {
        va_list args;
        va_start(args, fmt);
        otherLog.vwarn(&bracket, fmt, args);
        va_end(args);
    };
    vcall("%s %d", "v", 7);
    const unsigned char bytes[] = {0x00, 0x41, 0xff};
    HexDumper::dumpTo(&otherLog, bytes, sizeof bytes);
    Logger::setChannelLevel("Other", "INFO", nullptr);
    otherLog.debugSplitLines("never\n", 6);
    Str dump;
    HexDumper::dumpTo(&dump, bytes, sizeof bytes);
    const size_t lf = dump.find('\n');
    ASSERT_NE(lf, Str::npos);
    EXPECT_EQ(file("s.log"),
              "DEBUG   : a\nDEBUG   : b\nDEBUG   : c\nERROR   : what it said\n"
              "WARN    : <v 7>\nDEBUG   : " +
                  dump.substr(0, lf + 1) + "DEBUG   : 00000003\n");
}

TEST_F(LoggerConfig, ErrnoIsUnchangedByEveryCall) {
    // Every write fails to open.
    configure("rootCategory=INFO, E\nappender.E.fileName=@DIR@/nodir/e.log\n");
    StderrCapture capture;
    const std::pair<const char*, std::function<void()>> calls[] = {
        {"enabled", [] { otherLog.error("failing %m"); }},
        {"disabled", [] { otherLog.debug("off"); }},
        {"segment", [] { otherLog.warnSeg("seg", 3); }},
        {"stream", [] { otherLog._stream_error() << "stream"; }},
        {"exception", [] { otherLog.error(std::runtime_error("e")); }},
        {"simple", [] { simpleLog.info("simple"); }},
        {"internal", [] { LogFormat::internal(nullptr, LOG_LEVEL_ERROR, "internal %m"); }},
    };
    for (const auto& [what, call] : calls) {
        errno = 1234;
        call();
        EXPECT_EQ(errno, 1234) << what;
    }
    EXPECT_TRUE(contains(capture.text(), "Unknown error 1234")) << "%m is the caller's errno";
}

TEST_F(LoggerConfig, FailingAppendersDoNotReportEachOtherForEver) {
    // /dev/full opens, and every write to it fails with ENOSPC.
    configure(
        "rootCategory=INFO, A, B\nappender.A.fileName=/dev/full\nappender.B.fileName=/dev/full\n");
    // An observer on the logging system's own channel: its reports must not
    // wait for the channel lock that the failing write was made under.
    Logger self("Logger");
    Seen seen;
    ScopedLogObserverRegistration reg(&self, &seen);
    StderrCapture capture;
    otherLog.info("into a full disk");
    self.info("and from the logging system's channel");
    EXPECT_TRUE(
        contains(capture.text(), "Error writing to \"/dev/full\": No space left on device"));
    EXPECT_FALSE(seen.lines.empty());
}

TEST_F(LoggerConfig, RootAppenderGoesBackToStandardErrorWhenReconfigured) {
    configure("appender.rootAppender.fileName=@DIR@/root.log\n");
    otherLog.info("to the root file");
    EXPECT_EQ(file("root.log"), "to the root file\n");
    configure("rootCategory=INFO\n");
    StderrCapture capture;
    otherLog.info("to standard error");
    EXPECT_EQ(capture.text(), "to standard error\n");
    EXPECT_EQ(file("root.log"), "to the root file\n");
}

}  // namespace
