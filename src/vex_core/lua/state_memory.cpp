#include "vex_core/lua/state_memory.h"

#include <algorithm>
#include <cstring>
#include <new>

// A build that looks for misuse of memory is told what of a slab nobody has.
#if __has_include(<sanitizer/asan_interface.h>)
#include <sanitizer/asan_interface.h>
#else
#define ASAN_POISON_MEMORY_REGION(begin, size)
#define ASAN_UNPOISON_MEMORY_REGION(begin, size)
#endif

namespace VexCore {

namespace {
constexpr std::size_t slabBytes = 8 * 1024 - 32; // two pages with what the heap adds
} // namespace

StateMemory::~StateMemory()
{
    while (m_slabs) {
        void* const memory = m_slabs->memory;
        m_slabs = m_slabs->next;
        std::free(memory);
    }
}

void* StateMemory::Allocate(void* memory, void* block, std::size_t oldSize, std::size_t newSize)
{
    StateMemory& self = *static_cast<StateMemory*>(memory);
    if (!block)
        return newSize == 0 ? nullptr : self.Take(newSize); // the old size tells what it is for
    if (newSize > 0)
        return self.Resize(block, oldSize, newSize);
    if (oldSize > 0)
        self.Give(block, oldSize);
    return nullptr;
}

void* StateMemory::Take(std::size_t size)
{
    if (size > maxSmallBytes)
        return m_heap(nullptr, size + sizeof(Slab)); // see Resize
    const std::size_t index = (size - 1) / stepBytes;
    if (Free* const block = m_free[index]) {
        ASAN_UNPOISON_MEMORY_REGION(block, std::max(size, sizeof(Free)));
        m_free[index] = block->next;
        return block;
    }
    const std::size_t bytes = (index + 1) * stepBytes;
    if (m_restBytes < bytes && !AddSlab())
        return nullptr;
    char* const block = m_rest;
    m_rest += bytes;
    m_restBytes -= bytes;
    ASAN_UNPOISON_MEMORY_REGION(block, size);
    return block;
}

void StateMemory::Give(void* block, std::size_t size)
{
    if (size > maxSmallBytes) {
        std::free(block);
        return;
    }
    const std::size_t index = (size - 1) / stepBytes;
    ASAN_UNPOISON_MEMORY_REGION(block, sizeof(Free));
    m_free[index] = new (block) Free{m_free[index]};
    ASAN_POISON_MEMORY_REGION(block, (index + 1) * stepBytes);
}

void* StateMemory::Resize(void* block, std::size_t oldSize, std::size_t newSize)
{
    if (oldSize > maxSmallBytes && newSize > maxSmallBytes) {
        void* const moved = m_heap(block, newSize + sizeof(Slab));
        return moved || newSize > oldSize ? moved : block;
    }
    if (void* const moved = Take(newSize)) {
        std::memcpy(moved, block, std::min(oldSize, newSize));
        Give(block, oldSize);
        return moved;
    }
    if (newSize > oldSize)
        return nullptr;
    // Lua takes it for granted that a block can shrink. It stays where it is then, and serves a smaller size until the
    // end. A large one becomes a slab that is in use, and what it has behind that size keeps it.
    if (oldSize > maxSmallBytes)
        Keep(block, static_cast<char*>(block) + maxSmallBytes);
    return block;
}

// What is left of the slab before it is a block of a size that fits.
bool StateMemory::AddSlab()
{
    void* const memory = m_heap(nullptr, slabBytes);
    if (!memory)
        return false;
    if (m_restBytes > 0)
        Give(m_rest, m_restBytes);
    Keep(memory, memory);
    m_rest = static_cast<char*>(memory) + sizeof(Slab);
    m_restBytes = slabBytes - sizeof(Slab);
    ASAN_POISON_MEMORY_REGION(m_rest, m_restBytes);
    return true;
}

// Memory of the heap, until the end. `place` in it is nobody else's.
void StateMemory::Keep(void* memory, void* place)
{
    m_slabs = new (place) Slab{m_slabs, memory};
}

} // namespace VexCore
