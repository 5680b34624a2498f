// Entry points of libLoopbackTest.so: the only symbols the library exports. Configured for
// the factory loopback jigs (main ids 34 and 36), but any id the configuration names works.
#include <new>

#include "BasicServiceExport.h"
#include "LoopbackTest.h"

PERIPHERAL_PLUGIN_EXPORT CPeripheralBase* PeripheralCreate(CPeripheralManage* manage,
                                                           CMsgClientManage* client,
                                                           unsigned int mainId,
                                                           unsigned int subId) {
    return new (std::nothrow) CLoopbackTest(manage, client, mainId, subId);
}

PERIPHERAL_PLUGIN_EXPORT void PeripheralRelease(CPeripheralBase* instance) {
    if (instance == nullptr) {
        return;
    }
    instance->StopPeripheralThread();  // open flag down, events unregistered
    delete instance;
}
