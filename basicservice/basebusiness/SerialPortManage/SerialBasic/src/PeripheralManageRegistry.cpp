#include "PeripheralManage.h"

#include <dlfcn.h>
#include <string.h>

#include <algorithm>

#include "CommonLog.h"
#include "ConfigDocument.h"
#include "PeripheralManageInternal.h"
#include "PluginLoader.h"
#include "SerialBase.h"
#include "SerialDevExtendBox.h"
#include "SerialDevExtendBoxHub.h"
#include "SerialDevOperate.h"

using manage::kLogTag;

using manage::SameIdentity;

namespace {

// The peripherals built into the library; the records hold plug-in releasers, which answer
// nothing.
struct BuiltInBox {
    unsigned int mainId;
    PeripheralCreateFn create;
    PeripheralReleaseFn release;
    const char* failText;
};
const BuiltInBox kBuiltInBoxes[] = {
    {PERIPHERAL_MAINID_EXTEND_BOX, ExtendBoxCreate, [](CPeripheralBase* p) { ExtendBoxRelease(p); },
     "S_MANAGE: ExtendBox instance create failed\n"},
    {PERIPHERAL_MAINID_EXTEND_HUB_BOX, ExtendBoxHubCreate,
     [](CPeripheralBase* p) { ExtendBoxHubRelease(p); },
     "S_MANAGE: ExtendHub Box instance create failed\n"},
};

}  // namespace

// ---------------------------------------------------------------------------------------------
// Plug-in loader and instance registry

int CPeripheralManage::CreatePeripheralInstance(ePeripheralType type, unsigned int mainId,
                                                unsigned int subId) {
    for (const PeripheralProperty_t& record : m_listPeripheralPlugin) {
        if (record.pInstance != nullptr && SameIdentity(record.pInstance, type, mainId, subId)) {
            PM_LOG(1, kLogTag, "Find same instance, and return!!!\n");
            return 0;
        }
    }
    if (type == PERIPHERAL_TYPE_SERIAL && subId == 0) {
        for (const BuiltInBox& box : kBuiltInBoxes) {
            if (box.mainId == mainId) {
                return CreateBuiltInBox(box.create, box.release, mainId, box.failText);
            }
        }
    }
    return OpenPeripheralLib(type, mainId, subId);
}

int CPeripheralManage::CreateBuiltInBox(PeripheralCreateFn create, PeripheralReleaseFn release,
                                        unsigned int mainId, const char* failText) {
    CPeripheralBase* instance = create(this, m_pMsgClient, mainId, 0);
    if (instance == nullptr) {
        PM_LOG(0, "", "%s", failText);
        return 0;
    }
    instance->Initialize();
    m_listPeripheralPlugin.push_back(PeripheralProperty_t{nullptr, create, release, "", instance});
    return 1;
}

int CPeripheralManage::OpenPeripheralLib(ePeripheralType type, unsigned int mainId,
                                         unsigned int subId) {
    std::string name;
    auto typeNames = m_mapPeripheralLibName.find(type);
    if (typeNames != m_mapPeripheralLibName.end()) {
        auto found = typeNames->second.find(mainId);
        if (found != typeNames->second.end()) {
            name = found->second;
        }
    }
    if (name.empty()) {
        PM_LOG(0, kLogTag,
               "Read lib file failed, file name is NULL, name = %s, mainId = %d, "
               "subId = %d\n",
               name.c_str(), mainId, subId);
        return -1;
    }
    const char* directory = plugin::Directory(type);
    if (directory == nullptr) {
        return -1;
    }
    const plugin::Found found =
        plugin::FindFile(directory, name, mainId, subId, m_listPeripheralPlugin.size());
    if (!found.listed) {
        return -1;
    }
    const int result = found.path.empty()
                           ? found.result
                           : LoadPeripheralLibFile(found.path.c_str(), name, type, mainId, subId);
    PM_LOG(2, kLogTag, "lib [%s] load finish\n", name.c_str());
    return result;
}

int CPeripheralManage::LoadPeripheralLibFile(const char* path, const std::string& name,
                                             ePeripheralType type, unsigned int mainId,
                                             unsigned int subId) {
    // Nothing below closes the library again: a failed load stays loaded, as always.
    void* handle = dlopen(path, RTLD_LAZY);
    if (handle == nullptr) {
        const char* error = dlerror();
        PM_LOG(0, kLogTag, "Cannot load plugin, name = %s, err : %s\n", path,
               error != nullptr ? error : "");
        return -1;
    }
    auto create = reinterpret_cast<PeripheralCreateFn>(dlsym(handle, "PeripheralCreate"));
    if (create == nullptr) {
        PM_LOG(0, kLogTag, "Cannot get plugin [PeripheralCreate] ptr, name = %s\n", path);
        return -1;
    }
    PM_LOG(2, kLogTag, "Find the lib so, then create it, type = %d, mainId = %d, subId = %d\n",
           type, mainId, subId);
    CPeripheralBase* instance =
        plugin::CallCreator(create, this, m_pMsgClient, name, type, mainId, subId);
    if (instance == nullptr) {
        PM_LOG(0, kLogTag, "Create new instance failed, type = %d, mainId = %d, subId = %d\n", type,
               mainId, subId);
        return 0;
    }
    instance->Initialize();
    auto release = reinterpret_cast<PeripheralReleaseFn>(dlsym(handle, "PeripheralRelease"));
    if (release == nullptr) {
        // The instance runs on unregistered: nothing is rolled back.
        PM_LOG(0, kLogTag, "Cannot get plugin [PeripheralRelease] ptr, name = %s\n", path);
        return -1;
    }
    m_listPeripheralPlugin.push_back(PeripheralProperty_t{handle, create, release, name, instance});
    return 0;
}

void CPeripheralManage::ReleaseInstance(PeripheralProperty_t& record) {
    std::vector<CSerialBase*> orphans;
    if (const auto* serial = dynamic_cast<const CSerialBase*>(record.pInstance)) {
        if (m_pSerialDevOperate != nullptr) {
            m_pSerialDevOperate->serial_hold_owner(serial);
        }
        orphans = DetachSerialLinks(serial);
    }
    m_setLeavingInstances.erase(record.pInstance);
    record.pRelease(record.pInstance);
    record.pInstance = nullptr;
    // Out of the registry now: a sub-port finds the box that stays, if any.
    for (CSerialBase* orphan : orphans) {
        orphan->AdoptFather();
    }
}

std::vector<CSerialBase*> CPeripheralManage::DetachSerialLinks(const CSerialBase* leaving) {
    std::vector<CSerialBase*> orphans;
    for (const PeripheralProperty_t& record : m_listPeripheralPlugin) {
        auto* serial = dynamic_cast<CSerialBase*>(record.pInstance);
        if (serial == nullptr || serial == leaving) {
            continue;
        }
        if (serial->DetachFather(leaving)) {
            orphans.push_back(serial);
        }
        if (auto* box = dynamic_cast<CSerialDevExtendBox*>(serial)) {
            box->DetachChild(leaving);
        }
    }
    return orphans;
}

int CPeripheralManage::LoadPeripheralPlugin(ePeripheralType type, unsigned int oldMainId,
                                            unsigned int oldSubId, unsigned int newMainId,
                                            unsigned int newSubId) {
    if (oldMainId != newMainId) {
        RemovePeripheralInstance(type, oldMainId, oldSubId);
        return CreatePeripheralInstance(type, newMainId, newSubId);
    }
    if (oldSubId == newSubId) {
        return 0;
    }
    return SwitchPeripheralInSameLib(oldMainId, oldSubId, newSubId);
}

int CPeripheralManage::SwitchPeripheralInSameLib(unsigned int mainId, unsigned int oldSubId,
                                                 unsigned int newSubId) {
    // The type is not compared; a record left without instance is taken first.
    auto record = std::find_if(
        m_listPeripheralPlugin.begin(), m_listPeripheralPlugin.end(),
        [&](const PeripheralProperty_t& r) {
            return r.pInstance == nullptr ||
                   (r.pInstance->GetMainId() == mainId && r.pInstance->GetSubId() == oldSubId);
        });
    if (record == m_listPeripheralPlugin.end()) {
        PM_LOG(0, kLogTag,
               "Switch instance failed, [Not Find old instance], mainId = %d, "
               "oldSubID = %d, newSubID = %d\n",
               mainId, oldSubId, newSubId);
        return -2;
    }
    bool canCreate = record->pCreate != nullptr;
    if (record->pInstance != nullptr) {
        canCreate = canCreate && record->pRelease != nullptr;
    } else {
        PM_LOG(0, kLogTag, "Switch instance, old instance is NULL, create new instance!!!\n");
    }
    if (!canCreate) {
        PM_LOG(0, kLogTag,
               "Switch instance failed, [Create ptr is NULL], mainId = %d, oldSubID = "
               "%d, newSubID = %d, name = %s\n",
               mainId, oldSubId, newSubId, record->strName.c_str());
        return -1;
    }
    const ePeripheralType type = record->pInstance != nullptr
                                     ? record->pInstance->GetPeripheralType()
                                     : PERIPHERAL_TYPE_SERIAL;
    if (record->pInstance != nullptr) {
        ReleaseInstance(*record);
    }
    record->pInstance = plugin::CallCreator(record->pCreate, this, m_pMsgClient, record->strName,
                                            type, mainId, newSubId);
    if (record->pInstance == nullptr) {
        // The record stays without instance: nothing is rolled back.
        PM_LOG(0, kLogTag,
               "Switch instance failed, [Create ptr is NULL], mainId = %d, oldSubID = "
               "%d, newSubID = %d, name = %s\n",
               mainId, oldSubId, newSubId, record->strName.c_str());
        return -1;
    }
    record->pInstance->Initialize();
    PM_LOG(1, kLogTag,
           "Switch instance success, mainId = %d, oldSubID = %d, newSubID = %d, "
           "name = %s\n",
           mainId, oldSubId, newSubId, record->strName.c_str());
    return 0;
}

int CPeripheralManage::RemovePeripheralInstance(ePeripheralType type, unsigned int mainId,
                                                unsigned int subId) {
    auto record = std::find_if(m_listPeripheralPlugin.begin(), m_listPeripheralPlugin.end(),
                               [&](const PeripheralProperty_t& r) {
                                   return r.pInstance == nullptr ||
                                          SameIdentity(r.pInstance, type, mainId, subId);
                               });
    if (record == m_listPeripheralPlugin.end()) {
        PM_LOG(0, kLogTag,
               "Release Peripheral Instance failed, [Not find instance], type = %d, "
               "mainID = %d, subId = %d\n",
               type, mainId, subId);
        return -1;
    }
    const char* name = record->strName.c_str();
    if (record->pRelease != nullptr) {
        PM_LOG(1, kLogTag,
               "Release Peripheral Instance success, type = %d, mainID = %d, subId = "
               "%d, name = %s\n",
               type, mainId, subId, name);
        if (record->pInstance != nullptr) {
            ReleaseInstance(*record);
        }
        record->pInstance = nullptr;
    } else {
        PM_LOG(0, kLogTag,
               "Release Peripheral Instance failed, [Release handle is NULL], type = "
               "%d, mainID = %d, subId = %d, name = %s\n",
               type, mainId, subId, name);
    }
    // Only the extension box is exempt; the hub box logs the failed close, as it always has.
    const bool extendBox =
        type == PERIPHERAL_TYPE_SERIAL && mainId == PERIPHERAL_MAINID_EXTEND_BOX && subId == 0;
    if (!extendBox) {
        if (record->pLibHandle != nullptr) {
            PM_LOG(1, kLogTag, "Close Dll success, type = %d, mainID = %d, subId = %d, name = %s\n",
                   type, mainId, subId, name);
            dlclose(record->pLibHandle);
        } else {
            PM_LOG(0, kLogTag,
                   "Close Dll failed, [Dll handle is NULL], type = %d, mainID = %d, "
                   "subId = %d, name = %s\n",
                   type, mainId, subId, name);
        }
    }
    m_listPeripheralPlugin.erase(record);
    return 0;
}

CPeripheralBase* CPeripheralManage::GetPeripheralInstance(ePeripheralType type, unsigned int mainId,
                                                          unsigned int subId) {
    for (const PeripheralProperty_t& record : m_listPeripheralPlugin) {
        if (record.pInstance != nullptr && SameIdentity(record.pInstance, type, mainId, subId)) {
            return record.pInstance;
        }
    }
    return nullptr;
}

CPeripheralBase* CPeripheralManage::GetKeptPeripheralInstance(ePeripheralType type,
                                                              unsigned int mainId,
                                                              unsigned int subId) {
    CPeripheralBase* instance = GetPeripheralInstance(type, mainId, subId);
    return m_setLeavingInstances.count(instance) != 0 ? nullptr : instance;
}

unsigned char CPeripheralManage::GetPeripheralParamId(ePeripheralType type, unsigned int mainId,
                                                      unsigned int subId) {
    std::lock_guard<std::mutex> guard(m_ParamRecordLock);
    switch (type) {
        case PERIPHERAL_TYPE_SERIAL:
            for (unsigned char i = 0; i < SERIAL_PORT_COUNT; ++i) {
                const SerialPortEntry_t& entry = m_stuSystemSerialParam.stuSerialSetting.port[i];
                if (entry.mainFun == mainId && entry.subFun == subId) {
                    return i;
                }
            }
            break;
        case PERIPHERAL_TYPE_CANPORT:
            for (unsigned char i = 0; i < CAN_PORT_COUNT; ++i) {
                if (m_stuCanParam.port[i].mainFun == mainId &&
                    m_stuCanParam.port[i].subFun == subId) {
                    return i;
                }
            }
            break;
        case PERIPHERAL_TYPE_ETHERNET:
            for (unsigned char i = 0; i < ETHERNET_ENTRY_COUNT; ++i) {
                const EthernetEntry_t& entry = m_stuEthernetParam.entry[i];
                if (entry.mainFun == mainId && entry.subFun == subId) {
                    return i;
                }
            }
            break;
    }
    return 255;
}

unsigned char CPeripheralManage::GetPeripheralUiId(ePeripheralType type, unsigned int mainId,
                                                   unsigned int subId) {
    if (type != PERIPHERAL_TYPE_SERIAL) {
        return 0;
    }
    static const char* const kUiPorts[] = {"232-1", "232-2", "485-1", "485-2"};
    const int paramId = GetPeripheralParamId(type, mainId, subId);
    const Json::Value& ports = doc::Array(
        doc::Member(m_jsonPeripheralCfg, "DEVICE_PERIPHERAL_PARAM_SETTING"), "SERIAL_PARAM");
    for (Json::ArrayIndex i = 0; i < ports.size(); ++i) {
        const Json::Value& name = doc::Member(ports[i], "NAME");
        const Json::Value& position = doc::Member(ports[i], "POSITION");
        if (!name.isString() || !position.isInt() || position.asInt() != paramId) {
            continue;
        }
        const std::string text = name.asString();
        PM_LOG(3, "", "GetPeripheralUiId: strTemp = %s\n", text.c_str());
        // The configured name is what is searched for: "232" matches "232-1".
        for (unsigned char ui = 0; ui < std::size(kUiPorts); ++ui) {
            if (strstr(kUiPorts[ui], text.c_str()) != nullptr) {
                return ui;
            }
        }
    }
    return 0;
}
