// CAN frames as the recorder's CAN module hands them to the service (event 1089), and the
// real J1939 capture of tests/data/can/.
#ifndef PMTEST_CAN_EVENTS_H
#define PMTEST_CAN_EVENTS_H

#include <cstdint>
#include <vector>

namespace pmtest {

struct CanItem {
    uint32_t canId;
    uint8_t length;  // as written into the item, even when above 8
    std::vector<uint8_t> data;
};

// The payload of event 1089 as the CAN module lays it out.
std::vector<uint8_t> CanDataEvent(uint16_t mainId, uint16_t subId, uint16_t count,
                                  const std::vector<CanItem>& items, uint8_t port = 1);

// The `candump -l` lines of tests/data/can/j1939-sample.log: "(seconds) iface id#data".
std::vector<CanItem> J1939Capture();

}  // namespace pmtest

#endif
