#pragma once
// Takes the place of the active log target of the thread and keeps the lines.

#include <string>
#include <vector>

#include <wx/log.h>

namespace Test {

class CapturedLog
{
public:
    struct Line
    {
        wxLogLevel level;
        std::string text;
    };

    CapturedLog()
        : m_before(wxLog::SetActiveTarget(&m_target))
    {
    }
    ~CapturedLog() { wxLog::SetActiveTarget(m_before); }
    CapturedLog(const CapturedLog&) = delete;
    CapturedLog& operator=(const CapturedLog&) = delete;

    const std::vector<Line>& Lines() const { return m_target.lines; }
    void Clear() { m_target.lines.clear(); }

private:
    class Target : public wxLog
    {
    public:
        std::vector<Line> lines;

    protected:
        void DoLogRecord(wxLogLevel level, const wxString& message, const wxLogRecordInfo&) override
        {
            lines.push_back({level, std::string(message.utf8_str())});
        }
    };

    Target m_target;
    wxLog* m_before;
};

} // namespace Test
