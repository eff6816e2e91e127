#include "velmora/support/CoreLogger.h"

#include <gtest/gtest.h>

#include <fstream>
#include <regex>
#include <stop_token>
#include <thread>
#include <utility>

#include "tests/support/LibraryTest.h"
#include "velmora/support/ActionDescription.h"
#include "velmora/support/ActionHandlerRegistry.h"

namespace velmora::testing {
namespace {

using Lines = std::vector<std::string>;

class CoreLoggerTest : public LibraryTest {
  protected:
    // What one message at each level leaves in the log, at the given threshold.
    Lines linesAt(LogLevel threshold) {
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
    CoreLogger::setEnabled(true);
    const Lines all{"[ERROR]: e", "[WARNING]: w", "[INFO]: i", "[DEBUG]: d", "[VERBOSE]: v"};
    for (int raw = 0; raw <= 4; ++raw) {
        EXPECT_EQ(linesAt(logLevelFromRawValue(raw).value()), Lines(all.begin(), all.begin() + raw + 1));
    }
    EXPECT_EQ(logs->levels(), (std::vector<LogLevel>{LogLevel::error, LogLevel::warn, LogLevel::info,
                                                     LogLevel::debug, LogLevel::verbose}))
        << "the host's sink gets each line's level as a value";

    // The logging block runs only when its level would be emitted.
    int ran = 0;
    CoreLogger::setLogLevel(LogLevel::debug);
    CoreLogger::log(LogLevel::verbose, [&] { ++ran; });
    CoreLogger::log(LogLevel::debug, [&] { ++ran; });
    CoreLogger::setEnabled(false);
    CoreLogger::log(LogLevel::error, [&] { ++ran; });
    EXPECT_EQ(ran, 1);

    EXPECT_FALSE(logLevelFromRawValue(-1) || logLevelFromRawValue(5)) << "no level outside 0...4";
}

// The threshold is applied before any sink, so the test above covers it for this one too.
TEST_F(CoreLoggerTest, TheConsoleSinkWritesOneStampedLiteralLinePerMessage) {
    environment.logSink = nullptr;
    platform::Environment::install(environment);  // no sink: the default logger writes to standard error

    ::testing::internal::CaptureStderr();
    CoreLogger::warn("Settings cached. 50% %@ %d");
    const auto out = ::testing::internal::GetCapturedStderr();
    const std::regex line(
        R"(^\d{4}-\d\d-\d\d \d\d:\d\d:\d\d\.\d{3}Z velmora-tests\[\d+:\d+\] \[WARNING\]: Settings cached\. 50% %@ %d\n$)");
    EXPECT_TRUE(std::regex_match(out, line)) << out;
}

TEST_F(CoreLoggerTest, SwitchesAndSinksMayChangeWhileOtherThreadsLog) {
    std::vector<std::jthread> loggers;
    for (int i = 0; i < 3; ++i) {
        loggers.emplace_back([](std::stop_token stop) {
            while (!stop.stop_requested()) {
                CoreLogger::info("busy");
            }
        });
    }
    for (int i = 0; i < 300; ++i) {
        CoreLogger::setEnabled(i % 2 == 0);
        CoreLogger::setLogLevel(i % 3 == 0 ? LogLevel::error : LogLevel::verbose);
        LoggerConfig::setLogger(std::make_shared<ConsoleLogger>());
    }
    loggers.clear();  // stops and joins them
    const auto lines = logs->lines();
    EXPECT_EQ(lines, Lines(lines.size(), "[INFO]: busy"));
}

struct Handler : ActionHandler {
    Handler(std::string action, int rank) : id(std::move(action), rank) {}
    bool canHandle(const std::string& action) const override { return action == id.first; }
    int priority() const override { return id.second; }
    bool isEqual(const ActionHandler& o) const override { return static_cast<const Handler&>(o).id == id; }
    std::pair<std::string, int> id;  // the action and the priority
};
struct OtherHandler : Handler {  // same action and priority as a Handler, but another type: never equal
    using Handler::Handler;
};

TEST(ActionHandlerRegistryTest, HandlersRankByPriorityAndRemovalTakesEveryEqualOneOfTheSameType) {
    ActionHandlerRegistry registry;
    EXPECT_EQ(registry.handler("chat"), nullptr);
    const auto low = std::make_shared<Handler>("chat", 1);
    const auto high = std::make_shared<Handler>("chat", 5);
    const std::shared_ptr<Handler> other = std::make_shared<OtherHandler>("chat", 1);
    for (const auto& handler : {low, std::make_shared<Handler>("help", 9), high, low, other}) {
        registry.add(handler);
    }

    const auto copy = registry;
    EXPECT_EQ(registry.handler("chat"), high);
    EXPECT_EQ(registry.handlers("chat").size(), 4u);

    registry.remove(Handler("chat", 1));
    EXPECT_EQ(registry.handlers("chat"), (std::vector<std::shared_ptr<ActionHandler>>{high, other}));
    EXPECT_EQ(copy.handlers("chat").size(), 4u) << "copies are independent";

    registry.clear();
    EXPECT_EQ(registry.handler("help"), nullptr);
}

using ActionDescriptionTest = LibraryTest;

// The icon is read once, from the bundle's file, and kept whatever it was.
TEST_F(ActionDescriptionTest, TheIconComesFromTheBundleOnTheFirstReadAndIsKeptEvenWhenEmpty) {
    const auto bundle = root / "Chat.bundle";
    std::filesystem::create_directories(bundle);
    const std::string png("\x89PNG\r\n\x1a\n\0\0\0\rIHDR", 16);
    std::ofstream(bundle / "chat@2x.png", std::ios::binary) << png;
    using Case = std::pair<std::optional<std::string>, std::optional<std::filesystem::path>>;
    for (const auto& [name, from] : {Case{"chat", bundle}, Case{std::nullopt, bundle},
                                     Case{"chat", std::nullopt}, Case{"chat", root / "Missing.bundle"},
                                     Case{"../Chat.bundle/chat@2x.png", bundle}, Case{"help", bundle}}) {
        const ActionDescription description("Chat", "Start a chat", name, from);
        const auto first = description.iconImage();
        EXPECT_EQ(first.has_value(), name == "chat" && from == bundle) << name.value_or("no name");
        std::filesystem::rename(bundle / "chat@2x.png", bundle / "help.png");
        EXPECT_EQ(description.iconImage(), first) << "kept from the first read";
        std::filesystem::rename(bundle / "help.png", bundle / "chat@2x.png");
    }
    EXPECT_EQ(ActionDescription("Chat", "Chat", "chat", bundle).iconImage(),
              (platform::Image{"chat", Data::fromString(png)}));

    // The host's image loader is asked instead, when it has one; that the result is kept is checked above.
    environment.imageLoader = [](std::string_view name, const std::filesystem::path& from) {
        return std::optional(platform::Image{std::string(name), Data::fromString(from.filename().string())});
    };
    reinstallEnvironment();
    ActionDescription hosted("Chat", "Chat", "anything", bundle);
    EXPECT_EQ(hosted.iconImage()->data.toString(), "Chat.bundle");
    hosted.setIconImage(std::nullopt);
    EXPECT_FALSE(hosted.iconImage().has_value()) << "set directly";
}

}  // namespace
}  // namespace velmora::testing
