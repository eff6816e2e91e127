#pragma once

#include <atomic>
#include <functional>
#include <memory>
#include <type_traits>
#include <utility>

namespace velmora::platform {

// Wraps `callback` so that it runs at most once, and `ifDropped` runs instead when every copy of the wrapper
// is destroyed uncalled. A completion handed to a host's executor may be dropped unanswered; whoever waits
// for it must still learn that it ended.
template <class... Args>
std::function<void(Args...)> calledOrDropped(std::type_identity_t<std::function<void(Args...)>> callback,
                                             std::function<void()> ifDropped) {
    struct State {
        std::function<void(Args...)> callback;
        std::function<void()> ifDropped;
        std::atomic<bool> called{false};
        ~State() {
            if (!called) {
                ifDropped();
            }
        }
    };
    auto state = std::make_shared<State>();
    state->callback = std::move(callback);
    state->ifDropped = std::move(ifDropped);
    return [state = std::move(state)](Args... args) {
        if (!state->called.exchange(true)) {
            state->callback(std::forward<Args>(args)...);
        }
    };
}

}  // namespace velmora::platform
