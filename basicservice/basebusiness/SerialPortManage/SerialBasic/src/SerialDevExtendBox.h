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
#include "SerialBase.h"

// Commands of the box's own frames (the command byte, offset 4).
enum eExtendBoxCmd : unsigned char {
    EXTEND_BOX_CMD_SUB_SERIAL_DATA = 0x00,  // no command byte: a sub-port's bytes
    EXTEND_BOX_CMD_UPGRADE_START = 0x01,
    EXTEND_BOX_CMD_UPGRADE_DATA = 0x02,
    EXTEND_BOX_CMD_UPGRADE_END = 0x03,
    EXTEND_BOX_CMD_GET_VERSION = 0x04,
    EXTEND_BOX_CMD_HUB_IO_STATUS = 0x06,
    EXTEND_BOX_CMD_HEARTBEAT = 0x07,
    EXTEND_BOX_CMD_SET_SUB_SERIAL = 0x20,
    EXTEND_BOX_CMD_MCU_TEST = 0x40,  // sent as 0x41, answered as 0x40
    EXTEND_BOX_CMD_SET_TRANSFORM_TYPE = 0xA0,
};

// Upgrade states as broadcast in the state record (6707).
enum enumPeripheralUpgradeState {
    PERIPHERAL_UPGRADE_DOING = 0,
    PERIPHERAL_UPGRADE_OFFLINE = 4,
    PERIPHERAL_UPGRADE_FILE_ERROR = 5,
    PERIPHERAL_UPGRADE_FILE_NOT_FOUND = 6,
    PERIPHERAL_UPGRADE_BUSY = 7,
    PERIPHERAL_UPGRADE_SAME_VERSION = 8,
    PERIPHERAL_UPGRADE_FAILED = 9,
    PERIPHERAL_UPGRADE_SUCCESS = 10,
    PERIPHERAL_UPGRADE_STATE_END = 11,  // not a state: every value from here on is refused
};

enum : unsigned int {
    EXTEND_BOX_DEV_ID = 0x04,
    EXTEND_BOX_FRAME_SIZE = 1024,  // the frame builders' and the receive path's buffers
    EXTEND_BOX_MAX_SUB_ID = 4,
    EXTEND_BOX_MAX_PARAM_ID = 12,
    EXTEND_BOX_VERSION_SIZE = 32,
    EXTEND_BOX_STATE_RECORDS = 7,
    EXTEND_BOX_UPGRADE_SOURCES = 4,  // records of sources 0-3 are the ones kept up to date
};

// Upgrade state record (6707, and the answer to 6708).
struct ExtendUpgradeState_t {
    uint8_t source;  // 0xFF: never used
    uint8_t state;   // enumPeripheralUpgradeState
    int8_t percent;
    uint8_t reserved0[2];
    uint8_t mainId;
    uint8_t subId;
    uint8_t devId;
    uint8_t reserved1[5];
    char flag[48];    // the localised "STR_EXTEND_BOX_FLAG"
    uint8_t flagEnd;  // 0x04
    uint8_t reserved2[23];
};
static_assert(sizeof(ExtendUpgradeState_t) == 85, "upgrade state record is 85 bytes");

// Version record (6710, and the answer to 6711).
struct ExtendVersionRecord_t {
    uint8_t type;  // 0
    uint8_t mainId;
    uint8_t subId;
    uint8_t devId;
    uint8_t reserved0[5];
    uint8_t source;
    uint8_t count;  // 1 when the box's version is known
    uint8_t reserved1[10];
    char flag[16];
    char version[32];
    uint8_t versionDevId;  // devId when a version is present
    uint8_t reserved2[175];
};
static_assert(sizeof(ExtendVersionRecord_t) == 245, "version record is 245 bytes");

// Payload of 39473, the recorder's answer to the file request: a head, then the file data.
enum : unsigned int {
    UPGRADE_FILE_NAME_OFFSET = 4,
    UPGRADE_FILE_NAME_SIZE = 64,
    UPGRADE_FILE_LENGTH_OFFSET = 68,
    UPGRADE_FILE_HEAD_OFFSET = 104,  // the file data begins here
    UPGRADE_FILE_HEAD_SIZE = 100,
    UPGRADE_FILE_COUNT_OFFSET = 200,  // N, the number of entries after the head
    UPGRADE_FILE_ENTRY_SIZE = 80,
    UPGRADE_FILE_CRC_OFFSET = 268,        // entry 0: the image's check value
    UPGRADE_FILE_IMAGE_LEN_OFFSET = 280,  // entry 0: the image length
    UPGRADE_FILE_MIN_SIZE = 284,
    UPGRADE_LINE_SIZE = 64,  // image bytes per upgrade line
};

struct tag_msgPeripheralUpgradeFile;  // the 39473 payload; read through the offsets above

// What the box and the hub box differ in; everything else is one code.
struct ExtendBoxVariant {
    const char* logTag;     // "S1_EXTEND_BOX: "
    const char* className;  // in the construction and destruction logs
    unsigned char devId;    // device byte of the box's own frames
    int heartbeatLimit;     // unanswered keep-alives before the box counts as offline
    const char* fileFlag;   // what the file request (6705) asks for
};

// The reflected CRC-32 register of IEEE 802.3, table-driven, without the usual inversions:
// `crc` goes in as it is and the register comes out as it is.
unsigned long Crc_32(unsigned long crc, const unsigned char* data, unsigned long len);

class CSerialDevExtendBox : public CSerialBase {
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
                          const char* data);
    // Line settings of sub-port `index`; the second argument is not read.
    int SetSubSerialProperty(unsigned char index, unsigned char, SerialBaudRate baud,
                             SerialDataBitMode dataBit, SerialStopBitMode stopBit,
                             SerialParityMode parity, SerialFlowControlMode flow);
    // One stuffed frame cut from the line, marks included.
    int DispatchExtendSerialData(unsigned int length, const char* frame);
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
    // 0 when the file is usable. `length` bounds every read of the record.
    int AnalyseUpgradeFile(const tag_msgPeripheralUpgradeFile* record, unsigned int length);
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
    struct UpgradeBlock {
        int32_t source;
        char fileName[UPGRADE_FILE_NAME_SIZE];
        char newVersion[EXTEND_BOX_VERSION_SIZE];
        uint32_t imageLength;
        uint32_t bytesSent;
        uint32_t imageCrc;
        int32_t curState;
        int64_t lastAnswerTime;
        int8_t percent;
    };

    // Unstuffs and checks a frame, then hands it to `child`, or to AnalySerialData when null.
    int DispatchFrame(unsigned int length, const char* frame, CSerialBase* child);
    void FillStateRecords();
    void StoreUpgradeAnswerTime();
    // An answer to START, a line or END. m_UpgradeLock held.
    void AnalyseUpgradeAnswer(unsigned char cmd, unsigned int payloadLength,
                              const unsigned char* payload);
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
    void ReleaseUpgradeImage();

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
    UpgradeBlock m_stuUpgrade;                                         // m_StateLock
    std::vector<unsigned char> m_vecImage;                             // m_StateLock
    ExtendUpgradeState_t m_stuUpgradeState[EXTEND_BOX_STATE_RECORDS];  // m_StateLock
    std::atomic<int> m_nPendingCmd;         // -1 whenever an answer has been taken
    std::atomic<int> m_nNextLine;           // the upgrade line the next acknowledgement must name
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
