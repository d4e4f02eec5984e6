#pragma once
// While it lives, the calls to files and folders of the core library are shown to an observer, which may let them fail.

#include "vex_core/os/folder_calls.h"

namespace Test {

class ObservedCalls
{
public:
    explicit ObservedCalls(VexCore::os::CallObserver observer) : m_before(VexCore::os::SetCallObserver(observer)) {}
    ~ObservedCalls() { VexCore::os::SetCallObserver(m_before); }
    ObservedCalls(const ObservedCalls&) = delete;
    ObservedCalls& operator=(const ObservedCalls&) = delete;

private:
    const VexCore::os::CallObserver m_before;
};

} // namespace Test
