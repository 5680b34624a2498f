// Bus addresses and the broker.
#include <gtest/gtest.h>
#include <sys/stat.h>
#include <unistd.h>

#include <random>

#include "BusTestUtil.h"
#include "MsgBroker.h"
#include "MsgClientManage.h"
#include "TestSupport.h"

using Common::BusEndpoints;
using Common::CMsgBroker;

namespace {

struct AddressCase {
    const char* what;
    const char* value;
    bool valid;
    const char* in;
    const char* out;
    const char* lock;
};

class BusAddress : public ::testing::TestWithParam<AddressCase> {};

TEST_P(BusAddress, Parses) {
    const AddressCase& c = GetParam();
    BusEndpoints ep;
    ASSERT_EQ(Common::ParseBusAddress(c.value, ep), c.valid) << c.what;
    if (c.valid) {
        EXPECT_EQ(ep.in, c.in) << c.what;
        EXPECT_EQ(ep.out, c.out) << c.what;
        EXPECT_EQ(ep.lock, c.lock) << c.what;
    }
}

const std::string kLongPath = "/" + std::string(104, 'p');  // ".out" makes it 109 > 107

INSTANTIATE_TEST_SUITE_P(
    Table, BusAddress,
    ::testing::Values(
        AddressCase{"path prefix", "/tmp/x/bus", true, "ipc:///tmp/x/bus.in",
                    "ipc:///tmp/x/bus.out", "/tmp/x/bus.lock"},
        AddressCase{"relative prefix", "bus", true, "ipc://bus.in", "ipc://bus.out", "bus.lock"},
        AddressCase{"ipc:// spelled out", "ipc:///run/b", true, "ipc:///run/b.in",
                    "ipc:///run/b.out", "/run/b.lock"},
        AddressCase{"tcp gives port and port+1", "tcp://127.0.0.1:5555", true,
                    "tcp://127.0.0.1:5555", "tcp://127.0.0.1:5556", ""},
        AddressCase{"tcp host name", "tcp://recorder.local:6000", true, "tcp://recorder.local:6000",
                    "tcp://recorder.local:6001", ""},
        AddressCase{"tcp highest port", "tcp://h:65534", true, "tcp://h:65534", "tcp://h:65535",
                    ""},
        AddressCase{"tcp port+1 overflows", "tcp://h:65535", false, "", "", ""},
        AddressCase{"tcp port 0", "tcp://h:0", false, "", "", ""},
        AddressCase{"tcp without port", "tcp://h", false, "", "", ""},
        AddressCase{"tcp without host", "tcp://:5555", false, "", "", ""},
        AddressCase{"tcp port not a number", "tcp://h:55x", false, "", "", ""},
        AddressCase{"other transport", "udp://h:5555", false, "", "", ""},
        AddressCase{"empty", "", false, "", "", ""},
        AddressCase{"too long for a unix socket", kLongPath.c_str(), false, "", "", ""}));

TEST(BusAddressEnv, DefaultWhenUnsetOrEmpty) {
    for (std::optional<std::string> value :
         {std::optional<std::string>(), std::optional<std::string>("")}) {
        pmtest::ScopedEnv env("RECORDER_BUS", value);
        BusEndpoints ep = Common::BusEndpointsFromEnv();
        EXPECT_EQ(ep.in, "ipc:///tmp/recorder-bus.in");
        EXPECT_EQ(ep.out, "ipc:///tmp/recorder-bus.out");
        EXPECT_EQ(ep.lock, "/tmp/recorder-bus.lock");
    }
}

TEST(BusAddressEnv, InvalidValueGivesNoEndpointsAndALogLine) {
    pmtest::LogCapture log;
    pmtest::ScopedEnv env("RECORDER_BUS", std::string("tcp://nohost"));
    BusEndpoints ep = Common::BusEndpointsFromEnv();
    EXPECT_TRUE(ep.in.empty());
    EXPECT_TRUE(ep.out.empty());
    EXPECT_TRUE(log.Contains("RECORDER_BUS \"tcp://nohost\""));
}

mode_t ModeOf(const std::string& path, bool* isSocket = nullptr) {
    struct stat st;
    if (stat(path.c_str(), &st) != 0) {
        return 0;
    }
    if (isSocket != nullptr) {
        *isSocket = S_ISSOCK(st.st_mode);
    }
    return st.st_mode & 07777;
}

TEST(Broker, IpcFilesAreOwnerOnlyAndRemovedOnStop) {
    pmtest::TempDir dir;
    BusEndpoints ep;
    ASSERT_TRUE(Common::ParseBusAddress(dir.File("bus"), ep));
    mode_t old = umask(0);  // the broker must not depend on the caller's umask
    CMsgBroker broker(ep);
    int rc = broker.Start();
    umask(old);
    ASSERT_EQ(rc, 0);
    for (const std::string& socket : {dir.File("bus.in"), dir.File("bus.out")}) {
        bool isSocket = false;
        EXPECT_EQ(ModeOf(socket, &isSocket), 0600u) << socket;
        EXPECT_TRUE(isSocket) << socket;
    }
    EXPECT_EQ(ModeOf(dir.File("bus.lock")), 0600u);

    broker.Stop();
    EXPECT_FALSE(broker.IsRunning());
    for (const char* name : {"bus.in", "bus.out", "bus.lock"}) {
        EXPECT_NE(access(dir.File(name).c_str(), F_OK), 0) << name;
    }
}

TEST(Broker, SecondBrokerOnSameIpcEndpointsReturnsOne) {
    pmtest::TempDir dir;
    BusEndpoints ep;
    ASSERT_TRUE(Common::ParseBusAddress(dir.File("bus"), ep));
    CMsgBroker first(ep);
    ASSERT_EQ(first.Start(), 0);
    CMsgBroker second(ep);
    EXPECT_EQ(second.Start(), 1);
    EXPECT_FALSE(second.IsRunning());
    EXPECT_EQ(first.Start(), 0) << "starting a running broker again is harmless";

    // The first broker's sockets survived the attempt: a client still gets through.
    pmtest::ScopedEnv env("RECORDER_BUS", dir.File("bus"));
    CMsgClientManage client("probe", 300000);
    EXPECT_TRUE(client.IsConnected());

    first.Stop();
    EXPECT_EQ(second.Start(), 0) << "the endpoints are free once the first one stopped";
}

TEST(Broker, OverTcpSecondBrokerReturnsOneAndClientsTalk) {
    std::mt19937 rng(static_cast<unsigned>(getpid()));
    std::unique_ptr<CMsgBroker> first;
    std::string address;
    for (int attempt = 0; attempt < 20 && !first; ++attempt) {
        address = "tcp://127.0.0.1:" + std::to_string(20000 + rng() % 40000);
        BusEndpoints ep;
        ASSERT_TRUE(Common::ParseBusAddress(address, ep));
        auto broker = std::make_unique<CMsgBroker>(ep);
        if (broker->Start() == 0) {
            first = std::move(broker);
        }
    }
    ASSERT_TRUE(first) << "no free port pair found";
    CMsgBroker second(first->Endpoints());
    EXPECT_EQ(second.Start(), 1);

    pmtest::ScopedEnv env("RECORDER_BUS", address);
    CMsgClientManage client("tcp", 300000);
    bustest::Inbox inbox;
    client.RegisterHandler(1, 4242, inbox.Handler());
    ASSERT_EQ(bustest::Send(client, 4242, "over tcp"), 0);
    ASSERT_TRUE(bustest::PumpUntil(client, [&] { return inbox.Size() == 1; }));
    EXPECT_EQ(bustest::Payload(inbox.At(0)), "over tcp");
}

TEST(Broker, NoAddressFailsToStart) {
    CMsgBroker broker(BusEndpoints{});
    EXPECT_EQ(broker.Start(), -1);
}

}  // namespace
