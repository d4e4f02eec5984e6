#pragma once
// A pipe in a plugin's folder by which another process asks this one for something: whoever may write to it sets a key
// of the domain. Nobody polls for it, and nothing is on disk but the pipe's name.

#include "vex/core/dom.h"

#include <string>

namespace VexCore {

/// The name of the pipe in the folder of a plugin.
constexpr char doorbellName[] = "doorbell";

/// Makes the pipe in the folder of a plugin, as `CDom::GetPluginWorkdir` makes that, and writes true to `key` each time
/// somebody has written to the pipe, until the calling thread is asked to end. False, with the reason, when there is no
/// such pipe to be had. Rings that come together may count as one.
bool AnswerDoorbell(CDom& dom, const std::string& plugin, const std::string& key, std::string& error);

} // namespace VexCore
