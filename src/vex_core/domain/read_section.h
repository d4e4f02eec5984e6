#pragma once
// Reading without a lock what others change: a writer takes a block out of sight at once, and gives its memory back
// when nobody can be reading it any more. Readers neither wait nor write where another thread looks all the time.

#include "vex_core/base/cache_lines.h"

#include <atomic>
#include <cstddef>
#include <cstdint>
#include <vector>

namespace VexCore {

/// While one exists, what its thread finds by loads that acquire stays readable. Short, and nothing
/// in it waits: writers may. Nests. Any thread. A thread in one does not fork.
class ReadSection
{
public:
    ReadSection() : m_readers(CountOfThisThread()) { m_readers.fetch_add(1); }
    ~ReadSection() { m_readers.fetch_sub(1, std::memory_order_release); }
    ReadSection(const ReadSection&) = delete;
    ReadSection& operator=(const ReadSection&) = delete;

    /// How many threads at a time read without one counting where another does; the others share a place. A thread has
    /// its place from its first section to its end.
    static constexpr std::size_t maxOwnPlaces = 31;
    /// How many places a thread has to itself now.
    static std::size_t OwnPlaces();

private:
    friend class RetiredBlocks;

    // The sections of a thread that began in an epoch of an even number, and of an odd one.
    struct alignas(bytesApart) Place
    {
        std::atomic<std::uint32_t> readers[2] = {};
    };
    struct alignas(bytesApart) Epoch
    {
        std::atomic<std::uint64_t> number{0};
    };
    static Place s_places[maxOwnPlaces + 1]; // the first is shared
    static std::atomic<std::uint32_t> s_inUse; // a bit for each
    static Epoch s_epoch;
    // Null: none yet. The model spares a reader the call that asks for the thread's own memory. It holds for a library
    // that is loaded with the process, as this one is; who loads it later, by dlopen, takes these few bytes from what
    // the loader keeps spare for such, and fails when that is used up.
    inline static thread_local Place* t_place __attribute__((tls_model("initial-exec"))) = nullptr;

    static std::atomic<std::uint32_t>& CountOfThisThread()
    {
        Place* const own = t_place;
        // Whether it is still this epoch when the count is taken does not matter: see read_section.cpp.
        return (own ? own : Enroll())->readers[s_epoch.number.load(std::memory_order_relaxed) % 2];
    }
    static Place* Enroll();
    static bool NextEpoch() noexcept;
    static std::uint64_t EpochNow() noexcept;
    static bool AreOverSince(std::uint64_t epoch) noexcept;
    static void AfterForkInChild();
    static const struct ForkHook
    {
        ForkHook();
    } forkHook;

    std::atomic<std::uint32_t>& m_readers;
};

/// Blocks of `operator new`, without a destructor, that readers may still have. One thread at a time, and none that is
/// in a ReadSection itself.
class RetiredBlocks
{
    struct Block
    {
        void* memory;
        std::size_t bytes;
    };

public:
    RetiredBlocks() = default;
    /// Nobody reads any more.
    ~RetiredBlocks();
    RetiredBlocks(const RetiredBlocks&) = delete;
    RetiredBlocks& operator=(const RetiredBlocks&) = delete;

    /// What a writer takes along, to give it back where nobody waits for that writer.
    class Excess
    {
    public:
        Excess() = default;
        /// Nobody reads any more.
        ~Excess();
        Excess(const Excess&) = delete;
        Excess& operator=(const Excess&) = delete;

        bool IsEmpty() const { return m_blocks.empty(); }

    private:
        friend class RetiredBlocks;
        std::vector<Block> m_blocks;
    };

    /// Makes room for so many more, so that `Add` needs no memory.
    void Reserve(std::size_t count)
    {
        if (m_open.capacity() - m_open.size() < count)
            m_open.reserve(2 * (m_open.size() + count));
    }
    /// A block that was taken out of sight before, by a store that releases, on this thread or on one whose stores it
    /// has seen.
    void Add(void* block, std::size_t bytes) noexcept
    {
        m_open.push_back({block, bytes});
        m_openBytes += bytes;
    }
    /// A block of so many bytes that nobody reads any more, for the caller to use and to give back. Null when there is
    /// none at hand; what there is of another size goes to the heap.
    void* Take(std::size_t bytes) noexcept;
    /// Gives back what it can, when it is worth the look at the readers. Does not wait: where readers keep a megabyte,
    /// `excess`, which was empty, gets blocks, and is to go only after `WaitForReaders`.
    void GiveBack(Excess& excess) noexcept;

    /// Waits until all have ended that read now; of those who begin meanwhile, for no more than two sections of
    /// a thread, however much it reads. Any thread that is in no ReadSection.
    static void WaitForReaders() noexcept;

private:
    void CloseOpen() noexcept;
    void FreeUnread() noexcept;
    void ClosingIsUnread() noexcept;

    // A block goes from the first to the last of these.
    std::vector<Block> m_open;
    std::vector<Block> m_closing; // waits for those who read when it was filled
    std::vector<Block> m_unread;
    std::size_t m_openBytes = 0;
    std::size_t m_closingBytes = 0;
    std::uint64_t m_closingSince = 0; // the epoch in which m_closing was filled
};

} // namespace VexCore
