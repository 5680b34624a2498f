// The two links: data from an MCU port (event 1090) and the open thread of a main-chip port
// that the recorder's device-management module holds.
#include <string.h>

#include <string>
#include <vector>

#include <gtest/gtest.h>

#include "MainChipSerialOpt.h"
#include "SerialHarness.h"

namespace sertest {
namespace {

using pmtest::WaitUntil;

// Payload of event 1090 (the bus puts the head in front).
std::string McuData(uint16_t mainId, uint16_t subId, uint32_t lengthField,
                    const std::string& data) {
    std::string out(8, '\0');
    memcpy(&out[0], &mainId, 2);
    memcpy(&out[2], &subId, 2);
    memcpy(&out[4], &lengthField, 4);
    return out + data;
}

class McuReceive : public ::testing::Test {
protected:
    void SetUp() override {
        ASSERT_TRUE(m_service.SendSerialSetting(SerialSetting({{2, kPlainId}})));
        m_serial =
            std::make_unique<TestSerial>(&m_service.Manager(), m_service.ManagerClient(), kPlainId);
        ASSERT_EQ(m_serial->GetSerialType(), SERIAL_LINK_MCU);
    }
    void TearDown() override { m_serial.reset(); }

    void Deliver(const std::string& payload) {
        size_t before = m_service.Logs().Count("MCU_OPT: [RECV] mainId = ");
        m_service.Send(1090, payload.data(), payload.size());
        ASSERT_TRUE(m_service.Pump(
            [&] { return m_service.Logs().Count("MCU_OPT: [RECV] mainId = ") > before; }));
    }

    SerialHarness m_service;
    std::unique_ptr<TestSerial> m_serial;
};

TEST_F(McuReceive, TakesOnlyItsOwnIds) {
    Deliver(McuData(kPlainId + 1, 0, 3, "abc"));
    Deliver(McuData(kPlainId, 1, 3, "abc"));
    EXPECT_EQ(m_serial->Received(), "");
    Deliver(McuData(kPlainId, 0, 3, "abc"));
    EXPECT_EQ(m_serial->Received(), "abc");
    EXPECT_TRUE(m_service.Logs().Contains("MCU_OPT: [RECV] mainId = 51, subTd = 0 \n"));
}

TEST_F(McuReceive, BoundsTheLengthFieldToWhatArrived) {
    Deliver(McuData(kPlainId, 0, 5000, "0123456789"));
    EXPECT_EQ(m_serial->Received(), "0123456789");
    EXPECT_TRUE(m_service.Logs().Contains(
        "MCU_OPT: [RECV] data length bounded, mainId = 50, subTd = 0, length = 5000, "
        "received = 10, keep = 10\n"));
}

TEST_F(McuReceive, BoundsTheLengthFieldTo1024) {
    std::string data(1500, 'q');
    Deliver(McuData(kPlainId, 0, 1500, data));
    EXPECT_EQ(m_serial->Received(), std::string(1024, 'q'));
    EXPECT_TRUE(m_service.Logs().Contains("length = 1500, received = 1500, keep = 1024\n"));
}

// ---- open thread ----

// Product type 6 shares /dev/ttyAMA1 with the device-management module. The tty does not exist
// here, so the open itself fails; what the test watches is the wait and the release.
constexpr const char* kSharedTty = "/dev/ttyAMA1";

class OpenThread : public ::testing::Test {
protected:
    OpenThread() : m_service({{4, kSharedTty}}, R"({"PRODUCT_TYPE": 6})") {}
    void SetUp() override {
        ASSERT_TRUE(m_service.SendSerialSetting(SerialSetting({{4, kPlainId}})));
        m_serial =
            std::make_unique<TestSerial>(&m_service.Manager(), m_service.ManagerClient(), kPlainId);
        ASSERT_EQ(m_serial->GetMainChipType(), 1u);
        ASSERT_FALSE(m_serial->GetCurPeripOpenStatus());  // the first open failed
    }

    size_t Waits() const {
        return m_service.Logs().Count(
            "MainChip_Opt: Serial[/dev/ttyAMA1] is occupy, please wait device release......\n");
    }

    SerialHarness m_service;
    std::unique_ptr<TestSerial> m_serial;
};

TEST_F(OpenThread, WaitsForTheReleaseThenOpens) {
    CMainChipSerialOpt* link = m_serial->MainChipLink();
    ASSERT_EQ(link->StartOpenThread(kSharedTty), 0);
    ASSERT_TRUE(WaitUntil([&] { return Waits() >= 2; }));  // a second look after 1 s
    EXPECT_FALSE(m_serial->GetCurPeripOpenStatus());
    EXPECT_TRUE(link->IsOpenThreadActive());

    char release[28] = {};
    strcpy(release, kSharedTty);
    m_service.Send(1151, release, sizeof(release));
    ASSERT_TRUE(m_service.Pump([&] {
        return m_service.Logs().Contains(
            "S_MANAGE: DeviceManage broadcast cpx release serial, product_type = 6");
    }));
    ASSERT_TRUE(WaitUntil([&] { return !link->IsOpenThreadActive(); }));
    EXPECT_TRUE(m_service.Logs().Contains(
        "MainChip_Opt: DeviceManage relsease Serial[/dev/ttyAMA1], open result,  m_nSerialFd = "
        "-2\n"));
    // Open although the open failed: the plug-in's cycle runs and may try again.
    EXPECT_TRUE(m_serial->GetCurPeripOpenStatus());
    EXPECT_EQ(link->GetSerialFd(), -2);
}

TEST_F(OpenThread, EndsWithoutOpeningWhenTheInstanceGoes) {
    ASSERT_EQ(m_serial->MainChipLink()->StartOpenThread(kSharedTty), 0);
    ASSERT_TRUE(WaitUntil([&] { return Waits() >= 1; }));
    m_serial.reset();  // waits for the thread; a sanitizer sees any late touch
    EXPECT_FALSE(m_service.Logs().Contains("MainChip_Opt: DeviceManage relsease Serial"));
}

TEST_F(OpenThread, ClosingBroadcastsTheRelease) {
    m_service.Collect(6724);
    EXPECT_EQ(m_serial->CloseMainChipSerial(), 0);
    ASSERT_TRUE(m_service.Pump([&] { return !m_service.Collected(6724).empty(); }));
    EXPECT_EQ(m_service.Collected(6724).front().payload,
              std::string(kSharedTty) + std::string(28 - strlen(kSharedTty), '\0'));
}

}  // namespace
}  // namespace sertest
