#pragma once
// Catches what the test's own thread logs while the object lives.

#include <string>
#include <utility>
#include <vector>

#include <wx/log.h>

namespace Test {

class LogCapture
{
public:
    struct Line
    {
        wxLogLevel level;
        std::string text; ///< UTF-8; the system error of wxLogSysError included
    };

    LogCapture() : m_previous(wxLog::SetActiveTarget(&m_target)), m_level(wxLog::GetLogLevel())
    {
        wxLog::SetLogLevel(wxLOG_Max);
    }
    ~LogCapture()
    {
        wxLog::SetLogLevel(m_level);
        wxLog::SetActiveTarget(m_previous);
    }
    LogCapture(const LogCapture&) = delete;
    LogCapture& operator=(const LogCapture&) = delete;

    const std::vector<Line>& Lines() const { return m_target.m_lines; }
    /// Lines of one level that contain `part`.
    std::size_t Count(wxLogLevel level, const std::string& part) const
    {
        std::size_t count = 0;
        for (const Line& line : Lines())
            count += line.level == level && line.text.find(part) != std::string::npos ? 1 : 0;
        return count;
    }
    std::string All() const
    {
        std::string all;
        for (const Line& line : Lines())
            all += std::to_string(line.level) + " " + line.text + "\n";
        return all;
    }

private:
    struct Target : wxLog
    {
        void DoLogTextAtLevel(wxLogLevel level, const wxString& text) override
        {
            m_lines.push_back({level, std::string(text.utf8_str())});
        }
        void DoLogRecord(wxLogLevel level, const wxString& text, const wxLogRecordInfo& info) override
        {
            (void)info;
            DoLogTextAtLevel(level, text);
        }
        std::vector<Line> m_lines;
    };
    Target m_target;
    wxLog* m_previous;
    wxLogLevel m_level;
};

} // namespace Test
