#include "velmora/support/ActionHandlerRegistry.h"

#include <algorithm>
#include <typeinfo>

namespace velmora {

void ActionHandlerRegistry::add(std::shared_ptr<ActionHandler> actionHandler) {
    if (actionHandler) {
        registry_.push_back(std::move(actionHandler));
    }
}

void ActionHandlerRegistry::remove(const ActionHandler& actionHandler) {
    std::erase_if(registry_, [&](const std::shared_ptr<ActionHandler>& registered) {
        const ActionHandler& candidate = *registered;
        return typeid(candidate) == typeid(actionHandler) && candidate.isEqual(actionHandler);
    });
}

std::vector<std::shared_ptr<ActionHandler>> ActionHandlerRegistry::handlers(const std::string& action) const {
    std::vector<std::shared_ptr<ActionHandler>> matching;
    std::copy_if(registry_.begin(), registry_.end(), std::back_inserter(matching),
                 [&](const std::shared_ptr<ActionHandler>& handler) { return handler->canHandle(action); });
    std::stable_sort(matching.begin(), matching.end(),
                     [](const auto& a, const auto& b) { return a->priority() > b->priority(); });
    return matching;
}

std::shared_ptr<ActionHandler> ActionHandlerRegistry::handler(const std::string& action) const {
    auto matching = handlers(action);
    return matching.empty() ? nullptr : matching.front();
}

}  // namespace velmora
