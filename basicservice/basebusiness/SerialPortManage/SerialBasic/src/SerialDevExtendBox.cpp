#include "SerialDevExtendBox.h"

CPeripheralBase* ExtendBoxCreate(CPeripheralManage*, CMsgClientManage*, unsigned int,
                                 unsigned int) {
    return nullptr;
}

void ExtendBoxRelease(CPeripheralBase* instance) {
    delete instance;
}
