// libTestNullCreate.so: a creator that gives up (as a plug-in does when it does not know the
// sub id it is asked for).
#include "TestProbe.h"

PERIPHERAL_PLUGIN_EXPORT CPeripheralBase* PeripheralCreate(CPeripheralManage*, CMsgClientManage*,
                                                           unsigned int mainId,
                                                           unsigned int subId) {
    testplugin::Journal("null-create", PERIPHERAL_TYPE_SERIAL, mainId, subId);
    return nullptr;
}

PERIPHERAL_PLUGIN_EXPORT void PeripheralRelease(CPeripheralBase* instance) {
    testplugin::ReleaseProbe(instance);
}
