#pragma once
// Thread support for OpenSSL.

#include "vex/core/export.h"

namespace VexCore {

/// Installs the locking callbacks that OpenSSL before 1.1 needs; later versions lock by themselves. Main thread, once.
VEX_CORE_API void OpenSSLThreadSetup();

/// Ends the core library's workers first (asked, then joined, 10 seconds at most from when each was first asked;
/// stragglers are named in the log), then takes the callbacks back. The thread that ends the process, once.
VEX_CORE_API void OpenSSLThreadShutdown();

} // namespace VexCore
