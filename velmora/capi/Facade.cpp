// The C interface's facade and identity bridge.
#include <algorithm>

#include "velmora/capi/Interface.h"
#include "velmora/network/PendingRequests.h"
#include "velmora/platform/Dispatch.h"

namespace capi = velmora::capi;

namespace {

// Sets the identity a bridge handle stands for.
template <class Handle>
bool setIdentity(const char* function, const VMKVelmora* velmora, const Handle* identity,
                 VMKError** outError) {
    return capi::entry(function, outError, false, [&] {
        const auto& instance = capi::installed(capi::use(velmora).value);
        if (!instance->setIdentity(capi::use(identity).value)) {
            throw capi::Refusal(VMKErrorCodeRefused, "the identity was not stored (the log says why)");
        }
        return true;
    });
}

template <class F>
const char* accountDetail(const char* function, const VMKVelmora* velmora, F&& detail) {
    return capi::get<const char*>(function, velmora, nullptr, [&](const VMKVelmora& v) {
        return detail(v.value->accountDetails()).c_str();
    });
}

}  // namespace

extern "C" {

bool VMKVelmoraInitialize(const char* appId, const char* clientId, const char* velmoraUrl,
                          VMKError** outError) {
    return capi::entry(__func__, outError, false, [&] {
        if (!velmora::Velmora::initialize(capi::text(appId, "appId"), capi::text(clientId, "clientId"),
                                          capi::text(velmoraUrl, "velmoraUrl"))) {
            throw capi::Refusal(VMKErrorCodeRefused, "the account was not installed (the log says why)");
        }
        return true;
    });
}

VMKVelmora* VMKVelmoraCopyInstance(VMKError** outError) {
    return capi::entry<VMKVelmora*>(__func__, outError, nullptr, [] {
        auto instance = velmora::Velmora::instance();
        if (!instance) {
            throw capi::Refusal(VMKErrorCodeNotInitialised, "no instance is installed: initialise first");
        }
        return new VMKVelmora(std::move(instance));
    });
}

void VMKVelmoraRelease(VMKVelmora* velmora) {
    capi::release(__func__, velmora);
}

const char* VMKVelmoraGetApplicationId(const VMKVelmora* velmora) {
    return accountDetail(__func__, velmora, [](const velmora::AccountDetails& d) -> const std::string& {
        return d.applicationId();
    });
}

const char* VMKVelmoraGetClientId(const VMKVelmora* velmora) {
    return accountDetail(__func__, velmora,
                         [](const velmora::AccountDetails& d) -> const std::string& { return d.clientId(); });
}

const char* VMKVelmoraGetAccountURL(const VMKVelmora* velmora) {
    return accountDetail(__func__, velmora, [](const velmora::AccountDetails& d) -> const std::string& {
        return d.accountUrl();
    });
}

bool VMKVelmoraSetJwtIdentity(const VMKVelmora* velmora, const VMKObjCJwt* identity, VMKError** outError) {
    return setIdentity(__func__, velmora, identity, outError);
}

bool VMKVelmoraSetAnonymousIdentity(const VMKVelmora* velmora, const VMKObjCAnonymous* identity,
                                    VMKError** outError) {
    return setIdentity(__func__, velmora, identity, outError);
}

bool VMKVelmoraCopyObjCIdentity(const VMKVelmora* velmora, VMKObjCJwt** outJwt,
                                VMKObjCAnonymous** outAnonymous, VMKError** outError) {
    return capi::entry(__func__, outError, false, [&] {
        if (outJwt == nullptr || outAnonymous == nullptr) {
            throw capi::Refusal(VMKErrorCodeNullArgument, "outJwt or outAnonymous is NULL");
        }
        *outJwt = nullptr;
        *outAnonymous = nullptr;
        const auto& instance = capi::use(velmora).value;
        const auto identity = instance->identity();
        if (identity && identity->jwt() != nullptr) {
            *outJwt = new VMKObjCJwt(velmora::VMKObjCJwt(*identity->jwt()));
        } else if (identity && identity->anonymous() != nullptr) {
            *outAnonymous = new VMKObjCAnonymous(velmora::VMKObjCAnonymous(*identity->anonymous()));
        }
        return true;
    });
}

bool VMKVelmoraWaitForPendingRequests(int64_t timeoutMilliseconds) {
    return capi::entry(__func__, nullptr, false, [&] {
        if (timeoutMilliseconds < 0) {
            throw capi::Refusal(VMKErrorCodeInvalidArgument, "the time-out is negative");
        }
        const auto drained = [] {
            return velmora::PendingRequests::count() == 0 && capi::deliveriesPending() == 0;
        };
        // On the main queue nothing could drain while it waits: it only says whether anything is owed.
        if (velmora::platform::DispatchQueue::main().isCurrent()) {
            return drained();
        }
        using Clock = std::chrono::steady_clock;
        // Saturated: "for ever" as INT64_MAX milliseconds would overflow the clock.
        const auto now = Clock::now();
        const auto longest =
            std::chrono::duration_cast<std::chrono::milliseconds>(Clock::time_point::max() - now).count() - 1;
        const auto deadline =
            now + std::chrono::milliseconds(std::min<std::int64_t>(timeoutMilliseconds, longest));
        // A callback may make requests, and a request's completion may post a callback: wait until both
        // are drained at once.
        for (;;) {
            const auto left = std::chrono::duration_cast<std::chrono::milliseconds>(deadline - Clock::now());
            if (!velmora::Velmora::waitForPendingRequests(std::max(left, std::chrono::milliseconds(0))) ||
                !capi::waitForDeliveries(deadline)) {
                return false;
            }
            if (drained()) {
                return true;
            }
        }
    });
}

VMKObjCJwt* VMKObjCJwtCreate(const char* token, VMKError** outError) {
    return capi::entry<VMKObjCJwt*>(__func__, outError, nullptr, [&] {
        return new VMKObjCJwt(velmora::VMKObjCJwt(capi::text(token, "token")));
    });
}

const char* VMKObjCJwtGetToken(const VMKObjCJwt* jwt) {
    return capi::get<const char*>(__func__, jwt, nullptr,
                                  [](const VMKObjCJwt& j) { return j.value.token().c_str(); });
}

void VMKObjCJwtRelease(VMKObjCJwt* jwt) {
    capi::release(__func__, jwt);
}

VMKObjCAnonymous* VMKObjCAnonymousCreate(const char* name, const char* email, VMKError** outError) {
    return capi::entry<VMKObjCAnonymous*>(__func__, outError, nullptr, [&] {
        return new VMKObjCAnonymous(
            velmora::VMKObjCAnonymous(capi::optionalText(name, "name"), capi::optionalText(email, "email")));
    });
}

const char* VMKObjCAnonymousGetName(const VMKObjCAnonymous* anonymous) {
    return capi::get<const char*>(__func__, anonymous, nullptr,
                                  [](const VMKObjCAnonymous& a) { return capi::cString(a.value.name()); });
}

const char* VMKObjCAnonymousGetEmail(const VMKObjCAnonymous* anonymous) {
    return capi::get<const char*>(__func__, anonymous, nullptr,
                                  [](const VMKObjCAnonymous& a) { return capi::cString(a.value.email()); });
}

const char* VMKObjCAnonymousGetGuid(const VMKObjCAnonymous* anonymous) {
    return capi::get<const char*>(__func__, anonymous, nullptr,
                                  [](const VMKObjCAnonymous& a) { return capi::cString(a.value.guid()); });
}

VMKObjCAnonymous* VMKObjCAnonymousCopyUpdatingEmail(const VMKObjCAnonymous* anonymous, const char* email,
                                                    VMKError** outError) {
    return capi::entry<VMKObjCAnonymous*>(__func__, outError, nullptr, [&] {
        const auto& source = capi::use(anonymous);
        return new VMKObjCAnonymous(*source.value.update(capi::optionalText(email, "email")));
    });
}

void VMKObjCAnonymousRelease(VMKObjCAnonymous* anonymous) {
    capi::release(__func__, anonymous);
}

}  // extern "C"
