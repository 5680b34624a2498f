// What the manager's sources share among themselves, and with nobody else.
#ifndef SERIALBASIC_PERIPHERAL_MANAGE_INTERNAL_H
#define SERIALBASIC_PERIPHERAL_MANAGE_INTERNAL_H

#include <cstddef>
#include <cstdint>

#include "PeripheralBase.h"
#include "PeripheralDefine.h"

// What the serial, CAN and Ethernet parameter families have in common, and the words and
// sizes they differ by.
struct PortFamily {
    ePeripheralType type;
    uint8_t kindBit;    // bit of m_nCurPeripheral
    uint16_t paramBit;  // bit of m_nParamState
    const char* name;   // "<name> port param length error", "<name> param has changed"
    int changedLevel;   // level of "<name> param has changed"
    const char* word;   // "Remove <word> instance", "Begin create <word> instance"
    size_t recordSize;
    unsigned int entryCount;  // entries at the start of the record: main id, then sub id
    size_t entrySize;
    // Configuration keys; no baud key: the family's entries make no configured records.
    const char* configWord;  // "Analyse Config, add one [<configWord>] lib"
    const char* funcIdKey;
    const char* libNameKey;
    const char* enableKey;
    const char* baudKey;
};

namespace manage {

constexpr const char kLogTag[] = "S_MANAGE: ";

inline const PortFamily kSerialFamily = {
    PERIPHERAL_TYPE_SERIAL, CUR_PERIPHERAL_SERIAL, PARAM_STATE_SERIAL, "Serial", 2, "serial",
    sizeof(paramSerialSetting_t), SERIAL_PORT_COUNT, sizeof(SerialPortEntry_t),
    // Serial configuration entries have variants of their own: AnalyseSerialConfig.
    nullptr, nullptr, nullptr, nullptr, nullptr};
inline const PortFamily kCanFamily = {PERIPHERAL_TYPE_CANPORT,
                                      CUR_PERIPHERAL_CAN,
                                      PARAM_STATE_CAN,
                                      "CAN",
                                      2,
                                      "can",
                                      sizeof(paramCanSetting_t),
                                      CAN_PORT_COUNT,
                                      sizeof(CanPortEntry_t),
                                      "Can port",
                                      "DEV_CANPORT_FUNCID",
                                      "DEV_CANPORT_LIB_NAME",
                                      "DEV_CANPORT_SUPPORT_ENABLE",
                                      "DEV_CAN_BAUD_RATE"};
inline const PortFamily kEthernetFamily = {PERIPHERAL_TYPE_ETHERNET,
                                           CUR_PERIPHERAL_ETHERNET,
                                           PARAM_STATE_ETHERNET,
                                           "Ethernet",
                                           1,
                                           "Ethernet",
                                           sizeof(paramPeripheralEtherNet_t),
                                           ETHERNET_ENTRY_COUNT,
                                           sizeof(EthernetEntry_t),
                                           "ethernet",
                                           "DEV_ETHERNET_FUNCID",
                                           "DEV_ETHERNET_LIB_NAME",
                                           "DEV_ETHERNET_SUPPORT_ENABLE",
                                           nullptr};

inline bool SameIdentity(const CPeripheralBase* instance, ePeripheralType type, unsigned int mainId,
                         unsigned int subId) {
    return instance->GetPeripheralType() == type && instance->GetMainId() == mainId &&
           instance->GetSubId() == subId;
}

}  // namespace manage

#endif
