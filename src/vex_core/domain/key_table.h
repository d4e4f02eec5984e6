#pragma once
// The keys of a tree with their values: found by a hash table, listed by the tree that their dots make.

#include "vex_core/base/cache_lines.h"
#include "vex_core/domain/dom_values.h"
#include "vex_core/domain/read_section.h"

#include <atomic>
#include <cstddef>
#include <cstdint>
#include <mutex>
#include <string>
#include <string_view>
#include <vector>

namespace VexCore {

/// Of the text of a key.
std::uint64_t HashOfKey(std::string_view key);

/// A key for several who need its hash. Does not keep the text alive.
struct HashedKey
{
    const std::string_view text;
    const std::uint64_t hash;

    HashedKey(std::string_view key) : text(key), hash(HashOfKey(key)) {}
};

/// Keys and values. Any thread: readers take no lock, writers take turns. What a function found is what was there at
/// one moment during its call.
class KeyTable
{
public:
    KeyTable();
    ~KeyTable();
    KeyTable(const KeyTable&) = delete;
    KeyTable& operator=(const KeyTable&) = delete;

    /// Calls `use` with the value, which stays as it is until `use` ends; `use` must not write. What `use` answers,
    /// and false when the key has no value.
    template <typename Use>
    bool Read(std::string_view key, Use&& use) const
    {
        const ReadSection section;
        const DomValue* const value = FindValue(key);
        return value && use(*value);
    }

    /// What there was before is destroyed on the calling thread, with no lock held: an object's end may come here.
    void Write(const HashedKey& key, DomValue::Pointer value);
    /// The same for a text, which need be no block yet.
    void WriteText(const HashedKey& key, std::string_view text);
    /// Answers whether the key had a value.
    bool Remove(const HashedKey& key);

    /// The keys with a value that begin with `start`, sorted, without their first `skip` characters. `start` ends with
    /// a dot, or is empty.
    std::vector<std::string> KeysThatBegin(std::string_view start, std::size_t skip) const;
    /// Whether `scope` or a key below it has a value. An empty scope is every key.
    bool HasAnyIn(std::string_view scope) const;

private:
    struct Node;
    struct Slots;

    // In a ReadSection, or with m_writers.
    const DomValue* FindValue(const HashedKey& key) const;
    Node* Find(const HashedKey& key) const;
    template <typename Use>
    bool VisitBelow(std::string_view start, Use&& use) const;
    template <typename Work>
    void Consistently(Work&& work) const;

    // What a writer has left when it lets go of m_writers, and readers may still look at. Its end waits for them.
    struct Leavings;

    // With m_writers.
    void Put(const HashedKey& key, DomValue::Pointer value, Leavings& leavings);
    void Replace(Node& node, DomValue::Pointer value, Leavings& leavings);
    void Make(const HashedKey& key, DomValue::Pointer value);
    void MakeRoomFor(std::size_t count);
    void Link(Node& node, const HashedKey& key);
    void DropUnused(Node* node);
    void Unlink(Node& node);

    // Who changes the tree's shape, or gives a node its first value or takes its last, makes this odd and then even
    // again. So readers of several nodes notice.
    class ShapeChange;

    // What readers look at lies apart from what each write changes.
    alignas(bytesApart) std::atomic<Slots*> m_slots;
    std::atomic<std::uint64_t> m_shape{0};
    Node* const m_top; // has no key: what has no parent else is below it
    alignas(bytesApart) mutable std::mutex m_writers;
    std::size_t m_nodes = 0; // in the slots; guarded by m_writers
    std::size_t m_takenSlots = 0; // by them and by those that are gone; guarded by m_writers
    RetiredBlocks m_retired; // guarded by m_writers
};

} // namespace VexCore
