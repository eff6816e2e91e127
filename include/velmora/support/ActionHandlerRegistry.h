#pragma once

#include <memory>
#include <string>
#include <vector>

#include "velmora/Export.h"

namespace velmora {

// An action that another kit can perform, offered through the facade. The kits that perform actions agree
// on the rest of the interface among themselves; the registry only asks these two questions.
class VELMORA_EXPORT ActionHandler {
  public:
    virtual ~ActionHandler() = default;
    virtual bool canHandle(const std::string& action) const = 0;
    // Among handlers of one action the higher value ranks first.
    virtual int priority() const = 0;
    // Whether `other`, known to be of this handler's own type, is the same handler. Identity by default.
    virtual bool isEqual(const ActionHandler& other) const { return this == &other; }
};

// The handlers that kits registered, looked up by action. A plain value: copies are independent, and the
// facade's registry changes only when a whole value is written back.
class VELMORA_EXPORT ActionHandlerRegistry {
  public:
    // Duplicates are kept: a handler added twice is registered twice.
    void add(std::shared_ptr<ActionHandler> actionHandler);
    // Every registered handler of the same type that is equal to the given one; others are not compared.
    void remove(const ActionHandler& actionHandler);
    void clear() { registry_.clear(); }

    // The handlers of the action, highest priority first.
    std::vector<std::shared_ptr<ActionHandler>> handlers(const std::string& action) const;
    std::shared_ptr<ActionHandler> handler(const std::string& action) const;

  private:
    std::vector<std::shared_ptr<ActionHandler>> registry_;
};

}  // namespace velmora
