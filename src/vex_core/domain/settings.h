#pragma once
// Settings as they count, and word of changes to whoever has taken a value over. Any thread.

#include "vex/core/dom.h"
#include "vex_core/domain/dom_observer.h"

#include <atomic>
#include <cstdint>
#include <ctime>
#include <mutex>
#include <string>
#include <vector>

namespace VexCore {

/// A setting of the table (known_settings.h) as it counts: the domain's key, else an entry of the files, else the
/// default. What cannot be read counts as the default, what is out of range as `WithinRange` says.
std::int64_t IntSetting(const CDom& dom, const char* key);
bool BoolSetting(const CDom& dom, const char* key);
/// Of a choice: which of its words it is, from 0.
std::int64_t ChoiceSetting(const CDom& dom, const char* key);

/// Warns of what is wrong with settings, a line each; of a great many only the first, and how many more there are.
/// Main thread, once, when it is known where the files lie.
void WarnOfSettings(const CDom& dom);

/// The keys below `prefix`, with the prefix before them, that have a value in the domain or an entry in a file,
/// sorted. A file's name has its prefix in any case and comes with this one, unless the domain has that key in any
/// case.
std::vector<std::string> SettingKeys(const CDom& dom, const std::string& prefix);

/// Another number each time that the entries of the settings files of this domain became others,
/// by the files as they are now.
std::uint64_t SettingsGeneration(const CDom& dom);

/// Tells a reader of settings when to read them again. A write of one of the keys shows at once. A change of a file
/// shows when the reader asks, with a look at the files at most once a second: nothing wakes up for it.
class SettingsWatch
{
public:
    /// Of the process's root, whichever it is.
    explicit SettingsWatch(std::vector<std::string> keys);
    /// Of `dom`, with keys as it names them. Does not keep it alive.
    SettingsWatch(const CDom& dom, const std::vector<std::string>& keys);

    /// Whether a change may be waiting. Costs two relaxed loads and the time of day.
    bool IsDue() const;
    /// True the first time and after each change since the last true. One thread at a time.
    bool TakeChange(const CDom& dom);
    /// Calls `take`, which reads the settings and takes them over, where `TakeChange` is true. Any thread: two never
    /// take over at once, or the values that were read first could be the last taken over. Who comes while another is
    /// at it goes on without waiting, and a change that the other may have missed is left to the next call.
    template <typename Take>
    void TakeOver(const CDom& dom, Take&& take)
    {
        const std::unique_lock lock(m_takingOver, std::try_to_lock);
        if (lock && TakeChange(dom))
            take();
    }
    /// Around a fork, on the forking thread, for a watch that the child goes on with: nobody is taking over meanwhile.
    void BeforeFork() { m_takingOver.lock(); }
    void AfterFork() { m_takingOver.unlock(); }
    /// Makes the next `TakeChange` true: what was taken over is lost, or could not be taken over.
    void Forget() { m_written = true; }

private:
    std::mutex m_takingOver;
    std::atomic<bool> m_written{true};
    std::atomic<std::time_t> m_fileSeen{0};
    std::atomic<std::uint64_t> m_generation{0}; // of the files' entries
    DomObserver m_observer; // the last, so that it is gone before what it writes to
};

} // namespace VexCore
