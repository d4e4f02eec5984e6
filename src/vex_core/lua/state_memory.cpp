#include "vex_core/lua/state_memory.h"

#include <algorithm>
#include <cstdint>
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
// A slab is found by the address of a block. With what the heap adds it is as long as its alignment, so that one
// follows the other.
constexpr std::size_t slabAlignment = 8 * 1024;
constexpr std::size_t slabBytes = slabAlignment - 16;
constexpr std::size_t keptUnused = 16; // slabs

void* Aligned(std::size_t alignment, std::size_t size)
{
    void* memory = nullptr;
    return ::posix_memalign(&memory, alignment, size) == 0 ? memory : nullptr;
}

} // namespace

const StateMemory::Heap StateMemory::ofProcess = {std::realloc, Aligned, std::free};

StateMemory::~StateMemory()
{
    while (m_slabs) {
        Slab* const slab = m_slabs;
        m_slabs = slab->next;
        m_heap.free(slab);
    }
    while (m_stranded) {
        char* const block = reinterpret_cast<char*>(m_stranded) - maxSmallBytes;
        m_stranded = m_stranded->next;
        m_heap.free(block);
    }
}

void* StateMemory::Allocate(void* memory, void* block, std::size_t oldSize, std::size_t newSize)
{
    StateMemory& self = *static_cast<StateMemory*>(memory);
    if (newSize > PTRDIFF_MAX) // no object can be as large
        return nullptr;
    if (!block)
        return newSize == 0 ? nullptr : self.Take(newSize); // the old size tells what it is for
    if (oldSize == 0)
        return nullptr;
    if (newSize > 0)
        return self.Resize(block, oldSize, newSize);
    self.Give(block, oldSize);
    return nullptr;
}

StateMemory::Slab& StateMemory::SlabOf(void* block)
{
    return *reinterpret_cast<Slab*>(reinterpret_cast<std::uintptr_t>(block) & ~(slabAlignment - 1));
}

void* StateMemory::Take(std::size_t size)
{
    if (size > maxSmallBytes)
        return m_heap.resize(nullptr, size + sizeof(Stranded)); // see Resize
    const std::size_t index = IndexOf(size);
    if (Free* const block = m_free[index]) {
        ASAN_UNPOISON_MEMORY_REGION(block, std::max(size, sizeof(Free)));
        m_free[index] = block->next;
        if (m_isEnding)
            return block;
        Slab& slab = SlabOf(block);
        if (slab.used++ == 0 && &slab != m_slabs)
            --m_unusedCount;
        return block;
    }
    const std::size_t bytes = (index + 1) * stepBytes;
    if (m_restBytes < bytes && !AddSlab())
        return nullptr;
    char* const block = m_rest;
    m_rest += bytes;
    m_restBytes -= bytes;
    ++m_slabs->used;
    ASAN_UNPOISON_MEMORY_REGION(block, size);
    return block;
}

void StateMemory::Give(void* block, std::size_t size)
{
    if (size > maxSmallBytes || (m_stranded && TakeStranded(block))) {
        m_heap.free(block);
        return;
    }
    AddFree(block, IndexOf(size));
    if (m_isEnding)
        return;
    Slab& slab = SlabOf(block);
    if (--slab.used > 0 || &slab == m_slabs)
        return;
    if (++m_unusedCount > keptUnused && m_unusedCount > m_slabCount / 4)
        FreeUnused();
}

void* StateMemory::Resize(void* block, std::size_t oldSize, std::size_t newSize)
{
    if (oldSize > maxSmallBytes && newSize > maxSmallBytes) {
        void* const moved = m_heap.resize(block, newSize + sizeof(Stranded));
        return moved || newSize > oldSize ? moved : block;
    }
    if (std::max(oldSize, newSize) <= maxSmallBytes && IndexOf(oldSize) == IndexOf(newSize)) {
        ASAN_UNPOISON_MEMORY_REGION(block, newSize);
        return block;
    }
    if (void* const moved = Take(newSize)) {
        std::memcpy(moved, block, std::min(oldSize, newSize));
        Give(block, oldSize);
        return moved;
    }
    if (newSize > oldSize)
        return nullptr;
    // Lua takes it for granted that a block can shrink. So it stays where it is and serves a smaller size. A large one
    // is noted, in what it has behind that size: it is in no slab.
    if (oldSize > maxSmallBytes)
        m_stranded = new (static_cast<char*>(block) + maxSmallBytes) Stranded{m_stranded};
    return block;
}

void StateMemory::AddFree(void* block, std::size_t index)
{
    ASAN_UNPOISON_MEMORY_REGION(block, sizeof(Free));
    m_free[index] = new (block) Free{m_free[index]};
    ASAN_POISON_MEMORY_REGION(block, (index + 1) * stepBytes);
}

// What is left of the slab before it is a block of a size that fits.
bool StateMemory::AddSlab()
{
    void* const memory = m_heap.aligned(slabAlignment, slabBytes);
    if (!memory)
        return false;
    if (m_restBytes > 0)
        AddFree(m_rest, IndexOf(m_restBytes));
    if (m_slabs && m_slabs->used == 0)
        ++m_unusedCount;
    m_slabs = new (memory) Slab{m_slabs, 0};
    ++m_slabCount;
    m_rest = static_cast<char*>(memory) + sizeof(Slab);
    m_restBytes = slabBytes - sizeof(Slab);
    ASAN_POISON_MEMORY_REGION(m_rest, m_restBytes);
    return true;
}

// Gives back the slabs of which nothing is in use, but not the one that is being cut.
void StateMemory::FreeUnused()
{
    const auto isUnused = [this](const Slab& slab) { return slab.used == 0 && &slab != m_slabs; };
    for (std::size_t index = 0; index < m_free.size(); ++index) {
        Free* block = m_free[index];
        m_free[index] = nullptr;
        while (block) {
            ASAN_UNPOISON_MEMORY_REGION(block, sizeof(Free));
            Free* const next = block->next;
            if (!isUnused(SlabOf(block)))
                AddFree(block, index);
            block = next;
        }
    }
    Slab** place = &m_slabs->next;
    while (Slab* const slab = *place) {
        if (isUnused(*slab)) {
            *place = slab->next;
            m_heap.free(slab);
            --m_slabCount;
        } else {
            place = &slab->next;
        }
    }
    m_unusedCount = 0;
}

// Whether it is a large block that had to shrink without memory; if so, it is not noted any more.
bool StateMemory::TakeStranded(void* block)
{
    for (Stranded** place = &m_stranded; *place; place = &(*place)->next)
        if (reinterpret_cast<char*>(*place) - maxSmallBytes == block) {
            *place = (*place)->next;
            return true;
        }
    return false;
}

} // namespace VexCore
