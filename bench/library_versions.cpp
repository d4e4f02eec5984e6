// Prints compiler and libraries with their versions, a line each: what figures of a build depend on beside our sources.

#include <cstdio>

#include <gnu/libc-version.h>
#include <libdeflate.h>
#include <lua.hpp>
#include <openssl/crypto.h>
#include <sqlite3.h>
#include <wx/version.h>
#include <zlib.h>

int main()
{
#ifdef __clang__
    std::puts("compiler clang " __clang_version__);
#else
    std::puts("compiler gcc " __VERSION__);
#endif
    std::printf("libc %s\n", gnu_get_libc_version());
    std::printf("framework %d.%d.%d\n", wxMAJOR_VERSION, wxMINOR_VERSION, wxRELEASE_NUMBER);
    std::printf("lua %s\n", LUA_VERSION_MAJOR "." LUA_VERSION_MINOR "." LUA_VERSION_RELEASE);
    std::printf("openssl %s\n", OpenSSL_version(OPENSSL_VERSION_STRING));
    std::printf("sqlite %s\n", sqlite3_libversion());
    std::printf("zlib %s\n", zlibVersion());
    std::puts("libdeflate " LIBDEFLATE_VERSION_STRING);
    return 0;
}
