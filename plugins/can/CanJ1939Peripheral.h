// Sample CAN plug-in: listens to a few J1939 broadcasts of a heavy vehicle (engine speed,
// wheel-based speed, and the answers to its own requests for total distance and engine
// hours), decodes them and keeps the latest values.
#ifndef PLUGINS_CAN_CAN_J1939_PERIPHERAL_H
#define PLUGINS_CAN_CAN_J1939_PERIPHERAL_H

#include "CanPortBase.h"
#include "J1939.h"

class CCanJ1939Peripheral : public CCanPortBase {
public:
    // Main id 12 in the recorder's configuration; any sub id.
    static constexpr unsigned int kMainId = 12;
    // Our source address in requests: the first off-board diagnostic tool's.
    static constexpr uint8_t kSourceAddress = 0xF9;
    // One request per cycle, taking turns between the two PGNs.
    static constexpr unsigned int kRequestPeriodMs = 1000;

    CCanJ1939Peripheral(CPeripheralManage* manage, CMsgClientManage* client, unsigned int mainId,
                        unsigned int subId);
    ~CCanJ1939Peripheral() override;

    // Subscribes to the four PGNs from any source and sends the filter. Manager thread.
    // Returns 0.
    int PeripheralInitialize() override;
    // Sends the next request (distance, then hours, ...). Manager thread, once per
    // kRequestPeriodMs. Returns 0.
    int PeripheralThreadCycle(long long now) override;
    // Decodes one received frame and stores the value. Manager thread. Returns 0, also for
    // frames it does not decode.
    int ProcessPeripheralData(const char* data, unsigned int length, unsigned int canId) override;

    // The latest values, for the plug-in's own use. Manager thread (it delivers the frames).
    const j1939::Latest& GetLatest() const { return m_stuLatest; }

private:
    j1939::Latest m_stuLatest;
    unsigned int m_nRequestIndex;
};

#endif
