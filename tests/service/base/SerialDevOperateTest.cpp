// The serial device layer: its pure conversions, then the layer on real pseudo-terminals.
#include <fcntl.h>
#include <signal.h>
#include <stdio.h>
#include <string.h>
#include <sys/ioctl.h>
#include <termios.h>
#include <unistd.h>

#include <atomic>
#include <condition_variable>
#include <filesystem>
#include <functional>
#include <memory>
#include <mutex>
#include <string>
#include <vector>

#include <gtest/gtest.h>

#include "MainChipSerialOpt.h"
#include "Pty.h"
#include "SerialBase.h"
#include "ConsoleOutput.h"
#include "SerialDevOperate.h"
#include "SerialPortWriter.h"
#include "TestPeripherals.h"
#include "ServiceHarness.h"

namespace {

using pmtest::Pty;
using pmtest::WaitUntil;

constexpr int kOpenFlags = kMainChipOpenFlags;  // what the serial base opens with

// ---- configuration words and pure termios work ----

// Exact words give their code, anything else the default; 2400 and 28800 come last.
TEST(SerialWords, ConfigurationWordsAndSpeeds) {
    EXPECT_EQ(serial_baud_switch("B2400"), SERIAL_BAUD_2400);
    EXPECT_EQ(serial_baud_switch("B28800"), SERIAL_BAUD_28800);
    EXPECT_EQ(serial_baud_switch("b9600"), SERIAL_BAUD_4800);
    EXPECT_EQ(serial_baud_switch("B9600 "), SERIAL_BAUD_4800);
    EXPECT_EQ(serial_data_bit_switch("CS7"), SERIAL_DATA_BIT_7);
    EXPECT_EQ(serial_data_bit_switch("CS9"), SERIAL_DATA_BIT_8);
    EXPECT_EQ(serial_stop_bit_switch("2bit"), SERIAL_STOP_BIT_2);
    EXPECT_EQ(serial_stop_bit_switch("1.5bit"), SERIAL_STOP_BIT_1);
    EXPECT_EQ(serial_parity_switch("EVEN"), SERIAL_PARITY_EVEN);
    EXPECT_EQ(serial_parity_switch("even"), SERIAL_PARITY_NONE);
    EXPECT_EQ(serial_flow_control_switch("HARDWARE"), SERIAL_FLOW_NONE);
    const unsigned speeds[] = {4800, 9600, 19200, 38400, 56000, 57600, 115200, 2400, 28800};
    for (int code = 0; code <= 15; ++code) {  // every value the enumeration can hold
        EXPECT_EQ(serial_baud_rate_speed(static_cast<SerialBaudRate>(code)),
                  code <= 8 ? speeds[code] : 4800u)
            << code;
    }
    // Only speeds with a termios constant are taken; the others leave the output alone.
    unsigned speed = 7;
    EXPECT_EQ(serial_get_baud_speed(115200, speed), 1);
    EXPECT_EQ(speed, static_cast<unsigned>(B115200));
    for (unsigned refused : {28800u, 56000u, 0u}) {
        EXPECT_EQ(serial_get_baud_speed(refused, speed), 0) << refused;
        EXPECT_EQ(speed, static_cast<unsigned>(B115200)) << refused;
    }
}

TEST(SerialPortId, OneDigitAfterTheDevicePrefix) {
    const struct {
        const char* path;
        int expected;
    } cases[] = {
        {"/dev/ttyAMA3", 3},  {"/dev/ttyACM12", 1},  // one character only
        {"/dev/ttyUSB0", -1}, {"ttyAMA0", -1},
        {"/dev/ttyAMA", -1},  {"/dev/ttyACM2/dev/ttyAMA1", 1},  // AMA is looked for first
    };
    for (const auto& c : cases) {
        EXPECT_EQ(serial_port_id(c.path), c.expected) << c.path;
    }
}

// Data bits and parity enable through what the code asks for: a pty keeps neither.
TEST(SerialTermios, MaskBitsSelectTheLineSettingsAndReadTimingIsAlwaysSet) {
    const struct {
        const char* what;
        unsigned char mask;
        int dataBit, stopBit, parity;
        tcflag_t cflagIn, iflagIn, cflagOut, iflagOut;
    } cases[] = {
        {"7 bits", 0x02, 1, 0, 0, CS8, 0, CS7, 0},
        {"5 bits leave the size as read", 0x02, 3, 0, 0, CS7, 0, CS7, 0},
        {"data bits need their mask bit", 0x0D, 1, 0, 0, CS6, 0, CS6, 0},
        {"2 stop bits", 0x04, 0, 3, 0, CS8, 0, CS8 | CSTOPB, 0},
        {"1.5 stop bits count as 1", 0x04, 0, 2, 0, CS8 | CSTOPB, 0, CS8, 0},
        {"even parity is odd parity", 0x08, 0, 0, 2, CS8, 0, CS8 | PARENB | PARODD, INPCK},
        {"no parity keeps PARODD", 0x08, 0, 0, 0, CS8 | PARENB | PARODD, INPCK | IGNPAR,
         CS8 | PARODD, IGNPAR},
        {"parity needs its mask bit", 0x07, 0, 0, 2, CS8, 0, CS8, 0},
    };
    for (const auto& c : cases) {
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
}

// ---- the layer on real pseudo-terminals ----

// Every delivery, in the order the reader made them. An owner can be held inside its
// delivery, which holds the reader with it.
class Journal {
public:
    struct Entry {
        unsigned mainId;
        std::string bytes;
    };
    void Record(unsigned mainId, std::string bytes) {
        std::unique_lock<std::mutex> lock(m_lock);
        m_entries.push_back({mainId, std::move(bytes)});
        m_cond.wait(lock, [&] { return m_heldId != mainId; });
    }
    void Hold(unsigned mainId) {
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
    std::string BytesOf(unsigned mainId) const {
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
    unsigned m_heldId = 0;
};

class RecordingSerial : public pmtest::TakingSerial {
public:
    RecordingSerial(CPeripheralManage* manage, Journal& journal, unsigned mainId, unsigned subId)
        : TakingSerial(manage, manage->GetMsgClient(), mainId, subId), m_journal(journal) {}
    std::function<void(const std::string&)> onDelivery;

protected:
    int Take(const char* bytes, unsigned length) override {
        if (onDelivery) {
            onDelivery(std::string(bytes, length));  // on the reader thread
        }
        m_journal.Record(GetMainId(), std::string(bytes, length));
        return 0;
    }

private:
    Journal& m_journal;
};

struct termios Attributes(int fd) {
    struct termios tio = {};
    EXPECT_EQ(tcgetattr(fd, &tio), 0);
    return tio;
}

class SerialDevOperateTest : public ::testing::Test {
protected:
    // A failed test must not leave the reader held inside a delivery.
    void TearDown() override { journal.Release(); }

    RecordingSerial* Owner(unsigned mainId, unsigned subId = 0) {
        owners.push_back(
            std::make_unique<RecordingSerial>(&service.Manager(), journal, mainId, subId));
        return owners.back().get();
    }
    // A port opened for a new owner, raw 115200 8N1, so that bytes flow unchanged.
    int OpenRaw(Pty& pty, unsigned mainId) {
        const int fd = layer->serial_open(Owner(mainId), pty.SlavePath(), kOpenFlags);
        EXPECT_GE(fd, 0);
        EXPECT_EQ(layer->serial_set_property(fd, 0x0F, 115200, SERIAL_DATA_BIT_8, SERIAL_STOP_BIT_1,
                                             SERIAL_PARITY_NONE, SERIAL_FLOW_NONE),
                  1);
        return fd;
    }
    // `name` below the root, linked to the pty: lets a test choose the device path.
    std::string Link(const Pty& pty, const std::string& name) {
        const std::string path = service.Root().File("links/" + name);
        std::filesystem::create_directories(std::filesystem::path(path).parent_path());
        std::filesystem::create_symlink(pty.SlavePath(), path);
        return path;
    }
    bool Logged(const std::string& text) { return service.Logs().Count(text) == 1; }

    // Teardown order, last first: the layer and its reader go before the owners they serve.
    pmtest::ServiceHarness service{pmtest::kNoPeripherals, R"({"PRODUCT_GROUP": "DVR"})"};
    Journal journal;
    std::vector<std::unique_ptr<RecordingSerial>> owners;
    std::unique_ptr<CSerialDevOperate> layer = std::make_unique<CSerialDevOperate>();
};

TEST_F(SerialDevOperateTest, OpenKeepsOnePortPerPathAndPerPeripheral) {
    Pty a, b;
    const int fd = layer->serial_open(Owner(3, 1), a.SlavePath(), kOpenFlags);
    ASSERT_GE(fd, 0);
    EXPECT_EQ(layer->serial_check_open_same(a.SlavePath()), 1);
    EXPECT_EQ(layer->serial_check_perip_open(3, 1), fd);
    EXPECT_EQ(fcntl(fd, F_GETFL) & O_NONBLOCK, 0) << "blocking once open";

    EXPECT_EQ(layer->serial_open(Owner(4), a.SlavePath(), kOpenFlags), -1);
    EXPECT_TRUE(Logged(
        "SERIAL_OPERATE: [OPEN] serial failed, serial has opened, name = " + a.SlavePath() + "\n"));
    EXPECT_EQ(layer->serial_open(Owner(3, 1), b.SlavePath(), kOpenFlags), -3);
    EXPECT_TRUE(Logged(
        "SERIAL_OPERATE: [OPEN] serial failed, this perip has open one serial, "
        "name = " +
        b.SlavePath() + ", mainId = 3, subId = 1, opened_fd = " + std::to_string(fd) + "\n"));
    EXPECT_EQ(layer->serial_open(nullptr, b.SlavePath(), kOpenFlags), -3);
    EXPECT_EQ(layer->serial_open(Owner(5), service.Root().File("no-tty"), kOpenFlags), -2);

    // A path longer than the name field is cut, and found again by its cut name.
    const std::string path = Link(b, std::string(80, 'p') + "/dev/ttyAMA1");
    ASSERT_GE(layer->serial_open(Owner(6), path, kOpenFlags), 0);
    EXPECT_TRUE(Logged("SERIAL_OPERATE: [OPEN] serial name too long, kept 63 of " +
                       std::to_string(path.size()) + " bytes, name = " + path.substr(0, 63) +
                       "\n"));
    EXPECT_EQ(layer->serial_open(Owner(7), path, kOpenFlags), -1);

    EXPECT_EQ(layer->serial_close(fd), 1);
    EXPECT_EQ(layer->serial_close(fd), 0);
    EXPECT_GE(layer->serial_open(Owner(3, 1), a.SlavePath(), kOpenFlags), 0)
        << "a closed path and peripheral can be opened again";
}

TEST_F(SerialDevOperateTest, PropertiesReachTheTtyAsFarAsAPtyKeepsThem) {
    // Without the speed bit the raw mode is discarded; stop bits and parity still apply.
    Pty canonical;
    const int other = layer->serial_open(Owner(2), canonical.SlavePath(), kOpenFlags);
    const struct termios fresh = Attributes(other);
    ASSERT_NE(fresh.c_lflag & ICANON, 0u) << "a fresh pty is in canonical mode";
    EXPECT_EQ(layer->serial_set_property(other, 0x0E, 115200, SERIAL_DATA_BIT_8, SERIAL_STOP_BIT_2,
                                         SERIAL_PARITY_ODD, SERIAL_FLOW_NONE),
              1);
    struct termios tio = Attributes(other);
    EXPECT_NE(tio.c_lflag & ICANON, 0u);
    EXPECT_EQ(cfgetospeed(&tio), cfgetospeed(&fresh));
    EXPECT_NE(tio.c_cflag & CSTOPB, 0u);
    EXPECT_NE(tio.c_cflag & PARODD, 0u);

    Pty pty;
    const int fd = layer->serial_open(Owner(1), pty.SlavePath(), kOpenFlags);
    ASSERT_GE(fd, 0);
    EXPECT_EQ(layer->serial_set_property(fd, 0x1F, 57600, SERIAL_DATA_BIT_7, SERIAL_STOP_BIT_2,
                                         SERIAL_PARITY_EVEN, SERIAL_FLOW_HARDWARE),
              1);
    tio = Attributes(fd);
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

    // A speed without termios constant changes nothing at all.
    EXPECT_EQ(layer->serial_set_property(fd, 0x0F, 56000, SERIAL_DATA_BIT_8, SERIAL_STOP_BIT_1,
                                         SERIAL_PARITY_NONE, SERIAL_FLOW_NONE),
              -1);
    EXPECT_TRUE(Logged("SERIAL_OPERATE: [SET] serial baud failed, baud is not legal, fd = " +
                       std::to_string(fd) + ", baud = 56000\n"));
    const struct termios after = Attributes(fd);
    EXPECT_EQ(memcmp(&tio, &after, sizeof tio), 0);
    EXPECT_EQ(layer->serial_set_property(fd + 100, 0x0F, 9600, SERIAL_DATA_BIT_8, SERIAL_STOP_BIT_1,
                                         SERIAL_PARITY_NONE, SERIAL_FLOW_NONE),
              -1);
}

TEST_F(SerialDevOperateTest, WritesReachTheDevice) {
    Pty pty;
    const int fd = OpenRaw(pty, 1);
    const std::string bytes("\x7e\x01\x00\xff\r\nhello", 11);
    EXPECT_EQ(layer->serial_write(fd, bytes.data(), static_cast<unsigned>(bytes.size())), 1);
    EXPECT_EQ(pty.Receive(bytes.size()), bytes);
    EXPECT_EQ(layer->serial_write(fd, bytes.data(), 0), -1);
    EXPECT_EQ(layer->serial_write(fd, nullptr, 4), -1);
    EXPECT_EQ(layer->serial_write(fd + 100, bytes.data(), 3), -1);
    EXPECT_TRUE(Logged("SERIAL_OPERATE: [WRITE] failed, serial is not open, fd = " +
                       std::to_string(fd + 100) + "\n"));
}

TEST_F(SerialDevOperateTest, OnePortPerPassLowestFdFirstOnTheReaderThread) {
    Pty gate, low, high;
    OpenRaw(gate, 1);
    const int lowFd = OpenRaw(low, 2);
    const int highFd = OpenRaw(high, 3);
    ASSERT_LT(lowFd, highFd);
    ASSERT_EQ(layer->serial_init(), 0);
    EXPECT_EQ(layer->serial_init(), 0) << "a second call starts no second reader";

    // The reader is held inside the gate's delivery while both other ports fill up.
    journal.Hold(1);
    ASSERT_TRUE(gate.Send("g"));
    ASSERT_TRUE(WaitUntil([&] { return journal.Entries().size() == 1; }));
    ASSERT_TRUE(high.Send("H"));
    ASSERT_TRUE(low.Send("L"));
    auto pending = [](int fd) {
        int n = 0;
        return ioctl(fd, FIONREAD, &n) == 0 && n > 0;
    };
    ASSERT_TRUE(WaitUntil([&] { return pending(lowFd) && pending(highFd); }));
    journal.Release();

    ASSERT_TRUE(WaitUntil([&] { return journal.Entries().size() == 3; }));
    const auto entries = journal.Entries();
    EXPECT_EQ(entries[1].mainId, 2u);
    EXPECT_EQ(entries[1].bytes, "L");
    EXPECT_EQ(entries[2].mainId, 3u);
    EXPECT_EQ(entries[2].bytes, "H");
    EXPECT_EQ(service.Logs().Count("SerialReadThreadEntry pid = "), 1u);
}

TEST_F(SerialDevOperateTest, ZeroLengthReadsNeverReachTheOwner) {
    Pty pty;
    // Canonical mode: an end-of-file character makes read() return 0 on a live port.
    const int fd = layer->serial_open(Owner(5), pty.SlavePath(), kOpenFlags);
    ASSERT_GE(fd, 0);
    ASSERT_TRUE(pty.Send("\x04"));
    ASSERT_TRUE(pty.Send("abc\n"));
    ASSERT_EQ(layer->serial_init(), 0);
    ASSERT_TRUE(WaitUntil([&] { return !journal.BytesOf(5).empty(); }));
    EXPECT_EQ(journal.BytesOf(5), "abc\n");
    EXPECT_EQ(layer->serial_cache_data(fd, "xyz", 0), 0);
    EXPECT_EQ(journal.Entries().size(), 1u);
}

TEST_F(SerialDevOperateTest, AHungUpPortNeitherSpinsNorStarvesTheOthers) {
    Pty dead, live;
    const int deadFd = OpenRaw(dead, 1);
    ASSERT_LT(deadFd, OpenRaw(live, 2)) << "the dead port is the one served first";
    ASSERT_EQ(layer->serial_init(), 0);
    dead.HangUp();
    const std::string failed = "SERIAL_OPERATE: [READ] failed, fd = " + std::to_string(deadFd) +
                               ", name = " + dead.SlavePath() + ", result = 0, error = end of file";
    ASSERT_TRUE(service.Logs().WaitFor(failed));
    for (int i = 0; i < 5; ++i) {
        ASSERT_TRUE(live.Send("live" + std::to_string(i)));
        ASSERT_TRUE(WaitUntil([&] { return journal.BytesOf(2).size() == 5u * (i + 1); })) << i;
    }
    EXPECT_EQ(service.Logs().Count(failed), 1u) << "logged once, however often it is read";
    EXPECT_EQ(journal.BytesOf(1), "");
    EXPECT_TRUE(layer->serial_is_open(deadFd)) << "the port stays until its link closes it";
}

// ---- writes ----

// Numbered frames of `size` bytes: "<" and five digits, a filler, ">".
std::string NumberedFrame(int n, size_t size) {
    char head[8];
    snprintf(head, sizeof head, "<%05d", n);
    std::string frame(head);
    frame.resize(size - 1, static_cast<char>('a' + n % 26));
    return frame + ">";
}

// A peer that stops reading: every frame before the stall arrives whole, the one that meets
// it loses exactly the bytes counted, and nothing of a later write arrives while it lasts. The
// stall costs one budget: later writes are refused at once (counted, not waited for), until
// the peer reads again.
TEST_F(SerialDevOperateTest, AStoppedPeerGetsWholeFramesAndTheStallIsCountedOnce) {
    Pty pty;
    const int fd = OpenRaw(pty, 1);
    const size_t size = 1000;
    int cutAt = -1;
    for (int i = 0; i < 1000 && cutAt < 0; ++i) {  // far more than a pty's queue holds
        const std::string frame = NumberedFrame(i, size);
        if (layer->serial_write(fd, frame.data(), size) == -1) {
            cutAt = i;
        }
    }
    ASSERT_GE(cutAt, 1);
    SerialWriteStats stats{};
    ASSERT_TRUE(layer->serial_write_stats(fd, stats));
    EXPECT_TRUE(stats.stalled);
    EXPECT_EQ(stats.cutWrites, 1u);
    const unsigned long long lostInCut = stats.bytesLost;
    ASSERT_GT(lostInCut, 0u);
    for (int i = 0; i < 50; ++i) {
        const std::string frame = NumberedFrame(cutAt + 1 + i, size);
        EXPECT_EQ(layer->serial_write(fd, frame.data(), size), -1);
    }
    ASSERT_TRUE(layer->serial_write_stats(fd, stats));
    EXPECT_EQ(stats.cutWrites, 1u) << "a stalled port is not waited for again";
    EXPECT_EQ(stats.refusedWrites, 50u);
    EXPECT_EQ(stats.bytesLost, lostInCut + 50 * size);
    EXPECT_EQ(service.Logs().Count("SERIAL_OPERATE: [WRITE] name = " + pty.SlavePath() +
                                   ", no room within "),
              1u);
    EXPECT_TRUE(service.Logs().Contains(std::to_string(lostInCut) + " of 1000 bytes dropped"));

    // The peer reads again: what it finds is the frames whole, then the head of the cut one.
    std::string expected;
    for (int i = 0; i < cutAt; ++i) {
        expected += NumberedFrame(i, size);
    }
    expected += NumberedFrame(cutAt, size).substr(0, size - lostInCut);
    EXPECT_EQ(pty.Receive(expected.size() + 1, std::chrono::milliseconds(500)), expected);
    const std::string next = NumberedFrame(9999, size);
    EXPECT_EQ(layer->serial_write(fd, next.data(), size), 1) << "drained: writes go again";
    EXPECT_EQ(pty.Receive(size), next);
    ASSERT_TRUE(layer->serial_write_stats(fd, stats));
    EXPECT_FALSE(stats.stalled);
    EXPECT_EQ(fcntl(fd, F_GETFL) & O_NONBLOCK, 0) << "the port stays blocking for the reader";
}

// The reader thread answers from inside a delivery, and must never wait there: with a budget
// of a minute, a port whose peer stopped reading keeps its answers queued or refuses them
// whole, while the reader goes on serving the other port and the table can change. Once the
// peer reads, the queued answers follow, whole and in order.
TEST_F(SerialDevOperateTest, TheReaderNeverWaitsOnAPortThatStalled) {
    struct MinuteBudget {
        MinuteBudget() { CSerialPortWriter::SetFixedBudgetForTest(60000); }
        ~MinuteBudget() {
            CSerialPortWriter::SetFixedBudgetForTest(CSerialPortWriter::kFixedBudgetMs);
        }
    } budget;
    Pty stalled, other, later;
    const int stalledFd = OpenRaw(stalled, 1);
    OpenRaw(other, 2);
    const size_t size = 4000;
    std::atomic<int> echoes{0};
    owners[0]->onDelivery = [&](const std::string&) {
        const std::string echo = NumberedFrame(echoes, size);
        layer->serial_write(stalledFd, echo.data(), size);
        ++echoes;
    };
    ASSERT_EQ(layer->serial_init(), 0);
    for (int i = 0; i < 60; ++i) {  // 240 kB of answers that nobody reads
        ASSERT_TRUE(stalled.Send("x"));
        ASSERT_TRUE(WaitUntil([&] { return echoes == i + 1; })) << i;
    }
    for (int i = 0; i < 5; ++i) {
        ASSERT_TRUE(other.Send("live" + std::to_string(i)));
        ASSERT_TRUE(WaitUntil([&] { return journal.BytesOf(2).size() == 5u * (i + 1); })) << i;
    }
    EXPECT_GE(layer->serial_open(Owner(3), later.SlavePath(), kOpenFlags), 0);
    SerialWriteStats stats{};
    ASSERT_TRUE(layer->serial_write_stats(stalledFd, stats));
    EXPECT_GT(stats.refusedWrites, 0u) << "what the queue cannot take is dropped whole";
    EXPECT_EQ(stats.cutWrites, 0u) << "nothing is due within the minute";
    EXPECT_EQ(stats.bytesLost, stats.refusedWrites * size);

    const size_t taken = 60 - stats.refusedWrites;
    const std::string got = stalled.Receive(taken * size);
    ASSERT_EQ(got.size(), taken * size);
    int last = -1;
    for (size_t at = 0; at < got.size(); at += size) {
        const int number = std::stoi(got.substr(at + 1, 5));
        EXPECT_GT(number, last);
        EXPECT_EQ(got.substr(at, size), NumberedFrame(number, size)) << number;
        last = number;
    }
}

// ---- what the service prints ----

// Standard output pointed at `fd` for the object's life, then back.
class StdoutTo {
public:
    explicit StdoutTo(int fd) : m_saved(dup(STDOUT_FILENO)) {
        fflush(stdout);
        dup2(fd, STDOUT_FILENO);
    }
    ~StdoutTo() {
        fflush(stdout);
        dup2(m_saved, STDOUT_FILENO);
        close(m_saved);
    }

private:
    int m_saved;
};

// At the traffic levels the reader thread prints a hex dump of every delivery, under the
// port table's lock: an output nobody reads must cost lines, never the reader.
TEST_F(SerialDevOperateTest, AStalledStandardOutputNeverHoldsTheReader) {
    int out[2];
    ASSERT_TRUE(pmtest::FullPipe(out));
    StdoutTo stalled(out[1]);
    service.Manager().m_nDebugLevel = 3;
    Pty dumped, other;
    OpenRaw(dumped, 1);
    OpenRaw(other, 2);
    ASSERT_EQ(layer->serial_init(), 0);
    const uint64_t lostBefore = ConsoleLostLines();
    for (int i = 0; i < 20; ++i) {
        ASSERT_TRUE(dumped.Send("dump me " + std::to_string(i)));
        ASSERT_TRUE(other.Send("x"));
        ASSERT_TRUE(WaitUntil([&] { return journal.BytesOf(2).size() == size_t(i) + 1; })) << i;
    }
    EXPECT_GE(ConsoleLostLines(), lostBefore + 20) << "every dump counted as lost";
    service.Manager().m_nDebugLevel = 1;
    close(out[0]);
    close(out[1]);
}

// A closed output raises SIGPIPE on every write: the service's own prints must not end a host
// that left the signal at its default.
TEST(ConsoleOutput, AClosedOutputDoesNotEndTheProcess) {
    EXPECT_EXIT(
        {
            signal(SIGPIPE, SIG_DFL);
            int out[2];
            if (pipe(out) != 0) {
                _exit(2);
            }
            close(out[0]);
            dup2(out[1], STDOUT_FILENO);
            const uint64_t before = ConsoleLostLines();
            ConsolePrintf("printed into a closed pipe %d\n", 1);
            ConsoleWrite("and again\n");
            _exit(ConsoleLostLines() == before + 2 ? 0 : 3);
        },
        ::testing::ExitedWithCode(0), "");
}

// A tty must never sit on a standard stream's number: it would take every printf, and the
// reader never serves descriptor 0.
TEST_F(SerialDevOperateTest, APortIsNeverGivenDescriptorZero) {
    Pty first, second;
    const int savedStdin = dup(STDIN_FILENO);  // -1: there was no stdin to begin with
    close(STDIN_FILENO);
    const int fd = OpenRaw(first, 1);
    char target[256] = {};
    EXPECT_TRUE(readlink("/proc/self/fd/0", target, sizeof target - 1) <= 0 ||
                first.SlavePath() != target)
        << "nor is its write descriptor";
    if (savedStdin >= 0) {
        dup2(savedStdin, STDIN_FILENO);
        close(savedStdin);
    }
    EXPECT_GE(fd, 3);
    OpenRaw(second, 2);
    ASSERT_EQ(layer->serial_init(), 0);
    ASSERT_TRUE(first.Send("one"));
    ASSERT_TRUE(second.Send("two"));
    EXPECT_TRUE(WaitUntil([&] { return journal.BytesOf(1) == "one"; }));
    EXPECT_TRUE(WaitUntil([&] { return journal.BytesOf(2) == "two"; }));
}

// A held owner's bytes wait in the kernel; let go, it gets them all, and at once.
TEST_F(SerialDevOperateTest, AHeldOwnerGetsItsBytesOnlyOnceLetGo) {
    Pty held, free;
    RecordingSerial* owner = Owner(1);
    layer->serial_hold_owner(owner);
    const int heldFd = layer->serial_open(owner, held.SlavePath(), kOpenFlags);
    ASSERT_GE(heldFd, 0);
    ASSERT_EQ(layer->serial_set_property(heldFd, 0x0F, 115200, SERIAL_DATA_BIT_8, SERIAL_STOP_BIT_1,
                                         SERIAL_PARITY_NONE, SERIAL_FLOW_NONE),
              1);
    OpenRaw(free, 2);
    ASSERT_EQ(layer->serial_init(), 0);
    ASSERT_TRUE(held.Send("early"));
    ASSERT_TRUE(free.Send("other"));
    ASSERT_TRUE(WaitUntil([&] { return journal.BytesOf(2) == "other"; }));
    int pending = 0;
    ASSERT_EQ(ioctl(heldFd, FIONREAD, &pending), 0);
    EXPECT_EQ(pending, 5) << "still in the kernel";
    EXPECT_EQ(journal.BytesOf(1), "");
    layer->serial_release_owner(owner);
    EXPECT_TRUE(WaitUntil([&] { return journal.BytesOf(1) == "early"; }));
    EXPECT_EQ(layer->serial_cache_data(heldFd, "late", 4), 0);
    layer->serial_hold_owner(owner);
    EXPECT_EQ(layer->serial_cache_data(heldFd, "gone", 4), 0);
    EXPECT_EQ(journal.BytesOf(1), "earlylate") << "nothing reaches an owner being released";
    layer->serial_forget_owner(owner);
    EXPECT_FALSE(layer->serial_is_open(heldFd)) << "an owner's leftover port goes with it";
}

}  // namespace
