#include "velmora/support/ActionHandlerRegistry.h"

#include <gtest/gtest.h>

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

}  // namespace
}  // namespace velmora::testing
