// Every bus handler of the service, fed messages of any length and content through the bus
// client's real dispatch: the manager's whole table, the CAN base (frames and filter reports)
// and the serial base's MCU link. Byte 0 of the input picks the event; the rest is the message,
// head included, so heads may lie about their length.
#include <stddef.h>
#include <stdint.h>

#include <vector>

#include "CanPortBase.h"
#include "FuzzService.h"
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

// The manager's events (both lists, so that the unregistered ones are tried too), then the
// peripherals' own.
const int kEvents[] = {10, 33917, 1150, 1151, 33083, 316, 33127, 360, 33129, 362, 33087, 320, 1284,
                       34053, 1052, 33819, 33889, 1122, 2053, 1081, 33051, 284, 9, 8, 1035, 6739,
                       33827, 1060, 33887, 1089, 1136, 1090,
                       // the extension box's and the hub's
                       6704, 39473, 6708, 6711, 6904};

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
    const int eventId = kEvents[data[0] % (sizeof(kEvents) / sizeof(kEvents[0]))];
    // An exact copy, so that a read past the message shows.
    std::vector<char> message(data + 1, data + size);
    fuzzsupport::Manager().GetMsgClient()->MSGDispatchForTest(eventId, message.data(),
                                                              static_cast<int>(message.size()));
    return 0;
}
