#include "CommonThread.h"

#include <string.h>

#include <system_error>

#include "CommonLog.h"

namespace Common {

CThread::CThread() = default;

namespace {

constexpr const char kLogTag[] = "thread: ";
// The CThread whose loop runs on this thread. Stop() and Start() from inside the loop must
// neither take the life lock (an outside Stop() may hold it while joining us) nor join.
thread_local const CThread* t_ownLoop = nullptr;
}  // namespace

CThread::~CThread() {
    Stop();
    if (m_thread.joinable()) {
        m_thread.detach();  // destroyed from inside its own loop: nobody is left to join it
    }
}

int CThread::ThreadFuncImpl() {
    return 0;
}
int CThread::PreBeginThread() {
    return 0;
}
int CThread::PostExitThread() {
    return 0;
}

int CThread::Start(int /*policy*/) {
    if (t_ownLoop == this) {
        return -1;
    }
    std::lock_guard<std::mutex> guard(m_lifeLock);
    if (m_bRunning.load() && !m_bStopRequested.load()) {
        return -1;
    }
    if (m_thread.joinable()) {
        m_thread.join();  // a run that stopped itself and may still be ending
    }
    m_bStopRequested.store(false);
    m_bRunning.store(true);
    try {
        m_thread = std::thread(&CThread::Loop, this);
    } catch (const std::system_error& e) {
        m_bRunning.store(false);
        PM_LOG(0, kLogTag, "cannot start: %s\n", e.what());
        return -1;
    }
    return 0;
}

int CThread::Stop() {
    if (t_ownLoop == this) {
        // The loop ends after this pass; the next Start(), Stop() or the destructor joins.
        m_bStopRequested.store(true);
        return 0;
    }
    std::lock_guard<std::mutex> guard(m_lifeLock);
    m_bStopRequested.store(true);
    if (m_thread.joinable()) {
        m_thread.join();
    }
    return 0;
}

void CThread::Loop() {
    t_ownLoop = this;
    PreBeginThread();
    while (!m_bStopRequested.load(std::memory_order_acquire)) {
        ThreadFuncImpl();
    }
    PostExitThread();
    t_ownLoop = nullptr;
    m_bRunning.store(false);
}

namespace {
struct NormalThreadArgs {
    ThreadEntryFn fn;
    void* arg;
};

void* NormalThreadTrampoline(void* p) {
    NormalThreadArgs args = *static_cast<NormalThreadArgs*>(p);
    delete static_cast<NormalThreadArgs*>(p);
    return args.fn(args.arg);
}
}  // namespace

int CreateNormalThread(ThreadEntryFn fn, void* arg, pthread_t* tid) {
    if (fn == nullptr) {
        PM_LOG(0, kLogTag, "no entry function\n");
        return -1;
    }
    pthread_attr_t attr;
    pthread_attr_init(&attr);
    pthread_attr_setdetachstate(&attr, PTHREAD_CREATE_DETACHED);
    pthread_t id;
    auto* args = new NormalThreadArgs{fn, arg};
    int rc = pthread_create(&id, &attr, NormalThreadTrampoline, args);
    pthread_attr_destroy(&attr);
    if (rc != 0) {
        delete args;
        PM_LOG(0, kLogTag, "pthread_create failed: %s\n", strerror(rc));
        return -1;
    }
    if (tid != nullptr) {
        *tid = id;
    }
    return 0;
}

}  // namespace Common
