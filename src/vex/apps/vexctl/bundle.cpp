// vexctl bundle: one archive with what somebody needs who looks into a fault from afar. What goes into it is shown, and
// secrets are masked by their names.

#include "vex/apps/vexctl/agent_log.h"
#include "vex/apps/vexctl/agent_report.h"
#include "vex/apps/vexctl/command.h"
#include "vex/apps/vexctl/crash_list.h"
#include "vex/apps/vexctl/json_text.h"
#include "vex/apps/vexctl/new_file.h"
#include "vex/apps/vexctl/progress.h"
#include "vex/apps/vexctl/report_page.h"
#include "vex/apps/vexctl/secrets.h"
#include "vex/apps/vexctl/shown_text.h"
#include "vex/apps/vexctl/status.h"
#include "vex/apps/vexctl/tar_writer.h"
#include "vex/apps/vexctl/text_table.h"
#include "vex/apps/vexctl/times.h"

#include "vex/apps/vex/version.h"

#include "vex/core/clock.h"
#include "vex_core/os/descriptor.h"
#include "vex_core/os/error.h"
#include "vex_core/os/files.h"
#include "vex_core/os/folders.h"

#include <algorithm>
#include <map>
#include <memory>

#include <fcntl.h>

namespace Vexctl {

namespace {
constexpr std::size_t maxLogBytes = 32 * 1024 * 1024;
constexpr std::size_t maxEvents = 10000;
constexpr std::size_t maxHeartbeats = 20000;
constexpr std::size_t maxListed = 2000; // files of a folder
constexpr std::uint64_t maxDumpBytes = 64 * 1024 * 1024;
constexpr std::int64_t shownOnPageMs = std::int64_t{7} * 24 * 60 * 60 * 1000;

struct BundleOptions
{
    std::string output;
    bool dumps = false;
    bool json = false;
    std::vector<std::string> launcher;
};

class Bundle
{
public:
    Bundle(Session& session, const BundleOptions& options)
        : m_session(session), m_options(options), m_progress(session.err),
          m_stem(session.place.FileName().substr(0, 100) + "-support-" + TimeInName(m_nowMs)),
          m_archive(m_stem, m_nowMs)
    {}

    int Write()
    {
        const std::string path = m_options.output.empty() ? m_stem + ".tar.gz" : m_options.output;
        ExpectRoomForFile(path);
        AddStatus();
        AddReport();
        AddLog();
        AddEvents();
        AddHeartbeats();
        AddCrashes();
        AddSettings();
        AddVersions();
        AddFolder("work-folder.txt", "names of the files in the work folder", m_session.place.workFolder);
        AddFolder("installed.txt", "names of the installed files", m_session.place.binFolder);
        Add("README.txt", "what is in here", Readme());
        m_progress.Show("writing the archive");
        const std::string bytes = m_archive.Finish();
        WriteNewFile(path, bytes);
        m_progress.Clear();
        Tell(path, bytes.size());
        return statusDone;
    }

private:
    struct Entry
    {
        std::string name;
        std::size_t bytes;
        std::string what;
    };

    // "20260131T102030Z".
    static std::string TimeInName(std::int64_t timeMs)
    {
        std::string text = UtcTime(timeMs);
        text = text.substr(0, text.find('.')) + "Z";
        text.erase(std::remove_if(text.begin(), text.end(), [](char c) { return c == '-' || c == ':'; }), text.end());
        return text;
    }

    void Add(const std::string& name, const std::string& what, std::string_view bytes)
    {
        m_archive.Add(name, bytes);
        m_entries.push_back({name, bytes.size(), what});
    }

    // What cannot be had is told, and the rest goes on.
    template <typename Function>
    void Try(const std::string& what, const Function& function)
    {
        m_progress.Show("looking at " + what);
        try {
            function();
        } catch (const Failure& failure) {
            m_problems.emplace_back(failure.what());
        }
    }

    void AddStatus()
    {
        Try("the agent", [this] {
            Add("status.json", "what vexctl status tells", JsonText(MaskedJson(StatusJson(m_session.place)), 2) + "\n");
        });
    }

    void AddReport()
    {
        PageContent page = CollectPage(m_session.place, m_nowMs - shownOnPageMs);
        Try("the report", [&] {
            ReportRequest request;
            request.options = m_options.launcher;
            page.report =
                ReadAgentReport(m_session.place, request, [&](const std::string& note) { m_problems.push_back(note); });
            Add("report.json", "the agent's report on its host", JsonText(MaskedJson(page.report), 2) + "\n");
        });
        page.problems.insert(page.problems.end(), m_problems.begin(), m_problems.end());
        Add("report.html", "the same and more as a page", ReportPage(page));
    }

    void AddLog()
    {
        Try("the log", [this] {
            bool isAll = true;
            const std::string log = ReadLogTail(m_session.place.LogFile(), maxLogBytes, isAll);
            Add("log.txt", isAll ? "the log" : "the last 32 MiB of the log", MaskSecrets(log));
        });
    }

    void AddEvents()
    {
        Try("the events", [this] {
            AgentDatabase database(m_session.place.EventsFile());
            std::string lines;
            for (Event& event : ReadLastEvents(database, maxEvents)) {
                event.text = MaskSecrets(event.text);
                lines += JsonLine(event) += '\n';
            }
            Add("events.jsonl", "the last 10,000 events", lines);
        });
    }

    void AddHeartbeats()
    {
        Try("the heartbeats", [this] {
            AgentDatabase database(m_session.place.HeartbeatFile());
            HeartbeatWish wish;
            wish.number = maxHeartbeats;
            std::string lines;
            for (const Heartbeat& beat : ReadHeartbeats(database, wish))
                lines += JsonText(JsonOf(beat)) + "\n";
            Add("heartbeats.jsonl", "the last 20,000 heartbeats", lines);
        });
    }

    void AddCrashes()
    {
        Try("the crashes", [this] {
            LogStory story;
            Try("the log", [&] { story = ReadLogStory(m_session.place, maxLogBytes); });
            std::string lines;
            const std::vector<CrashDump> dumps = FindCrashDumps(m_session.place);
            for (const CrashDump& dump : dumps)
                lines += JsonText(JsonOf(dump, VersionOf(dump, story), m_session.place)) + "\n";
            Add("crashes.jsonl", "what crashed where", lines);
            for (const CrashDump& dump : m_options.dumps ? dumps : std::vector<CrashDump>())
                Try(dump.path, [&] { AddDump(dump); });
        });
    }

    void AddDump(const CrashDump& dump)
    {
        const VexCore::os::Descriptor file(VexCore::os::Open(dump.path.c_str(), O_RDONLY | O_NONBLOCK | O_NOCTTY));
        struct stat status = {};
        if (!file || VexCore::os::FStat(file.Get(), status) != 0)
            throw Failure(dump.path + ": " + VexCore::os::ErrorText(VexCore::os::LastError()));
        if (!S_ISREG(status.st_mode) || static_cast<std::uint64_t>(status.st_size) > maxDumpBytes)
            throw Failure(dump.path + " is left out: it is larger than 64 MiB, or no file");
        std::string bytes(static_cast<std::size_t>(status.st_size), '\0');
        const ssize_t size = VexCore::os::PReadFull(file.Get(), bytes.data(), bytes.size(), 0);
        if (size < 0)
            throw Failure(dump.path + ": " + VexCore::os::ErrorText(VexCore::os::LastError()));
        bytes.resize(static_cast<std::size_t>(size));
        Add("dumps/" + dump.path.substr(dump.path.rfind('/') + 1),
            "a dump: the memory of a process, with nothing masked", bytes);
    }

    void AddSettings()
    {
        m_progress.Show("looking at the settings");
        for (const auto& [path, text] : ReadSettings(m_session.place, m_problems)) {
            std::string name = path.substr(path.find_first_not_of('/'));
            std::replace(name.begin(), name.end(), '/', '_');
            constexpr std::size_t maxName = 90;
            Add("settings/" + name.substr(name.size() - std::min(name.size(), maxName)), path, text);
        }
    }

    void AddVersions()
    {
        Json versions = {{"schema", jsonSchema}, {"vexctl", VEX_VERSION_TEXT}, {"agents", Json::array()}};
        Try("the versions", [&] {
            std::vector<std::string> known;
            for (const auto& [process, version] : ReadLogStory(m_session.place, maxLogBytes).versions)
                if (std::find(known.begin(), known.end(), version) == known.end())
                    known.push_back(version);
            versions["agents"] = known;
        });
        Add("versions.json", "of vexctl, and of the agents that the log tells of", JsonText(versions, 2) + "\n");
    }

    // Names, modes, sizes and times; links are not followed.
    void AddFolder(const std::string& name, const char* what, const std::string& folder)
    {
        m_progress.Show("looking at " + folder);
        std::map<std::string, std::string> lines; // by path
        ListBelow(folder, lines);
        if (lines.size() >= maxListed)
            m_problems.push_back("of the files below " + folder + " only " + std::to_string(maxListed) + " are listed");
        std::string text = "mode   owner        bytes  changed                   file\n";
        for (const auto& [path, line] : lines)
            text += line + Shown(path) + "\n";
        Add(name, what, text);
    }

    void ListBelow(const std::string& folder, std::map<std::string, std::string>& lines)
    {
        std::vector<std::string> paths;
        const auto take = [&](const char* name) {
            paths.push_back(folder + "/" + name);
            return lines.size() + paths.size() < maxListed;
        };
        if (VexCore::os::ListFolder(folder.c_str(), take) != 0)
            m_problems.push_back(folder + ": " + VexCore::os::ErrorText(VexCore::os::LastError()));
        for (const std::string& path : paths) {
            struct stat status = {};
            if (lines.size() >= maxListed || VexCore::os::LStat(path.c_str(), status) != 0)
                continue;
            char head[80];
            std::snprintf(head, sizeof head, "%06o %5ld %12lld  ", static_cast<unsigned>(status.st_mode),
                          static_cast<long>(status.st_uid), static_cast<long long>(status.st_size));
            lines.emplace(path, head + UtcTime(static_cast<std::int64_t>(status.st_mtime) * 1000) + "  ");
            if (S_ISDIR(status.st_mode))
                ListBelow(path, lines);
        }
    }

    std::string Readme() const
    {
        std::string text =
            "What vexctl " VEX_VERSION_TEXT " has put together of the agent " + Shown(m_session.place.name) + ", "
            + UtcTime(m_nowMs)
            + ".\n\nValues whose names say that they are secret (password, token, key and the like) stand as "
              "\"***\". A secret\nunder another name is not known for one: look at what you pass on.\n\n";
        for (const Entry& entry : m_entries)
            text += entry.name + ": " + Shown(entry.what) + "\n";
        if (!m_problems.empty())
            text += "\nNot in here, or not in full:\n";
        for (const std::string& problem : m_problems)
            text += Shown(problem) + "\n";
        return text;
    }

    void Tell(const std::string& path, std::size_t bytes)
    {
        if (m_options.json) {
            Json object = {{"schema", jsonSchema}, {"file", path}, {"bytes", bytes}, {"files", Json::array()}};
            for (const Entry& entry : m_entries)
                object["files"].push_back({{"name", entry.name}, {"bytes", entry.bytes}, {"what", entry.what}});
            if (!m_problems.empty())
                object["problems"] = m_problems;
            m_session.out.Write(JsonText(object, 2) + "\n");
            return;
        }
        TextTable table({{"FILE"}, {"SIZE", TextTable::Align::Right}, {"WHAT IT HOLDS"}});
        for (const Entry& entry : m_entries)
            table.AddRow({{entry.name}, {BytesText(static_cast<std::int64_t>(entry.bytes))}, {entry.what}});
        table.Print(m_session.out);
        m_session.out.Write("\n" + Shown(path) + " has " + BytesText(static_cast<std::int64_t>(bytes))
                            + ". Secrets are masked by their names; look at it before you pass it on.\n");
        for (const std::string& problem : m_problems)
            m_session.Note(problem);
    }

    Session& m_session;
    const BundleOptions& m_options;
    Progress m_progress;
    const std::int64_t m_nowMs = VexCore::TimeNowMillis();
    const std::string m_stem;
    TarWriter m_archive;
    std::vector<Entry> m_entries;
    std::vector<std::string> m_problems;
};

} // namespace

Body AddBundle(Options& options)
{
    const auto asked = std::make_shared<BundleOptions>();
    options.Text("-o,--output", asked->output, "The archive; without it NAME-support-TIME.tar.gz in the current folder")
        .Type("FILE");
    options.Flag("--dumps", asked->dumps, "Take the crash dumps too: they hold memory, in which nothing is masked");
    options.Flag("--json", asked->json, "Tell what is in it as one JSON object");
    options
        .Texts("options", asked->launcher, "Behind \"--\": the launcher's options for the report, as for vexctl report")
        .Type("OPTION");
    return [asked](Session& session) { return Bundle(session, *asked).Write(); };
}

} // namespace Vexctl
