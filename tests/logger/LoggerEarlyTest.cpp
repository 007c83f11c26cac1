// Loggers before anything is set up: from static constructors, some of them
// running before the logger they use is constructed, and before the
// MainThread exists. This binary has no MainThread.

#include <unistd.h>

#include <cerrno>
#include <cstdlib>
#include <string>

#include <gtest/gtest.h>

#include "support/TestSupport.h"
#include "util/Logger.h"

extern Logger late;  // defined below the object that uses it first

namespace {

std::string early_capture;
int errno_after_early_calls = 0;

Logger early("Early");
LoggerSimple simple("Simple");

// Runs while this file's statics are being constructed: `late` still isn't.
struct EarlyCaller {
    EarlyCaller() {
        testing::internal::CaptureStderr();
        errno = 1234;
        early.warn("text %d", 1);
        early._stream_warn() << "stream " << 2;
        early.debug("debug is on: %m");
        late.info("from a logger not yet constructed");
        late._stream_error() << "its stream " << 3;
        early._stream_info();  // empty: nothing
        simple.info("a simple logger too");
        errno_after_early_calls = errno;
        early_capture = testing::internal::GetCapturedStderr();
    }
} early_caller;

}  // namespace

Logger late("Late");

namespace {

TEST(LoggerBeforeConfiguration, StaticConstructorsWriteToStandardError) {
    EXPECT_EQ(early_capture,
              "WARN - text 1\n"
              "WARN - stream 2\n"
              "DEBUG - debug is on: Unknown error 1234\n"
              "INFO - from a logger not yet constructed\n"
              "ERROR - its stream 3\n"
              "INFO - a simple logger too\n");
    EXPECT_EQ(errno_after_early_calls, 1234);
}

TEST(LoggerBeforeConfiguration, ConfiguredWithoutAMainThread) {
    testsupport::ScratchDir dir;
    testsupport::writeFile(dir / "log.cfg", "rootCategory=INFO, F\nappender.F.fileName=" +
                                                (dir / "f.log") + "\ncategory.Late=WARN\n");
    Logger::configuration conf;
    conf.path = dir / "log.cfg";
    ASSERT_TRUE(Logger::initialize(conf));
    errno = 5;
    early.info("format %d", 4);
    early._stream_info() << "stream " << 5;  // no Thread: a heap accumulator
    late.info("below the level");
    late.warn("late %s", "warns");
    EXPECT_EQ(errno, 5);
    EXPECT_EQ(testsupport::readFile(dir / "f.log"), "format 4\nstream 5\nlate warns\n");
}

}  // namespace
