// pm-host: loads a service library the way the recorder's service host does, on a desktop.
#include <dlfcn.h>
#include <limits.h>
#include <signal.h>
#include <string.h>
#include <unistd.h>

#include <algorithm>
#include <atomic>
#include <chrono>
#include <cstdio>
#include <cstdlib>
#include <memory>
#include <string>
#include <thread>

#include "CommonLog.h"
#include "BusWire.h"
#include "EventNames.h"
#include "MsgBroker.h"
#include "MsgClientManage.h"
#include "ServiceBase.h"
#include "Signals.h"
#include "WatchdogTracker.h"

namespace {

constexpr long long kDefaultWatchdogMs = 10000;
// The watchdog check looks at least four times per silence period and at most once a second;
// signals do not wait for it (the main thread waits for them alone).
constexpr long long kMaxPumpMs = 1000;
constexpr int kHostModuleId = 0;

const char kUsage[] =
    "usage: pm-host [--service PATH] [--workdir DIR]\n"
    "  --service PATH  service library to load (default: ../lib/libBasicService.so\n"
    "                  beside this program)\n"
    "  --workdir DIR   working directory of the service (default: this program's folder)\n"
    "Runs until SIGINT or SIGTERM. Environment: RECORDER_BUS, PM_HOST_WATCHDOG_MS.\n";

struct Options {
    std::string service;
    std::string workdir;
};

// 0: parsed; 1: help printed; 2: usage error printed.
int ParseOptions(int argc, char** argv, Options& options) {
    for (int i = 1; i < argc; ++i) {
        std::string arg = argv[i];
        if (arg == "-h" || arg == "--help") {
            fputs(kUsage, stdout);
            return 1;
        }
        bool takesValue = arg == "--service" || arg == "--workdir";
        if (!takesValue || i + 1 >= argc || argv[i + 1][0] == '\0') {
            Common::LogOutputPrintf("pm-host: %s %s\n%s",
                                    takesValue ? "missing value for" : "unknown argument",
                                    arg.c_str(), kUsage);
            return 2;
        }
        (arg == "--service" ? options.service : options.workdir) = argv[++i];
    }
    return 0;
}

std::string OwnFolder() {
    char path[PATH_MAX];
    ssize_t n = readlink("/proc/self/exe", path, sizeof path - 1);
    if (n <= 0) {
        return ".";
    }
    std::string exe(path, static_cast<size_t>(n));
    size_t slash = exe.rfind('/');
    return slash == std::string::npos ? "." : slash == 0 ? "/" : exe.substr(0, slash);
}

// Relative paths on the command line mean the caller's folder, not the working directory
// that the host switches to.
std::string Absolute(const std::string& path) {
    if (path.empty() || path[0] == '/') {
        return path;
    }
    char cwd[PATH_MAX];
    return getcwd(cwd, sizeof cwd) != nullptr ? std::string(cwd) + "/" + path : path;
}

long long WatchdogPeriodMs() {
    const char* text = getenv("PM_HOST_WATCHDOG_MS");
    uint64_t value = 0;
    if (text == nullptr || *text == '\0') {
        return kDefaultWatchdogMs;
    }
    if (!pmtools::ParseNumber(text, 24ULL * 3600 * 1000, value) || value == 0) {
        Common::LogOutputPrintf(
            "pm-host: ignoring PM_HOST_WATCHDOG_MS=%s (want milliseconds > 0)\n", text);
        return kDefaultWatchdogMs;
    }
    return static_cast<long long>(value);
}

long long NowMs() {
    using namespace std::chrono;
    return duration_cast<milliseconds>(steady_clock::now().time_since_epoch()).count();
}

// Starts a broker unless one serves the bus already. False on failure (reported).
bool EnsureBroker(Common::CMsgBroker& broker) {
    int rc = broker.Start();
    const Common::BusEndpoints& ends = broker.Endpoints();
    if (rc == 0) {
        Common::LogOutputPrintf("pm-host: started a broker at %s and %s\n", ends.in.c_str(),
                                ends.out.c_str());
        return true;
    }
    if (rc == 1) {
        Common::LogOutputPrintf("pm-host: using the broker already running at %s and %s\n",
                                ends.in.c_str(), ends.out.c_str());
        return true;
    }
    Common::LogOutputPrintf("pm-host: cannot start a broker at %s and %s\n", ends.in.c_str(),
                            ends.out.c_str());
    return false;
}

// The handle stays open to the end of the process: a service may leave detached threads
// behind in its code, and unmapping it under them would crash the exit.
CServiceBase* LoadService(const std::string& path) {
    void* library = dlopen(path.c_str(), RTLD_NOW | RTLD_GLOBAL);
    if (library == nullptr) {
        Common::LogOutputPrintf("pm-host: cannot load service %s: %s\n", path.c_str(), dlerror());
        return nullptr;
    }
    dlerror();
    auto create = reinterpret_cast<ServiceCreateFn>(dlsym(library, "Create"));
    if (create == nullptr) {
        const char* why = dlerror();
        Common::LogOutputPrintf("pm-host: service %s has no entry Create: %s\n", path.c_str(),
                                why != nullptr ? why : "null symbol");
        return nullptr;
    }
    CServiceBase* service = create();
    if (service == nullptr) {
        Common::LogOutputPrintf("pm-host: Create of %s returned no service\n", path.c_str());
    }
    return service;
}

class CWatchdogWatch {
public:
    explicit CWatchdogWatch(long long silenceMs)
        : m_silenceMs(silenceMs), m_client("pm-host", 300000), m_tracker(silenceMs, NowMs()) {
        m_client.RegisterHandler(kHostModuleId, Common::kMsgWatchdogEvent,
                                 [this](const char* data, int len) { return OnFeed(data, len); });
    }
    ~CWatchdogWatch() {
        Stop();
        m_client.MSGEventUnRegister(kHostModuleId, Common::kMsgWatchdogEvent);
    }

    // The start-up check counts from the service's creation, not the host's.
    void Restart() { m_tracker = pmtools::CWatchdogTracker(m_silenceMs, NowMs()); }

    // Follows the feeds on a thread of its own until Stop().
    void Run() {
        m_thread = std::thread([this] {
            const auto pumpMs = static_cast<unsigned>(std::clamp(m_silenceMs / 4, 1LL, kMaxPumpMs));
            while (!m_stop.load()) {
                m_client.MSGWaitForEvent(pumpMs);
                for (const std::string& warning : m_tracker.Check(NowMs())) {
                    Common::LogOutputPrintf("%s\n", warning.c_str());
                }
            }
        });
    }
    void Stop() {
        if (!m_thread.joinable()) {
            return;
        }
        m_stop = true;
        // An empty feed ends the wait at once; the handler knows it by the stop flag.
        m_client.MSGSendMessage(0, Common::kMsgWatchdogEvent, 0, nullptr, 0, kHostModuleId);
        m_thread.join();
    }

private:
    int OnFeed(const char* data, int len) {
        if (m_stop.load() || data == nullptr || len < static_cast<int>(Common::kMsgHeadSize)) {
            return 0;
        }
        std::string name;
        long long clock = 0;
        if (!pmtools::CWatchdogTracker::ParseFeed(
                reinterpret_cast<const uint8_t*>(data) + Common::kMsgHeadSize,
                static_cast<size_t>(len) - Common::kMsgHeadSize, name, clock)) {
            Common::LogOutputPrintf("pm-host: watchdog: ignoring a feed of %d bytes\n", len);
            return 0;
        }
        std::string notice = m_tracker.Feed(name, NowMs());
        if (!notice.empty()) {
            Common::LogOutputPrintf("%s\n", notice.c_str());
        }
        return 0;
    }

    long long m_silenceMs;
    CMsgClientManage m_client;
    pmtools::CWatchdogTracker m_tracker;  // the watch thread's once it runs
    std::atomic<bool> m_stop{false};
    std::thread m_thread;
};

int Run(const Options& options) {
    std::string folder = OwnFolder();
    std::string service =
        options.service.empty() ? folder + "/../lib/libBasicService.so" : Absolute(options.service);
    std::string workdir = options.workdir.empty() ? folder : options.workdir;
    if (chdir(workdir.c_str()) != 0) {
        Common::LogOutputPrintf("pm-host: cannot change to %s: %s\n", workdir.c_str(),
                                strerror(errno));
        return 1;
    }
    Common::CMsgBroker broker;
    if (!EnsureBroker(broker)) {
        return 1;
    }
    CWatchdogWatch watch(WatchdogPeriodMs());
    std::unique_ptr<CServiceBase> running(LoadService(service));
    if (!running) {
        return 1;
    }
    watch.Restart();
    Common::LogOutputPrintf("pm-host: service %s running in %s\n", service.c_str(),
                            workdir.c_str());
    watch.Run();
    const int sig = pmtools::WaitStopSignal();
    Common::LogOutputPrintf("pm-host: %s received, stopping the service\n",
                            sig == SIGINT ? "SIGINT" : "SIGTERM");
    running.reset();
    watch.Stop();
    Common::LogOutputPrintf("pm-host: service stopped\n");
    return 0;
}

}  // namespace

int main(int argc, char** argv) {
    pmtools::BlockStopSignals();
    pmtools::IgnoreBrokenPipes();
    Options options;
    int parsed = ParseOptions(argc, argv, options);
    if (parsed != 0) {
        return parsed == 1 ? 0 : 2;
    }
    return Run(options);
}
