#pragma once

namespace VexCore {

/// Reads the trace lists of the process's root domain anew. The domain calls it after a write to one of them, and when the
/// process's root comes or goes. Any thread.
void ReloadTraceModules();

} // namespace VexCore
