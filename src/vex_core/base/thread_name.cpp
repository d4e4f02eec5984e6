#include "vex_core/base/thread_name.h"

namespace VexCore {

namespace {
// Signal handlers read it: with this model that is a look at a fixed place, where others may allocate first.
[[gnu::tls_model("initial-exec")]] thread_local const char* t_name = nullptr;

// Static initialisers run on the main thread. Through a volatile, because clang 14 runs constructors that it
// understands while it compiles, and the name would become the first value on every thread.
const struct NameOfMainThread
{
    NameOfMainThread()
    {
        const char* const volatile name = "main";
        t_name = name;
    }
} nameOfMainThread;

} // namespace

const char* ThreadName()
{
    return t_name;
}

ThreadNameScope::ThreadNameScope(const char* name) : m_before(t_name)
{
    t_name = name;
}

ThreadNameScope::~ThreadNameScope()
{
    t_name = m_before;
}

} // namespace VexCore
