#include "velmora/platform/NotificationCenter.h"

#include <algorithm>

namespace velmora::platform {

NotificationCenter& NotificationCenter::defaultCenter() {
    static auto* center = new NotificationCenter();  // outlives every static that may still post
    return *center;
}

NotificationCenter::ObserverToken NotificationCenter::addObserver(std::string name, Observer observer) {
    std::lock_guard lock(mutex_);
    const auto token = nextToken_++;
    entries_.push_back({token, std::move(name), std::make_shared<Observer>(std::move(observer))});
    return token;
}

void NotificationCenter::removeObserver(ObserverToken token) {
    std::vector<Entry> removed;  // destroyed after the lock: an observer is the host's code
    std::lock_guard lock(mutex_);
    const auto it = std::find_if(entries_.begin(), entries_.end(),
                                 [token](const Entry& entry) { return entry.token == token; });
    if (it != entries_.end()) {
        removed.push_back(std::move(*it));
        entries_.erase(it);
    }
}

void NotificationCenter::post(std::string name, std::any object, nlohmann::json userInfo) {
    std::vector<std::shared_ptr<Observer>> observers;
    {
        std::lock_guard lock(mutex_);
        for (const auto& entry : entries_) {
            if (entry.name.empty() || entry.name == name) {
                observers.push_back(entry.observer);
            }
        }
    }
    // Called outside the lock: an observer may add or remove observers, or post again.
    const Notification notification{std::move(name), std::move(object), std::move(userInfo)};
    for (const auto& observer : observers) {
        (*observer)(notification);
    }
}

}  // namespace velmora::platform
