#pragma once
// How the run of a chunk ended, beside 0 for well: the numbers that scripts and callers of the interpreter see.

namespace VexCore {

constexpr int statusNotLoaded = 1;
constexpr int statusFailed = 2;
constexpr int statusNoMemory = 4;
constexpr int statusHandlerFailed = 5;

} // namespace VexCore
