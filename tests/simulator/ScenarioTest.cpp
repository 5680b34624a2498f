// Reading scenario files: what a person writes, and the mistakes that must be named.
#include <gtest/gtest.h>

#include "Scenario.h"

namespace {

using namespace pmrecorder;

struct BadCase {
    const char* what;
    const char* json;
    const char* message;  // part of the error
};

void PrintTo(const BadCase& c, std::ostream* os) {
    *os << c.what;
}

const BadCase kBadCases[] = {
    {"a typo in a key", R"({"serial": [{"index": 0, "baudrate": "B9600"}]})",
     "serial[0].baudrate: unknown key"},
    {"a baud word that does not exist", R"({"serial": [{"index": 0, "baud": "B9601"}]})",
     "serial[0].baud: \"B9601\" is no baud word"},
    {"a port index beyond the twelve", R"({"serial": [{"index": 12}]})",
     "serial[0].index: must be a whole number from 0 to 11"},
    {"an index given twice", R"({"can": [{"index": 1}, {"index": 1}]})", "given twice"},
    {"a slot without index", R"({"ethernet": [{"main": 20}]})", "ethernet[0].index: missing"},
    {"a sub-port beyond eight",
     R"({"serial": [{"index": 4, "main": 1, "subPorts": [{"index": 8}]}]})",
     "serial[0].subPorts[0].index"},
    {"readiness that is neither", R"({"ready": "soon"})", "ready: must be"},
    {"a patch past the record", R"({"ftp": {"patch": {"415": "01 02"}}})", "run past"},
    {"an MCU link on a main-chip port", R"({"mcuPorts": [{"index": 4, "link": "x"}]})",
     "mcuPorts[0].index"},
    {"a repeated frame list without any delay",
     R"({"canFrames": {"repeat": true, "frames": ["123#11"]}})", "needs a delay"},
    {"a remote frame", R"({"canFrames": ["123#R"]})", "remote frames"},
    {"an interface the recorder lacks", R"({"canFrames": ["can7 123#11"]})", "not can0 .. can3"},
    {"broken JSON", R"({"serial": [})", "not JSON"},
};

class BadScenarioTest : public ::testing::TestWithParam<BadCase> {};

TEST_P(BadScenarioTest, IsRefusedWithItsPlace) {
    Scenario s;
    std::string error;
    EXPECT_FALSE(ParseScenarioText(GetParam().json, s, error));
    EXPECT_NE(error.find(GetParam().message), std::string::npos) << error;
}

INSTANTIATE_TEST_SUITE_P(Scenario, BadScenarioTest, ::testing::ValuesIn(kBadCases));

TEST(ScenarioTest, ReadsEveryPartOfAFullScenario) {
    Scenario s;
    std::string error;
    ASSERT_TRUE(ParseScenarioText(R"({
        "comment": "free text is allowed anywhere",
        "productType": 6, "ready": 1500,
        "serial": [{"index": 4, "main": 1, "baud": "B115200",
                    "subPorts": [{"index": 0, "main": 34, "baud": "B57600"}]}],
        "cpxRelease": {"path": "/dev/ttyAMA1", "afterMs": 200},
        "mcuPorts": [{"index": 0, "link": "dev/mcu-port0"}],
        "canFrames": {"start": "now", "repeat": true,
                      "frames": ["+100 can1 18FEF131#F7FFFF07CCFFFFFF",
                                 {"frame": "123#11", "delayMs": 50}]}
    })",
                                  s, error))
        << error;
    EXPECT_EQ(s.productType, 6);
    EXPECT_EQ(s.ready.kind, Readiness::kAfter);
    EXPECT_EQ(s.ready.afterMs, 1500u);
    ASSERT_EQ(s.serial.size(), 1u);
    ASSERT_EQ(s.serial[0].subPorts.size(), 1u);
    EXPECT_EQ(s.serial[0].subPorts[0].line.baud, 5);
    EXPECT_TRUE(s.cpx.enabled);
    EXPECT_EQ(s.cpx.afterMs, 200u);
    ASSERT_EQ(s.canScript.frames.size(), 2u);
    EXPECT_TRUE(s.canScript.startNow);
    EXPECT_EQ(s.canScript.frames[0].delayMs, 100u);
    EXPECT_EQ(s.canScript.frames[0].port, 1);
    EXPECT_EQ(s.canScript.frames[0].frame.id, 0x18FEF131u);
    EXPECT_EQ(s.canScript.frames[1].port, 0);
}

TEST(ScenarioTest, AnEmptyFileIsAReadyRecorderWithNothingAttached) {
    Scenario s;
    std::string error;
    ASSERT_TRUE(ParseScenarioText("{}", s, error)) << error;
    EXPECT_EQ(s.ready.kind, Readiness::kNow);
    EXPECT_TRUE(s.serial.empty());
    EXPECT_FALSE(s.udisk.present);
    EXPECT_FALSE(s.cpx.enabled);
}

}  // namespace
