#include "PeripheralManage.h"

#include <string.h>

#include "MsgView.h"
#include "CommonLog.h"
#include "ConsoleOutput.h"
#include "MutexGuard.h"
#include "PeripheralManageInternal.h"
#include "SerialBase.h"
#include "SerialDevExtendBox.h"
#include "SerialReconcile.h"

using manage::kCanFamily;
using manage::kEthernetFamily;
using manage::kLogTag;
using manage::kSerialFamily;
using manage::SameIdentity;

// ---------------------------------------------------------------------------------------------
// Parameter-change reconciliation

int CPeripheralManage::OnUpdateSerialParamSetting(const char* data, int length) {
    return OnUpdateParamSetting(kSerialFamily, data, length);
}

int CPeripheralManage::OnUpdateCanParamSetting(const char* data, int length) {
    return OnUpdateParamSetting(kCanFamily, data, length);
}

int CPeripheralManage::OnUpdateEthernetParamSetting(const char* data, int length) {
    return OnUpdateParamSetting(kEthernetFamily, data, length);
}

uint8_t* CPeripheralManage::KeptParamRecord(ePeripheralType type) {
    switch (type) {
        case PERIPHERAL_TYPE_SERIAL:
            return reinterpret_cast<uint8_t*>(&m_stuSystemSerialParam.stuSerialSetting);
        case PERIPHERAL_TYPE_CANPORT:
            return reinterpret_cast<uint8_t*>(&m_stuCanParam);
        case PERIPHERAL_TYPE_ETHERNET:
            return reinterpret_cast<uint8_t*>(&m_stuEthernetParam);
    }
    return nullptr;
}

// The first record after start-up opens the gate for its family even when it equals the kept
// one. The only length check is for the head: the record is read at its full size regardless,
// zeros where the message ends.
int CPeripheralManage::OnUpdateParamSetting(const PortFamily& family, const char* data,
                                            int length) {
    MsgView msg(data, length);
    if (msg.TooShort()) {
        PM_LOG(0, kLogTag, "%s port param length error \n", family.name);
        return -1;
    }
    if (family.type == PERIPHERAL_TYPE_CANPORT) {
        PM_LOG(2, kLogTag, "OnUpdateCanParamSetting......\n");
    }
    m_nParamState &= static_cast<uint16_t>(~family.paramBit);
    std::vector<uint8_t> setting(family.recordSize);
    msg.Payload().Copy(0, setting.data(), setting.size());
    if (memcmp(setting.data(), KeptParamRecord(family.type), setting.size()) == 0) {
        return 0;
    }
    PM_LOG(family.changedLevel, kLogTag, "%s param has changed......\n", family.name);
    PrintPeripheralParam(family.type, setting.data());
    switch (family.type) {
        case PERIPHERAL_TYPE_SERIAL: {
            paramSerialSetting_t serial;
            memcpy(&serial, setting.data(), sizeof(serial));
            return UpdateSerialInstance(serial);
        }
        case PERIPHERAL_TYPE_CANPORT:
        case PERIPHERAL_TYPE_ETHERNET:
            return UpdatePortInstances(family, setting.data());
    }
    return 0;
}

int CPeripheralManage::UpdateSerialInstance(const paramSerialSetting_t& setting) {
    // The new setting is in place before any instance is touched: instances that read it
    // while they are removed, created or notified see the new one.
    const paramSerialSetting_t old = m_stuSystemSerialParam.stuSerialSetting;
    {
        std::lock_guard<std::mutex> guard(m_ParamRecordLock);
        m_stuSystemSerialParam.stuSerialSetting = setting;
    }
    const paramSerialSetting_t& fresh = m_stuSystemSerialParam.stuSerialSetting;

    LogRefusedSubPorts(fresh);
    MarkLeavingSerialInstances(old, fresh);
    std::vector<PeripheralPair> createQueue;
    std::vector<PeripheralPair> changed;
    for (unsigned int p = 0; p < SERIAL_PORT_COUNT; ++p) {
        ReconcileSerialPort(old.port[p], fresh.port[p], createQueue, changed);
    }
    // A removal that took another record (one without instance goes first) leaves its mark.
    m_setLeavingInstances.clear();
    CreateQueuedSerialInstances(createQueue, changed);

    m_mapChangedPeripPair[PERIPHERAL_TYPE_SERIAL] = changed;
    PM_LOG(2, kLogTag, "**** Reset serial property list size = %d****\n",
           static_cast<int>(changed.size()));
    for (const PeripheralPair& pair : changed) {
        PM_LOG(2, "", "mainId = %d, subId = %d\n", pair.mainId, pair.subId);
    }
    NotifySerialParamChange();

    // Emptied before the count is logged: changeSize reads 0, as it always has.
    std::vector<PeripheralPair>& published = m_mapChangedPeripPair[PERIPHERAL_TYPE_SERIAL];
    published.clear();
    PM_LOG(2, kLogTag, "Update Serial Instance Finished, instance_size = %d, changeSize = %d\n",
           static_cast<int>(m_listPeripheralPlugin.size()), static_cast<int>(published.size()));
    return 0;
}

void CPeripheralManage::LogRefusedSubPorts(const paramSerialSetting_t& fresh) {
    for (unsigned int p = 0; p < SERIAL_PORT_COUNT; ++p) {
        if (!IsExtendBoxMainId(fresh.port[p].mainFun)) {
            continue;
        }
        for (unsigned int k = 0; k < SERIAL_EXTEND_PORT_COUNT; ++k) {
            const SerialExtendEntry_t& entry = fresh.port[p].extend[k];
            if (IsRefusedSubPort(entry)) {
                PM_LOG(0, kLogTag,
                       "Extend box on a sub serial refused, port = %u, index = %u, mainId = %d, "
                       "subId = %d\n",
                       p, k, entry.mainFun, entry.subFun);
            }
        }
    }
}

void CPeripheralManage::MarkLeavingSerialInstances(const paramSerialSetting_t& old,
                                                   const paramSerialSetting_t& fresh) {
    m_setLeavingInstances.clear();
    for (unsigned int p = 0; p < SERIAL_PORT_COUNT; ++p) {
        for (const SerialPortStep& step : PlanSerialPort(old.port[p], fresh.port[p])) {
            switch (step.kind) {
                case SerialPortStep::kRemoveChild:
                case SerialPortStep::kRemoveBox:
                case SerialPortStep::kRemoveForBox:
                case SerialPortStep::kRemove:
                    if (CPeripheralBase* instance = GetPeripheralInstance(
                            PERIPHERAL_TYPE_SERIAL, step.target.mainId, step.target.subId)) {
                        m_setLeavingInstances.insert(instance);
                    }
                    break;
                default:
                    break;
            }
        }
    }
}

void CPeripheralManage::ReconcileSerialPort(const SerialPortEntry_t& oldPort,
                                            const SerialPortEntry_t& newPort,
                                            std::vector<PeripheralPair>& createQueue,
                                            std::vector<PeripheralPair>& changed) {
    for (const SerialPortStep& step : PlanSerialPort(oldPort, newPort)) {
        TakeSerialStep(step, createQueue, changed);
    }
}

void CPeripheralManage::TakeSerialStep(const SerialPortStep& step,
                                       std::vector<PeripheralPair>& createQueue,
                                       std::vector<PeripheralPair>& changed) {
    const PeripheralPair& ids = step.logged;
    switch (step.kind) {
        case SerialPortStep::kNotifyBox:
        case SerialPortStep::kNotifyLeavingBox:
            if (CPeripheralBase* box =
                    GetPeripheralInstance(PERIPHERAL_TYPE_SERIAL, step.target.mainId, 0)) {
                if (step.kind == SerialPortStep::kNotifyLeavingBox) {
                    PM_LOG(0, "", "S_MANAGE:HandlePeripParamChange\n");
                }
                box->HandlePeripParamChange();
            }
            return;
        case SerialPortStep::kRemoveChild:
            PM_LOG(2, kLogTag,
                   "Remove extend serial instance, index = %d, mainId = %d, subId = %d\n",
                   step.index, ids.mainId, ids.subId);
            break;
        case SerialPortStep::kRemoveBox:
        case SerialPortStep::kRemoveForBox:
            PM_LOG(2, kLogTag, "Remove extend serial instance, mainId = %d, subId = %d\n",
                   ids.mainId, ids.subId);
            break;
        case SerialPortStep::kRemove:
            PM_LOG(2, kLogTag, "Remove serial instance, mainId = %d, subId = %d\n", ids.mainId,
                   ids.subId);
            break;
        case SerialPortStep::kCreate:
            createQueue.push_back(step.target);
            return;
        case SerialPortStep::kChanged:
            changed.push_back(step.target);
            return;
    }
    RemovePeripheralInstance(PERIPHERAL_TYPE_SERIAL, step.target.mainId, step.target.subId);
}

void CPeripheralManage::CreateQueuedSerialInstances(const std::vector<PeripheralPair>& createQueue,
                                                    std::vector<PeripheralPair>& changed) {
    for (const PeripheralPair& pair : createQueue) {
        if (pair.mainId == 0) {
            continue;
        }
        PM_LOG(2, kLogTag, "Begin create serial instance, mainId = %d, subId = %d\n", pair.mainId,
               pair.subId);
        CreatePeripheralInstance(PERIPHERAL_TYPE_SERIAL, pair.mainId, pair.subId);
        changed.push_back(pair);
    }
}

void CPeripheralManage::NotifySerialParamChange() {
    if (CPeripheralBase* box =
            GetPeripheralInstance(PERIPHERAL_TYPE_SERIAL, PERIPHERAL_MAINID_EXTEND_BOX, 0)) {
        box->HandlePeripParamChange();
    } else if (CPeripheralBase* hub = GetPeripheralInstance(PERIPHERAL_TYPE_SERIAL,
                                                            PERIPHERAL_MAINID_EXTEND_HUB_BOX, 0)) {
        PM_LOG(1, "", "New extend hubbox find ok, mainId = %d, subId = %d \n", hub->GetMainId(),
               hub->GetSubId());
        hub->HandlePeripParamChange();
    }
    // Everybody but the box, whatever their kind; the hub box hears it a second time.
    for (const PeripheralProperty_t& record : m_listPeripheralPlugin) {
        CPeripheralBase* instance = record.pInstance;
        if (instance == nullptr ||
            SameIdentity(instance, PERIPHERAL_TYPE_SERIAL, PERIPHERAL_MAINID_EXTEND_BOX, 0)) {
            continue;
        }
        instance->HandlePeripParamChange();
    }
}

int CPeripheralManage::UpdateCanInstance(const paramCanSetting_t& setting) {
    return UpdatePortInstances(kCanFamily, reinterpret_cast<const uint8_t*>(&setting));
}

int CPeripheralManage::UpdateEthernetInstance(const paramPeripheralEtherNet_t& setting) {
    return UpdatePortInstances(kEthernetFamily, reinterpret_cast<const uint8_t*>(&setting));
}

// Only the two ids of an entry count: a change of baud rate, address or port alone creates and
// removes nothing. Every removal comes before every creation, and no instance is told.
int CPeripheralManage::UpdatePortInstances(const PortFamily& family, const uint8_t* record) {
    uint8_t* kept = KeptParamRecord(family.type);
    std::vector<PeripheralPair> createQueue;
    for (unsigned int i = 0; i < family.entryCount; ++i) {
        const uint8_t* oldEntry = kept + i * family.entrySize;
        const uint8_t* newEntry = record + i * family.entrySize;
        if (oldEntry[0] == newEntry[0] && oldEntry[1] == newEntry[1]) {
            continue;
        }
        PM_LOG(1, kLogTag, "Remove %s instance, mainId = %d, subId = %d\n", family.word,
               oldEntry[0], oldEntry[1]);
        RemovePeripheralInstance(family.type, oldEntry[0], oldEntry[1]);
        createQueue.push_back({newEntry[0], newEntry[1]});
    }
    {
        std::lock_guard<std::mutex> guard(m_ParamRecordLock);
        memcpy(kept, record, family.recordSize);
    }
    for (const PeripheralPair& pair : createQueue) {
        if (pair.mainId == 0) {
            continue;
        }
        PM_LOG(1, kLogTag, "Begin create %s instance, mainId = %d, subId = %d\n", family.word,
               pair.mainId, pair.subId);
        CreatePeripheralInstance(family.type, pair.mainId, pair.subId);
    }
    PM_LOG(1, kLogTag, "Update %s Instance Finished, instance_size = %d\n", family.name,
           static_cast<int>(m_listPeripheralPlugin.size()));
    return 0;
}

void CPeripheralManage::GetChangedPeripPair(ePeripheralType type,
                                            std::vector<PeripheralPair>& out) {
    out = m_mapChangedPeripPair[type];
}

int CPeripheralManage::CheckPeripPropertyChanged(ePeripheralType type, unsigned int mainId,
                                                 unsigned int subId) {
    for (const PeripheralPair& pair : m_mapChangedPeripPair[type]) {
        if (pair.mainId == mainId && pair.subId == subId) {
            return 1;
        }
    }
    return 0;
}

int CPeripheralManage::PrintPeripheralParam(ePeripheralType type, void* record) {
    if (record == nullptr) {
        return -1;
    }
    // One write for the whole record: it goes out whole, or is counted as lost (cut off where
    // the output had no more room; the next record starts a line of its own).
    std::string out;
    auto line = [&out](const char* fmt, auto... args) {
        char text[160];
        snprintf(text, sizeof text, fmt, args...);
        out += text;
    };
    switch (type) {
        case PERIPHERAL_TYPE_SERIAL: {
            const auto* setting = static_cast<const paramSerialSetting_t*>(record);
            out += "######### SERIAL PARAM#############\n";
            for (unsigned int i = 0; i < SERIAL_PORT_COUNT; ++i) {
                const SerialPortEntry_t& port = setting->port[i];
                line("index = %d, mainFun = %d, subFun = %d, baudrate = %d\n", i, port.mainFun,
                     port.subFun, port.baudrate);
                if (!IsExtendBoxMainId(port.mainFun)) {
                    continue;
                }
                for (unsigned int k = 0; k < SERIAL_EXTEND_PORT_COUNT; ++k) {
                    line("    extend: %d, mainFun = %d, subFun = %d, baudrate = %d\n", k,
                         port.extend[k].mainFun, port.extend[k].subFun, port.extend[k].baudrate);
                }
            }
            break;
        }
        case PERIPHERAL_TYPE_CANPORT: {
            const auto* setting = static_cast<const paramCanSetting_t*>(record);
            out += "######### CAN_PORT PARAM#############\n";
            for (unsigned int i = 0; i < CAN_PORT_COUNT; ++i) {
                line("index = %d, mainFun = %d, subFun = %d, baudrate = %d\n", i,
                     setting->port[i].mainFun, setting->port[i].subFun, setting->port[i].baudrate);
            }
            break;
        }
        case PERIPHERAL_TYPE_ETHERNET: {
            const auto* bytes = static_cast<const uint8_t*>(record);
            out += "######### ETHERNET_PORT PARAM#############\n";
            for (unsigned int i = 0; i < ETHERNET_ENTRY_COUNT; ++i) {
                const uint8_t* entry = bytes + i * sizeof(EthernetEntry_t);
                const unsigned int port = entry[20] | (entry[21] << 8);
                // The address need not be terminated within its 16 bytes.
                line("index = %d, mainFun = %d, subFun = %d, ip = %.16s, port = %d\n", i, entry[0],
                     entry[1], reinterpret_cast<const char*>(entry + 4), port);
            }
            break;
        }
    }
    out += "############ END ######################\n";
    ConsoleWrite(out);
    return 0;
}
