// Base class of every CAN protocol plug-in. The CAN controller belongs to another module of
// the recorder; this class reaches it only through bus messages.
#ifndef SERIALBASIC_CAN_PORT_BASE_H
#define SERIALBASIC_CAN_PORT_BASE_H

#include <cstdint>
#include <list>

#include "PeripheralBase.h"

// One wanted CAN id. An id with mask 0xFFFFFFFF is an exact id; any other mask selects the
// ids whose masked value equals (canId & mask).
struct CanPortRecvIdProperty {
    bool bHasMask;
    uint32_t canId;
    uint32_t mask;
};

// Usage: in the constructor or PeripheralInitialize add the wanted ids with AddOneRecvCanId,
// then send the list once with SetCanPortFilter (it is never sent by itself). Frames arrive in
// ProcessPeripheralData on the thread that owns the bus client (the manager thread for a
// shared instance). The port is open from construction on.
//
// The order of the virtual functions is the plug-in ABI; never reorder or insert.
class BASICSERVICE_API CCanPortBase : public CPeripheralBase {
public:
    CCanPortBase(CPeripheralManage* manage, CMsgClientManage* client, unsigned int mainId,
                 unsigned int subId);
    ~CCanPortBase() override;

    int PeripheralThreadCycle(long long now) override;
    // Slot 11: one received frame (at most 8 data bytes).
    virtual int ProcessPeripheralData(const char* data, unsigned int length, unsigned int canId);

    // 0 added, -1 when an entry selecting the same masked value exists (it stays).
    int AddOneRecvCanId(unsigned int canId, unsigned int mask);
    // Removes every entry selecting the same masked value. Returns 0.
    int DeleteRecvCanId(unsigned int canId, unsigned int mask);
    // Sends the whole list to the CAN module (message 1137). Returns 0.
    int SetCanPortFilter();
    void SetCanFilterIntervalTime(unsigned short minPeriod) { m_usMinPeriod = minPeriod; }
    // Sends one frame (message 1087); more than 8 bytes are cut to 8. Returns 0.
    int SendCanDataToPeripheral(const char* data, unsigned int length, unsigned int canId);

    int CanPortMessageRegister();
    int CanPortMessageUnRegister();
    int OnReceiveDataFromCanPort(const char* data, int length);
    int OnReceiveDataFromCanFilter_Get(const char* data, int length);
    int PreProcessPeripheralData(const char* data, unsigned int length, unsigned int canId);

    unsigned char GetCanPortId() const { return m_ucCanPortId; }
    const std::list<CanPortRecvIdProperty>& GetRecvIdList() const { return m_listRecvId; }

protected:
    uint8_t m_ucCanPortId;  // parameter id of the port; 255 when not found
    uint16_t m_usMinPeriod;
    std::list<CanPortRecvIdProperty> m_listRecvId;
};

#endif
