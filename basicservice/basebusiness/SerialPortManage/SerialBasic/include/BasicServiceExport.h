// Symbol visibility of the service library. The library is built with hidden symbols; what
// plug-ins and the host use is marked BASICSERVICE_API.
#ifndef SERIALBASIC_BASIC_SERVICE_EXPORT_H
#define SERIALBASIC_BASIC_SERVICE_EXPORT_H

#include <new>

#include "BasicServiceVersion.h"

#define BASICSERVICE_API __attribute__((visibility("default")))

// Plug-in libraries mark their two entry points with this (they are looked up by name).
#define PERIPHERAL_PLUGIN_EXPORT extern "C" __attribute__((visibility("default")))

// The two entry points of a plug-in whose class takes its base's four constructor arguments,
// in one line after the class:
//     BASICSERVICE_PLUGIN(CMyPeripheral)
// PeripheralCreate makes the instance (null when there is no memory: no exception leaves the
// library); PeripheralRelease stops its thread, unregisters its events and deletes it.
#define BASICSERVICE_PLUGIN(Class)                                                \
    PERIPHERAL_PLUGIN_EXPORT CPeripheralBase* PeripheralCreate(                   \
        CPeripheralManage* manage, CMsgClientManage* client, unsigned int mainId, \
        unsigned int subId) {                                                     \
        return new (std::nothrow) Class(manage, client, mainId, subId);           \
    }                                                                             \
    PERIPHERAL_PLUGIN_EXPORT void PeripheralRelease(CPeripheralBase* instance) {  \
        if (instance != nullptr) {                                                \
            instance->StopPeripheralThread();                                     \
            delete instance;                                                      \
        }                                                                         \
    }

#endif
