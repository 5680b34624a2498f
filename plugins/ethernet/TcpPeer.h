// Helpers of the sample Ethernet plug-in that need no socket: finding the peer in the
// recorder's Ethernet setting and the reconnect back-off.
#ifndef PLUGINS_ETHERNET_TCP_PEER_H
#define PLUGINS_ETHERNET_TCP_PEER_H

#include <cstdint>
#include <string>

#include "PeripheralDefine.h"

struct TcpPeer {
    std::string ip;  // dotted IPv4 text as configured (may be empty or malformed)
    uint16_t port;
};

inline bool operator==(const TcpPeer& a, const TcpPeer& b) {
    return a.ip == b.ip && a.port == b.port;
}
inline bool operator!=(const TcpPeer& a, const TcpPeer& b) {
    return !(a == b);
}

// The peer of the first entry whose 8-bit ids equal (mainId, subId), the way the manager finds
// a peripheral's parameter id. False when no entry matches (ids above 255 never do).
bool FindTcpPeer(const paramPeripheralEtherNet_t& setting, unsigned int mainId, unsigned int subId,
                 TcpPeer& out);

// The wait before the next attempt: doubled, kept within [minMs, maxMs].
unsigned int NextBackoff(unsigned int currentMs, unsigned int minMs, unsigned int maxMs);

#endif
