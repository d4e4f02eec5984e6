#pragma once
// Collects what reaches the disk log while it lives, through the framework and past it, in place of the process's log.
// A line is as a reader of the file sees it, without the indentation of its further lines.

#include "log_catcher.h"
#include "own_process_log.h"
#include "temp_folder.h"
#include "vex/core/log.h"
#include "vex_core/log/process_log.h"

#include <cstddef>
#include <string>
#include <utility>
#include <vector>

#include <unistd.h>
#include <wx/log.h>
#include <wx/thread.h>

namespace Test {

class DiskLogCatcher : public LogCatcher
{
public:
    DiskLogCatcher() { wxLog::SetActiveTarget(&m_diskTarget); }
    ~DiskLogCatcher() override
    {
        wxLog::FlushActive();
        wxLog::SetActiveTarget(&m_target);
    }

    const std::vector<Line>& Lines() const override
    {
        // Not before: whoever counts system calls meanwhile counts none of the log's.
        m_log.SetFile(m_folder / "log");
        if (wxThread::IsMain())
            wxLog::FlushActive();
        m_log.Flush();
        m_lines.clear();
        for (const std::string& row : LinesOf(FileText())) {
            if (row.compare(0, 4, "    ") == 0 && !m_lines.empty())
                m_lines.back().text += "\n" + row.substr(4);
            else
                m_lines.push_back(Parsed(row));
        }
        return m_lines;
    }

private:
    // By the descriptor: where a domain names a folder, the file is there.
    std::string FileText() const
    {
        std::string text;
        char bytes[65536];
        for (ssize_t count = 1; count > 0; text.append(bytes, count > 0 ? static_cast<std::size_t>(count) : 0))
            count = ::pread(m_log.Descriptor(), bytes, sizeof bytes, static_cast<off_t>(text.size()));
        return text;
    }
    static Line Parsed(const std::string& row)
    {
        static const std::pair<const char*, wxLogLevel> levels[] = {
            {" FATAL [", wxLOG_FatalError}, {" ERROR [", wxLOG_Error}, {" WARNING [", wxLOG_Warning},
            {" MESSAGE [", wxLOG_Message},  {" INFO [", wxLOG_Info},   {" DEBUG [", wxLOG_Debug},
            {" TRACE [", wxLOG_Trace}};
        Line line{wxLOG_Max, row};
        std::size_t first = std::string::npos;
        for (const auto& [word, level] : levels)
            if (const std::size_t at = row.find(word); at < first) {
                first = at;
                line = {level, row.substr(row.find("] ", at) + 2)};
            }
        return line;
    }

    TempFolder m_folder;
    mutable VexCore::DiskLog m_log{std::size_t{1} << 30};
    VexCore::CLog2Disk m_diskTarget;
    const OwnProcessLog m_processLog{m_log};
    mutable std::vector<Line> m_lines;
};

} // namespace Test
