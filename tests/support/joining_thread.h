#pragma once
// A thread of a test that ends with it: a failed assertion or an exception on the way leaves no thread behind, which
// would end the whole process.

#include <atomic>
#include <memory>
#include <thread>
#include <type_traits>
#include <utility>

namespace Test {

class JoiningThread
{
public:
    /// The body may take a flag: true when the thread is to end, at the latest when the object goes.
    template <class Body>
    explicit JoiningThread(Body body)
        : m_stop(std::make_shared<std::atomic<bool>>(false)),
          m_thread([stop = m_stop, body = std::move(body)]() mutable {
              if constexpr (std::is_invocable_v<Body&, const std::atomic<bool>&>)
                  body(*stop);
              else
                  body();
          })
    {}
    ~JoiningThread()
    {
        if (m_thread.joinable())
            Stop();
    }
    JoiningThread(JoiningThread&&) noexcept = default;
    JoiningThread& operator=(JoiningThread&&) = delete;

    void join() { m_thread.join(); }
    /// Sets the body's flag, and joins.
    void Stop()
    {
        *m_stop = true;
        m_thread.join();
    }

private:
    std::shared_ptr<std::atomic<bool>> m_stop;
    std::thread m_thread;
};

} // namespace Test
