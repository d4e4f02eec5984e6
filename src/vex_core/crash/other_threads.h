#pragma once
// The other threads of a crashed process: found, stopped, and asked for their registers. For the crash
// handler only.

#include <cstddef>

#include <sys/types.h>

namespace VexCore {

constexpr std::size_t maxStoppedThreads = 1024;

struct StoppedThread
{
    long number = 0;
    const void* context = nullptr; ///< ucontext_t of the stopped thread; null when it did not answer
};

/// Stops all threads but the caller and waits up to `waitMs` for their answers. They never go on. The list is
/// the caller's, then the others', in memory that stays; `count` its length.
const StoppedThread* StopOtherThreads(pid_t process, long self, const void* ownContext, long waitMs,
                                      std::size_t& count);

/// For a thread that crashes while another one writes the dump: gives its context as the answer and never
/// returns.
[[noreturn]] void AnswerAndStay(const void* context);

} // namespace VexCore
