#pragma once
// The crash dumps that an agent has kept, as text and as JSON.

#include "vex/apps/vexctl/crash_dump.h"
#include "vex/apps/vexctl/json_text.h"
#include "vex/apps/vexctl/log_story.h"
#include "vex/apps/vexctl/place.h"

#include <string>
#include <vector>

namespace Vexctl {

/// The latest first. Throws Failure when their folder cannot be read.
std::vector<CrashDump> FindCrashDumps(const Place& place);

/// The file and the offset in whose code the thread was, and the thread.
std::string PlaceText(const CrashDump& dump);
std::string ThreadText(const CrashDump& dump);
/// Of the process that crashed, where the log tells it; else empty.
std::string VersionOf(const CrashDump& dump, const LogStory& story);
/// How a debugger opens it.
std::string OpenCommand(const CrashDump& dump, const Place& place);

Json JsonOf(const CrashDump& dump, const std::string& version, const Place& place);

} // namespace Vexctl
