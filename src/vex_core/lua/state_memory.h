#pragma once
// The memory of one Lua state. Most of what Lua asks for is a few dozen bytes, tells its size again when it is given
// back, and ends with the state: such blocks are cut out of slabs and go from hand to hand within the state, without
// the locks, headers and mergers of a heap for everybody.

#include <array>
#include <cstddef>
#include <cstdlib>

namespace VexCore {

/// One thread at a time, as for its state, which it outlives. Slabs of which nothing is in use go back to the heap when
/// they are many, so that a peak of blocks of one size is no memory lost for others; large blocks go back at once.
class StateMemory
{
public:
    static constexpr std::size_t maxSmallBytes = 512;
    /// Where it has its own memory from.
    struct Heap
    {
        void* (*resize)(void* block, std::size_t size); ///< as realloc
        void* (*aligned)(std::size_t alignment, std::size_t size); ///< nullptr where there is none
        void (*free)(void* block); ///< of either
    };
    static const Heap ofProcess;

    explicit StateMemory(const Heap& heap = ofProcess) : m_heap(heap) {}
    ~StateMemory();
    StateMemory(const StateMemory&) = delete;
    StateMemory& operator=(const StateMemory&) = delete;

    /// For lua_newstate, with the address of the memory. nullptr where there is none, which is never so when a block
    /// shrinks. A native module that names no old size, though there is a block, gets nothing for it, and the block is
    /// lost until the end.
    static void* Allocate(void* memory, void* block, std::size_t oldSize, std::size_t newSize);

    /// The state is about to be closed, which gives back each of its blocks. They still go from hand to hand, but slabs
    /// go back to the heap with the memory only, all at once: to look for unused ones on the way takes longer than the
    /// closing itself.
    void BeginEnd() { m_isEnding = true; }

private:
    static constexpr std::size_t stepBytes = 16; // of sizes and addresses
    struct Free
    {
        Free* next;
    };
    struct Slab // at its begin
    {
        Slab* next;
        std::size_t used; // blocks
    };
    struct Stranded // behind a large block's first maxSmallBytes
    {
        Stranded* next;
    };

    static constexpr std::size_t IndexOf(std::size_t smallSize) { return (smallSize - 1) / stepBytes; }
    static Slab& SlabOf(void* block);
    void* Take(std::size_t size);
    void Give(void* block, std::size_t size);
    void* Resize(void* block, std::size_t oldSize, std::size_t newSize);
    void AddFree(void* block, std::size_t index);
    bool AddSlab();
    void FreeUnused();
    bool TakeStranded(void* block);

    const Heap& m_heap;
    std::array<Free*, maxSmallBytes / stepBytes> m_free{}; // by size, that of one step first
    Slab* m_slabs = nullptr; // the one that is cut first
    char* m_rest = nullptr; // of the first slab
    std::size_t m_restBytes = 0;
    std::size_t m_slabCount = 0;
    std::size_t m_unusedCount = 0; // slabs of which nothing is in use, without the first
    bool m_isEnding = false; // what is in use is not counted any more
    Stranded* m_stranded = nullptr;
};

} // namespace VexCore
