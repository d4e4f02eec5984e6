// vexctl status: whether the agent runs, and how it fares. The exit status is that of a script of init: 0 it runs, 1 it
// is dead and its pid file is there, 3 it does not run, 4 that cannot be told. With --nagios it is that of such a
// check.

#include "vex/apps/vexctl/status.h"
#include "vex/apps/vexctl/agent_state.h"
#include "vex/apps/vexctl/command.h"
#include "vex/apps/vexctl/heartbeat_history.h"
#include "vex/apps/vexctl/json_text.h"
#include "vex/apps/vexctl/log_story.h"
#include "vex/apps/vexctl/options.h"
#include "vex/apps/vexctl/shown_text.h"
#include "vex/apps/vexctl/times.h"

#include "vex/apps/vex/version.h"

#include "vex/core/clock.h"

#include <memory>

namespace Vexctl {

namespace {
// How much of the log is looked at: some ten thousand records, and a few milliseconds.
constexpr std::size_t bytesSearchedForStory = 2 * 1024 * 1024;

struct StatusOptions
{
    bool json = false;
    bool nagios = false;
    std::string heartbeatWarning = "3m";
    std::string heartbeatCritical = "10m";
    std::size_t restartsWarning = 1;
    std::size_t restartsCritical = 5;
};

// All that there is to tell. What could not be read is absent, and `problems` says why.
struct Report
{
    std::int64_t nowMs = VexCore::TimeNowMillis();
    AgentState state;
    LogStory story;
    std::optional<Heartbeat> heartbeat;
    std::map<std::string, PluginStory> plugins;
    std::string version;
    std::size_t restarts = 0; // since the supervisor began
    bool restartsAreAll = true;
    std::vector<std::string> problems;
};

template <typename Function>
void Try(Report& report, const Function& function)
{
    try {
        function();
    } catch (const Failure& failure) {
        report.problems.emplace_back(failure.what());
    }
}

Report MakeReport(const Place& place)
{
    Report report;
    report.state = FindAgentState(place);
    Try(report, [&] { report.story = ReadLogStory(place, bytesSearchedForStory); });
    Try(report, [&] {
        AgentDatabase database(place.HeartbeatFile());
        std::vector<Heartbeat> beats = ReadHeartbeats(database, HeartbeatWish());
        if (!beats.empty())
            report.heartbeat = std::move(beats.back());
    });
    const LogStory& story = report.story;
    if (const auto found = story.plugins.find(report.state.child);
        report.state.child != 0 && found != story.plugins.end())
        report.plugins = found->second;
    if (const auto found = story.versions.find(report.state.child); found != story.versions.end())
        report.version = found->second;
    if (const auto found = story.ends.find(report.state.supervisor); found != story.ends.end())
        report.restarts = found->second;
    report.restartsAreAll =
        story.isAll
        || (report.state.supervisorBeganMs && story.beginMs != 0 && story.beginMs <= *report.state.supervisorBeganMs);
    return report;
}

// --- for people

class TextReport
{
public:
    TextReport(Session& session, const Report& report) : m_place(session.place), m_out(session.out), m_report(report) {}

    void Print()
    {
        PrintLife();
        PrintProcesses();
        PrintEnds();
        PrintHeartbeat();
        PrintPlugins();
        Line("version",
             m_report.version.empty()
                 ? "vexctl " VEX_VERSION_TEXT
                 : m_report.version + (m_report.version == VEX_VERSION_TEXT ? "" : ", vexctl " VEX_VERSION_TEXT));
        Line("work folder", m_place.workFolder);
        for (const std::string& problem : m_report.problems)
            Line("not read", problem, Colour::Warning);
    }

private:
    void Line(const std::string& title, const std::string& text, Colour colour = Colour::None)
    {
        constexpr std::size_t titleColumns = 14;
        std::string shown = Shown(text);
        if (m_out.Width() > titleColumns + 10)
            shown = CutToColumns(shown, m_out.Width() - titleColumns);
        m_out.Write("  " + title + std::string(titleColumns - 2 - Columns(title), ' ') + m_out.Painted(colour, shown)
                    + "\n");
    }

    std::string Ago(std::int64_t timeMs) const
    {
        const std::int64_t ageMs = m_report.nowMs - timeMs;
        return ageMs < 0 ? "in the future" : DurationText(ageMs) + " ago";
    }

    std::string Since(const std::optional<std::int64_t>& beganMs) const
    {
        return beganMs ? ", since " + LocalTime(*beganMs) + " (" + DurationText(m_report.nowMs - *beganMs) + ")" : "";
    }

    void PrintLife()
    {
        const AgentState& state = m_report.state;
        const bool runs = state.life == Life::Running;
        const char* const word = state.starting ? "starting" : state.stopping ? "stopping" : LifeWord(state.life);
        const Colour colour = runs ? Colour::Good : state.life == Life::NotRunning ? Colour::Warning : Colour::Bad;
        m_out.Write(Shown(m_place.name) + ": " + m_out.Painted(colour, word)
                    + (state.reason.empty() ? "" : ", " + Shown(state.reason)) + "\n");
    }

    void PrintProcesses()
    {
        const AgentState& state = m_report.state;
        if (state.supervisor != 0)
            Line("supervisor", "pid " + std::to_string(state.supervisor) + Since(state.supervisorBeganMs));
        if (state.child != 0)
            Line("child", "pid " + std::to_string(state.child) + Since(state.childBeganMs));
        else if (state.supervisor != 0)
            Line("child", "none just now", Colour::Warning);
    }

    void PrintEnds()
    {
        if (m_report.state.supervisor != 0)
            Line("restarts", (m_report.restartsAreAll ? "" : "at least ") + std::to_string(m_report.restarts),
                 m_report.restarts > 0 ? Colour::Warning : Colour::None);
        if (!m_report.story.childEnds.empty()) {
            const ChildEndStory& end = m_report.story.childEnds.back();
            Line("last end", LocalTime(end.timeMs) + "  " + end.text, end.crashed ? Colour::Bad : Colour::None);
        }
        if (m_report.story.lastTroubleMs != 0)
            Line("last error", LocalTime(m_report.story.lastTroubleMs) + "  " + m_report.story.lastTrouble);
    }

    void PrintHeartbeat()
    {
        if (!m_report.heartbeat)
            return;
        const Heartbeat& beat = *m_report.heartbeat;
        std::string text = Ago(beat.timeMs) + ", number " + std::to_string(beat.id) + " (" + beat.reason + ")";
        if (beat.load)
            text += ", load " + LoadText(*beat.load);
        if (beat.memoryAvailable)
            text += ", " + BytesText(*beat.memoryAvailable) + " of memory available";
        Line("heartbeat", text);
    }

    void PrintPlugins()
    {
        std::string title = "plugins";
        for (const auto& [name, plugin] : m_report.plugins) {
            std::string text = name + ": ";
            if (plugin.collectedMs)
                text += "collected " + Ago(*plugin.collectedMs);
            if (!plugin.failure.empty())
                text += (plugin.collectedMs ? ", " : "") + plugin.failure;
            Line(title, text, plugin.failure.empty() ? Colour::None : Colour::Bad);
            title.clear();
        }
    }

    const Place& m_place;
    Output& m_out;
    const Report& m_report;
};

// --- for programs

Json JsonOfProcess(pid_t pid, const std::optional<std::int64_t>& beganMs)
{
    Json process = {{"pid", pid}};
    if (beganMs)
        process["since"] = UtcTime(*beganMs);
    return process;
}

Json JsonOfEnd(const ChildEndStory& end)
{
    Json object = {
        {"time", UtcTime(end.timeMs)}, {"text", end.text}, {"supervisor", end.supervisor}, {"crashed", end.crashed}};
    if (end.exitCode)
        object["exit_code"] = *end.exitCode;
    if (end.signal)
        object["signal"] = *end.signal;
    return object;
}

Json JsonOf(const Report& report, const Place& place)
{
    const AgentState& state = report.state;
    Json object = {
        {"schema", jsonSchema}, {"time", UtcTime(report.nowMs)}, {"name", place.name}, {"state", LifeWord(state.life)}};
    object["starting"] = state.starting;
    object["stopping"] = state.stopping;
    if (!state.reason.empty())
        object["reason"] = state.reason;
    if (state.supervisor != 0)
        object["supervisor"] = JsonOfProcess(state.supervisor, state.supervisorBeganMs);
    if (state.child != 0)
        object["child"] = JsonOfProcess(state.child, state.childBeganMs);
    if (state.supervisor != 0)
        object["restarts"] = {{"count", report.restarts}, {"complete", report.restartsAreAll}};
    if (!report.story.childEnds.empty())
        object["last_end"] = JsonOfEnd(report.story.childEnds.back());
    if (report.story.lastTroubleMs != 0)
        object["last_error"] = {{"time", UtcTime(report.story.lastTroubleMs)}, {"text", report.story.lastTrouble}};
    if (report.heartbeat)
        object["heartbeat"] = {{"id", report.heartbeat->id},
                               {"time", UtcTime(report.heartbeat->timeMs)},
                               {"reason", report.heartbeat->reason},
                               {"age_seconds", (report.nowMs - report.heartbeat->timeMs) / 1000}};
    object["plugins"] = Json::array();
    for (const auto& [name, plugin] : report.plugins) {
        Json one = {{"name", name}};
        if (plugin.collectedMs)
            one["collected"] = UtcTime(*plugin.collectedMs);
        if (!plugin.failure.empty())
            one["error"] = plugin.failure;
        object["plugins"].push_back(std::move(one));
    }
    if (!report.version.empty())
        object["version"] = report.version;
    object["vexctl_version"] = VEX_VERSION_TEXT;
    object["work_folder"] = place.workFolder;
    if (!report.problems.empty())
        object["problems"] = report.problems;
    return object;
}

// --- for Nagios and those that read its format

enum class Nagios { Ok = 0, Warning = 1, Critical = 2, Unknown = 3 };

// The worse one; to know nothing is less than to know of a fault.
Nagios Worse(Nagios a, Nagios b)
{
    static constexpr int grave[] = {0, 2, 3, 1};
    return grave[static_cast<int>(a)] >= grave[static_cast<int>(b)] ? a : b;
}

template <typename Number>
Nagios Judge(Number value, Number warning, Number critical)
{
    return value >= critical ? Nagios::Critical : value >= warning ? Nagios::Warning : Nagios::Ok;
}

// What belongs to the format may not be in the text.
std::string NagiosText(const std::string& text)
{
    std::string safe = Shown(text);
    for (char& c : safe)
        if (c == '|')
            c = '/';
    return safe;
}

int PrintNagios(Output& out, const Report& report, const StatusOptions& options, const Place& place)
{
    static constexpr const char* words[] = {"OK", "WARNING", "CRITICAL", "UNKNOWN"};
    const AgentState& state = report.state;
    const bool runs = state.life == Life::Running;
    Nagios verdict = runs ? Nagios::Ok : state.life == Life::Unknown ? Nagios::Unknown : Nagios::Critical;
    std::string text = place.name + " is " + LifeWord(state.life) + (state.reason.empty() ? "" : ", " + state.reason);
    std::string data;
    if (runs && state.supervisorBeganMs) {
        const std::int64_t uptimeMs = report.nowMs - *state.supervisorBeganMs;
        text += " for " + DurationText(uptimeMs);
        data += " uptime=" + std::to_string(uptimeMs / 1000) + "s;;;0";
    }
    if (runs) {
        verdict = Worse(verdict, Judge(report.restarts, options.restartsWarning, options.restartsCritical));
        text += ", " + std::to_string(report.restarts) + (report.restarts == 1 ? " restart" : " restarts");
        data += " restarts=" + std::to_string(report.restarts) + ";" + std::to_string(options.restartsWarning) + ";"
                + std::to_string(options.restartsCritical) + ";0";
    }
    const std::int64_t warningMs = *ParseDuration(options.heartbeatWarning);
    const std::int64_t criticalMs = *ParseDuration(options.heartbeatCritical);
    if (runs && report.heartbeat) {
        const std::int64_t ageMs = std::max<std::int64_t>(0, report.nowMs - report.heartbeat->timeMs);
        verdict = Worse(verdict, Judge(ageMs, warningMs, criticalMs));
        text += ", heartbeat " + DurationText(ageMs) + " ago";
        data += " heartbeat_age=" + std::to_string(ageMs / 1000) + "s;" + std::to_string(warningMs / 1000) + ";"
                + std::to_string(criticalMs / 1000) + ";0";
    }
    std::size_t failed = 0;
    for (const auto& [name, plugin] : report.plugins)
        failed += plugin.failure.empty() ? 0 : 1;
    if (failed > 0) {
        verdict = Worse(verdict, Nagios::Warning);
        text += ", " + std::to_string(failed) + (failed == 1 ? " plugin fails" : " plugins fail");
    }
    if (runs && !report.problems.empty()) {
        verdict = Worse(verdict, Nagios::Unknown);
        text += ", " + report.problems.front();
    }
    out.Write(std::string("VEX ") + words[static_cast<int>(verdict)] + " - " + NagiosText(text)
              + (data.empty() ? "" : " |" + data) + "\n");
    return static_cast<int>(verdict);
}

int ShowStatus(Session& session, const StatusOptions& options)
{
    const Report report = MakeReport(session.place);
    if (options.nagios)
        return PrintNagios(session.out, report, options, session.place);
    if (options.json)
        session.out.Write(JsonText(JsonOf(report, session.place), 2) + "\n");
    else
        TextReport(session, report).Print();
    return LsbStatus(report.state.life);
}

} // namespace

Json StatusJson(const Place& place)
{
    return JsonOf(MakeReport(place), place);
}

Body AddStatus(Options& options)
{
    const auto asked = std::make_shared<StatusOptions>();
    const Option json = options.Flag("--json", asked->json, "One JSON object");
    options
        .Flag("--nagios", asked->nagios,
              "One line with performance data; the exit status is 0 OK, 1 WARNING, 2 CRITICAL, 3 UNKNOWN")
        .Excludes(json);
    options.Text("--heartbeat-warning", asked->heartbeatWarning, "For --nagios: how old the last heartbeat may be")
        .Check(WhyNoDuration)
        .TellStandard();
    options.Text("--heartbeat-critical", asked->heartbeatCritical, "The same, for CRITICAL")
        .Check(WhyNoDuration)
        .TellStandard();
    options.Count("--restarts-warning", asked->restartsWarning, "For --nagios: so many restarts are WARNING")
        .TellStandard();
    options.Count("--restarts-critical", asked->restartsCritical, "The same, for CRITICAL").TellStandard();
    return [asked](Session& session) { return ShowStatus(session, *asked); };
}

} // namespace Vexctl
