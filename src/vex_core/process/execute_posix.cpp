// Runs one program and waits for it, with its output in a pipe. The calling thread does all of it: it reads
// until the program itself has ended, whatever became of the processes that the program started.

#include "vex/core/execute.h"
#include "vex/core/log.h"
#include "vex/core/sendsignal.h"
#include "vex_core/base/text.h"
#include "vex_core/os/error.h"
#include "vex_core/os/files.h"
#include "vex_core/os/signals.h"
#include "vex_core/os/spawn.h"

#include <algorithm>
#include <chrono>
#include <csignal>
#include <cstdio>
#include <cstdlib>
#include <mutex>
#include <string>
#include <vector>

#include <fcntl.h>
#include <sys/wait.h>

#include <wx/arrstr.h>

extern char** environ; // POSIX leaves the declaration to us

namespace VexCore {
namespace {
using Clock = std::chrono::steady_clock;

constexpr std::size_t maxOutputBytes = static_cast<std::size_t>(16) << 20;

// While SIGCHLD is ignored the system takes the status of children away before we can ask for it. Some
// parents leave it so: the default comes back for as long as a program of ours runs on any thread.
class ChildStatusKept
{
public:
    ChildStatusKept()
    {
        const std::lock_guard lock(Mutex());
        if (Users()++ > 0)
            return;
        os::Disposition(SIGCHLD, Previous());
        if (Previous().sa_handler != SIG_IGN && (Previous().sa_flags & SA_NOCLDWAIT) == 0)
            return;
        os::SetDefaultDisposition(SIGCHLD);
        Changed() = true;
    }
    ~ChildStatusKept()
    {
        const std::lock_guard lock(Mutex());
        if (--Users() > 0 || !Changed())
            return;
        os::SetDisposition(SIGCHLD, Previous());
        Changed() = false;
    }
    ChildStatusKept(const ChildStatusKept&) = delete;
    ChildStatusKept& operator=(const ChildStatusKept&) = delete;

private:
    static std::mutex& Mutex()
    {
        static std::mutex s_mutex;
        return s_mutex;
    }
    static int& Users()
    {
        static int s_users = 0;
        return s_users;
    }
    static bool& Changed()
    {
        static bool s_changed = false;
        return s_changed;
    }
    static struct sigaction& Previous()
    {
        static struct sigaction s_previous = {};
        return s_previous;
    }
};

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

class Output
{
public:
    void Add(const char* data, std::size_t size)
    {
        m_total += size;
        m_text.append(data, std::min(size, maxOutputBytes - m_text.size()));
    }
    unsigned long long Total() const { return m_total; }
    wxString Text()
    {
        if (m_total > m_text.size())
            DropHalfCharacter();
        return FromForeignBytes(m_text);
    }

private:
    // The cut may have gone through a character of several bytes.
    void DropHalfCharacter()
    {
        std::size_t tail = 0;
        while (tail < 3 && tail < m_text.size() && (m_text[m_text.size() - 1 - tail] & 0xC0) == 0x80)
            ++tail;
        if (tail >= m_text.size())
            return;
        const unsigned char lead = static_cast<unsigned char>(m_text[m_text.size() - 1 - tail]);
        const std::size_t wanted = lead >= 0xF0 ? 3 : lead >= 0xE0 ? 2 : lead >= 0xC0 ? 1 : 0;
        if (wanted > tail)
            m_text.resize(m_text.size() - 1 - tail);
    }

    std::string m_text;
    unsigned long long m_total = 0;
};

class RunningProgram
{
public:
    RunningProgram(pid_t pid, os::Descriptor output)
        : m_pid(pid), m_output(std::move(output)), m_process(os::OpenProcess(pid))
    {
        os::SetNonBlocking(m_output.Get());
    }

    // Reads and waits until the program has ended. False: the limit was over first, and it was killed.
    bool Wait(long timeoutMs, Output& output)
    {
        const auto deadline = Clock::now() + std::chrono::milliseconds(timeoutMs);
        bool inTime = true;
        while (!HasEnded()) {
            if (inTime && timeoutMs > 0 && Clock::now() >= deadline) {
                inTime = false;
                SendSignalToGroup(m_pid, SIGKILL);
                SendSignal(m_pid, SIGKILL); // it may have left its group
            }
            Sleep(inTime && timeoutMs > 0 ? &deadline : nullptr);
            Drain(output);
        }
        Drain(output);
        return inTime;
    }

    int Status() const { return m_status; }
    bool StatusKnown() const { return m_statusKnown; }

private:
    bool HasEnded()
    {
        const pid_t ended = os::TakeStatus(m_pid, m_status);
        m_statusKnown = ended == m_pid;
        return ended != 0;
    }

    // Until there is output, the program has ended, or the deadline is near. Without a descriptor for the
    // process its end shows no other way: then the waits are short, growing while nothing happens.
    void Sleep(const Clock::time_point* deadline)
    {
        long waitMs = -1;
        if (!m_process) {
            waitMs = m_napMs;
            m_napMs = std::min(m_napMs * 2, 50L);
        }
        if (deadline) {
            const auto left =
                std::chrono::duration_cast<std::chrono::milliseconds>(*deadline - Clock::now()).count() + 1;
            const long leftMs = static_cast<long>(std::max<long long>(0, std::min<long long>(left, 1000000)));
            waitMs = waitMs < 0 ? leftMs : std::min(waitMs, leftMs);
        }
        os::WaitReadable(m_output.Get(), m_process.Get(), static_cast<int>(waitMs));
    }

    // Takes what is there, at most about as much as a pipe can hold: a writer that never stops must not keep
    // us from looking at the clock and at the program's end.
    void Drain(Output& output)
    {
        char chunk[65536];
        for (int round = 0; m_output && round < 16; ++round) {
            const ssize_t got = os::Read(m_output.Get(), chunk, sizeof chunk);
            if (got > 0) {
                output.Add(chunk, static_cast<std::size_t>(got));
                m_napMs = 1;
                continue;
            }
            if (got == 0)
                m_output.Reset(); // everybody closed it
            return;
        }
    }

    pid_t m_pid;
    os::Descriptor m_output;
    os::Descriptor m_process;
    int m_status = 0;
    bool m_statusKnown = false;
    long m_napMs = 1;
};

// Bytes of all arguments and the vector of pointers to them that exec wants.
class Arguments
{
public:
    Arguments(const std::string& program, const wxArrayString& arguments)
    {
        m_texts.push_back(program);
        for (std::size_t i = 0; i < arguments.GetCount(); ++i)
            m_texts.push_back(ToSystemBytes(arguments[i]));
        for (std::string& text : m_texts)
            m_pointers.push_back(&text[0]);
        m_pointers.push_back(nullptr);
    }
    char* const* Get() const { return m_pointers.data(); }

private:
    std::vector<std::string> m_texts;
    std::vector<char*> m_pointers;
};

wxString SystemError(int error)
{
    return FromForeignBytes(os::ErrorText(error));
}

void Trace(int line, const wxString& message)
{
    LogTrace("Cmd", "vex_core/execute_posix", line, "Execute", message);
}

// The warning for an end that is not plain success, once, however often the caller runs it.
void ReportEnd(const wxString& program, int status, int& exitCode)
{
    if (WIFSIGNALED(status)) {
        exitCode = 128 + WTERMSIG(status);
        wxLogWarning("Program '%s' was ended by signal %d (%s)", program, WTERMSIG(status),
                     wxString::FromUTF8(strsignal(WTERMSIG(status))));
        return;
    }
    exitCode = WEXITSTATUS(status);
    if (exitCode != 0)
        wxLogWarning("Program '%s' ended with code %d", program, exitCode);
}

bool StartProgram(const wxString& program, const wxArrayString& arguments, os::Descriptor& output, pid_t& pid)
{
    const std::string name = ToSystemBytes(program);
    const std::string path = FindProgram(name);
    const Arguments values(name, arguments);
    const os::Descriptor null = os::RaiseDescriptor(os::Descriptor(os::Open("/dev/null", O_RDONLY)));
    if (!null)
        return false;
    os::Pipe pipe = os::OpenPipe();
    if (!pipe)
        return false;
    os::SpawnPlan plan;
    plan.program = path.c_str();
    plan.arguments = values.Get();
    plan.environment = environ;
    plan.input = null.Get();
    plan.output = pipe.writing.Get();
    pid = os::Spawn(plan);
    output = std::move(pipe.reading);
    return pid > 0;
}

} // namespace

bool Execute(const wxString& program, const wxArrayString& arguments, wxString& output, int& exitCode, wxString& error)
{
    return Execute(program, arguments, output, exitCode, error, 0);
}

bool Execute(const wxString& program, const wxArrayString& arguments, wxString& output, int& exitCode, wxString& error,
             long timeoutMs)
{
    output.clear();
    error.clear();
    exitCode = -1;
    if (LogTraceIsEnabled("Cmd"))
        Trace(__LINE__,
              wxString::Format("run '%s' with %u arguments", program, static_cast<unsigned>(arguments.GetCount())));
    const ChildStatusKept kept;
    os::Descriptor pipe;
    pid_t pid = -1;
    if (!StartProgram(program, arguments, pipe, pid)) {
        error = wxString::Format("Unable to run '%s': %s", program, SystemError(os::LastError()));
        return false;
    }
    RunningProgram running(pid, std::move(pipe));
    Output captured;
    const bool inTime = running.Wait(timeoutMs, captured);
    output = captured.Text();
    if (LogTraceIsEnabled("Cmd"))
        Trace(__LINE__, wxString::Format("'%s' (pid %ld) ended with status %d after %llu bytes of output", program,
                                         static_cast<long>(pid), running.Status(), captured.Total()));
    if (!inTime) {
        error = wxString::Format("Program '%s' was killed, because it took longer than %ld ms", program, timeoutMs);
        return false;
    }
    if (!running.StatusKnown()) {
        error = wxString::Format("Program '%s' ended, but somebody else took its status", program);
        return false;
    }
    ReportEnd(program, running.Status(), exitCode);
    return true;
}

} // namespace VexCore
