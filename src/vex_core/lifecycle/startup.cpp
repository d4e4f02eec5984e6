// Runs before `main`, on the one thread that there is, ahead of the library's other initialisers: it uses the C
// library, and of the framework only the converter that it makes anew.

#include "vex_core/lifecycle/startup.h"

#include "vex_core/base/file_name_conv.h"
#include "vex_core/os/signals.h"

#include <clocale>
#include <cstdlib>
#include <cstring>
#include <string>

#include <fcntl.h>
#include <langinfo.h>
#include <unistd.h>

#include <wx/strconv.h>

namespace VexCore {

namespace {
// Whether the character set in force is ASCII; each system has a name of its own for it.
bool CharacterSetIsAscii()
{
    const char* const set = ::nl_langinfo(CODESET);
    for (const char* const name : {"ANSI_X3.4-1968", "US-ASCII", "ASCII", "646", ""})
        if (std::strcmp(set, name) == 0)
            return true;
    return false;
}

// LC_ALL=x becomes LC_...=x for the categories that the C++ standard or POSIX names, but not for numbers.
void TakeLcAllApart()
{
    const char* const all = std::getenv("LC_ALL");
    if (!all || !*all)
        return;
    const std::string name = all;
    for (const char* const category : {"LC_COLLATE", "LC_CTYPE", "LC_MESSAGES", "LC_MONETARY", "LC_TIME"})
        ::setenv(category, name.c_str(), 1);
    ::unsetenv("LC_ALL");
}

} // namespace

void OpenStandardDescriptors()
{
    for (int descriptor = 0; descriptor <= 2; ++descriptor) {
        if (::fcntl(descriptor, F_GETFD) != -1)
            continue;
        // The lowest closed number is the one that open gives.
        if (::open("/dev/null", descriptor == 0 ? O_RDONLY : O_WRONLY) < 0 && ::open("/", O_RDONLY) < 0)
            return;
    }
}

void IgnoreFileSizeSignal()
{
    struct sigaction ignore = {};
    ignore.sa_handler = SIG_IGN;
    sigemptyset(&ignore.sa_mask);
    os::SetDisposition(SIGXFSZ, ignore);
}

void SettleLocale()
{
    TakeLcAllApart();
    ::setenv("LC_NUMERIC", "C", 1);
    if (!std::setlocale(LC_CTYPE, ""))
        std::setlocale(LC_CTYPE, "C");
    if (!CharacterSetIsAscii())
        return;
    for (const char* const name : {"C.UTF-8", "en_US.UTF-8"})
        if (std::setlocale(LC_CTYPE, name)) {
            ::setenv("LC_CTYPE", name, 1);
            return;
        }
}

namespace {
void SettleFileNames()
{
    if (std::strcmp(::nl_langinfo(CODESET), "UTF-8") == 0)
        wxConvFileName = new wxMBConvUTF8(FileNameConv()); // for as long as the process lives
}

// Ahead of the library's other initialisers, which may open files or convert text.
__attribute__((constructor(101))) void BeforeMain()
{
    OpenStandardDescriptors();
    IgnoreFileSizeSignal();
    SettleLocale();
    // The framework's own initialisers ran first and took the character set from the environment as it was;
    // the command line is converted with this one.
    wxConvLocal = wxCSConv(wxFONTENCODING_SYSTEM);
    SettleFileNames();
}

} // namespace

} // namespace VexCore
