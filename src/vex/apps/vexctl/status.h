#pragma once
// What `vexctl status` tells programs, for those who pass it on.

#include "vex/apps/vexctl/json_text.h"
#include "vex/apps/vexctl/place.h"

namespace Vexctl {

/// docs/schema/vexctl-status.json.
Json StatusJson(const Place& place);

} // namespace Vexctl
