#pragma once
// What the system has told of a group. Its table may be a server's, which is slow to answer, or does not answer while
// it is away: the answer that there is no such group is believed for a while too.

#include <cstdint>
#include <mutex>
#include <optional>
#include <string>

#include <sys/types.h>

namespace VexCore {

/// Keeps the answer for the name that was asked for last. Any thread.
class GroupCache
{
public:
    /// Milliseconds for which a group that is not known is not looked for again.
    static constexpr std::int64_t unknownMs = 10 * 60 * 1000;

    /// The group of a name, as `find(name)` tells it when nothing is kept: std::optional<gid_t>. It is called without
    /// the lock, so that nobody waits for another one's question. `nowMs` is by a clock that nobody sets.
    template <typename FindT>
    std::optional<gid_t> Get(const std::string& name, std::int64_t nowMs, FindT find)
    {
        {
            const std::lock_guard lock(m_lock);
            if (m_isKept && name == m_name && (m_group || nowMs - m_askedMs < unknownMs))
                return m_group;
        }
        const std::optional<gid_t> group = find(name);
        const std::lock_guard lock(m_lock);
        m_isKept = true;
        m_name = name;
        m_group = group;
        m_askedMs = nowMs;
        return group;
    }

private:
    std::mutex m_lock;
    bool m_isKept = false; // guarded by m_lock, and so are those below
    std::string m_name;
    std::optional<gid_t> m_group;
    std::int64_t m_askedMs = 0;
};

} // namespace VexCore
