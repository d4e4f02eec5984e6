#pragma once
// Collects what is logged while it lives, on any thread: the disk log has one place for the whole process, so a test cannot have it.

#include <wx/log.h>
#include <wx/string.h>

namespace Test {

class LogCatcher : public wxLog
{
public:
    LogCatcher() : m_before(wxLog::SetActiveTarget(this)) {}
    ~LogCatcher() override
    {
        wxLog::FlushActive();
        wxLog::SetActiveTarget(m_before);
    }
    /// All lines so far, those that other threads left in the framework's queue included. Main thread.
    wxString Text()
    {
        wxLog::FlushActive();
        return m_text;
    }

protected:
    void DoLogRecord(wxLogLevel, const wxString& message, const wxLogRecordInfo&) override { m_text += message + "\n"; }

private:
    wxLog* m_before;
    wxString m_text;
};

} // namespace Test
