#pragma once
// What every header of the binder starts from: Lua, and the mark of what libSLB3.so shows.

#include <lua.hpp>

#define SLB3_API __attribute__((visibility("default")))
