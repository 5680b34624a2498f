// The extension box against a line it really owns: the manager creates it for the box's
// entry on main-chip port 4, whose tty is a pseudo-terminal; the test plays the box's
// firmware on the other end with pm-boxsim's frame code. Without the manager thread the test
// thread is the manager: it runs the box's cycle itself, with the clock values it chooses.
#include <gtest/gtest.h>

#include <algorithm>
#include <atomic>
#include <cstring>
#include <memory>
#include <string>
#include <thread>
#include <vector>

#include "BoxTestSupport.h"
#include "PeripheralEvents.h"
#include "SerialDevExtendBoxHub.h"

namespace {

using boxsim::Frame;
using boxtest::BoxEnd;
using boxtest::Child;
using boxtest::kChildId;
using boxtest::kFrameChild;
using pmtest::SerialSetting;
using pmtest::ServiceHarness;
using pmtest::WaitUntil;

struct BoxFixture {
    explicit BoxFixture(const std::string& systemConfig = "{}")
        : service(std::make_unique<ServiceHarness>(boxtest::Config(end.line.SlavePath()),
                                                   systemConfig)) {
        service->Register();
    }
    // The box on port 4 with the given sub-port entries (index, main id, baud).
    CSerialDevExtendBox* Place(const std::vector<pmtest::SerialEntry>& children = {}) {
        std::vector<pmtest::SerialEntry> entries = {{4, 1, 0, 1}};
        entries.insert(entries.end(), children.begin(), children.end());
        EXPECT_TRUE(service->SendSetting(SerialSetting(entries)));
        return dynamic_cast<CSerialDevExtendBox*>(
            service->Manager().GetPeripheralInstance(PERIPHERAL_TYPE_SERIAL, 1, 0));
    }
    Child* AddChild(unsigned mainId) { return boxtest::AddChild(*service, mainId); }

    BoxEnd end;
    std::unique_ptr<ServiceHarness> service;
};

std::vector<uint8_t> Body(const std::string& hex) {
    return boxtest::Hex(hex);
}

// ---- frames the service sends ----

// Sub-port plug-ins on their own threads and the upgrade's lines share one box line, whose
// peer reads in small bites: the line fills, writes go out in parts, and still every frame
// arrives whole and checked, none mixed into another.
TEST(ExtendBoxLink, FramesFromFourThreadsReachTheLineWhole) {
    BoxFixture f;
    CSerialDevExtendBox* box = f.Place();
    ASSERT_NE(box, nullptr);
    constexpr int kFrames = 150;
    std::vector<std::thread> writers;
    std::atomic<int> refused{0};
    for (int w = 0; w < 4; ++w) {
        writers.emplace_back([&, w] {
            for (int i = 0; i < kFrames; ++i) {
                std::string body(500 + w, static_cast<char>('A' + w));
                memcpy(&body[0], &i, sizeof i);
                const int sent = w < 3 ? box->SendSubSerialData(SERIAL_PROTOCOL_TRANSPARENT,
                                                                static_cast<unsigned char>(w),
                                                                body.size(), body.data())
                                       : box->MakeAndSendCmd(
                                             EXTEND_BOX_CMD_UPGRADE_DATA, 0, 0x04,
                                             static_cast<unsigned>(body.size()),
                                             reinterpret_cast<const unsigned char*>(body.data()));
                refused += sent == 1 ? 0 : 1;
            }
        });
    }
    boxsim::Decoder decoder;
    std::vector<int> next(4, 0);
    int frames = 0;
    while (frames < 4 * kFrames) {
        const std::string got = f.end.line.Receive(7, std::chrono::milliseconds(2000));
        if (got.empty()) {
            break;
        }
        decoder.Feed(reinterpret_cast<const uint8_t*>(got.data()), got.size());
        boxsim::Frame frame;
        while (decoder.Next(frame)) {
            const bool line = frame.device == 0x04;
            const size_t offset = line ? 2 : 0;  // an upgrade line: command and length first
            const int w = line ? 3 : (frame.address & 0x07) - 1;
            ASSERT_TRUE(w >= 0 && w < 4) << boxsim::ToHex(frame.body).substr(0, 30);
            ASSERT_EQ(frame.body.size(), offset + 500 + w);
            int number = -1;
            memcpy(&number, frame.body.data() + offset, sizeof number);
            EXPECT_EQ(number, next[w]++) << "writer " << w;
            ++frames;
        }
    }
    for (std::thread& t : writers) {
        t.join();
    }
    EXPECT_EQ(frames, 4 * kFrames);
    EXPECT_EQ(decoder.Dropped(), 0u);
    EXPECT_EQ(refused, 0);
}

TEST(ExtendBoxLink, CommandsAreFramedForTheirLineAndRangeChecked) {
    BoxFixture f;
    CSerialDevExtendBox* box = f.Place();
    ASSERT_NE(box, nullptr);
    EXPECT_EQ(box->GetParamId(), 4);
    // Main-chip line: the address carries the sub-serial id only.
    ASSERT_EQ(box->MakeAndSendCmd(EXTEND_BOX_CMD_HEARTBEAT, 0, 0x04, 0, nullptr), 1);
    EXPECT_EQ(pmtest::Hex(f.end.Raw(8)), "7E 80 04 37 07 01 31 7F");
    EXPECT_EQ(box->GetHeartbeatCount(), 1);

    EXPECT_EQ(box->MakeAndSendCmd(EXTEND_BOX_CMD_HEARTBEAT, 5, 0x04, 0, nullptr), 0);
    EXPECT_TRUE(
        f.service->Logs().Contains("S1_EXTEND_BOX: Extend serial id is too large, id = 5(>4)"));
    EXPECT_EQ(box->MakeAndSendCmd(static_cast<eExtendBoxCmd>(5), 0, 0x04, 0, nullptr), -1);

    const struct {
        eExtendBoxCmd cmd;
        std::vector<uint8_t> payload;
        const char* body;
    } commands[] = {
        {EXTEND_BOX_CMD_GET_VERSION, {}, "04 03 4D 43 55"},
        {EXTEND_BOX_CMD_MCU_TEST, {}, "41 01 00"},  // asked as 0x41
        {EXTEND_BOX_CMD_SET_TRANSFORM_TYPE, {0x10, 0x99}, "A0 01 10"},
        {EXTEND_BOX_CMD_HUB_IO_STATUS, {}, "06 01 02"},
        {EXTEND_BOX_CMD_UPGRADE_START, {}, "01 09 53 54 41 52 54 00 00 00 00"},  // no image yet
        {EXTEND_BOX_CMD_UPGRADE_END, {}, "03 07 45 4E 44 00 00 00 00"},
    };
    for (const auto& c : commands) {
        box->MakeAndSendCmd(c.cmd, 0, 0x04, c.payload.size(), c.payload.data());
        EXPECT_EQ(boxsim::ToHex(f.end.Next().body), c.body);
    }
    // Sub-port data by protocol type: 0 takes the device byte from the data, 1 is a whole
    // frame already, anything else is sent as it is under device 0xFF.
    EXPECT_EQ(box->SendSubSerialData(SERIAL_PROTOCOL_EXTEND_FRAME, 1, 3, "\x05\x01\x02"), -1);
    box->SendSubSerialData(SERIAL_PROTOCOL_EXTEND_FRAME, 1, 4, "\x05\x01\x02\x03");
    Frame frame = f.end.Next();
    EXPECT_EQ(frame.address, 0x82);
    EXPECT_EQ(frame.device, 0x05);
    EXPECT_EQ(boxsim::ToHex(frame.body), "01 02 03");
    box->SendSubSerialData(SERIAL_PROTOCOL_FRAME, 0, 7, "\x7E\x81\x09\x00\xAA\xBB\x7F");
    frame = f.end.Next();
    EXPECT_EQ(frame.device, 0x09);
    EXPECT_EQ(boxsim::ToHex(frame.body), "AA BB");
    box->SendSubSerialData(SERIAL_PROTOCOL_TRANSPARENT, 3, 2, "\x7E\x7F");
    frame = f.end.Next();
    EXPECT_EQ(frame.address, 0x84);
    EXPECT_EQ(frame.device, 0xFF);
    EXPECT_EQ(boxsim::ToHex(frame.body), "7E 7F");  // stuffed on the line, whole again here
    const std::string tooLong(1100, 'x');
    EXPECT_EQ(
        box->SendSubSerialData(SERIAL_PROTOCOL_TRANSPARENT, 0, tooLong.size(), tooLong.data()), -1);

    // Settings: 56000 has no code of its own, data bits are always 8.
    box->SetSubSerialProperty(1, 0x1F, SERIAL_BAUD_56000, SERIAL_DATA_BIT_7, SERIAL_STOP_BIT_1_5,
                              SERIAL_PARITY_EVEN, SERIAL_FLOW_DTR_DSR);
    EXPECT_EQ(boxsim::ToHex(f.end.Next().body), "20 06 02 02 02 08 03 03");
    box->SetSubSerialProperty(0, 0x1F, SERIAL_BAUD_115200, SERIAL_DATA_BIT_8, SERIAL_STOP_BIT_1,
                              SERIAL_PARITY_NONE, SERIAL_FLOW_NONE);
    EXPECT_EQ(boxsim::ToHex(f.end.Next().body), "20 06 01 07 00 08 02 00");
    // Index 7 is the last taken although a box has four sub-ports.
    box->SetSubSerialProperty(7, 0x1F, SERIAL_BAUD_2400, SERIAL_DATA_BIT_8, SERIAL_STOP_BIT_0_5,
                              SERIAL_PARITY_ODD, SERIAL_FLOW_HARDWARE);
    EXPECT_EQ(boxsim::ToHex(f.end.Next().body), "20 06 08 01 01 08 01 01");
    EXPECT_EQ(box->SetSubSerialProperty(8, 0x1F, SERIAL_BAUD_9600, SERIAL_DATA_BIT_8,
                                        SERIAL_STOP_BIT_1, SERIAL_PARITY_NONE, SERIAL_FLOW_NONE),
              0);
    EXPECT_TRUE(f.service->Logs().Contains(
        "S1_EXTEND_BOX: set extend serial property failed, extendId = 8"));
}

// A box whose entry is not under its own ids (sub id 5) has no parameter id: it sends nothing.
TEST(ExtendBoxLink, ABoxWithoutAParameterIdSendsNothing) {
    BoxFixture f;
    ASSERT_TRUE(f.service->SendSetting(SerialSetting({{4, 1, 5, 1}})));
    auto* box = dynamic_cast<CSerialDevExtendBox*>(
        f.service->Manager().GetPeripheralInstance(PERIPHERAL_TYPE_SERIAL, 1, 0));
    ASSERT_NE(box, nullptr);
    EXPECT_EQ(box->MakeAndSendCmd(EXTEND_BOX_CMD_HEARTBEAT, 0, 0x04, 0, nullptr), 0);
    EXPECT_TRUE(
        f.service->Logs().Contains("S1_EXTEND_BOX: Extend box param id is error, id = 255(>12)"));
    EXPECT_TRUE(f.end.Next(std::chrono::milliseconds(200)).body.empty());
}

TEST(ExtendBoxLink, AnMcuRelayedBoxAddressesItselfWithItsParameterId) {
    BoxFixture f;
    f.service->Watch(EVENT_MCU_SERIAL_SEND);
    ASSERT_TRUE(f.service->SendSetting(SerialSetting({{2, 1, 0, 1}})));
    auto* box = dynamic_cast<CSerialDevExtendBox*>(
        f.service->Manager().GetPeripheralInstance(PERIPHERAL_TYPE_SERIAL, 1, 0));
    ASSERT_NE(box, nullptr);
    ASSERT_EQ(box->GetParamId(), 2);
    box->MakeAndSendCmd(EXTEND_BOX_CMD_HEARTBEAT, 0, 0x04, 0, nullptr);
    ASSERT_TRUE(f.service->WaitCount(EVENT_MCU_SERIAL_SEND, 1));
    const std::string payload = pmtest::Hex(f.service->Received(EVENT_MCU_SERIAL_SEND)[0].payload);
    EXPECT_NE(payload.find("7E A0 04 37 07 01 31 7F"), std::string::npos) << payload;

    // Its answers come back unframed: device byte, then the answer. Two bytes wait for more;
    // a wrong device byte drops what waited.
    EXPECT_EQ(box->PreProcessPeripheralData("\x04\xA0\x01\x01", 4), 0);
    EXPECT_EQ(box->GetPendingSetup() & 0x02, 0u);
    EXPECT_EQ(box->PreProcessPeripheralData("\x05\xA0", 2), 0);
    EXPECT_TRUE(f.service->Logs().Contains("S1_EXTEND_BOX: Extend_box recv data length = 2( < 3)"));
    EXPECT_EQ(box->PreProcessPeripheralData("\x09", 1), 0);
    EXPECT_TRUE(
        f.service->Logs().Contains("S1_EXTEND_BOX: Extend_box dev id error, id = 0x5( != 0x4)"));
}

// ---- frames the service receives ----

TEST(ExtendBoxLink, ReceivedFramesAreCheckedThenRoutedToTheirChild) {
    BoxFixture f;
    CSerialDevExtendBox* box =
        f.Place({{4, uint8_t(kChildId), 0, 1, 0}, {4, uint8_t(kFrameChild), 0, 1, 1}});
    ASSERT_NE(box, nullptr);
    Child* child = f.AddChild(kChildId);
    Child* framed = f.AddChild(kFrameChild);
    box->HandlePeripParamChange();
    ASSERT_EQ(box->GetChildCount(), 2u);
    auto& logs = f.service->Logs();

    f.end.line.Send(std::string("\x7E\x81\x7F", 3));
    EXPECT_TRUE(logs.WaitFor("S1_EXTEND_BOX: Recv data length error, length = 3(<5)"));
    Frame bad = boxsim::Answer(0x33, 0x01, {0x02});
    bad.address = 0x81;
    bad.badCheck = true;
    f.end.Send(bad);
    EXPECT_TRUE(logs.WaitFor("S1_EXTEND_BOX: serial crc error"));

    // Sub-port data: to the child of id - 1, without the head; a child of main id 12 gets
    // the frame as it came, still stuffed.
    Frame data;
    data.address = 0x81;
    data.device = 0x33;
    data.body = {'G', 'P', 0x7E};
    f.end.Send(data);
    EXPECT_TRUE(WaitUntil([&] { return child->Received() == "GP\x7E"; }));
    data.address = 0x82;
    f.end.Send(data);
    const std::vector<uint8_t> whole = boxsim::Encode(data);
    EXPECT_TRUE(
        WaitUntil([&] { return framed->Received() == std::string(whole.begin(), whole.end()); }));
    // Id bits 0 on sub-port data: for nobody. Garbage and a lone start mark between frames
    // change nothing for the next good frame.
    data.address = 0x80;
    f.end.Send(data);
    f.end.line.Send(std::string("\x11\x22\x7E", 3));
    data.address = 0x81;
    data.body = {'!'};
    f.end.Send(data);
    EXPECT_TRUE(WaitUntil([&] { return child->Received() == "GP\x7E!"; }));
    EXPECT_EQ(logs.Count("S1_EXTEND_BOX: serial instance is null"), 0u);

    // A version of 32 bytes is no version: the query stays due.
    f.end.Answer(0x04, std::vector<uint8_t>(32, 'V'));
    f.end.Answer(0x20, {0});
    EXPECT_TRUE(logs.WaitFor("S1_EXTEND_BOX: Response set baud failed, result = 0"));
    EXPECT_EQ(box->GetPendingSetup() & 0x01, 1u);
    EXPECT_EQ(logs.Count("S1_EXTEND_BOX: Response version"), 0u);
    // A length that claims more than arrived.
    f.end.Send(Frame{0x80, 0x04, {0x07, 0x09, 0x01}});
    EXPECT_TRUE(logs.WaitFor("S1_EXTEND_BOX: Rev data length error, length = 9( > 1)"));
    f.end.Answer(0x55, {});
    EXPECT_TRUE(logs.WaitFor("S1_EXTEND_BOX: Extend_box cmd is not support, cmd = 55"));
}

// ---- bring-up and keep-alive ----

TEST(ExtendBoxLifecycle, ASilentBoxIsAskedAgainAndCountsOfflineFromTheThirdQuery) {
    BoxFixture f;
    CSerialDevExtendBox* box = f.Place();
    ASSERT_NE(box, nullptr);
    long long now = boxtest::FreshClock();
    int linkModes = 0;
    int queries = 0;
    bool wentOffline = false;
    for (int step = 0; step <= 15000 / 200; ++step, now += 200) {
        // Each query counts as unanswered; from the third on the box is offline.
        const int unanswered = box->GetHeartbeatCount();
        box->PeripheralThreadCycle(now);
        EXPECT_EQ(box->GetCurPeripheralStatus(), unanswered < 3) << "at " << step;
        wentOffline = wentOffline || unanswered >= 3;
        Frame frame;
        while (!(frame = f.end.Next(std::chrono::milliseconds(5))).body.empty()) {
            linkModes += frame.body[0] == 0xA0 ? 1 : 0;
            queries += frame.body[0] == 0x04 ? 1 : 0;
            if (frame.body[0] == 0xA0) {
                EXPECT_EQ(boxsim::ToHex(frame.body), "A0 01 10") << "a main-chip line";
            }
        }
    }
    Frame frame;
    while (!(frame = f.end.Next(std::chrono::milliseconds(300))).body.empty()) {
        linkModes += frame.body[0] == 0xA0 ? 1 : 0;
        queries += frame.body[0] == 0x04 ? 1 : 0;
    }
    EXPECT_TRUE(wentOffline);
    EXPECT_EQ(linkModes, 6);  // 0, 3, 6, 9, 12, 15 s
    EXPECT_EQ(queries, 4);    // 0, 5, 10, 15 s

    // It answers: online, the version is broadcast, its set-up continues with the keep-alive.
    f.service->Watch(EVENT_EXTEND_VERSION);
    f.end.Answer(0xA0, {1});
    f.end.Answer(0x04, Body("42 4F 58 2D 4D 43 55 2D 31"));  // BOX-MCU-1
    ASSERT_TRUE(f.service->WaitCount(EVENT_EXTEND_VERSION, 1));
    EXPECT_EQ(box->GetPendingSetup(), 0u);
    box->PeripheralThreadCycle(now += 200);
    EXPECT_TRUE(box->GetCurPeripheralStatus());
    const std::vector<uint8_t> record = f.service->Received(EVENT_EXTEND_VERSION)[0].payload;
    ASSERT_EQ(record.size(), sizeof(ExtendVersionRecord_t));
    EXPECT_EQ(std::string(reinterpret_cast<const char*>(record.data()) + 37), "BOX-MCU-1");
    EXPECT_EQ(record[10], 1);
    EXPECT_EQ(record[69], 0x04);

    // The same version again: no broadcast, but the children are set up again.
    f.service->Logs().Clear();
    f.end.Answer(0x04, Body("42 4F 58 2D 4D 43 55 2D 31"));
    ASSERT_TRUE(f.service->Logs().WaitFor(
        "S1_EXTEND_BOX: Response version, version = BOX-MCU-1, orgVersion = BOX-MCU-1"));
    f.service->Flush({box->GetMsgClient()});
    EXPECT_EQ(f.service->Count(EVENT_EXTEND_VERSION), 1u);

    // In service: a keep-alive every three seconds, and each answer starts the count again.
    f.end.Drain();
    for (int i = 0; i < 5; ++i) {
        box->PeripheralThreadCycle(now += 2999);
        EXPECT_TRUE(f.end.Next(std::chrono::milliseconds(100)).body.empty()) << "not before 3 s";
        box->PeripheralThreadCycle(now += 1);
        ASSERT_EQ(boxsim::ToHex(f.end.Next().body), "07 01 31");
        f.end.Answer(0x07, {1});
        ASSERT_TRUE(WaitUntil([&] { return box->GetHeartbeatCount() == 0; })) << i;
    }
    box->PeripheralThreadCycle(now += 200);
    EXPECT_TRUE(box->GetCurPeripheralStatus());
}

TEST(ExtendBoxLifecycle, WhileUpgradingNoSubPortTrafficOrSettingGoesOut) {
    BoxFixture f;
    CSerialDevExtendBox* box = f.Place();
    ASSERT_NE(box, nullptr);
    box->SetUpgrading(true);
    EXPECT_EQ(box->SendSubSerialData(SERIAL_PROTOCOL_TRANSPARENT, 0, 2, "hi"), 0);
    EXPECT_EQ(box->SetSubSerialProperty(0, 0x1F, SERIAL_BAUD_9600, SERIAL_DATA_BIT_8,
                                        SERIAL_STOP_BIT_1, SERIAL_PARITY_NONE, SERIAL_FLOW_NONE),
              0);
    EXPECT_TRUE(f.end.Next(std::chrono::milliseconds(200)).body.empty());
    box->SetUpgrading(false);
    box->SendSubSerialData(SERIAL_PROTOCOL_TRANSPARENT, 0, 2, "hi");
    EXPECT_EQ(boxsim::ToHex(f.end.Next().body), "68 69");
}

// The sub-port settings step runs at most once per three seconds; a child whose settings
// are due again waits for it.
TEST(ExtendBoxLifecycle, SubPortSettingsGoOutAtMostEveryThreeSeconds) {
    BoxFixture f;
    CSerialDevExtendBox* box = f.Place({{4, uint8_t(kChildId), 0, SERIAL_BAUD_9600, 0}});
    ASSERT_NE(box, nullptr);
    f.AddChild(kChildId);
    f.end.Answer(0xA0, {1});
    f.end.Answer(0x04, Body("31"));
    ASSERT_TRUE(WaitUntil([&] { return box->GetPendingSetup() == 0; }));
    long long now = boxtest::FreshClock();
    auto settings = [&] {
        const std::vector<std::string> sent = f.end.Drain();
        return std::count_if(sent.begin(), sent.end(),
                             [](const std::string& body) { return body.rfind("20 06", 0) == 0; });
    };
    box->PeripheralThreadCycle(now);  // the version answer's set-up, then the settings
    EXPECT_EQ(settings(), 1);
    box->HandlePeripParamChange();
    EXPECT_EQ(box->GetSubPropertySetFlag(), 0x01);
    box->PeripheralThreadCycle(now + 2999);
    EXPECT_EQ(settings(), 0);
    box->PeripheralThreadCycle(now + 3000);
    EXPECT_EQ(settings(), 1);
    EXPECT_EQ(box->GetSubPropertySetFlag(), 0);
}

TEST(ExtendBoxLifecycle, ASubPortOfMainId8IsConfiguredAtOnceThenWhole) {
    BoxFixture f;
    CSerialDevExtendBox* box = f.Place({{4, 8, 0, SERIAL_BAUD_57600, 2}});
    ASSERT_NE(box, nullptr);
    Child* child = f.AddChild(8);
    box->HandlePeripParamChange();
    // At once, with nothing but its baud (57600: code 6).
    EXPECT_EQ(boxsim::ToHex(f.end.Next().body), "20 06 03 06 00 08 02 00");
    EXPECT_TRUE(f.service->Logs().Contains(
        "S1_EXTEND_BOX: Add extend instance, id = 2, mainId = 8, subId = 0, size = 3"));
    EXPECT_EQ(box->GetSubPropertySetFlag(), 0x04);

    // Then from the cycle once the version is known, with its configured settings.
    f.end.Answer(0x04, Body("31"));
    ASSERT_TRUE(WaitUntil([&] { return (box->GetPendingSetup() & 1) == 0; }));
    box->PeripheralThreadCycle(boxtest::FreshClock());
    Frame frame;
    std::vector<std::string> sent;
    while (!(frame = f.end.Next(std::chrono::milliseconds(200))).body.empty()) {
        sent.push_back(boxsim::ToHex(frame.body));
    }
    // The version answer set the children up again (baud only, at once), then the cycle
    // sent the whole setting: EVEN, two stop bits (code 4).
    EXPECT_EQ(std::count(sent.begin(), sent.end(), "20 06 03 06 02 08 04 00"), 1)
        << ::testing::PrintToString(sent);
    EXPECT_EQ(box->GetSubPropertySetFlag(), 0);
    EXPECT_TRUE(child->GetCurPeripheralStatus());
}

// ---- version messages ----

TEST(ExtendBoxVersion, TheCustomerRuleShapesWhatIsPublished) {
    const struct {
        const char* systemConfig;
        const char* boxVersion;
        const char* published;
    } cases[] = {
        {R"({"CUSTOMER_NAME": "CUSTOMER_09.817"})", "X-MCU-1.2", "VKEL-M01-HW-MCU-1.2"},
        {R"({"CUSTOMER_NAME": "CUSTOMER_09.817"})", "X-1.2", ""},
        {R"({"CUSTOMER_NAME": "OTHER"})", "X-MCU-1.2", "X-MCU-1.2"},
    };
    for (const auto& c : cases) {
        SCOPED_TRACE(c.boxVersion);
        BoxFixture f(c.systemConfig);
        CSerialDevExtendBox* box = f.Place();
        ASSERT_NE(box, nullptr);
        f.end.Answer(0x04, std::vector<uint8_t>(c.boxVersion, c.boxVersion + strlen(c.boxVersion)));
        ASSERT_TRUE(WaitUntil([&] { return (box->GetPendingSetup() & 1) == 0; }));
        const uint32_t answerId = EventAnswerOf(EVENT_GET_EXTEND_VERSION);
        f.service->Watch(answerId);
        std::vector<uint8_t> request(16, 0);
        request[1] = 1;  // main id; sub id 0, serial
        request[9] = 2;  // the requester, named in the answer
        const std::vector<char> message = pmtest::Message(EVENT_GET_EXTEND_VERSION, request);
        box->OnGetExtendVersion(message.data(), static_cast<int>(message.size()));
        request[9] = 4;  // a source of 4 is nobody's
        const std::vector<char> ignored = pmtest::Message(EVENT_GET_EXTEND_VERSION, request);
        box->OnGetExtendVersion(ignored.data(), static_cast<int>(ignored.size()));
        // A message under another id is no version request, whatever it carries.
        constexpr uint32_t kOtherId = EVENT_GET_EXTEND_VERSION + 1;
        f.service->Watch(EventAnswerOf(kOtherId));
        request[9] = 1;
        const std::vector<char> other = pmtest::Message(kOtherId, request);
        box->OnGetExtendVersion(other.data(), static_cast<int>(other.size()));
        ASSERT_TRUE(f.service->WaitCount(answerId, 1));
        f.service->Flush({box->GetMsgClient()});
        ASSERT_EQ(f.service->Count(answerId), 1u);
        EXPECT_EQ(f.service->Count(EventAnswerOf(kOtherId)), 0u);
        const std::vector<uint8_t> record = f.service->Received(answerId)[0].payload;
        ASSERT_EQ(record.size(), 245u);
        EXPECT_EQ(std::string(reinterpret_cast<const char*>(record.data()) + 37), c.published);
        EXPECT_EQ(record[10], 1) << "a known version counts even when it publishes empty";
        EXPECT_EQ(record[36], 0) << "an answer ends the flag within its 16 bytes";
        EXPECT_EQ(record[9], 2);
    }
}

}  // namespace
