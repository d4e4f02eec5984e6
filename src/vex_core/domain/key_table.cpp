// A node a key, and one for each text before a dot of a key. Nodes are found through an open hash table, whose tags, a
// byte a slot, keep most misses away from the nodes; a tree of the same nodes is what lists the keys below one.
//
// Writers take turns. Readers go along while they write: a node shows up whole, and keeps its links when it is gone, so
// that a walk always ends. What is gone is given back by read_section.h. A walk that must tell of one moment looks
// at m_shape before and after it.

#include "vex_core/domain/key_table.h"

#include "vex_core/base/ascii.h"

#include <algorithm>
#include <cstring>
#include <memory>
#include <new>
#include <optional>
#include <type_traits>
#include <utility>

namespace VexCore {

namespace {
// What is behind so much of a key makes no level of its own: a long key of nothing but dots would have a node, with a
// text, for each of them.
constexpr std::size_t maxLevelBytes = 256;
constexpr std::size_t minSlots = 64;

// Of a slot, beside the tags that HashOfKey gives.
constexpr std::uint8_t tagFree = 0;
constexpr std::uint8_t tagGone = 1; // a search goes on behind it

std::uint8_t TagOf(std::uint64_t hash)
{
    return static_cast<std::uint8_t>(hash >> 56 | 2);
}

std::uint64_t Mixed(std::uint64_t hash, std::uint64_t word)
{
    hash = (hash ^ word) * 0x9E3779B97F4A7C15;
    return hash ^ hash >> 32;
}

std::uint64_t WordAt(const char* text)
{
    std::uint64_t word = 0;
    std::memcpy(&word, text, sizeof word);
    return word;
}

// The dot before which a key's text is that of the node above it; npos: that is the top.
std::size_t EndOfLevelAbove(std::string_view key)
{
    return key.rfind('.', maxLevelBytes - 1);
}

} // namespace

std::uint64_t HashOfKey(std::string_view key)
{
    constexpr std::size_t wordBytes = sizeof(std::uint64_t);
    std::uint64_t hash = key.size() * 0xC2B2AE3D27D4EB4F; // far from what a word of text is
    const char* text = key.data();
    std::size_t left = key.size();
    for (; left > wordBytes; left -= wordBytes, text += wordBytes)
        hash = Mixed(hash, WordAt(text));
    if (key.size() >= wordBytes)
        return Mixed(Mixed(hash, WordAt(text + left - wordBytes)), 0);
    std::uint64_t word = 0;
    for (std::size_t i = 0; i < left; ++i)
        word = word << 8 | static_cast<unsigned char>(text[i]);
    return Mixed(Mixed(hash, word), 0);
}

// Nothing but its block: what it points to is not its own.
struct KeyTable::Node
{
    std::atomic<DomValue*> value{nullptr}; // null: there are only keys below it
    Node* parent = nullptr; // set before it shows up
    std::atomic<Node*> firstChild{nullptr};
    std::atomic<Node*> next{nullptr}; // an older one, so that a walk along them ends
    Node* previous = nullptr; // guarded by m_writers
    const std::size_t keySize;

    static Node* New(std::string_view key)
    {
        Node* const node = new (::operator new(sizeof(Node) + key.size())) Node(key.size());
        if (!key.empty())
            std::memcpy(static_cast<void*>(node + 1), key.data(), key.size());
        return node;
    }
    std::string_view Key() const { return {static_cast<const char*>(static_cast<const void*>(this + 1)), keySize}; }
    std::size_t Bytes() const { return sizeof(Node) + keySize; }

private:
    explicit Node(std::size_t size) : keySize(size) {}
};

// The hash table: the head of a block that has, behind it, the nodes and the tags of all slots.
struct KeyTable::Slots
{
    const std::size_t mask;

    static Slots* New(std::size_t count)
    {
        Slots* const slots = new (::operator new(BytesOf(count))) Slots{count - 1};
        std::uninitialized_value_construct_n(slots->Nodes(), count);
        std::uninitialized_value_construct_n(slots->Tags(), count);
        return slots;
    }
    std::size_t Count() const { return mask + 1; }
    std::size_t Bytes() const { return BytesOf(Count()); }

    std::atomic<Node*>* Nodes() const
    {
        return static_cast<std::atomic<Node*>*>(const_cast<void*>(static_cast<const void*>(this + 1)));
    }
    std::atomic<std::uint8_t>* Tags() const
    {
        return static_cast<std::atomic<std::uint8_t>*>(static_cast<void*>(Nodes() + Count()));
    }

    // `order` is that of the last step, which shows the node. Answers whether it took a slot that was free.
    bool Insert(Node& node, std::uint64_t hash, std::memory_order order)
    {
        std::size_t at = hash & mask;
        while (Tags()[at].load(std::memory_order_relaxed) > tagGone)
            at = (at + 1) & mask;
        const bool wasFree = Tags()[at].load(std::memory_order_relaxed) == tagFree;
        Nodes()[at].store(&node, std::memory_order_release);
        Tags()[at].store(TagOf(hash), order);
        return wasFree;
    }
    void Remove(const Node& node)
    {
        std::size_t at = HashOfKey(node.Key()) & mask;
        while (Tags()[at].load(std::memory_order_relaxed) <= tagGone
               || Nodes()[at].load(std::memory_order_relaxed) != &node)
            at = (at + 1) & mask;
        Tags()[at].store(tagGone);
    }

private:
    static std::size_t BytesOf(std::size_t count)
    {
        return sizeof(Slots) + count * (sizeof(std::atomic<Node*>) + sizeof(std::atomic<std::uint8_t>));
    }
};

class KeyTable::ShapeChange
{
public:
    explicit ShapeChange(std::atomic<std::uint64_t>& shape) : m_shape(shape), m_before(shape.load())
    {
        m_shape.store(m_before + 1, std::memory_order_relaxed); // what is changed shows up later
    }
    ~ShapeChange() { m_shape.store(m_before + 2, std::memory_order_release); }
    ShapeChange(const ShapeChange&) = delete;
    ShapeChange& operator=(const ShapeChange&) = delete;

private:
    std::atomic<std::uint64_t>& m_shape;
    const std::uint64_t m_before;
};

KeyTable::KeyTable() : m_slots(Slots::New(minSlots)), m_top(Node::New({}))
{
    static_assert(std::is_trivially_destructible_v<Node> && std::is_trivially_destructible_v<Slots>,
                  "they are given back as blocks");
}

KeyTable::~KeyTable()
{
    Slots* const slots = m_slots.load();
    for (std::size_t i = 0; i < slots->Count(); ++i) {
        if (slots->Tags()[i].load() <= tagGone)
            continue;
        Node* const node = slots->Nodes()[i].load();
        const DomValue::Pointer value(node->value.load());
        ::operator delete(node);
    }
    ::operator delete(slots);
    ::operator delete(m_top);
}

// --- reading

KeyTable::Node* KeyTable::Find(const HashedKey& key) const
{
    const std::uint8_t wanted = TagOf(key.hash);
    const Slots& slots = *m_slots.load();
    const std::atomic<std::uint8_t>* const tags = slots.Tags();
    const std::atomic<Node*>* const nodes = slots.Nodes();
    for (std::size_t at = key.hash & slots.mask;; at = (at + 1) & slots.mask) {
        const std::uint8_t tag = tags[at].load();
        if (tag == tagFree)
            return nullptr;
        if (tag != wanted)
            continue;
        Node* const node = nodes[at].load();
        if (node->Key() == key.text)
            return node;
    }
}

const DomValue* KeyTable::FindValue(const HashedKey& key) const
{
    const Node* const node = Find(key);
    return node ? node->value.load() : nullptr;
}

// Calls `use` with keys that have a value, until it answers true.
template <typename Use>
bool KeyTable::VisitBelow(std::string_view start, Use&& use) const
{
    const Node* top = m_top;
    bool isLevel = true;
    if (!start.empty()) {
        const std::size_t end = EndOfLevelAbove(start);
        isLevel = end == start.size() - 1;
        if (end != start.npos)
            top = Find(start.substr(0, end));
        if (!top)
            return false;
    }
    const Node* node = top->firstChild.load();
    while (node) {
        if (node->value.load() && (isLevel || StartsWith(node->Key(), start)) && use(node->Key()))
            return true;
        const Node* following = node->firstChild.load();
        while (!following && node != top) {
            following = node->next.load();
            node = node->parent;
        }
        node = following;
    }
    return false;
}

template <typename Work>
void KeyTable::Consistently(Work&& work) const
{
    constexpr int maxTries = 3;
    for (int tries = 0; tries < maxTries; ++tries) {
        const ReadSection section;
        const std::uint64_t before = m_shape.load();
        if (before % 2 != 0)
            continue;
        work();
        if (m_shape.load() == before)
            return;
    }
    const std::lock_guard lock(m_writers);
    work();
}

std::vector<std::string> KeyTable::KeysThatBegin(std::string_view start, std::size_t skip) const
{
    std::vector<std::string> keys;
    Consistently([&] {
        keys.clear();
        VisitBelow(start, [&](std::string_view key) {
            keys.emplace_back(key.substr(skip));
            return false;
        });
    });
    std::reverse(keys.begin(), keys.end()); // keys that were made in order were found from the last to the first
    std::sort(keys.begin(), keys.end());
    return keys;
}

bool KeyTable::HasAnyIn(std::string_view scope) const
{
    const auto isAny = [](std::string_view) { return true; };
    bool hasAny = false;
    Consistently([&] {
        hasAny =
            scope.empty() ? VisitBelow(scope, isAny) : FindValue(scope) || VisitBelow(std::string(scope) + '.', isAny);
    });
    return hasAny;
}

// --- writing

struct KeyTable::Leavings
{
    DomValue::Pointer object;
    RetiredBlocks::Excess blocks;

    Leavings() = default;
    ~Leavings()
    {
        if (object || !blocks.IsEmpty())
            RetiredBlocks::WaitForReaders();
    }
    Leavings(const Leavings&) = delete;
    Leavings& operator=(const Leavings&) = delete;
};

void KeyTable::Write(const HashedKey& key, DomValue::Pointer value)
{
    Leavings leavings;
    const std::lock_guard lock(m_writers);
    ::operator delete(m_retired.Take(0)); // what is of no use goes to the heap, a block a write
    Put(key, std::move(value), leavings);
}

void KeyTable::WriteText(const HashedKey& key, std::string_view text)
{
    constexpr std::size_t longest = 1024; // that may be copied while others wait to write
    if (text.size() > longest)
        return Write(key, DomValue::NewText(text));
    Leavings leavings;
    const std::lock_guard lock(m_writers);
    Put(key, DomValue::NewText(text, m_retired.Take(DomValue::BytesOfText(text.size()))), leavings);
}

void KeyTable::Put(const HashedKey& key, DomValue::Pointer value, Leavings& leavings)
{
    m_retired.Reserve(1);
    if (Node* const node = Find(key))
        Replace(*node, std::move(value), leavings);
    else
        Make(key, std::move(value));
    m_retired.GiveBack(leavings.blocks);
}

bool KeyTable::Remove(const HashedKey& key)
{
    Leavings leavings;
    const std::lock_guard lock(m_writers);
    Node* const node = Find(key);
    if (!node || !node->value.load(std::memory_order_relaxed))
        return false;
    m_retired.Reserve(1 + maxLevelBytes + 1); // the value, and nodes that nothing needs any more
    Replace(*node, nullptr, leavings);
    DropUnused(node);
    m_retired.GiveBack(leavings.blocks);
    return true;
}

// Gives the node another value, or none.
void KeyTable::Replace(Node& node, DomValue::Pointer value, Leavings& leavings)
{
    std::optional<ShapeChange> change;
    DomValue* const before = node.value.load(std::memory_order_relaxed);
    if (!value || !before)
        change.emplace(m_shape);
    node.value.store(value.release(), std::memory_order_release);
    if (!before)
        return;
    if (before->Type() == CDom::EType::Object)
        leavings.object.reset(before);
    else
        m_retired.Add(before, before->Bytes());
}

// Makes a node for the key and for those above it that are missing. All that may fail comes before the first of
// them shows up.
void KeyTable::Make(const HashedKey& key, DomValue::Pointer value)
{
    // From the key's own up to one that is there or the top.
    struct Chain
    {
        Node* const first;
        std::size_t count = 1; // of those that are not there yet
        ~Chain()
        {
            Node* node = first;
            for (; count > 0; --count)
                ::operator delete(std::exchange(node, node->parent));
        }
    } chain{Node::New(key.text)};
    for (Node* last = chain.first; !last->parent; last = last->parent) {
        const std::size_t end = EndOfLevelAbove(last->Key());
        last->parent = end == std::string_view::npos ? m_top : Find(last->Key().substr(0, end));
        if (last->parent)
            break;
        last->parent = Node::New(last->Key().substr(0, end));
        ++chain.count;
    }
    MakeRoomFor(chain.count);
    chain.first->value.store(value.release(), std::memory_order_relaxed);
    const ShapeChange change(m_shape);
    Link(*chain.first, key);
    Node* above = chain.first->parent;
    while (--chain.count > 0) {
        Link(*above, above->Key());
        above = above->parent;
    }
}

void KeyTable::MakeRoomFor(std::size_t count)
{
    Slots* const old = m_slots.load(std::memory_order_relaxed);
    if ((m_takenSlots + count) * 4 <= old->Count() * 3)
        return;
    std::size_t wanted = minSlots;
    while ((m_nodes + count) * 2 > wanted)
        wanted *= 2;
    m_retired.Reserve(1);
    Slots* const slots = Slots::New(wanted);
    for (std::size_t i = 0; i < old->Count(); ++i)
        if (old->Tags()[i].load(std::memory_order_relaxed) > tagGone) {
            Node& node = *old->Nodes()[i].load(std::memory_order_relaxed);
            slots->Insert(node, HashOfKey(node.Key()), std::memory_order_relaxed);
        }
    m_takenSlots = m_nodes;
    m_slots.store(slots);
    m_retired.Add(old, old->Bytes());
}

void KeyTable::Link(Node& node, const HashedKey& key)
{
    Node* const next = node.parent->firstChild.load(std::memory_order_relaxed);
    node.next.store(next, std::memory_order_relaxed);
    if (next)
        next->previous = &node;
    node.parent->firstChild.store(&node, std::memory_order_release);
    m_takenSlots += m_slots.load(std::memory_order_relaxed)->Insert(node, key.hash, std::memory_order_seq_cst);
    ++m_nodes;
}

// Takes the node away when it has neither a value nor keys below it, and then those above it of which that is true now.
void KeyTable::DropUnused(Node* node)
{
    const ShapeChange change(m_shape);
    while (node != m_top && !node->value.load(std::memory_order_relaxed)
           && !node->firstChild.load(std::memory_order_relaxed)) {
        Node* const parent = node->parent;
        Unlink(*node);
        m_retired.Add(node, node->Bytes());
        node = parent;
    }
}

void KeyTable::Unlink(Node& node)
{
    Node* const next = node.next.load(std::memory_order_relaxed);
    std::atomic<Node*>& before = node.previous ? node.previous->next : node.parent->firstChild;
    before.store(next);
    if (next)
        next->previous = node.previous;
    m_slots.load(std::memory_order_relaxed)->Remove(node);
    --m_nodes;
}

} // namespace VexCore
