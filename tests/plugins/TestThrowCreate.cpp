// libTestThrowCreate.so: a factory that throws, as a plug-in does when its constructor fails
// the C++ way. Sub id 1 throws something that is not a std::exception.
#include <stdexcept>

#include "TestProbe.h"

PERIPHERAL_PLUGIN_EXPORT CPeripheralBase* PeripheralCreate(CPeripheralManage*, CMsgClientManage*,
                                                           unsigned int mainId,
                                                           unsigned int subId) {
    testplugin::Journal("throw-create", PERIPHERAL_TYPE_SERIAL, mainId, subId);
    if (subId == 1) {
        throw 42;
    }
    throw std::runtime_error("no device on this port");
}

PERIPHERAL_PLUGIN_EXPORT void PeripheralRelease(CPeripheralBase* instance) {
    testplugin::ReleaseProbe(instance);
}
