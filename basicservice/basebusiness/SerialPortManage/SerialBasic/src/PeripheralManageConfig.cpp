#include "PeripheralManage.h"

#include "CommonLog.h"
#include "ConfigDocument.h"
#include "PeripheralManageInternal.h"
#include "SerialDevOperate.h"

using manage::kCanFamily;
using manage::kEthernetFamily;
using manage::kLogTag;

namespace {

// A serial record from one configuration object; line settings default, never inherited.
PeripheralProperty SerialPropertyFrom(const Json::Value& object, uint32_t mainId, uint32_t subId) {
    PeripheralProperty property{};
    property.mainId = mainId;
    property.subId = subId;
    property.baud = serial_baud_switch(doc::Text(object, "DEV_SERIAL_BAUD_RATE"));
    property.dataBit = serial_data_bit_switch(doc::Text(object, "DEV_SERIAL_DATA_BITS"));
    property.stopBit = serial_stop_bit_switch(doc::Text(object, "DEV_SERIAL_STOP_BIT"));
    property.parity = serial_parity_switch(doc::Text(object, "DEV_SERIAL_PARITY"));
    property.flow = serial_flow_control_switch(doc::Text(object, "DEV_SERIAL_FLOW_CTRL"));
    const Json::Value& protocol = doc::Member(object, "DEV_SERIAL_PROTOCOL_TYPE");
    property.protocolType = protocol.isInt() ? protocol.asInt() : SERIAL_PROTOCOL_TRANSPARENT;
    return property;
}

void LogSerialProperty(const PeripheralProperty& p, size_t size) {
    PM_LOG(2, kLogTag,
           "Analyse serial prperty, add one [Serial] lib, mainId = %d, subId = %d, "
           "baud = %d, dataBit = %d, stopBit = %d, parity = %d, flow = %d, protocolType = %d, "
           "size = %d\n",
           p.mainId, p.subId, p.baud, p.dataBit, p.stopBit, p.parity, p.flow, p.protocolType,
           static_cast<int>(size));
}

}  // namespace

// ---------------------------------------------------------------------------------------------
// Peripheral configuration

int CPeripheralManage::AnalysePeripheralConfig() {
    if (Q7R_GetJsonByEnv("DEVICE_SERIAL_EXTEND_CFG", m_jsonPeripheralCfg) != 0) {
        PM_LOG(0, kLogTag, "***********Get Serial Env failed***********\n");
        return 0;
    }
    m_mapPeripheralConfig.clear();

    const Json::Value& serial = doc::Array(m_jsonPeripheralCfg, "DEVICE_SERIAL_SETTING");
    const Json::Value& can = doc::Array(m_jsonPeripheralCfg, "DEVICE_CANPORT_SETTING");
    const Json::Value& ethernet = doc::Array(m_jsonPeripheralCfg, "DEVICE_ETHERNET_SETTING");
    AnalyseSerialConfig(serial);
    AnalysePortConfig(kCanFamily, can);
    AnalysePortConfig(kEthernetFamily, ethernet);
    AnalyseMainChipSerialPath(doc::Array(
        doc::Member(m_jsonPeripheralCfg, "DEVICE_PERIPHERAL_PARAM_SETTING"), "SERIAL_PARAM"));

    PM_LOG(1, kLogTag,
           "$$$$$ Check peripheral module, m_nParamState = 0x%x, m_nCurPeripheral = "
           "0x%x,  serial_size = %d, can_size = %d, ethernet_size = %d\n",
           m_nParamState, m_nCurPeripheral, serial.size(), can.size(), ethernet.size());
    return 1;
}

void CPeripheralManage::AnalyseSerialConfig(const Json::Value& entries) {
    if (entries.size() == 0) {
        m_nCurPeripheral &= static_cast<uint8_t>(~CUR_PERIPHERAL_SERIAL);
        m_nParamState &= static_cast<uint16_t>(~PARAM_STATE_SERIAL);
        return;
    }
    std::vector<PeripheralProperty>& list = m_mapPeripheralConfig[PERIPHERAL_TYPE_SERIAL];
    for (Json::ArrayIndex i = 0; i < entries.size(); ++i) {
        const Json::Value& entry = entries[i];
        const Json::Value& funcId = doc::Member(entry, "DEV_SERIAL_FUNCID");
        const Json::Value& libName = doc::Member(entry, "DEV_SERIAL_LIB_NAME");
        if (!funcId.isInt() || !libName.isString()) {
            continue;
        }
        const uint32_t mainId = static_cast<uint32_t>(funcId.asInt());
        m_mapPeripheralLibName[PERIPHERAL_TYPE_SERIAL][mainId] = libName.asString();
        PM_LOG(2, kLogTag, "Find lib, mainId = %d, name = %s\n", mainId,
               libName.asString().c_str());

        list.push_back(SerialPropertyFrom(entry, mainId, 0));
        LogSerialProperty(list.back(), list.size());

        const Json::Value& subs = doc::Array(entry, "DEV_SERIAL_SUB_FUNCTION");
        for (Json::ArrayIndex k = 0; k < subs.size(); ++k) {
            const Json::Value& subId = doc::Member(subs[k], "DEV_SERIAL_SUB_FUNCID");
            list.push_back(SerialPropertyFrom(
                subs[k], mainId, subId.isInt() ? static_cast<uint32_t>(subId.asInt()) : 0));
            LogSerialProperty(list.back(), list.size());
        }
    }
    m_nCurPeripheral |= CUR_PERIPHERAL_SERIAL;
    m_nParamState |= PARAM_STATE_SERIAL;
}

// CAN entries make configured records (with their baud rate); Ethernet entries only name
// libraries: Ethernet instances follow the Ethernet parameter setting alone.
void CPeripheralManage::AnalysePortConfig(const PortFamily& family, const Json::Value& entries) {
    if (entries.size() == 0) {
        m_nCurPeripheral &= static_cast<uint8_t>(~family.kindBit);
        m_nParamState &= static_cast<uint16_t>(~family.paramBit);
        return;
    }
    for (Json::ArrayIndex i = 0; i < entries.size(); ++i) {
        const Json::Value& entry = entries[i];
        const Json::Value& funcId = doc::Member(entry, family.funcIdKey);
        const Json::Value& libName = doc::Member(entry, family.libNameKey);
        if (!funcId.isInt() || !libName.isString() ||
            doc::Text(entry, family.enableKey) != "true") {
            continue;
        }
        const uint32_t mainId = static_cast<uint32_t>(funcId.asInt());
        m_mapPeripheralLibName[family.type][mainId] = libName.asString();
        if (family.baudKey != nullptr) {
            PeripheralProperty property{};
            property.mainId = mainId;
            // CAN rates share the serial words on purpose.
            property.baud = serial_baud_switch(doc::Text(entry, family.baudKey));
            m_mapPeripheralConfig[family.type].push_back(property);
        }
        PM_LOG(4, kLogTag, "Analyse Config, add one [%s] lib, name = %s, mainId = %d\n",
               family.configWord, libName.asString().c_str(), mainId);
    }
    m_nCurPeripheral |= family.kindBit;
    m_nParamState |= family.paramBit;
}

void CPeripheralManage::AnalyseMainChipSerialPath(const Json::Value& entries) {
    std::string* paths = m_stuSystemSerialParam.strSerialPath;
    const int pathCount = static_cast<int>(sizeof(m_stuSystemSerialParam.strSerialPath) /
                                           sizeof(m_stuSystemSerialParam.strSerialPath[0]));
    for (int i = 0; i < pathCount; ++i) {
        paths[i].clear();
    }
    for (Json::ArrayIndex i = 0; i < entries.size(); ++i) {
        const Json::Value& path = doc::Member(entries[i], "PATH");
        const Json::Value& position = doc::Member(entries[i], "POSITION");
        if (!path.isString() || !position.isInt()) {
            continue;
        }
        const int index = position.asInt();
        if (index < 0 || index >= pathCount) {
            PM_LOG(0, kLogTag,
                   "Main chip serial position out of range, id = %d, position = %d, "
                   "path = %s\n",
                   i, index, path.asString().c_str());
            continue;
        }
        paths[index] = path.asString();
        PM_LOG(2, kLogTag, "Find a main chip serial, id = %d, position = %d, path = %s\n", i, index,
               paths[index].c_str());
    }
}
