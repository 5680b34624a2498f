// The serial base's frame cutter, as an extension box's line feeds it: any bytes, delivered in
// pieces whose sizes the input gives, through the serial base's receive entry.
#include <stddef.h>
#include <stdint.h>

#include <algorithm>
#include <vector>

#include "FuzzService.h"
#include "SerialBase.h"
#include "SerialFrame.h"

extern "C" int LLVMFuzzerTestOneInput(const uint8_t* data, size_t size) {
    CPeripheralManage& manage = fuzzsupport::Manager();
    // The registry's box when there is one; otherwise a serial base with the box's ids.
    static CSerialBase* box = [&manage] {
        CPeripheralBase* found =
            manage.GetPeripheralInstance(PERIPHERAL_TYPE_SERIAL, PERIPHERAL_MAINID_EXTEND_BOX, 0);
        auto* serial = dynamic_cast<CSerialBase*>(found);
        if (serial == nullptr) {
            serial =
                new CSerialBase(&manage, manage.GetMsgClient(), PERIPHERAL_MAINID_EXTEND_BOX, 0);
            serial->Initialize();
        }
        return serial;
    }();

    unsigned int start = 0;
    unsigned int end = 0;
    ScanExtendFrame(data, static_cast<unsigned int>(size), start, end);

    size_t at = 0;
    while (at < size) {
        const size_t piece = 1 + data[at] * 8u;  // up to 2041 bytes, past the buffer's 2048 too
        const size_t take = std::min(piece, size - at - 1);
        // An exact copy of each piece, so that a read past it shows.
        std::vector<char> bytes(data + at + 1, data + at + 1 + take);
        box->PreProcessPeripheralData(bytes.data(), static_cast<unsigned int>(bytes.size()));
        at += 1 + take;
    }
    return 0;
}
