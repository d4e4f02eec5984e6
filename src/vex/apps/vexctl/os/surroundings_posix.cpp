#include "vex/apps/vexctl/os/surroundings.h"

#include "vex_core/lifecycle/startup.h"
#include "vex_core/os/signals.h"

#include <csignal>
#include <cstdlib>
#include <filesystem>
#include <memory>

#include <stdlib.h>
#include <sys/ioctl.h>
#include <termios.h>
#include <unistd.h>

namespace Vexctl::os {

void PrepareProcess()
{
    // With the same call the linker takes the core library's start-up in, which has run before main: the descriptors 0
    // to 2 are open, and a limit of the size of files ends nobody.
    VexCore::SettleLocale();
    struct sigaction action = {};
    action.sa_handler = SIG_IGN;
    VexCore::os::SetDisposition(SIGPIPE, action);
}

std::size_t TerminalColumns(int descriptor)
{
    struct winsize size = {};
    constexpr std::size_t usual = 80;
    return ::ioctl(descriptor, TIOCGWINSZ, &size) == 0 && size.ws_col > 0 ? size.ws_col : usual;
}

std::string RealPath(const std::string& path)
{
    const std::unique_ptr<char, decltype(&std::free)> real(::realpath(path.c_str(), nullptr), &std::free);
    return real ? std::string(real.get()) : std::string();
}

std::string MakeTemporaryFolder()
{
    const char* const given = std::getenv("TMPDIR");
    // A launcher expands variables in the names of folders.
    const bool isPlain = given && given[0] == '/' && std::string(given).find_first_of("$\\") == std::string::npos;
    std::string folder = (isPlain ? std::string(given) : std::string("/tmp")) + "/vexctl-XXXXXX";
    return ::mkdtemp(&folder[0]) ? folder : std::string();
}

void RemoveFolder(const std::string& path)
{
    std::error_code ignored;
    std::filesystem::remove_all(path, ignored);
}

} // namespace Vexctl::os
