/* A C host's whole session against the local account server, through the C interface only (C11).
 *   session ACCOUNT_URL   (the server answers the first push registration with a 500, see session.json) */
#include <stdio.h>
#include <string.h>

#include "velmora/VelmoraC.h"

static int failures = 0;

/* Counts a failure and tells of it (with the line) when the condition is false. */
#define CHECK(condition) \
    (void)((condition) || (fprintf(stderr, "session.c:%d: failed: %s\n", __LINE__, #condition), ++failures))
/* Waits until every request made so far has completed and every callback owed has run. */
#define SETTLE() CHECK(VMKVelmoraWaitForPendingRequests(20000))

static bool same(const char* a, const char* b) {
    return a != NULL && b != NULL && strcmp(a, b) == 0;
}

/* Takes (releases and clears) the error: true when it is of the domain and code. */
static bool isError(VMKError** error, const char* domain, int64_t code) {
    const bool matches = same(VMKErrorGetDomain(*error), domain) && VMKErrorGetCode(*error) == code;
    if (!matches && *error != NULL) {
        fprintf(stderr, "unexpected error %s %lld: %s\n", VMKErrorGetDomain(*error),
                (long long)VMKErrorGetCode(*error), VMKErrorGetDescription(*error));
    }
    VMKErrorRelease(*error);
    *error = NULL;
    return matches;
}

/* What the last asynchronous call's callbacks handed over, kept with Copy. */
typedef struct Answer {
    int calls, status;
    VMKError* error;
    VMKUser* user;
    VMKUserField* fields[4];
    size_t fieldCount;
    VMKCoreSettings* core;
    VMKBlipsSettings* blips;
    char identifier[64], page[512];
} Answer;

static Answer answer;

static void forget(void) {
    VMKErrorRelease(answer.error);
    VMKUserRelease(answer.user);
    for (size_t i = 0; i < answer.fieldCount; ++i) {
        VMKUserFieldRelease(answer.fields[i]);
    }
    VMKCoreSettingsRelease(answer.core);
    VMKBlipsSettingsRelease(answer.blips);
    memset(&answer, 0, sizeof answer);
}

/* Forgets the last answer, starts the call and waits until every callback has run. */
#define AWAIT(call) (forget(), CHECK(call), SETTLE())

static Answer* took(void* context, const VMKError* error) {
    Answer* kept = context;
    ++kept->calls;
    kept->error = error != NULL ? VMKErrorCopy(error) : NULL;
    return kept;
}

static void onUser(const VMKUser* user, const VMKError* error, void* context) {
    took(context, error)->user = user != NULL ? VMKUserCopy(user) : NULL;
}

static void onFields(const VMKUserField* const* fields, size_t count, const VMKError* error, void* context) {
    Answer* kept = took(context, error);
    for (size_t i = 0; i < count && i < 4; ++i) {
        kept->fields[kept->fieldCount++] = VMKUserFieldCopy(fields[i]);
    }
}

static void onPush(const char* identifier, const VMKError* error, void* context) {
    Answer* kept = took(context, error);
    snprintf(kept->identifier, sizeof kept->identifier, "%s", identifier != NULL ? identifier : "");
}

static void onCore(const VMKCoreSettings* settings, void* context) {
    took(context, NULL)->core = VMKCoreSettingsCopy(settings);
}

static void onBlips(const VMKBlipsSettings* settings, void* context) {
    took(context, NULL)->blips = VMKBlipsSettingsCopy(settings);
}

static void onPage(int status, const uint8_t* body, size_t length, const VMKError* error, void* context) {
    Answer* kept = took(context, error);
    kept->status = status;
    snprintf(kept->page, sizeof kept->page, "%.*s", (int)length, length > 0 ? (const char*)body : "");
}

/* Counts the log lines that tell of fire-and-forget outcomes. */
typedef struct LogLines {
    int unregistered, blipped;
    VMKLogLevel unregisteredLevel;
} LogLines;

static void onLog(VMKLogLevel level, const char* message, void* context) {
    LogLines* lines = context;
    if (strstr(message, "Push unregistration successful") != NULL) {
        ++lines->unregistered;
        lines->unregisteredLevel = level;
    }
    lines->blipped += strstr(message, "Blip was blipped successfully") != NULL;
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

    CHECK(VMKVelmoraCopyInstance(&error) == NULL);
    CHECK(isError(&error, VMKErrorDomainInterface, VMKErrorCodeNotInitialised));
    CHECK(VMKVelmoraInitialize("capi-app", "capi-client", url, &error));
    VMKVelmora* velmora = VMKVelmoraCopyInstance(&error);
    CHECK(same(VMKVelmoraGetApplicationId(velmora), "capi-app") &&
          same(VMKVelmoraGetAccountURL(velmora), url));
    VMKUserProvider* users = VMKUserProviderCreate(velmora, &error);
    VMKPushProvider* pushes = VMKPushProviderCreate(velmora, &error);
    VMKSettingsProvider* settings = VMKSettingsProviderCreate(velmora, &error);
    VMKBlipsProvider* blips = VMKBlipsProviderCreate(velmora, &error);

    /* Nobody is signed in yet: the first request that needs a login fails. */
    AWAIT(VMKUserProviderGetUser(users, onUser, &answer, &error));
    CHECK(answer.calls == 1 && answer.user == NULL);
    CHECK(isError(&answer.error, VMKErrorDomainAccess, VMKErrorCodeNoIdentity));

    VMKObjCAnonymous* anonymous = VMKObjCAnonymousCreate("Ann", "ann@example.com", &error);
    CHECK(VMKVelmoraSetAnonymousIdentity(velmora, anonymous, &error));
    VMKObjCAnonymousRelease(anonymous);
    VMKObjCJwt* jwt = NULL;
    CHECK(VMKVelmoraCopyObjCIdentity(velmora, &jwt, &anonymous, &error));
    CHECK(jwt == NULL && same(VMKObjCAnonymousGetName(anonymous), "Ann") &&
          same(VMKObjCAnonymousGetEmail(anonymous), "ann@example.com"));
    VMKObjCAnonymousRelease(anonymous);

    const char* tags[] = {"vip", "early adopter"};
    AWAIT(VMKUserProviderAddTags(users, tags, 2, onUser, &answer, &error));
    CHECK(answer.calls == 1 && answer.error == NULL && same(VMKUserGetName(answer.user), "Ann"));
    CHECK(VMKUserGetTagCount(answer.user) == 2 && same(VMKUserGetTag(answer.user, 1), "early adopter"));
    AWAIT(VMKUserProviderDeleteTags(users, tags, 1, onUser, &answer, &error));
    CHECK(VMKUserGetTagCount(answer.user) == 1 && same(VMKUserGetTag(answer.user, 0), "early adopter"));
    AWAIT(
        VMKUserProviderSetUserFields(users, "{\"plan\": \"gold\", \"seats\": 12}", onUser, &answer, &error));
    CHECK(same(VMKUserGetUserFieldValue(answer.user, "plan"), "gold") &&
          same(VMKUserGetUserFieldValue(answer.user, "seats"), "12") &&
          VMKUserGetUserFieldValue(answer.user, "colour") == NULL);
    AWAIT(VMKUserProviderGetUserFields(users, onFields, &answer, &error));
    const VMKUserField* plan = answer.fields[0];
    CHECK(answer.fieldCount == 2 && answer.error == NULL && same(VMKUserFieldGetKey(plan), "plan") &&
          same(VMKUserFieldGetType(plan), "dropdown") && VMKUserFieldIsActive(plan) &&
          VMKUserFieldGetCreatedAt(plan) == 1767607200.0);
    CHECK(VMKUserFieldHasOptions(plan) && VMKUserFieldGetOptionCount(plan) == 2 &&
          same(VMKUserFieldOptionGetValue(VMKUserFieldGetOption(plan, 1)), "silver"));
    CHECK(!VMKUserFieldHasOptions(answer.fields[1]) && VMKUserFieldGetPosition(answer.fields[1]) == 1);

    /* A help-centre article answers 401 without the user's token, which only the registered protocol adds. */
    char article[256];
    snprintf(article, sizeof article, "%s/hc/articles/1", url);
    AWAIT(VMKHelpCenterUtilLoadURL(article, onPage, &answer, &error));
    CHECK(answer.calls == 1 && answer.error == NULL && answer.status == 401);
    VMKHelpCenterUtilRegisterAuthenticationProtocol();
    CHECK(VMKHelpCenterUtilCanAuthenticateRequest(article, NULL) &&
          !VMKHelpCenterUtilCanAuthenticateRequest(article, "{\"authorization\": \"Basic eDp5\"}"));
    char* headers =
        VMKHelpCenterUtilCopyCanonicalRequestHeadersJSON(article, "{\"Accept\": \"text/html\"}", &error);
    CHECK(headers != NULL &&
          strstr(headers, "{\"Accept\":\"text/html\",\"Authorization\":\"Bearer ") != NULL);
    VMKStringRelease(headers);
    AWAIT(VMKHelpCenterUtilLoadURL(article, onPage, &answer, &error));
    CHECK(answer.status == 200 && strstr(answer.page, "<h1>Getting started</h1>") != NULL);
    VMKHelpCenterUtilUnregisterAuthenticationProtocol();
    AWAIT(VMKHelpCenterUtilLoadURL("http://127.0.0.1:1/hc", onPage, &answer, &error)); /* nothing listens */
    CHECK(answer.status == 0 &&
          isError(&answer.error, VMKErrorDomainURL, VMKErrorCodeURLCannotConnectToHost));

    /* Push: the first registration is answered with a 500, whose status is in the user info. */
    AWAIT(VMKPushProviderRegisterWithDeviceIdentifier(pushes, "device-1", "en-GB", onPush, &answer, &error));
    char* userInfo = VMKErrorCopyUserInfoJSON(answer.error);
    CHECK(userInfo != NULL && strstr(userInfo, "\"" VMKErrorUserInfoHTTPStatusCodeKey "\":500") != NULL);
    VMKStringRelease(userInfo);
    CHECK(isError(&answer.error, VMKErrorDomainCore, VMKErrorCodePushRegistrationFailed));
    AWAIT(VMKPushProviderRegisterWithDeviceIdentifier(pushes, "device-1", "en-GB", onPush, &answer, &error));
    CHECK(answer.calls == 1 && answer.error == NULL && same(answer.identifier, "device-1"));
    CHECK(VMKPushProviderUnregisterForPush(pushes, &error));
    SETTLE();
    CHECK(lines.unregistered == 1 && lines.unregisteredLevel == VMKLogLevelDebug);

    AWAIT(VMKSettingsProviderGetCoreSettings(settings, onCore, &answer, &error) &&
          VMKSettingsProviderGetBlipsSettings(settings, onBlips, &answer, &error));
    CHECK(answer.calls == 2 && VMKCoreSettingsGetBrandId(answer.core) == 1 &&
          same(VMKCoreSettingsGetIdentifier(answer.core), "velmora-mock") &&
          same(VMKCoreSettingsGetAuthentication(answer.core), "anonymous"));
    CHECK(VMKBlipsSettingsGetRequired(answer.blips) && VMKBlipsSettingsGetBehavioural(answer.blips) &&
          !VMKBlipsSettingsGetTrailmark(answer.blips));
    const int blipped = lines.blipped;
    CHECK(VMKBlipsProviderSendUserAction(blips, "1.0", "tapped", "capi", "Session", NULL, "{\"screen\": 2}",
                                         VMKBlipsGroupBehavioural, &error));
    SETTLE();
    CHECK(lines.blipped == blipped + 1);

    /* A JWT user replaces the anonymous one. */
    VMKObjCJwt* token = VMKObjCJwtCreate("jwt-of-bob", &error);
    CHECK(VMKVelmoraSetJwtIdentity(velmora, token, &error));
    VMKObjCJwtRelease(token);
    anonymous = NULL;
    CHECK(VMKVelmoraCopyObjCIdentity(velmora, &jwt, &anonymous, &error));
    CHECK(anonymous == NULL && same(VMKObjCJwtGetToken(jwt), "jwt-of-bob"));
    VMKObjCJwtRelease(jwt);

    forget();
    VMKUserProviderRelease(users);
    VMKPushProviderRelease(pushes);
    VMKSettingsProviderRelease(settings);
    VMKBlipsProviderRelease(blips);
    VMKVelmoraRelease(velmora);
    SETTLE();
    CHECK(VMKDebugLiveHandleCount() == 0);
    VMKCoreLoggerSetCallback(NULL, NULL);
    printf("session: %s\n", failures == 0 ? "every step passed" : "failed");
    return failures == 0 ? 0 : 1;
}
