// Base class of Ethernet-attached protocol plug-ins. It only fixes the kind and the shape of
// the interface: the plug-in does its own networking and sets the open flag
// (SetCurPeripOpenStatus) when its connection is up; until then its cycle never runs.
#ifndef SERIALBASIC_ETHERNET_BASE_H
#define SERIALBASIC_ETHERNET_BASE_H

#include "PeripheralBase.h"

// The order of the virtual functions is the plug-in ABI; never reorder or insert.
class BASICSERVICE_API CEthernetBase : public CPeripheralBase {
public:
    CEthernetBase(CPeripheralManage* manage, CMsgClientManage* client, unsigned int mainId,
                  unsigned int subId);
    ~CEthernetBase() override;

    int PeripheralThreadCycle(long long now) override;
    // Slot 11: called by PreProcessPeripheralData; the bytes themselves are not passed.
    virtual int ProcessPeripheralData();

    int SendDataToPeripheral(const char* data, unsigned int length);
    int PreProcessPeripheralData(const char* data, unsigned int length);
    int EthernetPortMessageRegister();
    int EthernetPortMessageUnRegister();
    int OnReceiveDataFromEthernetPort(const char* data, int length);
};

#endif
