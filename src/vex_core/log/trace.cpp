// Which modules are traced. The set of modules is immutable and stands behind an atomic pointer: asking takes no lock.
// For a module that is not traced it is one relaxed load, of the marks of those that are: one more for each letter that
// its name begins with like one of theirs.

#include "vex/core/log.h"

#include "vex_core/domain/dom_observer.h"
#include "vex_core/domain/dom_values.h"
#include "vex_core/domain/root_dom.h"
#include "vex_core/log/process_log.h"
#include "vex_core/log/trace_modules.h"

#include <algorithm>
#include <array>
#include <atomic>
#include <cstddef>
#include <memory>
#include <mutex>
#include <optional>
#include <vector>

namespace VexCore {

namespace {
// Of the modules in the list. While it changes they may be partly of one list and partly of another; both have the
// marks of a module that is in both.
std::array<std::atomic<std::uint64_t>, TraceModules::markedLetters> g_marks{};
std::atomic<const TraceModules*> g_modules{nullptr};
std::atomic<int> g_readers{0}; // how many look into what that leads to, at this moment

void ReloadTraceModules();

// Never destroyed, as the observer: domains are written while the process ends.
struct TraceLists
{
    std::mutex lock;
    std::string text; // of the list in force; guarded by lock, like the rest
    std::unique_ptr<const TraceModules> inForce;
    // Somebody may still look into one of these. They go when a list changes at a moment without readers.
    std::vector<std::unique_ptr<const TraceModules>> former;
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
    if (lists.inForce && text == lists.text)
        return;
    lists.former.push_back(std::move(lists.inForce));
    lists.inForce = std::make_unique<const TraceModules>(text);
    lists.text = std::move(text);
    g_modules.store(lists.inForce.get());
    for (std::size_t place = 0; place < g_marks.size(); ++place)
        g_marks[place].store(lists.inForce->Marks()[place]);
    if (g_readers.load() == 0) // whoever comes from now on finds the new list
        lists.former.clear();
}

// Not inlined, on purpose: whoever asks for a module that is not traced would save its registers.
[[gnu::noinline]] bool IsInList(const char* module)
{
    // All of these in one order with what a change does.
    g_readers.fetch_add(1);
    const TraceModules* const modules = g_modules.load();
    const bool isInList = modules && modules->Contain(module);
    g_readers.fetch_sub(1);
    return isInList;
}

} // namespace

bool LogTraceIsEnabled(const char* module)
{
    const auto markAt = [](std::size_t place) { return g_marks[place].load(std::memory_order_relaxed); };
    return module && TraceModules::MayBeIn(markAt, module) && IsInList(module);
}

namespace {
// What stands before the message, with room for that.
std::string TraceHead(const char* module, const char* sourceFile, int line, const char* function, std::size_t size)
{
    constexpr std::size_t usualHead = 128;
    std::string text;
    text.reserve(usualHead + size);
    text.append(module ? module : "").append(" ", 1);
    const std::size_t name = text.size();
    text.append(function ? function : "");
    if (text.find(' ', name) != std::string::npos)
        text.erase(std::remove(text.begin() + static_cast<std::ptrdiff_t>(name), text.end(), ' '), text.end());
    text.append("(", 1).append(sourceFile ? sourceFile : "").append(":", 1);
    text.append(std::to_string(line)).append("): ", 3);
    return text;
}

} // namespace

void LogTrace(const char* module, const char* sourceFile, int line, const char* function, const wxString& message)
{
    std::string text = TraceHead(module, sourceFile, line, function, message.length());
    AddLogBytes(text, message);
    WriteLogLine(LogLevel::Trace, text);
}

void WriteTraceLine(const char* module, const char* sourceFile, int line, const char* function,
                    std::string_view message)
{
    WriteLogLine(LogLevel::Trace, TraceHead(module, sourceFile, line, function, message.size()).append(message));
}

} // namespace VexCore
