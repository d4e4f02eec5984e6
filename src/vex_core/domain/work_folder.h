#pragma once
// What lies below the folder that "app.path.work" names, and the warning about what somebody else had a hand in there.

#include "vex/core/dom.h"
#include "vex_core/os/guarded_place.h"

#include <optional>
#include <string>

namespace VexCore {

/// Whether it names something in a folder, and not the folder, the one above or something below.
bool IsPlainName(const std::string& name);

/// The place of a path of the process that leads through its work folder, however that is spelled or reached; nothing
/// for one elsewhere.
std::optional<os::GuardedPlace> PlaceInWorkFolder(const std::string& path);

/// Makes a plugin's folder, as `CDom::GetPluginWorkdir` does, opens it, and tells its path. None with the last error,
/// and with the reason in `breach` when it may not be used.
os::Descriptor OpenPluginWorkdir(const CDom& dom, const std::string& plugin, std::string& path, std::string& breach);
/// The same for those who want the path alone. False when the folder may not be used.
bool MakePluginWorkdir(const CDom& dom, const std::string& plugin, std::string& path, std::string& breach);

/// Logs what broke the rule of `place`, if anything did: one warning each in the life of the process. Any thread.
void WarnOfBreach(const os::GuardedPlace& place);

} // namespace VexCore
