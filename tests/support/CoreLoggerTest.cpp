#include "velmora/support/CoreLogger.h"

#include <gtest/gtest.h>

#include <atomic>
#include <regex>
#include <thread>

#include "tests/support/LibraryTest.h"

namespace velmora::testing {
namespace {

class CoreLoggerTest : public LibraryTest {
  protected:
    // What one message at each level leaves in the log, at the given threshold.
    std::vector<std::string> linesAt(LogLevel threshold) {
        logs->clear();
        CoreLogger::setLogLevel(threshold);
        CoreLogger::error("e");
        CoreLogger::warn("w");
        CoreLogger::info("i");
        CoreLogger::debug("d");
        CoreLogger::verbose("v");
        return logs->lines();
    }
};

TEST_F(CoreLoggerTest, TheSwitchAndTheThresholdDecideWhatIsEmittedAndWhetherTheLoggingBlockRuns) {
    CoreLogger::setEnabled(false);
    EXPECT_TRUE(linesAt(LogLevel::verbose).empty()) << "nothing is logged while disabled, whatever the level";
    EXPECT_TRUE(linesAt(LogLevel::error).empty());

    CoreLogger::setEnabled(true);
    EXPECT_EQ(linesAt(LogLevel::debug),
              (std::vector<std::string>{"[ERROR]: e", "[WARNING]: w", "[INFO]: i", "[DEBUG]: d"}));
    EXPECT_EQ(logs->levels(),
              (std::vector<LogLevel>{LogLevel::error, LogLevel::warn, LogLevel::info, LogLevel::debug}))
        << "the host's sink gets each line's level as a value";
    EXPECT_EQ(linesAt(LogLevel::error), (std::vector<std::string>{"[ERROR]: e"}));
    EXPECT_EQ(linesAt(LogLevel::verbose).back(), "[VERBOSE]: v");
    EXPECT_EQ(logs->levels().back(), LogLevel::verbose);

    // The logging block runs only when its level would be emitted.
    int ran = 0;
    CoreLogger::setLogLevel(LogLevel::debug);
    CoreLogger::log(LogLevel::verbose, [&] { ++ran; });
    CoreLogger::log(LogLevel::debug, [&] { ++ran; });
    CoreLogger::setEnabled(false);
    CoreLogger::log(LogLevel::error, [&] { ++ran; });
    EXPECT_EQ(ran, 1);
}

TEST_F(CoreLoggerTest, MessagesArePrintedLiterallyAndLevelsComeOnlyFromZeroToFour) {
    CoreLogger::debug("100% done, %@ stays, %d too");
    EXPECT_EQ(logs->lines(), (std::vector<std::string>{"[DEBUG]: 100% done, %@ stays, %d too"}));

    EXPECT_EQ(logLevelFromRawValue(5), std::nullopt);
    EXPECT_EQ(logLevelFromRawValue(-1), std::nullopt);
    EXPECT_EQ(logLevelFromRawValue(0), LogLevel::error);
    EXPECT_EQ(logLevelFromRawValue(4), LogLevel::verbose);
}

TEST_F(CoreLoggerTest, TheConsoleSinkWritesOneStampedLinePerMessage) {
    LoggerConfig::setLogger(std::make_shared<ConsoleLogger>());
    environment.logSink = nullptr;
    platform::Environment::install(environment);  // no sink: standard error

    ::testing::internal::CaptureStderr();
    CoreLogger::warn("Settings cached. 50% %@");
    CoreLogger::verbose("not emitted");
    const auto out = ::testing::internal::GetCapturedStderr();
    const std::regex line(
        R"(^\d{4}-\d\d-\d\d \d\d:\d\d:\d\d\.\d{3}Z velmora-tests\[\d+:\d+\] \[WARNING\]: Settings cached\. 50% %@\n$)");
    EXPECT_TRUE(std::regex_match(out, line)) << out;
}

TEST_F(CoreLoggerTest, SwitchesAndSinksMayChangeWhileOtherThreadsLog) {
    std::atomic<bool> stop{false};
    std::vector<std::thread> loggers;
    for (int t = 0; t < 3; ++t) {
        loggers.emplace_back([&] {
            while (!stop) {
                CoreLogger::info("busy");
            }
        });
    }
    for (int i = 0; i < 300; ++i) {
        CoreLogger::setEnabled(i % 2 == 0);
        CoreLogger::setLogLevel(i % 3 == 0 ? LogLevel::error : LogLevel::verbose);
        LoggerConfig::setLogger(std::make_shared<ConsoleLogger>());
    }
    stop = true;
    for (auto& thread : loggers) {
        thread.join();
    }
    for (const auto& line : logs->lines()) {
        ASSERT_EQ(line, "[INFO]: busy");
    }
}

}  // namespace
}  // namespace velmora::testing
