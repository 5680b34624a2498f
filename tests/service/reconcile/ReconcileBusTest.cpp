// Parameter-change reconciliation end to end: parameter records travel as bus events from a
// client playing the recorder, the manager thread handles them and loads, replaces and
// removes the test plug-ins of tests/plugins; the test reads the manager's and the plug-ins'
// log lines in one order.
#include <string.h>

#include <chrono>
#include <memory>
#include <string>
#include <vector>

#include <gtest/gtest.h>

#include "MsgClientManage.h"
#include "ReconcileHarness.h"

namespace rectest {
namespace {

using std::chrono::seconds;

constexpr int kRecorderModuleId = 50;
constexpr int kSerialChanged = 316;
constexpr int kCanChanged = 360;
constexpr int kEthernetChanged = 362;
constexpr int kVideoLossRequest = 1051;  // the first request of a manager past its gate

const char* const kSerialFinished = "S_MANAGE: Update Serial Instance Finished";
const char* const kCanFinished = "S_MANAGE: Update CAN Instance Finished";
const char* const kEthernetFinished = "S_MANAGE: Update Ethernet Instance Finished";

class ReconcileBusTest : public ::testing::Test {
protected:
    void StartManager(uint16_t missingParams = 0) {
        m_manage->OpenStartupGate(missingParams);
        m_manage->Initialize();
    }

    void Send(int eventId, const std::vector<uint8_t>& payload) {
        m_recorder.MSGSendMessage(0, eventId, 0, reinterpret_cast<const char*>(payload.data()),
                                  static_cast<int>(payload.size()), kRecorderModuleId);
    }

    // Sends a record and waits until the manager thread has logged `finished` once more.
    bool SendAndWait(int eventId, const std::vector<uint8_t>& payload, const char* finished) {
        const size_t before = CountPrefix(Texts(m_env.Logs()), finished);
        Send(eventId, payload);
        return pmtest::WaitUntil(
            [&] { return CountPrefix(Texts(m_env.Logs()), finished) > before; }, seconds(8));
    }

    ReconcileEnv m_env;
    CMsgClientManage m_recorder{"Recorder.test", 300000};
    std::unique_ptr<TestManage> m_manage = std::make_unique<TestManage>();
};

// What a change must do, in the order it must be done, and what it must not do.
struct ChangeCase {
    const char* name;
    int eventId;
    const char* finished;
    std::vector<uint8_t> from;
    std::vector<uint8_t> to;
    std::vector<std::string> inOrder;
    std::vector<std::string> absent;
    std::vector<std::string> live;  // "type:main:sub" after the change, registry order
};

void PrintTo(const ChangeCase& c, std::ostream* os) {
    *os << c.name;
}

class ReconcileChangeTest : public ReconcileBusTest,
                            public ::testing::WithParamInterface<ChangeCase> {};

TEST_P(ReconcileChangeTest, DoesWhatTheChangeNeedsInOrder) {
    const ChangeCase& c = GetParam();
    StartManager();
    ASSERT_TRUE(SendAndWait(c.eventId, c.from, c.finished));
    m_env.Logs().Clear();
    ASSERT_TRUE(SendAndWait(c.eventId, c.to, c.finished));
    m_manage->Stop();  // what follows reads the manager's state

    const std::vector<std::string> logs = Texts(m_env.Logs());
    EXPECT_EQ(MissingInOrder(logs, c.inOrder), "");
    for (const std::string& text : c.absent) {
        EXPECT_EQ(CountPrefix(logs, text), 0u) << text;
    }
    EXPECT_EQ(m_manage->LiveIds(), c.live);
    EXPECT_TRUE(m_manage->m_mapChangedPeripPair[PERIPHERAL_TYPE_SERIAL].empty());
    const void* kept =
        c.eventId == kSerialChanged ? static_cast<const void*>(&m_manage->m_stuSystemSerialParam)
        : c.eventId == kCanChanged  ? static_cast<const void*>(&m_manage->m_stuCanParam)
                                    : static_cast<const void*>(&m_manage->m_stuEthernetParam);
    EXPECT_EQ(memcmp(kept, c.to.data(), c.to.size()), 0);
}

std::string Serial(const char* event, unsigned int mainId, unsigned int subId,
                   const char* details = nullptr) {
    std::string text = Journal(event, "libTestSerialProbe", PERIPHERAL_TYPE_SERIAL, mainId, subId);
    return details == nullptr ? text : text + " " + details;
}

std::vector<ChangeCase> SerialCases() {
    // A plain peripheral on MCU port 0 and another on port 1; then an extension box on port 0
    // with sub-ports 0 and 3 in use (its own sub id of 5 is not the one it is created under).
    const auto plain = Bytes(SerialRecord({{0, 7, 0, 3}, {1, 8, 0, 3}}));
    const auto box =
        Bytes(SerialRecord({{0, 1, 5, 3}, {1, 8, 0, 3}}, {{0, 0, 7, 1, 3}, {0, 3, 7, 2, 3}}));
    const auto hub = Bytes(SerialRecord({{0, 149, 0, 3}, {1, 8, 0, 3}}, {{0, 0, 7, 1, 3}}));
    const auto lonelyBox = Bytes(SerialRecord({{0, 1, 0, 3}}, {{0, 0, 7, 1, 3}}));
    const auto lonelyBoxFaster = Bytes(SerialRecord({{0, 1, 0, 3}}, {{0, 0, 7, 1, 5}}));
    const char* const ignore = "S_MANAGE: Remove";
    return {
        {"PlainToExtendBox",
         kSerialChanged,
         kSerialFinished,
         plain,
         box,
         {"S_MANAGE: Remove extend serial instance, mainId = 7, subId = 0", Serial("release", 7, 0),
          "S_MANAGE: Begin create serial instance, mainId = 1, subId = 0",
          "S_MANAGE: ExtendBox instance create failed",
          "S_MANAGE: Begin create serial instance, mainId = 7, subId = 1", Serial("create", 7, 1),
          Serial("init", 7, 1, "link=0"),
          "S_MANAGE: Begin create serial instance, mainId = 7, subId = 2", Serial("create", 7, 2),
          "S_MANAGE: **** Reset serial property list size = 3****", "mainId = 1, subId = 0",
          "mainId = 7, subId = 1", "mainId = 7, subId = 2",
          Serial("param", 8, 0, "changed=0 pairs=[1:0,7:1,7:2]"),
          Serial("param", 7, 1, "changed=1 pairs=[1:0,7:1,7:2]"),
          Serial("param", 7, 2, "changed=1"),
          "S_MANAGE: Update Serial Instance Finished, instance_size = 3, changeSize = 0"},
         {"S_MANAGE: Begin create serial instance, mainId = 1, subId = 5", Serial("release", 8, 0)},
         {"0:8:0", "0:7:1", "0:7:2"}},
        {"ExtendBoxToPlain",
         kSerialChanged,
         kSerialFinished,
         box,
         plain,
         {"S_MANAGE: Remove extend serial instance, index = 0, mainId = 7, subId = 1",
          Serial("release", 7, 1),
          "S_MANAGE: Remove extend serial instance, index = 3, mainId = 7, subId = 2",
          Serial("release", 7, 2), "S_MANAGE: Remove extend serial instance, mainId = 1, subId = 5",
          "S_MANAGE: Release Peripheral Instance failed, [Not find instance], type = 0, mainID = "
          "1, subId = 0",
          "S_MANAGE: Begin create serial instance, mainId = 7, subId = 0", Serial("create", 7, 0),
          "S_MANAGE: **** Reset serial property list size = 1****", "mainId = 7, subId = 0",
          Serial("param", 8, 0, "changed=0 pairs=[7:0]"),
          Serial("param", 7, 0, "changed=1 pairs=[7:0]"),
          "S_MANAGE: Update Serial Instance Finished, instance_size = 2, changeSize = 0"},
         // No box instance exists to be told.
         {"S_MANAGE:HandlePeripParamChange", "S_MANAGE: Begin create serial instance, mainId = 1",
          Serial("release", 8, 0)},
         {"0:8:0", "0:7:0"}},
        // A box replacing a box gets no queue entries for its sub-ports.
        {"ExtendBoxToHubBox",
         kSerialChanged,
         kSerialFinished,
         box,
         hub,
         {Serial("release", 7, 1), Serial("release", 7, 2),
          "S_MANAGE: Remove extend serial instance, mainId = 1, subId = 5",
          "S_MANAGE: Begin create serial instance, mainId = 149, subId = 0",
          "S_MANAGE: ExtendHub Box instance create failed",
          "S_MANAGE: **** Reset serial property list size = 1****", "mainId = 149, subId = 0",
          "S_MANAGE: Update Serial Instance Finished, instance_size = 1, changeSize = 0"},
         {"S_MANAGE: Begin create serial instance, mainId = 7", "TEST_PLUGIN: create"},
         {"0:8:0"}},
        {"BaudRateOnly",
         kSerialChanged,
         kSerialFinished,
         plain,
         Bytes(SerialRecord({{0, 7, 0, 5}, {1, 8, 0, 3}})),
         {"S_MANAGE: **** Reset serial property list size = 1****", "mainId = 7, subId = 0",
          Serial("param", 7, 0, "changed=1 pairs=[7:0]"),
          Serial("param", 8, 0, "changed=0 pairs=[7:0]"),
          "S_MANAGE: Update Serial Instance Finished, instance_size = 2, changeSize = 0"},
         {"TEST_PLUGIN: create", "TEST_PLUGIN: release", "S_MANAGE: Begin create", ignore},
         {"0:7:0", "0:8:0"}},
        {"SubPortBaudRateOnly",
         kSerialChanged,
         kSerialFinished,
         lonelyBox,
         lonelyBoxFaster,
         {"S_MANAGE: **** Reset serial property list size = 1****", "mainId = 7, subId = 1",
          Serial("param", 7, 1, "changed=1 pairs=[7:1]"),
          "S_MANAGE: Update Serial Instance Finished, instance_size = 1, changeSize = 0"},
         {"TEST_PLUGIN: create", "TEST_PLUGIN: release", "S_MANAGE: Begin create", ignore},
         {"0:7:1"}},
        // The serial reconciliation replaces; it never switches within the library.
        {"SubIdChange",
         kSerialChanged,
         kSerialFinished,
         Bytes(SerialRecord({{0, 7, 1, 3}})),
         Bytes(SerialRecord({{0, 7, 2, 3}})),
         {"S_MANAGE: Remove serial instance, mainId = 7, subId = 1", Serial("release", 7, 1),
          "S_MANAGE: Close Dll success, type = 0, mainID = 7, subId = 1",
          "S_MANAGE: Begin create serial instance, mainId = 7, subId = 2", Serial("create", 7, 2),
          // Placed by the new record: it is in force before any instance is created.
          Serial("init", 7, 2, "link=0"), "S_MANAGE: **** Reset serial property list size = 1****",
          Serial("param", 7, 2, "changed=1 pairs=[7:2]")},
         {"S_MANAGE: Switch instance"},
         {"0:7:2"}},
        {"PortEmptied",
         kSerialChanged,
         kSerialFinished,
         plain,
         Bytes(SerialRecord({{1, 8, 0, 3}})),
         {"S_MANAGE: Remove serial instance, mainId = 7, subId = 0", Serial("release", 7, 0),
          "S_MANAGE: **** Reset serial property list size = 0****",
          Serial("param", 8, 0, "changed=0 pairs=[]"),
          "S_MANAGE: Update Serial Instance Finished, instance_size = 1, changeSize = 0"},
         {"S_MANAGE: Begin create"},
         {"0:8:0"}},
    };
}

INSTANTIATE_TEST_SUITE_P(Serial, ReconcileChangeTest, ::testing::ValuesIn(SerialCases()),
                         [](const auto& info) { return std::string(info.param.name); });

std::vector<uint8_t> CanRecord(uint8_t mainFun, uint8_t subFun, uint8_t baudrate, int port = 0,
                               uint8_t lastSetting = 0) {
    paramCanSetting_t record{};
    record.port[port].mainFun = mainFun;
    record.port[port].subFun = subFun;
    record.port[port].baudrate = baudrate;
    record.port[port].setting[16] = lastSetting;
    return Bytes(record);
}

std::vector<uint8_t> EthernetRecord(uint8_t mainFun, const char* ip, uint16_t port) {
    paramPeripheralEtherNet_t record{};
    record.entry[0].mainFun = mainFun;
    snprintf(record.entry[0].ip, sizeof(record.entry[0].ip), "%s", ip);
    record.entry[0].port = port;
    return Bytes(record);
}

std::string Can(const char* event, unsigned int subId) {
    return Journal(event, "libTestCanProbe", PERIPHERAL_TYPE_CANPORT, kCanMainId, subId);
}

std::string Ethernet(const char* event) {
    return Journal(event, "libTestEthProbe", PERIPHERAL_TYPE_ETHERNET, kEthernetMainId, 0);
}

// CAN and Ethernet instances follow the two ids of their entry and nothing else, and are
// never told about a change.
std::vector<ChangeCase> CanEthernetCases() {
    const std::vector<std::string> nothing = {"S_MANAGE: Remove", "S_MANAGE: Begin create",
                                              "TEST_PLUGIN: create", "TEST_PLUGIN: release",
                                              "TEST_PLUGIN: param"};
    return {
        {"CanBaudRateOnly",
         kCanChanged,
         kCanFinished,
         CanRecord(12, 0, 1),
         CanRecord(12, 0, 2),
         {"S_MANAGE: CAN param has changed......",
          "S_MANAGE: Update CAN Instance Finished, instance_size = 1"},
         nothing,
         {"1:12:0"}},
        {"CanOtherSettingsOnly",
         kCanChanged,
         kCanFinished,
         CanRecord(12, 0, 1),
         CanRecord(12, 0, 1, 0, 9),
         {"S_MANAGE: CAN param has changed......", kCanFinished},
         nothing,
         {"1:12:0"}},
        {"CanSubIdChange",
         kCanChanged,
         kCanFinished,
         CanRecord(12, 0, 1),
         CanRecord(12, 1, 1),
         {"S_MANAGE: Remove can instance, mainId = 12, subId = 0", Can("release", 0),
          "S_MANAGE: Begin create can instance, mainId = 12, subId = 1", Can("create", 1),
          "S_MANAGE: Update CAN Instance Finished, instance_size = 1"},
         {"TEST_PLUGIN: param"},
         {"1:12:1"}},
        // Every removal comes before every creation, across the ports.
        {"CanMovesToAnotherPort",
         kCanChanged,
         kCanFinished,
         CanRecord(12, 0, 1, 0),
         CanRecord(12, 0, 1, 1),
         {"S_MANAGE: Remove can instance, mainId = 12, subId = 0", Can("release", 0),
          "S_MANAGE: Remove can instance, mainId = 0, subId = 0",
          "S_MANAGE: Begin create can instance, mainId = 12, subId = 0", Can("create", 0)},
         {"TEST_PLUGIN: param"},
         {"1:12:0"}},
        {"EthernetAddressOnly",
         kEthernetChanged,
         kEthernetFinished,
         EthernetRecord(20, "10.0.0.1", 5000),
         EthernetRecord(20, "10.0.0.2", 5000),
         {"S_MANAGE: Ethernet param has changed......",
          "S_MANAGE: Update Ethernet Instance Finished, instance_size = 1"},
         nothing,
         {"2:20:0"}},
        {"EthernetPortOnly",
         kEthernetChanged,
         kEthernetFinished,
         EthernetRecord(20, "10.0.0.1", 5000),
         EthernetRecord(20, "10.0.0.1", 5001),
         {"S_MANAGE: Ethernet param has changed......", kEthernetFinished},
         nothing,
         {"2:20:0"}},
        {"EthernetEmptied",
         kEthernetChanged,
         kEthernetFinished,
         EthernetRecord(20, "10.0.0.1", 5000),
         EthernetRecord(0, "", 0),
         {"S_MANAGE: Remove Ethernet instance, mainId = 20, subId = 0", Ethernet("release"),
          "S_MANAGE: Update Ethernet Instance Finished, instance_size = 0"},
         {"S_MANAGE: Begin create"},
         {}},
    };
}

INSTANTIATE_TEST_SUITE_P(CanEthernet, ReconcileChangeTest, ::testing::ValuesIn(CanEthernetCases()),
                         [](const auto& info) { return std::string(info.param.name); });

// A record equal to the kept one opens the start-up gate for its family and does nothing else.
struct EqualCase {
    const char* name;
    int eventId;
    uint16_t stateBit;
    size_t size;
    const char* changedLog;
};

void PrintTo(const EqualCase& c, std::ostream* os) {
    *os << c.name;
}

const EqualCase kEqualCases[] = {
    {"Serial", kSerialChanged, PARAM_STATE_SERIAL, sizeof(paramSerialSetting_t),
     "S_MANAGE: Serial param has changed"},
    {"Can", kCanChanged, PARAM_STATE_CAN, sizeof(paramCanSetting_t),
     "S_MANAGE: CAN param has changed"},
    {"Ethernet", kEthernetChanged, PARAM_STATE_ETHERNET, sizeof(paramPeripheralEtherNet_t),
     "S_MANAGE: Ethernet param has changed"},
};

class EqualRecordTest : public ReconcileBusTest, public ::testing::WithParamInterface<EqualCase> {};

TEST_P(EqualRecordTest, OnlyClearsTheParameterStateBit) {
    const EqualCase& c = GetParam();
    bool pastGate = false;  // written and read on the test thread only
    m_recorder.RegisterHandler(kRecorderModuleId, kVideoLossRequest, [&](const char*, int) {
        pastGate = true;
        return 0;
    });
    StartManager(c.stateBit);
    ::testing::internal::CaptureStdout();
    Send(c.eventId, std::vector<uint8_t>(c.size, 0));  // the kept record is still all zero
    EXPECT_TRUE(pmtest::WaitUntil(
        [&] {
            m_recorder.MSGWaitForEvent(10);
            return pastGate;
        },
        seconds(8)));
    m_manage->Stop();
    const std::string printed = ::testing::internal::GetCapturedStdout();

    EXPECT_EQ(m_manage->m_nParamState, 0);
    EXPECT_EQ(CountPrefix(Texts(m_env.Logs()), c.changedLog), 0u);
    EXPECT_EQ(printed.find("PARAM#############"), std::string::npos) << printed;
    EXPECT_TRUE(m_manage->m_listPeripheralPlugin.empty());
}

INSTANTIATE_TEST_SUITE_P(Reconcile, EqualRecordTest, ::testing::ValuesIn(kEqualCases),
                         [](const auto& info) { return std::string(info.param.name); });

}  // namespace
}  // namespace rectest
