// A reader counts itself in before it looks and out after its last look. Whoever looks at a count does it by a step
// that writes it too, so that of a reader's step and that one the later has seen all that came before the earlier. So
// a count that is seen at nought after a block was taken out of sight tells that its readers who may have found the
// block have ended: those who come later cannot. The counts need not be at nought at the same time. What a writer does
// for each block is a plain store; the dear steps come once for many blocks.
//
// Readers who come one upon the other may keep a count above nought for ever. So each place has two, for epochs of even
// and of odd numbers, and an epoch ends when the counts of the one before, which nobody enters any more, are all seen
// at nought. A reader who took the number of an epoch just before its end counts there all the same, once. That may
// make the next end late and nothing wrong, for what is waited for is not the number but both counts at nought: the
// first end may come of looks from before, the second and the third show each count at nought since.

#include "vex_core/domain/read_section.h"

#include "vex_core/os/pause.h"

#include <new>
#include <thread>
#include <utility>

#include <pthread.h>

namespace VexCore {

namespace {
// A look at all counts costs as much as a write, so it is for many blocks, or for big ones.
constexpr std::size_t blocksAtOnce = 64;
constexpr std::size_t bytesAtOnce = 16 * 1024;
constexpr std::size_t maxKeptBytes = 1024 * 1024;

constexpr int yieldsBeforePause = 100;
constexpr std::uint64_t epochsThatShowAll = 3;

constexpr std::uint32_t sharedPlace = 1;

} // namespace

ReadSection::Place ReadSection::s_places[maxOwnPlaces + 1];
std::atomic<std::uint32_t> ReadSection::s_inUse{sharedPlace};
ReadSection::Epoch ReadSection::s_epoch;
const ReadSection::ForkHook ReadSection::forkHook;

std::size_t ReadSection::OwnPlaces()
{
    std::size_t count = 0;
    for (std::uint32_t others = s_inUse.load() & ~sharedPlace; others != 0; others &= others - 1)
        ++count;
    return count;
}

ReadSection::Place* ReadSection::Enroll()
{
    static_assert(maxOwnPlaces + 1 == 32, "a bit for each");
    for (std::size_t i = 1; i <= maxOwnPlaces; ++i) {
        const std::uint32_t bit = std::uint32_t{1} << i;
        if ((s_inUse.load() & bit) != 0 || (s_inUse.fetch_or(bit) & bit) != 0)
            continue;
        struct End
        {
            // What ends after this may read too.
            ~End() { s_inUse.fetch_and(~(std::uint32_t{1} << (std::exchange(t_place, s_places) - s_places))); }
        };
        t_place = s_places + i;
        static thread_local End t_end;
        return t_place;
    }
    return t_place = s_places;
}

// Ends the epoch where that can be. False: there are readers of the one before.
bool ReadSection::NextEpoch() noexcept
{
    std::uint64_t epoch = s_epoch.number.load();
    Place* place = s_places;
    // Who takes a place after this look counts itself in after it too.
    for (std::uint32_t inUse = s_inUse.fetch_or(0); inUse != 0; inUse >>= 1, ++place)
        if ((inUse & 1) != 0 && place->readers[(epoch + 1) % 2].fetch_add(0) != 0)
            return false;
    s_epoch.number.compare_exchange_strong(epoch, epoch + 1);
    return true;
}

// By a step that writes it: who ends this epoch has seen what this thread did before.
std::uint64_t ReadSection::EpochNow() noexcept
{
    return s_epoch.number.fetch_add(0);
}

// Whether all have ended that were reading when the epoch was that one, as EpochNow told.
bool ReadSection::AreOverSince(std::uint64_t epoch) noexcept
{
    while (s_epoch.number.load() - epoch < epochsThatShowAll)
        if (!NextEpoch())
            return false;
    return true;
}

// The threads that were reading are not in the child, and would be waited for there.
void ReadSection::AfterForkInChild()
{
    for (Place& place : s_places)
        for (std::atomic<std::uint32_t>& readers : place.readers)
            readers = 0;
    s_inUse = t_place ? sharedPlace | std::uint32_t{1} << (t_place - s_places) : sharedPlace;
}

ReadSection::ForkHook::ForkHook()
{
    ::pthread_atfork(nullptr, nullptr, &ReadSection::AfterForkInChild);
}

RetiredBlocks::~RetiredBlocks()
{
    for (const std::vector<Block>* const blocks : {&m_open, &m_closing, &m_unread})
        for (const Block& block : *blocks)
            ::operator delete(block.memory);
}

RetiredBlocks::Excess::~Excess()
{
    for (const Block& block : m_blocks)
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

void RetiredBlocks::GiveBack(Excess& excess) noexcept
{
    if (m_closing.empty()) {
        if (m_open.size() < blocksAtOnce && m_openBytes < bytesAtOnce)
            return;
        CloseOpen();
    }
    if (ReadSection::AreOverSince(m_closingSince))
        ClosingIsUnread();
    if (m_closingBytes + m_openBytes < maxKeptBytes)
        return;
    excess.m_blocks.swap(m_closing);
    CloseOpen();
    if (ReadSection::AreOverSince(m_closingSince))
        ClosingIsUnread();
}

void RetiredBlocks::WaitForReaders() noexcept
{
    const std::uint64_t begin = ReadSection::EpochNow();
    for (int looks = 0; !ReadSection::AreOverSince(begin); ++looks)
        if (looks < yieldsBeforePause)
            std::this_thread::yield();
        else
            os::PauseMs(1); // a reader of low priority has to get on
}

void RetiredBlocks::CloseOpen() noexcept
{
    m_closing.swap(m_open);
    m_closingBytes = std::exchange(m_openBytes, 0);
    m_closingSince = ReadSection::EpochNow();
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
