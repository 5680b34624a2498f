// MCU line settings on a real pty, and the symlinks that name the ptys.
#include <gtest/gtest.h>
#include <fcntl.h>
#include <sys/stat.h>
#include <termios.h>
#include <unistd.h>

#include "PtyLink.h"
#include "TestSupport.h"

namespace {

using namespace pmrecorder;

struct SettingsCase {
    const char* what;
    McuSettings settings;  // mainId, subId, mask, baud, dataBits, stopBits, parity, flow
    const char* text;      // LineState::Text() afterwards, from 9600 8N1
    speed_t speed;         // as tcgetattr reads it back
    bool cstopb;
    bool parodd;
    bool inpck;
    bool notes;
};

void PrintTo(const SettingsCase& c, std::ostream* os) {
    *os << c.what;
}

const SettingsCase kSettingsCases[] = {
    {"everything at once",
     {3, 0, 0x1F, 6, 1, 3, 1, 1},
     "115200 7O2 rtscts",
     B115200,
     true,
     true,
     true,
     false},
    {"only the masked fields change",
     {3, 0, 0x01, 7, 3, 3, 2, 0},
     "2400 8N1",
     B2400,
     false,
     false,
     false,
     false},
    {"MCU stop code 0 is half a stop bit, which a pty lacks",
     {3, 0, 0x04, 0, 0, 0, 0, 0},
     "9600 8N0.5",
     B9600,
     false,
     false,
     false,
     true},
    {"one and a half stop bits become CSTOPB",
     {3, 0, 0x04, 0, 0, 2, 0, 0},
     "9600 8N1.5",
     B9600,
     true,
     false,
     false,
     false},
    {"even parity enables parity without PARODD",
     {3, 0, 0x08, 0, 0, 0, 2, 0},
     "9600 8E1",
     B9600,
     false,
     false,
     true,
     false},
    {"56000 bit/s has no termios speed",
     {3, 0, 0x01, 4, 0, 0, 0, 0},
     "56000 8N1",
     B9600,
     false,
     false,
     false,
     true},
};

class McuSettingsTest : public ::testing::TestWithParam<SettingsCase> {};

TEST_P(McuSettingsTest, ReachThePty) {
    const SettingsCase& c = GetParam();
    pmtest::TempDir dir;
    std::string error;
    auto pty = PtyLink::Create(dir.File("port"), error);
    ASSERT_TRUE(pty) << error;
    LineState line;
    std::string notes;
    UpdateLineState(c.settings, line, notes);
    EXPECT_EQ(line.Text(), c.text);
    EXPECT_EQ(!notes.empty(), c.notes) << notes;
    ASSERT_TRUE(ApplyLineState(pty->Slave(), line, error)) << error;

    // Read back through the link, as the person at the other end sees the port.
    int fd = open(dir.File("port").c_str(), O_RDWR | O_NOCTTY);
    ASSERT_GE(fd, 0);
    struct termios t;
    ASSERT_EQ(tcgetattr(fd, &t), 0);
    close(fd);
    EXPECT_EQ(cfgetispeed(&t), c.speed);
    EXPECT_EQ((t.c_cflag & CSTOPB) != 0, c.cstopb);
    EXPECT_EQ((t.c_cflag & PARODD) != 0, c.parodd);
    EXPECT_EQ((t.c_iflag & INPCK) != 0, c.inpck);
    EXPECT_EQ(t.c_lflag & ECHO, 0u) << "raw: nothing echoes back into the relay";
}

INSTANTIATE_TEST_SUITE_P(Pty, McuSettingsTest, ::testing::ValuesIn(kSettingsCases));

TEST(PtyLinkTest, ReplacesAStaleLinkRefusesAFileAndCleansUp) {
    pmtest::TempDir dir;
    std::string error;
    ASSERT_EQ(symlink("/dev/pts/none", dir.File("stale").c_str()), 0);
    {
        auto pty = PtyLink::Create(dir.File("stale"), error);
        ASSERT_TRUE(pty) << error;
        char target[256] = {};
        ASSERT_GT(readlink(dir.File("stale").c_str(), target, sizeof(target) - 1), 0);
        EXPECT_EQ(pty->SlaveName(), target);
    }
    struct stat st;
    EXPECT_NE(lstat(dir.File("stale").c_str(), &st), 0) << "the link goes with the pty";

    dir.Write("file", "x");
    EXPECT_FALSE(PtyLink::Create(dir.File("file"), error));
    EXPECT_NE(error.find("not a symlink"), std::string::npos) << error;
    auto nested = PtyLink::Create(dir.File("a/b/port"), error);
    EXPECT_TRUE(nested) << error;
}

}  // namespace
