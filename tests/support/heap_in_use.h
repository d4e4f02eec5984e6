#pragma once
// How much memory the process has taken and not given back.

#include <cstddef>
#include <optional>

namespace Test {

/// Bytes of the heap, without what the allocator keeps for later. Nothing where the system does not tell.
std::optional<std::size_t> HeapInUse();

} // namespace Test
