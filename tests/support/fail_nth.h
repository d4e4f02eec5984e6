#pragma once
// Lets the n-th file call of the code under test fail, or die in it: for n = 1, 2, 3... until nothing is left
// to fail.

#include "vex_core/os/file_calls.h"

#include <cerrno>
#include <csignal>

#include <unistd.h>

namespace Test {

struct FailNth
{
    enum class EHow { Fail, Die };

    /// The calls are counted from now on; number `n` (from 1) does not happen. With `lasting`, nor do those
    /// after it.
    FailNth(int n, int error, EHow how = EHow::Fail, bool lasting = false)
    {
        State() = {n, 0, error, how, lasting};
        auto& calls = VexCore::os::fileCalls;
        calls.open = [](const char* path, int flags, mode_t mode) {
            return Hit() ? -1 : System().open(path, flags, mode);
        };
        calls.read = [](int descriptor, void* buffer, std::size_t size) -> ssize_t {
            return Hit() ? -1 : System().read(descriptor, buffer, size);
        };
        // A disk that fills up takes the half first.
        calls.write = [](int descriptor, const void* buffer, std::size_t size) -> ssize_t {
            if (!Hit())
                return System().write(descriptor, buffer, size);
            if (size > 1)
                static_cast<void>(System().write(descriptor, buffer, size / 2));
            DieIfAsked();
            errno = State().error;
            return -1;
        };
        calls.fsync = [](int descriptor) { return Hit() ? -1 : System().fsync(descriptor); };
        calls.fchmod = [](int descriptor, mode_t mode) { return Hit() ? -1 : System().fchmod(descriptor, mode); };
        calls.ftruncate = [](int descriptor, off_t size) { return Hit() ? -1 : System().ftruncate(descriptor, size); };
        calls.fstat = [](int descriptor, struct stat* status) {
            return Hit() ? -1 : System().fstat(descriptor, status);
        };
        calls.stat = [](const char* path, struct stat* status) { return Hit() ? -1 : System().stat(path, status); };
        calls.rename = [](const char* from, const char* to) { return Hit() ? -1 : System().rename(from, to); };
        calls.unlink = [](const char* path) { return Hit() ? -1 : System().unlink(path); };
        m_active = true;
    }
    ~FailNth() { Stop(); }
    FailNth(const FailNth&) = delete;
    FailNth& operator=(const FailNth&) = delete;

    void Stop()
    {
        if (m_active)
            VexCore::os::fileCalls = VexCore::os::systemFileCalls;
        m_active = false;
    }
    /// Whether the n-th call came at all.
    bool WasHit() const { return State().count >= State().n; }

    /// For other calls that are to be counted too: true when this one must fail; errno is set then.
    static bool Hit()
    {
        auto& state = State();
        ++state.count;
        if (state.count != state.n && !(state.lasting && state.count > state.n))
            return false;
        if (state.how == EHow::Die)
            DieIfAsked();
        errno = state.error;
        return true;
    }

private:
    struct Counter
    {
        int n = 0;
        int count = 0;
        int error = 0;
        EHow how = EHow::Fail;
        bool lasting = false;
    };
    static Counter& State()
    {
        static Counter counter;
        return counter;
    }
    static const VexCore::os::FileCalls& System() { return VexCore::os::systemFileCalls; }
    static void DieIfAsked()
    {
        if (State().how == EHow::Die) {
            raise(SIGKILL);
            pause();
        }
    }
    bool m_active = false;
};

} // namespace Test
