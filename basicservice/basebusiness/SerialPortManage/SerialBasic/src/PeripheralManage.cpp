#include "PeripheralManage.h"

#include <ctype.h>
#include <dirent.h>
#include <dlfcn.h>
#include <stdio.h>
#include <stdlib.h>
#include <string.h>
#include <fcntl.h>
#include <sys/stat.h>
#include <unistd.h>

#include <algorithm>
#include <exception>
#include <memory>

#include "BusMessage.h"
#include "MutexGuard.h"
#include "CommonLog.h"
#include "ConsoleOutput.h"
#include "CommonTime.h"
#include "GuiToolkit.h"
#include "PeripheralBase.h"
#include "PeripheralEvents.h"
#include "SerialBase.h"
#include "SerialDevExtendBox.h"
#include "SerialDevExtendBoxHub.h"
#include "SerialDevOperate.h"
#include "SerialReconcile.h"

namespace {

constexpr const char kLogTag[] = "S_MANAGE: ";

// Unregistered by the manager although it never registers it; kept in the list as it always
// was.
constexpr int kEventNeverRegistered = 7425;

using PhmHandler = int (CPeripheralManage::*)(const char*, int);

struct PhmEvent {
    int eventId;
    PhmHandler handler;
};

// Handlers of one event run in registration order, and plug-ins that register an event of
// this table after the manager rely on its handler having run first.
const PhmEvent kRegisteredEvents[] = {
    {EVENT_DEBUG_LEVEL, &CPeripheralManage::OnSetDebugLevel},
    {EventAnswerOf(EVENT_GET_DEVICE_MODULE_STATE), &CPeripheralManage::OnDeviceModuleComplete},
    {EVENT_DEVICE_MODULE_STATE, &CPeripheralManage::OnDeviceModuleComplete},
    {EVENT_DEVICE_MODULE_RELEASE_SERIAL, &CPeripheralManage::OnDeviceModuleReleaseSerial},
    {EventAnswerOf(EVENT_GET_SERIAL_PARAM), &CPeripheralManage::OnUpdateSerialParamSetting},
    {EVENT_SERIAL_PARAM_CHANGED, &CPeripheralManage::OnUpdateSerialParamSetting},
    {EventAnswerOf(EVENT_GET_CAN_PARAM), &CPeripheralManage::OnUpdateCanParamSetting},
    {EVENT_CAN_PARAM_CHANGED, &CPeripheralManage::OnUpdateCanParamSetting},
    {EventAnswerOf(EVENT_GET_ETHERNET_PARAM), &CPeripheralManage::OnUpdateEthernetParamSetting},
    {EVENT_ETHERNET_PARAM_CHANGED, &CPeripheralManage::OnUpdateEthernetParamSetting},
    {EventAnswerOf(EVENT_GET_IPC_SETTING), &CPeripheralManage::OnUpdataIPCSetting},
    {EVENT_IPC_SETTING_CHANGED, &CPeripheralManage::OnUpdataIPCSetting},
    {EVENT_DIGITAL_VIDEO_LOSS, &CPeripheralManage::OnUpdataDigitalVideoLossStatus},
    {EventAnswerOf(EVENT_GET_DIGITAL_VIDEO_LOSS),
     &CPeripheralManage::OnUpdataDigitalVideoLossStatus},
    {EVENT_VIDEO_LOSS, &CPeripheralManage::OnUpdataVideoLossStatus},
    {EventAnswerOf(EVENT_GET_VIDEO_LOSS), &CPeripheralManage::OnUpdataVideoLossStatus},
    {EventAnswerOf(EVENT_GET_LED_STATE), &CPeripheralManage::OnUpdateLedState},
    {EVENT_LED_STATE, &CPeripheralManage::OnUpdateLedState},
    {EVENT_STORAGE_STATE, &CPeripheralManage::OnUpdataStorageStatus},
    {EVENT_VEHICLE_INFO, &CPeripheralManage::OnUpdateDeviceVehicleInfo},
    {EventAnswerOf(EVENT_GET_FTP_PARAM), &CPeripheralManage::OnGetFtpParam},
    {EVENT_FTP_PARAM_CHANGED, &CPeripheralManage::OnGetFtpParam},
    {EVENT_LANGUAGE_SWITCHED, &CPeripheralManage::OnSwitchLanguageFinished},
    {EventAnswerOf(EVENT_GET_USB_STATE), &CPeripheralManage::OnGetUsbState},
    {EVENT_USB_STATE, &CPeripheralManage::OnGetUsbState},
    {EventAnswerOf(EVENT_GET_UDISK_INFO), &CPeripheralManage::OnGetUDiskInfo},
    {EVENT_POWER_DOWN_9, &CPeripheralManage::OnProcessPowerdown},
    {EVENT_POWER_DOWN_8, &CPeripheralManage::OnProcessPowerdown},
    {EVENT_POWER_DOWN_1035, &CPeripheralManage::OnProcessPowerdown},
};

// Not the mirror of the registration, on purpose: the request ids 359, 361 and 283 stand
// where their answers were registered, 7425 was never registered, and the power-down events
// stay registered.
const int kUnregisteredEvents[] = {
    EventAnswerOf(EVENT_GET_DEVICE_MODULE_STATE),
    EVENT_DEVICE_MODULE_STATE,
    EVENT_DEBUG_LEVEL,
    EVENT_DEVICE_MODULE_RELEASE_SERIAL,
    EventAnswerOf(EVENT_GET_SERIAL_PARAM),
    EVENT_SERIAL_PARAM_CHANGED,
    EVENT_GET_CAN_PARAM,
    EVENT_CAN_PARAM_CHANGED,
    EVENT_GET_ETHERNET_PARAM,
    EVENT_ETHERNET_PARAM_CHANGED,
    EventAnswerOf(EVENT_GET_IPC_SETTING),
    EVENT_IPC_SETTING_CHANGED,
    EVENT_DIGITAL_VIDEO_LOSS,
    EventAnswerOf(EVENT_GET_DIGITAL_VIDEO_LOSS),
    EVENT_VIDEO_LOSS,
    EventAnswerOf(EVENT_GET_VIDEO_LOSS),
    EventAnswerOf(EVENT_GET_LED_STATE),
    EVENT_LED_STATE,
    EVENT_STORAGE_STATE,
    EVENT_VEHICLE_INFO,
    kEventNeverRegistered,
    EVENT_GET_FTP_PARAM,
    EVENT_FTP_PARAM_CHANGED,
    EVENT_LANGUAGE_SWITCHED,
    EventAnswerOf(EVENT_GET_USB_STATE),
    EVENT_USB_STATE,
    EventAnswerOf(EVENT_GET_UDISK_INFO),
};

// A still-missing bit and the request that asks for it.
struct StateRequest {
    uint32_t bit;
    int requestId;
};

const StateRequest kParamRequests[] = {
    {PARAM_STATE_SERIAL, EVENT_GET_SERIAL_PARAM}, {PARAM_STATE_IPC, EVENT_GET_IPC_SETTING},
    {PARAM_STATE_CAN, EVENT_GET_CAN_PARAM},       {PARAM_STATE_ETHERNET, EVENT_GET_ETHERNET_PARAM},
    {PARAM_STATE_FTP, EVENT_GET_FTP_PARAM},
};

const StateRequest kStatusRequests[] = {
    {STATUS_STATE_VLOSS, EVENT_GET_VIDEO_LOSS},
    {STATUS_STATE_DIGITAL_VLOSS, EVENT_GET_DIGITAL_VIDEO_LOSS},
    {STATUS_STATE_LED, EVENT_GET_LED_STATE},
};

constexpr long long kStatusPollPeriodMs = 1000;
constexpr long long kUsbPollPeriodMs = 1000;
constexpr unsigned int kUsbPollPeriods = 4;
constexpr long long kNullPluginLogPeriodMs = 299999;
constexpr unsigned int kVideoLossChannels = 32;  // width of the video-loss mask
constexpr size_t kIpcEntryOffset = 8;
constexpr size_t kIpcEntrySize = 200;
constexpr size_t kUpgradeAnswerSize = 52;
constexpr size_t kUpgradeEntrySize = 9;
constexpr size_t kUpgradeEntriesEnd = 36;  // source and count follow the entries
constexpr size_t kCpxPathSize = 28;
constexpr size_t kPluginDirSize = 32;
constexpr size_t kPluginPathSize = 64;

// The periodic cycle's time stamps and USB poll counter belong to the process, not to one
// manager: the host runs a single manager.
struct CycleState {
    long long nullPluginLogTime = 0;
    long long usbPollTime = 0;
    bool usbPollStarted = false;
    unsigned int usbPollCount = 0;
};
CycleState g_cycle;

bool SameIdentity(const CPeripheralBase* instance, ePeripheralType type, unsigned int mainId,
                  unsigned int subId) {
    return instance->GetPeripheralType() == type && instance->GetMainId() == mainId &&
           instance->GetSubId() == subId;
}

const char* PluginDirectory(ePeripheralType type) {
    switch (type) {
        case PERIPHERAL_TYPE_SERIAL:
            return "../plugin/serial/";
        case PERIPHERAL_TYPE_CANPORT:
            return "../plugin/can/";
        case PERIPHERAL_TYPE_ETHERNET:
            return "../plugin/ethernet/";
    }
    return nullptr;
}

// jsoncpp throws when a non-object is indexed by key or a non-array by number; a damaged
// document must read as an empty one instead.
const Json::Value& JsonMember(const Json::Value& object, const char* key) {
    static const Json::Value kNull;
    return object.isObject() ? object[key] : kNull;
}

const Json::Value& JsonArray(const Json::Value& object, const char* key) {
    static const Json::Value kEmpty(Json::arrayValue);
    const Json::Value& member = JsonMember(object, key);
    return member.isArray() ? member : kEmpty;
}

std::string JsonText(const Json::Value& object, const char* key) {
    const Json::Value& member = JsonMember(object, key);
    return member.isString() ? member.asString() : std::string();
}

// A serial record from one configuration object; line settings default, never inherited.
PeripheralProperty SerialPropertyFrom(const Json::Value& object, uint32_t mainId, uint32_t subId) {
    PeripheralProperty property{};
    property.mainId = mainId;
    property.subId = subId;
    property.baud = serial_baud_switch(JsonText(object, "DEV_SERIAL_BAUD_RATE"));
    property.dataBit = serial_data_bit_switch(JsonText(object, "DEV_SERIAL_DATA_BITS"));
    property.stopBit = serial_stop_bit_switch(JsonText(object, "DEV_SERIAL_STOP_BIT"));
    property.parity = serial_parity_switch(JsonText(object, "DEV_SERIAL_PARITY"));
    property.flow = serial_flow_control_switch(JsonText(object, "DEV_SERIAL_FLOW_CTRL"));
    const Json::Value& protocol = JsonMember(object, "DEV_SERIAL_PROTOCOL_TYPE");
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

// A plug-in's factory is foreign code: whatever it throws must not cross into the service,
// where nothing expects it and the process would end without naming the library.
CPeripheralBase* CallCreator(PeripheralCreateFn create, CPeripheralManage* manage,
                             CMsgClientManage* client, const std::string& name,
                             ePeripheralType type, unsigned int mainId, unsigned int subId) {
    const char* what = nullptr;
    try {
        return create(manage, client, mainId, subId);
    } catch (const std::exception& e) {
        PM_LOG(0, kLogTag,
               "Plugin factory threw, name = %s, type = %d, mainId = %d, subId = %d, "
               "what = %s\n",
               name.c_str(), type, mainId, subId, e.what());
        return nullptr;
    } catch (...) {
        what = "(not a std::exception)";
    }
    PM_LOG(0, kLogTag,
           "Plugin factory threw, name = %s, type = %d, mainId = %d, subId = %d, "
           "what = %s\n",
           name.c_str(), type, mainId, subId, what);
    return nullptr;
}

struct DirCloser {
    void operator()(DIR* dir) const { closedir(dir); }
};
using DirHandle = std::unique_ptr<DIR, DirCloser>;

// The tty that the co-processor shares with this service on the two products that have one.
bool IsCpxSerial(eProductType productType, const std::string& path) {
    return (productType == 6 && path == "/dev/ttyAMA1") ||
           (productType == 14 && path == "/dev/ttyAMA3");
}

}  // namespace

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

namespace {

const PortFamily kSerialFamily = {
    PERIPHERAL_TYPE_SERIAL, CUR_PERIPHERAL_SERIAL, PARAM_STATE_SERIAL, "Serial", 2, "serial",
    sizeof(paramSerialSetting_t), SERIAL_PORT_COUNT, sizeof(SerialPortEntry_t),
    // Serial configuration entries have variants of their own: AnalyseSerialConfig.
    nullptr, nullptr, nullptr, nullptr, nullptr};
const PortFamily kCanFamily = {PERIPHERAL_TYPE_CANPORT,
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
const PortFamily kEthernetFamily = {PERIPHERAL_TYPE_ETHERNET,
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

}  // namespace

// ---------------------------------------------------------------------------------------------
// Entry and lifecycle

extern "C" CServiceBase* Create() {
    ConsolePrintf(
        "\n========================================================\n"
        "  PeripheralManage Built time:%s %s\n"
        "========================================================\n",
        __DATE__, __TIME__);
    CPeripheralManage* manage = new CPeripheralManage();
    manage->Initialize();
    return manage;
}

CPeripheralManage::CPeripheralManage()
    : m_eServiceProductType(0),
      m_pMsgClient(nullptr),
      m_nMsgId(10),
      m_nServiceState(0),
      m_nCurPeripheral(0),
      m_nParamState(0x1F),
      m_stuSystemSerialParam{},
      m_stuCanParam{},
      m_stuEthernetParam{},
      m_stuIpcSetting{},
      m_nViChnNum(0),
      m_nDigitalChnNum(0),
      m_nTotalChnNum(0),
      m_VideoLossLock(),
      m_nVideoLossState(0),
      m_nStatusState(0),
      m_LedLock(),
      m_stuSysLedState{},
      m_stuStorageStatus{},
      m_stuVehicleInfo{},
      m_nProductType(0),
      m_FtpLock(),
      m_stuFtpSetting{},
      m_ucDeviceModuleReady(0),
      m_pSerialDevOperate(nullptr),
      m_ucCpxOccupy(1),
      m_ucTestEnable(0),
      m_ucisPlugIn(1),
      m_nDebugLevel(0),
      m_llStatusPollTime(0),
      m_bStatusPolled(false),
      m_jsonAlarmTtsCfg(),
      m_TtsLock(),
      m_szUdiskPath{} {
    m_eServiceProductType = Q7R_GetProductType();
    m_pMsgClient = new CMsgClientManage("BasicService.10", 300000);
    m_nServiceState = 1;
    m_nProductType = Q7R_GetProductType();
    m_nViChnNum = Q7R_GetVichnNum();
    m_nDigitalChnNum = Q7R_GetDigitalchnNum();
    m_nTotalChnNum = m_nViChnNum + m_nDigitalChnNum;

    pthread_mutex_init(&m_VideoLossLock, nullptr);
    pthread_mutex_init(&m_LedLock, nullptr);
    pthread_mutex_init(&m_FtpLock, nullptr);
    pthread_mutex_init(&m_TtsLock, nullptr);

    m_pSerialDevOperate = new CSerialDevOperate();

    if (!AnalysePeripheralConfig()) {
        // The service is never to run without its peripheral configuration.
        PM_LOG(0, kLogTag, "Load Peripheral Config failed, and exit!!!\n");
        exit(1);
    }
    if (AnalyseAlarmTtsConfig() == 0) {
        PM_LOG(0, kLogTag, "Analy TTS Config failed!!!\n");
    }
    PM_LOG(1, kLogTag, "**CPeripheralManage** instance is construct, m_nMsgId = %d\n", m_nMsgId);
}

CPeripheralManage::~CPeripheralManage() {
    PhmMessageUnRegister();
    Stop();
    // The instances go before the device layer and the bus client, whose releasers close
    // ports and unregister events through both, and before the speech records, which an
    // instance's own thread may read until its releaser stops it.
    for (PeripheralProperty_t& record : m_listPeripheralPlugin) {
        // A record a failed switch left behind has nothing to release; a plug-in's releaser
        // need not expect null.
        if (record.pRelease != nullptr && record.pInstance != nullptr) {
            ReleaseInstance(record);
        }
        if (record.pLibHandle != nullptr) {
            dlclose(record.pLibHandle);
        }
    }
    m_listPeripheralPlugin.clear();
    ReleaseAlarmTtsSpeech();
    delete m_pSerialDevOperate;
    m_pSerialDevOperate = nullptr;
    delete m_pMsgClient;
    m_pMsgClient = nullptr;
    pthread_mutex_destroy(&m_TtsLock);
    pthread_mutex_destroy(&m_FtpLock);
    pthread_mutex_destroy(&m_LedLock);
    pthread_mutex_destroy(&m_VideoLossLock);
}

int CPeripheralManage::Initialize() {
    if (m_nCurPeripheral == 0) {
        PM_LOG(0, kLogTag, "@@@@@ No Peripheral......\n");
    }
    PhmMessageRegister();
    // The records are the manager thread's once it runs: walk them before it starts.
    for (auto it = m_listPeripheralPlugin.begin(); it != m_listPeripheralPlugin.end();) {
        if (it->pInstance == nullptr) {
            PM_LOG(0, kLogTag, "Periphral Plugin[%s] Is NULL, and delete it\n",
                   it->strName.c_str());
            it = m_listPeripheralPlugin.erase(it);
            continue;
        }
        PM_LOG(1, kLogTag,
               "Get plugin Periphral id: type = %d, mainId = %d, subId = %d, "
               "name = %s\n",
               it->pInstance->GetPeripheralType(), it->pInstance->GetMainId(),
               it->pInstance->GetSubId(), it->strName.c_str());
        ++it;
    }
    Start(0);
    m_pSerialDevOperate->serial_init();
    return 0;
}

int CPeripheralManage::ThreadFuncImpl() {
    m_pMsgClient->MSGWaitForEvent(10);
    long long now = Common::Q7R_TMGetSystemMicroSecond();
    m_pMsgClient->MSGFeedWatchDog(now);

    if (m_ucDeviceModuleReady == 0) {
        PM_LOG(1, kLogTag, "DeviceManage module is not init success, please wait......\n");
        m_pMsgClient->MSGSendMessage(0, EVENT_GET_DEVICE_MODULE_STATE, 1, nullptr, 0, m_nMsgId);
        usleep(2000000);
        return 0;
    }
    if (m_nParamState != 0) {
        SendParamRequests();
        usleep(1000000);
        return 0;
    }
    SendStatusRequests(now);
    PhmThreadCycle(now);
    return 0;
}

void CPeripheralManage::SendParamRequests() {
    for (const StateRequest& request : kParamRequests) {
        if (m_nParamState & request.bit) {
            m_pMsgClient->MSGSendMessage(0, request.requestId, 1, nullptr, 0, m_nMsgId);
        }
    }
    PM_LOG(2, kLogTag, "Get system param, state = 0x%x, please waiting......\n", m_nParamState);
}

void CPeripheralManage::SendStatusRequests(long long now) {
    if (m_bStatusPolled && now - m_llStatusPollTime < kStatusPollPeriodMs) {
        return;
    }
    m_bStatusPolled = true;
    m_llStatusPollTime = now;
    for (const StateRequest& request : kStatusRequests) {
        if ((m_nStatusState & request.bit) == 0) {
            m_pMsgClient->MSGSendMessage(0, request.requestId, 1, nullptr, 0, m_nMsgId);
        }
    }
}

void CPeripheralManage::PhmThreadCycle(long long now) {
    for (PeripheralProperty_t& record : m_listPeripheralPlugin) {
        if (record.pInstance != nullptr) {
            record.pInstance->SharedThreadCycle(now);
        } else if (now - g_cycle.nullPluginLogTime > kNullPluginLogPeriodMs) {
            PM_LOG(0, kLogTag, "Peripheral Plugin is NULL, name = %s\n", record.strName.c_str());
            g_cycle.nullPluginLogTime = now;
        }
    }

    if (m_ucisPlugIn != 1) {
        return;
    }
    if (!g_cycle.usbPollStarted) {
        g_cycle.usbPollStarted = true;
        g_cycle.usbPollTime = now;
    }
    if (now - g_cycle.usbPollTime < kUsbPollPeriodMs) {
        return;
    }
    // Polling for the disk keeps the missing-plug-in log quiet; that is intended.
    g_cycle.usbPollTime = now;
    g_cycle.nullPluginLogTime = now;
    if (g_cycle.usbPollCount >= kUsbPollPeriods) {
        g_cycle.usbPollCount = 0;
        PM_LOG(1, "", "usb plugin ,send message to get usb disk info\n");
        m_pMsgClient->MSGSendMessage(0, EVENT_GET_UDISK_INFO, 1, nullptr, 0, m_nMsgId);
    }
    ++g_cycle.usbPollCount;
}

void CPeripheralManage::GetPeripheralConfig(ePeripheralType type,
                                            std::vector<PeripheralProperty>& out) {
    out = m_mapPeripheralConfig[type];
}

// ---------------------------------------------------------------------------------------------
// Bus registrations

int CPeripheralManage::PhmMessageRegister() {
    for (const PhmEvent& event : kRegisteredEvents) {
        m_pMsgClient->MSGEventRegister(m_nMsgId, event.eventId, this, event.handler);
    }
    return 0;
}

int CPeripheralManage::PhmMessageUnRegister() {
    for (int eventId : kUnregisteredEvents) {
        m_pMsgClient->MSGEventUnRegister(m_nMsgId, eventId);
    }
    return 0;
}

// ---------------------------------------------------------------------------------------------
// Peripheral configuration

int CPeripheralManage::AnalysePeripheralConfig() {
    if (Q7R_GetJsonByEnv("DEVICE_SERIAL_EXTEND_CFG", m_jsonPeripheralCfg) != 0) {
        PM_LOG(0, kLogTag, "***********Get Serial Env failed***********\n");
        return 0;
    }
    m_mapPeripheralConfig.clear();

    const Json::Value& serial = JsonArray(m_jsonPeripheralCfg, "DEVICE_SERIAL_SETTING");
    const Json::Value& can = JsonArray(m_jsonPeripheralCfg, "DEVICE_CANPORT_SETTING");
    const Json::Value& ethernet = JsonArray(m_jsonPeripheralCfg, "DEVICE_ETHERNET_SETTING");
    AnalyseSerialConfig(serial);
    AnalysePortConfig(kCanFamily, can);
    AnalysePortConfig(kEthernetFamily, ethernet);
    AnalyseMainChipSerialPath(JsonArray(
        JsonMember(m_jsonPeripheralCfg, "DEVICE_PERIPHERAL_PARAM_SETTING"), "SERIAL_PARAM"));

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
        const Json::Value& funcId = JsonMember(entry, "DEV_SERIAL_FUNCID");
        const Json::Value& libName = JsonMember(entry, "DEV_SERIAL_LIB_NAME");
        if (!funcId.isInt() || !libName.isString()) {
            continue;
        }
        const uint32_t mainId = static_cast<uint32_t>(funcId.asInt());
        m_mapPeripheralLibName[PERIPHERAL_TYPE_SERIAL][mainId] = libName.asString();
        PM_LOG(2, kLogTag, "Find lib, mainId = %d, name = %s\n", mainId,
               libName.asString().c_str());

        list.push_back(SerialPropertyFrom(entry, mainId, 0));
        LogSerialProperty(list.back(), list.size());

        const Json::Value& subs = JsonArray(entry, "DEV_SERIAL_SUB_FUNCTION");
        for (Json::ArrayIndex k = 0; k < subs.size(); ++k) {
            const Json::Value& subId = JsonMember(subs[k], "DEV_SERIAL_SUB_FUNCID");
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
        const Json::Value& funcId = JsonMember(entry, family.funcIdKey);
        const Json::Value& libName = JsonMember(entry, family.libNameKey);
        if (!funcId.isInt() || !libName.isString() || JsonText(entry, family.enableKey) != "true") {
            continue;
        }
        const uint32_t mainId = static_cast<uint32_t>(funcId.asInt());
        m_mapPeripheralLibName[family.type][mainId] = libName.asString();
        if (family.baudKey != nullptr) {
            PeripheralProperty property{};
            property.mainId = mainId;
            // CAN rates share the serial words on purpose.
            property.baud = serial_baud_switch(JsonText(entry, family.baudKey));
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
        const Json::Value& path = JsonMember(entries[i], "PATH");
        const Json::Value& position = JsonMember(entries[i], "POSITION");
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
        if (mainId == PERIPHERAL_MAINID_EXTEND_BOX) {
            // The records hold plug-in releasers, which answer nothing.
            return CreateBuiltInBox(
                ExtendBoxCreate, [](CPeripheralBase* p) { ExtendBoxRelease(p); }, mainId,
                "S_MANAGE: ExtendBox instance create failed\n");
        }
        if (mainId == PERIPHERAL_MAINID_EXTEND_HUB_BOX) {
            return CreateBuiltInBox(
                ExtendBoxHubCreate, [](CPeripheralBase* p) { ExtendBoxHubRelease(p); }, mainId,
                "S_MANAGE: ExtendHub Box instance create failed\n");
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
    const char* directory = PluginDirectory(type);
    if (directory == nullptr) {
        return -1;
    }
    char dirPath[kPluginDirSize];
    snprintf(dirPath, sizeof(dirPath), "%s", directory);
    DirHandle dir(opendir(dirPath));
    if (!dir) {
        PM_LOG(0, kLogTag, "Open basic service plugin lib directory failed, path = %s\n", dirPath);
        return -1;
    }
    PM_LOG(2, kLogTag, "Begin to Find lib file, name = %s, mainId = %d, subId = %d, size = %d\n",
           name.c_str(), mainId, subId, static_cast<int>(m_listPeripheralPlugin.size()));

    int result = 0;
    // Directory order, unsorted: with several candidates the first listed one wins.
    while (struct dirent* entry = readdir(dir.get())) {
        PM_LOG(3, kLogTag, "dir_name = %s\n", entry->d_name);
        if (strstr(entry->d_name, name.c_str()) == nullptr) {
            continue;
        }
        char path[kPluginPathSize];
        if (snprintf(path, sizeof(path), "%s%s", dirPath, entry->d_name) >=
            static_cast<int>(sizeof(path))) {
            PM_LOG(0, kLogTag, "Plugin path too long, dir = %s, file = %s\n", dirPath,
                   entry->d_name);
            result = -1;
            break;
        }
        // dlopen of a FIFO or a device never returns; a directory cannot load either.
        struct stat info;
        if (stat(path, &info) != 0 || !S_ISREG(info.st_mode)) {
            PM_LOG(0, kLogTag, "Skip plugin entry, not a regular file, path = %s\n", path);
            continue;
        }
        PM_LOG(2, kLogTag, "Find lib success, begin to open, dir = %s\n", path);
        result = LoadPeripheralLibFile(path, name, type, mainId, subId);
        break;
    }
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
    CPeripheralBase* instance = CallCreator(create, this, m_pMsgClient, name, type, mainId, subId);
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
    record->pInstance =
        CallCreator(record->pCreate, this, m_pMsgClient, record->strName, type, mainId, newSubId);
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
    const Json::Value& ports = JsonArray(
        JsonMember(m_jsonPeripheralCfg, "DEVICE_PERIPHERAL_PARAM_SETTING"), "SERIAL_PARAM");
    for (Json::ArrayIndex i = 0; i < ports.size(); ++i) {
        const Json::Value& name = JsonMember(ports[i], "NAME");
        const Json::Value& position = JsonMember(ports[i], "POSITION");
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

// ---------------------------------------------------------------------------------------------
// Device status relay

int CPeripheralManage::OnSetDebugLevel(const char* data, int length) {
    MsgView msg(data, length);
    if (msg.HeadLength() != 8 || msg.Payload().U16(0) != 0x1A00) {
        return 0;
    }
    m_nDebugLevel = msg.Payload().U16(2);
    PM_LOG(0, kLogTag, "Set debug level = %d\n", m_nDebugLevel.load());
    return 0;
}

int CPeripheralManage::OnDeviceModuleComplete(const char* data, int length) {
    MsgView msg(data, length);
    if (msg.TooShort()) {
        PM_LOG(0, kLogTag, "device module complete length or msg is error \n");
        return -1;
    }
    const uint8_t state = msg.Payload().Byte(0);
    m_ucDeviceModuleReady = (state & 0x01) ? 1 : 0;
    PM_LOG(1, kLogTag, "DeviceManage module init state = 0x%x\n", state);
    return 0;
}

int CPeripheralManage::OnDeviceModuleReleaseSerial(const char* data, int length) {
    MsgView msg(data, length);
    if (msg.TooShort()) {
        // The text is shared with OnDeviceModuleComplete on purpose.
        PM_LOG(0, kLogTag, "device module complete length or msg is error \n");
        return -1;
    }
    const std::string path = msg.Payload().Text(0);
    if (IsCpxSerial(m_nProductType, path)) {
        m_ucCpxOccupy = 0;
    }
    PM_LOG(1, kLogTag,
           "DeviceManage broadcast cpx release serial, product_type = %d, path = %s, "
           "cpx_occupy = %d\n",
           m_nProductType, path.c_str(), m_ucCpxOccupy.load());
    return 0;
}

int CPeripheralManage::OnUpdataIPCSetting(const char* data, int length) {
    MsgView msg(data, length);
    if (msg.TooShort()) {
        PM_LOG(0, "", "ipc param length error \n");
        return -1;
    }
    m_nParamState &= static_cast<uint16_t>(~PARAM_STATE_IPC);
    uint8_t setting[sizeof(m_stuIpcSetting)];
    msg.Payload().Copy(0, setting, sizeof(setting));
    if (memcmp(setting, m_stuIpcSetting, sizeof(setting)) != 0) {
        PM_LOG(2, kLogTag, "IPC param has changed, and re get video loss state\n");
        memcpy(m_stuIpcSetting, setting, sizeof(setting));
        m_nStatusState &= ~(STATUS_STATE_DIGITAL_VLOSS | STATUS_STATE_VLOSS);
    }
    return 0;
}

bool CPeripheralManage::GetIpcChannel(unsigned int channel, uint8_t& digital,
                                      uint8_t& protocol) const {
    digital = 0;
    protocol = 0;
    const size_t channels = (sizeof(m_stuIpcSetting) - kIpcEntryOffset) / kIpcEntrySize;
    if (channel >= channels) {
        return false;
    }
    const uint8_t* entry = m_stuIpcSetting + kIpcEntryOffset + kIpcEntrySize * channel;
    digital = entry[0];
    protocol = entry[6];
    return true;
}

int CPeripheralManage::OnUpdataDigitalVideoLossStatus(const char* data, int length) {
    MsgView msg(data, length);
    if (msg.TooShort()) {
        PM_LOG(0, kLogTag, "Update IPC video loss length error \n");
        return -1;
    }
    if (msg.HeadLength() != 6) {
        PM_LOG(0, kLogTag, "Update IPC video loss failed msgerror=%d\n", msg.HeadLength());
        return -1;
    }
    m_nStatusState |= STATUS_STATE_DIGITAL_VLOSS;
    if (m_nTotalChnNum > kVideoLossChannels) {
        PM_LOG(0, kLogTag, "Video loss mask holds %d channels, channels = %d\n", kVideoLossChannels,
               m_nTotalChnNum);
    }
    const unsigned int channels = std::min(m_nTotalChnNum, kVideoLossChannels);
    const MsgView payload = msg.Payload();
    MutexGuard guard(m_VideoLossLock);
    uint32_t state = m_nVideoLossState;
    for (unsigned int n = 0; n < channels; ++n) {
        const uint8_t protocol = payload.Byte(n);
        const uint8_t lost = payload.Byte(4 + n);
        uint8_t digital = 0;
        uint8_t ipcProtocol = 0;
        GetIpcChannel(n, digital, ipcProtocol);
        PM_LOG(4, kLogTag,
               "Digital VL state, index = %x, digital = %d, protocol = %d, state = %d\n", n,
               digital, protocol, lost);
        if (digital == 1 && ipcProtocol == protocol) {
            state = lost == 1 ? (state | (1u << n)) : (state & ~(1u << n));
        }
    }
    m_nVideoLossState = state;
    PM_LOG(3, kLogTag, "IPC Video loss state update, state = 0x%x, DigitalChnNum = %d\n", state,
           m_nDigitalChnNum);
    return 0;
}

int CPeripheralManage::OnUpdataVideoLossStatus(const char* data, int length) {
    MsgView msg(data, length);
    if (msg.TooShort()) {
        PM_LOG(0, kLogTag, "Update video loss length error \n");
        return -1;
    }
    if (msg.HeadLength() != 4) {
        PM_LOG(0, kLogTag, "Update video loss failed msgerror=%d\n", msg.HeadLength());
        return -1;
    }
    m_nStatusState |= STATUS_STATE_VLOSS;
    if (m_nViChnNum > kVideoLossChannels) {
        PM_LOG(0, kLogTag, "Video loss mask holds %d channels, channels = %d\n", kVideoLossChannels,
               m_nViChnNum);
    }
    const unsigned int channels = std::min(m_nViChnNum, kVideoLossChannels);
    const uint32_t mask = msg.Payload().U32(0);
    MutexGuard guard(m_VideoLossLock);
    uint32_t state = m_nVideoLossState;
    for (unsigned int n = 0; n < channels; ++n) {
        uint8_t digital = 0;
        uint8_t protocol = 0;
        GetIpcChannel(n, digital, protocol);
        if (digital == 0) {  // digital channels keep their own bit
            state = (state & ~(1u << n)) | (mask & (1u << n));
        }
    }
    m_nVideoLossState = state;
    PM_LOG(2, kLogTag, "Vi Video loss state update, state = 0x%x, ViChnNum = %d\n", state,
           m_nViChnNum);
    return 0;
}

int CPeripheralManage::OnUpdateLedState(const char* data, int length) {
    if (data == nullptr) {
        PM_LOG(0, kLogTag, "OnUpdateLedState msg param error \n");
        return -1;
    }
    MsgView msg(data, length);
    if (msg.HeadLength() != 16) {
        PM_LOG(0, kLogTag, "Update Led panel state msgerror=%d\n", msg.HeadLength());
        return -1;
    }
    m_nStatusState |= STATUS_STATE_LED;
    MutexGuard guard(m_LedLock);
    msg.Payload().Copy(0, m_stuSysLedState, 10);
    const uint8_t* led = m_stuSysLedState;
    PM_LOG(2, kLogTag,
           "Update Led state, record = %x, net = %x, err = %x, gps = %x, alarm = %x, "
           "vloss = %x, hdd = %x, sd = %x, sys = %x\n",
           led[0], led[1], led[2], led[3], led[4], led[5], led[6], led[7], led[8]);
    return 0;
}

int CPeripheralManage::OnUpdataStorageStatus(const char* data, int length) {
    MsgView msg(data, length);
    if (msg.TooShort()) {
        PM_LOG(0, kLogTag, "OnUpdataStorageStatus param error\n");
        return -1;
    }
    const MsgView payload = msg.Payload();
    payload.Copy(0, m_stuStorageStatus, sizeof(m_stuStorageStatus));
    int errorSd = 1;
    for (int i = 0; i < 2; ++i) {
        const size_t entry = 24 + 4 * i;
        const uint8_t state = payload.Byte(entry);
        const uint8_t type = payload.Byte(entry + 2);
        const uint8_t valid = payload.Byte(entry + 3);
        // valid and i stand swapped against their labels, as the field logs have always shown.
        PM_LOG(4, kLogTag, "i = %d, valid = %d, type = %d, state = %d\n", valid, i, type, state);
        if (valid == 1 && type == 1 && (state == 2 || state == 5 || state == 6)) {
            errorSd = 0;
        }
    }
    PM_LOG(3, kLogTag, "storage status: error_sd = %d\n", errorSd);
    MutexGuard guard(m_LedLock);
    m_stuSysLedState[7] = errorSd == 1 ? 0 : 1;
    return 0;
}

int CPeripheralManage::OnUpdateDeviceVehicleInfo(const char* data, int length) {
    if (data == nullptr) {
        return -1;
    }
    MsgView msg(data, length);
    MutexGuard guard(m_LedLock);
    msg.Payload().Copy(0, m_stuVehicleInfo, sizeof(m_stuVehicleInfo));
    const MsgView record(m_stuVehicleInfo, sizeof(m_stuVehicleInfo));
    const uint32_t first = record.U32(0);
    const uint32_t second = record.U32(48);
    const uint8_t flags = record.Byte(52);
    if ((first & 0x08) && (second & 0x08) && !((flags & 0x10) && !(flags & 0x08))) {
        m_stuSysLedState[10] = 0;
    }
    return 0;
}

int CPeripheralManage::OnGetFtpParam(const char* data, int length) {
    MsgView msg(data, length);
    if (msg.TooShort()) {
        PM_LOG(0, kLogTag, "OnGetFtpParam param error\n");
        return -1;
    }
    m_nParamState &= static_cast<uint16_t>(~PARAM_STATE_FTP);
    {
        MutexGuard guard(m_FtpLock);
        msg.Payload().Copy(0, &m_stuFtpSetting, sizeof(m_stuFtpSetting));
    }
    PM_LOG(2, kLogTag, "FTP param changed\n");
    return 0;
}

int CPeripheralManage::OnProcessPowerdown(const char*, int) {
    PM_LOG(0, "", " m_ucTestEnable=%d\n", m_ucTestEnable.load());
    if (m_ucTestEnable == 1) {
        // The recorder answers with its real serial setting, which replaces the test layout.
        m_pMsgClient->MSGSendMessage(0, EVENT_GET_SERIAL_PARAM, 1, nullptr, 0, m_nMsgId);
    }
    return 0;
}

int CPeripheralManage::OnDispatchProxyData(const char* data, int length) {
    MsgView msg(data, length);
    if (msg.TooShort()) {
        PM_LOG(0, kLogTag, "Protocol proxy param length error \n");
        return -1;
    }
    const MsgView payload = msg.Payload();
    if (payload.U16(64) != 1) {
        PM_LOG(0, kLogTag, "Protocol proxy param type error \n");
        return -1;
    }
    const unsigned int funcId = payload.U16(66);
    const unsigned int dataLen = payload.U32(72);
    PM_LOG(0, kLogTag, "serialInfo--uiFuncId:%d, uiDataLen:%d, len = %d\n", funcId, dataLen + 84,
           dataLen);
    // Proxy data is delivered to nobody yet.
    int index = 0;
    for (auto it = m_listPeripheralPlugin.begin(); it != m_listPeripheralPlugin.end(); ++it) {
        PM_LOG(2, kLogTag, "m_pSerialBase[%d] == NULL", index++);
    }
    return 0;
}

int CPeripheralManage::OnGetUpgradingPeripInfo(const char* data, int length) {
    MsgView msg(data, length);
    if (msg.TooShort()) {
        PM_LOG(0, kLogTag, "OnGetFtpParam param error\n");
        return -1;
    }
    const uint8_t source = msg.Payload().Byte(0);
    const uint8_t type = msg.Payload().Byte(1);
    PM_LOG(1, kLogTag, "Get upgrading peripheral, type = %d, source = %d\n", type, source);
    if (source > 3 || type > 2) {
        return -1;
    }
    uint8_t answer[kUpgradeAnswerSize] = {};
    uint8_t count = 0;
    for (const PeripheralProperty_t& record : m_listPeripheralPlugin) {
        const CPeripheralBase* instance = record.pInstance;
        if (instance == nullptr || instance->GetPeripheralType() != type ||
            !instance->IsUpgrading()) {
            continue;
        }
        const size_t offset = kUpgradeEntrySize * count;
        if (offset + kUpgradeEntrySize > kUpgradeEntriesEnd) {
            PM_LOG(0, kLogTag, "Upgrading peripheral list full, skip mainId = %d, subId = %d\n",
                   instance->GetMainId(), instance->GetSubId());
            continue;
        }
        answer[offset] = type;
        answer[offset + 1] = static_cast<uint8_t>(instance->GetMainId());
        answer[offset + 2] = static_cast<uint8_t>(instance->GetSubId());
        ++count;
    }
    answer[kUpgradeEntriesEnd] = source;
    answer[kUpgradeEntriesEnd + 1] = count;
    PM_LOG(1, kLogTag,
           "Response upgrading perip info, type = %d, source = %d, mainId = %d, subId "
           "= %d, count = %d\n",
           type, source, answer[1], answer[2], count);
    Common::SMessageHead head;
    memcpy(&head, data, sizeof(head));
    m_pMsgClient->MSGResponseMessage(&head, reinterpret_cast<const char*>(answer),
                                     static_cast<int>(sizeof(answer)));
    return 0;
}

unsigned int CPeripheralManage::GetCurVideoLossState() const {
    return m_nVideoLossState;
}

void CPeripheralManage::GetCurSysLedState(unsigned char* out) {
    if (out == nullptr) {
        return;
    }
    MutexGuard guard(m_LedLock);
    memcpy(out, m_stuSysLedState, sizeof(m_stuSysLedState));
}

void CPeripheralManage::GetFtpParam(tag_MsgFtpSetting& out) {
    MutexGuard guard(m_FtpLock);
    out = m_stuFtpSetting;
}

unsigned char CPeripheralManage::CheckCpxOccupancySerial(std::string path) {
    return IsCpxSerial(m_nProductType, path) ? m_ucCpxOccupy.load() : 0;
}

void CPeripheralManage::BroadcastCpxSerialRelease(std::string path) {
    if (!IsCpxSerial(m_nProductType, path)) {
        return;
    }
    char payload[kCpxPathSize] = {};
    memcpy(payload, path.data(), std::min(path.size(), sizeof(payload)));
    m_pMsgClient->MSGSendMessage(0, EVENT_CPX_SERIAL_RELEASE, 0, payload,
                                 static_cast<int>(sizeof(payload)), m_nMsgId);
}

// ---------------------------------------------------------------------------------------------
// Hex dump

void CPeripheralManage::hex_dump(std::string title, const char* data, unsigned int length,
                                 int level) {
    if (!DumpsAt(level)) {
        return;
    }
    if (data == nullptr) {
        length = 0;
    }
    static const char kHex[] = "0123456789ABCDEF";
    std::string out = title;
    out.reserve(title.size() + length * 6 + 8);
    for (unsigned int i = 0; i < length; ++i) {
        if (i % 16 == 0) {
            char head[16];
            snprintf(head, sizeof head, "\n%02X: ", i);
            out += head;
        }
        const auto byte = static_cast<uint8_t>(data[i]);
        out += kHex[byte >> 4];
        out += kHex[byte & 0x0F];
        out += ' ';
        if (i % 16 != 15) {
            continue;
        }
        // Rows past the first 256 bytes show the characters of an earlier row; kept so.
        const unsigned int row = i & 0xF0;
        for (unsigned int j = 0; j < 16; ++j) {
            const unsigned char c = static_cast<unsigned char>(data[row + j]);
            out += isprint(c) ? static_cast<char>(c) : '.';
            out += ' ';
        }
    }
    out += "\n\n";
    // One write, never waited for: this runs on the reader thread under the port table's lock.
    ConsoleWrite(out);
}

// ---------------------------------------------------------------------------------------------
// Alarm speech

namespace {

constexpr const char kTtsDocument[] = "ALARM_TTS_CFG";
constexpr const char kTtsDocumentPath[] = "/usr/local/cfg/ALARM_TTS_CFG";
constexpr size_t kTtsTextSize = 128;
constexpr size_t kSpeechTailSize = 65;  // the record's bytes besides the text's characters
const char* const kTtsIntKeys[] = {"PLAY_TIMES", "INTERVAL", "HANDLE_TYPE", "AO_CHN",
                                   "LABABIT",    "MAIN_ID",  "SUB_ID"};

int JsonInt(const Json::Value& object, const char* key) {
    const Json::Value& member = JsonMember(object, key);
    return member.isInt() ? member.asInt() : 0;
}

// "EXCUTE_TYPE" and "VOLUMN" are taken as whatever number they hold (80.5 reads 80, true 1,
// absent 0), as the recorder has always read them. What no int can hold reads as 0, logged.
int JsonNumber(const Json::Value& object, const char* key) {
    const Json::Value& member = JsonMember(object, key);
    if (member.isConvertibleTo(Json::intValue)) {
        return member.asInt();
    }
    PM_LOG(0, kLogTag, "Analy TTS alarm config, %s is no number, read as 0\n", key);
    return 0;
}

// The record of one document entry whose keys were checked; null when there is no memory.
LinkSpeech_t* MakeSpeechRecord(const Json::Value& entry, const char* text) {
    const size_t length = strlen(text);
    auto* bytes = static_cast<uint8_t*>(calloc(1, length + kSpeechTailSize));
    if (bytes == nullptr) {
        return nullptr;
    }
    const int aoChn = JsonInt(entry, "AO_CHN");
    const int volume = JsonNumber(entry, "VOLUMN");
    const int lababit = JsonInt(entry, "LABABIT");
    bytes[0] = static_cast<uint8_t>(JsonInt(entry, "PLAY_TIMES"));
    bytes[1] = static_cast<uint8_t>(JsonInt(entry, "INTERVAL"));
    Common::PutLe16(bytes + 2, static_cast<uint32_t>(length + 57));
    Common::PutLe32(bytes + 8, 4);
    bytes[12] = static_cast<uint8_t>(JsonInt(entry, "HANDLE_TYPE"));
    bytes[13] = static_cast<uint8_t>(JsonNumber(entry, "EXCUTE_TYPE"));
    Common::PutLe32(bytes + 32, 552);
    Common::PutLe32(bytes + 36, 553);
    Common::PutLe32(bytes + 40, static_cast<uint32_t>(length + 9));
    Common::PutLe32(bytes + 44, 8);
    bytes[48] = static_cast<uint8_t>(aoChn);
    bytes[49] = static_cast<uint8_t>(volume);
    Common::PutLe16(bytes + 50, static_cast<uint32_t>(length + 1));
    bytes[52] = static_cast<uint8_t>(lababit);
    memcpy(bytes + 56, text, length + 1);
    bytes[57 + length] = static_cast<uint8_t>(aoChn);
    bytes[58 + length] = static_cast<uint8_t>(volume);
    bytes[61 + length] = static_cast<uint8_t>(lababit);
    return reinterpret_cast<LinkSpeech_t*>(bytes);
}

}  // namespace

int CPeripheralManage::AnalyseAlarmTtsConfig() {
    setenv(kTtsDocument, kTtsDocumentPath, 1);
    if (Q7R_GetJsonByEnv(kTtsDocument, m_jsonAlarmTtsCfg) != 0) {
        PM_LOG(0, "", "S_MAMAGE:: Q7R_GetJsonByEnv ALARM_TTS_CFG faild!\n");
        return 0;
    }
    const Json::Value& entries = JsonArray(m_jsonAlarmTtsCfg, "ALARM_TTS_PARAM");
    for (Json::ArrayIndex i = 0; i < entries.size(); ++i) {
        const Json::Value& entry = entries[i];
        if (!JsonMember(entry, "CONTENT").isString()) {
            continue;
        }
        bool complete = true;
        for (const char* key : kTtsIntKeys) {
            complete = complete && JsonMember(entry, key).isInt();
        }
        if (!complete) {
            continue;
        }
        char text[kTtsTextSize] = {};
        snprintf(text, sizeof(text), "%s\n",
                 GuiTKGetText(nullptr, nullptr, JsonMember(entry, "CONTENT").asCString()));
        LinkSpeech_t* record = MakeSpeechRecord(entry, text);
        if (record == nullptr) {
            continue;
        }
        const auto mainId = static_cast<unsigned int>(JsonInt(entry, "MAIN_ID"));
        const auto subId = static_cast<unsigned int>(JsonInt(entry, "SUB_ID"));
        {
            MutexGuard guard(m_TtsLock);
            const auto* bytes = reinterpret_cast<const char*>(record);
            auto made = m_mapTtsRecords.emplace(
                std::make_tuple(mainId, subId,
                                std::string(bytes, strlen(record->szText) + kSpeechTailSize)),
                record);
            if (!made.second) {
                free(record);  // this pair's record with the same bytes serves
                record = made.first->second;
            }
            // The record this replaces stays where it is: a plug-in may still hold it.
            m_mapAlarmTtsSpeech[mainId][subId] = record;
        }
        PM_LOG(2, kLogTag,
               "Analy TTS alarm config, mainId = %d, subId = %d, times = %d, volumn = %d, "
               "len = %d, content = %s, %s\n",
               mainId, subId, record->ucPlayTimes, record->ucVolumn,
               Common::GetLe16(&record->usTextLength), record->szText, text);
    }
    return 1;
}

LinkSpeech_t* CPeripheralManage::GetTtsAlarmSpeechConfig(unsigned int mainId, unsigned int subId) {
    MutexGuard guard(m_TtsLock);
    auto byMain = m_mapAlarmTtsSpeech.find(mainId);
    if (byMain == m_mapAlarmTtsSpeech.end()) {
        return nullptr;
    }
    auto bySub = byMain->second.find(subId);
    return bySub == byMain->second.end() ? nullptr : bySub->second;
}

void CPeripheralManage::ReleaseAlarmTtsSpeech() {
    MutexGuard guard(m_TtsLock);
    for (auto& byMain : m_mapAlarmTtsSpeech) {
        for (auto& bySub : byMain.second) {
            bySub.second = nullptr;
        }
    }
    m_mapAlarmTtsSpeech.clear();
    for (auto& made : m_mapTtsRecords) {
        free(made.second);
    }
    m_mapTtsRecords.clear();
}

int CPeripheralManage::OnSwitchLanguageFinished(const char* data, int length) {
    if (MsgView(data, length).TooShort()) {
        PM_LOG(0, kLogTag, "OnSwitchLanguageFinished param error\n");
        return -1;
    }
    // GuiTKGetText follows the recorder's language by itself.
    PM_LOG(1, kLogTag, "Language changed, and reload alarm TTS config\n");
    if (AnalyseAlarmTtsConfig() != 0) {
        // Logged when the reload worked: the recorder's tools expect this line so.
        PM_LOG(0, kLogTag, "Reload TTS alarm config failed\n");
    }
    return 0;
}

// ---------------------------------------------------------------------------------------------
// USB disk and the factory self-test

namespace {

constexpr uint32_t kUsbStateLength = 72;
constexpr uint32_t kUDiskInfoMinLength = 8;
constexpr size_t kUDiskEntryOffset = 48;
constexpr size_t kUDiskEntrySize = 80;
constexpr size_t kUDiskEntries = 4;
constexpr size_t kUDiskMountSize = 40;
constexpr size_t kUDiskSizeOffset = 40;
constexpr uint64_t kUDiskMinRecordSize = 10000000;
constexpr size_t kUDiskPathSize = 128;
constexpr size_t kTestFileReadSize = 128;
constexpr const char kTestFile[] = "/AutoTest/AUTO_TEST_CFG";

struct TestPort {
    int port;
    int extend;  // -1: the port entry itself
    uint8_t mainFun, baudrate, subFun;
};

// Where the factory's test peripherals go, by product type.
std::vector<TestPort> TestLayout(eProductType type) {
    switch (type) {
        case 6:
        case 18:  // behind an extension box on port 4
            return {{4, -1, 1, 5, 0}, {4, 0, 34, 5, 0}, {4, 1, 36, 1, 0}};
        case 16:
        case 20:
            return {{1, -1, 36, 1, 0}};
        case 47:
        case 48:
            return {{1, -1, 36, 1, 0}, {0, -1, 34, 5, 0}};
        case 14:
            return {{4, -1, 36, 1, 0}};
        default:
            return {{0, -1, 36, 1, 0}};
    }
}

}  // namespace

int CPeripheralManage::OnGetUsbState(const char* data, int length) {
    MsgView msg(data, length);
    if (msg.TooShort()) {
        PM_LOG(0, "", "adjust speed param length error \n");
        return -1;
    }
    if (msg.HeadLength() != kUsbStateLength) {
        PM_LOG(0, "", "phead->length =%d\n", msg.HeadLength());
        return -1;
    }
    const uint8_t plugIn = msg.Payload().Byte(0);
    // "U-disk in, read the file", in the recorder's own encoding (GBK).
    PM_LOG(3, "", "U\xc5\xcc\xb2\xe5\xc8\xeb \xb6\xc1\xce\xc4\xbc\xfe usbInfo->ucisPlugIn=%d\n",
           plugIn);
    if (plugIn == 1) {
        m_ucisPlugIn = 1;
        PM_LOG(1, "", "Usb plugin  usbInfo->ucisPlugIn=%d\n", plugIn);
    } else if (m_ucTestEnable == 1) {
        PM_LOG(0, "", " Usb plug out  usbInfo->ucisPlugIn=%d\n", plugIn);
        // The recorder answers with its real serial setting, which ends the test layout.
        m_pMsgClient->MSGSendMessage(0, EVENT_GET_SERIAL_PARAM, 1, nullptr, 0, m_nMsgId);
    }
    return 0;
}

int CPeripheralManage::OnGetUDiskInfo(const char* data, int length) {
    MsgView msg(data, length);
    if (msg.TooShort()) {
        PM_LOG(0, "", "ipc param length error \n");
        return -1;
    }
    if (msg.HeadLength() < kUDiskInfoMinLength) {
        PM_LOG(0, "", "safety warning failed msgerror=%d\n", msg.HeadLength());
        return -1;
    }
    char path[kUDiskPathSize] = {};
    char file[kTestFileReadSize + 1] = {};  // the text always ends within it
    m_ucisPlugIn = 0;
    PM_LOG(1, "", "m_ucisPlugIn = %d\n", m_ucisPlugIn);
    const MsgView payload = msg.Payload();
    std::string mount;
    uint64_t recordSize = 0;
    for (size_t k = 0; k < kUDiskEntries && mount.empty(); ++k) {
        const size_t entry = kUDiskEntryOffset + kUDiskEntrySize * k;
        char text[kUDiskMountSize + 1] = {};  // a directory without its NUL ends here
        payload.Copy(entry, text, kUDiskMountSize);
        mount = text;
        recordSize = static_cast<uint64_t>(payload.U32(entry + kUDiskSizeOffset)) |
                     static_cast<uint64_t>(payload.U32(entry + kUDiskSizeOffset + 4)) << 32;
    }
    if (mount.empty()) {
        return 0;
    }
    snprintf(path, sizeof(path), "%s%s", mount.c_str(), kTestFile);
    {
        std::lock_guard<std::mutex> guard(m_UdiskLock);
        snprintf(m_szUdiskPath, sizeof(m_szUdiskPath), "%s", mount.c_str());
    }
    PM_LOG(3, "", "U disk dir = %s\n", path);
    if (recordSize != 0 && recordSize < kUDiskMinRecordSize) {
        PM_LOG(3, "", "Udisk total record size less than 10M!!!\n");
        return 0;
    }
    // Only a plain file is opened: a disk's file may be a link to a device, and opening a tty
    // read-write already moves its modem lines. Not blocking: a FIFO put in its place between
    // the two looks must not hold the manager thread. Never a controlling terminal: a host
    // that leads its session would be hung up with it.
    struct stat info;
    const int fd = stat(path, &info) == 0 && S_ISREG(info.st_mode)
                       ? open(path, O_RDWR | O_NONBLOCK | O_NOCTTY | O_CLOEXEC)
                       : -1;
    if (fd < 0 || fstat(fd, &info) != 0 || !S_ISREG(info.st_mode)) {
        PM_LOG(0, "", " open parafd file failed !\n");
        if (fd >= 0) {
            close(fd);
        }
        return -1;
    }
    lseek(fd, 1, SEEK_SET);  // the file's first byte is not part of the text
    const ssize_t got = read(fd, file, kTestFileReadSize);
    PM_LOG(1, kLogTag, "Auto test file opened, path = %s, read = %d\n", path,
           static_cast<int>(got));
    if (got == 0) {
        PM_LOG(0, "", "****mbeko,test, Read buf file fail,length = %d\n", static_cast<int>(got));
    }
    AnlysConfigFile(static_cast<int>(got), file);
    close(fd);
    return 0;
}

void CPeripheralManage::GetUdiskPath(char* out) {
    if (out != nullptr) {
        std::lock_guard<std::mutex> guard(m_UdiskLock);
        memcpy(out, m_szUdiskPath, sizeof(m_szUdiskPath));
    }
}

void CPeripheralManage::OnSetAutoTest(unsigned char enable) {
    m_ucTestEnable = enable;
    PM_LOG(0, "", " m_ucTestEnable=%d\n", enable);
}

int CPeripheralManage::AnlysConfigFile(int, char* text) {
    if (text == nullptr) {
        return 0;
    }
    PM_LOG(0, "", "%s \n", text);
    if (strstr(text, "TEST_ENABLE") != nullptr) {
        // Loose on purpose: "true" anywhere in the text enables the test.
        if (strstr(text, "true") != nullptr) {
            m_ucTestEnable = 1;
        } else {
            PM_LOG(0, "", "%s \n", text);
            return 0;
        }
    }
    OnSetAutoTestSerialParam();
    return 1;
}

void CPeripheralManage::OnSetAutoTestSerialParam() {
    paramSerialSetting_t setting = m_stuSystemSerialParam.stuSerialSetting;
    for (const TestPort& t : TestLayout(Q7R_GetProductType())) {
        SerialPortEntry_t& port = setting.port[t.port];
        if (t.extend < 0) {
            port.mainFun = t.mainFun;
            port.baudrate = t.baudrate;
            port.subFun = t.subFun;
        } else {
            port.extend[t.extend].mainFun = t.mainFun;
            port.extend[t.extend].baudrate = t.baudrate;
            port.extend[t.extend].subFun = t.subFun;
        }
    }
    m_pMsgClient->MSGSendMessage(0, EVENT_SERIAL_PARAM_CHANGED, 0,
                                 reinterpret_cast<const char*>(&setting), sizeof(setting),
                                 m_nMsgId);
}
