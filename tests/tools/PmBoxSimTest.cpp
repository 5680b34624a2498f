// pm-boxsim as a person runs it, and the box model and frame decoder it is made of.
#include <fcntl.h>
#include <gtest/gtest.h>
#include <termios.h>
#include <unistd.h>

#include <chrono>
#include <cstdio>
#include <cstring>
#include <string>
#include <thread>
#include <vector>

#include "BoxSim.h"
#include "TestSupport.h"
#include "ToolProcess.h"

namespace {

using pmtest::ToolProcess;

// User and system CPU time of a process, in clock ticks.
long CpuTicks(pid_t pid) {
    FILE* f = fopen(("/proc/" + std::to_string(pid) + "/stat").c_str(), "r");
    if (f == nullptr) {
        return -1;
    }
    char line[1024] = {};
    const bool read = fgets(line, sizeof line, f) != nullptr;
    fclose(f);
    const char* after = read ? strrchr(line, ')') : nullptr;  // the name may hold blanks
    unsigned long user = 0;
    unsigned long system = 0;
    if (after == nullptr || sscanf(after + 2, "%*c %*d %*d %*d %*d %*d %*u %*u %*u %*u %*u %lu %lu",
                                   &user, &system) != 2) {
        return -1;
    }
    return static_cast<long>(user + system);
}

// Sub-ports with nothing attached report a hang-up on every poll: the simulator must sleep
// all the same, not spin a core.
TEST(PmBoxSim, SleepsWhileNothingIsAttached) {
    ToolProcess boxsim("pm-boxsim", {"--subports", "4"});
    ASSERT_TRUE(boxsim.WaitOut("sub 4: ")) << boxsim.Err();
    const long before = CpuTicks(boxsim.Pid());
    ASSERT_GE(before, 0);
    const auto start = std::chrono::steady_clock::now();
    while (std::chrono::steady_clock::now() - start < std::chrono::seconds(2)) {
        std::this_thread::sleep_for(std::chrono::milliseconds(100));  // the window measured
    }
    const long spent = CpuTicks(boxsim.Pid()) - before;
    EXPECT_LT(spent, sysconf(_SC_CLK_TCK) / 5) << "ticks in 2 s: it spins";
    boxsim.Signal(SIGTERM);
    EXPECT_EQ(boxsim.WaitExit(), 0);
}

// Two good upgrades of images of the same size: --image-out holds the second.
TEST(PmBoxSim, EveryGoodUpgradeIsWrittenOut) {
    pmtest::TempDir dir;
    ToolProcess boxsim("pm-boxsim", {"--subports", "0", "--image-out", dir.File("image")});
    ASSERT_TRUE(boxsim.WaitOut("line: ")) << boxsim.Err();
    const std::string out = boxsim.Out();
    const std::string path = out.substr(6, out.find('\n') - 6);
    const int line = open(path.c_str(), O_RDWR | O_NOCTTY);
    ASSERT_GE(line, 0) << path;
    struct termios raw;
    tcgetattr(line, &raw);
    cfmakeraw(&raw);
    tcsetattr(line, TCSANOW, &raw);
    auto send = [&](uint8_t cmd, const std::vector<uint8_t>& payload) {
        const std::vector<uint8_t> bytes =
            boxsim::Encode(boxsim::Answer(boxsim::kBoxDevice, cmd, payload));
        ASSERT_EQ(write(line, bytes.data(), bytes.size()), static_cast<ssize_t>(bytes.size()));
    };
    for (const uint8_t fill : {uint8_t(0x11), uint8_t(0x22)}) {
        const std::vector<uint8_t> image(40, fill);
        send(0x01, {'S', 'T', 'A', 'R', 'T', 0, 0, 0, 40});
        std::vector<uint8_t> data = {0, 0, 0, 1};
        data.insert(data.end(), image.begin(), image.end());
        send(0x02, data);
        const uint32_t crc = boxsim::ImageCrc(image);
        send(0x03, {'E', 'N', 'D', uint8_t(crc >> 24), uint8_t(crc >> 16), uint8_t(crc >> 8),
                    uint8_t(crc)});
        ASSERT_TRUE(pmtest::WaitUntil([&] {
            return pmtest::ReadFile(dir.File("image")) == std::string(40, char(fill));
        })) << boxsim.Out();
    }
    close(line);
    boxsim.Signal(SIGTERM);
    EXPECT_EQ(boxsim.WaitExit(), 0);
}

// Frames that arrive together with more than the decoder keeps pending are all found; what
// lies between them, and a start mark that never ends, is dropped and counted.
TEST(BoxSimDecoder, KeepsEveryWholeFrameAndCountsWhatItDrops) {
    boxsim::Decoder decoder;
    std::vector<uint8_t> stream;
    for (int i = 0; i < 20; ++i) {
        boxsim::Frame f;
        f.body = std::vector<uint8_t>(300, static_cast<uint8_t>(i));
        const std::vector<uint8_t> bytes = boxsim::Encode(f);
        stream.insert(stream.end(), bytes.begin(), bytes.end());
        stream.push_back(0x55);  // a byte of noise between frames
    }
    decoder.Feed(stream.data(), stream.size());  // 6 KiB at once
    int frames = 0;
    boxsim::Frame out;
    while (decoder.Next(out)) {
        EXPECT_EQ(out.body, std::vector<uint8_t>(300, static_cast<uint8_t>(frames)));
        ++frames;
    }
    EXPECT_EQ(frames, 20);
    EXPECT_EQ(decoder.DroppedBytes(), 20u);
    const std::vector<uint8_t> endless(5000, 0x7E);
    decoder.Feed(endless.data(), endless.size());
    EXPECT_FALSE(decoder.Next(out));
    EXPECT_GE(decoder.DroppedBytes(), 20u + 4999u);
}

// Lines past the length that START announced are refused: the flash has no room for them.
TEST(BoxSimModel, RefusesLinesPastTheAnnouncedLength) {
    boxsim::BoxModel model({});
    auto command = [&](uint8_t cmd, const std::vector<uint8_t>& payload) {
        boxsim::Frame in = boxsim::Answer(boxsim::kBoxDevice, cmd, payload);
        return model.OnFrame(in).toLine.at(0).body;
    };
    command(0x01, {'S', 'T', 'A', 'R', 'T', 0, 0, 0, 64});
    std::vector<uint8_t> line = {0, 0, 0, 1};
    line.resize(4 + 64, 0xAB);
    EXPECT_EQ(command(0x02, line).back(), 1);
    line[3] = 2;
    EXPECT_EQ(command(0x02, line).back(), 0) << "a second line of 64 past 64 bytes";
    EXPECT_EQ(model.LineSizes().size(), 1u);
}

}  // namespace
