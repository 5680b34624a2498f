// The other process of the two-process bus test:
//   bus_peer <requestId> <quitId>
// Answers every request with the request's head and payload, prints "ready" once registered,
// and exits on <quitId> or after ten quiet seconds, so that a failed test leaves nothing behind.
#include <stdio.h>
#include <stdlib.h>

#include "MsgClientManage.h"

int main(int argc, char** argv) {
    if (argc != 3) {
        fprintf(stderr, "usage: %s <requestId> <quitId>\n", argv[0]);
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
