// Every bus handler of the service, fed messages of any length and content through the bus
// client's real dispatch: the manager's whole table, the CAN base (frames and filter reports)
// and the serial base's MCU link. Bytes 0-3 of the input (little-endian) name the event: one
// the service hears by the event table, or else the one at that number modulo the table's
// count. The rest is the message, head included, so heads may lie about their length; the
// handlers get exactly those bytes, without the bus's padding, so that a read past the message
// shows.
#include <stddef.h>
#include <stdint.h>

#include <algorithm>
#include <vector>

#include "BusWire.h"
#include "CanPortBase.h"
#include "FuzzService.h"
#include "PeripheralEvents.h"
#include "SerialBase.h"

namespace {

class CFuzzCan : public CCanPortBase {
public:
    using CCanPortBase::CCanPortBase;
    int ProcessPeripheralData(const char* data, unsigned int length, unsigned int) override {
        volatile char sink = 0;
        for (unsigned int i = 0; i < length; ++i) {
            sink = static_cast<char>(sink ^ data[i]);  // every byte handed over must be readable
        }
        return 0;
    }
};

class CFuzzSerial : public CSerialBase {
public:
    using CSerialBase::CSerialBase;
    int ProcessPeripheralData() override {
        char bytes[1024];
        unsigned int length = 0;
        GetSerialBufferData(bytes, length);
        ClearSerialBufferValue();
        return 0;
    }
};

// What the service hears, by the event table: every event sent to it, and the answer to every
// request it makes. A handler added to the table is fuzzed without a change here.
std::vector<uint32_t> HeardEvents() {
    std::vector<uint32_t> ids;
    for (const PeripheralEventInfo& e : kPeripheralEvents) {
        ids.push_back(e.flow == EVENT_TO_SERVICE ? e.id : EventAnswerOf(e.id));
    }
    std::sort(ids.begin(), ids.end());
    return ids;
}

struct Peripherals {
    Peripherals() {
        CPeripheralManage& manage = fuzzsupport::Manager();
        can = new CFuzzCan(&manage, manage.GetMsgClient(), fuzzsupport::kCanMainId, 0);
        serial = new CFuzzSerial(&manage, manage.GetMsgClient(), fuzzsupport::kSerialMainId, 0);
        serial->Initialize();
    }
    CFuzzCan* can;
    CFuzzSerial* serial;
};

}  // namespace

extern "C" int LLVMFuzzerTestOneInput(const uint8_t* data, size_t size) {
    static Peripherals* peripherals = new Peripherals();  // kept: the fuzzer exits from anywhere
    (void)peripherals;
    if (size == 0) {
        return 0;
    }
    static const std::vector<uint32_t> events = HeardEvents();
    if (size < 4) {
        return 0;
    }
    uint32_t eventId = Common::GetLe32(data);
    if (!std::binary_search(events.begin(), events.end(), eventId)) {
        eventId = events[eventId % events.size()];
    }
    // An exact copy, so that a read past the message shows.
    std::vector<char> message(data + 4, data + size);
    fuzzsupport::Manager().GetMsgClient()->MSGDispatchForTest(
        static_cast<int>(eventId), message.data(), static_cast<int>(message.size()), true);
    return 0;
}
