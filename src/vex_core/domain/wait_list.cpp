// A wait has two sides: what a thread is subscribed to, which ends with the thread, and whom a tree has to tell, which
// ends with the tree. Either may go first. Waiters sleep in wait.h, on their own threads; whoever writes a key only
// wakes them.

#include "vex_core/domain/wait_list.h"

#include "vex_core/base/ascii.h"
#include "vex_core/base/steady_ms.h"
#include "vex_core/base/wait.h"

#include <algorithm>

namespace VexCore {

bool ScopeCovers(std::string_view scope, std::string_view key)
{
    if (scope.empty())
        return true;
    return StartsWith(key, scope) && (key.size() == scope.size() || key[scope.size()] == '.');
}

// What one thread is subscribed to, in any tree. Lives as long as the thread.
class WaitList::ThreadSubscriptions
{
public:
    static ThreadSubscriptions& OfThisThread()
    {
        thread_local ThreadSubscriptions t_own;
        return t_own;
    }

    ~ThreadSubscriptions()
    {
        for (const Entry& entry : m_entries)
            entry.Cancel();
    }

    std::shared_ptr<Subscription> Find(WaitList& list, std::string_view scope)
    {
        const auto found = std::find_if(m_entries.begin(), m_entries.end(), [&](const Entry& entry) {
            return entry.subscription->scope == scope && entry.list.lock().get() == &list;
        });
        if (found == m_entries.end())
            return Add(list, scope);
        std::rotate(found, found + 1, m_entries.end()); // the first are given up when there are too many
        return m_entries.back().subscription;
    }

private:
    struct Entry
    {
        std::weak_ptr<WaitList> list; // the tree may go first
        std::shared_ptr<Subscription> subscription;

        void Cancel() const
        {
            if (const std::shared_ptr<WaitList> alive = list.lock())
                alive->Remove(subscription.get());
        }
    };
    std::shared_ptr<Subscription> Add(WaitList& list, std::string_view scope)
    {
        m_entries.erase(
            std::remove_if(m_entries.begin(), m_entries.end(), [](const Entry& entry) { return entry.list.expired(); }),
            m_entries.end());
        if (m_entries.size() >= maxScopes) {
            m_entries.front().Cancel();
            m_entries.erase(m_entries.begin());
        }
        auto subscription = std::make_shared<Subscription>();
        subscription->scope.assign(scope);
        subscription->thread = this;
        m_entries.push_back({list.weak_from_this(), subscription});
        const std::lock_guard lock(list.m_lock);
        list.m_subscriptions.push_back(subscription);
        list.m_count.store(list.m_subscriptions.size());
        return subscription;
    }

    std::vector<Entry> m_entries;
};

WaitList::Result WaitList::Wait(const std::vector<std::string>& scopes, std::int64_t timeoutMs, std::size_t& which)
{
    WaitPoint& point = WaitPoint::OfThisThread();
    std::vector<std::shared_ptr<Subscription>> own;
    for (const std::string& scope : scopes)
        own.push_back(ThreadSubscriptions::OfThisThread().Find(*this, scope));
    const auto isWritten = [](const auto& subscription) { return subscription->written; };
    const Deadline deadline(timeoutMs);
    point.Clear();
    {
        const std::lock_guard lock(m_lock);
        for (const auto& subscription : own)
            subscription->sleeper = &point;
        if (std::any_of(own.begin(), own.end(), isWritten))
            point.Notify();
    }

    for (;;) {
        const WaitPoint::Outcome outcome = point.Sleep(deadline.LeftMs());
        const std::lock_guard lock(m_lock);
        const auto written = std::find_if(own.begin(), own.end(), isWritten);
        // A notification of an earlier wait that was sent too late for it.
        if (outcome == WaitPoint::Outcome::Notified && written == own.end())
            continue;
        for (const auto& subscription : own)
            subscription->sleeper = nullptr;
        if (outcome == WaitPoint::Outcome::Ending)
            return Result::Ending;
        if (written == own.end())
            return Result::TimedOut;
        (*written)->written = false;
        which = static_cast<std::size_t>(written - own.begin());
        return Result::Written;
    }
}

void WaitList::Written(std::string_view key)
{
    if (m_count.load() == 0)
        return;
    const void* const writer = &ThreadSubscriptions::OfThisThread();
    const std::lock_guard lock(m_lock);
    for (const std::shared_ptr<Subscription>& subscription : m_subscriptions) {
        if (subscription->thread == writer || !ScopeCovers(subscription->scope, key))
            continue;
        subscription->written = true;
        if (subscription->sleeper)
            subscription->sleeper->Notify();
    }
}

void WaitList::Remove(const Subscription* subscription)
{
    const std::lock_guard lock(m_lock);
    m_subscriptions.erase(std::remove_if(m_subscriptions.begin(), m_subscriptions.end(),
                                         [subscription](const std::shared_ptr<Subscription>& each) {
                                             return each.get() == subscription;
                                         }),
                          m_subscriptions.end());
    m_count.store(m_subscriptions.size());
}

} // namespace VexCore
