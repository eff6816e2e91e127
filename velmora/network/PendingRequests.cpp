#include "velmora/network/PendingRequests.h"

#include "velmora/platform/Dispatch.h"
#include "velmora/platform/PendingCount.h"
#include "velmora/support/CoreLogger.h"

namespace velmora {

namespace {

// Leaked: completions may still run during static destruction.
platform::PendingCount& counter() {
    static auto* instance = new platform::PendingCount();
    return *instance;
}

}  // namespace

TaskCompletion PendingRequests::track(TaskCompletion completion) {
    return
        [ticket = std::make_shared<platform::PendingCount::Ticket>(counter()),
         completion = std::move(completion)](const std::optional<Data>& data,
                                             const std::shared_ptr<const platform::HTTPURLResponse>& response,
                                             const std::optional<Error>& error) {
            // Finished however the completion ends: one that throws has still run.
            const struct Finish {
                platform::PendingCount::Ticket& ticket;
                ~Finish() { ticket.finish(); }
            } finish{*ticket};
            completion(data, response, error);
        };
}

bool PendingRequests::waitUntilDrained(std::chrono::milliseconds timeout) {
    if (counter().count() != 0 && platform::DispatchQueue::main().isCurrent()) {
        CoreLogger::error("Waiting for pending requests on the main queue would block their completions.");
        return false;
    }
    return counter().waitUntilDrained(timeout);
}

std::size_t PendingRequests::count() {
    return counter().count();
}

}  // namespace velmora
