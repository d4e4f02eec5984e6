// The system's log is opened for one text and closed after it: its descriptor must not be in the way when the start of
// the background closes what it was not told of.

#include "vex_core/os/last_resort.h"

#include "vex_core/os/error.h"
#include "vex_core/os/files.h"
#include "vex_core/os/observed.h"

#include <syslog.h>

namespace VexCore::os {
namespace {
// What loggers take at the least; a longer line is continued in another record.
constexpr std::size_t maxLineBytes = 1000;

// Collects one line.
class SystemLogLine
{
public:
    explicit SystemLogLine(int severity) : m_severity(severity) { ::openlog(nullptr, LOG_PID | LOG_CONS, LOG_DAEMON); }
    ~SystemLogLine()
    {
        Send();
        ::closelog();
    }
    SystemLogLine(const SystemLogLine&) = delete;
    SystemLogLine& operator=(const SystemLogLine&) = delete;

    void Add(char c)
    {
        if (c == '\n' || m_size == maxLineBytes)
            Send();
        if (c != '\n')
            m_text[m_size++] = c;
    }

private:
    void Send()
    {
        m_text[m_size] = '\0';
        if (m_size > 0 && MayCall(OfDescriptor("syslog", m_severity, m_text)))
            ::syslog(LOG_DAEMON | m_severity, "%s", m_text);
        m_size = 0;
    }

    const int m_severity;
    std::size_t m_size = 0;
    char m_text[maxLineBytes + 1];
};

} // namespace

void WriteLastResort(int standardError, int severity, std::initializer_list<std::string_view> parts)
{
    const KeepError keep;
    if (!IsNullDevice(standardError)) {
        for (const std::string_view part : parts)
            WriteBestEffort(standardError, part.data(), part.size());
        return;
    }
    SystemLogLine line(severity);
    for (const std::string_view part : parts)
        for (const char c : part)
            line.Add(c);
}

} // namespace VexCore::os
