#include "PeripheralManage.h"

#include <dlfcn.h>
#include <unistd.h>

#include "CommonLog.h"
#include "CommonTime.h"
#include "ConsoleOutput.h"
#include "PeripheralEvents.h"
#include "PeripheralManageInternal.h"
#include "SerialDevOperate.h"

using manage::kLogTag;

namespace {

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

// The periodic cycle's time stamps and USB poll counter belong to the process, not to one
// manager: the host runs a single manager.
struct CycleState {
    long long nullPluginLogTime = 0;
    long long usbPollTime = 0;
    bool usbPollStarted = false;
    unsigned int usbPollCount = 0;
};
CycleState g_cycle;

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
