#pragma once
// Sees the system calls of the code under test, and says what becomes of them: see vex_core/os/call_observer.h.

#include "vex_core/os/call_observer.h"

#include <functional>
#include <string_view>
#include <utility>

namespace Test {

/// While it lives, `answer` is asked before each call. One may stand inside another; then the inner one alone is asked.
/// Begun and ended while no other thread makes calls.
class CallWatch
{
public:
    explicit CallWatch(std::function<int(const VexCore::os::Call&)> answer)
        : m_answer(std::move(answer)), m_outer(std::exchange(Current(), this)),
          m_before(VexCore::os::SetCallObserver(Ask))
    {}
    ~CallWatch()
    {
        Current() = m_outer;
        VexCore::os::SetCallObserver(m_before);
    }
    CallWatch(const CallWatch&) = delete;
    CallWatch& operator=(const CallWatch&) = delete;

private:
    static CallWatch*& Current()
    {
        static CallWatch* s_current = nullptr;
        return s_current;
    }
    static int Ask(const VexCore::os::Call& call) { return Current()->m_answer(call); }

    std::function<int(const VexCore::os::Call&)> m_answer;
    CallWatch* m_outer;
    VexCore::os::CallObserver m_before;
};

/// Counts the calls of one name while it lives, as a CallWatch.
class CountedCalls
{
public:
    explicit CountedCalls(std::string_view name)
        : m_watch([this, name](const VexCore::os::Call& call) {
              m_count += call.name == name ? 1 : 0;
              return 0;
          })
    {}

    int Count() const { return m_count; }

private:
    int m_count = 0;
    const CallWatch m_watch;
};

} // namespace Test
