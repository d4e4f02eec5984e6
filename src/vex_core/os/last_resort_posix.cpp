#include "vex_core/os/last_resort.h"

#include "vex_core/os/error.h"
#include "vex_core/os/files.h"
#include "vex_core/os/system_log.h"

namespace VexCore::os {
namespace {
// What loggers take at the least; a longer line is continued in another record.
constexpr std::size_t maxLineBytes = 1000;

// Collects lines and sends them.
class SystemLogLines
{
public:
    explicit SystemLogLines(int severity) : m_severity(severity) {}

    void Add(char c)
    {
        if (c == '\n' || m_size == maxLineBytes)
            Send();
        if (c != '\n')
            m_text[m_size++] = c;
    }
    // Sends what is left. False: something was not taken.
    bool End()
    {
        Send();
        return m_allTaken;
    }

private:
    void Send()
    {
        m_text[m_size] = '\0';
        if (m_size > 0 && !SendToSystemLog(m_severity, m_text))
            m_allTaken = false;
        m_size = 0;
    }

    const int m_severity;
    bool m_allTaken = true;
    std::size_t m_size = 0;
    char m_text[maxLineBytes + 1];
};

} // namespace

bool WriteLastResort(int descriptor, int severity, std::initializer_list<std::string_view> parts)
{
    const KeepError keep;
    if (!IsNullDevice(descriptor)) {
        bool allWritten = true;
        for (const std::string_view part : parts)
            allWritten = WriteBestEffort(descriptor, part.data(), part.size()) && allWritten;
        return allWritten;
    }
    SystemLogLines lines(severity);
    for (const std::string_view part : parts)
        for (const char c : part)
            lines.Add(c);
    return lines.End();
}

} // namespace VexCore::os
