// Entry points of libGpsNmea.so: the only symbols the library exports.
#include <new>

#include "BasicServiceExport.h"
#include "GpsNmea.h"

PERIPHERAL_PLUGIN_EXPORT CPeripheralBase* PeripheralCreate(CPeripheralManage* manage,
                                                           CMsgClientManage* client,
                                                           unsigned int mainId,
                                                           unsigned int subId) {
    return new (std::nothrow) CGpsNmea(manage, client, mainId, subId);
}

PERIPHERAL_PLUGIN_EXPORT void PeripheralRelease(CPeripheralBase* instance) {
    if (instance == nullptr) {
        return;
    }
    instance->StopPeripheralThread();  // open flag down, events unregistered
    delete instance;
}
