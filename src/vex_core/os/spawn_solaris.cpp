#include "vex_core/os/spawn.h"

#include "vex_core/os/files.h"
#include "vex_core/os/raise_pipe.h"

#include <cstdlib>

#include <fcntl.h>
#include <unistd.h>

namespace VexCore::os {

void CloseFrom(int first)
{
    ::closefrom(first);
}

Pipe OpenPipe()
{
    int made[2];
    if (::pipe(made) != 0)
        return {};
    return RaisePipe(made); // which sets close-on-exec
}

Descriptor FileOf(std::string_view bytes)
{
    char name[] = "/tmp/vex.XXXXXX";
    Descriptor file = RaiseDescriptor(Descriptor(::mkstemp(name)));
    if (!file)
        return {};
    ::unlink(name);
    if (!WriteAll(file.Get(), bytes.data(), bytes.size()))
        return {};
    ::lseek(file.Get(), 0, SEEK_SET);
    return file;
}

Descriptor OpenProcess(pid_t)
{
    return {};
}

} // namespace VexCore::os
