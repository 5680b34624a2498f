// The serial extension box: a built-in serial peripheral that carries further serial ports
// over one line. Until the box itself is built, its factory creates nothing; the manager logs
// the failed creation and the port stays without an instance.
#ifndef SERIALBASIC_SERIAL_DEV_EXTEND_BOX_H
#define SERIALBASIC_SERIAL_DEV_EXTEND_BOX_H

#include "PeripheralBase.h"
#include "PeripheralManage.h"

#endif
