// Which modules are traced. The set of modules is immutable and stands behind an atomic pointer: asking takes no lock.
// For a module that is not traced it is one relaxed load, of the marks of those that are.

#include "vex/core/log.h"

#include "vex_core/domain/dom_observer.h"
#include "vex_core/domain/dom_values.h"
#include "vex_core/domain/root_dom.h"
#include "vex_core/log/process_log.h"
#include "vex_core/log/trace_modules.h"

#include <algorithm>
#include <atomic>
#include <map>
#include <mutex>
#include <optional>

namespace VexCore {

namespace {
std::atomic<std::uint64_t> g_marks{0}; // of the modules in the list
std::atomic<const TraceModules*> g_modules{nullptr};

void ReloadTraceModules();

// Every list that was ever in force, by its text. Readers may still be looking into an old one, and lists
// change at most a few times in a process's life, so none is destroyed. Nor is the observer: domains are
// written while the process ends.
struct TraceLists
{
    std::mutex lock;
    std::map<std::string, TraceModules> byText; // guarded by lock
    const DomObserver observer{{"app.trace", "app.trace+"}, ReloadTraceModules};
};

TraceLists& Lists()
{
    static TraceLists& s_lists = *new TraceLists;
    return s_lists;
}

[[maybe_unused]] const TraceLists& g_listsFromTheBeginning =
    Lists(); // a write before the first trace line counts as well

// Takes over what the lists of the process's root domain are now.
void ReloadTraceModules()
{
    TraceLists& lists = Lists();
    // Let go of after the lock: this may be the last reference by then, and the end of a root comes back here.
    std::optional<const RootDom> root;
    // Read under the lock: of two writers the one that comes second sees both writes, so the
    // lists in force are the last.
    const std::lock_guard lock(lists.lock);
    root.emplace();
    std::string text;
    if (*root)
        text = (*root)->Get("app.trace") + ',' + (*root)->Get("app.trace+");
    const TraceModules& modules = lists.byText.try_emplace(text, text).first->second;
    g_modules.store(&modules, std::memory_order_release);
    g_marks.store(modules.Marks(), std::memory_order_release);
}

} // namespace

bool LogTraceIsEnabled(const char* module)
{
    const std::uint64_t marks = g_marks.load(std::memory_order_relaxed);
    if (marks == 0 || !module || (marks & TraceModules::MarkOf(module)) == 0)
        return false;
    const TraceModules* const modules = g_modules.load(std::memory_order_acquire);
    return modules && modules->Contain(module);
}

void LogTrace(const char* module, const char* sourceFile, int line, const char* function, const wxString& message)
{
    WriteTraceLine(module, sourceFile, line, function, BytesFromText(message));
}

void WriteTraceLine(const char* module, const char* sourceFile, int line, const char* function,
                    std::string_view message)
{
    std::string name = function ? function : "";
    name.erase(std::remove(name.begin(), name.end(), ' '), name.end());
    std::string text = module ? module : "";
    text.append(" ").append(name).append("(").append(sourceFile ? sourceFile : "").append(":");
    text.append(std::to_string(line)).append("): ").append(message);
    WriteLogLine(LogLevel::Trace, text);
}

} // namespace VexCore
