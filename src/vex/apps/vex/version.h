#pragma once
// The version of the agent, and the one place where it stands: banners, packages and extensions are compared
// with it, and the build, package names and tests read it here. The build does so line by line, so each number
// keeps a line of its own.

#define VEX_VERSION_MAJOR 10
#define VEX_VERSION_MINOR 0
#define VEX_VERSION_PATCH 0
#define VEX_VERSION_BUILD 4015

#define VEX_VERSION_JOINED(major, minor, patch, build) #major "." #minor "." #patch "." #build
#define VEX_VERSION_EXPANDED(major, minor, patch, build) VEX_VERSION_JOINED(major, minor, patch, build)
/// All four numbers, with dots.
#define VEX_VERSION_TEXT                                                                                               \
    VEX_VERSION_EXPANDED(VEX_VERSION_MAJOR, VEX_VERSION_MINOR, VEX_VERSION_PATCH, VEX_VERSION_BUILD)
