#include "velmora/platform/NotificationCenter.h"

#include <gtest/gtest.h>

#include <string>
#include <vector>

namespace velmora::testing {
namespace {

using platform::Notification;
using platform::NotificationCenter;

TEST(NotificationCenterTest, DeliversByNameInOrderAndStopsAfterRemoval) {
    NotificationCenter center;
    std::vector<std::string> seen;
    const auto named = center.addObserver("velmoraNotInitialised", [&](const Notification& n) {
        seen.push_back("named:" + n.name + ":" + n.userInfo.value("why", std::string()));
    });
    center.addObserver("", [&](const Notification& n) { seen.push_back("all:" + n.name); });

    center.post("velmoraNotInitialised", {}, {{"why", "no instance"}});
    center.post("other");
    center.removeObserver(named);
    center.post("velmoraNotInitialised");

    EXPECT_EQ(seen, (std::vector<std::string>{"named:velmoraNotInitialised:no instance",
                                              "all:velmoraNotInitialised", "all:other",
                                              "all:velmoraNotInitialised"}));
}

TEST(NotificationCenterTest, ObserversMayRemoveThemselvesAndPostWhileBeingNotified) {
    NotificationCenter center;
    int once = 0;
    int echoes = 0;
    NotificationCenter::ObserverToken self = 0;
    self = center.addObserver("ping", [&](const Notification&) {
        ++once;
        center.removeObserver(self);
        center.post("echo");
    });
    center.addObserver("echo", [&](const Notification&) { ++echoes; });
    center.post("ping");
    center.post("ping");
    EXPECT_EQ(once, 1);
    EXPECT_EQ(echoes, 1);
}

}  // namespace
}  // namespace velmora::testing
