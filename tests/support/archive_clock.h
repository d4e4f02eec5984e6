#pragma once
// The clock by which the archives of modules are looked at again: it stands still until a test lets time pass.

#include "vex_core/modules/archive_index.h"

#include <atomic>
#include <cstdint>

namespace Test {

/// While it lives. One at a time.
class ArchiveClock
{
public:
    ArchiveClock() : m_before(VexCore::ArchiveIndex::Process().SetClock(Now)) {}
    ~ArchiveClock() { VexCore::ArchiveIndex::Process().SetClock(m_before); }
    ArchiveClock(const ArchiveClock&) = delete;
    ArchiveClock& operator=(const ArchiveClock&) = delete;

    void Pass(std::int64_t ms) { Time() += ms; }

private:
    static std::atomic<std::int64_t>& Time()
    {
        static std::atomic<std::int64_t> s_nowMs{0};
        return s_nowMs;
    }
    static std::int64_t Now() { return Time(); }

    const VexCore::ArchiveIndex::Clock m_before;
};

} // namespace Test
