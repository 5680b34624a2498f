// The peripheral base on a controlled clock: which instance gets which message id, and when
// the shared and the independent cycles run.
#include <climits>

#include <atomic>
#include <memory>

#include <gtest/gtest.h>

#include "CommonTime.h"
#include "PeripheralBase.h"
#include "ServiceHarness.h"

namespace {

using pmtest::WaitUntil;

// Every read is counted, so a test knows that passes of a thread happened.
std::atomic<long long> g_now{0};
std::atomic<int> g_clockReads{0};
long long FakeClock() {
    ++g_clockReads;
    return g_now.load();
}

class CountingPeripheral : public CPeripheralBase {
public:
    using CPeripheralBase::CPeripheralBase;
    ~CountingPeripheral() override { Stop(); }  // before this part goes away

    int PeripheralInitialize() override { return initResult; }
    int PeripheralThreadCycle(long long now) override {
        lastNow = now;
        ++cycles;
        return 7;
    }
    int MessageRegister() override {
        ++registers;
        return 0;
    }
    int MessageUnRegister() override {
        ++unregisters;
        return 0;
    }
    long long LastTime() const { return m_llLastTime; }

    int initResult = 0;
    std::atomic<int> cycles{0}, registers{0}, unregisters{0};
    std::atomic<long long> lastNow{-1};
};

class PeripheralBaseTest : public ::testing::Test {
protected:
    void SetUp() override { Common::SetClockSourceForTest(FakeClock); }
    void TearDown() override { Common::SetClockSourceForTest(nullptr); }

    std::unique_ptr<CountingPeripheral> Shared(ePeripheralType type, unsigned mainId,
                                               unsigned subId) {
        return std::make_unique<CountingPeripheral>(&service.Manager(), service.ManagerClient(),
                                                    type, mainId, subId);
    }
    std::unique_ptr<CountingPeripheral> Independent() {
        return std::make_unique<CountingPeripheral>(&service.Manager(), nullptr,
                                                    PERIPHERAL_TYPE_CANPORT, 12, 3);
    }
    // Some passes of the instance's own loop.
    static bool PassesHappen(int passes) {
        const int start = g_clockReads.load();
        return WaitUntil([&] { return g_clockReads.load() >= start + passes; });
    }

    pmtest::ServiceHarness service;
};

TEST_F(PeripheralBaseTest, MessageIdFollowsKindAndIds) {
    const struct {
        ePeripheralType type;
        unsigned mainId, subId, expected;
    } cases[] = {
        {PERIPHERAL_TYPE_SERIAL, 3, 1, 10301},
        {PERIPHERAL_TYPE_CANPORT, 12, 0, 21200},
        {PERIPHERAL_TYPE_ETHERNET, 0, 0, 30000},
        {PERIPHERAL_TYPE_SERIAL, 100, 0, 20000},  // collides with CAN 0/0, as documented
    };
    for (const auto& c : cases) {
        auto p = Shared(c.type, c.mainId, c.subId);
        EXPECT_EQ(p->GetMsgId(), c.expected) << c.mainId << "/" << c.subId;
        EXPECT_TRUE(p->IsSharedThread());
        EXPECT_EQ(p->GetThreadCircleTime(), 200u);
    }
    auto own = Independent();
    EXPECT_EQ(own->GetMsgId(), 0u);
    EXPECT_FALSE(own->IsSharedThread());
    EXPECT_NE(own->GetMsgClient(), nullptr) << "an independent instance gets a client of its own";
    EXPECT_NE(own->GetMsgClient(), service.ManagerClient());
}

TEST_F(PeripheralBaseTest, SharedCycleRunsOncePerCircleTimeEitherWayOfTheClock) {
    auto p = Shared(PERIPHERAL_TYPE_SERIAL, 3, 1);
    EXPECT_EQ(p->Initialize(), 0);
    EXPECT_EQ(p->registers.load(), 1);
    EXPECT_FALSE(p->IsRunning()) << "a shared instance starts no thread";

    const struct {
        bool open;
        long long now;
        bool runs;
    } steps[] = {
        {false, 5000, false},
        {false, LLONG_MAX, false},  // a closed port never cycles
        {true, 199, false},
        {true, 200, true},
        {true, 399, false},
        {true, 400, true},
        {true, 201, false},  // backwards by less than the circle time
        {true, 200, true},   // backwards by a whole circle
        {true, LLONG_MAX, true},
        {true, LLONG_MIN, true},  // no overflow at the extremes
        {true, LLONG_MIN + 199, false},
        {true, LLONG_MAX, true},
    };
    int expected = 0;
    for (const auto& s : steps) {
        p->SetCurPeripOpenStatus(s.open);
        const long long last = p->LastTime();
        EXPECT_EQ(p->SharedThreadCycle(s.now), s.runs ? 7 : 0) << s.now;
        expected += s.runs ? 1 : 0;
        EXPECT_EQ(p->cycles.load(), expected) << s.now;
        EXPECT_EQ(p->LastTime(), s.runs ? s.now : last) << s.now;
    }
}

TEST_F(PeripheralBaseTest, IndependentInstanceCyclesOnItsOwnThreadWhileOpen) {
    auto p = Independent();
    g_now = 100000;
    ASSERT_EQ(p->Initialize(), 0);
    EXPECT_EQ(p->registers.load(), 1);
    EXPECT_TRUE(p->IsRunning());
    ASSERT_TRUE(PassesHappen(5));
    EXPECT_EQ(p->cycles.load(), 0) << "closed port";

    g_now = 150;
    ASSERT_TRUE(PassesHappen(2));  // no pass still holds the old clock value when it opens
    p->SetCurPeripOpenStatus(true);
    ASSERT_TRUE(PassesHappen(5));
    EXPECT_EQ(p->cycles.load(), 0) << "150 ms from 0 is not a whole circle";
    g_now = 200;
    ASSERT_TRUE(WaitUntil([&] { return p->cycles.load() == 1; }));
    EXPECT_EQ(p->lastNow.load(), 200);
    ASSERT_TRUE(PassesHappen(5));
    EXPECT_EQ(p->cycles.load(), 1) << "no second cycle before the clock moves on";
    g_now = 0;  // backwards by a whole circle
    ASSERT_TRUE(WaitUntil([&] { return p->cycles.load() == 2; }));

    EXPECT_EQ(p->SharedThreadCycle(100000), 0) << "the manager's call does nothing here";
    EXPECT_EQ(p->cycles.load(), 2);
    EXPECT_EQ(p->LastTime(), 0);

    EXPECT_EQ(p->StopPeripheralThread(), 0);
    EXPECT_FALSE(p->IsRunning());
    EXPECT_FALSE(p->GetCurPeripOpenStatus());
    EXPECT_EQ(p->StopPeripheralThread(), 0);
    EXPECT_EQ(p->unregisters.load(), 2);
    EXPECT_EQ(service.Logs().Count("CPeripheralBase StopPeripheralThread\n"), 2u);
}

TEST_F(PeripheralBaseTest, FailedInitializeRegistersNothingAndStartsNothing) {
    auto own = Independent();
    own->initResult = -1;
    EXPECT_EQ(own->Initialize(), -1);
    EXPECT_EQ(own->registers.load(), 0);
    EXPECT_FALSE(own->IsRunning());
    EXPECT_TRUE(service.Logs().Contains(
        "P_BASE: This Peripheral init falied, type = 1, mainId = 12, subId = 3\n"));
    auto shared = Shared(PERIPHERAL_TYPE_SERIAL, 4, 0);
    shared->initResult = 1;
    EXPECT_EQ(shared->Initialize(), 0) << "only a negative result is a failure";
}

TEST(PeripheralBaseDeathTest, AnInstanceWithoutManagerEndsTheProcess) {
    GTEST_FLAG_SET(death_test_style, pmtest::DeathTestStyle());
    EXPECT_EXIT(CountingPeripheral(nullptr, nullptr, PERIPHERAL_TYPE_SERIAL, 1, 0),
                ::testing::ExitedWithCode(1), "manage ptr is NULL");
}

}  // namespace
