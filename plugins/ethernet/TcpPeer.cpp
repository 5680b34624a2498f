#include "TcpPeer.h"

#include <string.h>

bool FindTcpPeer(const paramPeripheralEtherNet_t& setting, unsigned int mainId, unsigned int subId,
                 TcpPeer& out) {
    for (const EthernetEntry_t& entry : setting.entry) {
        if (entry.mainFun != mainId || entry.subFun != subId) {
            continue;
        }
        // The address field need not hold its terminating NUL.
        out.ip.assign(entry.ip, strnlen(entry.ip, sizeof(entry.ip)));
        const uint8_t* port = reinterpret_cast<const uint8_t*>(&entry.port);
        out.port = static_cast<uint16_t>(port[0] | (port[1] << 8));
        return true;
    }
    return false;
}

unsigned int NextBackoff(unsigned int currentMs, unsigned int minMs, unsigned int maxMs) {
    unsigned int next = currentMs > maxMs / 2 ? maxMs : currentMs * 2;
    if (next < minMs) {
        next = minMs;
    }
    return next > maxMs ? maxMs : next;
}
