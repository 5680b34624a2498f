// The extension box's receive path, from the line to its children and its answer parser, and
// its upgrade: byte 0 of an input picks the way in. Frames built from the input carry a
// correct check value, so that the parser behind the check is reached, not only the check.
#include <stddef.h>
#include <stdint.h>

#include <string.h>

#include <algorithm>
#include <vector>

#include "FuzzService.h"
#include "BusWire.h"
#include "GuiToolkit.h"
#include "PeripheralEvents.h"
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

std::vector<char> Message(uint32_t eventId, const uint8_t* payload, size_t size) {
    std::vector<char> message(Common::kMsgHeadSize + size);
    Common::PutMsgHead(message.data(), eventId, 50, 1, static_cast<uint32_t>(size));
    std::copy(payload, payload + size, message.begin() + Common::kMsgHeadSize);
    return message;
}

// The box knows its version, is online and was triggered: it waits for its file (a box takes
// a file record only then). An upgrade an earlier input left running ends first.
void WaitForFile(CSerialDevExtendBox* box) {
    if (box->IsUpgrading()) {
        box->BroadcastUpgradeState(PERIPHERAL_UPGRADE_FAILED, 1, true);
    }
    box->AnalySerialData(5, "\x04\x03V10");
    box->SetCurPeripheralStatus(true);
    const uint8_t trigger[10] = {0, 1, 0, 4, 0, 0, 0, 0, 0, 1};
    const std::vector<char> t = Message(EVENT_EXTEND_UPGRADE_TRIGGER, trigger, sizeof trigger);
    box->OnTriggerExtendUpgrade(t.data(), static_cast<int>(t.size()));
}

// A running upgrade of a good 300-byte image: what the input then answers is up to the input.
void StartUpgrade(CSerialDevExtendBox* box) {
    WaitForFile(box);
    std::vector<uint8_t> record(104 + 180 + 300);
    record[0] = 1;
    record[1] = 3;
    memcpy(record.data() + 4, "V2.CRC", 6);
    Common::PutLe32(record.data() + 68, 180 + 300);
    Common::PutLe32(record.data() + 200, 1);
    for (size_t i = 0; i < 300; ++i) {
        record[284 + i] = static_cast<uint8_t>(i);
    }
    Common::PutLe32(record.data() + 268,
                    static_cast<uint32_t>(Crc_32(0, record.data() + 284, 300)));
    Common::PutLe32(record.data() + 280, 300);
    const std::vector<char> f =
        Message(EventAnswerOf(EVENT_GET_EXTEND_UPGRADE_FILE), record.data(), record.size());
    box->OnGetExtendUpgradeFileAck(f.data(), static_cast<int>(f.size()));
}

}  // namespace

extern "C" int LLVMFuzzerTestOneInput(const uint8_t* data, size_t size) {
    CSerialDevExtendBox* box = Box();
    if (box == nullptr || size == 0) {
        return 0;
    }
    // An exact copy of what is fed, so that a read past it shows.
    const std::vector<char> rest(data + 1, data + size);
    switch (data[0] % 6) {
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
        case 4: {  // any upgrade file record, to a box that asked for one
            WaitForFile(box);
            const std::vector<char> m =
                Message(EventAnswerOf(EVENT_GET_EXTEND_UPGRADE_FILE), data + 1, size - 1);
            box->OnGetExtendUpgradeFileAck(m.data(), static_cast<int>(m.size()));
            break;
        }
        case 5: {  // answers, one per length-prefixed piece, during a running upgrade
            StartUpgrade(box);
            size_t at = 1;
            while (at < size) {
                const size_t take = std::min<size_t>(data[at], size - at - 1);
                const std::vector<char> answer(data + at + 1, data + at + 1 + take);
                box->AnalySerialData(static_cast<unsigned int>(answer.size()), answer.data());
                at += 1 + take;
            }
            break;
        }
        case 3:
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
