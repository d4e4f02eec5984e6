#pragma once
// How often the working child has been started again.

#include <cstdint>

namespace VexCore {

/// How many processes this one's parent had forked before it. In a working child these are the children before it,
/// because its supervisor forks nothing else: the restarts so far. (A fork that failed counts too.) 0 in a process
/// that was not forked from one of ours. Any thread.
std::uint64_t ForksBeforeThisProcess();

} // namespace VexCore
