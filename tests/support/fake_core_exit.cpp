// The end of the process from a thread: written down. A test may really end it;
// otherwise the calling thread ends instead.

#include "support/fake_core.h"

#include "vex/core/processexit.h"

#include <stdexcept>

void VexCore::ExitProcessFromThread(int status)
{
    FakeCore::Record("ExitProcessFromThread(" + std::to_string(status) + ")");
    if (FakeCore::Answers().onExitProcess)
        FakeCore::Answers().onExitProcess(status);
    throw std::runtime_error("the process would have ended");
}
