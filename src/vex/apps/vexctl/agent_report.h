#pragma once
// The report that the agent's application prints, made by running the launcher in the foreground: with the options of
// the agent that runs, and in a work folder of its own, so that nothing is written in the agent's.

#include "vex/apps/vexctl/json_text.h"
#include "vex/apps/vexctl/place.h"

#include <functional>
#include <string>
#include <vector>

namespace Vexctl {

struct ReportRequest
{
    bool json = false;
    std::vector<std::string> options; ///< of the launcher; none: those of the running agent
    long timeoutMs = 60000;
};

/// What the application has printed. `note` gets what the report lacks. Throws Failure: with what went wrong, and what
/// the launcher said of it.
std::string RunAgentReport(const Place& place, const ReportRequest& request,
                           const std::function<void(const std::string&)>& note);

/// The same, made with `json` whatever the request says, as an object. Throws Failure also when it is none.
Json ReadAgentReport(const Place& place, ReportRequest request, const std::function<void(const std::string&)>& note);

/// Of a launcher's options those that a run in the foreground is to have: not those that send it into the background,
/// install packages, run tests or name the work folder, and nothing behind "--".
std::vector<std::string> ForegroundOptions(const std::vector<std::string>& options);

} // namespace Vexctl
