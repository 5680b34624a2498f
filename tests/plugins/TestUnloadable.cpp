// libTestUnloadable.so: needs a variable that no library defines. Data references are bound
// when the library is loaded, even with RTLD_LAZY, so dlopen refuses the file.
#include "TestProbe.h"

extern "C" int pm_test_variable_nobody_defines;

PERIPHERAL_PLUGIN_EXPORT CPeripheralBase* PeripheralCreate(CPeripheralManage*, CMsgClientManage*,
                                                           unsigned int mainId,
                                                           unsigned int subId) {
    testplugin::Journal("create", PERIPHERAL_TYPE_SERIAL, mainId,
                        subId + static_cast<unsigned int>(pm_test_variable_nobody_defines));
    return nullptr;
}

PERIPHERAL_PLUGIN_EXPORT void PeripheralRelease(CPeripheralBase* instance) {
    testplugin::ReleaseProbe(instance);
}
