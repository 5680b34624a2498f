#include <fcntl.h>
#include <stdarg.h>
#include <stdio.h>
#include <string.h>
#include <sys/ioctl.h>
#include <sys/resource.h>
#include <termios.h>
#include <unistd.h>

#include <condition_variable>
#include <filesystem>
#include <memory>
#include <mutex>
#include <ostream>
#include <string>
#include <thread>
#include <vector>

#include <gtest/gtest.h>

#include "Pty.h"
#include "SerialBase.h"
#include "SerialDevOperate.h"
#include "ServiceEnv.h"
#include "TestSupport.h"

namespace {

using pmtest::CountExact;
using pmtest::LogCapture;
using pmtest::Pty;
using pmtest::WaitUntil;

constexpr int kOpenFlags = 2306;  // what the serial base opens with

std::string Text(const char* fmt, ...) __attribute__((format(printf, 1, 2)));
std::string Text(const char* fmt, ...) {
    char buffer[512];
    va_list args;
    va_start(args, fmt);
    vsnprintf(buffer, sizeof buffer, fmt, args);
    va_end(args);
    return buffer;
}

// ---- configuration words and pure termios work ----

struct WordCase {
    const char* word;
    int (*convert)(const std::string&);
    int expected;
};

int Baud(const std::string& w) {
    return serial_baud_switch(w);
}
int DataBit(const std::string& w) {
    return serial_data_bit_switch(w);
}
int StopBit(const std::string& w) {
    return serial_stop_bit_switch(w);
}
int Parity(const std::string& w) {
    return serial_parity_switch(w);
}
int Flow(const std::string& w) {
    return serial_flow_control_switch(w);
}

const WordCase kWordCases[] = {
    {"B4800", Baud, 0},   {"B9600", Baud, 1},     {"B19200", Baud, 2},  {"B38400", Baud, 3},
    {"B56000", Baud, 4},  {"B57600", Baud, 5},    {"B115200", Baud, 6}, {"B2400", Baud, 7},
    {"B28800", Baud, 8},  {"b9600", Baud, 0},     {"9600", Baud, 0},    {"B9600 ", Baud, 0},
    {"", Baud, 0},        {"CS8", DataBit, 0},    {"CS7", DataBit, 1},  {"CS6", DataBit, 2},
    {"CS5", DataBit, 3},  {"cs7", DataBit, 0},    {"CS9", DataBit, 0},  {"1bit", StopBit, 0},
    {"2bit", StopBit, 3}, {"1.5bit", StopBit, 0}, {"2BIT", StopBit, 0}, {"NONE", Parity, 0},
    {"ODD", Parity, 1},   {"EVEN", Parity, 2},    {"even", Parity, 0},  {"MARK", Parity, 0},
    {"NONE", Flow, 0},    {"HARDWARE", Flow, 0},  {"RTS/CTS", Flow, 0}, {"", Flow, 0},
};

void PrintTo(const WordCase& c, std::ostream* out) {
    const char* kind = c.convert == Baud      ? "baud"
                       : c.convert == DataBit ? "data"
                       : c.convert == StopBit ? "stop"
                       : c.convert == Parity  ? "parity"
                                              : "flow";
    *out << kind << " \"" << c.word << '"';
}

class ConfigWords : public ::testing::TestWithParam<WordCase> {};

TEST_P(ConfigWords, ExactWordsGiveTheirCodeAnythingElseTheDefault) {
    EXPECT_EQ(GetParam().convert(GetParam().word), GetParam().expected)
        << "word \"" << GetParam().word << "\"";
}
INSTANTIATE_TEST_SUITE_P(SerialWords, ConfigWords, ::testing::ValuesIn(kWordCases));

TEST(SerialSpeeds, CodesGiveLineSpeedsAndOnlyTermiosSpeedsAreAccepted) {
    const unsigned int speeds[] = {4800, 9600, 19200, 38400, 56000, 57600, 115200, 2400, 28800};
    for (int code = 0; code <= 15; ++code) {  // every value the enumeration can hold
        unsigned int expected = code <= 8 ? speeds[code] : 4800;
        EXPECT_EQ(serial_baud_rate_speed(static_cast<SerialBaudRate>(code)), expected) << code;
    }

    const struct {
        unsigned int baud;
        speed_t constant;
    } accepted[] = {{2400, B2400},   {4800, B4800},   {9600, B9600},    {19200, B19200},
                    {38400, B38400}, {57600, B57600}, {115200, B115200}};
    for (const auto& c : accepted) {
        unsigned int speed = 0;
        EXPECT_EQ(serial_get_baud_speed(c.baud, speed), 1) << c.baud;
        EXPECT_EQ(speed, static_cast<unsigned int>(c.constant)) << c.baud;
    }
    for (unsigned int refused : {28800u, 56000u, 0u, 110u, 230400u, 4294967295u}) {
        unsigned int speed = 12345;
        EXPECT_EQ(serial_get_baud_speed(refused, speed), 0) << refused;
        EXPECT_EQ(speed, 12345u) << "untouched for " << refused;
    }
}

TEST(SerialPortId, OneDigitAfterTheDevicePrefix) {
    const struct {
        const char* path;
        int expected;
    } cases[] = {
        {"/dev/ttyAMA0", 0},
        {"/dev/ttyAMA3", 3},
        {"/dev/ttyACM1", 1},
        {"/dev/ttyACM12", 1},  // one character only
        {"/dev/ttyUSB0", -1},
        {"/dev/pts/3", -1},
        {"ttyAMA0", -1},  // the prefix includes /dev/
        {"/dev/ttyAMA", -1},
        {"/dev/ttyACMx", -1},
        {"/tmp/box/dev/ttyACM2", 2},
        {"/dev/ttyACM2/dev/ttyAMA1", 1},  // AMA is looked for first
        {"", -1},
    };
    for (const auto& c : cases) {
        EXPECT_EQ(serial_port_id(c.path), c.expected) << c.path;
    }
}

TEST(SerialTermios, RawModeClearsLineEditingAndTranslation) {
    struct termios tio;
    memset(&tio, 0xFF, sizeof tio);
    tio.c_cflag &= ~(CLOCAL | CREAD);
    serial_termios_make_raw(tio);
    EXPECT_EQ(tio.c_cflag & CSIZE, 0u);
    EXPECT_EQ(tio.c_cflag & (CLOCAL | CREAD), static_cast<tcflag_t>(CLOCAL | CREAD));
    EXPECT_EQ(tio.c_lflag & (ICANON | ECHO | ECHOE | ISIG), 0u);
    EXPECT_EQ(tio.c_iflag & (IXON | IXOFF | IXANY | ISTRIP | INLCR | IGNCR | ICRNL), 0u);
    EXPECT_EQ(tio.c_oflag & (OPOST | ONLCR | OCRNL), 0u);
    EXPECT_NE(tio.c_cflag & PARENB, 0u) << "raw mode leaves the parity alone";
}

struct LineCase {
    const char* what;
    unsigned char mask;
    int dataBit, stopBit, parity;
    tcflag_t cflagIn, iflagIn;
    tcflag_t cflagOut, iflagOut;
};

const LineCase kLineCases[] = {
    {"8 bits", 0x02, 0, 0, 0, CS5, 0, CS8, 0},
    {"7 bits", 0x02, 1, 0, 0, CS8, 0, CS7, 0},
    {"6 bits", 0x02, 2, 0, 0, CS8, 0, CS6, 0},
    {"5 bits leave the size as read", 0x02, 3, 0, 0, CS7, 0, CS7, 0},
    {"data bits need their mask bit", 0x0D, 1, 0, 0, CS6, 0, CS6, 0},
    {"2 stop bits", 0x04, 0, 3, 0, CS8, 0, CS8 | CSTOPB, 0},
    {"1.5 stop bits count as 1", 0x04, 0, 2, 0, CS8 | CSTOPB, 0, CS8, 0},
    {"stop bits need their mask bit", 0x0B, 0, 0, 0, CS8 | CSTOPB, 0, CS8 | CSTOPB, 0},
    {"odd parity", 0x08, 0, 0, 1, CS8, 0, CS8 | PARENB | PARODD, INPCK},
    {"even parity is odd parity", 0x08, 0, 0, 2, CS8, 0, CS8 | PARENB | PARODD, INPCK},
    {"no parity keeps PARODD", 0x08, 0, 0, 0, CS8 | PARENB | PARODD, INPCK | IGNPAR, CS8 | PARODD,
     IGNPAR},
    {"unknown parity is none", 0x08, 0, 0, 3, CS8 | PARENB, INPCK, CS8, 0},
    {"parity needs its mask bit", 0x07, 0, 0, 2, CS8, 0, CS8, 0},
    {"everything", 0x0F, 1, 3, 2, CS8, 0, CS7 | CSTOPB | PARENB | PARODD, INPCK},
};

void PrintTo(const LineCase& c, std::ostream* out) {
    *out << c.what;
}

class TermiosLine : public ::testing::TestWithParam<LineCase> {};

TEST_P(TermiosLine, MaskBitsSelectTheSettingsAndReadTimingIsAlwaysSet) {
    const LineCase& c = GetParam();
    struct termios tio = {};
    tio.c_cflag = c.cflagIn | CREAD;
    tio.c_iflag = c.iflagIn;
    tio.c_cc[VMIN] = 1;
    serial_termios_set_line(tio, c.mask, static_cast<SerialDataBitMode>(c.dataBit),
                            static_cast<SerialStopBitMode>(c.stopBit),
                            static_cast<SerialParityMode>(c.parity));
    EXPECT_EQ(tio.c_cflag, c.cflagOut | CREAD) << c.what;
    EXPECT_EQ(tio.c_iflag, c.iflagOut) << c.what;
    EXPECT_EQ(tio.c_cc[VTIME], 10) << c.what;
    EXPECT_EQ(tio.c_cc[VMIN], 0) << c.what;
}
INSTANTIATE_TEST_SUITE_P(SerialTermios, TermiosLine, ::testing::ValuesIn(kLineCases));

// ---- the layer on real pseudo-terminals ----

// Every delivery of every owner, in the order the reader made them. An owner can be held
// inside its delivery, which holds the reader (and the table lock) with it.
class Journal {
public:
    struct Entry {
        unsigned int mainId;
        std::string bytes;
        std::thread::id thread;
    };

    void Record(unsigned int mainId, std::string bytes) {
        std::unique_lock<std::mutex> lock(m_lock);
        m_entries.push_back({mainId, std::move(bytes), std::this_thread::get_id()});
        m_cond.wait(lock, [&] { return m_heldId != mainId; });
    }
    void Hold(unsigned int mainId) {
        std::lock_guard<std::mutex> guard(m_lock);
        m_heldId = mainId;
    }
    void Release() {
        std::lock_guard<std::mutex> guard(m_lock);
        m_heldId = 0;
        m_cond.notify_all();
    }
    std::vector<Entry> Entries() const {
        std::lock_guard<std::mutex> guard(m_lock);
        return m_entries;
    }
    size_t Size() const { return Entries().size(); }
    std::string BytesOf(unsigned int mainId) const {
        std::string all;
        for (const Entry& e : Entries()) {
            all += e.mainId == mainId ? e.bytes : std::string();
        }
        return all;
    }

private:
    mutable std::mutex m_lock;
    std::condition_variable m_cond;
    std::vector<Entry> m_entries;
    unsigned int m_heldId = 0;
};

// A serial plug-in that writes what it receives into the journal.
class RecordingSerial : public CSerialBase {
public:
    RecordingSerial(CPeripheralManage* manage, Journal& journal, unsigned int mainId,
                    unsigned int subId)
        : CSerialBase(manage, manage->GetMsgClient(), mainId, subId), m_journal(journal) {}

    int ProcessPeripheralData() override {
        char bytes[2048];
        unsigned int length = 0;
        GetSerialBufferData(bytes, length);
        ClearSerialBufferValue();
        m_journal.Record(GetMainId(), std::string(bytes, length));
        return 0;
    }
    void SetMainChipType(unsigned int type) { m_nMainChipType = type; }

private:
    Journal& m_journal;
};

int PendingInput(int fd) {
    int n = 0;
    return ioctl(fd, FIONREAD, &n) == 0 ? n : -1;
}

struct termios Attributes(int fd) {
    struct termios tio = {};
    EXPECT_EQ(tcgetattr(fd, &tio), 0);
    return tio;
}

class SerialDevOperateTest : public ::testing::Test {
protected:
    // A failed test must not leave the reader held inside a delivery: teardown waits for it.
    void TearDown() override { journal.Release(); }

    RecordingSerial* Owner(unsigned int mainId, unsigned int subId = 0) {
        owners.push_back(std::make_unique<RecordingSerial>(env.Manage(), journal, mainId, subId));
        return owners.back().get();
    }
    // A port opened for a new owner and set to raw 115200 8N1, so that bytes flow unchanged.
    int OpenRaw(Pty& pty, unsigned int mainId) {
        int fd = layer->serial_open(Owner(mainId), pty.SlavePath(), kOpenFlags);
        EXPECT_GE(fd, 0);
        EXPECT_EQ(layer->serial_set_property(fd, 0x0F, 115200, SERIAL_DATA_BIT_8, SERIAL_STOP_BIT_1,
                                             SERIAL_PARITY_NONE, SERIAL_FLOW_NONE),
                  1);
        return fd;
    }
    // `name` below a fresh folder, linked to the pty: lets a test choose the device path.
    std::string Link(const Pty& pty, const std::string& name) {
        std::string path = env.Root().File("links/" + name);
        std::filesystem::create_directories(std::filesystem::path(path).parent_path());
        std::filesystem::create_symlink(pty.SlavePath(), path);
        return path;
    }

    // Declared in teardown order, last first: the layer (and its reader) goes before the
    // owners it delivers to, the log capture last of all.
    LogCapture log;
    pmtest::ServiceEnv env;
    Journal journal;
    std::vector<std::unique_ptr<RecordingSerial>> owners;
    std::unique_ptr<CSerialDevOperate> layer = std::make_unique<CSerialDevOperate>();
};

TEST_F(SerialDevOperateTest, OpenKeepsOnePortPerPathAndPerPeripheral) {
    Pty a, b;
    RecordingSerial* first = Owner(3, 1);
    int fd = layer->serial_open(first, a.SlavePath(), kOpenFlags);
    ASSERT_GE(fd, 0);
    EXPECT_TRUE(layer->serial_is_open(fd));
    EXPECT_EQ(layer->serial_check_open_same(a.SlavePath()), 1);
    EXPECT_EQ(layer->serial_check_perip_open(3, 1), fd);
    EXPECT_EQ(layer->serial_check_perip_open(3, 2), -1);
    EXPECT_EQ(CountExact(log, Text("SERIAL_OPERATE: [OPEN] serial success, fd = %d, name = %s, "
                                   "mainId = 3, subId = 1, portId = -1, open_size = 1\n",
                                   fd, a.SlavePath().c_str())),
              1u);
    EXPECT_EQ(fcntl(fd, F_GETFL) & O_NONBLOCK, 0) << "blocking once open";

    EXPECT_EQ(layer->serial_open(Owner(4), a.SlavePath(), kOpenFlags), -1);
    EXPECT_EQ(CountExact(log, Text("SERIAL_OPERATE: [OPEN] serial failed, serial has opened, "
                                   "name = %s\n",
                                   a.SlavePath().c_str())),
              1u);

    EXPECT_EQ(layer->serial_open(Owner(3, 1), b.SlavePath(), kOpenFlags), -3);
    EXPECT_EQ(CountExact(log, Text("SERIAL_OPERATE: [OPEN] serial failed, this perip has open "
                                   "one serial, name = %s, mainId = 3, subId = 1, opened_fd = "
                                   "%d\n",
                                   b.SlavePath().c_str(), fd)),
              1u);
    EXPECT_EQ(layer->serial_check_open_same(b.SlavePath()), 0);

    EXPECT_EQ(layer->serial_open(nullptr, b.SlavePath(), kOpenFlags), -3);
    EXPECT_TRUE(log.Contains("SERIAL_OPERATE: [OPEN] serial failed, serial instance is NULL"));
    std::string missing = env.Root().File("no-such-tty");
    EXPECT_EQ(layer->serial_open(Owner(5), missing, kOpenFlags), -2);
    EXPECT_EQ(CountExact(log, "SERIAL_OPERATE: [OPEN] serial failed, name = " + missing + "\n"),
              1u);

    EXPECT_EQ(layer->serial_close(fd), 1);
    EXPECT_EQ(layer->serial_close(fd), 0);
    EXPECT_FALSE(layer->serial_is_open(fd));
    int again = layer->serial_open(Owner(3, 1), a.SlavePath(), kOpenFlags);
    EXPECT_GE(again, 0) << "a closed path and peripheral can be opened again";
}

TEST_F(SerialDevOperateTest, PortIdComesFromTheDevicePath) {
    Pty acm, ama;
    std::string acmPath = Link(acm, "dev/ttyACM12");
    std::string amaPath = Link(ama, "dev/ttyAMA3");
    int fd1 = layer->serial_open(Owner(1), acmPath, kOpenFlags);
    int fd2 = layer->serial_open(Owner(2), amaPath, kOpenFlags);
    ASSERT_GE(fd1, 0);
    ASSERT_GE(fd2, 0);
    EXPECT_TRUE(
        log.Contains(Text("fd = %d, name = %s, mainId = 1, subId = 0, portId = 1, "
                          "open_size = 1\n",
                          fd1, acmPath.c_str())));
    EXPECT_TRUE(
        log.Contains(Text("fd = %d, name = %s, mainId = 2, subId = 0, portId = 3, "
                          "open_size = 2\n",
                          fd2, amaPath.c_str())));
}

TEST_F(SerialDevOperateTest, APathLongerThanTheNameFieldIsCutAndStillFoundAgain) {
    Pty pty;
    std::string path = Link(pty, std::string(80, 'p') + "/dev/ttyAMA1");
    ASSERT_GT(path.size(), 64u);
    int fd = layer->serial_open(Owner(1), path, kOpenFlags);
    ASSERT_GE(fd, 0);
    std::string kept = path.substr(0, 63);
    EXPECT_EQ(CountExact(log, Text("SERIAL_OPERATE: [OPEN] serial name too long, kept 63 of %d "
                                   "bytes, name = %s\n",
                                   static_cast<int>(path.size()), kept.c_str())),
              1u);
    EXPECT_TRUE(log.Contains(Text("fd = %d, name = %s, mainId = 1", fd, kept.c_str())));
    EXPECT_EQ(layer->serial_open(Owner(2), path, kOpenFlags), -1);
}

TEST_F(SerialDevOperateTest, PropertiesReachTheTty) {
    Pty pty;
    int fd = layer->serial_open(Owner(1), pty.SlavePath(), kOpenFlags);
    ASSERT_GE(fd, 0);
    EXPECT_EQ(layer->serial_set_property(fd, 0x1F, 57600, SERIAL_DATA_BIT_7, SERIAL_STOP_BIT_2,
                                         SERIAL_PARITY_EVEN, SERIAL_FLOW_HARDWARE),
              1);
    struct termios tio = Attributes(fd);
    EXPECT_EQ(cfgetispeed(&tio), static_cast<speed_t>(B57600));
    EXPECT_EQ(cfgetospeed(&tio), static_cast<speed_t>(B57600));
    EXPECT_NE(tio.c_cflag & PARODD, 0u) << "EVEN gives odd parity";
    EXPECT_NE(tio.c_iflag & INPCK, 0u);
    EXPECT_NE(tio.c_cflag & CSTOPB, 0u);
    EXPECT_EQ(tio.c_lflag & (ICANON | ECHO | ECHOE | ISIG), 0u);
    EXPECT_EQ(tio.c_iflag & (IXON | IXOFF | IXANY | ISTRIP | INLCR | IGNCR | ICRNL), 0u);
    EXPECT_EQ(tio.c_oflag & OPOST, 0u);
    EXPECT_EQ(tio.c_cc[VTIME], 10);
    EXPECT_EQ(tio.c_cc[VMIN], 0);
    EXPECT_EQ(CountExact(log,
                         "SERIAL_OPERATE: Set serial property success, baud = 57600, "
                         "dataBit = 1, stopBit = 3, parity = 2, flow = 1\n"),
              1u);

    // Back to no parity and one stop bit, speed untouched.
    EXPECT_EQ(layer->serial_set_property(fd, 0x0C, 9600, SERIAL_DATA_BIT_8, SERIAL_STOP_BIT_1,
                                         SERIAL_PARITY_NONE, SERIAL_FLOW_NONE),
              1);
    tio = Attributes(fd);
    EXPECT_EQ(cfgetospeed(&tio), static_cast<speed_t>(B57600));
    EXPECT_EQ(tio.c_cflag & CSTOPB, 0u);
    EXPECT_EQ(tio.c_iflag & INPCK, 0u);
}

TEST_F(SerialDevOperateTest, WithoutTheSpeedBitRawModeIsDiscarded) {
    Pty pty;
    int fd = layer->serial_open(Owner(1), pty.SlavePath(), kOpenFlags);
    ASSERT_GE(fd, 0);
    struct termios before = Attributes(fd);
    ASSERT_NE(before.c_lflag & ICANON, 0u) << "a fresh pty is in canonical mode";
    EXPECT_EQ(layer->serial_set_property(fd, 0x0E, 115200, SERIAL_DATA_BIT_8, SERIAL_STOP_BIT_2,
                                         SERIAL_PARITY_ODD, SERIAL_FLOW_NONE),
              1);
    struct termios after = Attributes(fd);
    EXPECT_EQ(after.c_lflag & (ICANON | ECHO), before.c_lflag & (ICANON | ECHO));
    EXPECT_EQ(after.c_oflag & OPOST, before.c_oflag & OPOST);
    EXPECT_EQ(cfgetospeed(&after), cfgetospeed(&before));
    EXPECT_NE(after.c_cflag & CSTOPB, 0u);
    EXPECT_NE(after.c_cflag & PARODD, 0u);
}

TEST_F(SerialDevOperateTest, SpeedsWithoutTermiosConstantChangeNothing) {
    Pty pty;
    int fd = layer->serial_open(Owner(1), pty.SlavePath(), kOpenFlags);
    ASSERT_GE(fd, 0);
    for (unsigned int speed : {56000u, 28800u, 0u}) {
        struct termios before = Attributes(fd);
        EXPECT_EQ(layer->serial_set_property(fd, 0x0F, speed, SERIAL_DATA_BIT_7, SERIAL_STOP_BIT_2,
                                             SERIAL_PARITY_ODD, SERIAL_FLOW_NONE),
                  -1);
        EXPECT_EQ(CountExact(log, Text("SERIAL_OPERATE: [SET] serial baud failed, baud is not "
                                       "legal, fd = %d, baud = %u\n",
                                       fd, speed)),
                  1u);
        struct termios after = Attributes(fd);
        EXPECT_EQ(memcmp(&before, &after, sizeof before), 0) << speed;
    }
    EXPECT_FALSE(log.Contains("Set serial property success"));

    EXPECT_EQ(layer->serial_set_property(fd + 100, 0x0F, 9600, SERIAL_DATA_BIT_8, SERIAL_STOP_BIT_1,
                                         SERIAL_PARITY_NONE, SERIAL_FLOW_NONE),
              -1);
    EXPECT_EQ(CountExact(log, Text("SERIAL_OPERATE: [SET] serial baud failed, serial is not open, "
                                   "fd = %d, baud = 9600\n",
                                   fd + 100)),
              1u);
}

TEST_F(SerialDevOperateTest, WritesReachTheDevice) {
    Pty pty;
    int fd = OpenRaw(pty, 1);
    const std::string bytes("\x7e\x01\x00\xff\r\nhello", 11);
    EXPECT_EQ(layer->serial_write(fd, bytes.data(), static_cast<unsigned int>(bytes.size())), 1);
    EXPECT_EQ(pty.Receive(bytes.size()), bytes);

    EXPECT_EQ(layer->serial_write(fd, bytes.data(), 0), -1);
    EXPECT_EQ(layer->serial_write(fd, nullptr, 4), -1);
    EXPECT_EQ(CountExact(log, "SERIAL_OPERATE: [WRITE] failed, length < 0\n"), 2u);
    EXPECT_EQ(layer->serial_write(fd + 100, bytes.data(), 3), -1);
    EXPECT_EQ(CountExact(log, Text("SERIAL_OPERATE: [WRITE] failed, serial is not open, fd = %d\n",
                                   fd + 100)),
              1u);
}

TEST_F(SerialDevOperateTest, ReceivedBytesReachTheOwnerOnTheReaderThread) {
    ASSERT_EQ(layer->serial_init(), 0);
    EXPECT_EQ(layer->serial_init(), 0) << "a second call starts no second reader";
    Pty pty;
    OpenRaw(pty, 7);
    std::string sent;
    for (int i = 0; i < 20; ++i) {
        std::string chunk = "frame-" + std::to_string(i) + std::string(1, '\0');
        sent += chunk;
        ASSERT_TRUE(pty.Send(chunk));
    }
    ASSERT_TRUE(WaitUntil([&] { return journal.BytesOf(7).size() >= sent.size(); }));
    EXPECT_EQ(journal.BytesOf(7), sent);
    for (const auto& entry : journal.Entries()) {
        EXPECT_NE(entry.thread, std::this_thread::get_id());
        EXPECT_FALSE(entry.bytes.empty());
    }
    EXPECT_EQ(log.Count("SerialReadThreadEntry pid = "), 1u);
}

TEST_F(SerialDevOperateTest, OnePortPerPassLowestFdFirst) {
    Pty gate, low, high;
    OpenRaw(gate, 1);
    int lowFd = OpenRaw(low, 2);
    int highFd = OpenRaw(high, 3);
    ASSERT_LT(lowFd, highFd);
    ASSERT_EQ(layer->serial_init(), 0);

    // The reader is held inside the gate's delivery while both other ports fill up.
    journal.Hold(1);
    ASSERT_TRUE(gate.Send("g"));
    ASSERT_TRUE(WaitUntil([&] { return journal.Size() == 1; }));
    ASSERT_TRUE(high.Send("H"));
    ASSERT_TRUE(low.Send("L"));
    ASSERT_TRUE(WaitUntil([&] { return PendingInput(lowFd) > 0 && PendingInput(highFd) > 0; }));
    journal.Release();

    ASSERT_TRUE(WaitUntil([&] { return journal.Size() == 3; }));
    auto entries = journal.Entries();
    EXPECT_EQ(entries[1].mainId, 2u);
    EXPECT_EQ(entries[1].bytes, "L");
    EXPECT_EQ(entries[2].mainId, 3u);
    EXPECT_EQ(entries[2].bytes, "H");
}

TEST_F(SerialDevOperateTest, ZeroLengthReadsNeverReachTheOwner) {
    Pty pty;
    // Canonical mode: an end-of-file character makes read() return 0 on a live port.
    int fd = layer->serial_open(Owner(5), pty.SlavePath(), kOpenFlags);
    ASSERT_GE(fd, 0);
    ASSERT_TRUE(pty.Send("\x04"));
    ASSERT_TRUE(pty.Send("abc\n"));
    ASSERT_EQ(layer->serial_init(), 0);
    ASSERT_TRUE(WaitUntil([&] { return !journal.BytesOf(5).empty(); }));
    EXPECT_EQ(journal.BytesOf(5), "abc\n");
    EXPECT_EQ(journal.Size(), 1u);
    EXPECT_EQ(layer->serial_cache_data(fd, "xyz", 0), 0);
    EXPECT_EQ(journal.Size(), 1u);
}

double CpuSeconds() {
    struct rusage usage;
    getrusage(RUSAGE_SELF, &usage);
    return static_cast<double>(usage.ru_utime.tv_sec + usage.ru_stime.tv_sec) +
           static_cast<double>(usage.ru_utime.tv_usec + usage.ru_stime.tv_usec) / 1e6;
}

TEST_F(SerialDevOperateTest, AHungUpPortNeitherSpinsNorStarvesTheOthers) {
    Pty dead, live;
    int deadFd = OpenRaw(dead, 1);
    int liveFd = OpenRaw(live, 2);
    ASSERT_LT(deadFd, liveFd) << "the dead port is the one served first";
    ASSERT_EQ(layer->serial_init(), 0);
    dead.HangUp();
    const std::string failed =
        Text("SERIAL_OPERATE: [READ] failed, fd = %d, name = %s, result = 0, error = end of file",
             deadFd, dead.SlavePath().c_str());
    ASSERT_TRUE(log.WaitFor(failed));

    for (int i = 0; i < 5; ++i) {
        std::string chunk = "live" + std::to_string(i);
        ASSERT_TRUE(live.Send(chunk));
        ASSERT_TRUE(WaitUntil([&] { return journal.BytesOf(2).size() == 5u * (i + 1); })) << i;
    }
    // An observation window, not a wait for an event: a reader spinning on the dead port would
    // burn a whole core in it.
    double cpuBefore = CpuSeconds();
    auto wallBefore = std::chrono::steady_clock::now();
    std::this_thread::sleep_for(std::chrono::milliseconds(600));
    double cpu = CpuSeconds() - cpuBefore;
    double wall =
        std::chrono::duration<double>(std::chrono::steady_clock::now() - wallBefore).count();
    EXPECT_LT(cpu, wall / 2) << "cpu " << cpu << " s in " << wall << " s";
    EXPECT_EQ(log.Count(failed), 1u) << "logged once, however often it is read";
    EXPECT_EQ(journal.BytesOf(1), "");
    EXPECT_TRUE(layer->serial_is_open(deadFd)) << "the port stays until its link closes it";
}

// ---- the USB adapter's registers ----

struct ExarCase {
    const char* what;
    const char* systemConfig;  // empty: no document
    unsigned int chipType;
    const char* device;
    std::vector<std::vector<int>> writes;  // block, register, value
};

const ExarCase kExarCases[] = {
    {"USB port 0",
     R"({"PRODUCT_GROUP": "DVR"})",
     2,
     "dev/ttyACM0",
     {{0, 3, 0}, {0, 12, 0}, {0, 16, 1}, {0, 3, 3}, {0, 16, 3}}},
    {"USB port 1",
     R"({"PRODUCT_GROUP": "DVR"})",
     2,
     "dev/ttyACM1",
     {{1, 3, 0}, {1, 12, 0}, {1, 16, 1}, {1, 3, 3}, {1, 16, 3}}},
    {"USB port 2", R"({"PRODUCT_GROUP": "DVR"})", 2, "dev/ttyACM2", {}},
    {"on-chip UART", R"({"PRODUCT_GROUP": "DVR"})", 1, "dev/ttyAMA0", {}},
    {"QOR port 0",
     R"({"PRODUCT_GROUP": "QOR"})",
     2,
     "dev/ttyACM0",
     {{0, 3, 0}, {0, 12, 0}, {0, 16, 1}, {0, 3, 3}, {0, 16, 3}}},
    {"QOR port 1",
     R"({"PRODUCT_GROUP": "QOR"})",
     2,
     "dev/ttyACM1",
     {{1, 26, 11}, {1, 3, 0}, {1, 12, 8}, {1, 16, 1}, {1, 3, 3}, {1, 16, 3}}},
    {"QOR port 2", R"({"PRODUCT_GROUP": "QOR"})", 2, "dev/ttyACM2", {}},
    {"QOR UART", R"({"PRODUCT_GROUP": "QOR"})", 1, "dev/ttyAMA1", {}},
    {"no document",
     "",
     2,
     "dev/ttyACM0",
     {{0, 3, 0}, {0, 12, 0}, {0, 16, 1}, {0, 3, 3}, {0, 16, 3}}},
    {"group not a string",
     R"({"PRODUCT_GROUP": 5})",
     2,
     "dev/ttyACM1",
     {{1, 3, 0}, {1, 12, 0}, {1, 16, 1}, {1, 3, 3}, {1, 16, 3}}},
    {"document not an object",
     R"(["QOR"])",
     2,
     "dev/ttyACM1",
     {{1, 3, 0}, {1, 12, 0}, {1, 16, 1}, {1, 3, 3}, {1, 16, 3}}},
};

void PrintTo(const ExarCase& c, std::ostream* out) {
    *out << c.what;
}

class ExarRegisters : public SerialDevOperateTest,
                      public ::testing::WithParamInterface<ExarCase> {};

TEST_P(ExarRegisters, SequenceDependsOnGroupChipTypeAndPort) {
    const ExarCase& c = GetParam();
    env.SetSystemConfig(c.systemConfig);
    Pty pty;
    RecordingSerial* owner = Owner(1);
    owner->SetMainChipType(c.chipType);
    int fd = layer->serial_open(owner, Link(pty, c.device), kOpenFlags);
    ASSERT_GE(fd, 0);
    log.Clear();
    EXPECT_EQ(layer->serial_set_usb_extern_property(fd), 0);

    std::vector<std::vector<int>> writes;
    for (const auto& record : log.Records()) {
        int block, reg, value;
        if (sscanf(record.text.c_str(),
                   "SERIAL_OPERATE: uart_set_exar_reg, block=%d, reg=%d, "
                   "value=%d",
                   &block, &reg, &value) == 3) {
            writes.push_back({block, reg, value});
        }
    }
    EXPECT_EQ(writes, c.writes) << c.what;
    EXPECT_EQ(log.Contains("ACC_ALARM:: Q7R_GetSpecInfo SYSTEM_CONFIG faild!\n"),
              std::string(c.systemConfig).empty())
        << c.what;
}
INSTANTIATE_TEST_SUITE_P(SerialDevOperate, ExarRegisters, ::testing::ValuesIn(kExarCases));

TEST_F(SerialDevOperateTest, UsbSettingsFollowEveryPropertyChangeAndNeedAnOpenPort) {
    Pty pty;
    RecordingSerial* owner = Owner(1);
    owner->SetMainChipType(2);
    int fd = layer->serial_open(owner, Link(pty, "dev/ttyACM0"), kOpenFlags);
    ASSERT_GE(fd, 0);
    EXPECT_EQ(layer->serial_set_property(fd, 0x01, 9600, SERIAL_DATA_BIT_8, SERIAL_STOP_BIT_1,
                                         SERIAL_PARITY_NONE, SERIAL_FLOW_NONE),
              1);
    EXPECT_EQ(log.Count("SERIAL_OPERATE: uart_set_exar_reg, block=0, "), 5u);
    EXPECT_EQ(layer->serial_set_usb_extern_property(fd + 100), -1);
    EXPECT_EQ(layer->serial_set_exar_reg(fd, 0, 3, 0), 0) << "the pty refuses the ioctl harmlessly";
}

}  // namespace
