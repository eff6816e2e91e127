/* A C host's whole session against the local account server, through the C interface only: initialise,
 * identity, the user's record, tags and fields, push registration and unregistration, settings, an event,
 * and the errors a host meets (no identity yet, a 500, refused arguments). Compiled as C11.
 *
 *   session ACCOUNT_URL   (the server answers the first push registration with a 500, see session.json)
 */
#include <stdio.h>
#include <string.h>

#include "velmora/VelmoraC.h"

static int failures = 0;

#define CHECK(condition) check((condition), #condition, __LINE__)

static void check(bool passed, const char* text, int line) {
    if (!passed) {
        fprintf(stderr, "session.c:%d: failed: %s\n", line, text);
        ++failures;
    }
}

static bool same(const char* a, const char* b) {
    return a != NULL && b != NULL && strcmp(a, b) == 0;
}

/* Takes the error: true when it is of the domain and code. */
static bool isError(VMKError* error, const char* domain, int64_t code) {
    const bool matches = same(VMKErrorGetDomain(error), domain) && VMKErrorGetCode(error) == code;
    if (!matches && error != NULL) {
        fprintf(stderr, "unexpected error %s %lld: %s\n", VMKErrorGetDomain(error),
                (long long)VMKErrorGetCode(error), VMKErrorGetDescription(error));
    }
    VMKErrorRelease(error);
    return matches;
}

/* What the callbacks hand over, kept with Copy; every callback has run once the requests are drained. */
typedef struct Answer {
    int calls;
    VMKError* error;
    VMKUser* user;
    VMKUserField* fields[4];
    size_t fieldCount;
    char identifier[64];
    VMKCoreSettings* core;
    VMKBlipsSettings* blips;
} Answer;

static void forget(Answer* answer) {
    VMKErrorRelease(answer->error);
    VMKUserRelease(answer->user);
    for (size_t i = 0; i < answer->fieldCount; ++i) {
        VMKUserFieldRelease(answer->fields[i]);
    }
    VMKCoreSettingsRelease(answer->core);
    VMKBlipsSettingsRelease(answer->blips);
    memset(answer, 0, sizeof *answer);
}

static void settle(void) {
    CHECK(VMKVelmoraWaitForPendingRequests(20000));
}

static void onUser(const VMKUser* user, const VMKError* error, void* context) {
    Answer* answer = context;
    ++answer->calls;
    answer->user = user != NULL ? VMKUserCopy(user) : NULL;
    answer->error = error != NULL ? VMKErrorCopy(error) : NULL;
}

static void onFields(const VMKUserField* const* fields, size_t count, const VMKError* error, void* context) {
    Answer* answer = context;
    ++answer->calls;
    for (size_t i = 0; i < count && i < 4; ++i) {
        answer->fields[answer->fieldCount++] = VMKUserFieldCopy(fields[i]);
    }
    answer->error = error != NULL ? VMKErrorCopy(error) : NULL;
}

static void onPush(const char* identifier, const VMKError* error, void* context) {
    Answer* answer = context;
    ++answer->calls;
    snprintf(answer->identifier, sizeof answer->identifier, "%s", identifier != NULL ? identifier : "");
    answer->error = error != NULL ? VMKErrorCopy(error) : NULL;
}

static void onCore(const VMKCoreSettings* settings, void* context) {
    Answer* answer = context;
    ++answer->calls;
    answer->core = VMKCoreSettingsCopy(settings);
}

static void onBlips(const VMKBlipsSettings* settings, void* context) {
    Answer* answer = context;
    ++answer->calls;
    answer->blips = VMKBlipsSettingsCopy(settings);
}

/* Counts the log lines that tell of fire-and-forget outcomes. */
typedef struct LogLines {
    int count;
    int unregistered;
    int blipped;
    VMKLogLevel unregisteredLevel;
} LogLines;

static void onLog(VMKLogLevel level, const char* message, void* context) {
    LogLines* lines = context;
    ++lines->count;
    if (strstr(message, "Push unregistration successful") != NULL) {
        ++lines->unregistered;
        lines->unregisteredLevel = level;
    }
    lines->blipped += strstr(message, "Blip was blipped successfully") != NULL;
}

static void identityAndUser(const VMKVelmora* velmora, const VMKUserProvider* users) {
    Answer answer = {0};
    VMKError* error = NULL;

    /* Nobody is signed in yet: the first request that needs a login fails. */
    CHECK(VMKUserProviderGetUser(users, onUser, &answer, &error));
    settle();
    CHECK(answer.calls == 1 && answer.user == NULL);
    CHECK(isError(answer.error, VMKErrorDomainAccess, VMKErrorCodeNoIdentity));
    answer.error = NULL;
    forget(&answer);

    VMKObjCAnonymous* ann = VMKObjCAnonymousCreate("Ann", "ann@example.com", &error);
    CHECK(VMKVelmoraSetAnonymousIdentity(velmora, ann, &error));
    VMKObjCAnonymousRelease(ann);
    VMKObjCJwt* jwt = NULL;
    VMKObjCAnonymous* stored = NULL;
    CHECK(VMKVelmoraCopyObjCIdentity(velmora, &jwt, &stored, &error));
    CHECK(jwt == NULL && same(VMKObjCAnonymousGetName(stored), "Ann") &&
          same(VMKObjCAnonymousGetEmail(stored), "ann@example.com"));
    VMKObjCAnonymousRelease(stored);

    CHECK(VMKUserProviderGetUser(users, onUser, &answer, &error));
    settle();
    CHECK(answer.calls == 1 && answer.error == NULL && same(VMKUserGetName(answer.user), "Ann"));
    forget(&answer);

    const char* tags[] = {"vip", "early adopter"};
    CHECK(VMKUserProviderAddTags(users, tags, 2, onUser, &answer, &error));
    settle();
    CHECK(VMKUserGetTagCount(answer.user) == 2 && same(VMKUserGetTag(answer.user, 1), "early adopter"));
    forget(&answer);
    CHECK(VMKUserProviderDeleteTags(users, tags, 1, onUser, &answer, &error));
    settle();
    CHECK(VMKUserGetTagCount(answer.user) == 1 && same(VMKUserGetTag(answer.user, 0), "early adopter"));
    forget(&answer);

    CHECK(
        VMKUserProviderSetUserFields(users, "{\"plan\": \"gold\", \"seats\": 12}", onUser, &answer, &error));
    settle();
    CHECK(same(VMKUserGetUserFieldValue(answer.user, "plan"), "gold") &&
          same(VMKUserGetUserFieldValue(answer.user, "seats"), "12") &&
          VMKUserGetUserFieldValue(answer.user, "colour") == NULL);
    char* json = VMKUserCopyJSON(answer.user);
    CHECK(json != NULL && strstr(json, "\"tags\":[\"early adopter\"]") != NULL);
    VMKStringRelease(json);
    forget(&answer);

    CHECK(VMKUserProviderGetUserFields(users, onFields, &answer, &error));
    settle();
    CHECK(answer.fieldCount == 2 && answer.error == NULL);
    const VMKUserField* plan = answer.fields[0];
    CHECK(same(VMKUserFieldGetKey(plan), "plan") && same(VMKUserFieldGetType(plan), "dropdown") &&
          VMKUserFieldIsActive(plan) && VMKUserFieldGetCreatedAt(plan) == 1767607200.0);
    CHECK(VMKUserFieldHasOptions(plan) && VMKUserFieldGetOptionCount(plan) == 2 &&
          same(VMKUserFieldOptionGetValue(VMKUserFieldGetOption(plan, 1)), "silver"));
    CHECK(!VMKUserFieldHasOptions(answer.fields[1]) && VMKUserFieldGetPosition(answer.fields[1]) == 1);
    forget(&answer);
}

static void push(const VMKPushProvider* provider, const LogLines* lines) {
    Answer answer = {0};
    VMKError* error = NULL;

    /* The server answers the first registration with a 500: the status is in the user info. */
    CHECK(
        VMKPushProviderRegisterWithDeviceIdentifier(provider, "device-1", "en-GB", onPush, &answer, &error));
    settle();
    char* userInfo = VMKErrorCopyUserInfoJSON(answer.error);
    CHECK(userInfo != NULL && strstr(userInfo, "\"" VMKErrorUserInfoHTTPStatusCodeKey "\":500") != NULL);
    VMKStringRelease(userInfo);
    CHECK(isError(answer.error, VMKErrorDomainCore, VMKErrorCodePushRegistrationFailed));
    answer.error = NULL;
    forget(&answer);

    CHECK(
        VMKPushProviderRegisterWithDeviceIdentifier(provider, "device-1", "en-GB", onPush, &answer, &error));
    settle();
    CHECK(answer.calls == 1 && answer.error == NULL && same(answer.identifier, "device-1"));
    forget(&answer);

    CHECK(VMKPushProviderUnregisterForPush(provider, &error));
    settle();
    CHECK(lines->unregistered == 1 && lines->unregisteredLevel == VMKLogLevelDebug);
}

static void settingsAndEvents(const VMKSettingsProvider* settings, const VMKBlipsProvider* blips,
                              const LogLines* lines) {
    Answer answer = {0};
    VMKError* error = NULL;

    CHECK(VMKSettingsProviderGetCoreSettings(settings, onCore, &answer, &error));
    CHECK(VMKSettingsProviderGetBlipsSettings(settings, onBlips, &answer, &error));
    settle();
    CHECK(answer.calls == 2 && VMKCoreSettingsGetBrandId(answer.core) == 1 &&
          same(VMKCoreSettingsGetIdentifier(answer.core), "velmora-mock") &&
          same(VMKCoreSettingsGetAuthentication(answer.core), "anonymous"));
    CHECK(VMKBlipsSettingsGetRequired(answer.blips) && VMKBlipsSettingsGetBehavioural(answer.blips) &&
          !VMKBlipsSettingsGetTrailmark(answer.blips));
    forget(&answer);

    const int blipped = lines->blipped;
    CHECK(VMKBlipsProviderSendUserAction(blips, "1.0", "tapped", "capi", "Session", NULL, "{\"screen\": 2}",
                                         VMKBlipsGroupBehavioural, &error));
    settle();
    CHECK(lines->blipped == blipped + 1);
    CHECK(!VMKBlipsProviderSendUserAction(blips, "1.0", "tapped", "capi", "Session", NULL,
                                          "{\"screen\":", VMKBlipsGroupRequired, &error));
    CHECK(isError(error, VMKErrorDomainInterface, VMKErrorCodeInvalidArgument));
}

int main(int argc, char** argv) {
    if (argc < 2) {
        fprintf(stderr, "usage: session ACCOUNT_URL\n");
        return 2;
    }
    const char* url = argv[argc - 1];
    VMKError* error = NULL;
    LogLines lines = {0};
    VMKCoreLoggerSetCallback(onLog, &lines);
    VMKCoreLoggerSetEnabled(true);
    CHECK(VMKCoreLoggerSetLogLevel(VMKLogLevelDebug, &error));
    CHECK(VMKEnvironmentInstall("velmora-capi-session", NULL, NULL, &error));

    /* Before a successful initialisation there is no instance; a URL with a query installs nothing. */
    CHECK(!VMKVelmoraInitialize("capi-app", "capi-client", "http://127.0.0.1:1/?q=1", &error));
    CHECK(isError(error, VMKErrorDomainInterface, VMKErrorCodeRefused));
    CHECK(VMKVelmoraCopyInstance(&error) == NULL);
    CHECK(isError(error, VMKErrorDomainInterface, VMKErrorCodeNotInitialised));

    CHECK(VMKVelmoraInitialize("capi-app", "capi-client", url, &error));
    VMKVelmora* velmora = VMKVelmoraCopyInstance(&error);
    CHECK(same(VMKVelmoraGetApplicationId(velmora), "capi-app") &&
          same(VMKVelmoraGetAccountURL(velmora), url));
    VMKUserProvider* users = VMKUserProviderCreate(velmora, &error);
    VMKPushProvider* pushProvider = VMKPushProviderCreate(velmora, &error);
    VMKSettingsProvider* settings = VMKSettingsProviderCreate(velmora, &error);
    VMKBlipsProvider* blips = VMKBlipsProviderCreate(velmora, &error);

    identityAndUser(velmora, users);
    push(pushProvider, &lines);
    settingsAndEvents(settings, blips, &lines);

    /* A JWT user replaces the anonymous one. */
    VMKObjCJwt* token = VMKObjCJwtCreate("jwt-of-bob", &error);
    CHECK(VMKVelmoraSetJwtIdentity(velmora, token, &error));
    VMKObjCJwtRelease(token);
    VMKObjCJwt* jwt = NULL;
    VMKObjCAnonymous* anonymous = NULL;
    CHECK(VMKVelmoraCopyObjCIdentity(velmora, &jwt, &anonymous, &error));
    CHECK(anonymous == NULL && same(VMKObjCJwtGetToken(jwt), "jwt-of-bob"));
    VMKObjCJwtRelease(jwt);

    VMKUserProviderRelease(users);
    VMKPushProviderRelease(pushProvider);
    VMKSettingsProviderRelease(settings);
    VMKBlipsProviderRelease(blips);
    VMKVelmoraRelease(velmora);
    settle();
    CHECK(lines.count > 0);
    CHECK(VMKDebugLiveHandleCount() == 0);
    VMKCoreLoggerSetCallback(NULL, NULL);
    if (failures == 0) {
        printf("session: every step passed\n");
    }
    return failures == 0 ? 0 : 1;
}
