// The plug-in loader, the instance registry and the reconciliation of parameter changes,
// against the test plug-ins of tests/fixtures/plugins: their journal lines ("TEST_PLUGIN: ...") and
// the manager's lines are read in one order.
#include <dirent.h>
#include <dlfcn.h>
#include <stdio.h>
#include <string.h>
#include <sys/stat.h>
#include <unistd.h>

#include <atomic>
#include <memory>
#include <string>
#include <thread>
#include <vector>

#include <gtest/gtest.h>

#include "ServiceHarness.h"

namespace {

using pmtest::Bytes;
using pmtest::SerialSetting;
using pmtest::ServiceHarness;

// Main ids 1 and 149 name a library too, as recorders' configurations do: the built-in boxes
// are never looked for in the plug-in folder all the same.
const char* const kConfig = R"({
  "DEVICE_SERIAL_SETTING": [
    {"DEV_SERIAL_FUNCID": 7, "DEV_SERIAL_LIB_NAME": "libTestSerialProbe",
     "DEV_SERIAL_SUB_FUNCTION": [{"DEV_SERIAL_SUB_FUNCID": 1}, {"DEV_SERIAL_SUB_FUNCID": 2}]},
    {"DEV_SERIAL_FUNCID": 8, "DEV_SERIAL_LIB_NAME": "libTestSerialProbe"},
    {"DEV_SERIAL_FUNCID": 40, "DEV_SERIAL_LIB_NAME": "libTestNullCreate"},
    {"DEV_SERIAL_FUNCID": 41, "DEV_SERIAL_LIB_NAME": "libTestNoRelease"},
    {"DEV_SERIAL_FUNCID": 42, "DEV_SERIAL_LIB_NAME": "libTestNoCreate"},
    {"DEV_SERIAL_FUNCID": 43, "DEV_SERIAL_LIB_NAME": "libTestDup"},
    {"DEV_SERIAL_FUNCID": 44, "DEV_SERIAL_LIB_NAME": "libTestUnloadable"},
    {"DEV_SERIAL_FUNCID": 45, "DEV_SERIAL_LIB_NAME": "libTestMissingFile"},
    {"DEV_SERIAL_FUNCID": 46, "DEV_SERIAL_LIB_NAME": "libTestThrowCreate"},
    {"DEV_SERIAL_FUNCID": 1, "DEV_SERIAL_LIB_NAME": "libTestSerialProbe"},
    {"DEV_SERIAL_FUNCID": 149, "DEV_SERIAL_LIB_NAME": "libTestSerialProbe"}],
  "DEVICE_CANPORT_SETTING": [{"DEV_CANPORT_FUNCID": 12, "DEV_CANPORT_LIB_NAME": "libTestCanProbe",
                              "DEV_CANPORT_SUPPORT_ENABLE": "true"}],
  "DEVICE_ETHERNET_SETTING": [{"DEV_ETHERNET_FUNCID": 20, "DEV_ETHERNET_LIB_NAME": "libTestEthProbe",
                               "DEV_ETHERNET_SUPPORT_ENABLE": "true"}],
  "DEVICE_PERIPHERAL_PARAM_SETTING": {"SERIAL_PARAM": [
    {"NAME": "232-1", "POSITION": 4}, {"NAME": "485-1", "POSITION": 6},
    {"NAME": "COM", "POSITION": 7}, {"NAME": "485-2", "POSITION": 7},
    {"NAME": 485, "POSITION": 8}, {"NAME": "485-2", "POSITION": 8},
    {"NAME": "232", "POSITION": 9}]}})";

std::string Journal(const char* event, unsigned mainId, unsigned subId,
                    const char* library = "libTestSerialProbe", int type = 0) {
    return std::string("TEST_PLUGIN: ") + event + " " + library + " type=" + std::to_string(type) +
           " main=" + std::to_string(mainId) + " sub=" + std::to_string(subId);
}

// Empty when every prefix starts a record, each after the one before; else the first missing.
std::string MissingInOrder(const pmtest::LogCapture& logs,
                           const std::vector<std::string>& prefixes) {
    const std::vector<Common::LogRecord> records = logs.Records();
    size_t at = 0;
    for (const std::string& prefix : prefixes) {
        while (at < records.size() && records[at].text.compare(0, prefix.size(), prefix) != 0) {
            ++at;
        }
        if (at++ >= records.size()) {
            return "\"" + prefix + "\" (in this order)";
        }
    }
    return std::string();
}

// The handle of an already loaded library ("../plugin/serial/<file>"), or null.
void* LoadedHandle(const std::string& file) {
    const std::string path = "../plugin/serial/" + file;
    void* handle = dlopen(path.c_str(), RTLD_LAZY | RTLD_NOLOAD);
    if (handle != nullptr) {
        dlclose(handle);  // NOLOAD took a reference of its own
    }
    return handle;
}

class LoaderTest : public ::testing::Test {
protected:
    bool Logged(const std::string& prefix) { return service.Logs().Contains(prefix); }
    int Create(unsigned mainId, unsigned subId = 0) {
        return service.Manager().CreatePeripheralInstance(PERIPHERAL_TYPE_SERIAL, mainId, subId);
    }
    // A record without instance at the front of the registry, as a failed switch leaves one.
    void PushGhost(void* handle, PeripheralCreateFn create, PeripheralReleaseFn release) {
        service.Manager().m_listPeripheralPlugin.push_front(
            {handle, create, release, "ghost", nullptr});
    }

    ServiceHarness service{kConfig};
};

// ---- the loader's outcomes and the state each one leaves ----

struct LoadCase {
    const char* name;
    unsigned mainId;
    int result;
    const char* logPrefix;  // the line that tells the outcome
    const char* file;       // the library the loader takes; null when none matches
    bool leftLoaded;        // the library is mapped afterwards
    bool registered;
    const char* journal;  // what the plug-in saw, or null
};

void PrintTo(const LoadCase& c, std::ostream* os) {
    *os << c.name;
}

class LoadOutcomeTest : public LoaderTest, public ::testing::WithParamInterface<LoadCase> {};

TEST_P(LoadOutcomeTest, LeavesTheStateOfItsOutcome) {
    const LoadCase& c = GetParam();
    EXPECT_EQ(Create(c.mainId), c.result);
    EXPECT_TRUE(Logged(c.logPrefix)) << c.logPrefix;
    if (c.file != nullptr) {
        EXPECT_TRUE(Logged(std::string("S_MANAGE: Find lib success, begin to open, dir = "
                                       "../plugin/serial/") +
                           c.file));
        EXPECT_EQ(LoadedHandle(c.file) != nullptr, c.leftLoaded);
    }
    if (c.journal != nullptr) {
        EXPECT_TRUE(Logged(c.journal)) << c.journal;
    }
    auto& registry = service.Manager().m_listPeripheralPlugin;
    ASSERT_EQ(registry.size(), c.registered ? 1u : 0u);
    if (c.registered) {
        void* handle = LoadedHandle(c.file);
        EXPECT_EQ(registry.front().pLibHandle, handle);
        EXPECT_EQ(reinterpret_cast<void*>(registry.front().pRelease),
                  dlsym(handle, "PeripheralRelease"));
        EXPECT_EQ(service.Manager().LiveIds(), std::vector<std::string>{"0:7:0"});
    }
}

INSTANTIATE_TEST_SUITE_P(
    Loader, LoadOutcomeTest,
    ::testing::Values(
        LoadCase{"WellFormed", 7, 0,
                 "S_MANAGE: Find the lib so, then create it, type = 0, mainId = 7, subId = 0",
                 "libTestSerialProbe.so", true, true, "TEST_PLUGIN: init libTestSerialProbe"},
        LoadCase{"CreatorGivesNull", 40, 0,
                 "S_MANAGE: Create new instance failed, type = 0, mainId = 40, subId = 0",
                 "libTestNullCreate.so", true, false, "TEST_PLUGIN: null-create"},
        // The instance was created and initialised, and now runs unregistered.
        LoadCase{"NoReleaser", 41, -1,
                 "S_MANAGE: Cannot get plugin [PeripheralRelease] ptr, name = "
                 "../plugin/serial/libTestNoRelease.so",
                 "libTestNoRelease.so", true, false, "TEST_PLUGIN: init libTestNoRelease"},
        LoadCase{"NoCreator", 42, -1,
                 "S_MANAGE: Cannot get plugin [PeripheralCreate] ptr, name = "
                 "../plugin/serial/libTestNoCreate.so",
                 "libTestNoCreate.so", true, false, nullptr},
        LoadCase{"NotLoadable", 44, -1,
                 "S_MANAGE: Cannot load plugin, name = ../plugin/serial/libTestUnloadable.so, "
                 "err : ",
                 "libTestUnloadable.so", false, false, nullptr},
        // What a factory throws stays in the loader; the library is named at level 0.
        LoadCase{"CreatorThrows", 46, 0,
                 "S_MANAGE: Plugin factory threw, name = libTestThrowCreate, type = 0, mainId = "
                 "46, subId = 0, what = no device on this port",
                 "libTestThrowCreate.so", true, false, "TEST_PLUGIN: throw-create"},
        LoadCase{"NoFileMatches", 45, 0, "S_MANAGE: lib [libTestMissingFile] load finish", nullptr,
                 false, false, nullptr},
        LoadCase{"NotConfigured", 99, -1,
                 "S_MANAGE: Read lib file failed, file name is NULL, name = , mainId = 99", nullptr,
                 false, false, nullptr}),
    [](const auto& info) { return std::string(info.param.name); });

TEST_F(LoaderTest, FirstDirectoryEntryWinsAmongMatchingFiles) {
    std::string first;
    if (DIR* dir = opendir("../plugin/serial/")) {
        while (const struct dirent* entry = readdir(dir)) {
            if (first.empty() && strstr(entry->d_name, "libTestDup") != nullptr) {
                first = entry->d_name;
            }
        }
        closedir(dir);
    }
    ASSERT_TRUE(first == "libTestDupAlpha.so" || first == "libTestDupBeta.so") << first;
    const std::string other =
        first == "libTestDupAlpha.so" ? "libTestDupBeta.so" : "libTestDupAlpha.so";
    EXPECT_EQ(Create(43), 0);
    EXPECT_TRUE(Logged(Journal("create", 43, 0, first.substr(0, first.size() - 3).c_str())));
    EXPECT_EQ(service.Manager().m_listPeripheralPlugin.front().pLibHandle, LoadedHandle(first));
    EXPECT_EQ(LoadedHandle(other), nullptr);
}

TEST_F(LoaderTest, SwitchInSameLibKeepsTheRecordAndItsHandle) {
    ASSERT_EQ(Create(7, 1), 0);
    const PeripheralProperty_t before = service.Manager().m_listPeripheralPlugin.front();
    EXPECT_EQ(service.Manager().SwitchPeripheralInSameLib(7, 1, 2), 0);
    ASSERT_EQ(service.Manager().LiveIds(), std::vector<std::string>{"0:7:2"});
    EXPECT_EQ(service.Manager().m_listPeripheralPlugin.front().pLibHandle, before.pLibHandle);
    EXPECT_EQ(
        MissingInOrder(service.Logs(),
                       {Journal("release", 7, 1), Journal("create", 7, 2), Journal("init", 7, 2),
                        "S_MANAGE: Switch instance success, mainId = 7, oldSubID = 1, "
                        "newSubID = 2, name = libTestSerialProbe"}),
        "");
    EXPECT_FALSE(Logged("S_MANAGE: Close Dll"));
    EXPECT_EQ(LoadedHandle("libTestSerialProbe.so"), before.pLibHandle);
    EXPECT_EQ(service.Manager().SwitchPeripheralInSameLib(7, 5, 6), -2) << "no old instance";
}

// A record left without instance is what Switch and Remove find first, whatever ids they get.
TEST_F(LoaderTest, ARecordWithoutInstanceIsTakenFirst) {
    ASSERT_EQ(Create(7, 1), 0);
    const PeripheralProperty_t probe = service.Manager().m_listPeripheralPlugin.front();
    PushGhost(nullptr, probe.pCreate, probe.pRelease);
    EXPECT_EQ(service.Manager().SwitchPeripheralInSameLib(7, 1, 2), 0);
    EXPECT_TRUE(Logged("S_MANAGE: Switch instance, old instance is NULL, create new instance!!!"));
    EXPECT_EQ(service.Manager().LiveIds(), (std::vector<std::string>{"0:7:2", "0:7:1"}));

    // The extension box request never closes a library, even one it finds; others do.
    void* handle = dlopen("../plugin/serial/libTestSerialProbe.so", RTLD_LAZY);
    PushGhost(handle, nullptr, nullptr);
    EXPECT_EQ(service.Manager().RemovePeripheralInstance(PERIPHERAL_TYPE_SERIAL, 1, 0), 0);
    EXPECT_TRUE(
        Logged("S_MANAGE: Release Peripheral Instance failed, [Release handle is NULL], "
               "type = 0, mainID = 1, subId = 0, name = ghost"));
    EXPECT_FALSE(Logged("S_MANAGE: Close Dll"));
    PushGhost(handle, nullptr, nullptr);
    EXPECT_EQ(service.Manager().RemovePeripheralInstance(PERIPHERAL_TYPE_SERIAL, 77, 0), 0);
    EXPECT_TRUE(
        Logged("S_MANAGE: Close Dll success, type = 0, mainID = 77, subId = 0, name = ghost"));
    EXPECT_EQ(service.Logs().Count("TEST_PLUGIN: release"), 0u);
}

TEST_F(LoaderTest, AFactoryThrowingAnythingIsANullInstance) {
    EXPECT_EQ(Create(46, 1), 0);
    EXPECT_TRUE(
        Logged("S_MANAGE: Plugin factory threw, name = libTestThrowCreate, type = 0, "
               "mainId = 46, subId = 1, what = (not a std::exception)"));
    EXPECT_TRUE(Logged("S_MANAGE: Create new instance failed, type = 0, mainId = 46, subId = 1"));

    // Within a switch as well: the switch fails with its own text and keeps the record.
    ASSERT_EQ(Create(7, 1), 0);
    PeripheralProperty_t& record = service.Manager().m_listPeripheralPlugin.back();
    void* thrower = dlopen("../plugin/serial/libTestThrowCreate.so", RTLD_LAZY);
    ASSERT_NE(thrower, nullptr);
    record.pCreate = reinterpret_cast<PeripheralCreateFn>(dlsym(thrower, "PeripheralCreate"));
    EXPECT_EQ(service.Manager().SwitchPeripheralInSameLib(7, 1, 2), -1);
    EXPECT_TRUE(
        Logged("S_MANAGE: Switch instance failed, [Create ptr is NULL], mainId = 7, "
               "oldSubID = 1, newSubID = 2, name = libTestSerialProbe"));
    EXPECT_FALSE(Logged("S_MANAGE: Create new instance failed, type = 0, mainId = 7"));
    EXPECT_EQ(service.Manager().LiveIds(), std::vector<std::string>{"none"});
    dlclose(thrower);
}

// Entries that match the configured name but cannot be a library are passed over: dlopen
// of a FIFO would never return.
TEST_F(LoaderTest, OnlyRegularFilesOrLinksToThemAreLoaded) {
    const std::string tag = "libTestOdd" + std::to_string(getpid());
    const std::string dir = "../plugin/serial/";
    const std::string fifo = dir + tag + "Fifo.so";
    const std::string folder = dir + tag + "Dir.so";
    const std::string link = dir + tag + "Link.so";
    ASSERT_EQ(mkfifo(fifo.c_str(), 0600), 0);
    ASSERT_EQ(mkdir(folder.c_str(), 0700), 0);
    service.Manager().m_mapPeripheralLibName[PERIPHERAL_TYPE_SERIAL][47] = tag;
    EXPECT_EQ(Create(47), 0);
    EXPECT_TRUE(Logged("S_MANAGE: Skip plugin entry, not a regular file, path = " + fifo));
    EXPECT_TRUE(Logged("S_MANAGE: Skip plugin entry, not a regular file, path = " + folder));
    EXPECT_TRUE(service.Manager().m_listPeripheralPlugin.empty());

    ASSERT_EQ(symlink("libTestSerialProbe.so", link.c_str()), 0);
    EXPECT_EQ(Create(47), 0);
    EXPECT_TRUE(Logged("S_MANAGE: Find lib success, begin to open, dir = " + link));
    EXPECT_EQ(service.Manager().LiveIds(), std::vector<std::string>{"0:47:0"});
    unlink(fifo.c_str());
    rmdir(folder.c_str());
    unlink(link.c_str());
}

// Teardown hands a releaser only instances: a third-party releaser need not check for null.
TEST(LoaderTeardown, ARecordWithoutInstanceIsNotReleased) {
    static int nullReleases = 0;
    static int releases = 0;
    {
        ServiceHarness service{kConfig};
        ASSERT_EQ(service.Manager().CreatePeripheralInstance(PERIPHERAL_TYPE_SERIAL, 7, 1), 0);
        PeripheralProperty_t& probe = service.Manager().m_listPeripheralPlugin.front();
        probe.pRelease = [](CPeripheralBase* instance) {
            ++(instance == nullptr ? nullReleases : releases);
            delete instance;
        };
        service.Manager().m_listPeripheralPlugin.push_back(
            {nullptr, probe.pCreate, probe.pRelease, "ghost", nullptr});
    }
    EXPECT_EQ(releases, 1);
    EXPECT_EQ(nullReleases, 0);
}

// Initialize walks the records (dropping one without instance) before the manager thread
// runs: a setting handled at once on that thread appends to the same list. ThreadSanitizer
// sees the two meet when the walk comes after the start.
TEST(LoaderStart, RecordsAreWalkedBeforeTheManagerThreadRuns) {
    ServiceHarness service{kConfig};
    service.Manager().m_listPeripheralPlugin.push_back(
        {nullptr, nullptr, nullptr, "ghost", nullptr});
    const auto setting = Bytes(SerialSetting({{0, 7, 0, 3}}));
    std::atomic<bool> created{false};
    std::thread recorder([&] {
        while (!created.load()) {  // whatever arrives before the registration is lost
            service.Send(316, setting);
            std::this_thread::sleep_for(std::chrono::milliseconds(1));
        }
    });
    service.Start(true);
    EXPECT_TRUE(service.Logs().WaitFor(Journal("init", 7, 0)));
    created = true;
    recorder.join();
    EXPECT_TRUE(
        service.Logs().Contains("S_MANAGE: Periphral Plugin[ghost] Is NULL, and delete it"));
    service.Manager().Stop();
    EXPECT_EQ(service.Manager().LiveIds(), std::vector<std::string>{"0:7:0"});
}

// ---- look-ups in the kept parameter records ----

TEST_F(LoaderTest, ParamIdIsTheEntryIndexOf8BitIds) {
    pmtest::TestManage& m = service.Manager();
    m.m_stuSystemSerialParam.stuSerialSetting =
        SerialSetting({{3, 7, 1, 0}, {5, 8, 0, 0}, {6, 8, 0, 0}, {9, 1, 0, 0}, {9, 9, 4, 0, 2}});
    m.m_stuCanParam.port[2].mainFun = 12;
    m.m_stuEthernetParam.entry[1].mainFun = 20;
    m.m_stuEthernetParam.entry[1].subFun = 3;
    const struct {
        int type;
        unsigned mainId, subId, expected;
    } cases[] = {
        {0, 7, 1, 3},  {0, 8, 0, 5},   {0, 7 + 256, 1, 255}, {1, 12, 0, 2}, {1, 12 + 256, 0, 255},
        {2, 20, 3, 1}, {3, 7, 1, 255}, {0, 9, 4, 255},  // a sub-port behind a box is no port entry
    };
    for (const auto& c : cases) {
        EXPECT_EQ(m.GetPeripheralParamId(static_cast<ePeripheralType>(c.type), c.mainId, c.subId),
                  c.expected)
            << c.type << ":" << c.mainId << ":" << c.subId;
    }
}

TEST_F(LoaderTest, UiIdComesFromTheConfiguredNameOfThePosition) {
    const struct {
        int port;  // where peripheral 7:1 sits; -1 nowhere
        ePeripheralType type;
        unsigned expected;
    } cases[] = {
        {4, PERIPHERAL_TYPE_SERIAL, 0},  // "232-1"
        {6, PERIPHERAL_TYPE_SERIAL, 2},  // "485-1"
        {7, PERIPHERAL_TYPE_SERIAL, 3},  // "COM" matches nothing, "485-2" is next
        {8, PERIPHERAL_TYPE_SERIAL, 3},  // a name that is not text is skipped
        {9, PERIPHERAL_TYPE_SERIAL, 0},  // "232" is found within "232-1"
        {0, PERIPHERAL_TYPE_SERIAL, 0},  {-1, PERIPHERAL_TYPE_SERIAL, 0},
        {7, PERIPHERAL_TYPE_CANPORT, 0},
    };
    for (const auto& c : cases) {
        service.Manager().m_stuSystemSerialParam.stuSerialSetting =
            c.port < 0 ? SerialSetting({}) : SerialSetting({{c.port, 7, 1, 0}});
        EXPECT_EQ(service.Manager().GetPeripheralUiId(c.type, 7, 1), c.expected) << c.port;
    }
}

// ---- the parameter handlers' length check ----

TEST_F(LoaderTest, SixteenBytesPassTheLengthCheckAndTheMissingRecordReadsAsZeros) {
    pmtest::TestManage& m = service.Manager();
    const struct {
        int (CPeripheralManage::*handler)(const char*, int);
        const char* lengthError;
        const char* changed;
        uint16_t bit;
        const void* kept;
        size_t size;
    } families[] = {
        {&CPeripheralManage::OnUpdateSerialParamSetting, "S_MANAGE: Serial port param length error",
         "S_MANAGE: Serial param has changed", PARAM_STATE_SERIAL,
         &m.m_stuSystemSerialParam.stuSerialSetting, sizeof(paramSerialSetting_t)},
        {&CPeripheralManage::OnUpdateCanParamSetting, "S_MANAGE: CAN port param length error",
         "S_MANAGE: CAN param has changed", PARAM_STATE_CAN, &m.m_stuCanParam,
         sizeof(paramCanSetting_t)},
        {&CPeripheralManage::OnUpdateEthernetParamSetting,
         "S_MANAGE: Ethernet port param length error", "S_MANAGE: Ethernet param has changed",
         PARAM_STATE_ETHERNET, &m.m_stuEthernetParam, sizeof(paramPeripheralEtherNet_t)},
    };
    for (const auto& f : families) {
        for (int length : {-1, 15, 16}) {
            SCOPED_TRACE(std::string(f.changed) + ", length " + std::to_string(length));
            // Non-zero kept records, so that a record read as zeros is a change.
            m.m_stuSystemSerialParam.stuSerialSetting = SerialSetting({{0, 7, 0, 3}});
            m.m_stuCanParam.port[0].mainFun = 12;
            m.m_stuEthernetParam.entry[0].mainFun = 20;
            m.m_nParamState = PARAM_STATE_SERIAL | PARAM_STATE_CAN | PARAM_STATE_ETHERNET;
            const std::vector<uint8_t> before(static_cast<const uint8_t*>(f.kept),
                                              static_cast<const uint8_t*>(f.kept) + f.size);
            service.Logs().Clear();
            // Exactly as long as it is: a read past it shows under AddressSanitizer.
            std::unique_ptr<char[]> message(length < 0 ? nullptr : new char[length]());
            (m.*f.handler)(message.get(), length < 0 ? 0 : length);
            const bool accepted = length == 16;
            EXPECT_EQ(service.Logs().Count(f.lengthError), accepted ? 0u : 1u);
            EXPECT_EQ(service.Logs().Count(f.changed), accepted ? 1u : 0u);
            EXPECT_EQ((m.m_nParamState & f.bit) == 0, accepted);
            const std::vector<uint8_t> after(static_cast<const uint8_t*>(f.kept),
                                             static_cast<const uint8_t*>(f.kept) + f.size);
            EXPECT_EQ(after, accepted ? std::vector<uint8_t>(f.size, 0) : before);
        }
    }
}

// ---- reconciliation end to end, on the manager thread ----

class ReconcileTest : public ::testing::Test {
protected:
    void SetUp() override { service.Start(true); }
    ServiceHarness service{kConfig};
};

// What a change must do, in the order it must be done, and what it must not do.
struct ChangeCase {
    const char* name;
    std::vector<uint8_t> from, to;
    std::vector<std::string> inOrder, absent;
    std::vector<std::string> live;  // "type:main:sub" afterwards, registry order
};

void PrintTo(const ChangeCase& c, std::ostream* os) {
    *os << c.name;
}

class ReconcileChangeTest : public ReconcileTest,
                            public ::testing::WithParamInterface<ChangeCase> {};

TEST_P(ReconcileChangeTest, DoesWhatTheChangeNeedsInOrder) {
    const ChangeCase& c = GetParam();
    ASSERT_TRUE(service.SendSetting(c.from));
    service.Logs().Clear();
    ASSERT_TRUE(service.SendSetting(c.to));
    service.Manager().Stop();  // what follows reads the manager's state
    EXPECT_EQ(MissingInOrder(service.Logs(), c.inOrder), "");
    for (const std::string& text : c.absent) {
        EXPECT_EQ(service.Logs().Count(text), 0u) << text;
    }
    EXPECT_EQ(service.Manager().LiveIds(), c.live);
    EXPECT_TRUE(service.Manager().m_mapChangedPeripPair[PERIPHERAL_TYPE_SERIAL].empty());
}

std::string Param(unsigned mainId, unsigned subId, const char* details) {
    return Journal("param", mainId, subId) + " " + details;
}

std::vector<uint8_t> CanRecord(uint8_t mainFun, uint8_t subFun, uint8_t baudrate) {
    paramCanSetting_t record{};
    record.port[0].mainFun = mainFun;
    record.port[0].subFun = subFun;
    record.port[0].baudrate = baudrate;
    return Bytes(record);
}

std::vector<uint8_t> EthernetRecord(const char* ip, uint16_t port) {
    paramPeripheralEtherNet_t record{};
    record.entry[0].mainFun = 20;
    snprintf(record.entry[0].ip, sizeof(record.entry[0].ip), "%s", ip);
    record.entry[0].port = port;
    return Bytes(record);
}

std::vector<ChangeCase> ChangeCases() {
    // A plain peripheral on MCU port 0 and another on port 1; then an extension box on port 0
    // with sub-ports 0 and 3 in use (its own sub id of 5 is not the one it is created under).
    const auto plain = Bytes(SerialSetting({{0, 7, 0, 3}, {1, 8, 0, 3}}));
    const auto box =
        Bytes(SerialSetting({{0, 1, 5, 3}, {1, 8, 0, 3}, {0, 7, 1, 3, 0}, {0, 7, 2, 3, 3}}));
    const auto liveBox =
        Bytes(SerialSetting({{0, 1, 0, 3}, {1, 8, 0, 3}, {0, 7, 1, 3, 0}, {0, 7, 2, 3, 3}}));
    const std::vector<std::string> nothing = {"S_MANAGE: Remove", "S_MANAGE: Begin create",
                                              "TEST_PLUGIN: create", "TEST_PLUGIN: release",
                                              "TEST_PLUGIN: param"};
    return {
        {"PlainToExtendBox",
         plain,
         box,
         {"S_MANAGE: Remove extend serial instance, mainId = 7, subId = 0",
          Journal("release", 7, 0), "S_MANAGE: Begin create serial instance, mainId = 1, subId = 0",
          "S1_EXTEND_BOX: **CSerialDevExtendBox** is construct, mainId = 1, subId = 0",
          "S_MANAGE: Begin create serial instance, mainId = 7, subId = 1", Journal("create", 7, 1),
          Journal("init", 7, 1) + " link=0", Journal("create", 7, 2),
          "S_MANAGE: **** Reset serial property list size = 3****",
          Param(8, 0, "changed=0 pairs=[1:0,7:1,7:2]"), Param(7, 1, "changed=1"),
          Param(7, 2, "changed=1"),
          "S_MANAGE: Update Serial Instance Finished, instance_size = 4, changeSize = 0"},
         {"S_MANAGE: Begin create serial instance, mainId = 1, subId = 5",
          Journal("release", 8, 0)},
         {"0:8:0", "0:1:0", "0:7:1", "0:7:2"}},
        {"ExtendBoxToPlain",
         box,
         plain,
         {"S_MANAGE: Remove extend serial instance, index = 0, mainId = 7, subId = 1",
          Journal("release", 7, 1),
          "S_MANAGE: Remove extend serial instance, index = 3, mainId = 7, subId = 2",
          Journal("release", 7, 2),
          "S_MANAGE: Remove extend serial instance, mainId = 1, subId = 5",
          "S_MANAGE: Release Peripheral Instance success, type = 0, mainID = 1, subId = 0",
          "S1_EXTEND_BOX: **CSerialDevExtendBox** is destruct!!!",
          "S_MANAGE: Begin create serial instance, mainId = 7, subId = 0", Journal("create", 7, 0),
          Param(8, 0, "changed=0 pairs=[7:0]"), Param(7, 0, "changed=1 pairs=[7:0]"),
          "S_MANAGE: Update Serial Instance Finished, instance_size = 2, changeSize = 0"},
         {"S_MANAGE: Begin create serial instance, mainId = 1", Journal("release", 8, 0)},
         {"0:8:0", "0:7:0"}},
        // A box under its own ids (sub id 0) finds its entry and keeps its children's table.
        {"KeptBoxChildReplaced",
         liveBox,
         Bytes(SerialSetting({{0, 1, 0, 3}, {1, 8, 0, 3}, {0, 7, 3, 3, 0}, {0, 7, 2, 3, 3}})),
         // Told first, while the new child does not exist and the old one is still alive: it
         // drops the old one from its table before the old one is released.
         {"S1_EXTEND_BOX: Add extend instance, id = 3, mainId = 7, subId = 2",
          "S_MANAGE: Remove extend serial instance, index = 0, mainId = 7, subId = 1",
          Journal("release", 7, 1), Journal("create", 7, 3),
          "S1_EXTEND_BOX: Add extend instance, id = 0, mainId = 7, subId = 3",
          "S1_EXTEND_BOX: Add extend instance, id = 3, mainId = 7, subId = 2",
          Param(8, 0, "changed=0 pairs=[7:3]")},
         {Journal("release", 7, 2), "S1_EXTEND_BOX: **CSerialDevExtendBox** is destruct"},
         {"0:1:0", "0:7:2", "0:8:0", "0:7:3"}},
        {"BoxChildBaudOnly",
         liveBox,
         Bytes(SerialSetting({{0, 1, 0, 3}, {1, 8, 0, 3}, {0, 7, 1, 5, 0}, {0, 7, 2, 3, 3}})),
         {"S1_EXTEND_BOX: Add extend instance, id = 0, mainId = 7, subId = 1",
          "S_MANAGE: **** Reset serial property list size = 1****",
          "S1_EXTEND_BOX: Add extend instance, id = 0, mainId = 7, subId = 1",
          Param(7, 1, "changed=1 pairs=[7:1]"), Param(7, 2, "changed=0 pairs=[7:1]"),
          Param(8, 0, "changed=0 pairs=[7:1]")},
         {"S_MANAGE: Remove", "S_MANAGE: Begin create"},
         {"0:1:0", "0:7:1", "0:7:2", "0:8:0"}},
        // The hub takes the box's port: the box hears of it, its children go with it, and
        // the hub arrives without any (the new entry's children are not created).
        {"BoxToHubBox",
         liveBox,
         Bytes(SerialSetting({{0, 149, 0, 3}, {1, 8, 0, 3}, {0, 7, 1, 3, 0}})),
         {"S_MANAGE:HandlePeripParamChange", Journal("release", 7, 1), Journal("release", 7, 2),
          "S_MANAGE: Release Peripheral Instance success, type = 0, mainID = 1, subId = 0",
          "S1_EXTEND_BOX: **CSerialDevExtendBox** is destruct!!!",
          "S1_EXTEND_BOX_HUB: **CSerialDevExtendBoxHub** is construct, mainId = 149, subId = 0",
          "New extend hubbox find ok, mainId = 149, subId = 0"},
         {Journal("create", 7, 1), "S1_EXTEND_BOX_HUB: Add extend instance",
          "S_MANAGE: Close Dll failed"},
         {"0:8:0", "0:149:0"}},
        // The hub is not exempted from closing a library it never had.
        {"HubBoxToPlain",
         Bytes(SerialSetting({{0, 149, 0, 3}, {1, 8, 0, 3}})),
         plain,
         {"S_MANAGE: Release Peripheral Instance success, type = 0, mainID = 149, subId = 0",
          "S1_EXTEND_BOX_HUB: ~~Broadcast m_stuExtendIOstatus.lState = 0",
          "S1_EXTEND_BOX_HUB: **CSerialDevExtendBoxHub** is destruct!!!",
          "S_MANAGE: Close Dll failed, [Dll handle is NULL], type = 0, mainID = 149, subId = 0",
          Journal("create", 7, 0)},
         {},
         {"0:8:0", "0:7:0"}},
        {"BaudRateOnly",
         plain,
         Bytes(SerialSetting({{0, 7, 0, 5}, {1, 8, 0, 3}})),
         {"S_MANAGE: **** Reset serial property list size = 1****", "mainId = 7, subId = 0",
          Param(7, 0, "changed=1 pairs=[7:0]"), Param(8, 0, "changed=0 pairs=[7:0]"),
          "S_MANAGE: Update Serial Instance Finished, instance_size = 2, changeSize = 0"},
         {"TEST_PLUGIN: create", "TEST_PLUGIN: release", "S_MANAGE: Begin create",
          "S_MANAGE: Remove"},
         {"0:7:0", "0:8:0"}},
        // The serial reconciliation replaces; it never switches within the library.
        {"SubIdChange",
         Bytes(SerialSetting({{0, 7, 1, 3}})),
         Bytes(SerialSetting({{0, 7, 2, 3}})),
         {"S_MANAGE: Remove serial instance, mainId = 7, subId = 1", Journal("release", 7, 1),
          "S_MANAGE: Close Dll success, type = 0, mainID = 7, subId = 1", Journal("create", 7, 2),
          Journal("init", 7, 2) + " link=0", Param(7, 2, "changed=1 pairs=[7:2]")},
         {"S_MANAGE: Switch instance"},
         {"0:7:2"}},
        {"CanBaudRateOnly",
         CanRecord(12, 0, 1),
         CanRecord(12, 0, 2),
         {"S_MANAGE: CAN param has changed......",
          "S_MANAGE: Update CAN Instance Finished, instance_size = 1"},
         nothing,
         {"1:12:0"}},
        {"CanSubIdChange",
         CanRecord(12, 0, 1),
         CanRecord(12, 1, 1),
         {"S_MANAGE: Remove can instance, mainId = 12, subId = 0",
          Journal("release", 12, 0, "libTestCanProbe", 1),
          Journal("create", 12, 1, "libTestCanProbe", 1)},
         {"TEST_PLUGIN: param"},
         {"1:12:1"}},
        {"EthernetAddressOnly",
         EthernetRecord("10.0.0.1", 5000),
         EthernetRecord("10.0.0.2", 5001),
         {"S_MANAGE: Ethernet param has changed......",
          "S_MANAGE: Update Ethernet Instance Finished, instance_size = 1"},
         nothing,
         {"2:20:0"}},
    };
}

INSTANTIATE_TEST_SUITE_P(Reconcile, ReconcileChangeTest, ::testing::ValuesIn(ChangeCases()),
                         [](const auto& info) { return std::string(info.param.name); });

// A record equal to the kept one only opens the start-up gate for its family.
class EqualRecordTest : public ::testing::TestWithParam<int> {};

TEST_P(EqualRecordTest, OnlyClearsTheParameterStateBit) {
    const int id = GetParam();
    const size_t size = id == 316   ? sizeof(paramSerialSetting_t)
                        : id == 360 ? sizeof(paramCanSetting_t)
                                    : sizeof(paramPeripheralEtherNet_t);
    ServiceHarness service{kConfig};
    service.Watch(1051);  // the first request of a manager past its gate
    service.Manager().m_ucDeviceModuleReady = 1;
    service.Manager().m_nParamState = id == 316   ? PARAM_STATE_SERIAL
                                      : id == 360 ? PARAM_STATE_CAN
                                                  : PARAM_STATE_ETHERNET;
    service.Start();
    service.Send(id, std::vector<uint8_t>(size, 0));  // the kept record is still all zero
    EXPECT_TRUE(service.WaitCount(1051, 1));
    service.Manager().Stop();
    EXPECT_EQ(service.Manager().m_nParamState, 0);
    EXPECT_EQ(service.Logs().Count("param has changed"), 0u);
    EXPECT_TRUE(service.Manager().m_listPeripheralPlugin.empty());
}

INSTANTIATE_TEST_SUITE_P(Reconcile, EqualRecordTest, ::testing::Values(316, 360, 362));

}  // namespace
