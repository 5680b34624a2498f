// The other process of the two-process bus tests: answers requests through the broker.
//   bus_peer <requestId> <quitId>
// Answers every request `requestId` with the request's head as received followed by its
// payload, prints "ready" once its registrations are in force, and exits on `quitId` (or
// after ten quiet seconds, so that a failed test leaves nothing behind).
#include <stdio.h>
#include <stdlib.h>

#include <chrono>

#include "MsgClientManage.h"

namespace {

class CAnswerer {
public:
    explicit CAnswerer(CMsgClientManage& bus) : m_bus(bus) {}

    int OnRequest(const char* data, int len) {
        m_quiet = 0;
        auto* head = reinterpret_cast<Common::SMessageHead*>(const_cast<char*>(data));
        return m_bus.MSGResponseMessage(head, data, len);
    }
    int OnQuit(const char*, int) {
        m_quit = true;
        return 0;
    }

    bool m_quit = false;
    int m_quiet = 0;

private:
    CMsgClientManage& m_bus;
};

}  // namespace

int main(int argc, char** argv) {
    if (argc != 3) {
        fprintf(stderr, "usage: %s <requestId> <quitId>\n", argv[0]);
        return 2;
    }
    int requestId = atoi(argv[1]);
    int quitId = atoi(argv[2]);
    CMsgClientManage bus("BusPeer", 300000);
    CAnswerer answerer(bus);
    bus.MSGEventRegister(77, requestId, &answerer, &CAnswerer::OnRequest);
    bus.MSGEventRegister(77, quitId, &answerer, &CAnswerer::OnQuit);
    printf("ready\n");
    fflush(stdout);
    while (!answerer.m_quit && answerer.m_quiet < 1000) {
        if (bus.MSGWaitForEvent(10) == 0) {
            ++answerer.m_quiet;
        }
    }
    return answerer.m_quit ? 0 : 1;
}
