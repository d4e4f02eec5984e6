// Preloaded: every end of the process by `exit` takes VEX_SLOW_EXIT milliseconds more, so that who looks at a process
// right after its child has begun finds it still there.

#include <cstdlib>

#include <unistd.h>

namespace {
__attribute__((destructor)) void Linger()
{
    if (const char* const ms = std::getenv("VEX_SLOW_EXIT"))
        ::usleep(static_cast<useconds_t>(std::atoi(ms)) * 1000);
}
} // namespace
