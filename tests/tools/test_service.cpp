// A small service for pm-host's tests: answers a request, feeds the watchdog from a thread
// of its own, and leaves a trace of its creation and destruction in files the test names.
#include <stdlib.h>
#include <unistd.h>

#include <algorithm>
#include <atomic>
#include <climits>
#include <fstream>
#include <string>
#include <thread>
#include <vector>

#include "CommonTime.h"
#include "MsgClientManage.h"
#include "ServiceBase.h"
#include "TestServiceIds.h"

namespace {

void WriteFileNamedBy(const char* variable, const std::string& content) {
    const char* path = getenv(variable);
    if (path != nullptr && *path != '\0') {
        std::ofstream(path) << content;
    }
}

class CTestService : public CServiceBase {
public:
    CTestService() : m_feeding(getenv("PM_TEST_SERVICE_NO_FEED") == nullptr) {
        m_client.RegisterHandler(kOwnId, pmtest::kEchoRequest,
                                 [this](const char* data, int len) { return OnEcho(data, len); });
        m_client.RegisterHandler(kOwnId, pmtest::kStopFeeding, [this](const char*, int) {
            m_feeding = false;
            return 0;
        });
        m_client.RegisterHandler(kOwnId, pmtest::kResumeFeeding, [this](const char*, int) {
            m_feeding = true;
            return 0;
        });
        m_thread = std::thread([this] { Loop(); });
    }

    ~CTestService() override {
        m_stop = true;
        m_thread.join();
        for (int id : {pmtest::kEchoRequest, pmtest::kStopFeeding, pmtest::kResumeFeeding}) {
            m_client.MSGEventUnRegister(kOwnId, id);
        }
        WriteFileNamedBy("PM_TEST_SERVICE_MARKER", "destroyed\n");
    }

private:
    static constexpr int kOwnId = 77;

    void Loop() {
        while (!m_stop) {
            m_client.MSGWaitForEvent(20);
            if (m_feeding) {
                m_client.MSGFeedWatchDog(Common::Q7R_TMGetSystemMicroSecond());
            }
        }
    }

    // Answers with the request's payload reversed, so the test can tell the answer apart.
    int OnEcho(const char* data, int len) {
        if (data == nullptr || len < 16) {
            return 0;
        }
        std::vector<char> payload(data + 16, data + len);
        std::reverse(payload.begin(), payload.end());
        Common::SMessageHead head;
        std::copy(data, data + 16, reinterpret_cast<char*>(&head));
        m_client.MSGResponseMessage(&head, payload.data(), static_cast<int>(payload.size()));
        return 0;
    }

    CMsgClientManage m_client{"TestService.77", 300000};
    std::atomic<bool> m_feeding;
    std::atomic<bool> m_stop{false};
    std::thread m_thread;
};

}  // namespace

#ifndef PM_TEST_SERVICE_WITHOUT_CREATE
extern "C" __attribute__((visibility("default"))) CServiceBase* Create() {
    char cwd[PATH_MAX];
    WriteFileNamedBy("PM_TEST_SERVICE_CWD", getcwd(cwd, sizeof cwd) != nullptr ? cwd : "?");
    if (getenv("PM_TEST_SERVICE_CREATE_NULL") != nullptr) {
        return nullptr;
    }
    return new CTestService();
}
#else
// Something to export, so that the library is a valid one that merely lacks Create.
extern "C" __attribute__((visibility("default"))) int NotCreate() {
    return 0;
}
#endif
