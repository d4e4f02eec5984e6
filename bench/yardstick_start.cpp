// The yardstick of bench_start: the least program that starts what the launcher is made of, and stops it again: wx base
// with the user's locale and messages of one language, Lua, OpenSSL with a seeded generator, SQLite. With the argument
// "bare" it leaves the locale out; with "wait" it says that it is ready and waits for the end of its input, for those
// who look at its memory.

#include <lua.hpp>
#include <openssl/rand.h>
#include <openssl/ssl.h>
#include <sqlite3.h>
#include <wx/app.h>
#include <wx/init.h>
#include <wx/intl.h>
#include <wx/translation.h>

#include <cstdio>
#include <cstring>

namespace {
class NoTranslations : public wxFileTranslationsLoader
{
public:
    wxArrayString GetAvailableTranslations(const wxString&) const override { return wxArrayString(); }
};

} // namespace

int main(int argc, char** argv)
{
    wxInitializer wx(argc, argv);
    if (!wx.IsOk())
        return 1;
    wxLocale locale;
    if (argc < 2 || std::strcmp(argv[1], "bare") != 0) {
        wxTranslations::Set(new wxTranslations);
        wxTranslations::Get()->SetLoader(new NoTranslations);
        locale.Init(wxLANGUAGE_DEFAULT, wxLOCALE_LOAD_DEFAULT);
    }
    OPENSSL_init_ssl(OPENSSL_INIT_LOAD_SSL_STRINGS, nullptr);
    if (RAND_status() != 1 || sqlite3_initialize() != SQLITE_OK)
        return 1;
    lua_State* L = luaL_newstate();
    luaL_openlibs(L);
    const int status = luaL_dostring(L, "return 0");
    if (argc > 1 && std::strcmp(argv[1], "wait") == 0) {
        std::puts("ready");
        std::fflush(stdout);
        std::getchar();
    }
    lua_close(L);
    sqlite3_shutdown();
    return status;
}
