#include "vex/apps/vexctl/service.h"

#include "vex_core/process/run_program.h"

#include <wx/log.h>

namespace Vexctl {

namespace {
// A stop alone may take a minute.
constexpr long mostMs = 300'000;

VexCore::ProgramResult Run(const std::vector<std::string>& command)
{
    const wxLogNull silence; // the result says it
    VexCore::ProgramRequest request;
    request.program = command.front();
    request.arguments.assign(command.begin() + 1, command.end());
    request.timeoutMs = mostMs;
    return VexCore::RunProgram(request);
}

} // namespace

bool RestartService(const std::string& name, std::string& told)
{
    std::string services;
    for (const ServiceCommands& one : ServicesOf(name)) {
        services += (services.empty() ? "" : " and ") + one.service;
        const VexCore::ProgramResult active = Run(one.isActive);
        if (!active.ran) {
            told = active.error;
            return false;
        }
        if (active.exitCode != 0)
            continue;
        const VexCore::ProgramResult result = Run(one.restart);
        if (result.ran && result.exitCode == 0) {
            told = one.service;
            return true;
        }
        told = one.service + ": " + (result.ran ? result.output : result.error);
        told.erase(told.find_last_not_of('\n') + 1);
        return false;
    }
    told = "no service of it runs (" + services + ")";
    return false;
}

} // namespace Vexctl
