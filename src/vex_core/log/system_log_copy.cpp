// The logger may be slow, gone, or never there, and the agent is to notice as little of it as can be: so one short
// wait, one look a second, and one line in the log.

#include "vex_core/log/system_log_copy.h"

#include "vex_core/os/error.h"

#include <utility>

namespace VexCore {

namespace {
constexpr int patienceMs = 5;
// Between the end of one gap and the next word about another.
constexpr std::time_t quietSeconds = 60;

bool IsInsideCharacter(char byte)
{
    return (static_cast<unsigned char>(byte) & 0xC0) == 0x80;
}

} // namespace

std::string CopiedText(std::string_view text)
{
    if (text.size() <= maxCopiedBytes)
        return std::string(text);
    constexpr std::size_t longestCharacter = 4;
    std::size_t end = maxCopiedBytes;
    while (IsInsideCharacter(text[end]) && end > maxCopiedBytes - longestCharacter)
        --end;
    return std::string(text.substr(0, end)) + " ... (cut, " + std::to_string(text.size()) + " bytes in all)";
}

void SystemLogCopy::SetSettings(const Settings& settings)
{
    m_settings = settings;
    m_facility.store(settings.facility, std::memory_order_relaxed);
    if (settings.facility == nowhere)
        Forget();
}

bool SystemLogCopy::Send(LogLevel level, std::time_t time, std::string_view text)
{
    const std::time_t now = m_now();
    const bool isToBeTried = m_works || m_log.IsConnected() || now != m_triedAt;
    if (isToBeTried) {
        const std::string copied = CopiedText(text);
        m_works =
            m_log.Send({m_settings.facility, SeverityOf(level), time, copied.c_str()}, m_isStuck ? 0 : patienceMs);
        m_isStuck = !m_works;
        m_triedAt = now;
        m_error = m_works ? 0 : os::LastError();
    }
    return m_works;
}

// A clock that was set back makes nobody quiet for longer.
bool SystemLogCopy::IsQuiet() const
{
    const std::time_t now = m_now();
    return now >= m_gapToldAt && now - m_gapToldAt < quietSeconds;
}

std::string SystemLogCopy::Notice() const
{
    if (m_leftOut == 0)
        return std::string();
    if (m_works && (m_troubleTold || !IsQuiet()))
        return "The system log takes lines again, " + std::to_string(m_leftOut) + " are in this file alone";
    if (!m_works && !m_troubleTold && !IsQuiet())
        return "The system log takes no lines (error " + std::to_string(m_error) + ": " + os::ErrorText(m_error)
               + "), they are in this file alone until it does";
    return std::string();
}

bool SystemLogCopy::NoticeIsTold()
{
    m_troubleTold = !m_works;
    if (!m_works) {
        m_leftOut += Wants(LogLevel::Warning) ? 1 : 0; // the notice itself
        return false;
    }
    m_leftOut = 0;
    m_gapToldAt = m_now();
    return true;
}

std::string SystemLogCopy::TakeLastNotice()
{
    const std::size_t count = std::exchange(m_leftOut, 0);
    return count == 0 ? std::string()
                      : "The system log has not taken " + std::to_string(count) + " lines, they are in this file alone";
}

void SystemLogCopy::Forget()
{
    m_log.Close();
    m_works = true;
    m_isStuck = false;
    m_leftOut = 0;
    m_troubleTold = false;
    m_gapToldAt = 0;
}

} // namespace VexCore
