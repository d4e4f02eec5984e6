#pragma once
// A name for the host that tells nobody outside which machine it is.

#include <string>

namespace VexCore {

class CDom;

/// 32 hexadecimal digits that stay the same from run to run, and are others for an agent of another name. They come
/// from the system's own id of the machine by a hash that does not lead back to it. Where the system has none they are
/// made by chance, once, and kept in "app.path.work"/host.id. Empty when that cannot be done either. Any thread.
std::string HostId(const CDom& dom);

/// The same for somebody who reads what an agent has left, of whatever user: nothing is made. Empty where the agent has
/// made none either. Any thread.
std::string FindHostId(const std::string& agent, const std::string& workFolder);

} // namespace VexCore
