#include "FuzzService.h"
#include "BusWire.h"

#include <fcntl.h>
#include <stdlib.h>
#include <string.h>
#include <unistd.h>

#include <filesystem>
#include <fstream>
#include <memory>

#include "CommonLog.h"
#include "MsgBroker.h"

namespace fuzzsupport {

namespace {

// Names libraries that do not exist: the reconciliation's loads fail at once, without dlopen.
const char kPeripheralConfig[] = R"({
  "DEVICE_SERIAL_SETTING": [
    {"DEV_SERIAL_FUNCID": 7, "DEV_SERIAL_LIB_NAME": "libFuzzNone",
     "DEV_SERIAL_SUB_FUNCTION": [{"DEV_SERIAL_SUB_FUNCID": 1}]},
    {"DEV_SERIAL_FUNCID": 34, "DEV_SERIAL_LIB_NAME": "libFuzzNone"}],
  "DEVICE_CANPORT_SETTING": [{"DEV_CANPORT_FUNCID": 12, "DEV_CANPORT_LIB_NAME": "libFuzzNone",
                              "DEV_CANPORT_SUPPORT_ENABLE": "true"}],
  "DEVICE_ETHERNET_SETTING": [{"DEV_ETHERNET_FUNCID": 20, "DEV_ETHERNET_LIB_NAME": "libFuzzNone",
                               "DEV_ETHERNET_SUPPORT_ENABLE": "true"}],
  "DEVICE_PERIPHERAL_PARAM_SETTING": {"SERIAL_PARAM": [
    {"NAME": "232-1", "POSITION": 4, "PATH": "/dev/null/no-tty"}]}})";

struct World {
    World() {
        char pattern[] = "/tmp/pmfuzz-XXXXXX";
        root = mkdtemp(pattern);
        std::filesystem::create_directories(root + "/usr/local/cfg");
        configPath = root + "/usr/local/cfg/DEVICE_SERIAL_EXTEND_CFG";
        std::ofstream(configPath) << kPeripheralConfig;
        std::ofstream(root + "/usr/local/cfg/SYSTEM_CONFIG") << R"({"PRODUCT_TYPE": 6})";
        setenv("RECORDER_ROOT", root.c_str(), 1);
        setenv("RECORDER_BUS", (root + "/bus").c_str(), 1);
        Common::SetLogLevel(-1);
        int devNull = open("/dev/null", O_WRONLY);
        dup2(devNull, STDOUT_FILENO);  // the service prints records and hex dumps
        close(devNull);
        broker = std::make_unique<Common::CMsgBroker>();
        broker->Start();
        manage = std::make_unique<CPeripheralManage>();
        manage->PhmMessageRegister();
        Place();
    }

    // Serial: peripheral 7 on MCU port 0, a box on main-chip port 4 with sub-port 0 in use;
    // CAN: peripheral 12 on CAN port 0.
    void Place() {
        paramSerialSetting_t serial{};
        serial.port[0].mainFun = kSerialMainId;
        serial.port[4].mainFun = PERIPHERAL_MAINID_EXTEND_BOX;
        serial.port[4].extend[0].mainFun = 34;
        paramCanSetting_t can{};
        can.port[0].mainFun = kCanMainId;
        Deliver(316, &serial, sizeof serial);
        Deliver(360, &can, sizeof can);
    }

    void Deliver(int eventId, const void* record, size_t size) {
        std::string message(Common::kMsgHeadSize, '\0');
        const uint32_t length = static_cast<uint32_t>(size);
        memcpy(&message[12], &length, sizeof length);
        message.append(static_cast<const char*>(record), size);
        manage->GetMsgClient()->MSGDispatchForTest(eventId, message.data(),
                                                   static_cast<int>(message.size()));
    }

    std::string root;
    std::string configPath;
    std::unique_ptr<Common::CMsgBroker> broker;
    std::unique_ptr<CPeripheralManage> manage;
};

World& TheWorld() {
    static World* world = new World();  // kept to the end: the fuzzer exits from anywhere
    return *world;
}

}  // namespace

CPeripheralManage& Manager() {
    return *TheWorld().manage;
}

const std::string& PeripheralConfigPath() {
    return TheWorld().configPath;
}

}  // namespace fuzzsupport
