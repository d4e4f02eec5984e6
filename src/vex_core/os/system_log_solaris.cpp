// The system's log is a device here, which takes a line or refuses it. Only syslog(3) knows its records.

#include "vex_core/os/system_log.h"

#include "vex_core/os/observed.h"

#include <stdlib.h>
#include <string.h>
#include <syslog.h>
#include <unistd.h>

namespace VexCore::os {

bool SendToSystemLog(int severity, const char* line)
{
    return Observed(OfDescriptor("syslog", severity, line),
                    [&] {
                        // Without openlog the record has no name, or the one of other code.
                        const char* const path = ::getexecname();
                        const char* const slash = path ? ::strrchr(path, '/') : nullptr;
                        const char* const name = slash ? slash + 1 : path ? path : "";
                        ::syslog(LOG_DAEMON | severity, "%s[%ld]: %s", name, static_cast<long>(::getpid()), line);
                        return 0;
                    })
           == 0;
}

} // namespace VexCore::os
