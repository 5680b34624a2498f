// pm-bus record and replay, and the regress script, as real processes on a private bus.
#include <gtest/gtest.h>
#include <signal.h>

#include <chrono>
#include <cstdlib>
#include <fstream>
#include <functional>
#include <sstream>
#include <thread>

#include "BusWire.h"
#include "SessionFile.h"
#include "TestSupport.h"
#include "ToolProcess.h"

namespace {

using pmtest::RunTool;
using pmtest::ToolProcess;
using Bytes = std::vector<uint8_t>;

Bytes Frame(uint32_t id, uint32_t sender, uint32_t seq, uint32_t word3, const Bytes& payload) {
    Bytes frame(Common::kMsgHeadSize + payload.size());
    Common::PutMsgHead(frame.data(), id, sender, seq, word3);
    for (size_t i = 0; i < payload.size(); ++i) {
        frame[Common::kMsgHeadSize + i] = payload[i];
    }
    return frame;
}

void WriteFile(const std::string& path, const std::string& text) {
    std::ofstream(path) << text;
}

pmbus::Session Load(const std::string& path) {
    pmbus::Session session;
    std::string error;
    EXPECT_TRUE(pmbus::LoadSession(path, session, error)) << error;
    return session;
}

class PmBusRecordTest : public ::testing::Test {
protected:
    // Records the bus into `file` while `act` runs; the recording is stopped with SIGTERM.
    pmbus::Session RecordWhile(const std::function<void()>& act) {
        std::string file = m_dir.File("recorded.bus");
        ToolProcess record("pm-bus", {"record", file});
        EXPECT_TRUE(record.WaitErr("pm-bus: recording")) << record.Err();
        act();
        record.Signal(SIGTERM);
        EXPECT_EQ(record.WaitExit(), 0) << record.Err();
        return Load(file);
    }

    pmtest::PrivateBus m_bus;
    pmtest::TempDir m_dir;
};

TEST_F(PmBusRecordTest, RecordKeepsEveryFrameByteForByteAndReplayReproducesIt) {
    pmbus::Session session = RecordWhile([] {
        EXPECT_EQ(
            RunTool("pm-bus", {"send", "0x13c", "01 02 ff", "--request", "--from", "42"}).status,
            0);
        EXPECT_EQ(RunTool("pm-bus", {"send", "0x7777777", "--from", "9"}).status, 0);
    });
    ASSERT_EQ(session.messages.size(), 2u);
    EXPECT_EQ(session.messages[0].frame, Frame(0x13c, 42, session.messages[0].frame[8],
                                               3 | Common::kMsgNeedAnswerFlag, {0x01, 0x02, 0xff}));
    EXPECT_EQ(session.messages[1].frame, Frame(0x7777777, 9, session.messages[1].frame[8], 0, {}));
    EXPECT_LE(session.messages[0].seconds, session.messages[1].seconds);

    // An odd frame (length word not matching, an answer flag on an unknown id), one with a
    // reserved bit of word 3 set and a cut one go through a file and a replay unchanged.
    Bytes odd = Frame(0xabcdef, 3, 77, 9 | Common::kMsgIsAnswerFlag, {0xde, 0xad});
    Bytes reserved = Frame(0x13c, 3, 78, 2 | 1u << 30, {0x01, 0x02});
    std::string file = m_dir.File("odd.bus");
    WriteFile(file, pmbus::SessionHeader() + pmbus::FormatSessionLine(0, odd.data(), odd.size()) +
                        "\n" + pmbus::FormatSessionLine(0.01, odd.data(), 4) + "\n" +
                        pmbus::FormatSessionLine(0.02, reserved.data(), reserved.size()) + "\n");
    pmbus::Session replayed = RecordWhile([&] {
        EXPECT_EQ(RunTool("pm-bus", {"replay", file}).status, 0);
    });
    ASSERT_EQ(replayed.messages.size(), 3u);
    EXPECT_EQ(replayed.messages[0].frame, odd);
    EXPECT_EQ(replayed.messages[1].frame, Bytes(odd.begin(), odd.begin() + 4));
    EXPECT_EQ(replayed.messages[2].frame, reserved);
}

// Senders 5 and 6 take turns every 0.4 s of recorded time.
std::string TurnTakingSession() {
    std::string text = pmbus::SessionHeader();
    for (uint32_t i = 0; i < 6; ++i) {
        Bytes frame = Frame(i % 2 == 0 ? 0x100 : 0x200, 5 + i % 2, i, 1, {static_cast<uint8_t>(i)});
        text += pmbus::FormatSessionLine(0.4 * i, frame.data(), frame.size()) + "\n";
    }
    return text + "2.000 end\n";
}

TEST_F(PmBusRecordTest, ReplaySelectsBySenderAndIdInOrderAndFasterWithSpeed) {
    std::string file = m_dir.File("turns.bus");
    WriteFile(file, TurnTakingSession());
    pmbus::Session fromFive = RecordWhile([&] {
        EXPECT_EQ(RunTool("pm-bus", {"replay", file, "--from", "5", "--speed", "10"}).status, 0);
    });
    ASSERT_EQ(fromFive.messages.size(), 3u);
    for (size_t i = 0; i < 3; ++i) {
        EXPECT_EQ(fromFive.messages[i].frame.back(), 2 * i);  // the recorded order
    }
    // 0.8 s of recorded spacing at ten times the speed; a wide margin against a slow machine.
    EXPECT_LT(fromFive.messages[2].seconds - fromFive.messages[0].seconds, 0.6);

    pmbus::Session onlyB = RecordWhile([&] {
        EXPECT_EQ(RunTool("pm-bus", {"replay", file, "--only", "0x200", "--speed", "20"}).status,
                  0);
    });
    ASSERT_EQ(onlyB.messages.size(), 3u);
    for (const pmbus::SessionMessage& m : onlyB.messages) {
        EXPECT_EQ(Common::GetLe32(m.frame.data()), 0x200u);
    }
}

// With --sync the played side waits for the live side's first message, however late it comes,
// and keeps the recorded spacing from there.
TEST_F(PmBusRecordTest, SyncedReplayStartsWithTheLiveSide) {
    std::string file = m_dir.File("turns.bus");
    WriteFile(file, TurnTakingSession());
    pmbus::Session seen = RecordWhile([&] {
        ToolProcess replay("pm-bus", {"replay", file, "--from", "6", "--sync"});
        ASSERT_TRUE(replay.WaitErr("pm-bus: replaying")) << replay.Err();
        // Each pause is longer than the recording's 0.4 s to sender 6's first message: started
        // unsynced, or by the live side's other message, it would have gone out already.
        const auto pause = std::chrono::milliseconds(800);
        std::this_thread::sleep_for(pause);
        EXPECT_EQ(RunTool("pm-bus", {"send", "0x300", "--from", "5"}).status, 0);
        std::this_thread::sleep_for(pause);
        EXPECT_EQ(RunTool("pm-bus", {"send", "0x100", "--from", "5"}).status, 0);
        EXPECT_EQ(replay.WaitExit(), 0) << replay.Err();
    });
    ASSERT_EQ(seen.messages.size(), 5u);
    EXPECT_EQ(Common::GetLe32(seen.messages[0].frame.data()), 0x300u);  // the live ones first
    EXPECT_EQ(Common::GetLe32(seen.messages[1].frame.data()), 0x100u);
    for (size_t i = 2; i < 5; ++i) {
        EXPECT_EQ(Common::GetLe32(seen.messages[i].frame.data() + 4), 6u);
    }
    EXPECT_GT(seen.messages[2].seconds - seen.messages[1].seconds, 0.3);
}

TEST_F(PmBusRecordTest, ReplayAnswersLiveRequestsWithTheRecordedAnswer) {
    Bytes request = Frame(7001, 10, 4, 1 | Common::kMsgNeedAnswerFlag, {0x12});
    Bytes answer =
        Frame(7001 | Common::kMsgAnswerBit, 0, 4, 2 | Common::kMsgIsAnswerFlag, {0xbe, 0xef});
    std::string file = m_dir.File("answers.bus");
    WriteFile(file, pmbus::SessionHeader() +
                        pmbus::FormatSessionLine(0, request.data(), request.size()) + "\n" +
                        pmbus::FormatSessionLine(0.1, answer.data(), answer.size()) +
                        "\n60.000 end\n");
    ToolProcess replay("pm-bus", {"replay", file, "--from", "2"});
    ASSERT_TRUE(replay.WaitErr("pm-bus: replaying")) << replay.Err();
    auto called = RunTool("pm-bus", {"call", "7001", "12", "--timeout", "10"});
    EXPECT_EQ(called.status, 0) << called.err;
    EXPECT_NE(called.out.find(" answer len=2 | be ef\n"), std::string::npos) << called.out;
    // A request the recording never answered stays unanswered, and the replay says so.
    EXPECT_EQ(RunTool("pm-bus", {"call", "7002", "--timeout", "0.3"}).status, 1);
    EXPECT_TRUE(replay.WaitErr("never answered 7002")) << replay.Err();
    replay.Signal(SIGTERM);
    EXPECT_EQ(replay.WaitExit(), 0) << replay.Err();

    // Played, the recorded request is the replay's own: it goes out once, and the replay does
    // not answer it when it comes back from the broker.
    std::string own = m_dir.File("own.bus");
    WriteFile(own, pmbus::SessionHeader() +
                       pmbus::FormatSessionLine(0, request.data(), request.size()) + "\n" +
                       pmbus::FormatSessionLine(0.1, answer.data(), answer.size()) +
                       "\n0.500 end\n");
    pmbus::Session seen = RecordWhile([&] {
        EXPECT_EQ(RunTool("pm-bus", {"replay", own, "--from", "10"}).status, 0);
    });
    ASSERT_EQ(seen.messages.size(), 1u);
    EXPECT_EQ(seen.messages[0].frame, request);
}

TEST_F(PmBusRecordTest, MalformedSessionLinesAreRefusedWithTheirLineNumber) {
    const char* bad[] = {
        "0.5 0x13c name from=1 seq=2 sometimes len=0\n",  // flags
        "0.5 0x13c name from=1 seq=2 - len=0 | 0g\n",     // payload
        "soon 0x13c name from=1 seq=2 - len=0\n",         // time
        "0.5 0x13c name from=1\n",                        // cut short
    };
    for (const char* line : bad) {
        std::string file = m_dir.File("bad.bus");
        WriteFile(file, pmbus::SessionHeader() + "\n0.1 raw | 01 02\n" + line);
        auto replayed = RunTool("pm-bus", {"replay", file});
        EXPECT_EQ(replayed.status, 1) << line;
        EXPECT_NE(replayed.err.find(file + ":4: "), std::string::npos) << replayed.err;
    }
}

// The regress script's status and standard output; a session runs for several seconds.
pmtest::ToolResult Regress(const std::vector<std::string>& args) {
    std::vector<std::string> all = {std::string(PM_SOURCE_DIR) + "/scripts/regress.sh", "--build",
                                    pmtest::BinDir() + "/.."};
    all.insert(all.end(), args.begin(), args.end());
    auto process = ToolProcess::OnHost("/bin/bash", all);
    ToolProcess& script = *process;
    pmtest::ToolResult result;
    result.status = script.WaitExit(std::chrono::seconds(90));
    result.out = script.Out();
    result.err = script.Err();
    return result;
}

// The real service under pm-host, replayed twice from a copy of the start-up session; then one
// recorded answer is changed and the comparison must fail on what the service did with it.
TEST(PmBusRegressTest, SessionReplaysToTheSameOutputAndAChangedAnswerShowsAsADiff) {
    if (!pmtest::EmulatorArgs().empty()) {
        GTEST_SKIP() << "the regress script starts the build's programs without the emulator";
    }
    pmtest::TempDir dir;
    const std::string source = PM_SOURCE_DIR;
    const std::string session = dir.File("startup");
    ASSERT_EQ(system(("cp -r " + source + "/tests/sessions/startup " + session).c_str()), 0);
    auto first = Regress({"--update", session});
    ASSERT_EQ(first.status, 0) << first.out << first.err;
    auto second = Regress({session});
    EXPECT_EQ(second.status, 0) << second.out << second.err;

    // Without the CAN parameter setting's records the J1939 plug-in sets no filter.
    std::string text = pmtest::ReadFile(session + "/session.bus");
    size_t answer = text.find("get-can-param.answer");
    ASSERT_NE(answer, std::string::npos);
    size_t bar = text.find(" | ", answer);
    text.replace(bar + 3, 2, "ff");
    WriteFile(session + "/session.bus", text);
    auto changed = Regress({session});
    EXPECT_EQ(changed.status, 1);
    EXPECT_NE(changed.out.find("FAIL  startup"), std::string::npos) << changed.out;
    EXPECT_NE(changed.out.find("\n-0x00000471 can-set-filter from=21200"), std::string::npos)
        << changed.out;
}

}  // namespace
