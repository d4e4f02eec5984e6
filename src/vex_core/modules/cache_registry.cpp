// Who decides when something is written: the loader asks at each search, and a step of the process's end sees to the
// rest. Files are closed without the lock of the list, since a cache has its own.

#include "vex_core/modules/cache_registry.h"

#include "vex_core/base/end_steps.h"
#include "vex_core/os/process_info.h"

#include <exception>

namespace VexCore {
namespace {
constexpr std::int64_t writeAfterMs = 2000;
constexpr std::size_t maxOpenFiles = 16;

const EndStepOwner writeChunkCaches(EndStep::WriteChunkCaches, &CacheRegistry::FlushAtExit);

} // namespace

CacheRegistry& CacheRegistry::Process()
{
    static CacheRegistry* const s_instance = new CacheRegistry;
    return *s_instance;
}

std::shared_ptr<ChunkCache> CacheRegistry::Get(const std::string& folder, const std::string& key)
{
    const std::lock_guard lock(m_lock);
    std::shared_ptr<ChunkCache>& cache = m_caches[folder + "/" + key];
    if (!cache)
        cache = std::make_shared<ChunkCache>(folder, key);
    return cache;
}

std::vector<std::shared_ptr<ChunkCache>> CacheRegistry::All()
{
    const std::lock_guard lock(m_lock);
    std::vector<std::shared_ptr<ChunkCache>> all;
    for (const auto& item : m_caches)
        all.push_back(item.second);
    return all;
}

void CacheRegistry::Flush()
{
    if (m_lastCameMs.exchange(0) == 0)
        return;
    for (const auto& cache : All())
        cache->Flush();
}

void CacheRegistry::FlushOld()
{
    const std::int64_t last = m_lastCameMs.load(std::memory_order_relaxed);
    if (last != 0 && m_clock.load()() - last > writeAfterMs)
        Flush();
}

void CacheRegistry::ForgetUnused()
{
    const std::lock_guard lock(m_lock);
    for (auto item = m_caches.begin(); item != m_caches.end();) {
        if (item->second.use_count() == 1)
            item = m_caches.erase(item);
        else
            ++item;
    }
}

std::size_t CacheRegistry::Count()
{
    const std::lock_guard lock(m_lock);
    return m_caches.size();
}

void CacheRegistry::NoteWaiting()
{
    m_lastCameMs = m_clock.load()();
    m_waitingIn = os::ProcessId();
}

void CacheRegistry::FlushAtExit()
{
    CacheRegistry& caches = Process();
    if (os::ProcessId() != caches.m_waitingIn)
        return;
    try {
        caches.Flush();
    } catch (const std::exception&) { // out of memory while ending: only time is lost
    }
}

void CacheRegistry::NoteOpened(const std::shared_ptr<ChunkCache>& cache)
{
    if (!cache)
        return;
    std::shared_ptr<ChunkCache> old;
    {
        const std::lock_guard lock(m_lock);
        m_open.push_back(cache);
        if (m_open.size() > maxOpenFiles) {
            old = m_open.front().lock();
            m_open.pop_front();
        }
    }
    if (old && old != cache)
        old->CloseFile();
}

} // namespace VexCore
