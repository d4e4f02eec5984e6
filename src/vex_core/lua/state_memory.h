#pragma once
// The memory of one Lua state. Most of what Lua asks for is a few dozen bytes, tells its size again when it is given
// back, and ends with the state: such blocks are cut out of slabs and go from hand to hand within the state, without
// the locks, headers and mergers of a heap for everybody.

#include <array>
#include <cstddef>
#include <cstdlib>

namespace VexCore {

/// One thread at a time, as for its state, which it outlives. What small blocks have once taken stays until the end,
/// for other blocks of about their size; large ones are the heap's, and go back to it at once.
class StateMemory
{
public:
    static constexpr std::size_t maxSmallBytes = 512;
    /// As realloc. Blocks go back with free.
    using Heap = void* (*)(void* block, std::size_t size);

    explicit StateMemory(Heap heap = std::realloc) : m_heap(heap) {}
    ~StateMemory();
    StateMemory(const StateMemory&) = delete;
    StateMemory& operator=(const StateMemory&) = delete;

    /// For lua_newstate, with the address of the memory. nullptr where there is none, which is never so when a block
    /// shrinks. A block that is given back without its size, as a careless native module may do, is lost until the end.
    static void* Allocate(void* memory, void* block, std::size_t oldSize, std::size_t newSize);

private:
    static constexpr std::size_t stepBytes = 16; // of sizes and addresses
    struct Free
    {
        Free* next;
    };
    struct Slab
    {
        Slab* next;
        void* memory; // of the heap
    };

    void* Take(std::size_t size);
    void Give(void* block, std::size_t size);
    void* Resize(void* block, std::size_t oldSize, std::size_t newSize);
    bool AddSlab();
    void Keep(void* memory, void* place);

    const Heap m_heap;
    std::array<Free*, maxSmallBytes / stepBytes> m_free{}; // by size, that of one step first
    Slab* m_slabs = nullptr;
    char* m_rest = nullptr; // of the newest slab
    std::size_t m_restBytes = 0;
};

} // namespace VexCore
