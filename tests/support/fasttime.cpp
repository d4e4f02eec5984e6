// Preloaded into a starting daemon: a clock of its own, on which the supervisor's delays take no time and its restarts
// lie too far apart to count. `time` is a minute and a half ahead at each call, `nanosleep` comes back at once.

#include <ctime>

namespace {
std::time_t g_now = 1700000000;
}

extern "C" __attribute__((visibility("default"))) std::time_t time(std::time_t* out) noexcept
{
    g_now += 90;
    if (out)
        *out = g_now;
    return g_now;
}

extern "C" __attribute__((visibility("default"))) int nanosleep(const timespec*, timespec*)
{
    return 0;
}
