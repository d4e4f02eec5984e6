#pragma once
// The levels of the log, and what others call them.

namespace VexCore {

enum class LogLevel { Fatal, Error, Warning, Message, Info, Debug, Trace };

inline const char* LogLevelWord(LogLevel level)
{
    static constexpr const char* words[] = {"FATAL", "ERROR", "WARNING", "MESSAGE", "INFO", "DEBUG", "TRACE"};
    return words[static_cast<int>(level)];
}

/// As syslog has it, 0 to 7.
constexpr int SeverityOf(LogLevel level)
{
    constexpr int severities[] = {2, 3, 4, 5, 6, 7, 7};
    return severities[static_cast<int>(level)];
}

} // namespace VexCore
