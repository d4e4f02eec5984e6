#include "vex_core/os/named_pipe.h"

#include "vex_core/os/files.h"
#include "vex_core/os/process_info.h"

#include <cerrno>

#include <fcntl.h>
#include <sys/stat.h>

namespace VexCore::os {

namespace {
constexpr int atOnce = O_NONBLOCK | O_NOFOLLOW | O_NOCTTY;

Descriptor Refuse()
{
    errno = EEXIST;
    return {};
}

} // namespace

Pipe OpenNamedPipe(int folder, const char* name)
{
    if (::mkfifoat(folder, name, 0600) != 0 && errno != EEXIST)
        return {};
    Pipe pipe;
    pipe.reading = Descriptor(OpenAt(folder, name, O_RDONLY | atOnce));
    struct stat status = {};
    if (!pipe.reading || FStat(pipe.reading.Get(), status) != 0)
        return {};
    if (!S_ISFIFO(status.st_mode) || status.st_uid != EffectiveUser() || (status.st_mode & 0077) != 0
        || status.st_nlink != 1)
        return {Refuse(), {}};
    pipe.writing = Descriptor(OpenAt(folder, name, O_WRONLY | atOnce));
    return pipe.writing ? std::move(pipe) : Pipe();
}

Descriptor OpenPipeOfReader(const std::string& path)
{
    Descriptor pipe(Open(path.c_str(), O_WRONLY | atOnce));
    struct stat status = {};
    if (!pipe || FStat(pipe.Get(), status) != 0)
        return {};
    return S_ISFIFO(status.st_mode) ? std::move(pipe) : Refuse();
}

} // namespace VexCore::os
