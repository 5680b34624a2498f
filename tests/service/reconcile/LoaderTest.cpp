// The plug-in loader and the instance registry, called directly on the test thread (the
// manager thread is not started), against the real plug-in files of tests/plugins.
#include <dlfcn.h>
#include <string.h>

#include <memory>
#include <string>
#include <vector>

#include <gtest/gtest.h>

#include "ReconcileHarness.h"

namespace rectest {
namespace {

constexpr int kSerial = PERIPHERAL_TYPE_SERIAL;

class LoaderTest : public ::testing::Test {
protected:
    std::vector<std::string> Logs() const { return Texts(m_env.Logs()); }
    bool Logged(const std::string& prefix) const { return CountPrefix(Logs(), prefix) > 0; }

    // A record without instance at the front of the registry, as a failed switch leaves one.
    void PushGhost(void* handle, PeripheralCreateFn create, PeripheralReleaseFn release) {
        m_manage->m_listPeripheralPlugin.push_front(
            PeripheralProperty_t{handle, create, release, "ghost", nullptr});
    }

    ReconcileEnv m_env;
    std::unique_ptr<TestManage> m_manage = std::make_unique<TestManage>();
};

// ---- OpenPeripheralLib: every outcome and the state each one leaves ----

struct LoadCase {
    const char* name;
    unsigned int mainId;
    int result;
    const char* logPrefix;  // the line that tells the outcome
    const char* file;       // the library the loader takes; null when none matches
    bool leftLoaded;        // the library is mapped afterwards
    bool registered;        // a record was appended
    const char* journal;    // what the plug-in saw, or null
};

void PrintTo(const LoadCase& c, std::ostream* os) {
    *os << c.name;
}

const LoadCase kLoadCases[] = {
    {"WellFormed", kProbeMainId, 0,
     "S_MANAGE: Find the lib so, then create it, type = 0, mainId = 7, subId = 0",
     "libTestSerialProbe.so", true, true, "TEST_PLUGIN: init libTestSerialProbe type=0 main=7"},
    {"CreatorGivesNull", kNullCreateMainId, 0,
     "S_MANAGE: Create new instance failed, type = 0, mainId = 40, subId = 0",
     "libTestNullCreate.so", true, false, "TEST_PLUGIN: null-create libTestNullCreate"},
    // The instance was created and initialised, and now runs unregistered.
    {"NoReleaser", kNoReleaseMainId, -1,
     "S_MANAGE: Cannot get plugin [PeripheralRelease] ptr, name = "
     "../plugin/serial/libTestNoRelease.so",
     "libTestNoRelease.so", true, false, "TEST_PLUGIN: init libTestNoRelease type=0 main=41"},
    {"NoCreator", kNoCreateMainId, -1,
     "S_MANAGE: Cannot get plugin [PeripheralCreate] ptr, name = "
     "../plugin/serial/libTestNoCreate.so",
     "libTestNoCreate.so", true, false, nullptr},
    {"NotLoadable", kUnloadableMainId, -1,
     "S_MANAGE: Cannot load plugin, name = ../plugin/serial/libTestUnloadable.so, err : ",
     "libTestUnloadable.so", false, false, nullptr},
    {"NoFileMatches", kMissingFileMainId, 0, "S_MANAGE: lib [libTestMissingFile] load finish",
     nullptr, false, false, nullptr},
    {"NotConfigured", 99, -1,
     "S_MANAGE: Read lib file failed, file name is NULL, name = , mainId = 99, subId = 0", nullptr,
     false, false, nullptr},
};

class LoadOutcomeTest : public LoaderTest, public ::testing::WithParamInterface<LoadCase> {};

TEST_P(LoadOutcomeTest, LeavesTheStateOfItsOutcome) {
    const LoadCase& c = GetParam();
    EXPECT_EQ(m_manage->CreatePeripheralInstance(PERIPHERAL_TYPE_SERIAL, c.mainId, 0), c.result);
    EXPECT_TRUE(Logged(c.logPrefix)) << c.logPrefix;

    const std::vector<std::string> logs = Logs();
    if (c.mainId != 99) {
        EXPECT_EQ(CountPrefix(logs, "S_MANAGE: lib ["), 1u);
    }
    if (c.file == nullptr) {
        EXPECT_EQ(CountPrefix(logs, "S_MANAGE: Find lib success"), 0u);
    } else {
        const std::string path = PluginPath("serial", c.file);
        EXPECT_TRUE(Logged("S_MANAGE: Find lib success, begin to open, dir = " + path));
        EXPECT_EQ(LoadedHandle(path) != nullptr, c.leftLoaded) << path;
    }
    if (c.journal != nullptr) {
        EXPECT_TRUE(Logged(c.journal)) << c.journal;
    }
    ASSERT_EQ(m_manage->m_listPeripheralPlugin.size(), c.registered ? 1u : 0u);
    if (c.registered) {
        const PeripheralProperty_t& record = m_manage->m_listPeripheralPlugin.front();
        void* handle = LoadedHandle(PluginPath("serial", c.file));
        EXPECT_EQ(record.pLibHandle, handle);
        EXPECT_EQ(reinterpret_cast<void*>(record.pCreate), dlsym(handle, "PeripheralCreate"));
        EXPECT_EQ(reinterpret_cast<void*>(record.pRelease), dlsym(handle, "PeripheralRelease"));
        EXPECT_EQ(record.strName, "libTestSerialProbe");
        EXPECT_EQ(m_manage->LiveIds(), std::vector<std::string>{"0:7:0"});
    }
}

INSTANTIATE_TEST_SUITE_P(Loader, LoadOutcomeTest, ::testing::ValuesIn(kLoadCases),
                         [](const auto& info) { return std::string(info.param.name); });

TEST_F(LoaderTest, UnloadableLibraryReportsTheLinkerError) {
    EXPECT_EQ(m_manage->OpenPeripheralLib(PERIPHERAL_TYPE_SERIAL, kUnloadableMainId, 0), -1);
    bool found = false;
    for (const std::string& text : Logs()) {
        found = found || (text.find("Cannot load plugin") != std::string::npos &&
                          text.find("pm_test_variable_nobody_defines") != std::string::npos);
    }
    EXPECT_TRUE(found);
}

TEST_F(LoaderTest, FirstDirectoryEntryWinsAmongMatchingFiles) {
    const std::string first = FirstEntryContaining("../plugin/serial/", "libTestDup");
    ASSERT_TRUE(first == "libTestDupAlpha.so" || first == "libTestDupBeta.so") << first;
    const std::string other =
        first == "libTestDupAlpha.so" ? "libTestDupBeta.so" : "libTestDupAlpha.so";

    EXPECT_EQ(m_manage->CreatePeripheralInstance(PERIPHERAL_TYPE_SERIAL, kDupMainId, 0), 0);
    const std::string library = first.substr(0, first.size() - 3);
    EXPECT_TRUE(Logged(Journal("create", library.c_str(), kSerial, kDupMainId, 0)));
    ASSERT_EQ(m_manage->m_listPeripheralPlugin.size(), 1u);
    EXPECT_EQ(m_manage->m_listPeripheralPlugin.front().pLibHandle,
              LoadedHandle(PluginPath("serial", first)));
    EXPECT_EQ(m_manage->m_listPeripheralPlugin.front().strName, "libTestDup");
    EXPECT_EQ(LoadedHandle(PluginPath("serial", other)), nullptr);
}

TEST_F(LoaderTest, KindOutsideTheThreeFailsWithoutTouchingAFolder) {
    const auto kind = static_cast<ePeripheralType>(3);
    m_manage->m_mapPeripheralLibName[kind][kProbeMainId] = "libTestSerialProbe";
    EXPECT_EQ(m_manage->OpenPeripheralLib(kind, kProbeMainId, 0), -1);
    EXPECT_FALSE(Logged("S_MANAGE: Open basic service plugin lib directory failed"));
    EXPECT_FALSE(Logged("S_MANAGE: Begin to Find lib file"));
}

TEST_F(LoaderTest, MissingPluginFolderFailsForEachKind) {
    pmtest::TempDir elsewhere;
    ASSERT_EQ(chdir(elsewhere.Path().c_str()), 0);  // no ../plugin/ beside it
    EXPECT_EQ(m_manage->OpenPeripheralLib(PERIPHERAL_TYPE_SERIAL, kProbeMainId, 0), -1);
    EXPECT_EQ(m_manage->OpenPeripheralLib(PERIPHERAL_TYPE_CANPORT, kCanMainId, 0), -1);
    EXPECT_EQ(m_manage->OpenPeripheralLib(PERIPHERAL_TYPE_ETHERNET, kEthernetMainId, 0), -1);
    EXPECT_EQ(
        MissingInOrder(
            Logs(),
            {"S_MANAGE: Open basic service plugin lib directory failed, path = "
             "../plugin/serial/",
             "S_MANAGE: Open basic service plugin lib directory failed, path = ../plugin/can/",
             "S_MANAGE: Open basic service plugin lib directory failed, path = "
             "../plugin/ethernet/"}),
        "");
    EXPECT_TRUE(m_manage->m_listPeripheralPlugin.empty());
}

TEST_F(LoaderTest, CanAndEthernetComeFromTheirOwnFolders) {
    EXPECT_EQ(m_manage->CreatePeripheralInstance(PERIPHERAL_TYPE_CANPORT, kCanMainId, 0), 0);
    EXPECT_EQ(m_manage->CreatePeripheralInstance(PERIPHERAL_TYPE_ETHERNET, kEthernetMainId, 3), 0);
    EXPECT_EQ(m_manage->LiveIds(), (std::vector<std::string>{"1:12:0", "2:20:3"}));
    EXPECT_NE(LoadedHandle(PluginPath("can", "libTestCanProbe.so")), nullptr);
    EXPECT_NE(LoadedHandle(PluginPath("ethernet", "libTestEthProbe.so")), nullptr);
}

// ---- CreatePeripheralInstance ----

TEST_F(LoaderTest, SameInstanceIsCreatedOnce) {
    EXPECT_EQ(m_manage->CreatePeripheralInstance(PERIPHERAL_TYPE_SERIAL, kProbeMainId, 1), 0);
    EXPECT_EQ(m_manage->CreatePeripheralInstance(PERIPHERAL_TYPE_SERIAL, kProbeMainId, 1), 0);
    EXPECT_TRUE(Logged("S_MANAGE: Find same instance, and return!!!"));
    EXPECT_EQ(CountPrefix(Logs(), "TEST_PLUGIN: create"), 1u);
    EXPECT_EQ(m_manage->LiveIds(), std::vector<std::string>{"0:7:1"});
    // Another kind with the same ids is another instance.
    EXPECT_EQ(m_manage->CreatePeripheralInstance(PERIPHERAL_TYPE_ETHERNET, kProbeMainId, 1), -1);
}

struct BuiltInCase {
    const char* name;
    unsigned int mainId;
    unsigned int subId;
    int result;
    const char* logPrefix;
    bool searchesFolder;
};

void PrintTo(const BuiltInCase& c, std::ostream* os) {
    *os << c.name;
}

const BuiltInCase kBuiltInCases[] = {
    {"ExtendBox", 1, 0, 0, "S_MANAGE: ExtendBox instance create failed", false},
    {"ExtendHubBox", 149, 0, 0, "S_MANAGE: ExtendHub Box instance create failed", false},
    // Only sub id 0 is the box; another sub id is an ordinary plug-in lookup.
    {"BoxIdWithSubId", 1, 3, 0, "TEST_PLUGIN: create libTestSerialProbe type=0 main=1 sub=3", true},
};

class BuiltInBoxTest : public LoaderTest, public ::testing::WithParamInterface<BuiltInCase> {};

TEST_P(BuiltInBoxTest, BoxesNeverSearchThePluginFolder) {
    const BuiltInCase& c = GetParam();
    EXPECT_EQ(m_manage->CreatePeripheralInstance(PERIPHERAL_TYPE_SERIAL, c.mainId, c.subId),
              c.result);
    EXPECT_TRUE(Logged(c.logPrefix)) << c.logPrefix;
    EXPECT_EQ(Logged("S_MANAGE: Begin to Find lib file"), c.searchesFolder);
    EXPECT_EQ(m_manage->m_listPeripheralPlugin.size(), c.searchesFolder ? 1u : 0u);
}

INSTANTIATE_TEST_SUITE_P(Loader, BuiltInBoxTest, ::testing::ValuesIn(kBuiltInCases),
                         [](const auto& info) { return std::string(info.param.name); });

// ---- Switch, Remove, Load ----

TEST_F(LoaderTest, SwitchInSameLibKeepsTheRecordAndItsHandle) {
    ASSERT_EQ(m_manage->CreatePeripheralInstance(PERIPHERAL_TYPE_SERIAL, kProbeMainId, 1), 0);
    const PeripheralProperty_t before = m_manage->m_listPeripheralPlugin.front();
    m_env.Logs().Clear();

    EXPECT_EQ(m_manage->SwitchPeripheralInSameLib(kProbeMainId, 1, 2), 0);
    ASSERT_EQ(m_manage->m_listPeripheralPlugin.size(), 1u);
    const PeripheralProperty_t& after = m_manage->m_listPeripheralPlugin.front();
    EXPECT_EQ(after.pLibHandle, before.pLibHandle);
    EXPECT_EQ(after.pCreate, before.pCreate);
    EXPECT_EQ(after.strName, "libTestSerialProbe");
    EXPECT_EQ(m_manage->LiveIds(), std::vector<std::string>{"0:7:2"});
    EXPECT_EQ(MissingInOrder(Logs(), {Journal("release", "libTestSerialProbe", kSerial, 7, 1),
                                      Journal("create", "libTestSerialProbe", kSerial, 7, 2),
                                      Journal("init", "libTestSerialProbe", kSerial, 7, 2),
                                      "S_MANAGE: Switch instance success, mainId = 7, oldSubID = "
                                      "1, newSubID = 2, name = libTestSerialProbe"}),
              "");
    EXPECT_FALSE(Logged("S_MANAGE: Close Dll"));
    EXPECT_EQ(LoadedHandle(PluginPath("serial", "libTestSerialProbe.so")), before.pLibHandle);
}

TEST_F(LoaderTest, SwitchWithoutOldInstanceFails) {
    EXPECT_EQ(m_manage->SwitchPeripheralInSameLib(kProbeMainId, 1, 2), -2);
    EXPECT_TRUE(
        Logged("S_MANAGE: Switch instance failed, [Not Find old instance], mainId = 7, "
               "oldSubID = 1, newSubID = 2"));
}

TEST_F(LoaderTest, SwitchNeedsBothCreatorAndReleaser) {
    ASSERT_EQ(m_manage->CreatePeripheralInstance(PERIPHERAL_TYPE_SERIAL, kProbeMainId, 1), 0);
    PeripheralReleaseFn release = m_manage->m_listPeripheralPlugin.front().pRelease;
    m_manage->m_listPeripheralPlugin.front().pRelease = nullptr;
    EXPECT_EQ(m_manage->SwitchPeripheralInSameLib(kProbeMainId, 1, 2), -1);
    EXPECT_TRUE(
        Logged("S_MANAGE: Switch instance failed, [Create ptr is NULL], mainId = 7, "
               "oldSubID = 1, newSubID = 2, name = libTestSerialProbe"));
    EXPECT_EQ(m_manage->LiveIds(), std::vector<std::string>{"0:7:1"});
    m_manage->m_listPeripheralPlugin.front().pRelease = release;
}

// A record left without instance is what Switch and Remove find first, whatever ids they
// were given.
TEST_F(LoaderTest, SwitchTakesARecordWithoutInstanceFirst) {
    ASSERT_EQ(m_manage->CreatePeripheralInstance(PERIPHERAL_TYPE_SERIAL, kProbeMainId, 1), 0);
    const PeripheralProperty_t probe = m_manage->m_listPeripheralPlugin.front();
    PushGhost(nullptr, probe.pCreate, probe.pRelease);

    EXPECT_EQ(m_manage->SwitchPeripheralInSameLib(kProbeMainId, 1, 2), 0);
    EXPECT_TRUE(Logged("S_MANAGE: Switch instance, old instance is NULL, create new instance!!!"));
    EXPECT_TRUE(
        Logged("S_MANAGE: Switch instance success, mainId = 7, oldSubID = 1, newSubID = "
               "2, name = ghost"));
    // The ghost got the new instance; the old one was not touched.
    EXPECT_EQ(m_manage->LiveIds(), (std::vector<std::string>{"0:7:2", "0:7:1"}));
    EXPECT_EQ(CountPrefix(Logs(), "TEST_PLUGIN: release"), 0u);
}

TEST_F(LoaderTest, SwitchOfARecordWithoutInstanceNeedsACreator) {
    PushGhost(nullptr, nullptr, nullptr);
    EXPECT_EQ(m_manage->SwitchPeripheralInSameLib(kProbeMainId, 1, 2), -1);
    EXPECT_EQ(MissingInOrder(Logs(), {"S_MANAGE: Switch instance, old instance is NULL",
                                      "S_MANAGE: Switch instance failed, [Create ptr is NULL], "
                                      "mainId = 7, oldSubID = 1, newSubID = 2, name = ghost"}),
              "");
}

TEST_F(LoaderTest, RemoveReleasesTheInstanceAndClosesItsLibrary) {
    ASSERT_EQ(m_manage->CreatePeripheralInstance(PERIPHERAL_TYPE_SERIAL, kProbeMainId, 0), 0);
    const std::string path = PluginPath("serial", "libTestSerialProbe.so");
    ASSERT_NE(LoadedHandle(path), nullptr);

    EXPECT_EQ(m_manage->RemovePeripheralInstance(PERIPHERAL_TYPE_SERIAL, kProbeMainId, 0), 0);
    EXPECT_EQ(MissingInOrder(Logs(), {"S_MANAGE: Release Peripheral Instance success, type = 0, "
                                      "mainID = 7, subId = 0, name = libTestSerialProbe",
                                      Journal("release", "libTestSerialProbe", kSerial, 7, 0),
                                      "S_MANAGE: Close Dll success, type = 0, mainID = 7, subId = "
                                      "0, name = libTestSerialProbe"}),
              "");
    EXPECT_TRUE(m_manage->m_listPeripheralPlugin.empty());
    EXPECT_EQ(LoadedHandle(path), nullptr);
}

TEST_F(LoaderTest, RemoveOfAnUnknownInstanceFails) {
    ASSERT_EQ(m_manage->CreatePeripheralInstance(PERIPHERAL_TYPE_SERIAL, kProbeMainId, 0), 0);
    EXPECT_EQ(m_manage->RemovePeripheralInstance(PERIPHERAL_TYPE_CANPORT, kProbeMainId, 0), -1);
    EXPECT_TRUE(
        Logged("S_MANAGE: Release Peripheral Instance failed, [Not find instance], type = "
               "1, mainID = 7, subId = 0"));
    EXPECT_EQ(m_manage->LiveIds(), std::vector<std::string>{"0:7:0"});
}

struct GhostRemoveCase {
    const char* name;
    unsigned int mainId;
    bool withHandle;
    const char* closeLog;  // null: no close line at all
};

void PrintTo(const GhostRemoveCase& c, std::ostream* os) {
    *os << c.name;
}

const GhostRemoveCase kGhostRemoveCases[] = {
    {"AnyIds", 77, false,
     "S_MANAGE: Close Dll failed, [Dll handle is NULL], type = 0, mainID = 77, subId = 0, "
     "name = ghost"},
    {"HandleIsClosed", 77, true,
     "S_MANAGE: Close Dll success, type = 0, mainID = 77, subId = 0, name = ghost"},
    // The extension box request never closes a library, even one it finds.
    {"ExtendBoxKeepsTheHandle", 1, true, nullptr},
    // The hub box is not exempt, so its missing handle is logged.
    {"HubBoxLogsTheMissingHandle", 149, false,
     "S_MANAGE: Close Dll failed, [Dll handle is NULL], type = 0, mainID = 149, subId = 0, "
     "name = ghost"},
};

class GhostRemoveTest : public LoaderTest, public ::testing::WithParamInterface<GhostRemoveCase> {};

TEST_P(GhostRemoveTest, RemoveTakesARecordWithoutInstanceFirst) {
    const GhostRemoveCase& c = GetParam();
    ASSERT_EQ(m_manage->CreatePeripheralInstance(PERIPHERAL_TYPE_SERIAL, kProbeMainId, 0), 0);
    // A reference of the test's own, which the remove may or may not give back.
    const std::string path = PluginPath("serial", "libTestSerialProbe.so");
    void* handle = c.withHandle ? dlopen(path.c_str(), RTLD_LAZY) : nullptr;
    PushGhost(handle, nullptr, nullptr);

    EXPECT_EQ(m_manage->RemovePeripheralInstance(PERIPHERAL_TYPE_SERIAL, c.mainId, 0), 0);
    EXPECT_TRUE(
        Logged("S_MANAGE: Release Peripheral Instance failed, [Release handle is NULL], "
               "type = 0, mainID = " +
               std::to_string(c.mainId) + ", subId = 0, name = ghost"));
    if (c.closeLog != nullptr) {
        EXPECT_TRUE(Logged(c.closeLog)) << c.closeLog;
    } else {
        EXPECT_FALSE(Logged("S_MANAGE: Close Dll"));
        dlclose(handle);
    }
    EXPECT_EQ(m_manage->LiveIds(), std::vector<std::string>{"0:7:0"});
    EXPECT_EQ(CountPrefix(Logs(), "TEST_PLUGIN: release"), 0u);
}

INSTANTIATE_TEST_SUITE_P(Loader, GhostRemoveTest, ::testing::ValuesIn(kGhostRemoveCases),
                         [](const auto& info) { return std::string(info.param.name); });

TEST_F(LoaderTest, LoadPeripheralPluginChoosesRemoveCreateOrSwitch) {
    ASSERT_EQ(m_manage->CreatePeripheralInstance(PERIPHERAL_TYPE_SERIAL, kProbeMainId, 0), 0);

    EXPECT_EQ(m_manage->LoadPeripheralPlugin(PERIPHERAL_TYPE_SERIAL, 7, 0, 7, 0), 0);
    EXPECT_EQ(CountPrefix(Logs(), "TEST_PLUGIN: release"), 0u);

    EXPECT_EQ(m_manage->LoadPeripheralPlugin(PERIPHERAL_TYPE_SERIAL, 7, 0, 7, 1), 0);
    EXPECT_TRUE(
        Logged("S_MANAGE: Switch instance success, mainId = 7, oldSubID = 0, newSubID = 1"));
    EXPECT_EQ(m_manage->LiveIds(), std::vector<std::string>{"0:7:1"});

    m_env.Logs().Clear();
    EXPECT_EQ(m_manage->LoadPeripheralPlugin(PERIPHERAL_TYPE_SERIAL, 7, 1, 8, 0), 0);
    EXPECT_EQ(MissingInOrder(Logs(), {Journal("release", "libTestSerialProbe", kSerial, 7, 1),
                                      "S_MANAGE: Close Dll success",
                                      Journal("create", "libTestSerialProbe", kSerial, 8, 0)}),
              "");
    EXPECT_EQ(m_manage->LiveIds(), std::vector<std::string>{"0:8:0"});
    // The creation's result is what comes back: here no library is configured.
    EXPECT_EQ(m_manage->LoadPeripheralPlugin(PERIPHERAL_TYPE_SERIAL, 8, 0, 99, 0), -1);
}

// ---- Look-ups in the kept parameter records ----

struct ParamIdCase {
    const char* name;
    ePeripheralType type;
    unsigned int mainId;
    unsigned int subId;
    unsigned int expected;
};

void PrintTo(const ParamIdCase& c, std::ostream* os) {
    *os << c.name;
}

const ParamIdCase kParamIdCases[] = {
    {"SerialPort", PERIPHERAL_TYPE_SERIAL, 7, 1, 3},
    {"SerialFirstOfTwo", PERIPHERAL_TYPE_SERIAL, 8, 0, 5},
    // Only the port entries count, not the sub-ports behind a box.
    {"SerialChildNotAPort", PERIPHERAL_TYPE_SERIAL, 9, 4, 255},
    // The fields are 8-bit: a main id above 255 matches nothing, not its low byte.
    {"SerialMainIdAbove255", PERIPHERAL_TYPE_SERIAL, 7 + 256, 1, 255},
    {"SerialSubIdAbove255", PERIPHERAL_TYPE_SERIAL, 7, 1 + 256, 255},
    {"CanPort", PERIPHERAL_TYPE_CANPORT, 12, 0, 2},
    {"CanMainIdAbove255", PERIPHERAL_TYPE_CANPORT, 12 + 256, 0, 255},
    {"EthernetEntry", PERIPHERAL_TYPE_ETHERNET, 20, 3, 1},
    {"NotFound", PERIPHERAL_TYPE_ETHERNET, 20, 4, 255},
    {"OtherKind", static_cast<ePeripheralType>(3), 7, 1, 255},
};

class ParamIdTest : public LoaderTest, public ::testing::WithParamInterface<ParamIdCase> {};

TEST_P(ParamIdTest, IndexOfTheEntryInTheKeptRecord) {
    const ParamIdCase& c = GetParam();
    m_manage->m_stuSystemSerialParam.stuSerialSetting =
        SerialRecord({{3, 7, 1, 0}, {5, 8, 0, 0}, {6, 8, 0, 0}, {9, 1, 0, 0}}, {{9, 2, 9, 4, 0}});
    m_manage->m_stuCanParam.port[2].mainFun = 12;
    m_manage->m_stuEthernetParam.entry[1].mainFun = 20;
    m_manage->m_stuEthernetParam.entry[1].subFun = 3;
    EXPECT_EQ(m_manage->GetPeripheralParamId(c.type, c.mainId, c.subId), c.expected);
}

INSTANTIATE_TEST_SUITE_P(Loader, ParamIdTest, ::testing::ValuesIn(kParamIdCases),
                         [](const auto& info) { return std::string(info.param.name); });

struct UiIdCase {
    const char* name;
    int port;  // where the peripheral sits in the serial record; -1 nowhere
    ePeripheralType type;
    unsigned int expected;
};

void PrintTo(const UiIdCase& c, std::ostream* os) {
    *os << c.name;
}

// Positions and names of kConfig's SERIAL_PARAM.
const UiIdCase kUiIdCases[] = {
    {"Rs232First", 4, PERIPHERAL_TYPE_SERIAL, 0},
    {"Rs232Second", 5, PERIPHERAL_TYPE_SERIAL, 1},
    {"Rs485First", 6, PERIPHERAL_TYPE_SERIAL, 2},
    // "COM" matches no port name, so the next entry at the same position decides.
    {"Rs485SecondAfterAMiss", 7, PERIPHERAL_TYPE_SERIAL, 3},
    // A name that is not text is skipped.
    {"NameNotText", 8, PERIPHERAL_TYPE_SERIAL, 3},
    // The configured name is searched for within the port names.
    {"PartialNameMatchesFirst", 9, PERIPHERAL_TYPE_SERIAL, 0},
    {"PartialNameMatchesLater", 10, PERIPHERAL_TYPE_SERIAL, 2},
    {"EmptyName", 11, PERIPHERAL_TYPE_SERIAL, 0},
    {"NoPosition", 0, PERIPHERAL_TYPE_SERIAL, 0},
    {"NotInRecord", -1, PERIPHERAL_TYPE_SERIAL, 0},
    {"NotSerial", 7, PERIPHERAL_TYPE_CANPORT, 0},
};

class UiIdTest : public LoaderTest, public ::testing::WithParamInterface<UiIdCase> {};

TEST_P(UiIdTest, PortNumberFromTheConfiguredName) {
    const UiIdCase& c = GetParam();
    if (c.port >= 0) {
        m_manage->m_stuSystemSerialParam.stuSerialSetting = SerialRecord({{c.port, 7, 1, 0}});
    }
    EXPECT_EQ(m_manage->GetPeripheralUiId(c.type, 7, 1), c.expected);
}

INSTANTIATE_TEST_SUITE_P(Loader, UiIdTest, ::testing::ValuesIn(kUiIdCases),
                         [](const auto& info) { return std::string(info.param.name); });

TEST_F(LoaderTest, UiIdLogsTheNameItTests) {
    m_manage->m_stuSystemSerialParam.stuSerialSetting = SerialRecord({{7, 7, 1, 0}});
    EXPECT_EQ(m_manage->GetPeripheralUiId(PERIPHERAL_TYPE_SERIAL, 7, 1), 3u);
    EXPECT_EQ(MissingInOrder(Logs(), {"GetPeripheralUiId: strTemp = COM",
                                      "GetPeripheralUiId: strTemp = 485-2"}),
              "");
}

}  // namespace
}  // namespace rectest
