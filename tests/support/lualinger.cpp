// A native module for Lua code whose own code is needed long after the state that loaded it: a thread that nobody
// joins, a destructor of thread-specific data, an exit handler. The last two say on standard error that they ran.
#include <cstdlib>
#include <cstring>

#include <lua.hpp>

#include <pthread.h>
#include <time.h>
#include <unistd.h>

namespace {
pthread_key_t g_key;
int g_loads = 0;
char g_data = 0;

void Say(const char* text)
{
    [[maybe_unused]] const ssize_t written = ::write(STDERR_FILENO, text, std::strlen(text));
}

void AtExit()
{
    Say("exit handler\n");
}

void AtThreadEnd(void*)
{
    Say("thread data\n");
}

[[noreturn]] void* Turn(void*)
{
    for (;;) {
        const struct timespec moment = {0, 1000000};
        ::nanosleep(&moment, nullptr);
    }
}

} // namespace

extern "C" __attribute__((visibility("default"))) int luaopen_lualinger(lua_State* L)
{
    if (g_loads++ == 0) {
        std::atexit(AtExit);
        ::pthread_key_create(&g_key, AtThreadEnd);
        pthread_t thread;
        if (::pthread_create(&thread, nullptr, Turn, nullptr) == 0)
            ::pthread_detach(thread);
    }
    ::pthread_setspecific(g_key, &g_data);
    lua_pushinteger(L, g_loads);
    return 1;
}
