#include "vex_core/os/error.h"

#include <cerrno>
#include <system_error>

namespace VexCore::os {

int LastError()
{
    return errno;
}

void SetLastError(int error)
{
    errno = error;
}

// The sanitizer looks at the category's type through a pipe, and calls it invalid where there is no descriptor left for
// one: just where such texts are needed.
__attribute__((no_sanitize("vptr"))) std::string ErrorText(int error)
{
    return std::system_category().message(error);
}

} // namespace VexCore::os
