#pragma once
// How what several threads use lies in memory.

#include <cstddef>

namespace VexCore {

/// So many bytes apart lie what one thread changes and what others look at, or the change would take that from their
/// processors' caches. Two lines of a cache, because processors fetch them in pairs.
constexpr std::size_t bytesApart = 128;

} // namespace VexCore
