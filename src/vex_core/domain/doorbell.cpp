#include "vex_core/domain/doorbell.h"

#include "vex_core/base/wait.h"
#include "vex_core/domain/work_folder.h"
#include "vex_core/os/error.h"
#include "vex_core/os/files.h"
#include "vex_core/os/named_pipe.h"

#include <algorithm>
#include <cerrno>
#include <mutex>
#include <vector>

namespace VexCore {

namespace {
// A thread that listens sleeps in the system and not at its wait point: who asks it to end rings its bell, too.
class Listener
{
public:
    explicit Listener(int bell) : m_point(&WaitPoint::OfThisThread()), m_bell(bell)
    {
        const std::lock_guard lock(Lock());
        All().push_back(this);
    }
    ~Listener()
    {
        const std::lock_guard lock(Lock());
        All().erase(std::find(All().begin(), All().end(), this));
    }
    Listener(const Listener&) = delete;
    Listener& operator=(const Listener&) = delete;

    static void RingAt(const WaitPoint* point)
    {
        const std::lock_guard lock(Lock());
        for (const Listener* const listener : All())
            if (listener->m_point == point)
                os::WriteBestEffort(listener->m_bell, "", 1);
    }

private:
    // Never destroyed: a thread that was left behind may come here to the very end.
    static std::mutex& Lock()
    {
        static std::mutex& s_lock = *new std::mutex;
        return s_lock;
    }
    static std::vector<const Listener*>& All() // guarded by Lock()
    {
        static std::vector<const Listener*>& s_all = *new std::vector<const Listener*>;
        return s_all;
    }

    const WaitPoint* const m_point;
    const int m_bell;
};

const struct BellHook
{
    BellHook() { WaitPoint::AddExitObserver(&Listener::RingAt); }
} bellHook;

} // namespace

bool AnswerDoorbell(CDom& dom, const std::string& plugin, const std::string& key, std::string& error)
{
    std::string path;
    const os::Descriptor folder = OpenPluginWorkdir(dom, plugin, path, error);
    const os::Pipe pipe = folder ? os::OpenNamedPipe(folder.Get(), doorbellName) : os::Pipe();
    if (!pipe) {
        const char* const foreign = "it is there and is no pipe of this user alone; take it away";
        if (error.empty())
            error = path + "/" + doorbellName + ": "
                    + (os::LastError() == EEXIST ? foreign : os::ErrorText(os::LastError()));
        return false;
    }
    const Listener listener(pipe.writing.Get());
    const WaitPoint& point = WaitPoint::OfThisThread();
    while (!point.ExitRequested()) {
        os::WaitReadable({pipe.reading.Get()}, -1);
        char rings[256];
        if (os::Read(pipe.reading.Get(), rings, sizeof rings) > 0 && !point.ExitRequested())
            dom.Set(key.c_str(), true);
    }
    return true;
}

} // namespace VexCore
