// libTestCanProbe.so: a well-formed CAN plug-in.
#include "CanPortBase.h"
#include "TestProbe.h"

PERIPHERAL_PLUGIN_EXPORT CPeripheralBase* PeripheralCreate(CPeripheralManage* manage,
                                                           CMsgClientManage* client,
                                                           unsigned int mainId,
                                                           unsigned int subId) {
    return testplugin::CreateProbe<CCanPortBase>(manage, client, mainId, subId);
}

PERIPHERAL_PLUGIN_EXPORT void PeripheralRelease(CPeripheralBase* instance) {
    testplugin::ReleaseProbe(instance);
}
