#pragma once
// The archives of one search path, and one index of the names in all of them: how many archives there are makes no
// difference to a lookup. The files themselves are looked at once a second.

#include "vex_core/modules/archive_index.h"

#include <cstddef>
#include <cstdint>
#include <memory>
#include <mutex>
#include <string>
#include <vector>

namespace VexCore {

/// Tells of a hash where the first name with it is, of all names in several archives. Filled once, archive by archive,
/// then read.
class NameTable
{
public:
    static constexpr std::uint32_t none = UINT32_MAX;

    struct Place
    {
        std::uint64_t nameHash;
        std::uint32_t archive; ///< by its number; `none` when no name has the hash
        std::uint32_t entry; ///< of that archive
    };

    /// Room for so many names.
    explicit NameTable(std::size_t names);
    /// Changes nothing when the hash has a place already.
    void Add(const Place& place);
    const Place& First(std::uint64_t nameHash) const { return m_places[IndexOf(nameHash)]; }

private:
    std::size_t IndexOf(std::uint64_t nameHash) const;

    std::vector<Place> m_places; // a power of two of them, never full
};

/// What was found on a search path when it was looked at last. Immutable; any thread.
struct FoundArchives
{
    struct Item
    {
        std::shared_ptr<ArchiveSlot> slot;
        std::shared_ptr<ModuleArchive> archive; ///< null when there is none of use
        std::string failure; ///< why not
    };

    explicit FoundArchives(std::vector<Item> found);

    const std::vector<Item> items; ///< in the order of the path
    const std::size_t bytesOfTexts; ///< of all paths, twice, and of the failures
    const NameTable names; ///< of the Lua files in all of them
};

/// A search path, shared by all interpreters that search it. Any thread.
class SearchedArchives
{
public:
    /// Takes one slot a path, in their order.
    explicit SearchedArchives(std::vector<std::shared_ptr<ArchiveSlot>> slots) : m_slots(std::move(slots)) {}

    /// What the path leads to. Each file's status is looked at when the last look lies a second back, and as long as an
    /// archive could not be opened for want of descriptors or memory. Opens what is there for the first time or is
    /// another file by now. One thread looks, the others wait; what is of no use is logged when they may go on.
    std::shared_ptr<const FoundArchives> Current(const ZipLimits& limits);
    /// Looks at each file now. False when all are as `found` has them; null is what is no longer up to date.
    bool HasChanged(const ZipLimits& limits, const std::shared_ptr<const FoundArchives>& found);

private:
    void Look(const ZipLimits& limits, LaterWarnings& warnings);

    const std::vector<std::shared_ptr<ArchiveSlot>> m_slots;
    std::mutex m_lock; // guards what follows
    std::shared_ptr<const FoundArchives> m_found;
    std::int64_t m_lookedAtMs = 0; // by the clock of the archives
    bool m_lookAgain = false; // at the next chance
};

} // namespace VexCore
