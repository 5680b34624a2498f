// The extension hub box: the second built-in extension peripheral. Until it is built, its
// factory creates nothing.
#ifndef SERIALBASIC_SERIAL_DEV_EXTEND_BOX_HUB_H
#define SERIALBASIC_SERIAL_DEV_EXTEND_BOX_HUB_H

#include "PeripheralBase.h"
#include "PeripheralManage.h"

#endif
