// The process entry of vexctl; what it does is in commands.cpp.

#include "vex/apps/vexctl/commands.h"

int main(int argc, char** argv)
{
    return Vexctl::RunCommandLine(argc, argv);
}
