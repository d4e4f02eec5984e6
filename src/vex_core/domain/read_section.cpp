// A reader counts itself in before it looks, in a sequentially consistent step, and out after its last look. So a count
// that is seen at nought after a block was taken out of sight tells that its readers who may have found the block have
// ended: those who come later cannot. The counts need not be at nought at the same time.

#include "vex_core/domain/read_section.h"

#include "vex_core/os/pause.h"

#include <initializer_list>
#include <new>
#include <thread>
#include <utility>

namespace VexCore {

namespace {
// A look at all counts costs as much as a write, so it is for many blocks, or for big ones.
constexpr std::size_t blocksAtOnce = 32;
constexpr std::size_t bytesAtOnce = 16 * 1024;
constexpr std::size_t maxKeptBytes = 1024 * 1024;

constexpr int yieldsBeforePause = 100;

} // namespace

ReadSection::Count ReadSection::s_counts[maxCounts];

std::size_t ReadSection::Enroll()
{
    static std::atomic<std::size_t> s_enrolled{0};
    return t_own = s_enrolled.fetch_add(1, std::memory_order_relaxed) % maxCounts + 1;
}

RetiredBlocks::~RetiredBlocks()
{
    for (const std::vector<Block>* const blocks : {&m_open, &m_closing, &m_unread})
        for (const Block& block : *blocks)
            ::operator delete(block.memory);
}

void* RetiredBlocks::Take(std::size_t bytes) noexcept
{
    if (m_unread.empty())
        return nullptr;
    const Block block = m_unread.back();
    m_unread.pop_back();
    if (block.bytes == bytes)
        return block.memory;
    ::operator delete(block.memory);
    return nullptr;
}

void RetiredBlocks::GiveBack() noexcept
{
    if (m_closing.empty()) {
        if (m_open.size() < blocksAtOnce && m_openBytes < bytesAtOnce)
            return;
        m_closing.swap(m_open);
        m_closingBytes = std::exchange(m_openBytes, 0);
        static_assert(ReadSection::maxCounts == 32, "a bit for each");
        m_busy = ~std::uint32_t{0};
    }
    for (std::size_t i = 0; i < ReadSection::maxCounts; ++i)
        if (ReadSection::s_counts[i].readers.load() == 0)
            m_busy &= ~(std::uint32_t{1} << i);
    if (m_busy == 0)
        ClosingIsUnread();
    if (m_closingBytes + m_openBytes < maxKeptBytes)
        return;
    WaitForReaders();
    ClosingIsUnread();
    m_closing.swap(m_open);
    m_closingBytes = std::exchange(m_openBytes, 0);
    ClosingIsUnread();
}

void RetiredBlocks::WaitForReaders() noexcept
{
    for (const ReadSection::Count& count : ReadSection::s_counts)
        for (int looks = 0; count.readers.load() != 0; ++looks)
            if (looks < yieldsBeforePause)
                std::this_thread::yield();
            else
                os::PauseMs(1); // a reader of low priority has to get on
}

void RetiredBlocks::FreeUnread() noexcept
{
    for (const Block& block : m_unread)
        ::operator delete(block.memory);
    m_unread.clear();
}

void RetiredBlocks::ClosingIsUnread() noexcept
{
    FreeUnread();
    m_unread.swap(m_closing);
    if (std::exchange(m_closingBytes, 0) >= bytesAtOnce)
        FreeUnread();
}

} // namespace VexCore
