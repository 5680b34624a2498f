// The service's paths against the least their work needs, each pair measured in the same run
// on the same machine, alternating in short blocks so that a change of load hits both alike.
//
//   bench_service [--idle-seconds N] [--out FILE]
//       every figure; one tab-separated row per figure (bench/run_bench.py prints the table)
//   bench_service --count PATH N
//       PATH (tty, bare-tty, bus, bare-bus) N times and nothing else; run under callgrind
//       twice with two N, the difference gives the instructions of one byte or message
//
// The service runs in this process on a private bus, as in the tests, with the log at the
// recorder's level and without the tests' log capture. Its printed records go to /dev/null.
#include <dlfcn.h>
#include <fcntl.h>
#include <poll.h>
#include <stdio.h>
#include <stdlib.h>
#include <string.h>
#include <sys/resource.h>
#include <sys/select.h>
#include <termios.h>
#include <time.h>
#include <unistd.h>

#include <algorithm>
#include <atomic>
#include <chrono>
#include <condition_variable>
#include <fstream>
#include <functional>
#include <map>
#include <memory>
#include <mutex>
#include <string>
#include <thread>
#include <vector>

#include "BareBus.h"
#include "Stats.h"
#include "BoxSim.h"
#include "CommonLog.h"
#include "MsgBroker.h"
#include "PeripheralEvents.h"
#include "Pty.h"
#include "SerialBase.h"
#include "SerialDevExtendBox.h"
#include "TestPeripherals.h"
#include "ServiceHarness.h"

namespace {

using Clock = std::chrono::steady_clock;
using pmtest::Pty;
using pmtest::SerialSetting;
using pmtest::ServiceHarness;

constexpr unsigned kEchoId = 50;  // names no library: the bench places its own instance
constexpr unsigned kGpsId = 3;
constexpr unsigned kLoopId = 34;
constexpr unsigned kCanId = 12;
constexpr int kBlocks = 20;
constexpr uint32_t kBareRequest = 2000;
constexpr uint32_t kBareBurst = 2001;
constexpr size_t kBusPayload = 9;  // a 1090 record carrying one byte

FILE* g_out = stdout;

using bench::Micros;
using bench::Percentile;

double CpuSeconds() {
    struct timespec ts;
    clock_gettime(CLOCK_PROCESS_CPUTIME_ID, &ts);
    return static_cast<double>(ts.tv_sec) + static_cast<double>(ts.tv_nsec) / 1e9;
}

// One row: key, what is measured, unit, this project (median and spread), the baseline
// (median and spread), the goal as the run_bench script states it.
void Row(const std::string& key, const std::string& what, const std::string& unit,
         const std::vector<double>& project, const std::vector<double>& baseline) {
    fprintf(g_out, "%s\t%s\t%s\t%.6g\t%.6g\t%.6g\t%.6g\t%.6g\t%.6g\n", key.c_str(), what.c_str(),
            unit.c_str(), Percentile(project, 0.5), Percentile(project, 0.1),
            Percentile(project, 0.9), Percentile(baseline, 0.5), Percentile(baseline, 0.1),
            Percentile(baseline, 0.9));
    fflush(g_out);
}

// The recorder's log level, not the tests' capture of every record.
void QuietLogs() {
    Common::SetLogSinkForTest({});
    const char* level = getenv("PM_LOG_LEVEL");
    Common::SetLogLevel(level != nullptr ? atoi(level) : 1);
}

std::string Config(const std::map<int, std::string>& paths) {
    std::string ports = R"({"NAME": "232-1", "POSITION": 0})";
    for (const auto& [position, path] : paths) {
        ports += R"(, {"PATH": ")" + path + R"(", "POSITION": )" + std::to_string(position) + "}";
    }
    return R"({"DEVICE_SERIAL_SETTING": [
        {"DEV_SERIAL_FUNCID": 1, "DEV_SERIAL_LIB_NAME": "libSerialExtendBox.so"},
        {"DEV_SERIAL_FUNCID": 3, "DEV_SERIAL_LIB_NAME": "libGpsNmea.so"},
        {"DEV_SERIAL_FUNCID": 34, "DEV_SERIAL_LIB_NAME": "libLoopbackTest.so"},
        {"DEV_SERIAL_FUNCID": 50, "DEV_SERIAL_LIB_NAME": "NoSuchPlugin",
         "DEV_SERIAL_BAUD_RATE": "B115200"}],
      "DEVICE_CANPORT_SETTING": [{"DEV_CANPORT_FUNCID": 12, "DEV_CANPORT_LIB_NAME": "libcan_j1939",
                                  "DEV_CANPORT_SUPPORT_ENABLE": "true"}],
      "DEVICE_ETHERNET_SETTING": [],
      "DEVICE_PERIPHERAL_PARAM_SETTING": {"SERIAL_PARAM": [)" +
           ports + "]}}";
}

// A protocol plug-in that answers every byte with itself: the least a plug-in can do.
class EchoSerial : public pmtest::TakingSerial {
public:
    EchoSerial(ServiceHarness& service, unsigned mainId, unsigned subId = 0)
        : TakingSerial(&service.Manager(), service.ManagerClient(), mainId, subId) {}
    ~EchoSerial() override { CloseMainChipSerial(); }

protected:
    int Take(const char* bytes, unsigned length) override {
        if (length > 0) {
            SendDataToPeripheral(bytes, length);
        }
        return 0;
    }
};

// A child behind a box that only takes its bytes: the box path without a plug-in's own work.
class CountingSerial : public pmtest::TakingSerial {
public:
    CountingSerial(ServiceHarness& service, unsigned mainId, unsigned subId = 0)
        : TakingSerial(&service.Manager(), service.ManagerClient(), mainId, subId) {}
    size_t received = 0;

protected:
    int Take(const char*, unsigned length) override {
        received += length;
        return 0;
    }
};

// The floor of a tty echo: select, read, write on the slave side, nothing else.
class BareTtyEcho {
public:
    explicit BareTtyEcho(const std::string& slave) {
        m_fd = open(slave.c_str(), O_RDWR | O_NOCTTY);
        struct termios tio;
        tcgetattr(m_fd, &tio);
        cfmakeraw(&tio);
        tcsetattr(m_fd, TCSANOW, &tio);
        if (pipe(m_stop) != 0) {
            m_stop[0] = m_stop[1] = -1;
        }
        m_thread = std::thread([this] { Run(); });
    }
    ~BareTtyEcho() {
        if (write(m_stop[1], "x", 1) < 0) {
        }
        m_thread.join();
        close(m_fd);
        close(m_stop[0]);
        close(m_stop[1]);
    }

private:
    void Run() {
        char buffer[1024];
        for (;;) {
            fd_set set;
            FD_ZERO(&set);
            FD_SET(m_fd, &set);
            FD_SET(m_stop[0], &set);
            struct timeval timeout = {1, 0};
            if (select(std::max(m_fd, m_stop[0]) + 1, &set, nullptr, nullptr, &timeout) <= 0) {
                continue;
            }
            if (FD_ISSET(m_stop[0], &set)) {
                return;
            }
            ssize_t n = read(m_fd, buffer, sizeof buffer);
            if (n > 0 && write(m_fd, buffer, static_cast<size_t>(n)) < 0) {
            }
        }
    }
    int m_fd = -1;
    int m_stop[2];
    std::thread m_thread;
};

bool ReadSome(int fd, char* buffer, size_t size, size_t& got) {
    struct pollfd p = {fd, POLLIN, 0};
    if (poll(&p, 1, 5000) <= 0) {
        return false;
    }
    ssize_t n = read(fd, buffer, size);
    if (n <= 0) {
        return false;
    }
    got = static_cast<size_t>(n);
    return true;
}

// One byte out through the master and back; negative when no echo came within 5 s.
double TtyRoundTrip(int master) {
    char byte = 'x';
    const Clock::time_point t0 = Clock::now();
    if (write(master, &byte, 1) != 1) {
        return -1;
    }
    size_t got = 0;
    if (!ReadSome(master, &byte, 1, got)) {
        return -1;
    }
    return Micros(Clock::now() - t0);
}

// 1 MiB through the echo, at most `window` bytes on the way; wall and process CPU seconds.
std::pair<double, double> Stream(int master) {
    constexpr size_t kTotal = 1 << 20;
    constexpr size_t kWindow = 512;
    constexpr size_t kChunk = 64;
    char out[kChunk];
    memset(out, 'y', sizeof out);
    char in[4096];
    size_t sent = 0;
    size_t got = 0;
    const double cpu0 = CpuSeconds();
    const Clock::time_point t0 = Clock::now();
    while (got < kTotal) {
        if (sent < kTotal && sent - got + kChunk <= kWindow) {
            ssize_t n = write(master, out, std::min(kChunk, kTotal - sent));
            sent += n > 0 ? static_cast<size_t>(n) : 0;
            continue;
        }
        size_t n = 0;
        if (!ReadSome(master, in, sizeof in, n)) {
            fprintf(stderr, "bench: stream stalled at %zu of %zu bytes\n", got, kTotal);
            break;
        }
        got += n;
    }
    return {std::chrono::duration<double>(Clock::now() - t0).count(), CpuSeconds() - cpu0};
}

// ---- the tty path: a byte from the device to a plug-in and its echo back ----------------------

struct TtyWorld {
    Pty servicePty;
    Pty barePty;
    std::unique_ptr<ServiceHarness> service;
    std::unique_ptr<EchoSerial> echo;
    std::unique_ptr<BareTtyEcho> bare;

    TtyWorld() {
        servicePty.MakeRaw();
        barePty.MakeRaw();
        service = std::make_unique<ServiceHarness>(Config({{4, servicePty.SlavePath()}}));
        service->Register();
        service->SendSetting(SerialSetting({{4, kEchoId}}));
        QuietLogs();
        echo = std::make_unique<EchoSerial>(*service, kEchoId);
        echo->Initialize();
        bare = std::make_unique<BareTtyEcho>(barePty.SlavePath());
    }
};

void BenchTty() {
    TtyWorld world;
    for (int i = 0; i < 200; ++i) {  // warm up both paths
        TtyRoundTrip(world.servicePty.Master());
        TtyRoundTrip(world.barePty.Master());
    }
    std::vector<double> service;
    std::vector<double> bare;
    for (int block = 0; block < kBlocks; ++block) {
        for (int i = 0; i < 100; ++i) {
            service.push_back(TtyRoundTrip(world.servicePty.Master()));
        }
        for (int i = 0; i < 100; ++i) {
            bare.push_back(TtyRoundTrip(world.barePty.Master()));
        }
    }
    Row("tty_p50", "tty byte -> plug-in -> echo -> tty, p50", "us", service, bare);
    // p99 of each block-mix: the row's median column carries the 99th percentile.
    Row("tty_p99", "tty byte -> plug-in -> echo -> tty, p99", "us", {Percentile(service, 0.99)},
        {Percentile(bare, 0.99)});

    std::vector<double> serviceTime, bareTime, serviceCpu, bareCpu;
    for (int i = 0; i < 5; ++i) {
        auto s = Stream(world.servicePty.Master());
        auto b = Stream(world.barePty.Master());
        serviceTime.push_back(s.first);
        serviceCpu.push_back(s.second);
        bareTime.push_back(b.first);
        bareCpu.push_back(b.second);
    }
    Row("stream_time", "1 MiB through the echo, wall time", "s", serviceTime, bareTime);
    Row("stream_cpu", "1 MiB through the echo, CPU (both ends)", "s", serviceCpu, bareCpu);

    // First byte on a port opened at run time, against one pty round trip.
    world.echo.reset();
    std::vector<double> first;
    for (int i = 0; i < 30; ++i) {
        auto late = std::make_unique<EchoSerial>(*world.service, kEchoId);
        late->Initialize();
        first.push_back(TtyRoundTrip(world.servicePty.Master()));
    }
    std::vector<double> bareOnce;
    for (int i = 0; i < 30; ++i) {
        bareOnce.push_back(TtyRoundTrip(world.barePty.Master()));
    }
    Row("first_byte", "first byte on a port opened at run time (echoed)", "us", first, bareOnce);
}

// ---- the bus path: 1090 -> plug-in -> 1088 against a bare ZeroMQ echo -------------------------

struct BusWorld {
    std::unique_ptr<ServiceHarness> service;
    std::unique_ptr<EchoSerial> echo;
    std::unique_ptr<CMsgClientManage> recorder;
    std::unique_ptr<bench::BareBusPair> bare;
    std::thread managerPump;
    std::atomic<bool> stop{false};
    std::atomic<bool> answered{false};

    BusWorld() {
        service = std::make_unique<ServiceHarness>(Config({}));
        service->Register();
        service->SendSetting(SerialSetting({{0, kEchoId}}));  // an MCU port: bytes on the bus
        QuietLogs();
        echo = std::make_unique<EchoSerial>(*service, kEchoId);
        echo->Initialize();
        // The manager's event wait without its 10 ms cycle: only the handler path runs.
        managerPump = std::thread([this] {
            while (!stop.load()) {
                service->ManagerClient()->MSGWaitForEvent(200);
            }
        });
        recorder = std::make_unique<CMsgClientManage>("bench.recorder", 300000);
        recorder->RegisterHandler(pmtest::kRecorderModuleId, EVENT_MCU_SERIAL_SEND,
                                  [this](const char*, int) {
                                      answered = true;
                                      return 0;
                                  });
        bare = std::make_unique<bench::BareBusPair>(Common::BusEndpointsFromEnv(), kBareRequest,
                                                    kBareBurst, kBusPayload);
    }
    ~BusWorld() {
        stop = true;
        managerPump.join();
        echo.reset();
    }
    double RoundTrip() {
        char payload[kBusPayload] = {static_cast<char>(kEchoId), 0, 0, 0, 1, 0, 0, 0, 'x'};
        answered = false;
        const Clock::time_point t0 = Clock::now();
        recorder->MSGSendMessage(0, EVENT_MCU_SERIAL_RECV, 0, payload, sizeof payload,
                                 pmtest::kRecorderModuleId);
        while (!answered.load()) {
            if (Clock::now() - t0 > std::chrono::seconds(5)) {
                return -1;
            }
            recorder->MSGWaitForEvent(1000);
        }
        return Micros(Clock::now() - t0);
    }
    double BareRoundTrip() {
        char payload[kBusPayload] = {static_cast<char>(kEchoId), 0, 0, 0, 1, 0, 0, 0, 'x'};
        return Micros(bare->RoundTrip(payload));
    }
};

void BenchBus() {
    BusWorld world;
    for (int i = 0; i < 200; ++i) {
        world.RoundTrip();
        world.BareRoundTrip();
    }
    std::vector<double> service;
    std::vector<double> bare;
    for (int block = 0; block < kBlocks; ++block) {
        for (int i = 0; i < 100; ++i) {
            service.push_back(world.RoundTrip());
        }
        for (int i = 0; i < 100; ++i) {
            bare.push_back(world.BareRoundTrip());
        }
    }
    Row("bus_p50", "bus 1090 -> plug-in -> 1088, p50", "us", service, bare);
}

// ---- a serial change replacing 12 instances, against the system calls it cannot avoid ---------

std::vector<char> SettingMessage(const paramSerialSetting_t& setting) {
    return pmtest::Message(EVENT_SERIAL_PARAM_CHANGED, &setting, sizeof setting);
}

paramSerialSetting_t TwelveOf(unsigned mainId) {
    std::vector<pmtest::SerialEntry> entries;
    for (int port = 0; port < 12; ++port) {
        entries.push_back({port, static_cast<uint8_t>(mainId), static_cast<uint8_t>(port)});
    }
    return SerialSetting(entries);
}

// Per instance: the old tty closed, the new one opened and set, the library looked up again.
double ChangeFloor(std::vector<Pty>& ptys, std::vector<int>& fds, const std::string& library) {
    const Clock::time_point t0 = Clock::now();
    for (size_t i = 0; i < 12; ++i) {
        if (i < ptys.size()) {
            close(fds[i]);
            fds[i] = open(ptys[i].SlavePath().c_str(), O_RDWR | O_NOCTTY | O_NONBLOCK);
            struct termios tio;
            tcgetattr(fds[i], &tio);
            cfsetspeed(&tio, B115200);
            tcsetattr(fds[i], TCSANOW, &tio);
        }
        void* handle = dlopen(library.c_str(), RTLD_LAZY);
        if (handle != nullptr) {
            dlsym(handle, "PeripheralCreate");
            dlclose(handle);
        }
    }
    return Micros(Clock::now() - t0);
}

// The eight main-chip positions 4-11 on `ptys`, raw.
std::map<int, std::string> MainChipPositions(std::vector<Pty>& ptys) {
    std::map<int, std::string> paths;
    for (size_t i = 0; i < ptys.size(); ++i) {
        ptys[i].MakeRaw();
        paths[4 + static_cast<int>(i)] = ptys[i].SlavePath();
    }
    return paths;
}

void BenchChange() {
    std::vector<Pty> ptys(8);
    ServiceHarness service(Config(MainChipPositions(ptys)));
    service.Register();
    QuietLogs();
    const std::vector<char> gps = SettingMessage(TwelveOf(kGpsId));
    const std::vector<char> loop = SettingMessage(TwelveOf(kLoopId));
    auto apply = [&](const std::vector<char>& m) {
        const Clock::time_point t0 = Clock::now();
        service.Manager().OnUpdateSerialParamSetting(m.data(), static_cast<int>(m.size()));
        return Micros(Clock::now() - t0);
    };
    apply(gps);
    apply(loop);
    std::vector<int> fds(8);
    for (size_t i = 0; i < 8; ++i) {
        fds[i] = open(ptys[i].SlavePath().c_str(), O_RDWR | O_NOCTTY | O_NONBLOCK);
    }
    const std::string library = std::string(getcwd(nullptr, 0)) + "/../plugin/serial/libGpsNmea.so";
    std::vector<double> change;
    std::vector<double> floor;
    for (int i = 0; i < 10; ++i) {
        change.push_back(apply(gps));
        change.push_back(apply(loop));
        floor.push_back(ChangeFloor(ptys, fds, library));
        floor.push_back(ChangeFloor(ptys, fds, library));
    }
    for (int fd : fds) {
        close(fd);
    }
    Row("change", "serial change replacing 12 instances", "us", change, floor);
}

// ---- idle: 12 serial and 4 CAN instances, against a loop with the service's wake pattern -------

struct Usage {
    double cpu;
    long wakeups;
};

Usage Sample() {
    struct rusage r;
    getrusage(RUSAGE_SELF, &r);
    return {static_cast<double>(r.ru_utime.tv_sec + r.ru_stime.tv_sec) +
                static_cast<double>(r.ru_utime.tv_usec + r.ru_stime.tv_usec) / 1e6,
            r.ru_nvcsw + r.ru_nivcsw};
}

long RssKiB() {
    std::ifstream status("/proc/self/status");
    for (std::string line; std::getline(status, line);) {
        if (line.rfind("VmRSS:", 0) == 0) {
            return atol(line.c_str() + 6);
        }
    }
    return 0;
}

// The service idle with 12 serial and 4 CAN instances; `rss` its resident memory then.
Usage IdleService(int seconds, long& rss) {
    std::vector<Pty> ptys(8);
    ServiceHarness service(Config(MainChipPositions(ptys)));
    service.Start(true);
    service.SendSetting(TwelveOf(kGpsId));
    paramCanSetting_t can{};
    for (int port = 0; port < 4; ++port) {
        can.port[port].mainFun = kCanId;
        can.port[port].subFun = static_cast<uint8_t>(port);
    }
    service.SendSetting(can);
    QuietLogs();
    std::this_thread::sleep_for(std::chrono::seconds(1));  // past the set-up's traffic
    const Usage before = Sample();
    std::this_thread::sleep_for(std::chrono::seconds(seconds));
    const Usage after = Sample();
    rss = RssKiB();
    return {after.cpu - before.cpu, after.wakeups - before.wakeups};
}

// The model: the manager's 10 ms wait on the bus, the reader's 1 s select, and the test
// world's own recorder pump (10 ms), which the service's figure includes as well.
Usage IdleModel(int seconds) {
    pmtest::PrivateBus bus;
    std::atomic<bool> stop{false};
    CMsgClientManage manager("model.manager", 300000);
    CMsgClientManage recorder("model.recorder", 300000);
    std::thread managerThread([&] {
        while (!stop) {
            manager.MSGWaitForEvent(10);
        }
    });
    std::thread recorderThread([&] {
        while (!stop) {
            recorder.MSGWaitForEvent(10);
        }
    });
    std::thread reader([&] {
        while (!stop) {
            struct timeval timeout = {1, 0};
            select(0, nullptr, nullptr, nullptr, &timeout);
        }
    });
    std::this_thread::sleep_for(std::chrono::seconds(1));
    const Usage before = Sample();
    std::this_thread::sleep_for(std::chrono::seconds(seconds));
    const Usage after = Sample();
    stop = true;
    managerThread.join();
    recorderThread.join();
    reader.join();
    return {after.cpu - before.cpu, after.wakeups - before.wakeups};
}

void BenchIdle(int seconds, bool serviceOnly = false) {
    long rss = 0;
    const Usage serviceUse = IdleService(seconds, rss);
    if (serviceOnly) {
        return;
    }
    const Usage modelUse = IdleModel(seconds);
    Row("idle_cpu", "idle CPU, 12 serial + 4 CAN instances", "% core",
        {100.0 * serviceUse.cpu / seconds}, {100.0 * modelUse.cpu / seconds});
    Row("idle_wakeups", "idle context switches, 12 serial + 4 CAN instances", "1/s",
        {static_cast<double>(serviceUse.wakeups) / seconds},
        {static_cast<double>(modelUse.wakeups) / seconds});
    Row("rss", "resident memory, 12 serial + 4 CAN instances", "MiB", {rss / 1024.0}, {});
}

// ---- the box: frames cut, unstuffed, checked and handed to a child ----------------------------

void BenchBox(int countOnly = 0) {
    Pty line;
    line.MakeRaw();
    ServiceHarness service(Config({{4, line.SlavePath()}}));
    service.Register();
    pmtest::SerialEntry box{4, PERIPHERAL_MAINID_EXTEND_BOX};
    pmtest::SerialEntry sub{4, kEchoId, 0, 1, 0};
    service.SendSetting(SerialSetting({box, sub}));
    QuietLogs();
    auto* child = new CountingSerial(service, kEchoId);
    child->Initialize();
    service.Manager().AddInstance(child);
    auto* instance = dynamic_cast<CSerialDevExtendBox*>(service.Manager().GetPeripheralInstance(
        PERIPHERAL_TYPE_SERIAL, PERIPHERAL_MAINID_EXTEND_BOX, 0));
    if (instance == nullptr) {
        fprintf(stderr, "bench: no extension box was created\n");
        return;
    }
    instance->HandlePeripParamChange();
    // A GPS receiver behind the first sub-port, one sentence per frame.
    const std::string sentence =
        "$GPRMC,083559.00,A,4717.11437,N,00833.91522,E,0.004,77.52,091202,,,A*57\r\n";
    boxsim::BoxModel model(boxsim::BoxModel::Options{});
    const std::vector<uint8_t> frame = boxsim::Encode(
        model.FromSubPort(1, std::vector<uint8_t>(sentence.begin(), sentence.end())));
    std::string stream;
    while (stream.size() < (4u << 20)) {
        stream.append(frame.begin(), frame.end());
    }
    if (countOnly > 0) {
        stream.resize(frame.size() * static_cast<size_t>(countOnly));
    }
    std::vector<double> rates;
    for (int run = 0; run < (countOnly > 0 ? 1 : 5); ++run) {
        const double cpu0 = CpuSeconds();
        for (size_t at = 0; at < stream.size(); at += 512) {
            const size_t n = std::min<size_t>(512, stream.size() - at);
            instance->PreProcessPeripheralData(stream.data() + at, static_cast<unsigned>(n));
        }
        rates.push_back(static_cast<double>(stream.size()) / 1e6 / (CpuSeconds() - cpu0));
    }
    const size_t expected = stream.size() / frame.size() * sentence.size() * rates.size();
    if (child->received != expected) {
        fprintf(stderr, "bench: the child took %zu bytes of %zu\n", child->received, expected);
    }
    if (countOnly > 0) {
        return;
    }
    // The baseline is the line itself: 115200 baud, ten bits a byte.
    Row("box_rate", "box path: cut, unstuff, check, hand to child (one core)", "MB/s", rates,
        {0.01152});
}

// ---- single paths, for callgrind --------------------------------------------------------------

int Count(const std::string& path, int count) {
    if (path == "tty" || path == "bare-tty") {
        TtyWorld world;
        const int master = path == "tty" ? world.servicePty.Master() : world.barePty.Master();
        for (int i = 0; i < count; ++i) {
            if (TtyRoundTrip(master) < 0) {
                return 1;
            }
        }
        return 0;
    }
    if (path == "bus" || path == "bare-bus") {
        BusWorld world;
        for (int i = 0; i < count; ++i) {
            if ((path == "bus" ? world.RoundTrip() : world.BareRoundTrip()) < 0) {
                return 1;
            }
        }
        return 0;
    }
    if (path == "idle") {  // `count` seconds
        BenchIdle(count, true);
        return 0;
    }
    if (path == "box") {  // `count` frames
        BenchBox(count);
        return 0;
    }
    fprintf(stderr, "bench: unknown path %s\n", path.c_str());
    return 2;
}

}  // namespace

int main(int argc, char** argv) {
    int idleSeconds = 30;
    std::string countPath;
    int count = 0;
    std::string outPath;
    for (int i = 1; i < argc; ++i) {
        const std::string arg = argv[i];
        if (arg == "--idle-seconds" && i + 1 < argc) {
            idleSeconds = std::max(1, atoi(argv[++i]));
        } else if (arg == "--out" && i + 1 < argc) {
            outPath = argv[++i];
        } else if (arg == "--count" && i + 2 < argc) {
            countPath = argv[++i];
            count = atoi(argv[++i]);
        } else {
            fprintf(stderr,
                    "usage: bench_service [--idle-seconds N] [--out FILE] | --count PATH N\n");
            return 2;
        }
    }
    // The service prints its records and hex dumps to stdout; the rows need it clean.
    g_out = outPath.empty() ? fdopen(dup(STDOUT_FILENO), "w") : fopen(outPath.c_str(), "w");
    const int devNull = open("/dev/null", O_WRONLY);
    dup2(devNull, STDOUT_FILENO);
    close(devNull);
    if (g_out == nullptr) {
        perror("bench: output");
        return 1;
    }
    if (!countPath.empty()) {
        return Count(countPath, count);
    }
    BenchTty();
    BenchBus();
    BenchChange();
    BenchBox();
    BenchIdle(idleSeconds);
    fclose(g_out);
    return 0;
}
