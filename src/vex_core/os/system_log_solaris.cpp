// The system's log is a device here, which takes a line or refuses it. Only syslog(3) knows its records, so nothing is
// kept open, nobody waits, and the time is that of the sending.

#include "vex_core/os/system_log.h"

#include "vex_core/os/observed.h"

#include <stdlib.h>
#include <string.h>
#include <syslog.h>
#include <unistd.h>

namespace VexCore::os {
namespace {
// authpriv and ftp are not known here.
constexpr struct
{
    const char* name;
    int number;
} facilities[] = {{"auth", LOG_AUTH},     {"authpriv", LOG_AUTH}, {"cron", LOG_CRON},     {"daemon", LOG_DAEMON},
                  {"ftp", LOG_DAEMON},    {"lpr", LOG_LPR},       {"mail", LOG_MAIL},     {"news", LOG_NEWS},
                  {"syslog", LOG_SYSLOG}, {"user", LOG_USER},     {"uucp", LOG_UUCP},     {"local0", LOG_LOCAL0},
                  {"local1", LOG_LOCAL1}, {"local2", LOG_LOCAL2}, {"local3", LOG_LOCAL3}, {"local4", LOG_LOCAL4},
                  {"local5", LOG_LOCAL5}, {"local6", LOG_LOCAL6}, {"local7", LOG_LOCAL7}};

} // namespace

int SystemLogFacility(std::string_view name)
{
    for (const auto& facility : facilities)
        if (name == facility.name)
            return facility.number;
    return -1;
}

const char* SystemLogName()
{
    const char* const path = ::getexecname();
    const char* const slash = path ? ::strrchr(path, '/') : nullptr;
    return slash ? slash + 1 : path ? path : "";
}

bool SystemLog::Send(const SystemLogRecord& record, int)
{
    return Observed(OfDescriptor("syslog", record.facility | record.severity, record.text),
                    [&] {
                        // Without openlog the record has no name, or the one of other code.
                        ::syslog(record.facility | record.severity, "%s[%ld]: %s", SystemLogName(),
                                 static_cast<long>(::getpid()), record.text);
                        return 0;
                    })
           == 0;
}

void SystemLog::Close() {}

bool SendToSystemLog(int severity, const char* line)
{
    return SystemLog().Send({LOG_DAEMON, severity, std::time(nullptr), line}, 0);
}

bool SendToSystemLogInHandler(const char*, std::size_t)
{
    return false; // syslog(3) is not for handlers
}

} // namespace VexCore::os
