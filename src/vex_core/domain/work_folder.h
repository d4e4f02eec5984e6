#pragma once
// What lies below the folder that "app.path.work" names, and the warning about what somebody else had a hand in there.

#include "vex/core/dom.h"
#include "vex_core/os/guarded_place.h"

#include <optional>
#include <string>

namespace VexCore {

/// The place of a path of the process that leads through its work folder, however that is spelled or reached; nothing
/// for one elsewhere.
std::optional<os::GuardedPlace> PlaceInWorkFolder(const std::string& path);

/// Makes a plugin's folder, as `CDom::GetPluginWorkdir` does, and tells its path. False, with the reason, when it may
/// not be used.
bool MakePluginWorkdir(const CDom& dom, const std::string& plugin, std::string& path, std::string& breach);

/// Logs what broke the rule of `place`, if anything did: one warning each in the life of the process. Any thread.
void WarnOfBreach(const os::GuardedPlace& place);

} // namespace VexCore
