#pragma once

#include <any>
#include <cstdint>
#include <functional>
#include <memory>
#include <mutex>
#include <string>
#include <vector>

#include <nlohmann/json.hpp>

#include "velmora/Export.h"

namespace velmora::platform {

struct Notification {
    std::string name;
    std::any object;
    nlohmann::json userInfo;
};

// Broadcasts named notifications to observers, synchronously on the posting thread, in the order the
// observers were added.
class VELMORA_EXPORT NotificationCenter {
  public:
    using Observer = std::function<void(const Notification&)>;
    using ObserverToken = std::uint64_t;

    static NotificationCenter& defaultCenter();

    // An empty name observes every notification.
    ObserverToken addObserver(std::string name, Observer observer);
    void removeObserver(ObserverToken token);
    void post(std::string name, std::any object = {}, nlohmann::json userInfo = nlohmann::json::object());

  private:
    struct Entry {
        ObserverToken token;
        std::string name;
        std::shared_ptr<Observer> observer;
    };
    std::mutex mutex_;
    std::vector<Entry> entries_;
    ObserverToken nextToken_ = 1;
};

}  // namespace velmora::platform
