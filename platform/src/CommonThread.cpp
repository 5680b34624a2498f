#include "CommonThread.h"

#include <string.h>

#include "CommonLog.h"

namespace Common {

CThread::CThread() = default;

CThread::~CThread() { Stop(); }

int CThread::ThreadFuncImpl() { return 0; }
int CThread::PreBeginThread() { return 0; }
int CThread::PostExitThread() { return 0; }

int CThread::Start(int /*policy*/) {
    std::lock_guard<std::mutex> guard(m_lifeLock);
    if (m_bRunning.load()) {
        return -1;
    }
    if (m_thread.joinable()) {
        m_thread.join();  // a previous run that ended by itself
    }
    m_bStopRequested.store(false);
    m_bRunning.store(true);
    m_thread = std::thread(&CThread::Loop, this);
    return 0;
}

int CThread::Stop() {
    std::lock_guard<std::mutex> guard(m_lifeLock);
    m_bStopRequested.store(true);
    if (!m_thread.joinable()) {
        return 0;
    }
    if (m_thread.get_id() == std::this_thread::get_id()) {
        // Stopping from inside the loop: the loop ends after this pass; nobody can join us.
        m_thread.detach();
        return 0;
    }
    m_thread.join();
    return 0;
}

void CThread::Loop() {
    PreBeginThread();
    while (!m_bStopRequested.load(std::memory_order_acquire)) {
        ThreadFuncImpl();
    }
    PostExitThread();
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
        gclDebugPrintf(0, __FILE__, __FUNCTION__, __LINE__, "thread: no entry function\n");
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
        gclDebugPrintf(0, __FILE__, __FUNCTION__, __LINE__, "thread: pthread_create failed: %s\n",
                       strerror(rc));
        return -1;
    }
    if (tid != nullptr) {
        *tid = id;
    }
    return 0;
}

}  // namespace Common
