#pragma once
// Lets the n-th system call of the code under test fail, or die in it: for n = 1, 2, 3... until nothing is left
// to fail.

#include "call_watch.h"

#include <cerrno>
#include <csignal>
#include <memory>

#include <unistd.h>

namespace Test {

struct FailNth
{
    enum class How { Fail, Die };

    /// The calls are counted from now on; number `n` (from 1) does not happen. With `lasting`, nor do those
    /// after it.
    FailNth(int n, int error, How how = How::Fail, bool lasting = false)
    {
        State() = {n, 0, error, how, lasting};
        m_watch = std::make_unique<CallWatch>([](const VexCore::os::Call& call) {
            if (!IsHit())
                return 0;
            // A disk that fills up takes the half first.
            if (call.data && *call.size > 1)
                static_cast<void>(::write(call.descriptor, call.data, *call.size / 2) == 0);
            DieIfAsked();
            return State().error;
        });
    }

    void Stop() { m_watch.reset(); }
    /// Whether the n-th call came at all.
    bool WasHit() const { return State().count >= State().n; }

    /// For other calls that are to be counted too: true when this one must fail; errno is set then.
    static bool Hit()
    {
        if (!IsHit())
            return false;
        DieIfAsked();
        errno = State().error;
        return true;
    }

private:
    struct Counter
    {
        int n = 0;
        int count = 0;
        int error = 0;
        How how = How::Fail;
        bool lasting = false;
    };
    static Counter& State()
    {
        static Counter s_counter;
        return s_counter;
    }
    static bool IsHit()
    {
        auto& state = State();
        ++state.count;
        return state.count == state.n || (state.lasting && state.count > state.n);
    }
    static void DieIfAsked()
    {
        if (State().how == How::Die) {
            raise(SIGKILL);
            pause();
        }
    }
    std::unique_ptr<CallWatch> m_watch;
};

} // namespace Test
