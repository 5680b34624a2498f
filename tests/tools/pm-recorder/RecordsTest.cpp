// Scenario JSON to the exact bytes the service reads, the mistakes a scenario must name, and
// the change events an apply sends.
#include <gtest/gtest.h>

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
     R"({"serial": [{"index": 4, "main": 34, "sub": 2, "baud": "B57600"}]})", EncodeSerialSetting,
     992, 72 * 4, Bytes{34, 5, 2}},
    {"serial line settings, which the service does not read, in bytes 3-6",
     R"({"serial": [{"index": 0, "main": 3, "dataBits": "CS7", "stopBits": "2bit",
                     "parity": "EVEN", "flow": "HARDWARE"}]})",
     EncodeSerialSetting, 992, 0, Bytes{3, 1, 0, 1, 3, 2, 1, 0}},
    {"sub-port k of port p at 72p + 8 + 8k",
     R"({"serial": [{"index": 6, "main": 1, "subPorts": [{"index": 2, "main": 36, "baud": 7}]}]})",
     EncodeSerialSetting, 992, 72 * 6 + 8 + 16, Bytes{36, 7, 0}, false},
    {"CAN entry: main, sub, then baud",
     R"({"can": [{"index": 2, "main": 12, "sub": 1, "baud": "B19200"}]})", EncodeCanSetting, 208,
     40, Bytes{12, 1, 2}},
    {"Ethernet entry: ids, ip text at 4, port little-endian at 20",
     R"({"ethernet": [{"index": 1, "main": 20, "sub": 3, "ip": "10.0.0.7", "port": 5020}]})",
     EncodeEthernetSetting, 336, 52, Bytes{20,  3, 0, 0, '1', '0', '.', '0', '.', '0',  '.',
                                           '7', 0, 0, 0, 0,   0,   0,   0,   0,   0x9C, 0x13}},
    {"IPC channel n: digital flag at 8 + 200n, protocol 6 further",
     R"({"ipc": {"channels": [{}, {"digital": true, "protocol": 9}]}})", EncodeIpcSetting, 408, 208,
     Bytes{1, 0, 0, 0, 0, 0, 9}},
    {"analogue video loss as a little-endian mask", R"({"videoLoss": [0, 9]})", EncodeVideoLoss, 4,
     0, Bytes{0x01, 0x02, 0, 0}},
    {"digital video loss: protocols, then states of channels 0 and 1",
     R"({"digitalVideoLoss": [{"protocol": 5}, {"protocol": 6, "lost": true}, {"protocol": 7}]})",
     EncodeDigitalVideoLoss, 6, 0, Bytes{5, 6, 7, 0, 0, 1}},
    {"LED panel: ten bytes in a 16-byte payload",
     R"({"led": {"record": 0, "gps": 1, "sd": 1, "sys": 1, "byte9": 7}})", EncodeLedState, 16, 0,
     Bytes{0, 0, 0, 1, 0, 0, 0, 1, 1, 7, 0}},
    {"storage: disk i at 24 + 4i (state, -, type, valid)",
     R"({"storage": {"disks": [{}, {"state": 5, "type": 1, "valid": true}]}})", EncodeStorageState,
     32, 24, Bytes{0, 0, 0, 0, 5, 0, 1, 1}},
    {"vehicle: word 48, byte 52", R"({"vehicle": {"word48": 264, "byte52": 16}})",
     EncodeVehicleInfo, 56, 48, Bytes{8, 1, 0, 0, 16}},
    {"a patch lays bytes over the record", R"({"ftp": {"patch": {"0x10": "de ad"}}})",
     EncodeFtpSetting, 416, 15, Bytes{0, 0xDE, 0xAD, 0}},
    {"a patch may end at the record's last byte", R"({"ftp": {"patch": {"415": "ff"}}})",
     EncodeFtpSetting, 416, 414, Bytes{0, 0xFF}},
    {"U-disk: mount text at 48", R"({"udisk": {"mount": "/media/usb0"}})", UDisk, 368, 48,
     Bytes{'/', 'm', 'e', 'd', 'i', 'a', '/', 'u', 's', 'b', '0', 0}, false},
    {"U-disk: record size little-endian at 88",
     R"({"udisk": {"mount": "/m", "recordSize": 20000000}})", UDisk, 368, 88,
     Bytes{0x00, 0x2D, 0x31, 0x01, 0, 0, 0, 0}, false},
    {"no U-disk: all four mount folders empty", R"({})", UDisk, 368, 48, Bytes(320, 0)},
    {"debug level: 00 1A, then the level", R"({})",
     [](const Scenario&) { return EncodeDebugLevel(3); }, 8, 0,
     Bytes{0x00, 0x1A, 3, 0, 0, 0, 0, 0}},
};

class EncodeTest : public ::testing::TestWithParam<EncodeCase> {};

TEST_P(EncodeTest, BytesAtTheirOffsets) {
    const EncodeCase& c = GetParam();
    Bytes b = c.encode(Parse(c.json));
    ASSERT_EQ(b.size(), c.size);
    ASSERT_LE(c.offset + c.expected.size(), b.size());
    EXPECT_EQ(Bytes(b.begin() + c.offset, b.begin() + c.offset + c.expected.size()), c.expected);
    Bytes empty = c.encode(Parse("{}"));
    for (size_t i = 0; c.exclusive && i < b.size(); ++i) {
        if (i < c.offset || i >= c.offset + c.expected.size()) {
            EXPECT_EQ(b[i], empty[i]) << "byte " << i;
        }
    }
}

INSTANTIATE_TEST_SUITE_P(Records, EncodeTest, ::testing::ValuesIn(kEncodeCases));

TEST(ScenarioTest, MistakesAreRefusedWithTheirPlace) {
    struct {
        const char* json;
        const char* message;  // part of the error
    } const rows[] = {
        {R"({"serial": [{"index": 0, "baudrate": "B9600"}]})", "serial[0].baudrate: unknown key"},
        {R"({"serial": [{"index": 0, "baud": "B9601"}]})",
         "serial[0].baud: \"B9601\" is no baud word"},
        {R"({"serial": [{"index": 12}]})", "serial[0].index: must be a whole number from 0 to 11"},
        {R"({"serial": [{"index": 4, "main": 1, "subPorts": [{"index": 8}]}]})",
         "serial[0].subPorts[0].index"},
        {R"({"can": [{"index": 1}, {"index": 1}]})", "given twice"},
        {R"({"ftp": {"patch": {"415": "01 02"}}})", "run past"},
        {R"({"canFrames": {"repeat": true, "frames": ["123#11"]}})", "needs a delay"},
        {R"({"serial": [})", "not JSON"},
    };
    for (const auto& row : rows) {
        Scenario s;
        std::string error;
        EXPECT_FALSE(ParseScenarioText(row.json, s, error)) << row.json;
        EXPECT_NE(error.find(row.message), std::string::npos) << row.json << "\n" << error;
    }
}

TEST(ChangeTest, OnlyWhatChangedInTheirOrder) {
    using Ids = std::vector<uint32_t>;
    struct {
        const char* what;
        const char* before;
        const char* after;
        Ids events;
    } const rows[] = {
        {"the same records send nothing", R"({"serial": [{"index": 0, "main": 3}]})",
         R"({"serial": [{"index": 0, "main": 3}], "ready": "never", "mcuPorts": []})", Ids{}},
        {"a serial baud rate", R"({"serial": [{"index": 4, "main": 34, "baud": "B9600"}]})",
         R"({"serial": [{"index": 4, "main": 34, "baud": "B115200"}]})", Ids{316}},
        {"every setting, whatever the file's order", R"({"ethernet": [{"index": 0, "main": 20}]})",
         R"({"ftp": {"patch": {"0": "01"}}, "ipc": {"channels": [{"digital": true}]},
             "ethernet": [{"index": 0, "main": 20, "port": 1}], "can": [{"index": 0, "main": 12}],
             "serial": [{"index": 0, "main": 3}]})",
         Ids{316, 360, 362, 320, 284}},
        {"every state", R"({})",
         R"({"vehicle": {"word0": 8}, "storage": {"disks": []}, "led": {"gps": 1},
             "digitalVideoLoss": [{"lost": true}], "videoLoss": [1]})",
         Ids{1052, 1284, 1122, 2053, 1081}},
    };
    for (const auto& row : rows) {
        Scenario after = Parse(row.after);
        std::vector<uint32_t> ids;
        for (const Notice& n : ChangedNotices(Parse(row.before), after)) {
            ids.push_back(n.eventId);
        }
        EXPECT_EQ(ids, row.events) << row.what;
    }
}

}  // namespace
