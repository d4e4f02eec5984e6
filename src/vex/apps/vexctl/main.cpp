// The process entry of vexctl; what it does is in command_line.cpp.

#include "vex/apps/vexctl/command_line.h"

int main(int argc, char** argv)
{
    return Vexctl::RunCommandLine(argc, argv);
}
