#include "vex/apps/vexctl/command_line.h"

#include "vex/apps/vex/version.h"
#include "vex/apps/vexctl/os/surroundings.h"
#include "vex/apps/vexctl/shown_text.h"

#include <exception>
#include <memory>

#include <CLI/CLI.hpp>

namespace Vexctl {

const std::vector<Command>& Commands()
{
    static const std::vector<Command> s_commands = {
        {"status", "Watching", "Whether the agent runs, and how it fares", AddStatus},
        {"wait", "Watching", "Wait until the agent runs, has stopped, or has given a heartbeat", AddWait},
        {"log", "Watching", "The log, across rotated files", AddLog},
        {"events", "Watching", "Agent events", AddEvents},
        {"heartbeats", "Watching", "The history of heartbeats; asks for one", AddHeartbeats},
        {"crashes", "Watching", "Crash dumps: what crashed where, and how to open one", AddCrashes},
        {"report", "Watching", "The agent's report on its host, also as a page of HTML", AddReport},
        {"bundle", "Watching", "One archive for somebody who looks into a fault", AddBundle},
        {"config", "Settings", "The settings in force and where each comes from", AddConfig},
        {"check-config", "Settings", "What is wrong in the files of settings", AddCheckConfig},
        {"plugins", "Packages", "Packages, markers and extensions, and files that were changed since", AddPlugins},
        {"check", "Packages", "What the next start would do with a package, and every reason why not", AddCheck},
        {"pack", "Packages", "Make a package, an uninstall marker or an extension of a folder", AddPack},
        {"install", "Packages", "Put a package beside the executable, for the next start", AddInstall},
        {"remove", "Packages", "Have the next start delete a plugin's files", AddRemove},
        {"rollback", "Packages", "Have the next start install the version of a plugin before this one", AddRollback},
        {"completion", "Others", "A script with which a shell completes what is typed", AddCompletion},
    };
    return s_commands;
}

void Session::Note(const std::string& text)
{
    err.Write("vexctl: " + Shown(text) + "\n");
    err.Flush();
}

namespace {
struct Call
{
    std::string name = "vx_agent";
    std::string workFolder;
    Body body;
};

// Nothing of the program's own is left behind by an early end, so an exception is the way out of any depth.
int Perform(const Call& call, Output& out, Output& err)
{
    Session session{FindPlace(call.name, call.workFolder), out, err};
    try {
        const int status = call.body(session);
        out.Flush();
        return status;
    } catch (const ReaderGone&) {
        return statusDone; // whoever reads has seen enough
    } catch (const OutputFailed& failure) {
        session.Note(failure.what());
    } catch (const Failure& failure) {
        out.FlushAsFarAsPossible();
        session.Note(failure.what());
    } catch (const std::bad_alloc&) {
        session.Note("out of memory");
    }
    return statusUnusable;
}

void AddCommands(CLI::App& app, Call& call)
{
    for (const Command& command : Commands()) {
        CLI::App* const subcommand = app.add_subcommand(command.name, command.help);
        subcommand->group(command.group);
        Options options(*subcommand);
        const Body body = command.add(options);
        subcommand->callback([&call, body] { call.body = body; });
    }
}

} // namespace

int RunCommandLine(int argc, char** argv)
{
    os::PrepareProcess();
    Output out(1);
    Output err(2);
    try {
        Call call;
        CLI::App app("Shows what an agent does and has done.", "vexctl");
        app.set_version_flag("--version", std::string("vexctl ") + VEX_VERSION_TEXT);
        app.add_option("--name", call.name, "The agent's name")->capture_default_str();
        app.add_option("--workdir", call.workFolder,
                       "The agent's work folder; without it that of the running agent, else work/ beside vexctl")
            ->envname("VEXCTL_WORKDIR");
        app.require_subcommand(1);
        app.fallthrough();
        AddCommands(app, call);
        try {
            app.parse(argc, argv);
        } catch (const CLI::CallForHelp&) {
            out.Write(app.help());
            out.Flush();
            return statusDone;
        } catch (const CLI::CallForVersion& version) {
            out.Write(std::string(version.what()) + "\n");
            out.Flush();
            return statusDone;
        } catch (const CLI::ParseError& error) {
            err.Write("vexctl: " + Shown(error.what()) + "\nvexctl: see vexctl --help\n");
            err.Flush();
            return statusUnusable;
        }
        return Perform(call, out, err);
    } catch (const ReaderGone&) {
        return statusDone;
    } catch (const OutputFailed& failure) {
        err.Write(std::string("vexctl: ") + failure.what() + "\n");
        err.FlushAsFarAsPossible();
        return statusUnusable;
    }
}

} // namespace Vexctl
