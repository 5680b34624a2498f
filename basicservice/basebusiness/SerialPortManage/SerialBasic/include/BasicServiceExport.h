// Symbol visibility of the service library. The library is built with hidden symbols; what
// plug-ins and the host use is marked BASICSERVICE_API.
#ifndef SERIALBASIC_BASIC_SERVICE_EXPORT_H
#define SERIALBASIC_BASIC_SERVICE_EXPORT_H

#include "BasicServiceVersion.h"

#define BASICSERVICE_API __attribute__((visibility("default")))

// Plug-in libraries mark their two entry points with this (they are looked up by name).
#define PERIPHERAL_PLUGIN_EXPORT extern "C" __attribute__((visibility("default")))

#endif
