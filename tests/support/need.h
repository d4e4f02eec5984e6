#pragma once
// What a test cannot go on without.

#include <stdexcept>
#include <utility>

namespace Test {

/// The pointer or optional itself. Throws when there is nothing in it: the test fails and the next one runs.
template <class Pointer>
Pointer Need(Pointer pointer)
{
    if (!pointer)
        throw std::runtime_error("the test needs what it did not get");
    return pointer;
}

} // namespace Test
