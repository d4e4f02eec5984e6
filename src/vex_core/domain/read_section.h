#pragma once
// Reading without a lock what others change: a writer takes a block out of sight at once, and gives its memory back
// when nobody can be reading it any more. Readers neither wait nor write where another thread looks all the time.

#include <atomic>
#include <cstddef>
#include <cstdint>
#include <vector>

namespace VexCore {

/// While one exists, what its thread finds by sequentially consistent loads stays readable. Short, and nothing
/// in it waits: writers may. Nests. Any thread.
class ReadSection
{
public:
    ReadSection() : m_readers(CountOfThisThread()) { m_readers.fetch_add(1); }
    ~ReadSection() { m_readers.fetch_sub(1, std::memory_order_release); }
    ReadSection(const ReadSection&) = delete;
    ReadSection& operator=(const ReadSection&) = delete;

    /// How many threads read without one counting where another does; beyond that they share.
    static constexpr std::size_t maxCounts = 32;

private:
    friend class RetiredBlocks;

    // Two lines of the cache, because processors fetch them in pairs.
    struct alignas(128) Count
    {
        std::atomic<std::uint32_t> readers{0};
    };
    static Count s_counts[maxCounts];
    // Which of them this thread has, from 1 on; 0: none yet. The library is loaded with the process, so the thread's
    // own memory need not be asked for.
    inline static thread_local std::size_t t_own __attribute__((tls_model("initial-exec"))) = 0;

    static std::atomic<std::uint32_t>& CountOfThisThread()
    {
        const std::size_t own = t_own;
        return s_counts[(own != 0 ? own : Enroll()) - 1].readers;
    }
    static std::size_t Enroll();

    std::atomic<std::uint32_t>& m_readers;
};

/// Blocks of `operator new`, without a destructor, that readers may still have. One thread at a time, and none that is
/// in a ReadSection itself.
class RetiredBlocks
{
public:
    RetiredBlocks() = default;
    /// Nobody reads any more.
    ~RetiredBlocks();
    RetiredBlocks(const RetiredBlocks&) = delete;
    RetiredBlocks& operator=(const RetiredBlocks&) = delete;

    /// Makes room for so many more, so that `Add` needs no memory.
    void Reserve(std::size_t count)
    {
        if (m_open.capacity() - m_open.size() < count)
            m_open.reserve(2 * (m_open.size() + count));
    }
    /// A block that no reader who comes now can find: it was taken out of sight by a sequentially consistent store.
    void Add(void* block, std::size_t bytes) noexcept
    {
        m_open.push_back({block, bytes});
        m_openBytes += bytes;
    }
    /// A block of so many bytes that nobody reads any more, for the caller to use and to give back. Null when there is
    /// none at hand; what there is of another size goes to the heap.
    void* Take(std::size_t bytes) noexcept;
    /// Gives back what it can, when it is worth the look at the readers. Waits for them only where they keep a
    /// megabyte.
    void GiveBack() noexcept;

    /// Waits until all have ended that read now.
    static void WaitForReaders() noexcept;

private:
    struct Block
    {
        void* memory;
        std::size_t bytes;
    };
    void FreeUnread() noexcept;
    void ClosingIsUnread() noexcept;

    // A block goes from the first to the last of these.
    std::vector<Block> m_open;
    std::vector<Block> m_closing; // waits for those who read when it was filled
    std::vector<Block> m_unread;
    std::size_t m_openBytes = 0;
    std::size_t m_closingBytes = 0;
    std::uint32_t m_busy = 0; // a bit for each count that has not been at nought since m_closing was filled
};

} // namespace VexCore
