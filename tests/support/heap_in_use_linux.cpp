#include "support/heap_in_use.h"

#include <malloc.h>

namespace Test {

std::optional<std::size_t> HeapInUse()
{
    return ::mallinfo2().uordblks;
}

} // namespace Test
