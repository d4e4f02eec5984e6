// Where a look ends: the same files give the same object, any difference gives a new one with an index of its own. The
// index says no for sure; yes is for the archive itself to say, since two names may have one hash.

#include "vex_core/modules/searched_archives.h"

#include <algorithm>

namespace VexCore {
namespace {
constexpr std::int64_t betweenLooksMs = 1000;

std::size_t CountNames(const std::vector<FoundArchives::Item>& items)
{
    std::size_t count = 0;
    for (const FoundArchives::Item& item : items)
        count += item.archive ? item.archive->LuaFiles().size() : 0;
    return count;
}

std::size_t CountTexts(const std::vector<FoundArchives::Item>& items)
{
    std::size_t bytes = 0;
    for (const FoundArchives::Item& item : items)
        bytes += 2 * item.slot->Path().size() + item.failure.size();
    return bytes;
}

bool IsSame(const FoundArchives::Item& left, const FoundArchives::Item& right)
{
    return left.archive == right.archive && left.failure == right.failure;
}

NameTable NamesOf(const std::vector<FoundArchives::Item>& items)
{
    NameTable names(CountNames(items));
    for (std::size_t i = 0; i < items.size(); ++i)
        if (items[i].archive)
            for (const ModuleArchive::LuaFile& file : items[i].archive->LuaFiles())
                names.Add({file.nameHash, static_cast<std::uint32_t>(i), file.entry});
    return names;
}

} // namespace

NameTable::NameTable(std::size_t names)
{
    std::size_t size = 2;
    while (size < names * 2)
        size *= 2;
    m_places.resize(size, Place{0, none, 0});
}

// Where the hash is, or else belongs.
std::size_t NameTable::IndexOf(std::uint64_t nameHash) const
{
    const std::size_t last = m_places.size() - 1;
    std::size_t index = nameHash & last;
    while (m_places[index].archive != none && m_places[index].nameHash != nameHash)
        index = (index + 1) & last;
    return index;
}

void NameTable::Add(const Place& place)
{
    Place& kept = m_places[IndexOf(place.nameHash)];
    if (kept.archive == none)
        kept = place;
}

FoundArchives::FoundArchives(std::vector<Item> found)
    : items(std::move(found)), bytesOfTexts(CountTexts(items)), names(NamesOf(items))
{}

std::shared_ptr<const FoundArchives> SearchedArchives::Current(const ZipLimits& limits)
{
    LaterWarnings warnings;
    const std::lock_guard lock(m_lock);
    if (!m_found || m_lookAgain || ArchiveIndex::Process().NowMs() - m_lookedAtMs >= betweenLooksMs)
        Look(limits, warnings);
    return m_found;
}

bool SearchedArchives::HasChanged(const ZipLimits& limits, const std::shared_ptr<const FoundArchives>& found)
{
    LaterWarnings warnings;
    const std::lock_guard lock(m_lock);
    Look(limits, warnings);
    return m_found != found;
}

void SearchedArchives::Look(const ZipLimits& limits, LaterWarnings& warnings)
{
    m_lookedAtMs = ArchiveIndex::Process().NowMs();
    m_lookAgain = true; // should opening throw
    bool wantsMore = false;
    std::vector<FoundArchives::Item> items;
    items.reserve(m_slots.size());
    for (const std::shared_ptr<ArchiveSlot>& slot : m_slots) {
        FoundArchives::Item item{slot, nullptr, std::string()};
        item.archive = slot->Current(limits, item.failure, warnings);
        wantsMore = wantsMore || (!item.archive && slot->WantsAnotherLook());
        items.push_back(std::move(item));
    }
    if (!m_found || !std::equal(items.begin(), items.end(), m_found->items.begin(), IsSame))
        m_found = std::make_shared<const FoundArchives>(std::move(items));
    m_lookAgain = wantsMore;
}

} // namespace VexCore
