#pragma once

// Everything a host application needs: the facade and its providers, the identity types, the logger, the
// executor switch and help-centre loading.
#include "velmora/Errors.h"
#include "velmora/core/HelpCenterUtil.h"
#include "velmora/core/VMKAuthenticationURLProtocol.h"
#include "velmora/core/Velmora.h"
#include "velmora/identity/Identity.h"
#include "velmora/identity/ObjCIdentity.h"
#include "velmora/network/ProviderService.h"
#include "velmora/platform/Environment.h"
#include "velmora/support/CoreLogger.h"
