#include <climits>

#include <atomic>
#include <memory>
#include <string>

#include <gtest/gtest.h>

#include "CommonTime.h"
#include "PeripheralBase.h"
#include "ServiceEnv.h"
#include "TestSupport.h"

namespace {

using pmtest::CountExact;
using pmtest::LogCapture;
using pmtest::WaitUntil;

// The controlled clock: every read is counted, so a test knows that thread passes happened.
std::atomic<long long> g_now{0};
std::atomic<int> g_clockReads{0};
long long FakeClock() {
    ++g_clockReads;
    return g_now.load();
}

class CountingPeripheral : public CPeripheralBase {
public:
    CountingPeripheral(CPeripheralManage* manage, CMsgClientManage* client, ePeripheralType type,
                       unsigned int mainId, unsigned int subId)
        : CPeripheralBase(manage, client, type, mainId, subId) {}
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
    std::atomic<int> cycles{0};
    std::atomic<long long> lastNow{-1};
    std::atomic<int> registers{0};
    std::atomic<int> unregisters{0};
};

class PeripheralBaseTest : public ::testing::Test {
protected:
    void SetUp() override {
        g_now = 0;
        g_clockReads = 0;
        Common::SetClockSourceForTest(FakeClock);
    }
    void TearDown() override { Common::SetClockSourceForTest(nullptr); }

    std::unique_ptr<CountingPeripheral> Shared(ePeripheralType type, unsigned int mainId,
                                               unsigned int subId) {
        return std::make_unique<CountingPeripheral>(env.Manage(), env.Manage()->GetMsgClient(),
                                                    type, mainId, subId);
    }
    std::unique_ptr<CountingPeripheral> Independent() {
        return std::make_unique<CountingPeripheral>(env.Manage(), nullptr, PERIPHERAL_TYPE_CANPORT,
                                                    12, 3);
    }
    // Some passes of the instance's own loop, seen through its clock reads.
    static bool PassesHappen(int passes) {
        int start = g_clockReads.load();
        return WaitUntil([&] { return g_clockReads.load() >= start + passes; });
    }

    LogCapture log;
    pmtest::ServiceEnv env;
};

TEST_F(PeripheralBaseTest, ModuleIdOfASharedInstanceFollowsKindAndIds) {
    const struct {
        ePeripheralType type;
        unsigned int mainId, subId, expected;
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
        EXPECT_EQ(p->GetMsgClient(), env.Manage()->GetMsgClient());
        EXPECT_EQ(p->GetThreadCircleTime(), 200u);
        EXPECT_FALSE(p->GetCurPeripOpenStatus());
    }
    auto own = Independent();
    EXPECT_EQ(own->GetMsgId(), 0u);
    EXPECT_FALSE(own->IsSharedThread());
    EXPECT_NE(own->GetMsgClient(), nullptr);
    EXPECT_NE(own->GetMsgClient(), env.Manage()->GetMsgClient());
}

TEST_F(PeripheralBaseTest, SharedCycleRunsOncePerCircleTimeEitherWayOfTheClock) {
    auto p = Shared(PERIPHERAL_TYPE_SERIAL, 3, 1);
    EXPECT_EQ(p->Initialize(), 0);
    EXPECT_EQ(p->registers.load(), 1);
    EXPECT_FALSE(p->IsRunning()) << "a shared instance starts no thread";

    for (long long now : {0LL, 5000LL, -5000LL, LLONG_MAX, LLONG_MIN}) {
        EXPECT_EQ(p->SharedThreadCycle(now), 0) << "closed port, now " << now;
    }
    EXPECT_EQ(p->cycles.load(), 0);

    p->SetCurPeripOpenStatus(true);
    const struct {
        long long now;
        bool runs;
    } steps[] = {
        {199, false}, {200, true},  {399, false},
        {400, true},  {201, false},  // backwards by less than the circle time
        {200, true},                 // backwards by a whole circle
        {1, false},   {0, true},
    };
    int expected = 0;
    for (const auto& s : steps) {
        long long last = p->LastTime();
        EXPECT_EQ(p->SharedThreadCycle(s.now), s.runs ? 7 : 0) << s.now;
        expected += s.runs ? 1 : 0;
        EXPECT_EQ(p->cycles.load(), expected) << s.now;
        EXPECT_EQ(p->LastTime(), s.runs ? s.now : last) << s.now;
    }
    EXPECT_EQ(CountExact(log,
                         "P_BASE: [0:3-1], Shared Thread running, msgId = 10301, last_time "
                         "= 400\n"),
              1u);

    p->SetThreadCircleTime(10);
    EXPECT_EQ(p->SharedThreadCycle(11), 7) << "the next comparison uses the new circle time";
}

TEST_F(PeripheralBaseTest, ClockExtremesNeitherOverflowNorStall) {
    auto p = Shared(PERIPHERAL_TYPE_SERIAL, 1, 0);
    p->SetCurPeripOpenStatus(true);
    EXPECT_EQ(p->SharedThreadCycle(LLONG_MAX), 7);
    EXPECT_EQ(p->SharedThreadCycle(LLONG_MIN), 7);
    EXPECT_EQ(p->SharedThreadCycle(LLONG_MIN + 199), 0);
    EXPECT_EQ(p->SharedThreadCycle(LLONG_MAX), 7);
    EXPECT_EQ(p->cycles.load(), 3);
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
    EXPECT_TRUE(log.Contains("P_BASE: [1:12-3], Independent Thread running......, curTime = 0\n"));

    int cycles = p->cycles.load();
    EXPECT_EQ(p->SharedThreadCycle(100000), 0) << "the manager's call does nothing here";

    EXPECT_EQ(p->StopPeripheralThread(), 0);
    EXPECT_FALSE(p->IsRunning());
    EXPECT_FALSE(p->GetCurPeripOpenStatus());
    EXPECT_EQ(p->StopPeripheralThread(), 0);
    EXPECT_EQ(p->unregisters.load(), 2);
    EXPECT_EQ(CountExact(log, "CPeripheralBase StopPeripheralThread\n"), 2u);
    EXPECT_EQ(p->cycles.load(), cycles);
    EXPECT_EQ(p->LastTime(), 0) << "set by the instance's own cycle only";
}

TEST_F(PeripheralBaseTest, SharedCycleOnAnIndependentInstanceDoesNothing) {
    auto p = Independent();
    p->SetCurPeripOpenStatus(true);
    EXPECT_EQ(p->SharedThreadCycle(5000), 0);
    EXPECT_EQ(p->cycles.load(), 0);
    EXPECT_EQ(p->LastTime(), 0);
}

TEST_F(PeripheralBaseTest, FailedInitializeRegistersNothingAndStartsNothing) {
    auto own = Independent();
    own->initResult = -1;
    EXPECT_EQ(own->Initialize(), -1);
    EXPECT_EQ(own->registers.load(), 0);
    EXPECT_FALSE(own->IsRunning());
    EXPECT_EQ(CountExact(log,
                         "P_BASE: This Peripheral init falied, type = 1, mainId = 12, "
                         "subId = 3\n"),
              1u);

    auto shared = Shared(PERIPHERAL_TYPE_SERIAL, 4, 0);
    shared->initResult = 1;
    EXPECT_EQ(shared->Initialize(), 0) << "only a negative result is a failure";
}

TEST(PeripheralBaseDeathTest, AnInstanceWithoutManagerEndsTheProcess) {
    GTEST_FLAG_SET(death_test_style, "threadsafe");
    EXPECT_EXIT(CountingPeripheral(nullptr, nullptr, PERIPHERAL_TYPE_SERIAL, 1, 0),
                ::testing::ExitedWithCode(1), "manage ptr is NULL");
}

}  // namespace
