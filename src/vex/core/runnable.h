#pragma once
// The base of every thread of the agent.

#include "vex/core/export.h"

#include <memory>

#include <wx/thread.h>

namespace VexCore {

class CDom;

/// A joinable thread with a name and an orderly end. The owner constructs, starts, asks to end, joins and deletes it.
///
/// A body that logs is heard at once: while it runs, the thread has the process's log target as its own. An exception
/// that leaves a body is logged and ends that thread, not the process.
class VEX_CORE_API CRunnable : public wxThread
{
public:
    /// `detached` and `critical` are reserved and must be false; `processor` is -1: any.
    CRunnable(bool detached, int processor, bool critical);
    /// The thread must not run any more (never started, or joined).
    ~CRunnable() override;

    /// Name in log lines. A constant text.
    virtual const char* GetThreadName() const;

    /// The domain that the body works with; not owned. Before `start`.
    void SetDom(CDom* dom);
    CDom* GetDom() const;

    /// Creates and runs the thread. `priority` 0 to 100 (50 is the default), `takesPartInStop`: the core library's
    /// shutdown asks it to end, `stackBytes` 0 is 8 MiB, whatever the process's limit says. False, after an error line
    /// in the log, when there is no thread to be had; then `join` returns at once.
    bool start(unsigned priority, bool takesPartInStop, unsigned stackBytes);

    /// Sets the flag that the body asks for with `TestDestroy` and wakes its waits. Any thread.
    virtual void requestExit();

    /// Waits until the body has returned. False when `timeoutMs` (negative: no limit) was over first. Any other thread.
    virtual bool join(long timeoutMs = -1);

    /// Asks to end and joins.
    virtual wxThreadError Delete();

    /// Wakes the thread from a wait of ours (`CDom::Wait`, `Join` of a worker); the wait reports it as time over.
    virtual void Awaken();

    /// Interrupts a blocking system call of the thread by sending it `SigThreadDelete`.
    virtual void interrupt();

    /// Whether the body should end. Cheap; the thread itself calls it.
    bool TestDestroy() override;

    /// Whether `start` succeeded and the body has not returned.
    bool Running() const;

    /// The CRunnable that the calling thread is, null on any other thread.
    static CRunnable* Current();

    /// The signal that wakes a thread from a blocking call, SIGRTMIN + 4.
    /// The host gives it a handler that does nothing.
    static const int SigThreadDelete;

protected:
    void* Entry() override;
    void OnExit() override;

    /// The body.
    virtual void OnRun() = 0;

private:
    struct Impl;
    friend struct RunnableAccess; // the core library's own way in
    std::unique_ptr<Impl> m_impl;
};

} // namespace VexCore
