// A small service for pm-host's tests. It answers request 7001 with the payload reversed,
// feeds its watchdog from a thread of its own (no longer after 7002, again after 7003), prints
// a line to standard output on 7004 (as the real service prints parameter records), spends a
// millisecond on 7005, and leaves traces in files named by the environment (see
// docs/tools.md). With PM_TEST_SERVICE_EXIT set, Create ends the process with exit(1), as the
// real service does without its configuration.
#include <stdio.h>
#include <unistd.h>

#include <algorithm>
#include <atomic>
#include <climits>
#include <cstring>
#include <cstdlib>
#include <fstream>
#include <string>
#include <thread>

#include "CommonTime.h"
#include "MsgClientManage.h"
#include "ServiceBase.h"

namespace {

void WriteFileNamedBy(const char* variable, const std::string& content) {
    if (const char* path = getenv(variable)) {
        std::ofstream(path) << content;
    }
}

class CTestService : public CServiceBase {
public:
    CTestService() {
        m_client.RegisterHandler(kOwnId, 7001, [this](const char* data, int len) {
            if (len >= 16) {
                Common::SMessageHead head;
                memcpy(&head, data, sizeof head);
                std::string payload(data + 16, data + len);
                std::reverse(payload.begin(), payload.end());
                m_client.MSGResponseMessage(&head, payload.data(),
                                            static_cast<int>(payload.size()));
            }
            return 0;
        });
        m_client.RegisterHandler(kOwnId, 7004, [](const char*, int) {
            printf("printed by the service\n");
            fflush(stdout);
            return 0;
        });
        m_client.RegisterHandler(kOwnId, 7005, [](const char*, int) {
            usleep(1000);  // about what the real service spends on a parameter record
            return 0;
        });
        for (int id : {7002, 7003}) {
            m_client.RegisterHandler(kOwnId, id, [this, id](const char*, int) {
                m_feeding = id == 7003;
                return 0;
            });
        }
        m_thread = std::thread([this] {
            while (!m_stop) {
                m_client.MSGWaitForEvent(20);
                if (m_feeding) {
                    m_client.MSGFeedWatchDog(Common::Q7R_TMGetSystemMicroSecond());
                }
            }
        });
    }

    ~CTestService() override {
        m_stop = true;
        m_thread.join();
        WriteFileNamedBy("PM_TEST_SERVICE_MARKER", "destroyed\n");
    }

private:
    static constexpr int kOwnId = 77;
    CMsgClientManage m_client{"TestService.77", 300000};
    std::atomic<bool> m_feeding{getenv("PM_TEST_SERVICE_NO_FEED") == nullptr};
    std::atomic<bool> m_stop{false};
    std::thread m_thread;
};

}  // namespace

extern "C" __attribute__((visibility("default"))) CServiceBase* Create() {
    char cwd[PATH_MAX];
    WriteFileNamedBy("PM_TEST_SERVICE_CWD", getcwd(cwd, sizeof cwd) != nullptr ? cwd : "?");
    if (getenv("PM_TEST_SERVICE_EXIT") != nullptr) {
        exit(1);
    }
    return getenv("PM_TEST_SERVICE_CREATE_NULL") != nullptr ? nullptr : new CTestService();
}
