// The whole road through a box: a program writes on a sub-port's pseudo-terminal of the real
// pm-boxsim, the box's frame crosses the line into the service, the child plug-in gets the
// bytes, and what the child sends comes out on the same pseudo-terminal.
#include <fcntl.h>
#include <termios.h>
#include <unistd.h>

#include <gtest/gtest.h>

#include <memory>
#include <string>

#include "PeripheralEvents.h"
#include "SerialDevExtendBox.h"
#include "TestPeripherals.h"
#include "ServiceHarness.h"
#include "ToolProcess.h"
#include "UpgradeFile.h"

namespace {

using pmtest::SerialSetting;
using pmtest::ServiceHarness;
using pmtest::WaitUntil;

// Echoes what reaches it, prefixed, so that the way back is told from the way in.
class EchoChild : public pmtest::TakingSerial {
public:
    EchoChild(ServiceHarness& service, unsigned mainId)
        : TakingSerial(&service.Manager(), service.ManagerClient(), mainId, 0) {}

protected:
    int Take(const char* bytes, unsigned length) override {
        const std::string answer = "echo:" + std::string(bytes, length);
        return SendDataToPeripheral(answer.data(), answer.size()) < 0 ? -1 : 0;
    }
};

// The word after `label` in pm-boxsim's output ("line: /dev/pts/3").
std::string After(const std::string& text, const std::string& label) {
    const size_t at = text.find(label);
    if (at == std::string::npos) {
        return std::string();
    }
    const size_t start = at + label.size();
    return text.substr(start, text.find_first_of(" \n", start) - start);
}

int OpenRaw(const std::string& path) {
    const int fd = open(path.c_str(), O_RDWR | O_NOCTTY | O_NONBLOCK);
    struct termios raw;
    if (fd >= 0 && tcgetattr(fd, &raw) == 0) {
        cfmakeraw(&raw);
        tcsetattr(fd, TCSANOW, &raw);
    }
    return fd;
}

TEST(BoxSimEndToEnd, SubPortBytesReachTheChildAndItsAnswerComesBack) {
    pmtest::ToolProcess boxsim("pm-boxsim", {"--subports", "2"});
    ASSERT_TRUE(boxsim.WaitOut("sub 2: ")) << boxsim.Err();
    const std::string line = After(boxsim.Out(), "line: ");
    const std::string sub2 = After(boxsim.Out(), "sub 2: ");
    ASSERT_FALSE(line.empty());

    auto service = std::make_unique<ServiceHarness>(
        R"({"DEVICE_SERIAL_SETTING": [{"DEV_SERIAL_FUNCID": 60, "DEV_SERIAL_LIB_NAME": "None"}],
            "DEVICE_CANPORT_SETTING": [], "DEVICE_ETHERNET_SETTING": [],
            "DEVICE_PERIPHERAL_PARAM_SETTING": {"SERIAL_PARAM": [
              {"NAME": "232-1", "POSITION": 4, "PATH": ")" +
        line + R"("}]}})");
    service->Register();
    ASSERT_TRUE(service->SendSetting(SerialSetting({{4, 1, 0, 1}, {4, 60, 0, 1, 1}})));
    auto* box = dynamic_cast<CSerialDevExtendBox*>(
        service->Manager().GetPeripheralInstance(PERIPHERAL_TYPE_SERIAL, 1, 0));
    ASSERT_NE(box, nullptr);
    auto* child = new EchoChild(*service, 60);
    service->Manager().AddInstance(child);
    child->Initialize();

    // The box is brought into service by its cycle, as on the recorder.
    long long now = 1000000;
    ASSERT_TRUE(WaitUntil([&] {
        box->PeripheralThreadCycle(now += 200);
        return box->GetPendingSetup() == 0 && box->GetChildCount() == 1;
    }));

    const int device = OpenRaw(sub2);
    ASSERT_GE(device, 0);
    ASSERT_EQ(write(device, "$GPGGA,1\r\n", 10), 10);
    std::string back;
    EXPECT_TRUE(WaitUntil([&] {
        char bytes[256];
        const ssize_t n = read(device, bytes, sizeof(bytes));
        if (n > 0) {
            back.append(bytes, static_cast<size_t>(n));
        }
        return back == "echo:$GPGGA,1\r\n";
    })) << back;
    close(device);
    service.reset();
    boxsim.Signal(SIGTERM);
    EXPECT_EQ(boxsim.WaitExit(), 0);
}

// A scripted box says exactly what the script says, lengths that lie included.
TEST(BoxSimEndToEnd, AScriptStatesWhatTheBoxAnswers) {
    pmtest::TempDir dir;
    const std::string script = dir.Write("box.script",
                                         "# version XY, a keep-alive that lies about its length\n"
                                         "04 = 04 02 58 59\n"
                                         "07 = 07 05 01\n");
    pmtest::ToolProcess boxsim("pm-boxsim", {"--subports", "0", "--script", script});
    ASSERT_TRUE(boxsim.WaitOut("line: ")) << boxsim.Err();
    auto service = std::make_unique<ServiceHarness>(
        R"({"DEVICE_SERIAL_SETTING": [], "DEVICE_CANPORT_SETTING": [],
            "DEVICE_ETHERNET_SETTING": [],
            "DEVICE_PERIPHERAL_PARAM_SETTING": {"SERIAL_PARAM": [
              {"NAME": "232-1", "POSITION": 4, "PATH": ")" +
        After(boxsim.Out(), "line: ") + R"("}]}})");
    service->Register();
    ASSERT_TRUE(service->SendSetting(SerialSetting({{4, 1, 0, 1}})));
    auto* box = dynamic_cast<CSerialDevExtendBox*>(
        service->Manager().GetPeripheralInstance(PERIPHERAL_TYPE_SERIAL, 1, 0));
    ASSERT_NE(box, nullptr);
    long long now = 1000000;
    ASSERT_TRUE(WaitUntil([&] {
        box->PeripheralThreadCycle(now += 1000);
        return (box->GetPendingSetup() & 1) == 0;
    }));
    EXPECT_EQ(std::string(box->GetVersionText().data()), "XY");
    box->PeripheralThreadCycle(now += 3001);  // in service: a keep-alive
    ASSERT_TRUE(service->Logs().WaitFor("S1_EXTEND_BOX: Rev data length error, length = 5( > 1)",
                                        std::chrono::seconds(8)));
    service.reset();
    boxsim.Signal(SIGTERM);
    EXPECT_EQ(boxsim.WaitExit(), 0);
}

// A 64 KiB image through the real tools: pm-upgrade asks, the service fetches the file from
// "the recorder" (this test), feeds it to pm-boxsim line by line, and pm-upgrade sees state 10.
TEST(BoxSimEndToEnd, AnUpgradeOf64KiBArrivesWholeAndPmUpgradeSucceeds) {
    pmtest::TempDir dir;
    const std::string received = dir.File("received.bin");
    pmtest::ToolProcess boxsim(
        "pm-boxsim", {"--subports", "0", "--version", "BOX-MCU-V1", "--new-version", "BOX-MCU-V2",
                      "--image-out", received});
    ASSERT_TRUE(boxsim.WaitOut("line: ")) << boxsim.Err();
    const std::string line = After(boxsim.Out(), "line: ");

    std::vector<uint8_t> image(64 * 1024);
    for (size_t i = 0; i < image.size(); ++i) {
        image[i] = static_cast<uint8_t>((i * 131) ^ (i >> 9));
    }
    auto service = std::make_unique<ServiceHarness>(
        R"({"DEVICE_SERIAL_SETTING": [], "DEVICE_CANPORT_SETTING": [],
            "DEVICE_ETHERNET_SETTING": [],
            "DEVICE_PERIPHERAL_PARAM_SETTING": {"SERIAL_PARAM": [
              {"NAME": "232-1", "POSITION": 4, "PATH": ")" +
        line + R"("}]}})");
    service->Watch(EVENT_GET_EXTEND_UPGRADE_FILE,
                   pmtools::UpgradeFileRecord("BOX-MCU-V2.CRC",
                                              pmtools::MakeUpgradeFile(image, "BOX-MCU-V2")));
    service->Start(true);
    ASSERT_TRUE(service->SendSetting(SerialSetting({{4, 1, 0, 6}})));
    ASSERT_TRUE(WaitUntil(
        [&] {
            auto* box = dynamic_cast<CSerialDevExtendBox*>(
                service->Manager().GetPeripheralInstance(PERIPHERAL_TYPE_SERIAL, 1, 0));
            return box != nullptr && box->GetPendingSetup() == 0;
        },
        std::chrono::seconds(15)));

    pmtest::ToolProcess upgrade("pm-upgrade", {"--timeout", "20"});
    EXPECT_EQ(upgrade.WaitExit(std::chrono::seconds(60)), 0) << upgrade.Out() << upgrade.Err();
    EXPECT_NE(upgrade.Out().find("state 10: finished"), std::string::npos) << upgrade.Out();
    std::vector<uint8_t> got;
    std::string error;
    ASSERT_TRUE(pmtools::ReadWholeFile(received, got, pmtools::kMaxUpgradeFileSize, error))
        << error;
    EXPECT_TRUE(got == image) << got.size() << " bytes received";
    service.reset();
    boxsim.Signal(SIGTERM);
    EXPECT_EQ(boxsim.WaitExit(), 0);
}

}  // namespace
