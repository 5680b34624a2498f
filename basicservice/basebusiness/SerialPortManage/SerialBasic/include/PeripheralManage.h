// The peripheral manager: the service object that the host creates through Create(). It owns
// the bus client, the serial device layer, the configuration and every peripheral instance.
// Plug-ins reach it through the getters below.
#ifndef SERIALBASIC_PERIPHERAL_MANAGE_H
#define SERIALBASIC_PERIPHERAL_MANAGE_H

#include <pthread.h>

#include <atomic>
#include <cstdint>
#include <list>
#include <map>
#include <mutex>
#include <set>
#include <string>
#include <tuple>
#include <vector>

#include <json/json.h>

#include "BasicServiceExport.h"
#include "CommonThread.h"
#include "MsgClientManage.h"
#include "PeripheralBase.h"
#include "PeripheralDefine.h"
#include "ServiceBase.h"
#include "SysConfig.h"

class CSerialBase;
class CSerialDevOperate;
struct PortFamily;
struct SerialPortStep;

// The record of one live instance.
struct PeripheralProperty_t {
    void* pLibHandle;              // from dlopen; null for the built-in extension boxes
    PeripheralCreateFn pCreate;    // PeripheralCreate, or the built-in factory
    PeripheralReleaseFn pRelease;  // PeripheralRelease, or the built-in releaser
    std::string strName;           // configured library name; empty for the built-ins
    CPeripheralBase* pInstance;    // null after a release
};

// Bits of m_nParamState: set while the parameter has not arrived yet.
enum : uint16_t {
    PARAM_STATE_IPC = 0x0001,
    PARAM_STATE_SERIAL = 0x0002,
    PARAM_STATE_CAN = 0x0004,
    PARAM_STATE_ETHERNET = 0x0008,
    PARAM_STATE_FTP = 0x0010,
};

// Bits of m_nStatusState: set once the recorder state has been received.
enum : uint32_t {
    STATUS_STATE_DIGITAL_VLOSS = 0x01,
    STATUS_STATE_VLOSS = 0x02,
    STATUS_STATE_LED = 0x04,
};

// Bits of m_nCurPeripheral: which peripheral kinds the configuration holds.
enum : uint8_t {
    CUR_PERIPHERAL_SERIAL = 0x01,
    CUR_PERIPHERAL_CAN = 0x02,
    CUR_PERIPHERAL_ETHERNET = 0x04,
};

// Threads: bus handlers, reconciliation, the registry and the shared cycle run on the manager
// thread. The getters marked "any thread" may be called from peripheral threads.
class BASICSERVICE_API CPeripheralManage : public Common::CThread, public CServiceBase {
public:
    CPeripheralManage();
    ~CPeripheralManage() override;

    int Initialize();
    int ThreadFuncImpl() override;
    void PhmThreadCycle(long long now);
    void GetPeripheralConfig(ePeripheralType type, std::vector<PeripheralProperty>& out);

    // Bus registrations of the manager.
    int PhmMessageRegister();
    int PhmMessageUnRegister();

    // Configuration document "DEVICE_SERIAL_EXTEND_CFG": 1 read, 0 missing.
    int AnalysePeripheralConfig();

    // Plug-in loader and instance registry (manager thread). Two result conventions meet here,
    // kept as callers have always seen them: the built-in boxes answer 1 created / 0 not, the
    // libraries 0 / -1.
    //
    // 1: a built-in box (serial 1:0 or 149:0) was created. 0: the same instance exists, a box
    // could not be created, or whatever OpenPeripheralLib returned.
    int CreatePeripheralInstance(ePeripheralType type, unsigned int mainId, unsigned int subId);
    // 0: loaded and registered, and also when no file matched or the creator gave null.
    // -1: no library name, no folder, dlopen failed, or an entry point is missing.
    int OpenPeripheralLib(ePeripheralType type, unsigned int mainId, unsigned int subId);
    // Remove then create for a new main id; a switch for a new sub id; 0 for no change.
    int LoadPeripheralPlugin(ePeripheralType type, unsigned int oldMainId, unsigned int oldSubId,
                             unsigned int newMainId, unsigned int newSubId);
    // 0 switched; -1 no creator, or the creator gave null (the record stays without instance);
    // -2 no record found.
    int SwitchPeripheralInSameLib(unsigned int mainId, unsigned int oldSubId,
                                  unsigned int newSubId);
    // 0 released (or a record without instance taken, whatever the ids), -1 none found.
    int RemovePeripheralInstance(ePeripheralType type, unsigned int mainId, unsigned int subId);
    CPeripheralBase* GetPeripheralInstance(ePeripheralType type, unsigned int mainId,
                                           unsigned int subId);
    // As GetPeripheralInstance, but null for an instance that the running reconciliation is
    // about to release: a box told of a change before the removals must not keep it.
    CPeripheralBase* GetKeptPeripheralInstance(ePeripheralType type, unsigned int mainId,
                                               unsigned int subId);
    // Index of the peripheral's entry in the current parameter setting, or 255.
    unsigned char GetPeripheralParamId(ePeripheralType type, unsigned int mainId,
                                       unsigned int subId);
    // User-visible port number 0-3 of a serial peripheral, or 0.
    unsigned char GetPeripheralUiId(ePeripheralType type, unsigned int mainId, unsigned int subId);

    // Parameter-change reconciliation.
    int OnUpdateSerialParamSetting(const char* data, int length);
    int OnUpdateCanParamSetting(const char* data, int length);
    int OnUpdateEthernetParamSetting(const char* data, int length);
    int UpdateSerialInstance(const paramSerialSetting_t& setting);
    int UpdateCanInstance(const paramCanSetting_t& setting);
    int UpdateEthernetInstance(const paramPeripheralEtherNet_t& setting);
    void GetChangedPeripPair(ePeripheralType type, std::vector<PeripheralPair>& out);
    // 1 when (mainId, subId) is among the changed serial peripherals. Valid only inside
    // HandlePeripParamChange.
    int CheckPeripPropertyChanged(ePeripheralType type, unsigned int mainId, unsigned int subId);
    int PrintPeripheralParam(ePeripheralType type, void* record);

    // Device status relay: bus handlers.
    int OnSetDebugLevel(const char* data, int length);
    int OnDeviceModuleComplete(const char* data, int length);
    int OnDeviceModuleReleaseSerial(const char* data, int length);
    int OnUpdataIPCSetting(const char* data, int length);
    int OnUpdataDigitalVideoLossStatus(const char* data, int length);
    int OnUpdataVideoLossStatus(const char* data, int length);
    int OnUpdateLedState(const char* data, int length);
    int OnUpdataStorageStatus(const char* data, int length);
    int OnUpdateDeviceVehicleInfo(const char* data, int length);
    int OnGetFtpParam(const char* data, int length);
    int OnProcessPowerdown(const char* data, int length);
    int OnDispatchProxyData(const char* data, int length);
    int OnGetUpgradingPeripInfo(const char* data, int length);
    // Alarm speech. 1 after a complete pass of the document, 0 when it cannot be had.
    int AnalyseAlarmTtsConfig();
    // The record of (mainId, subId), or null; any thread. The record stays valid until the
    // manager goes (a reload files new records beside the old ones).
    LinkSpeech_t* GetTtsAlarmSpeechConfig(unsigned int mainId, unsigned int subId);
    void ReleaseAlarmTtsSpeech();
    int OnSwitchLanguageFinished(const char* data, int length);
    // USB disk and the factory self-test.
    int OnGetUsbState(const char* data, int length);
    int OnGetUDiskInfo(const char* data, int length);
    // The mount folder of the disk last seen, 32 bytes. Any thread.
    void GetUdiskPath(char* out);
    // Enables or disables the self-test flag. Any thread.
    void OnSetAutoTest(unsigned char enable);
    // 1 when the test serial layout was sent, 0 when the file disables the test.
    int AnlysConfigFile(int length, char* text);
    void OnSetAutoTestSerialParam();

    // Getters for plug-ins (any thread).
    unsigned int GetViChnNum() const { return m_nViChnNum; }
    unsigned int GetDigitalChnNum() const { return m_nDigitalChnNum; }
    unsigned int GetTotalChnNum() const { return m_nTotalChnNum; }
    unsigned int GetCurVideoLossState() const;
    // The last serial setting and the main-chip paths. Written on the manager thread only.
    SerialParam_t* GetSystemSerialParam() { return &m_stuSystemSerialParam; }
    // The last Ethernet and CAN settings. Written on the manager thread only.
    const paramPeripheralEtherNet_t* GetEthernetParam() const { return &m_stuEthernetParam; }
    const paramCanSetting_t* GetCanParam() const { return &m_stuCanParam; }
    CSerialDevOperate* GetSerialDevOperatePtr() const { return m_pSerialDevOperate; }
    // Copies the 12 LED panel bytes; nothing when out is null.
    void GetCurSysLedState(unsigned char* out);
    void GetFtpParam(tag_MsgFtpSetting& out);
    unsigned int GetDebugLevel() const { return m_nDebugLevel; }
    // Whether hex_dump at `level` prints: a caller builds the dump's title only then, since
    // formatting it on every send and receive would cost more than the bytes' own path.
    bool DumpsAt(int level) const { return static_cast<long long>(m_nDebugLevel.load()) >= level; }

    // The tty that the recorder's co-processor may hold: 1 while it is held.
    unsigned char CheckCpxOccupancySerial(std::string path);
    void BroadcastCpxSerialRelease(std::string path);

    // Hex dump to standard output when the debug level is at least `level`.
    void hex_dump(std::string title, const char* data, unsigned int length, int level);

    CMsgClientManage* GetMsgClient() const { return m_pMsgClient; }
    int GetMsgId() const { return m_nMsgId; }

protected:
    // Unless a lock is named, a member is touched on the manager thread only (its handlers,
    // the reconciliation, the registry, the cycle) and needs none.
    eProductType m_eServiceProductType;
    CMsgClientManage* m_pMsgClient;
    int m_nMsgId;
    int m_nServiceState;
    std::map<ePeripheralType, std::map<unsigned int, std::string>> m_mapPeripheralLibName;
    std::list<PeripheralProperty_t> m_listPeripheralPlugin;
    uint8_t m_nCurPeripheral;
    Json::Value m_jsonPeripheralCfg;
    uint16_t m_nParamState;
    SerialParam_t m_stuSystemSerialParam;
    paramCanSetting_t m_stuCanParam;
    paramPeripheralEtherNet_t m_stuEthernetParam;
    uint8_t m_stuIpcSetting[IPC_SETTING_SIZE];
    uint32_t m_nViChnNum;
    uint32_t m_nDigitalChnNum;
    uint32_t m_nTotalChnNum;
    pthread_mutex_t m_VideoLossLock;          // guards the read-modify-write of the mask below
    std::atomic<uint32_t> m_nVideoLossState;  // written under m_VideoLossLock, read without
    uint32_t m_nStatusState;
    pthread_mutex_t m_LedLock;                 // guards m_stuSysLedState and m_stuVehicleInfo
    uint8_t m_stuSysLedState[LED_STATE_SIZE];  // m_LedLock
    uint8_t m_stuStorageStatus[STORAGE_STATE_SIZE];
    uint8_t m_stuVehicleInfo[VEHICLE_INFO_SIZE];  // m_LedLock
    eProductType m_nProductType;
    pthread_mutex_t m_FtpLock;          // guards m_stuFtpSetting
    tag_MsgFtpSetting m_stuFtpSetting;  // m_FtpLock
    uint8_t m_ucDeviceModuleReady;
    CSerialDevOperate* m_pSerialDevOperate;
    std::map<ePeripheralType, std::vector<PeripheralProperty>> m_mapPeripheralConfig;
    std::atomic<uint8_t> m_ucCpxOccupy;   // read by the main-chip links' open threads
    std::atomic<uint8_t> m_ucTestEnable;  // set by plug-ins (OnSetAutoTest) on their threads
    uint8_t m_ucisPlugIn;
    std::atomic<unsigned int> m_nDebugLevel;  // read by every thread that dumps bytes
    std::map<ePeripheralType, std::vector<PeripheralPair>> m_mapChangedPeripPair;

private:
    // Pieces of the manager thread's pass.
    void SendParamRequests();
    void SendStatusRequests(long long now);

    // Pieces of AnalysePeripheralConfig.
    void AnalyseSerialConfig(const Json::Value& entries);
    void AnalysePortConfig(const PortFamily& family, const Json::Value& entries);
    void AnalyseMainChipSerialPath(const Json::Value& entries);

    // Pieces of the loader: a built-in box (1 created, 0 not), a library file (the result of
    // OpenPeripheralLib).
    int CreateBuiltInBox(PeripheralCreateFn create, PeripheralReleaseFn release,
                         unsigned int mainId, const char* failText);
    int LoadPeripheralLibFile(const char* path, const std::string& name, ePeripheralType type,
                              unsigned int mainId, unsigned int subId);
    // Hands the record's instance to its releaser (the serial reader delivers nothing to it
    // from here on, and no box or sub-port reaches it any more) and clears it.
    void ReleaseInstance(PeripheralProperty_t& record);
    // Boxes and their sub-ports point at each other without owning: the side that goes is
    // taken out of the other side's reach first. Returns the sub-ports that lost their father.
    std::vector<CSerialBase*> DetachSerialLinks(const CSerialBase* leaving);

    // The parameter families' common handler and the CAN and Ethernet reconciliation.
    int OnUpdateParamSetting(const PortFamily& family, const char* data, int length);
    int UpdatePortInstances(const PortFamily& family, const uint8_t* record);
    uint8_t* KeptParamRecord(ePeripheralType type);

    // Pieces of UpdateSerialInstance, one port at a time.
    void ReconcileSerialPort(const SerialPortEntry_t& oldPort, const SerialPortEntry_t& newPort,
                             std::vector<PeripheralPair>& createQueue,
                             std::vector<PeripheralPair>& changed);
    void TakeSerialStep(const SerialPortStep& step, std::vector<PeripheralPair>& createQueue,
                        std::vector<PeripheralPair>& changed);
    void CreateQueuedSerialInstances(const std::vector<PeripheralPair>& createQueue,
                                     std::vector<PeripheralPair>& changed);
    void NotifySerialParamChange();
    // The instances that the steps for `fresh` will release, and the sub-port entries of
    // `fresh` that are refused (logged).
    void MarkLeavingSerialInstances(const paramSerialSetting_t& old,
                                    const paramSerialSetting_t& fresh);
    void LogRefusedSubPorts(const paramSerialSetting_t& fresh);

    // Digital flag and protocol of channel n's IPC entry; false (both 0) for a channel the
    // IPC setting has no entry for.
    bool GetIpcChannel(unsigned int channel, uint8_t& digital, uint8_t& protocol) const;

    // Guards the writes of the three kept parameter records (manager thread) against the
    // readers on other threads: GetPeripheralParamId, which state reports call.
    std::mutex m_ParamRecordLock;
    // Instances that the running serial reconciliation will release; empty outside it.
    std::set<const CPeripheralBase*> m_setLeavingInstances;
    long long m_llStatusPollTime;  // clock value of the last poll of the recorder states
    bool m_bStatusPolled;          // false until the first running pass has polled

protected:
    // Appended after every member that a plug-in's inline getter reads, so that those keep
    // their offsets.
    Json::Value m_jsonAlarmTtsCfg;
    // Written on the manager thread, read by plug-ins from theirs: m_TtsLock guards both maps.
    // No record is freed before the manager goes, since a plug-in may hold one; a reload that
    // makes a record byte for byte like one made before for the same ids takes that one
    // instead, so language switches keep one record per entry and language however often
    // they come.
    pthread_mutex_t m_TtsLock;
    std::map<unsigned int, std::map<unsigned int, LinkSpeech_t*>> m_mapAlarmTtsSpeech;
    // By ids and bytes; owns every record.
    std::map<std::tuple<unsigned int, unsigned int, std::string>, LinkSpeech_t*> m_mapTtsRecords;
    // Written by the disk handler, read by GetUdiskPath on any thread.
    std::mutex m_UdiskLock;
    char m_szUdiskPath[32];  // m_UdiskLock
};

// The service library's entry for the host.
extern "C" BASICSERVICE_API CServiceBase* Create();

// Built-in extension boxes (serial main ids 1 and 149, sub id 0). A release stops the
// instance's thread and deletes it; it answers 1, also for null.
BASICSERVICE_API CPeripheralBase* ExtendBoxCreate(CPeripheralManage* manage,
                                                  CMsgClientManage* client, unsigned int mainId,
                                                  unsigned int subId);
BASICSERVICE_API int ExtendBoxRelease(CPeripheralBase* instance);
BASICSERVICE_API CPeripheralBase* ExtendBoxHubCreate(CPeripheralManage* manage,
                                                     CMsgClientManage* client, unsigned int mainId,
                                                     unsigned int subId);
BASICSERVICE_API int ExtendBoxHubRelease(CPeripheralBase* instance);

#endif
