#pragma once
// Observers of keys: who took a value over is told when it was written, and need not ask for it
// time and again. Any thread.

#include <functional>
#include <memory>
#include <string>
#include <vector>

namespace VexCore {

class CDom;
struct HashedKey;

/// Calls a function after each write or removal of certain keys, on the writer's thread and with no lock of the domain
/// held: it may read and write the domain and make and destroy observers. Writes of several threads call it on all of
/// them at once, so it finds out by itself what was written last. Must not throw.
class DomObserver
{
public:
    /// Observes these keys in every root. Called as well when a root comes or goes, because another one may be the
    /// process's own from then on.
    DomObserver(std::vector<std::string> keys, std::function<void()> changed);
    /// Observes these keys as `dom` names them, and `rootKeys` as its root does. Does not keep `dom` alive.
    DomObserver(const CDom& dom, const std::vector<std::string>& keys, std::function<void()> changed,
                const std::vector<std::string>& rootKeys = {});
    /// When it returns no call runs on another thread and none will begin.
    /// So nothing may be held that the function waits for.
    ~DomObserver();
    DomObserver(const DomObserver&) = delete;
    DomObserver& operator=(const DomObserver&) = delete;

    struct State;

private:
    DomObserver(const void* tree, std::vector<std::string> keys, std::function<void()> changed);

    const std::shared_ptr<State> m_state;
};

/// For the domain: the full key `key` of the tree that this address stands for was written or removed.
void TellObservers(const void* tree, const HashedKey& key);
/// For the domain: a root came or went.
void TellObserversOfRoots();

} // namespace VexCore
