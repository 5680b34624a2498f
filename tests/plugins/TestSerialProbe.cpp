// libTestSerialProbe.so: a well-formed serial plug-in. As a CSerialBase it places itself on
// the port its ids have in the serial record, as every serial plug-in does.
#include "SerialBase.h"
#include "TestProbe.h"

PERIPHERAL_PLUGIN_EXPORT CPeripheralBase* PeripheralCreate(CPeripheralManage* manage,
                                                           CMsgClientManage* client,
                                                           unsigned int mainId,
                                                           unsigned int subId) {
    return testplugin::CreateProbe<CSerialBase>(manage, client, mainId, subId);
}

PERIPHERAL_PLUGIN_EXPORT void PeripheralRelease(CPeripheralBase* instance) {
    testplugin::ReleaseProbe(instance);
}
