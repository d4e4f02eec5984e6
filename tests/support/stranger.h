#pragma once
// A thread that is none of ours, as a native module may start one.

#include <future>
#include <thread>
#include <utility>

#include <wx/log.h>

#include <unistd.h>

namespace Test {

/// Lets a stranger log a warning, which stays in the framework's queue.
/// The thread lives on, so that its number is nobody else's.
inline void LogFromAStranger(const char* text)
{
    std::promise<void> promise;
    const std::future<void> logged = promise.get_future();
    std::thread([text, promise = std::move(promise)]() mutable {
        wxLogWarning("%s", text);
        promise.set_value();
        ::pause();
    }).detach();
    logged.wait();
}

} // namespace Test
