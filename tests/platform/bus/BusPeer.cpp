// The other process of the bus tests:
//   bus_peer <requestId> <quitId>
//     Answers every request with the request's head and payload, prints "ready" once
//     registered, and exits on <quitId> or after ten quiet seconds, so that a failed test
//     leaves nothing behind.
//   bus_peer flood <eventId> <bytes> <seconds>
//     Sends <bytes>-byte messages <eventId> as fast as the bus takes them for <seconds>.
#include <stdio.h>
#include <stdlib.h>
#include <string.h>

#include <chrono>
#include <string>

#include "MsgClientManage.h"

namespace {

int Flood(int eventId, size_t bytes, int seconds) {
    CMsgClientManage bus("BusFlood", 300000);
    const std::string payload(bytes, 'f');
    const auto end = std::chrono::steady_clock::now() + std::chrono::seconds(seconds);
    printf("flooding\n");
    fflush(stdout);
    while (std::chrono::steady_clock::now() < end) {
        for (int i = 0; i < 100; ++i) {
            bus.MSGSendMessage(0, eventId, 0, payload.data(), static_cast<int>(bytes), 77);
        }
    }
    return 0;
}

}  // namespace

int main(int argc, char** argv) {
    if (argc == 5 && strcmp(argv[1], "flood") == 0) {
        return Flood(atoi(argv[2]), strtoul(argv[3], nullptr, 10), atoi(argv[4]));
    }
    if (argc != 3) {
        fprintf(stderr, "usage: %s <requestId> <quitId> | flood <eventId> <bytes> <seconds>\n",
                argv[0]);
        return 2;
    }
    CMsgClientManage bus("BusPeer", 300000);
    bool quit = false;
    bus.RegisterHandler(77, atoi(argv[1]), [&bus](const char* data, int len) {
        auto* head = reinterpret_cast<Common::SMessageHead*>(const_cast<char*>(data));
        return bus.MSGResponseMessage(head, data, len);
    });
    bus.RegisterHandler(77, atoi(argv[2]), [&quit](const char*, int) {
        quit = true;
        return 0;
    });
    printf("ready\n");
    fflush(stdout);
    for (int quiet = 0; !quit && quiet < 1000;) {
        quiet = bus.MSGWaitForEvent(10) == 0 ? quiet + 1 : 0;
    }
    return quit ? 0 : 1;
}
