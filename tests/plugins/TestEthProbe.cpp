// libTestEthProbe.so: a well-formed Ethernet plug-in.
#include "EthernetBase.h"
#include "TestProbe.h"

PERIPHERAL_PLUGIN_EXPORT CPeripheralBase* PeripheralCreate(CPeripheralManage* manage,
                                                           CMsgClientManage* client,
                                                           unsigned int mainId,
                                                           unsigned int subId) {
    return testplugin::CreateProbe<CEthernetBase>(manage, client, mainId, subId);
}

PERIPHERAL_PLUGIN_EXPORT void PeripheralRelease(CPeripheralBase* instance) {
    testplugin::ReleaseProbe(instance);
}
