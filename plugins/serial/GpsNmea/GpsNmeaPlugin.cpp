// Entry points of libGpsNmea.so: the only symbols the library exports.
#include "BasicServiceExport.h"
#include "GpsNmea.h"

BASICSERVICE_PLUGIN(CGpsNmea)
