#include "SerialDevExtendBoxHub.h"

CPeripheralBase* ExtendBoxHubCreate(CPeripheralManage*, CMsgClientManage*, unsigned int,
                                    unsigned int) {
    return nullptr;
}

void ExtendBoxHubRelease(CPeripheralBase* instance) {
    delete instance;
}
