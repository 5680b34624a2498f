// The serial extension box: a built-in serial peripheral on one line of the recorder that
// carries up to four further serial ports (sub-ports) in framed packets, and that takes
// firmware upgrades over the same line. docs/extension-box-frames.md describes the link.
//
// Threads. Received frames arrive on the serial reader thread (main-chip line, under the
// receive-buffer lock) or on the manager thread (MCU-relayed line); the thread cycle and the
// bus handlers run on the manager thread; sub-ports send through the box from their own
// threads. Scalars shared between them are atomics. m_ChildLock guards the child table and is
// held from the look-up of a child to the end of the hand-over, so that a child the manager
// releases (DetachChild first) is either served to the end or no longer found.
// m_UpgradeLock orders the steps of an upgrade, which come from both threads (answers on the
// line, bus handlers and time-outs on the manager thread): each step, its state broadcast and
// the flags it changes happen as one. m_StateLock guards the version text and the upgrade
// records and is a leaf: nothing is sent while it is held. Order: m_UpgradeLock, then
// m_StateLock; m_ChildLock is never held with either.
#ifndef SERIALBASIC_SERIAL_DEV_EXTEND_BOX_H
#define SERIALBASIC_SERIAL_DEV_EXTEND_BOX_H

#include <atomic>
#include <cstdint>
#include <map>
#include <mutex>
#include <vector>

#include <json/json.h>

#include "PeripheralBase.h"
#include "PeripheralManage.h"
#include "ExtendUpgradeSession.h"
#include "SerialBase.h"
#include "SubPortHost.h"

// What the box and the hub box differ in; everything else is one code.
struct ExtendBoxVariant {
    const char* logTag;     // "S1_EXTEND_BOX: "
    const char* className;  // in the construction and destruction logs
    unsigned char devId;    // device byte of the box's own frames
    int heartbeatLimit;     // unanswered keep-alives before the box counts as offline
    const char* fileFlag;   // what the file request (6705) asks for
};

class CSerialDevExtendBox : public CSerialBase, public CSubPortHost {
public:
    CSerialDevExtendBox(CPeripheralManage* manage, CMsgClientManage* client, unsigned int mainId,
                        unsigned int subId);
    ~CSerialDevExtendBox() override;

    int PeripheralThreadCycle(long long now) override;
    int MessageRegister() override;
    int MessageUnRegister() override;
    // Rebuilds the child table from the current serial setting. Manager thread.
    int HandlePeripParamChange() override;
    // Answers that reach the box unframed (device byte, then the answer): the MCU-relayed line.
    int ProcessPeripheralData() override;

    // ---- link ----
    // One frame to the box: the send's result, -1 for an unknown command or a failed stuffing,
    // 0 when the ids are out of range.
    int MakeAndSendCmd(eExtendBoxCmd cmd, unsigned char subId, unsigned char devId,
                       unsigned int length, const unsigned char* payload);
    // A sub-port's bytes, shaped by its protocol type. 0 while upgrading, -1 when too short.
    int SendSubSerialData(eSerialProtocolType type, unsigned char index, unsigned int length,
                          const char* data) override;
    // Line settings of sub-port `index`; the second argument is not read.
    int SetSubSerialProperty(unsigned char index, unsigned char, SerialBaudRate baud,
                             SerialDataBitMode dataBit, SerialStopBitMode stopBit,
                             SerialParityMode parity, SerialFlowControlMode flow) override;
    // One stuffed frame cut from the line, marks included.
    int DispatchExtendSerialData(unsigned int length, const char* frame) override;
    // One answer of the box: command, length, payload.
    int AnalySerialData(unsigned int length, const char* answer);

    // ---- lifecycle ----
    int HandleRecvTimeout(long long now);
    int BroadcastExtendBoxVersion();
    int OnGetExtendVersion(const char* msg, int len);

    // ---- upgrade ----
    int OnTriggerExtendUpgrade(const char* msg, int len);
    int OnGetExtendUpgradeFileAck(const char* msg, int len);
    int OnGetExtendUpgradeState(const char* msg, int len);
    void SendExtendBoxUpgradeData(int line);
    void BroadcastUpgradeState(enumPeripheralUpgradeState state, unsigned char source,
                               bool finished);
    void HandleUpgradeFailed();

    // For tests and tools.
    unsigned char GetParamId() const { return m_ucParamId; }
    std::vector<char> GetVersionText() const;
    uint32_t GetPendingSetup() const { return m_nPendingSetup.load(); }
    int GetHeartbeatCount() const { return m_nHeartbeatCount.load(); }
    uint8_t GetSubPropertySetFlag() const { return m_nSubPropertySetFlag.load(); }
    CSerialBase* GetChild(unsigned char index) const;
    size_t GetChildCount() const;
    // The manager, before it releases `child`: every slot that holds it is emptied, after
    // any hand-over to it has ended. Manager thread.
    void DetachChild(const CSerialBase* child);

protected:
    CSerialDevExtendBox(CPeripheralManage* manage, CMsgClientManage* client, unsigned int mainId,
                        unsigned int subId, const ExtendBoxVariant& variant);

    // What the hub box adds. An answer that the box does not know: true when taken.
    virtual bool AnalyseVariantAnswer(unsigned char cmd, unsigned int length,
                                      const unsigned char* answer);
    // The keep-alive limit was reached (called once per cycle while it holds).
    virtual void OnHeartbeatLost();
    // Five seconds after a successful END, after state 10 was broadcast.
    virtual void OnUpgradeFinished();

    // For the variants: the version is unknown again (link mode and version are asked for
    // anew), or only the version is to be read again.
    void ForgetVersion();
    void RequestVersion();
    void ResetHeartbeat() { m_nHeartbeatCount = 0; }
    // A keep-alive or version answer: the count starts again, and a box reported offline is
    // reported back.
    void HeardFromBox();
    // Answers the bus request `request` (a whole message, head first) with `answer`.
    int Respond(const char* request, const void* answer, size_t size);

    const ExtendBoxVariant& m_variant;
    unsigned char m_ucParamId;

private:
    // The sub-port and the box's own place fit the frame's address byte (logged when not).
    bool FrameIdsFit(unsigned char subId) const;
    // Unstuffs and checks a frame, then hands it to `child`, or to AnalySerialData when null.
    int DispatchFrame(unsigned int length, const char* frame, CSerialBase* child);
    void StoreUpgradeAnswerTime();
    // One answer of the box as the line brought it: the whole of it, and its payload.
    struct BoxAnswer {
        unsigned char cmd;
        unsigned int length;
        const unsigned char* bytes;
        unsigned int payloadLength;
        const unsigned char* payload;
        unsigned char Result() const { return payloadLength >= 1 ? payload[0] : 0; }
    };
    // The answers of the box by command (AnalySerialData's table). m_UpgradeLock held.
    void TakeUpgradeAnswer(const BoxAnswer& answer);
    void TakeVersion(const BoxAnswer& answer);
    void TakeHeartbeat(const BoxAnswer& answer);
    void TakeSubSettingResult(const BoxAnswer& answer);
    void TakeMcuTestResult(const BoxAnswer& answer);
    void TakeLinkModeResult(const BoxAnswer& answer);
    // An answer to START, a line or END. m_UpgradeLock held.
    void AnalyseUpgradeAnswer(unsigned char cmd, unsigned int payloadLength,
                              const unsigned char* payload);
    // A trigger refused (its state sent) when another source's upgrade runs, the version is
    // unknown, the source is none of 0-2 or another box waits for its file.
    bool RefusesTrigger(unsigned char source);
    // The file request (6705) with this box's flag.
    void RequestUpgradeFile();
    // The file holds the version the box runs (state 8 sent): nothing to transfer.
    bool SameVersionAsFile(unsigned char source);
    // The state record for `source` on the bus, and in that source's record; nothing else.
    void SendUpgradeState(enumPeripheralUpgradeState state, unsigned char source);
    // Refuses a trigger with `state`: a finished broadcast when idle, only the record while
    // another upgrade runs, which a refusal must leave alone.
    void RefuseUpgrade(enumPeripheralUpgradeState state, unsigned char source);
    void FinishUpgrade();
    unsigned char UpgradeSource() const;
    void FillVersionRecord(ExtendVersionRecord_t& record, unsigned char source, bool wholeFlag);
    bool PublishedVersion(char (&out)[EXTEND_BOX_VERSION_SIZE]) const;
    int SendOwnCmd(eExtendBoxCmd cmd, unsigned int length, const unsigned char* payload) {
        return MakeAndSendCmd(cmd, 0, m_variant.devId, length, payload);
    }
    void SetSubPropertiesDue();

    mutable std::recursive_mutex m_UpgradeLock;  // see above
    // Set when the file request (6705) went out; a file record is taken only then.
    bool m_bAwaitingFile = false;  // m_UpgradeLock
    // The upgrade-in-progress marker: from START until the END answer or the end of the
    // upgrade. Answers to START, lines and END are taken only while it is set.
    bool m_bTransferRunning = false;            // m_UpgradeLock
    mutable std::mutex m_StateLock;             // leaf; see above
    char m_szVersion[EXTEND_BOX_VERSION_SIZE];  // m_StateLock
    mutable std::mutex m_ChildLock;
    std::map<uint8_t, CSerialBase*> m_mapChild;  // m_ChildLock; not owned
    std::atomic<uint8_t> m_nSubPropertySetFlag;
    CExtendUpgradeSession m_session;        // m_StateLock
    std::atomic<int> m_nPendingCmd;         // -1 whenever an answer has been taken
    std::atomic<uint32_t> m_nPendingSetup;  // bit 0 read the version, bit 1 set the link mode
    std::atomic<int> m_nHeartbeatCount;
    std::atomic<int64_t> m_llUpgradeEndTime;  // clock of the successful END answer; 0: none
    // A version answer re-runs the child set-up on the manager thread, which owns the registry
    // it reads: the answer itself may arrive on the serial reader thread.
    std::atomic<bool> m_bChildSetupDue;
    // Between the offline line and the first answer after it.
    std::atomic<bool> m_bReportedOffline;
    Json::Value m_jsonSpecInfo;
    std::string m_strFlagText;
};

#endif
