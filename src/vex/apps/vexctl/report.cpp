// vexctl report: the report of the agent's application, made anew, for people, for programs, or as a page with all else
// that is known of the agent.

#include "vex/apps/vexctl/agent_report.h"
#include "vex/apps/vexctl/command.h"
#include "vex/apps/vexctl/json_text.h"
#include "vex/apps/vexctl/new_file.h"
#include "vex/apps/vexctl/options.h"
#include "vex/apps/vexctl/report_page.h"
#include "vex/apps/vexctl/shown_text.h"
#include "vex/apps/vexctl/times.h"

#include "vex/core/clock.h"

#include <algorithm>
#include <memory>

namespace Vexctl {

namespace {
struct ReportOptions
{
    bool json = false;
    std::string html;
    std::string since = "7d";
    std::string timeout = "1m";
    std::vector<std::string> launcher;
};

ReportRequest RequestOf(const ReportOptions& options)
{
    return {options.json, options.launcher, static_cast<long>(*ParseDuration(options.timeout))};
}

void ShowText(Session& session, const ReportOptions& options)
{
    const std::string text =
        RunAgentReport(session.place, RequestOf(options), [&](const std::string& note) { session.Note(note); });
    for (std::size_t at = 0; at < text.size();) {
        const std::size_t ends = std::min(text.find('\n', at), text.size());
        session.out.Write(Shown(text.substr(at, ends - at)) + "\n");
        at = ends + 1;
    }
}

void ShowJson(Session& session, const ReportOptions& options)
{
    const Json report =
        ReadAgentReport(session.place, RequestOf(options), [&](const std::string& note) { session.Note(note); });
    session.out.Write(JsonText(report, 2) + "\n");
}

// With what there is, where the report itself cannot be made: a page is wanted most when something is wrong.
int WritePage(Session& session, const ReportOptions& options)
{
    if (options.html != "-")
        ExpectRoomForFile(options.html);
    const std::optional<std::int64_t> sinceMs = ParseWhen(options.since, VexCore::TimeNowMillis());
    PageContent content = CollectPage(session.place, *sinceMs);
    const auto note = [&](const std::string& text) { content.problems.push_back(text); };
    try {
        content.report = ReadAgentReport(session.place, RequestOf(options), note);
    } catch (const Failure& failure) {
        note(failure.what());
    }
    const std::string page = ReportPage(content);
    if (options.html == "-")
        session.out.Write(page);
    else
        WriteNewFile(options.html, page);
    for (const std::string& problem : content.problems)
        session.Note(problem);
    return content.report.is_null() ? statusUnusable : statusDone;
}

} // namespace

Body AddReport(Options& options)
{
    const auto asked = std::make_shared<ReportOptions>();
    const Option json = options.Flag("--json", asked->json, "One JSON object");
    options
        .Text("--html", asked->html,
              "Write a page of HTML with history, events and crashes into this file; -: to the output")
        .Type("FILE")
        .Excludes(json);
    options.Text("--since", asked->since, "For --html: where the charts begin")
        .Check(WhyNoTime)
        .Type("TIME")
        .TellStandard();
    options.Text("--timeout", asked->timeout, "How long the agent may take to make its report")
        .Check(WhyNoDuration)
        .TellStandard();
    options
        .Texts("options", asked->launcher,
               "Behind \"--\": the launcher's options, in place of those of the running agent")
        .Type("OPTION");
    return [asked](Session& session) {
        if (!asked->launcher.empty() && asked->launcher.front().substr(0, 1) != "-")
            throw Failure("'" + asked->launcher.front() + "' is no option of the launcher");
        if (!asked->html.empty())
            return WritePage(session, *asked);
        if (asked->json)
            ShowJson(session, *asked);
        else
            ShowText(session, *asked);
        return statusDone;
    };
}

} // namespace Vexctl
