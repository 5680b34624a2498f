// Start-up of the manager without its thread: the configuration document, the tables built
// from it, the look-ups on it, and the hex dump.
#include <string.h>

#include <memory>
#include <ostream>
#include <string>
#include <vector>

#include <gtest/gtest.h>

#include "ManagerHarness.h"

namespace mgrtest {
namespace {

// ---- a configuration that cannot be had ends the process -----------------------------------

struct MissingCase {
    const char* name;
    const char* document;  // empty: no file at all
};

// Test names and failure messages show the case's name, not its bytes.
void PrintTo(const MissingCase& c, std::ostream* os) {
    *os << c.name;
}

class MissingConfigTest : public ::testing::TestWithParam<MissingCase> {
protected:
    void SetUp() override { GTEST_FLAG_SET(death_test_style, "threadsafe"); }
};

TEST_P(MissingConfigTest, ConstructorExitsWithStatusOne) {
    ManagerEnv env(GetParam().document);
    EXPECT_EXIT({ CPeripheralManage manage; }, ::testing::ExitedWithCode(1),
                "S_MANAGE: Load Peripheral Config failed, and exit!!!");
}

TEST_P(MissingConfigTest, CreateExitsWithStatusOne) {
    ManagerEnv env(GetParam().document);
    EXPECT_EXIT(Create(), ::testing::ExitedWithCode(1), "Get Serial Env failed");
}

const MissingCase kMissingCases[] = {
    {"NoFile", ""},
    {"NotJson", "{\"DEVICE_SERIAL_SETTING\": ["},
};

INSTANTIATE_TEST_SUITE_P(Manager, MissingConfigTest, ::testing::ValuesIn(kMissingCases),
                         [](const auto& info) { return std::string(info.param.name); });

// ---- configuration analysis ----------------------------------------------------------------

struct SerialRecord {
    uint32_t mainId, subId, baud;
    int32_t protocolType;
};

struct LibName {
    ePeripheralType type;
    unsigned int mainId;
    const char* name;
};

struct AnalysisCase {
    const char* name;
    const char* document;
    uint16_t paramState;
    uint8_t curPeripheral;
    std::vector<SerialRecord> serial;
    std::vector<uint32_t> canMainIds;
    std::vector<LibName> libs;
};

void PrintTo(const AnalysisCase& c, std::ostream* os) {
    *os << c.name;
}

class ConfigAnalysisTest : public ::testing::TestWithParam<AnalysisCase> {};

TEST_P(ConfigAnalysisTest, BuildsTablesAndMasks) {
    const AnalysisCase& c = GetParam();
    ManagerEnv env(c.document);
    TestManage manage;

    EXPECT_EQ(manage.m_nParamState, c.paramState);
    EXPECT_EQ(manage.m_nCurPeripheral, c.curPeripheral);

    std::vector<PeripheralProperty> serial;
    manage.GetPeripheralConfig(PERIPHERAL_TYPE_SERIAL, serial);
    ASSERT_EQ(serial.size(), c.serial.size());
    for (size_t i = 0; i < serial.size(); ++i) {
        SCOPED_TRACE(i);
        EXPECT_EQ(serial[i].mainId, c.serial[i].mainId);
        EXPECT_EQ(serial[i].subId, c.serial[i].subId);
        EXPECT_EQ(serial[i].baud, c.serial[i].baud);
        EXPECT_EQ(serial[i].protocolType, c.serial[i].protocolType);
    }

    std::vector<PeripheralProperty> can;
    manage.GetPeripheralConfig(PERIPHERAL_TYPE_CANPORT, can);
    ASSERT_EQ(can.size(), c.canMainIds.size());
    for (size_t i = 0; i < can.size(); ++i) {
        EXPECT_EQ(can[i].mainId, c.canMainIds[i]);
        EXPECT_EQ(can[i].subId, 0u);
    }

    std::vector<PeripheralProperty> ethernet;
    manage.GetPeripheralConfig(PERIPHERAL_TYPE_ETHERNET, ethernet);
    EXPECT_TRUE(ethernet.empty()) << "Ethernet follows its parameter setting alone";

    size_t libCount = 0;
    for (const auto& byType : manage.m_mapPeripheralLibName) {
        libCount += byType.second.size();
    }
    EXPECT_EQ(libCount, c.libs.size());
    for (const LibName& lib : c.libs) {
        EXPECT_EQ(manage.m_mapPeripheralLibName[lib.type][lib.mainId], lib.name)
            << "type " << lib.type << " main id " << lib.mainId;
    }
}

const AnalysisCase kAnalysisCases[] = {
    {"SubFunctionsFollowTheirMainEntry",
     R"({"DEVICE_SERIAL_SETTING": [
          {"DEV_SERIAL_FUNCID": 7, "DEV_SERIAL_LIB_NAME": "libgps",
           "DEV_SERIAL_BAUD_RATE": "B9600", "DEV_SERIAL_PROTOCOL_TYPE": 1,
           "DEV_SERIAL_SUB_FUNCTION": [
             {"DEV_SERIAL_SUB_FUNCID": 2, "DEV_SERIAL_BAUD_RATE": "B115200"},
             {"DEV_SERIAL_SUB_FUNCID": 3}]},
          {"DEV_SERIAL_FUNCID": 9, "DEV_SERIAL_LIB_NAME": "libled"}]})",
     0x13,
     0x01,
     {{7, 0, SERIAL_BAUD_9600, 1},
      {7, 2, SERIAL_BAUD_115200, 2},
      {7, 3, SERIAL_BAUD_4800, 2},
      {9, 0, SERIAL_BAUD_4800, 2}},
     {},
     {{PERIPHERAL_TYPE_SERIAL, 7, "libgps"}, {PERIPHERAL_TYPE_SERIAL, 9, "libled"}}},
    {"DisabledCanStillAwaitsItsSetting",
     R"({"DEVICE_CANPORT_SETTING": [
          {"DEV_CANPORT_FUNCID": 12, "DEV_CANPORT_LIB_NAME": "libcan",
           "DEV_CANPORT_SUPPORT_ENABLE": "false"}]})",
     0x15,
     0x02,
     {},
     {},
     {}},
    {"EnabledCanAddsRecordAndLib",
     R"({"DEVICE_CANPORT_SETTING": [
          {"DEV_CANPORT_FUNCID": 12, "DEV_CANPORT_LIB_NAME": "libcan",
           "DEV_CANPORT_SUPPORT_ENABLE": "true", "DEV_CAN_BAUD_RATE": "B57600"},
          {"DEV_CANPORT_FUNCID": 13, "DEV_CANPORT_LIB_NAME": "libcan2",
           "DEV_CANPORT_SUPPORT_ENABLE": "TRUE"}]})",
     0x15,
     0x02,
     {},
     {12},
     {{PERIPHERAL_TYPE_CANPORT, 12, "libcan"}}},
    {"EthernetGivesLibraryNameOnly",
     R"({"DEVICE_ETHERNET_SETTING": [
          {"DEV_ETHERNET_FUNCID": 20, "DEV_ETHERNET_LIB_NAME": "libeth",
           "DEV_ETHERNET_SUPPORT_ENABLE": "true"}]})",
     0x19,
     0x04,
     {},
     {},
     {{PERIPHERAL_TYPE_ETHERNET, 20, "libeth"}}},
    {"EmptyArraysClearTheirBits",
     R"({"DEVICE_SERIAL_SETTING": [], "DEVICE_CANPORT_SETTING": [],
         "DEVICE_ETHERNET_SETTING": []})",
     0x11,
     0x00,
     {},
     {},
     {}},
    {"SkippedEntriesStillCountAsConfigured",
     R"({"DEVICE_SERIAL_SETTING": [{"DEV_SERIAL_FUNCID": "7", "DEV_SERIAL_LIB_NAME": "x"},
                                   {"DEV_SERIAL_FUNCID": 8}, 3]})",
     0x13,
     0x01,
     {},
     {},
     {}},
    {"WrongTypesReadAsEmpty",
     R"({"DEVICE_SERIAL_SETTING": {"DEV_SERIAL_FUNCID": 7},
         "DEVICE_CANPORT_SETTING": "none", "DEVICE_PERIPHERAL_PARAM_SETTING": []})",
     0x11,
     0x00,
     {},
     {},
     {}},
    {"DocumentNotAnObject", "[1, 2, 3]", 0x11, 0x00, {}, {}, {}},
};

INSTANTIATE_TEST_SUITE_P(Manager, ConfigAnalysisTest, ::testing::ValuesIn(kAnalysisCases),
                         [](const auto& info) { return std::string(info.param.name); });

TEST(ManagerConfig, MainChipPathsByPosition) {
    ManagerEnv env(R"({"DEVICE_PERIPHERAL_PARAM_SETTING": {"SERIAL_PARAM": [
        {"PATH": "/dev/ttyAMA2", "POSITION": 4},
        {"PATH": "/dev/ttyAMA3", "POSITION": 11},
        {"PATH": "/dev/ttyAMA9", "POSITION": 12},
        {"PATH": "/dev/ttyAMA8", "POSITION": -1},
        {"PATH": 5, "POSITION": 6},
        {"PATH": "/dev/ttyAMA4"}]}})");
    TestManage manage;
    const SerialParam_t* param = manage.GetSystemSerialParam();
    for (int i = 0; i < 12; ++i) {
        const char* expected = i == 4 ? "/dev/ttyAMA2" : i == 11 ? "/dev/ttyAMA3" : "";
        EXPECT_EQ(param->strSerialPath[i], expected) << "position " << i;
    }
    EXPECT_EQ(env.Logs().Count("S_MANAGE: Main chip serial position out of range"), 2u);
    EXPECT_EQ(env.Logs().Count("S_MANAGE: Find a main chip serial, id = 1, position = 11, "
                               "path = /dev/ttyAMA3\n"),
              1u);
}

// ---- look-ups on the current parameter settings --------------------------------------------

struct UiIdCase {
    const char* name;  // the configured NAME of position 4
    unsigned char uiId;
};

void PrintTo(const UiIdCase& c, std::ostream* os) {
    *os << c.name;
}

class UiIdTest : public ::testing::TestWithParam<UiIdCase> {};

TEST_P(UiIdTest, NameIsSearchedInThePortTexts) {
    const std::string config = std::string(R"({"DEVICE_PERIPHERAL_PARAM_SETTING": {"SERIAL_PARAM": [
            {"NAME": "485-2", "POSITION": 1},
            {"NAME": 7, "POSITION": 4},
            {"NAME": ")") + GetParam().name +
                               R"(", "POSITION": 4}]}})";
    ManagerEnv env(config);
    TestManage manage;
    manage.m_stuSystemSerialParam.stuSerialSetting.port[4].mainFun = 30;
    EXPECT_EQ(manage.GetPeripheralUiId(PERIPHERAL_TYPE_SERIAL, 30, 0), GetParam().uiId);
    EXPECT_EQ(manage.GetPeripheralUiId(PERIPHERAL_TYPE_CANPORT, 30, 0), 0);
}

const UiIdCase kUiIdCases[] = {
    {"232-2", 1}, {"485-1", 2}, {"485-2", 3}, {"232", 0},
    {"485", 2},   {"", 0},      {"-2", 1},    {"RS232-1", 0},
};

INSTANTIATE_TEST_SUITE_P(Manager, UiIdTest, ::testing::ValuesIn(kUiIdCases));

// ---- hex dump ------------------------------------------------------------------------------

std::string Dump(TestManage& manage, const std::vector<uint8_t>& data, int level) {
    ::testing::internal::CaptureStdout();
    manage.hex_dump("T:", reinterpret_cast<const char*>(data.data()),
                    static_cast<unsigned int>(data.size()), level);
    return ::testing::internal::GetCapturedStdout();
}

TEST(ManagerHexDump, RowsAndCharacterColumn) {
    ManagerEnv env;
    TestManage manage;
    manage.m_nDebugLevel = 3;
    std::vector<uint8_t> data(17);
    for (size_t i = 0; i < data.size(); ++i) {
        data[i] = static_cast<uint8_t>('A' + i);
    }
    data[1] = 0x01;
    EXPECT_EQ(Dump(manage, data, 3),
              "T:\n00: 41 01 43 44 45 46 47 48 49 4A 4B 4C 4D 4E 4F 50 "
              "A . C D E F G H I J K L M N O P \n10: 51 \n\n");
    EXPECT_EQ(Dump(manage, data, 4), "") << "above the debug level";

    // Past the first 256 bytes the character column repeats earlier rows.
    data.assign(272, '.');
    data[256] = 'y';
    const std::string out = Dump(manage, data, 0);
    EXPECT_NE(out.find("\n100: 79 2E"), std::string::npos);
    EXPECT_EQ(out.find("y ."), std::string::npos) << out;
}

}  // namespace
}  // namespace mgrtest
