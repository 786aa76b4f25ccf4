// SPDX-License-Identifier: Apache-2.0
#pragma once

#include <cstdint>

#include "security_privacy/export.h"
#include "security_privacy/security_privacy_service_intf.h"
#include "varn/ref_base.h"

namespace VARN::AppSecurityPrivacy::SecurityPrivacyServer {

// Why there is no service. The values may be kept and printed; new ones come at the end.
enum class ConnectError {
    NONE,          // there is one
    NO_MANAGER,    // this process has no system ability manager
    NO_SERVICE,    // it did not appear in time, or may not be trusted: the log says which
    SERVICE_DEAD,  // what the manager found is gone already
    NO_PROXY,      // no proxy could be made for it
};

// The service, or why there is none.
struct ConnectResult {
    sptr<SecurityPrivacyServiceIntf> service;       // null unless `error` is NONE
    ConnectError error = ConnectError::NO_SERVICE;  // why `service` is null
};

// Looks the service up, waiting at most `timeoutSeconds` for it to appear (0: not at all). For callers that
// `SecurityPrivacyClient` does not serve: it handles one request at a time, and its 0 does not tell "done" from "there
// is no service". Here each request of each thread is on its way at once, on a connection of its own, and a request
// that does not reach the service gives -1.
//
// What it gives may be kept and used by several threads side by side, for as long as the process lives: after a restart
// of the service the next request finds the new one. A request takes at most 8 seconds, unless the service is an object
// of this process: its operations run on the caller's thread, for as long as they take. When memory runs out, the step
// that needed it counts as failed.
//
// Thread safety: may be called from any thread, also inside a callback of the client.
SECURITY_PRIVACY_API ConnectResult Connect(int32_t timeoutSeconds);

}  // namespace VARN::AppSecurityPrivacy::SecurityPrivacyServer
