// The Ethernet base against the real manager: stepped only once its plug-in opened it.
#include <gtest/gtest.h>

#include "EthernetBase.h"
#include "ServiceHarness.h"

namespace {

using pmtest::ServiceHarness;

const char* const kConfig = R"({"DEVICE_SERIAL_SETTING": [], "DEVICE_CANPORT_SETTING": [],
  "DEVICE_ETHERNET_SETTING": []})";

class CountingEthernet : public CEthernetBase {
public:
    using CEthernetBase::CEthernetBase;
    int PeripheralThreadCycle(long long) override { return ++cycles; }
    int cycles = 0;
};

TEST(EthernetBaseTest, NeverCyclesUntilItsPluginOpensIt) {
    ServiceHarness service(kConfig);
    CountingEthernet eth(&service.Manager(), service.ManagerClient(), 33, 1);
    EXPECT_EQ(eth.GetMsgId(), 30000u + 3300u + 1u);
    for (long long now = 0; now <= 100000; now += 250) {
        eth.SharedThreadCycle(now);
    }
    EXPECT_EQ(eth.cycles, 0);
    eth.SetCurPeripOpenStatus(true);
    EXPECT_EQ(eth.SharedThreadCycle(200000), 1);
}

}  // namespace
