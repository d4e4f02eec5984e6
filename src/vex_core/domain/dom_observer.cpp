// All observers of the process in one list. A function is called on the thread that writes, without the lock of the
// list; an observer that goes waits for calls that run on other threads, and not for one that it goes in.

#include "vex_core/domain/dom_observer.h"

#include "vex_core/base/shared_lock.h"
#include "vex_core/domain/key_table.h"

#include <algorithm>
#include <atomic>
#include <condition_variable>
#include <cstdint>
#include <mutex>
#include <shared_mutex>

namespace VexCore {

struct DomObserver::State
{
    const void* const tree; // null: every root
    const std::vector<std::string> keys;
    const std::function<void()> changed;

    std::mutex lock;
    std::condition_variable callEnded;
    int calls = 0; // that run; guarded by lock
    bool gone = false; // guarded by lock

    State(const void* ofTree, std::vector<std::string> ofKeys, std::function<void()> toCall)
        : tree(ofTree), keys(std::move(ofKeys)), changed(std::move(toCall))
    {}
    bool Observes(const void* writtenTree, std::string_view key) const
    {
        return (!tree || tree == writtenTree) && std::find(keys.begin(), keys.end(), key) != keys.end();
    }
};

namespace {
using State = DomObserver::State;

// Which keys somebody may observe: most writes are of others, and find that out here. A bit for each of many hashes.
class ObservedKeys
{
public:
    bool MayHave(const HashedKey& key) const
    {
        const std::size_t bit = key.hash % bits;
        return m_words[bit / wordBits].load() >> bit % wordBits & 1;
    }
    // One thread at a time.
    void Become(const std::vector<std::shared_ptr<State>>& observers)
    {
        std::uint64_t words[wordCount] = {};
        for (const std::shared_ptr<State>& state : observers)
            for (const std::string& key : state->keys) {
                const std::size_t bit = HashOfKey(key) % bits;
                words[bit / wordBits] |= std::uint64_t{1} << bit % wordBits;
            }
        for (std::size_t i = 0; i < wordCount; ++i)
            m_words[i].store(words[i]);
    }

private:
    static constexpr std::size_t wordBits = 64;
    static constexpr std::size_t wordCount = 16;
    static constexpr std::size_t bits = wordBits * wordCount;

    std::atomic<std::uint64_t> m_words[wordCount] = {};
};

struct Registry
{
    FairSharedLock lock;
    std::vector<std::shared_ptr<State>> observers; // guarded by lock
    ObservedKeys keys; // of the observers; becomes others under lock
};

// Never destroyed: keys are written while the process ends.
Registry& AllObservers()
{
    static Registry& s_registry = *new Registry;
    return s_registry;
}

// One call on this thread. They nest: a function that writes may be called for what it wrote.
class Call
{
public:
    explicit Call(State& state) : m_state(state), m_outer(t_innermost)
    {
        const std::lock_guard lock(state.lock);
        m_allowed = !state.gone;
        if (!m_allowed)
            return;
        ++state.calls;
        t_innermost = this;
    }
    ~Call()
    {
        if (!m_allowed)
            return;
        t_innermost = m_outer;
        const std::lock_guard lock(m_state.lock);
        --m_state.calls;
        m_state.callEnded.notify_all();
    }
    Call(const Call&) = delete;
    Call& operator=(const Call&) = delete;

    bool Allowed() const { return m_allowed; }
    static int OnThisThread(const State& state)
    {
        int count = 0;
        for (const Call* call = t_innermost; call; call = call->m_outer)
            count += &call->m_state == &state;
        return count;
    }

private:
    static thread_local const Call* t_innermost;
    State& m_state;
    const Call* const m_outer;
    bool m_allowed = false;
};

thread_local const Call* Call::t_innermost = nullptr;

// Calls all that `wanted` picks, after the registry's lock is given back.
template <typename Wanted>
void CallObservers(Wanted&& wanted)
{
    Registry& registry = AllObservers();
    std::vector<std::shared_ptr<State>> chosen; // takes no memory while nobody is concerned
    {
        const std::shared_lock lock(registry.lock);
        for (const std::shared_ptr<State>& state : registry.observers)
            if (wanted(*state))
                chosen.push_back(state);
    }
    for (const std::shared_ptr<State>& state : chosen)
        if (const Call call(*state); call.Allowed())
            state->changed();
}

} // namespace

DomObserver::DomObserver(const void* tree, std::vector<std::string> keys, std::function<void()> changed)
    : m_state(std::make_shared<State>(tree, std::move(keys), std::move(changed)))
{
    Registry& registry = AllObservers();
    const std::lock_guard lock(registry.lock);
    registry.observers.push_back(m_state);
    registry.keys.Become(registry.observers);
}

DomObserver::DomObserver(std::vector<std::string> keys, std::function<void()> changed)
    : DomObserver(static_cast<const void*>(nullptr), std::move(keys), std::move(changed))
{}

DomObserver::~DomObserver()
{
    {
        Registry& registry = AllObservers();
        const std::lock_guard lock(registry.lock);
        registry.observers.erase(std::find(registry.observers.begin(), registry.observers.end(), m_state));
        registry.keys.Become(registry.observers);
    }
    std::unique_lock lock(m_state->lock);
    m_state->gone = true;
    const int own = Call::OnThisThread(*m_state); // one that destroys its own observer does not wait for itself
    m_state->callEnded.wait(lock, [&] { return m_state->calls == own; });
}

void TellObservers(const void* tree, const HashedKey& key)
{
    if (AllObservers().keys.MayHave(key))
        CallObservers([&](const State& state) { return state.Observes(tree, key.text); });
}

void TellObserversOfRoots()
{
    CallObservers([](const State& state) { return !state.tree; });
}

} // namespace VexCore
