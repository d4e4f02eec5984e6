#include "vex_core/lua/state_memory.h"

#include <algorithm>
#include <cstdint>
#include <cstring>
#include <random>
#include <set>
#include <string>
#include <vector>

#include <gtest/gtest.h>

using VexCore::StateMemory;

namespace {
constexpr std::size_t small = StateMemory::maxSmallBytes;

void* Make(StateMemory& memory, std::size_t size)
{
    return StateMemory::Allocate(&memory, nullptr, 0, size);
}

void* Resize(StateMemory& memory, void* block, std::size_t oldSize, std::size_t newSize)
{
    return StateMemory::Allocate(&memory, block, oldSize, newSize);
}

void Free(StateMemory& memory, void* block, std::size_t size)
{
    EXPECT_EQ(StateMemory::Allocate(&memory, block, size, 0), nullptr);
}

// A heap that counts, and that gives nothing when it is told so.
int g_calls;
bool g_empty;

std::set<void*> g_slabs;

void* CountingResize(void* block, std::size_t size)
{
    ++g_calls;
    return g_empty ? nullptr : StateMemory::ofProcess.resize(block, size);
}

void* CountingAligned(std::size_t alignment, std::size_t size)
{
    ++g_calls;
    void* const slab = g_empty ? nullptr : StateMemory::ofProcess.aligned(alignment, size);
    if (slab)
        g_slabs.insert(slab);
    return slab;
}

void CountingFree(void* block)
{
    g_slabs.erase(block);
    StateMemory::ofProcess.free(block);
}

constexpr StateMemory::Heap countingHeap = {CountingResize, CountingAligned, CountingFree};

class BlocksOfAState : public ::testing::Test
{
protected:
    void SetUp() override
    {
        g_calls = 0;
        g_empty = false;
    }

    StateMemory m_memory{countingHeap};
};

// A block with bytes that tell where it is from.
struct Block
{
    void* memory;
    std::size_t size;
    unsigned char mark;

    void Fill() const { std::memset(memory, mark, size); }
    bool IsWhole(std::size_t count) const
    {
        const auto* const bytes = static_cast<const unsigned char*>(memory);
        for (std::size_t i = 0; i < count; ++i)
            if (bytes[i] != mark)
                return false;
        return true;
    }
};

} // namespace

TEST_F(BlocksOfAState, NothingTakesNothing)
{
    EXPECT_EQ(Make(m_memory, 0), nullptr);
    Free(m_memory, nullptr, 0);
    EXPECT_EQ(g_calls, 0);
}

TEST_F(BlocksOfAState, ABlockIsWhereAnyObjectMayBe)
{
    for (const std::size_t size : {1U, 15U, 16U, 17U, 511U, 512U, 513U, 5000U}) {
        void* const block = Make(m_memory, size);
        ASSERT_NE(block, nullptr);
        EXPECT_EQ(reinterpret_cast<std::uintptr_t>(block) % alignof(std::max_align_t), 0U) << size;
        Free(m_memory, block, size);
    }
}

TEST_F(BlocksOfAState, SmallBlocksShareWhatTheHeapGives)
{
    for (int i = 0; i < 100; ++i)
        ASSERT_NE(Make(m_memory, 40), nullptr);
    EXPECT_EQ(g_calls, 1);
}

TEST_F(BlocksOfAState, ABlockThatIsGivenBackIsTheNextOfItsSize)
{
    void* const block = Make(m_memory, 40);
    Free(m_memory, block, 40);
    EXPECT_NE(Make(m_memory, 100), block);
    EXPECT_EQ(Make(m_memory, 33), block); // rounded up, the same
}

TEST_F(BlocksOfAState, WhatIsLeftOfASlabIsGivenOutToo)
{
    std::vector<char*> blocks;
    while (g_calls < 2)
        blocks.push_back(static_cast<char*>(Make(m_memory, small)));
    const char* const last = blocks[blocks.size() - 2]; // of the first slab
    for (std::size_t size = 16; size <= small; size += 16) {
        const auto* const block = static_cast<char*>(Make(m_memory, size));
        if (block == last + small) {
            EXPECT_LT(size, small);
            return;
        }
    }
    FAIL() << "nobody got the end of the first slab";
}

TEST_F(BlocksOfAState, ALargeBlockIsTheHeaps)
{
    void* const block = Make(m_memory, small + 1);
    Free(m_memory, block, small + 1);
    void* const other = Make(m_memory, small + 1);
    EXPECT_EQ(g_calls, 2);
    Free(m_memory, other, small + 1);
}

TEST_F(BlocksOfAState, ContentStaysWhateverTheSizeBecomes)
{
    const std::size_t sizes[] = {1, 16, 17, 200, small, small + 1, 3000, 100000};
    for (const std::size_t from : sizes) {
        for (const std::size_t to : sizes) {
            Block block{Make(m_memory, from), from, 0xA5};
            ASSERT_NE(block.memory, nullptr);
            block.Fill();
            block.memory = Resize(m_memory, block.memory, from, to);
            ASSERT_NE(block.memory, nullptr);
            EXPECT_TRUE(block.IsWhole(std::min(from, to))) << from << " to " << to;
            Free(m_memory, block.memory, to);
        }
    }
}

TEST_F(BlocksOfAState, WithoutMemoryThereIsNoBlockAndTheOldOneStays)
{
    Block block{Make(m_memory, 100), 100, 7};
    Block large{Make(m_memory, 1000), 1000, 8};
    block.Fill();
    large.Fill();
    g_empty = true;
    EXPECT_EQ(Make(m_memory, 1000), nullptr);
    EXPECT_EQ(Resize(m_memory, block.memory, 100, 1000), nullptr);
    EXPECT_EQ(Resize(m_memory, large.memory, 1000, 2000), nullptr);
    EXPECT_TRUE(block.IsWhole(100));
    EXPECT_TRUE(large.IsWhole(1000));
    while (Make(m_memory, small)) {
    }
    EXPECT_EQ(Resize(m_memory, block.memory, 100, small), nullptr);
    EXPECT_TRUE(block.IsWhole(100));
    Free(m_memory, large.memory, 1000);
}

// Lua has changed what points to the block by then, and would be left with a size that is not the block's.
TEST_F(BlocksOfAState, ABlockShrinksWithoutMemory)
{
    std::vector<Block> blocks;
    const std::size_t sizes[] = {17, 100, small, small + 1, 1000, 9000};
    unsigned char mark = 1;
    for (const std::size_t size : sizes)
        blocks.push_back({Make(m_memory, size), size, mark++});
    for (const Block& block : blocks)
        block.Fill();
    g_empty = true;
    while (Make(m_memory, small)) {
    }
    for (std::size_t size = small; size >= 16; size -= 16) // and what is left of the slabs
        while (Make(m_memory, size)) {
        }
    for (Block& block : blocks) {
        const std::size_t less[] = {small + 8, small, 90, 16, 1};
        for (const std::size_t size : less) {
            if (size >= block.size)
                continue;
            block.memory = Resize(m_memory, block.memory, block.size, size);
            ASSERT_NE(block.memory, nullptr);
            block.size = size;
            EXPECT_TRUE(block.IsWhole(size));
        }
    }
    g_empty = false;
    for (const Block& block : blocks)
        Free(m_memory, block.memory, block.size);
    std::vector<Block> again;
    while (again.size() < 100) {
        again.push_back({Make(m_memory, 16), 16, mark++});
        again.back().Fill();
    }
    for (const Block& block : again)
        EXPECT_TRUE(block.IsWhole(16));
}

TEST_F(BlocksOfAState, ABlockWithoutItsSizeIsNobodys)
{
    Block block{Make(m_memory, 40), 40, 9};
    block.Fill();
    Free(m_memory, block.memory, 0);
    EXPECT_EQ(Resize(m_memory, block.memory, 0, 60), nullptr);
    EXPECT_NE(Make(m_memory, 40), block.memory);
    EXPECT_TRUE(block.IsWhole(40));
}

TEST_F(BlocksOfAState, ABlockThatHasTheRoomStaysWhereItIs)
{
    Block block{Make(m_memory, 33), 33, 5};
    block.Fill();
    g_empty = true;
    while (Make(m_memory, 48)) {
    }
    EXPECT_EQ(Resize(m_memory, block.memory, 33, 48), block.memory);
    EXPECT_TRUE(block.IsWhole(33));
}

TEST_F(BlocksOfAState, MoreThanThereCanBeIsNotThere)
{
    void* const block = Make(m_memory, 1000);
    for (std::size_t less = 0; less < 64; ++less) {
        EXPECT_EQ(Make(m_memory, SIZE_MAX - less), nullptr);
        EXPECT_EQ(Resize(m_memory, block, 1000, SIZE_MAX - less), nullptr);
    }
    Free(m_memory, block, 1000);
}

// A peak of one size after the other, with a block here and there that stays.
TEST_F(BlocksOfAState, WhatManyBlocksOfOneSizeHadGoesBack)
{
    constexpr std::size_t count = 20000;
    std::vector<Block> stay;
    for (std::size_t size = 40; size <= small; size += 16) {
        std::vector<Block> blocks;
        for (std::size_t i = 0; i < count; ++i) {
            blocks.push_back({Make(m_memory, size), size, static_cast<unsigned char>(i % 251)});
            blocks.back().Fill();
        }
        const std::size_t most = g_slabs.size();
        EXPECT_GT(most, count * size / 8192);
        for (std::size_t i = 0; i < count; ++i) {
            ASSERT_TRUE(blocks[i].IsWhole(size));
            if (i % 5000 == 0)
                stay.push_back(blocks[i]);
            else
                Free(m_memory, blocks[i].memory, size);
        }
        EXPECT_LE(g_slabs.size(), stay.size() + 64) << "of " << most;
    }
    for (const Block& block : stay) {
        EXPECT_TRUE(block.IsWhole(block.size));
        Free(m_memory, block.memory, block.size);
    }
    EXPECT_LE(g_slabs.size(), 64U);
}

// The closing of a state gives back block after block, and its finalisers make new ones.
TEST_F(BlocksOfAState, AtTheEndBlocksGoFromHandToHandAndSlabsBackAllAtOnce)
{
    constexpr std::size_t size = 48;
    {
        StateMemory ending(countingHeap);
        std::vector<void*> blocks(20000);
        for (void*& block : blocks)
            block = Make(ending, size);
        void* const large = Make(ending, small + 1);
        const std::size_t most = g_slabs.size();
        EXPECT_GT(most, blocks.size() * size / 8192);
        ending.BeginEnd();
        const int calls = g_calls;
        for (void* const block : blocks)
            Free(ending, block, size);
        Free(ending, large, small + 1);
        EXPECT_EQ(g_slabs.size(), most);
        for (auto block = blocks.rbegin(); block != blocks.rend(); ++block)
            EXPECT_EQ(Make(ending, size), *block);
        EXPECT_EQ(g_calls, calls);
        Block one = {Make(ending, size), size, 7}; // in a slab that comes at the end
        one.Fill();
        EXPECT_TRUE(one.IsWhole(size));
    }
    EXPECT_EQ(g_slabs.size(), 0U);
}

TEST_F(BlocksOfAState, BlocksOfAnySizeInAnyOrderKeepTheirContent)
{
    std::mt19937 chance(20);
    std::vector<Block> blocks;
    const auto draw = [&] { return 1 + chance() % (chance() % 8 == 0 ? 3000 : 600); };
    for (int i = 0; i < 20000; ++i) {
        const std::size_t which = blocks.empty() ? 0 : chance() % blocks.size();
        const unsigned what = chance() % 3;
        if (blocks.size() < 50 || (what == 0 && blocks.size() < 400)) {
            const std::size_t size = draw();
            blocks.push_back({Make(m_memory, size), size, static_cast<unsigned char>(chance())});
            ASSERT_NE(blocks.back().memory, nullptr);
            blocks.back().Fill();
        } else if (what == 1) {
            Block& block = blocks[which];
            const std::size_t size = draw();
            block.memory = Resize(m_memory, block.memory, block.size, size);
            ASSERT_NE(block.memory, nullptr);
            ASSERT_TRUE(block.IsWhole(std::min(size, block.size)));
            block.size = size;
            block.Fill();
        } else {
            ASSERT_TRUE(blocks[which].IsWhole(blocks[which].size));
            Free(m_memory, blocks[which].memory, blocks[which].size);
            blocks[which] = blocks.back();
            blocks.pop_back();
        }
    }
    for (const Block& block : blocks) {
        EXPECT_TRUE(block.IsWhole(block.size));
        Free(m_memory, block.memory, block.size);
    }
}
