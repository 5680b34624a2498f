// The parameter handlers' only length check, called directly with messages cut to the byte
// in buffers of exactly their size (so that a read past them is a sanitizer error).
#include <string.h>

#include <memory>
#include <string>
#include <vector>

#include <gtest/gtest.h>

#include "ReconcileHarness.h"

namespace rectest {
namespace {

struct LengthCase {
    const char* name;
    ePeripheralType family;
    int length;  // of the whole message, head included; -1: no message at all
    bool accepted;
};

void PrintTo(const LengthCase& c, std::ostream* os) {
    *os << c.name;
}

const LengthCase kLengthCases[] = {
    {"SerialNull", PERIPHERAL_TYPE_SERIAL, -1, false},
    {"Serial15", PERIPHERAL_TYPE_SERIAL, 15, false},
    {"Serial16", PERIPHERAL_TYPE_SERIAL, 16, true},
    {"CanNull", PERIPHERAL_TYPE_CANPORT, -1, false},
    {"Can15", PERIPHERAL_TYPE_CANPORT, 15, false},
    {"Can16", PERIPHERAL_TYPE_CANPORT, 16, true},
    {"EthernetNull", PERIPHERAL_TYPE_ETHERNET, -1, false},
    {"Ethernet15", PERIPHERAL_TYPE_ETHERNET, 15, false},
    {"Ethernet16", PERIPHERAL_TYPE_ETHERNET, 16, true},
};

struct Family {
    const char* lengthError;
    const char* changed;
    const char* printed;  // the dump's title on standard output
    uint16_t stateBit;
};

Family FamilyOf(ePeripheralType type) {
    switch (type) {
        case PERIPHERAL_TYPE_SERIAL:
            return {"S_MANAGE: Serial port param length error \n",
                    "S_MANAGE: Serial param has changed......\n",
                    "######### SERIAL PARAM#############\nindex = 0, mainFun = 0, subFun = 0, "
                    "baudrate = 0\n",
                    PARAM_STATE_SERIAL};
        case PERIPHERAL_TYPE_CANPORT:
            return {"S_MANAGE: CAN port param length error \n",
                    "S_MANAGE: CAN param has changed......\n",
                    "######### CAN_PORT PARAM#############\nindex = 0, mainFun = 0, subFun = 0, "
                    "baudrate = 0\n",
                    PARAM_STATE_CAN};
        case PERIPHERAL_TYPE_ETHERNET:
            break;
    }
    return {"S_MANAGE: Ethernet port param length error \n",
            "S_MANAGE: Ethernet param has changed......\n",
            "######### ETHERNET_PORT PARAM#############\nindex = 0, mainFun = 0, subFun = 0, ip = "
            ", port = 0\n",
            PARAM_STATE_ETHERNET};
}

class ParamLengthTest : public ::testing::TestWithParam<LengthCase> {
protected:
    // Non-zero kept records, so that a record read as zeros is a change.
    void KeepRecords() {
        m_manage->m_stuSystemSerialParam.stuSerialSetting = SerialRecord({{0, 7, 0, 3}});
        m_manage->m_stuCanParam.port[0].mainFun = kCanMainId;
        m_manage->m_stuEthernetParam.entry[0].mainFun = kEthernetMainId;
        m_manage->m_nParamState = PARAM_STATE_SERIAL | PARAM_STATE_CAN | PARAM_STATE_ETHERNET;
    }

    int Handle(ePeripheralType family, const char* data, int length) {
        switch (family) {
            case PERIPHERAL_TYPE_SERIAL:
                return m_manage->OnUpdateSerialParamSetting(data, length);
            case PERIPHERAL_TYPE_CANPORT:
                return m_manage->OnUpdateCanParamSetting(data, length);
            case PERIPHERAL_TYPE_ETHERNET:
                break;
        }
        return m_manage->OnUpdateEthernetParamSetting(data, length);
    }

    std::vector<uint8_t> Kept(ePeripheralType family) {
        switch (family) {
            case PERIPHERAL_TYPE_SERIAL:
                return Bytes(m_manage->m_stuSystemSerialParam.stuSerialSetting);
            case PERIPHERAL_TYPE_CANPORT:
                return Bytes(m_manage->m_stuCanParam);
            case PERIPHERAL_TYPE_ETHERNET:
                break;
        }
        return Bytes(m_manage->m_stuEthernetParam);
    }

    ReconcileEnv m_env;
    std::unique_ptr<TestManage> m_manage = std::make_unique<TestManage>();
};

TEST_P(ParamLengthTest, SixteenBytesPassAndTheMissingRecordReadsAsZeros) {
    const LengthCase& c = GetParam();
    const Family family = FamilyOf(c.family);
    KeepRecords();
    const std::vector<uint8_t> before = Kept(c.family);
    std::unique_ptr<char[]> message;
    if (c.length >= 0) {
        message.reset(new char[c.length]);
        memset(message.get(), 0, c.length);
    }

    ::testing::internal::CaptureStdout();
    Handle(c.family, message.get(), c.length < 0 ? 0 : c.length);
    const std::string printed = ::testing::internal::GetCapturedStdout();

    const std::vector<std::string> logs = Texts(m_env.Logs());
    EXPECT_EQ(CountPrefix(logs, family.lengthError), c.accepted ? 0u : 1u);
    EXPECT_EQ(CountPrefix(logs, family.changed), c.accepted ? 1u : 0u);
    EXPECT_EQ((m_manage->m_nParamState & family.stateBit) == 0, c.accepted);
    if (c.accepted) {
        EXPECT_EQ(Kept(c.family), std::vector<uint8_t>(before.size(), 0));
        EXPECT_NE(printed.find(family.printed), std::string::npos) << printed;
        EXPECT_NE(printed.find("############ END ######################\n"), std::string::npos);
    } else {
        EXPECT_EQ(Kept(c.family), before);
        EXPECT_EQ(printed, "");
    }
}

INSTANTIATE_TEST_SUITE_P(Reconcile, ParamLengthTest, ::testing::ValuesIn(kLengthCases),
                         [](const auto& info) { return std::string(info.param.name); });

}  // namespace
}  // namespace rectest
