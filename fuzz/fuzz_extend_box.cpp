// The extension box's receive path, from the line to its children and its answer parser:
// byte 0 of an input picks the way in. Frames built from the input carry a correct check
// value, so that the parser behind the check is reached, not only the check.
#include <stddef.h>
#include <stdint.h>

#include <algorithm>
#include <vector>

#include "FuzzService.h"
#include "GuiToolkit.h"
#include "SerialDevExtendBox.h"

namespace {

CSerialDevExtendBox* Box() {
    static CSerialDevExtendBox* box = [] {
        CPeripheralManage& manage = fuzzsupport::Manager();
        auto* found = dynamic_cast<CSerialDevExtendBox*>(
            manage.GetPeripheralInstance(PERIPHERAL_TYPE_SERIAL, PERIPHERAL_MAINID_EXTEND_BOX, 0));
        if (found != nullptr) {
            found->HandlePeripParamChange();  // its children, as the manager would
        }
        return found;
    }();
    return box;
}

// Address, device byte, then the body: marks, check value and stuffing added.
std::vector<char> CheckedFrame(const uint8_t* data, size_t size) {
    std::vector<unsigned char> plain = {0x7E, size > 0 ? data[0] : uint8_t(0x80),
                                        size > 1 ? data[1] : uint8_t(0x04), 0};
    for (size_t i = 2; i < size && plain.size() < 1000; ++i) {
        plain[3] ^= data[i];
        plain.push_back(data[i]);
    }
    plain.push_back(0x7F);
    std::vector<unsigned char> stuffed(2 * plain.size());
    const int n =
        serial_transfrom_7e7f(plain.data(), stuffed.data(), static_cast<int>(plain.size()));
    return std::vector<char>(stuffed.begin(), stuffed.begin() + std::max(n, 0));
}

}  // namespace

extern "C" int LLVMFuzzerTestOneInput(const uint8_t* data, size_t size) {
    CSerialDevExtendBox* box = Box();
    if (box == nullptr || size == 0) {
        return 0;
    }
    // An exact copy of what is fed, so that a read past it shows.
    const std::vector<char> rest(data + 1, data + size);
    switch (data[0] % 4) {
        case 0:
            box->PreProcessPeripheralData(rest.data(), static_cast<unsigned int>(rest.size()));
            break;
        case 1: {
            const std::vector<char> frame = CheckedFrame(data + 1, size - 1);
            box->PreProcessPeripheralData(frame.data(), static_cast<unsigned int>(frame.size()));
            break;
        }
        case 2:
            box->AnalySerialData(static_cast<unsigned int>(rest.size()), rest.data());
            break;
        default:
            box->LockSerialBuffer();
            if (!rest.empty() && box->SetSerialBufferValue(
                                     rest.data(), static_cast<unsigned int>(rest.size())) == 0) {
                box->ProcessPeripheralData();
            }
            box->ClearSerialBufferValue();
            box->UnlockSerialBuffer();
            break;
    }
    // What the answers left behind is worked off by the cycle, as the manager would.
    static long long now = 1000000;
    box->PeripheralThreadCycle(now += 1000);
    return 0;
}
