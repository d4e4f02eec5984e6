#include "vex/apps/vexctl/os/watch.h"

namespace Vexctl::os {

// Its notices are of one file at one time each, and have to be asked for anew: the look by the clock does.
FolderWatch::FolderWatch(const std::string&) {}

void FolderWatch::TakeNotices() {}

} // namespace Vexctl::os
