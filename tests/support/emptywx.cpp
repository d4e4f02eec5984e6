// An empty wx console program that waits: the yardstick for the memory of the supervisor.

#include <cstdio>

#include <wx/app.h>
#include <wx/init.h>

int main(int argc, char** argv)
{
    wxInitializer wx(argc, argv);
    std::puts("ready");
    std::fflush(stdout);
    std::getchar();
    return 0;
}
