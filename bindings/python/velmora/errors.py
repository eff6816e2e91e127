"""Errors: the library's error domains and codes (as in velmora/Errors.h and velmora/VelmoraC.h), and the
exception every failed call raises."""

CORE_DOMAIN = "com.velmora.sdk.core"
ACCESS_FAILED = 1000  # the login failed; every request that needed it fails with it
PUSH_REGISTRATION_FAILED = 2000
USER_NO_DATA = 3000
HTTP_STATUS_CODE_KEY = "HTTP Status code"  # the user-info key of the HTTP status of a failed answer

ACCESS_DOMAIN = "com.velmora.core.access"
NO_IDENTITY = 100  # no identity is stored: call Velmora.set_identity first

DECODING_DOMAIN = "NSCocoaErrorDomain"
NOT_JSON = 3840
DATA_CORRUPTED = 4864
VALUE_NOT_FOUND = 4865
ENCODING_FAILED = 4866

URL_DOMAIN = "NSURLErrorDomain"
URL_TIMED_OUT = -1001
URL_CANNOT_FIND_HOST = -1003
URL_CANNOT_CONNECT_TO_HOST = -1004
URL_NETWORK_CONNECTION_LOST = -1005
URL_BAD_SERVER_RESPONSE = -1011

POSIX_DOMAIN = "NSPOSIXErrorDomain"

# Arguments the C interface refuses, and calls it cannot make.
INTERFACE_DOMAIN = "com.velmora.core.c-interface"
NULL_ARGUMENT = 1
INVALID_ARGUMENT = 2
NOT_INITIALISED = 3
INTERNAL = 4
REFUSED = 5


class VelmoraError(Exception):
    """A failed call: the error's domain, integer code, description and user info (a dict)."""

    def __init__(self, domain, code, description="", user_info=None):
        super().__init__(f"{domain} {code}: {description}")
        self.domain = domain
        self.code = code
        self.description = description
        self.user_info = user_info or {}
