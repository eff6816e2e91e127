/* The library from C: initialise for an account, say who the user is, read their record.
 *
 *   c_quickstart ACCOUNT_URL
 *
 * Callbacks arrive on the library's main queue; this thread waits for them with
 * VMKVelmoraWaitForPendingRequests, which returns once every callback owed has run.
 */
#include <stdio.h>

#include "velmora/VelmoraC.h"

static void gotUser(const VMKUser* user, const VMKError* error, void* context) {
    int* status = context;
    if (error != NULL) {
        fprintf(stderr, "could not read the user: %s\n", VMKErrorGetDescription(error));
        *status = 1;
        return;
    }
    printf("signed in as %s (user %s)\n", VMKUserGetName(user), VMKUserGetId(user));
    *status = 0;
}

int main(int argc, char** argv) {
    if (argc != 2) {
        fprintf(stderr, "usage: c_quickstart ACCOUNT_URL\n");
        return 2;
    }
    VMKError* error = NULL;
    if (!VMKVelmoraInitialize("quickstart-app", "quickstart-client", argv[1], &error)) {
        fprintf(stderr, "not initialised: %s\n", VMKErrorGetDescription(error));
        VMKErrorRelease(error);
        return 1;
    }
    VMKVelmora* velmora = VMKVelmoraCopyInstance(NULL);
    VMKObjCAnonymous* ann = VMKObjCAnonymousCreate("Ann", "ann@example.com", NULL);
    VMKVelmoraSetAnonymousIdentity(velmora, ann, NULL);
    VMKObjCAnonymousRelease(ann);

    int status = 1;
    VMKUserProvider* users = VMKUserProviderCreate(velmora, NULL);
    VMKUserProviderGetUser(users, gotUser, &status, NULL);
    VMKVelmoraWaitForPendingRequests(10000); /* also lets events and unregistrations finish */

    VMKUserProviderRelease(users);
    VMKVelmoraRelease(velmora);
    return status;
}
