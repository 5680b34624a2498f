// Scenario JSON to the exact bytes the service reads.
#include <gtest/gtest.h>

#include <algorithm>

#include "Records.h"
#include "Scenario.h"

namespace {

using namespace pmrecorder;

Scenario Parse(const std::string& json) {
    Scenario s;
    std::string error;
    if (!ParseScenarioText(json, s, error)) {
        throw std::runtime_error(error);
    }
    return s;
}

struct EncodeCase {
    const char* what;
    const char* json;
    Bytes (*encode)(const Scenario&);
    size_t size;
    size_t offset;
    Bytes expected;
    bool exclusive = true;  // every other byte as in the empty scenario
};

void PrintTo(const EncodeCase& c, std::ostream* os) {
    *os << c.what;
}

Bytes UDisk(const Scenario& s) {
    return EncodeUDiskInfo(s.udisk, s.udisk.mount);
}

const EncodeCase kEncodeCases[] = {
    {"serial port entry: main, baud code, sub at 72 * index",
     R"({"serial": [{"index": 4, "main": 34, "sub": 2, "baud": "B57600"}]})",
     EncodeSerialSetting,
     992,
     72 * 4,
     {34, 5, 2}},
    {"serial line settings follow in bytes 3-6",
     R"({"serial": [{"index": 0, "main": 3, "dataBits": "CS7", "stopBits": "2bit",
                     "parity": "EVEN", "flow": "HARDWARE"}]})",
     EncodeSerialSetting,
     992,
     0,
     {3, 1, 0, 1, 3, 2, 1, 0}},
    {"sub-port k of port p at 72p + 8 + 8k",
     R"({"serial": [{"index": 6, "main": 1, "subPorts": [{"index": 2, "main": 36, "baud": 7}]}]})",
     EncodeSerialSetting,
     992,
     72 * 6 + 8 + 16,
     {36, 7, 0},
     false},
    {"CAN entry: main, sub, then baud",
     R"({"can": [{"index": 2, "main": 12, "sub": 1, "baud": "B19200"}]})",
     EncodeCanSetting,
     208,
     40,
     {12, 1, 2}},
    {"Ethernet entry: ids, ip text at 4, port little-endian at 20",
     R"({"ethernet": [{"index": 1, "main": 20, "sub": 3, "ip": "10.0.0.7"}]})",
     EncodeEthernetSetting,
     336,
     52,
     {20, 3, 0, 0, '1', '0', '.', '0', '.', '0', '.', '7', 0}},
    {"Ethernet port",
     R"({"ethernet": [{"index": 1, "main": 20, "ip": "10.0.0.7", "port": 5020}]})",
     EncodeEthernetSetting,
     336,
     52 + 20,
     {0x9C, 0x13},
     false},
    {"IPC channel n: digital flag at 8 + 200n, protocol 6 further",
     R"({"ipc": {"channels": [{}, {"digital": true, "protocol": 9}]}})",
     EncodeIpcSetting,
     408,
     208,
     {1, 0, 0, 0, 0, 0, 9}},
    {"analogue video loss as a little-endian mask",
     R"({"videoLoss": [0, 9]})",
     EncodeVideoLoss,
     4,
     0,
     {0x01, 0x02, 0, 0}},
    {"digital video loss: protocols, then states of channels 0 and 1",
     R"({"digitalVideoLoss": [{"protocol": 5}, {"protocol": 6, "lost": true}, {"protocol": 7}]})",
     EncodeDigitalVideoLoss,
     6,
     0,
     {5, 6, 7, 0, 0, 1}},
    {"LED panel: ten bytes in a 16-byte payload",
     R"({"led": {"record": 0, "gps": 1, "sd": 1, "sys": 1, "byte9": 7}})",
     EncodeLedState,
     16,
     0,
     {0, 0, 0, 1, 0, 0, 0, 1, 1, 7, 0}},
    {"storage: disk i at 24 + 4i (state, -, type, valid)",
     R"({"storage": {"disks": [{}, {"state": 5, "type": 1, "valid": true}]}})",
     EncodeStorageState,
     32,
     24,
     {0, 0, 0, 0, 5, 0, 1, 1}},
    {"vehicle: word 48, byte 52",
     R"({"vehicle": {"word48": 264, "byte52": 16}})",
     EncodeVehicleInfo,
     56,
     48,
     {8, 1, 0, 0, 16}},
    {"vehicle: word 0", R"({"vehicle": {"word0": 8}})", EncodeVehicleInfo, 56, 0, {8, 0, 0, 0}},
    {"a patch lays bytes over the record",
     R"({"ftp": {"patch": {"0x10": "de ad"}}})",
     EncodeFtpSetting,
     416,
     15,
     {0, 0xDE, 0xAD, 0}},
    {"a patch may end at the record's last byte",
     R"({"ftp": {"patch": {"415": "ff"}}})",
     EncodeFtpSetting,
     416,
     414,
     {0, 0xFF}},
    {"U-disk: mount text at 32, record size little-endian at 72",
     R"({"udisk": {"mount": "/media/usb0", "recordSize": 20000000}})",
     UDisk,
     352,
     32,
     {'/', 'm', 'e', 'd', 'i', 'a', '/', 'u', 's', 'b', '0', 0},
     false},
    {"U-disk record size",
     R"({"udisk": {"mount": "/m", "recordSize": 20000000}})",
     UDisk,
     352,
     72,
     {0x00, 0x2D, 0x31, 0x01, 0, 0, 0, 0},
     false},
    {"no U-disk: all four mount folders empty", R"({})", UDisk, 352, 32, Bytes(320, 0)},
};

class EncodeTest : public ::testing::TestWithParam<EncodeCase> {};

TEST_P(EncodeTest, BytesAtTheirOffsets) {
    const EncodeCase& c = GetParam();
    Bytes b = c.encode(Parse(c.json));
    ASSERT_EQ(b.size(), c.size);
    ASSERT_LE(c.offset + c.expected.size(), b.size());
    EXPECT_EQ(Bytes(b.begin() + c.offset, b.begin() + c.offset + c.expected.size()), c.expected);
    if (!c.exclusive) {
        return;
    }
    Bytes empty = c.encode(Parse("{}"));
    for (size_t i = 0; i < b.size(); ++i) {
        if (i < c.offset || i >= c.offset + c.expected.size()) {
            EXPECT_EQ(b[i], empty[i]) << "byte " << i;
        }
    }
}

INSTANTIATE_TEST_SUITE_P(Records, EncodeTest, ::testing::ValuesIn(kEncodeCases));

TEST(SmallMessages, DeviceStateDebugLevelAndCpxRelease) {
    EXPECT_EQ(EncodeDeviceModuleState(true), (Bytes{1, 0, 0, 0}));
    EXPECT_EQ(EncodeDebugLevel(3), (Bytes{0x00, 0x1A, 3, 0, 0, 0, 0, 0}));
    Bytes cpx = EncodeCpxRelease("/dev/ttyAMA1");
    ASSERT_EQ(cpx.size(), 32u);
    EXPECT_STREQ(reinterpret_cast<const char*>(cpx.data()), "/dev/ttyAMA1");
}

struct ChangeCase {
    const char* what;
    const char* before;
    const char* after;
    std::vector<uint32_t> events;
};

void PrintTo(const ChangeCase& c, std::ostream* os) {
    *os << c.what;
}

const ChangeCase kChangeCases[] = {
    {"the same scenario sends nothing",
     R"({"serial": [{"index": 0, "main": 3}]})",
     R"({"serial": [{"index": 0, "main": 3}], "ready": "never", "mcuPorts": []})",
     {}},
    {"a serial baud rate",
     R"({"serial": [{"index": 4, "main": 34, "baud": "B9600"}]})",
     R"({"serial": [{"index": 4, "main": 34, "baud": "B115200"}]})",
     {316}},
    {"a CAN peripheral and an Ethernet port",
     R"({"ethernet": [{"index": 0, "main": 20}]})",
     R"({"can": [{"index": 0, "main": 12}], "ethernet": [{"index": 0, "main": 20, "port": 1}]})",
     {360, 362}},
    {"IPC and FTP",
     R"({})",
     R"({"ipc": {"channels": [{"digital": true}]},
                                 "ftp": {"patch": {"0": "01"}}})",
     {320, 284}},
    {"every state in its order",
     R"({})",
     R"({"videoLoss": [1], "digitalVideoLoss": [{"lost": true}], "led": {"gps": 1},
         "storage": {"disks": []}, "vehicle": {"word0": 8}})",
     {1052, 1284, 1122, 2053, 1081}},
    {"serial before CAN whatever the file's order",
     R"({"can": [{"index": 1, "main": 12}]})",
     R"({"can": [{"index": 1, "main": 13}], "serial": [{"index": 0, "main": 3}]})",
     {316, 360}},
};

class ChangeTest : public ::testing::TestWithParam<ChangeCase> {};

TEST_P(ChangeTest, OnlyWhatChanged) {
    const ChangeCase& c = GetParam();
    Scenario after = Parse(c.after);
    std::vector<uint32_t> ids;
    for (const Notice& n : ChangedNotices(Parse(c.before), after)) {
        ids.push_back(n.eventId);
    }
    EXPECT_EQ(ids, c.events);
}

INSTANTIATE_TEST_SUITE_P(Apply, ChangeTest, ::testing::ValuesIn(kChangeCases));

}  // namespace
