// libMinimalPlugin.so: the smallest useful serial plug-in. It answers every byte it receives
// with the same byte (an echo), and says once a second that it is alive.
//
// The service creates one instance per port whose serial record names this plug-in's main
// id (see docs/plugins.md); this file is all a plug-in needs.
#include "BasicServiceExport.h"
#include "CommonLog.h"
#include "SerialBase.h"

namespace {

constexpr const char kLogTag[] = "MINIMAL: ";

class CMinimalPlugin : public CSerialBase {
public:
    // Manager thread. The serial base has found the port and opened it by now; what arrives
    // waits until the manager has called Initialize() on the finished object.
    CMinimalPlugin(CPeripheralManage* manage, CMsgClientManage* client, unsigned int mainId,
                   unsigned int subId)
        : CSerialBase(manage, client, mainId, subId) {
        SetThreadCircleTime(1000);
        PM_LOG(1, kLogTag, "created, mainId = %u, subId = %u, link = %d\n", mainId, subId,
               GetSerialType());
    }

    ~CMinimalPlugin() override {
        PM_LOG(1, kLogTag, "released, mainId = %u, subId = %u\n", m_nMainId, m_nSubId);
    }

    // Bytes wait in the receive buffer; the buffer lock is held. Serial reader thread for a
    // main-chip tty, manager thread for an MCU port. Must not block.
    int ProcessPeripheralData() override {
        char data[SERIAL_DELIVERY_SIZE];  // what GetSerialBufferData hands out at most
        unsigned int length = 0;
        GetSerialBufferData(data, length);
        ClearSerialBufferValue();
        if (length == 0) {
            return 0;
        }
        PM_LOG(2, kLogTag, "%u bytes in, echoing them\n", length);
        return SendDataToPeripheral(data, length) < 0 ? -1 : 0;
    }

    // Manager thread, once per circle time while the port is open.
    int PeripheralThreadCycle(long long now) override {
        PM_LOG(3, kLogTag, "alive, mainId = %u, now = %lld\n", m_nMainId, now);
        return 0;
    }
};

}  // namespace

// The loader finds these two by name; everything else stays hidden. No exception may reach
// the service: a failed allocation is a null instance, which the loader logs.
BASICSERVICE_PLUGIN(CMinimalPlugin)
