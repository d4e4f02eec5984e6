// The yardstick of bench_start: the least program that starts what the launcher is made of, and stops it again.

#include <lua.hpp>
#include <openssl/rand.h>
#include <openssl/ssl.h>
#include <sqlite3.h>
#include <wx/app.h>
#include <wx/init.h>

int main(int argc, char** argv)
{
    wxInitializer wx(argc, argv);
    if (!wx.IsOk())
        return 1;
    OPENSSL_init_ssl(OPENSSL_INIT_LOAD_SSL_STRINGS, nullptr);
    if (RAND_status() != 1 || sqlite3_initialize() != SQLITE_OK)
        return 1;
    lua_State* L = luaL_newstate();
    luaL_openlibs(L);
    const int status = luaL_dostring(L, "return 0");
    lua_close(L);
    sqlite3_shutdown();
    return status;
}
