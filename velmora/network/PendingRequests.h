#pragma once

#include <chrono>
#include <cstddef>

#include "velmora/network/ProviderService.h"

namespace velmora {

// Every request handed to the executor counts as pending until its completion has run (or the executor
// drops it), so hosts can let fire-and-forget work (events, unregistrations) finish before they exit.
class PendingRequests {
  public:
    PendingRequests() = delete;

    // Counts one request; the returned completion calls `completion` and then ends the count, once.
    static TaskCompletion track(TaskCompletion completion);

    // Waits until no request is pending, including those that requests started in their own completions.
    // False when the time ran out, or at once from the main queue, whose completions would be blocked.
    static bool waitUntilDrained(std::chrono::milliseconds timeout);

    static std::size_t count();
};

}  // namespace velmora
