#include "velmora/support/ActionHandlerRegistry.h"

#include <gtest/gtest.h>

#include <fstream>

#include "tests/support/LibraryTest.h"
#include "velmora/support/ActionDescription.h"

namespace velmora::testing {
namespace {

class Handler : public ActionHandler {
  public:
    Handler(std::string action, int priority) : action_(std::move(action)), priority_(priority) {}
    bool canHandle(const std::string& action) const override { return action == action_; }
    int priority() const override { return priority_; }
    bool isEqual(const ActionHandler& other) const override {
        const auto& handler = static_cast<const Handler&>(other);
        return handler.action_ == action_ && handler.priority_ == priority_;
    }

  private:
    std::string action_;
    int priority_;
};

// Same action and priority as a Handler, but another type: never equal to one.
class OtherHandler : public Handler {
  public:
    using Handler::Handler;
};

TEST(ActionHandlerRegistryTest, HandlersRankByPriorityAndRemovalTakesEveryEqualOneOfTheSameType) {
    ActionHandlerRegistry registry;
    EXPECT_TRUE(registry.handlers("chat").empty());
    EXPECT_EQ(registry.handler("chat"), nullptr);

    const auto low = std::make_shared<Handler>("chat", 1);
    const auto high = std::make_shared<Handler>("chat", 5);
    const auto other = std::make_shared<OtherHandler>("chat", 1);
    registry.add(low);
    registry.add(std::make_shared<Handler>("help", 9));
    registry.add(high);
    registry.add(low);
    registry.add(other);

    const auto copy = registry;
    EXPECT_EQ(registry.handler("chat"), high);
    EXPECT_EQ(registry.handlers("chat").size(), 4u);

    registry.remove(Handler("chat", 1));
    EXPECT_EQ(registry.handlers("chat"), (std::vector<std::shared_ptr<ActionHandler>>{high, other}));
    EXPECT_EQ(copy.handlers("chat").size(), 4u) << "copies are independent";

    registry.clear();
    EXPECT_EQ(registry.handler("help"), nullptr);
}

class ActionDescriptionTest : public LibraryTest {};

// The icon is read once, from the bundle's file, and kept whatever it was.
TEST_F(ActionDescriptionTest, TheIconComesFromTheBundleOnTheFirstReadAndIsKeptEvenWhenEmpty) {
    const auto bundle = root / "Chat.bundle";
    std::filesystem::create_directories(bundle);
    const std::string png("\x89PNG\r\n\x1a\n\0\0\0\rIHDR", 16);
    std::ofstream(bundle / "chat@2x.png", std::ios::binary) << png;
    struct Case {
        std::optional<std::string> name;
        std::optional<std::filesystem::path> bundle;
        bool found;
    };
    const std::vector<Case> cases = {{"chat", bundle, true},
                                     {std::nullopt, bundle, false},
                                     {"chat", std::nullopt, false},
                                     {"chat", root / "Missing.bundle", false},
                                     {"../Chat.bundle/chat@2x.png", bundle, false},
                                     {"help", bundle, false}};
    for (const auto& c : cases) {
        const ActionDescription description("Chat", "Start a chat", c.name, c.bundle);
        const auto first = description.iconImage();
        EXPECT_EQ(first.has_value(), c.found) << c.name.value_or("no name");
        std::filesystem::copy_file(bundle / "chat@2x.png", bundle / "help.png");
        std::filesystem::remove(bundle / "chat@2x.png");
        EXPECT_EQ(description.iconImage(), first) << "kept from the first read";
        std::filesystem::rename(bundle / "help.png", bundle / "chat@2x.png");
    }
    EXPECT_EQ(ActionDescription("Chat", "Chat", "chat", bundle).iconImage(),
              (platform::Image{"chat", Data::fromString(png)}));

    int loads = 0;
    environment.imageLoader = [&loads](std::string_view name, const std::filesystem::path& from) {
        ++loads;
        return std::optional(platform::Image{std::string(name), Data::fromString(from.filename().string())});
    };
    reinstallEnvironment();
    ActionDescription hosted("Chat", "Chat", "anything", bundle);
    EXPECT_EQ(hosted.iconImage()->data.toString(), "Chat.bundle");
    (void)hosted.iconImage();
    EXPECT_EQ(loads, 1);
    hosted.setIconImage(std::nullopt);
    EXPECT_FALSE(hosted.iconImage().has_value()) << "set directly";
}

}  // namespace
}  // namespace velmora::testing
