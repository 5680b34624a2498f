// Thread base of the recorder's common support library, desktop build.
#ifndef PLATFORM_COMMON_THREAD_H
#define PLATFORM_COMMON_THREAD_H

#include <pthread.h>

#include <atomic>
#include <mutex>
#include <thread>

namespace Common {

// A loop on a thread of its own: Start() runs PreBeginThread() once, then ThreadFuncImpl()
// again and again until Stop(), then PostExitThread(), all on the new thread.
//
// The virtual slots are part of the plug-in ABI: destructor pair, ThreadFuncImpl,
// PreBeginThread, PostExitThread, in this order. Derived classes must call Stop() in their
// own destructor before their members go away; the base destructor stops the thread too,
// but by then the derived part is already gone.
class CThread {
public:
    CThread();
    virtual ~CThread();

    // One pass of the loop, on the thread. The result is not interpreted by the base.
    virtual int ThreadFuncImpl();
    // Once before the first pass / after the last pass, on the thread. Results ignored.
    virtual int PreBeginThread();
    virtual int PostExitThread();

    // Starts the thread. `policy` is reserved for the recorder's scheduling class and is
    // ignored on the desktop. Returns 0, or -1 when the thread runs already or cannot start.
    int Start(int policy = 0);
    // Ends the loop after the current pass and joins the thread. Harmless when the thread is
    // not running or was stopped before. Called from the thread itself it only ends the loop,
    // so it never deadlocks; the next Start()/Stop() from outside, or the destructor, joins it.
    int Stop();
    bool IsRunning() const { return m_bRunning.load(); }

    CThread(const CThread&) = delete;
    CThread& operator=(const CThread&) = delete;

private:
    void Loop();

    std::mutex m_lifeLock;  // serialises Start/Stop
    std::thread m_thread;
    std::atomic<bool> m_bRunning{false};
    std::atomic<bool> m_bStopRequested{false};
};

// Starts fn(arg) on a detached thread. Writes the thread's id to *tid when tid is not null.
// Returns 0, or -1 when the thread cannot be created (logged).
typedef void* (*ThreadEntryFn)(void*);
int CreateNormalThread(ThreadEntryFn fn, void* arg, pthread_t* tid);

}  // namespace Common

using Common::CreateNormalThread;

#endif
