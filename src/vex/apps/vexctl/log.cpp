// vexctl log: the records of the log, the oldest first, across rotated files; those that pass, and in the end those to
// come.

#include "vex/apps/vexctl/agent_log.h"
#include "vex/apps/vexctl/agent_state.h"
#include "vex/apps/vexctl/command.h"
#include "vex/apps/vexctl/json_text.h"
#include "vex/apps/vexctl/options.h"
#include "vex/apps/vexctl/os/watch.h"
#include "vex/apps/vexctl/shown_text.h"
#include "vex/apps/vexctl/times.h"

#include "vex_core/os/files.h"

#include <algorithm>
#include <memory>

namespace Vexctl {

namespace {
struct LogOptions
{
    bool follow = false;
    bool json = false;
    std::size_t number = 0; // 0: all
    std::string level;
    std::string process;
    TimeSpan span;
};

struct LogFilter
{
    std::optional<VexCore::LogLevel> least;
    std::optional<std::int64_t> sinceMs, untilMs;
    std::optional<long> process;

    bool TakesAll() const { return !least && !sinceMs && !untilMs && !process; }
    bool Takes(const LogLine& line) const
    {
        return (!least || line.level <= *least) && (!sinceMs || line.timeMs >= *sinceMs)
               && (!untilMs || line.timeMs <= *untilMs) && (!process || line.process == *process);
    }
};

Colour ColourOf(VexCore::LogLevel level)
{
    switch (level) {
    case VexCore::LogLevel::Fatal:
    case VexCore::LogLevel::Error:
        return Colour::Bad;
    case VexCore::LogLevel::Warning:
        return Colour::Warning;
    case VexCore::LogLevel::Debug:
    case VexCore::LogLevel::Trace:
        return Colour::Faint;
    default:
        return Colour::None;
    }
}

// Gets all lines, shows those of the records that pass.
class LogPrinter
{
public:
    LogPrinter(Output& out, const LogFilter& filter, bool json) : m_out(out), m_filter(filter), m_json(json) {}

    void Show(std::string_view line)
    {
        if (const std::optional<LogLine> begin = ParseLogLine(line)) {
            EndRecord();
            m_colour = ColourOf(begin->level);
            m_passes = m_filter.Takes(*begin);
            if (m_passes)
                ShowFirst(*begin, line);
        } else if (IsContinuation(line)) {
            if (m_passes)
                ShowFurther(line);
        } else if (!line.empty()) {
            // The rest of a piece of a record, which has lost its begin.
            EndRecord();
            m_colour = Colour::Faint;
            m_passes = m_filter.TakesAll();
            if (m_passes)
                ShowPiece(line);
        }
    }

    // What was shown so far is a record's end.
    void EndRecord()
    {
        if (!m_record.is_null())
            m_out.Write(JsonText(m_record) + "\n");
        m_record = nullptr;
    }

private:
    // A foreign file may have a record without an end.
    static constexpr std::size_t maxTextBytes = 1024 * 1024;

    void ShowFirst(const LogLine& begin, std::string_view line)
    {
        if (!m_json) {
            Print(line);
            return;
        }
        m_record = Json{
            {"schema", jsonSchema},     {"time", UtcTime(begin.timeMs)}, {"level", VexCore::LogLevelWord(begin.level)},
            {"process", begin.process}, {"thread", begin.thread},        {"text", begin.text}};
    }

    void ShowFurther(std::string_view line)
    {
        if (!m_json)
            Print(line);
        else if (!m_record.is_null() && m_record["text"].get_ref<const std::string&>().size() < maxTextBytes)
            m_record["text"].get_ref<std::string&>().append("\n").append(line.substr(4));
    }

    void ShowPiece(std::string_view line)
    {
        if (m_json)
            m_record = Json{{"schema", jsonSchema}, {"text", line}};
        else
            Print(line);
    }

    void Print(std::string_view line) { m_out.Write(m_out.Painted(m_colour, Shown(line, true)) + "\n"); }

    Output& m_out;
    const LogFilter m_filter;
    const bool m_json;
    bool m_passes = false;
    Colour m_colour = Colour::None;
    Json m_record; // being put together
};

std::int64_t SizeOf(const LogFile& file)
{
    struct stat status = {};
    return VexCore::os::FStat(file.file.Get(), status) == 0 ? status.st_size : 0;
}

// Where to begin: the files before are left out.
struct Begin
{
    std::size_t file = 0;
    std::int64_t at = 0;
};

Begin BeginOfTime(const std::vector<LogFile>& files, std::int64_t sinceMs)
{
    Begin begin;
    // A file that was last written before has nothing that is wanted.
    while (begin.file + 1 < files.size() && files[begin.file].identity.mtimeNs / 1000000 < sinceMs)
        ++begin.file;
    begin.at = FindTimeInLog(files[begin.file].file.Get(), SizeOf(files[begin.file]), sinceMs);
    return begin;
}

// The begin of the last so many records that pass, but not before `earliest`.
Begin BeginOfLast(const std::vector<LogFile>& files, const LogFilter& filter, std::size_t number, const Begin& earliest)
{
    Begin begin = earliest;
    for (std::size_t file = files.size(); number > 0 && file-- > earliest.file;)
        VisitLogBackwards(files[file].file.Get(), SizeOf(files[file]), [&](const LogLine& line, std::int64_t at) {
            if (file == earliest.file && at < earliest.at)
                return false;
            if (filter.Takes(line)) {
                begin = {file, at};
                --number;
            }
            return number > 0;
        });
    return begin;
}

class LogCommand
{
public:
    LogCommand(Session& session, const LogFilter& filter, const LogOptions& options)
        : m_session(session), m_path(session.place.LogFile()), m_out(session.out), m_filter(filter), m_options(options),
          m_printer(session.out, filter, options.json)
    {}

    int Run()
    {
        const std::string folder = m_path.substr(0, m_path.rfind('/'));
        // Before the first look, so that no change after it is missed.
        std::optional<os::FolderWatch> watch;
        if (m_options.follow)
            watch.emplace(folder);
        std::vector<std::string> problems;
        m_files = OpenLogFiles(m_path, problems);
        for (const std::string& problem : problems)
            m_session.Note(problem);
        if (m_files.empty() && problems.empty() && !m_options.follow)
            throw Failure("there is no log at " + m_path + "; --workdir and --name say where to look");
        ShowFiles(m_files.empty() ? Begin() : FirstBegin());
        while (watch) {
            m_out.Flush();
            if (watch->Wait(m_out.Descriptor(), -1) == os::FolderWatch::Woken::ReaderGone)
                throw ReaderGone();
            ShowNews();
        }
        return problems.empty() ? statusDone : statusUnusable;
    }

private:
    Begin FirstBegin() const
    {
        const Begin begin = m_filter.sinceMs ? BeginOfTime(m_files, *m_filter.sinceMs) : Begin();
        // Who watches wants what is to come.
        constexpr std::size_t beforeFollowing = 10;
        const std::size_t number =
            m_options.number == 0 && m_options.follow && !m_filter.sinceMs ? beforeFollowing : m_options.number;
        return number == 0 ? begin : BeginOfLast(m_files, m_filter, number, begin);
    }

    // From there on to the end of the last file, which stays open.
    void ShowFiles(const Begin& begin)
    {
        for (std::size_t file = begin.file; file < m_files.size(); ++file) {
            m_reader.emplace(m_files[file].file.Get(), file == begin.file ? begin.at : 0);
            ShowLines();
            const bool grows = m_options.follow && file + 1 == m_files.size();
            std::string_view rest;
            if (!grows && m_reader->Rest(rest))
                m_printer.Show(rest);
        }
        // Records are written whole, so at the end of the file one ends.
        m_printer.EndRecord();
    }

    void ShowLines()
    {
        std::string_view line;
        while (m_reader && m_reader->Next(line))
            m_printer.Show(line);
    }

    void ShowNews()
    {
        ShowLines();
        m_printer.EndRecord();
        struct stat status = {};
        const bool isThere = VexCore::os::Stat(m_path.c_str(), status) == 0;
        if (!isThere || (!m_files.empty() && m_files.back().identity.IsFileOf(status)))
            return;
        // What was written between the last look and the rotation.
        ShowLines();
        std::vector<std::string> told; // those of the begin
        std::vector<LogFile> files = OpenLogFiles(m_path, told);
        // Behind the last of those that are known: who takes the log away leaves the rotated ones.
        Begin begin;
        for (std::size_t file = 0; file < files.size(); ++file)
            if (std::any_of(m_files.begin(), m_files.end(),
                            [&](const LogFile& known) { return files[file].identity.IsFileOf(known.identity); }))
                begin.file = file + 1;
        if (begin.file == files.size())
            return; // nothing is newer: the next file is not there yet
        m_files = std::move(files);
        ShowFiles(begin);
    }

    Session& m_session;
    const std::string m_path;
    Output& m_out;
    const LogFilter m_filter;
    const LogOptions m_options;
    LogPrinter m_printer;
    std::vector<LogFile> m_files;
    std::optional<LineReader> m_reader; // of the last file
};

long FindProcess(const std::string& text, const Place& place)
{
    if (text != "supervisor" && text != "child")
        return std::stol(text);
    const AgentState state = FindAgentState(place);
    const pid_t pid = text == "child" ? state.child : state.supervisor;
    if (pid == 0)
        throw Failure("no " + text + " of " + place.name + " is known to run: " + state.reason);
    return pid;
}

std::string WhyNoProcess(const std::string& text)
{
    const bool isWord = text == "supervisor" || text == "child";
    const bool isNumber =
        !text.empty() && text.size() < 10 && text.find_first_not_of("0123456789") == std::string::npos;
    return isWord || isNumber ? std::string() : "'" + text + "' is neither a process id nor supervisor or child";
}

std::string WhyNoLevel(const std::string& text)
{
    return FindLogLevel(text) ? std::string()
                              : "'" + text + "' is no level: fatal, error, warning, message, info, debug and trace are";
}

} // namespace

Body AddLog(Options& options)
{
    const auto asked = std::make_shared<LogOptions>();
    options.Flag("-f,--follow", asked->follow, "Show the last 10 records, or what --number and --since say, and go on");
    options.Count("-n,--number", asked->number, "Only the last so many records");
    options.Text("--level", asked->level, "Only records that are at least so grave: warning has fatal and error too")
        .Check(WhyNoLevel)
        .Type("LEVEL");
    options.Text("--process", asked->process, "Only records of one process: an id, \"supervisor\" or \"child\"")
        .Check(WhyNoProcess)
        .Type("PROCESS");
    asked->span.AddTo(options);
    options.Flag("--json", asked->json, "One JSON object a record");
    return [asked](Session& session) {
        LogFilter filter;
        filter.sinceMs = asked->span.SinceMs();
        filter.untilMs = asked->span.UntilMs();
        if (!asked->level.empty())
            filter.least = FindLogLevel(asked->level);
        if (!asked->process.empty())
            filter.process = FindProcess(asked->process, session.place);
        return LogCommand(session, filter, *asked).Run();
    };
}

} // namespace Vexctl
