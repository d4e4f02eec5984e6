#pragma once
// Collects what is logged while it lives, in place of any other target. What other threads log comes in when the main
// thread asks, as the framework's queue is emptied then. All levels are let through.

#include <cstddef>
#include <string>
#include <vector>

#include <wx/log.h>
#include <wx/thread.h>

namespace Test {

class LogCatcher
{
public:
    struct Line
    {
        wxLogLevel level;
        std::string text; ///< UTF-8; the system's error of wxLogSysError included
    };

    LogCatcher() : m_before(wxLog::SetActiveTarget(&m_target)), m_levelBefore(wxLog::GetLogLevel())
    {
        wxLog::SetLogLevel(wxLOG_Max);
    }
    virtual ~LogCatcher()
    {
        wxLog::FlushActive();
        wxLog::SetLogLevel(m_levelBefore);
        wxLog::SetActiveTarget(m_before);
    }
    LogCatcher(const LogCatcher&) = delete;
    LogCatcher& operator=(const LogCatcher&) = delete;

    virtual const std::vector<Line>& Lines() const
    {
        if (wxThread::IsMain())
            wxLog::FlushActive();
        return m_target.m_lines;
    }
    /// Lines of one level that begin with `begin`.
    std::size_t Count(wxLogLevel level, const std::string& begin) const
    {
        std::size_t count = 0;
        for (const Line& line : Lines())
            count += line.level == level && line.text.compare(0, begin.size(), begin) == 0 ? 1 : 0;
        return count;
    }
    /// The texts one below the other.
    std::string Text() const
    {
        std::string text;
        for (const Line& line : Lines())
            text += line.text + "\n";
        return text;
    }
    /// The same, each line with the number of its level in front.
    std::string All() const
    {
        std::string all;
        for (const Line& line : Lines())
            all += std::to_string(line.level) + " " + line.text + "\n";
        return all;
    }

protected:
    struct Target : wxLog
    {
        void DoLogRecord(wxLogLevel level, const wxString& text, const wxLogRecordInfo&) override
        {
            m_lines.push_back({level, std::string(text.utf8_str())});
        }
        std::vector<Line> m_lines;
    };
    Target m_target;

private:
    wxLog* m_before;
    wxLogLevel m_levelBefore;
};

} // namespace Test
