// libTestDupAlpha.so and libTestDupBeta.so: one source, two files whose names both contain
// the configured name "libTestDup". Each journals under its own file name, so a test sees
// which one the loader took.
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
