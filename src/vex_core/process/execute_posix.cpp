// Runs one program and waits for it, with its output in pipes. All texts are bytes here; the framework's ones of the
// public interface are turned at the end of the file. How a program is started and waited for: helper_program.h.

#include "vex/core/execute.h"

#include "vex/core/log.h"
#include "vex_core/base/text.h"
#include "vex_core/os/error.h"
#include "vex_core/os/files.h"
#include "vex_core/os/spawn.h"
#include "vex_core/process/helper_program.h"
#include "vex_core/process/run_program.h"

#include <algorithm>
#include <cstdlib>
#include <cstring>
#include <string>
#include <vector>

#include <fcntl.h>
#include <sys/wait.h>

#include <wx/arrstr.h>

namespace VexCore {

namespace {
// A name without a slash is looked up as a shell would, but before the fork.
std::string FindProgram(const std::string& program)
{
    if (program.empty() || program.find('/') != std::string::npos)
        return program;
    const char* path = std::getenv("PATH");
    std::string folders = path && *path != '\0' ? path : "/usr/bin:/bin";
    for (std::size_t at = 0; at <= folders.size();) {
        const std::size_t colon = std::min(folders.find(':', at), folders.size());
        const std::string folder = folders.substr(at, colon - at);
        const std::string candidate = folder + "/" + program;
        if (!folder.empty() && os::MayExecute(candidate.c_str()))
            return candidate;
        at = colon + 1;
    }
    // The current folder is not searched. To an empty name exec answers "No such file or directory".
    return std::string();
}

// Bytes of all arguments and the vector of pointers to them that exec wants.
class Arguments
{
public:
    Arguments(const std::string& program, const std::vector<std::string>& arguments)
    {
        m_texts.push_back(program);
        m_texts.insert(m_texts.end(), arguments.begin(), arguments.end());
        for (std::string& text : m_texts)
            m_pointers.push_back(&text[0]);
        m_pointers.push_back(nullptr);
    }
    char* const* Get() const { return m_pointers.data(); }

private:
    std::vector<std::string> m_texts;
    std::vector<char*> m_pointers;
};

// A line of the log shows names as text.
wxString Shown(const std::string& bytes)
{
    return TextWithoutNul(bytes);
}

void Trace(int line, const wxString& message)
{
    LogTrace("Cmd", "vex_core/execute_posix", line, "Execute", message);
}

// The warning for an end that is not plain success, once, however often the caller runs it.
void ReportEnd(const std::string& program, int status, int& exitCode)
{
    if (WIFSIGNALED(status)) {
        exitCode = 128 + WTERMSIG(status);
        wxLogWarning("Program '%s' was ended by signal %d (%s)", Shown(program), WTERMSIG(status),
                     wxString::FromUTF8(strsignal(WTERMSIG(status))));
        return;
    }
    exitCode = WEXITSTATUS(status);
    if (exitCode != 0)
        wxLogWarning("Program '%s' ended with code %d", Shown(program), exitCode);
}

// Adds a pipe that the program writes into. -1 with the last error.
int AddOutput(std::vector<ProgramOutput>& outputs, std::vector<os::Descriptor>& ours)
{
    os::Pipe pipe = os::OpenPipe();
    if (!pipe)
        return -1;
    outputs.emplace_back(std::move(pipe.reading));
    ours.push_back(std::move(pipe.writing));
    return ours.back().Get();
}

// Null with the last error.
std::unique_ptr<HelperProgram> StartProgram(const ProgramRequest& request, std::vector<ProgramOutput>& outputs)
{
    const std::string path = FindProgram(request.program);
    const Arguments values(request.program, request.arguments);
    std::vector<os::Descriptor> ours; // closed when the program has them
    ours.push_back(request.input ? os::FileOf(*request.input)
                                 : os::RaiseDescriptor(os::Descriptor(os::Open("/dev/null", O_RDONLY))));
    os::SpawnPlan plan;
    plan.program = path.c_str();
    plan.arguments = values.Get();
    plan.input = ours.back().Get();
    plan.output = AddOutput(outputs, ours);
    plan.errors = request.separate ? AddOutput(outputs, ours) : plan.output;
    if (plan.input < 0 || plan.output < 0 || plan.errors < 0)
        return nullptr;
    return HelperProgram::Start(plan);
}

// The cut of an output may have gone through a character of several bytes.
void DropHalfCharacter(std::string& text)
{
    std::size_t tail = 0;
    while (tail < 3 && tail < text.size() && (text[text.size() - 1 - tail] & 0xC0) == 0x80)
        ++tail;
    if (tail >= text.size())
        return;
    const unsigned char lead = static_cast<unsigned char>(text[text.size() - 1 - tail]);
    const std::size_t wanted = lead >= 0xF0 ? 3 : lead >= 0xE0 ? 2 : lead >= 0xC0 ? 1 : 0;
    if (wanted > tail)
        text.resize(text.size() - 1 - tail);
}

} // namespace

ProgramResult RunProgram(const ProgramRequest& request)
{
    const std::string quoted = "'" + request.program + "'";
    ProgramResult result;
    if (LogTraceIsEnabled("Cmd"))
        Trace(__LINE__, wxString::Format("run '%s' with %u arguments", Shown(request.program),
                                         static_cast<unsigned>(request.arguments.size())));
    if (AskToStart() != MayStart::Yes) {
        result.error = "Unable to run " + quoted + ": " + asksNoMoreText;
        return result;
    }
    std::vector<ProgramOutput> outputs;
    const std::unique_ptr<HelperProgram> program = StartProgram(request, outputs);
    if (!program) {
        result.error = "Unable to run " + quoted + ": " + os::ErrorText(os::LastError());
        return result;
    }
    std::vector<ProgramOutput*> read;
    for (ProgramOutput& output : outputs)
        read.push_back(&output);
    const HelperProgram::End end = program->Wait(request.timeoutMs, read);
    result.output = std::move(outputs[0].text);
    result.isCut = outputs[0].total > result.output.size();
    if (request.separate)
        result.errors = std::move(outputs[1].text);
    if (LogTraceIsEnabled("Cmd"))
        Trace(__LINE__,
              wxString::Format("'%s' (pid %ld) ended with status %d after %llu bytes of output", Shown(request.program),
                               static_cast<long>(program->Pid()), program->Status(), outputs[0].total));
    if (end == HelperProgram::End::TimedOut)
        result.error = "Program " + quoted + " was killed, because it took longer than "
                       + std::to_string(request.timeoutMs) + " ms";
    else if (end == HelperProgram::End::Stopped)
        result.error = "Program " + quoted + " was ended, because its thread is asked to end";
    else if (program->Status() == -1)
        result.error = "Program " + quoted + " ended, but somebody else took its status";
    if (!result.error.empty())
        return result;
    ReportEnd(request.program, program->Status(), result.exitCode);
    result.ran = true;
    return result;
}

// --- the public interface

bool Execute(const wxString& program, const wxArrayString& arguments, wxString& output, int& exitCode, wxString& error)
{
    return Execute(program, arguments, output, exitCode, error, 0);
}

bool Execute(const wxString& program, const wxArrayString& arguments, wxString& output, int& exitCode, wxString& error,
             long timeoutMs)
{
    ProgramRequest request;
    request.program = ToSystemBytes(program);
    for (const wxString& argument : arguments)
        request.arguments.push_back(ToSystemBytes(argument));
    request.timeoutMs = timeoutMs;
    ProgramResult result = RunProgram(request);
    if (result.isCut)
        DropHalfCharacter(result.output);
    output = FromForeignBytes(result.output);
    exitCode = result.exitCode;
    error = FromForeignBytes(result.error);
    return result.ran;
}

} // namespace VexCore
