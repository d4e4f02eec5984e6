#pragma once
// A log of the test's own in the place of the process's while the object lives. The log must outlive it.

#include "vex_core/log/process_log.h"

namespace Test {

class OwnProcessLog
{
public:
    explicit OwnProcessLog(VexCore::DiskLog& log) : m_before(VexCore::ReplaceProcessLog(&log)) {}
    ~OwnProcessLog() { VexCore::ReplaceProcessLog(m_before); }
    OwnProcessLog(const OwnProcessLog&) = delete;
    OwnProcessLog& operator=(const OwnProcessLog&) = delete;

private:
    VexCore::DiskLog* const m_before;
};

} // namespace Test
