// The manager's alarm speech records and the factory self-test from a USB disk, against the
// real bus, real documents in a recorder root and real files on a "disk" folder.
#include <fcntl.h>
#include <sys/stat.h>
#include <unistd.h>

#include <gtest/gtest.h>

#include <algorithm>
#include <atomic>
#include <cstring>
#include <fstream>
#include <memory>
#include <thread>
#include <iterator>
#include <string>
#include <vector>

#include "PeripheralEvents.h"
#include "Pty.h"
#include "ServiceHarness.h"

#if defined(__SANITIZE_ADDRESS__) || defined(__SANITIZE_THREAD__)
// From the sanitizer's runtime (its header does not come with every compiler package).
extern "C" size_t __sanitizer_get_current_allocated_bytes(void);
#endif

namespace {

using pmtest::Message;
using pmtest::ServiceHarness;

std::string Entry(const std::string& content, int mainId, int subId,
                  const std::string& subKey = "") {
    return R"({"CONTENT": ")" + content +
           R"(", "PLAY_TIMES": 2, "INTERVAL": 3, "HANDLE_TYPE": 5, "AO_CHN": 1, "LABABIT": 9,
              "MAIN_ID": )" +
           std::to_string(mainId) + R"(, "SUB_ID": )" +
           (subKey.empty() ? std::to_string(subId) : subKey) +
           R"(, "EXCUTE_TYPE": 7, "VOLUMN": 80})";
}

struct Speech : ::testing::Test {
    Speech() {
        service.Root().Write("usr/local/cfg/lang/en.json", R"({"TTS_OVERSPEED": "Slow down"})");
        service.Root().Write("usr/local/cfg/lang/zh.json", R"({"TTS_OVERSPEED": "Jian su"})");
    }
    void Document(const std::vector<std::string>& entries) {
        std::string list;
        for (const std::string& e : entries) {
            list += (list.empty() ? "" : ",") + e;
        }
        service.Root().Write("usr/local/cfg/ALARM_TTS_CFG",
                             R"({"ALARM_TTS_PARAM": [)" + list + "]}");
    }
    ServiceHarness service{pmtest::kNoPeripherals, R"({"LANGUAGE": "en"})"};
};

std::vector<uint8_t> RecordBytes(const LinkSpeech_t* record) {
    const auto* bytes = reinterpret_cast<const uint8_t*>(record);
    return std::vector<uint8_t>(bytes, bytes + strlen(record->szText) + 65);
}

TEST_F(Speech, RecordsAreByteExactAndLongTextsAreCut) {
    const std::string longText(200, 'x');
    Document({Entry("TTS_OVERSPEED", 3, 1), Entry(longText, 3, 2)});
    ASSERT_EQ(service.Manager().AnalyseAlarmTtsConfig(), 1);

    const LinkSpeech_t* record = service.Manager().GetTtsAlarmSpeechConfig(3, 1);
    ASSERT_NE(record, nullptr);
    // "Slow down\n": 10 characters.
    EXPECT_EQ(pmtest::Hex(RecordBytes(record)),
              "02 03 43 00 00 00 00 00 04 00 00 00 05 07 00 00 00 00 00 00 00 00 00 00 00 00 00 "
              "00 00 00 00 00 28 02 00 00 29 02 00 00 13 00 00 00 08 00 00 00 01 50 0B 00 09 00 "
              "00 00 53 6C 6F 77 20 64 6F 77 6E 0A 00 01 50 00 00 09 00 00 00");
    EXPECT_TRUE(service.Logs().Contains(
        "S_MANAGE: Analy TTS alarm config, mainId = 3, subId = 1, times = 2, volumn = 80, "
        "len = 11, content = Slow down\n, Slow down\n"));

    const LinkSpeech_t* cut = service.Manager().GetTtsAlarmSpeechConfig(3, 2);
    ASSERT_NE(cut, nullptr);
    EXPECT_EQ(std::string(cut->szText), std::string(127, 'x')) << "127 characters, no newline";
    EXPECT_EQ(cut->usTextLength, 128);

    EXPECT_EQ(service.Manager().GetTtsAlarmSpeechConfig(3, 9), nullptr);
    EXPECT_EQ(service.Manager().GetTtsAlarmSpeechConfig(9, 1), nullptr);
    EXPECT_EQ(service.Manager().m_mapAlarmTtsSpeech.size(), 1u) << "a look-up inserts nothing";
    EXPECT_EQ(service.Manager().m_mapAlarmTtsSpeech[3].size(), 2u);
}

// Volume and execution type are read as any number they hold; what is no number reads 0.
TEST_F(Speech, VolumeAndExecutionTypeTakeAnyNumber) {
    auto entry = [](int subId, const std::string& more) {
        return R"({"CONTENT": "x", "PLAY_TIMES": 1, "INTERVAL": 1, "HANDLE_TYPE": 1, "AO_CHN": 1,
                   "LABABIT": 1, "MAIN_ID": 5, "SUB_ID": )" +
               std::to_string(subId) + more + "}";
    };
    Document({entry(0, R"(, "VOLUMN": 80.5, "EXCUTE_TYPE": true)"),
              entry(1, R"(, "VOLUMN": "loud", "EXCUTE_TYPE": [2])"), entry(2, ""),
              entry(3, R"(, "VOLUMN": 1e12, "EXCUTE_TYPE": -1)")});
    ASSERT_EQ(service.Manager().AnalyseAlarmTtsConfig(), 1);
    const std::string expected[] = {"80 1", "0 0", "0 0", "0 255"};
    for (unsigned sub = 0; sub < 4; ++sub) {
        const LinkSpeech_t* record = service.Manager().GetTtsAlarmSpeechConfig(5, sub);
        ASSERT_NE(record, nullptr) << sub;
        EXPECT_EQ(std::to_string(record->ucVolumn) + " " + std::to_string(record->ucExcuteType),
                  expected[sub])
            << sub;
    }
}

TEST_F(Speech, BadEntriesAreSkippedAndTheLaterDuplicateWins) {
    Document({Entry("first", 4, 0), Entry("skipped", 4, 1, R"("1")"), Entry("read", 4, 2),
              Entry("second", 4, 0), R"({"CONTENT": 5})", "7"});
    ASSERT_EQ(service.Manager().AnalyseAlarmTtsConfig(), 1);
    EXPECT_EQ(service.Manager().GetTtsAlarmSpeechConfig(4, 1), nullptr);
    ASSERT_NE(service.Manager().GetTtsAlarmSpeechConfig(4, 2), nullptr);
    EXPECT_STREQ(service.Manager().GetTtsAlarmSpeechConfig(4, 0)->szText, "second\n");

    // A missing document: logged, the records stay.
    unlink(service.Root().File("usr/local/cfg/ALARM_TTS_CFG").c_str());
    EXPECT_EQ(service.Manager().AnalyseAlarmTtsConfig(), 0);
    EXPECT_TRUE(service.Logs().Contains("S_MAMAGE:: Q7R_GetJsonByEnv ALARM_TTS_CFG faild!"));
    EXPECT_STREQ(service.Manager().GetTtsAlarmSpeechConfig(4, 0)->szText, "second\n");
}

TEST_F(Speech, ALanguageSwitchReloadsTheTextsAndOldRecordsStayReadable) {
    Document({Entry("TTS_OVERSPEED", 3, 1)});
    ASSERT_EQ(service.Manager().AnalyseAlarmTtsConfig(), 1);
    const LinkSpeech_t* before = service.Manager().GetTtsAlarmSpeechConfig(3, 1);
    ASSERT_STREQ(before->szText, "Slow down\n");

    service.Root().Write("usr/local/cfg/SYSTEM_CONFIG", R"({"LANGUAGE": "zh"})");
    const std::vector<char> switched = Message(EVENT_LANGUAGE_SWITCHED, nullptr, 0);
    service.Manager().OnSwitchLanguageFinished(switched.data(), static_cast<int>(switched.size()));
    EXPECT_STREQ(service.Manager().GetTtsAlarmSpeechConfig(3, 1)->szText, "Jian su\n");
    EXPECT_STREQ(before->szText, "Slow down\n") << "a plug-in may still hold the old record";
    // Back to English: the record made for it before serves again.
    service.Root().Write("usr/local/cfg/SYSTEM_CONFIG", R"({"LANGUAGE": "en"})");
    service.Manager().OnSwitchLanguageFinished(switched.data(), static_cast<int>(switched.size()));
    EXPECT_EQ(service.Manager().GetTtsAlarmSpeechConfig(3, 1), before);
    // The inverted report: a reload that worked says it failed.
    EXPECT_TRUE(service.Logs().Contains("S_MANAGE: Reload TTS alarm config failed"));

    service.Manager().OnSwitchLanguageFinished(switched.data(), 15);
    EXPECT_TRUE(service.Logs().Contains("S_MANAGE: OnSwitchLanguageFinished param error"));
}

// What the process holds: its resident size, or under a sanitizer (whose allocator keeps
// freed blocks in quarantine) the heap in use.
size_t MemoryInUse() {
#if defined(__SANITIZE_ADDRESS__) || defined(__SANITIZE_THREAD__)
    return __sanitizer_get_current_allocated_bytes();
#else
    long pages = 0;
    long resident = 0;
    FILE* statm = fopen("/proc/self/statm", "r");
    if (statm != nullptr) {
        if (fscanf(statm, "%ld %ld", &pages, &resident) != 2) {
            resident = 0;
        }
        fclose(statm);
    }
    return static_cast<size_t>(resident) * static_cast<size_t>(sysconf(_SC_PAGESIZE));
#endif
}

// A thousand switches between two languages keep two records per entry, not a thousand.
TEST_F(Speech, LanguageSwitchesDoNotGrowTheService) {
    std::string english = "{";
    std::string chinese = "{";
    std::vector<std::string> entries;
    for (int i = 0; i < 50; ++i) {
        const std::string id = "TTS_" + std::to_string(i);
        english += (i ? ", \"" : "\"") + id + "\": \"" + std::string(110, 'e') + "\"";
        chinese += (i ? ", \"" : "\"") + id + "\": \"" + std::string(110, 'z') + "\"";
        entries.push_back(Entry(id, 7, i));
    }
    service.Root().Write("usr/local/cfg/lang/en.json", english + "}");
    service.Root().Write("usr/local/cfg/lang/zh.json", chinese + "}");
    Document(entries);
    const std::vector<char> switched = Message(EVENT_LANGUAGE_SWITCHED, nullptr, 0);
    auto switchTo = [&](const char* language) {
        service.Root().Write("usr/local/cfg/SYSTEM_CONFIG",
                             std::string(R"({"LANGUAGE": ")") + language + "\"}");
        service.Manager().OnSwitchLanguageFinished(switched.data(),
                                                   static_cast<int>(switched.size()));
        service.Logs().Clear();  // the test's own copy of every line would be counted too
    };
    switchTo("zh");
    switchTo("en");
    const size_t before = MemoryInUse();
    for (int i = 0; i < 500; ++i) {
        switchTo("zh");
        switchTo("en");
    }
    const size_t grown = MemoryInUse() - std::min(before, MemoryInUse());
    // Kept copies would be 1000 x 50 records of 176 bytes: 8.8 MB.
    EXPECT_LT(grown, 2u << 20) << grown << " bytes more after 1,000 switches";
    EXPECT_EQ(std::string(service.Manager().GetTtsAlarmSpeechConfig(7, 3)->szText),
              std::string(110, 'e') + "\n");
}

// Instances may read speech records until their releasers have run.
std::atomic<int> g_recordsAtRelease{-1};

class SpeechReader : public CPeripheralBase {
public:
    explicit SpeechReader(CPeripheralManage* manage)
        : CPeripheralBase(manage, manage->GetMsgClient(), PERIPHERAL_TYPE_SERIAL, 3, 1) {}
    ~SpeechReader() override {
        const LinkSpeech_t* record = m_pPeripheralManage->GetTtsAlarmSpeechConfig(3, 1);
        g_recordsAtRelease = record != nullptr && strcmp(record->szText, "Slow down\n") == 0;
    }
};

TEST(SpeechLifetime, RecordsOutliveTheInstancesAndAMissingDocumentIsLogged) {
    {
        ServiceHarness service;
        EXPECT_TRUE(service.Logs().Contains("S_MANAGE: Analy TTS Config failed!!!"));
        const char* variable = getenv("ALARM_TTS_CFG");
        EXPECT_STREQ(variable != nullptr ? variable : "", "/usr/local/cfg/ALARM_TTS_CFG");
    }
    auto service = std::make_unique<ServiceHarness>();
    service->Root().Write("usr/local/cfg/lang/en.json", R"({"TTS_OVERSPEED": "Slow down"})");
    service->Root().Write("usr/local/cfg/ALARM_TTS_CFG",
                          R"({"ALARM_TTS_PARAM": [)" + Entry("TTS_OVERSPEED", 3, 1) + "]}");
    ASSERT_EQ(service->Manager().AnalyseAlarmTtsConfig(), 1);
    service->Manager().AddInstance(new SpeechReader(&service->Manager()));
    service.reset();
    EXPECT_EQ(g_recordsAtRelease.load(), 1);
}

// ---- the factory self-test ----

struct SelfTest : ::testing::Test {
    SelfTest() {
        service.Register();
        service.Watch(EVENT_SERIAL_PARAM_CHANGED);
        service.Watch(EVENT_GET_SERIAL_PARAM);
    }
    // A disk at `mount` (empty: none) with its record size, as message 33887 carries it.
    void Disk(const std::string& mount, uint64_t recordSize, int entry = 0) {
        std::vector<uint8_t> payload(48 + 4 * 80);
        memcpy(payload.data() + 48 + 80 * entry, mount.data(), std::min<size_t>(mount.size(), 40));
        for (int i = 0; i < 8; ++i) {
            payload[48 + 80 * entry + 40 + i] = static_cast<uint8_t>(recordSize >> (8 * i));
        }
        const std::vector<char> m = Message(EventAnswerOf(EVENT_GET_UDISK_INFO), payload);
        service.Manager().OnGetUDiskInfo(m.data(), static_cast<int>(m.size()));
    }
    std::string TestFile(const std::string& content) {
        return disk.Write("AutoTest/AUTO_TEST_CFG", content);
    }
    void Usb(uint8_t plugged, long headLength = 72) {
        std::vector<uint8_t> payload(72);
        payload[0] = plugged;
        const std::vector<char> m = Message(EVENT_USB_STATE, payload, headLength);
        service.Manager().OnGetUsbState(m.data(), static_cast<int>(m.size()));
    }
    size_t Sent(int id) {
        service.Flush();
        return service.Count(id);
    }

    ServiceHarness service{pmtest::kNoPeripherals, R"({"PRODUCT_TYPE": 3})"};
    pmtest::TempDir disk;
};

TEST_F(SelfTest, TheDiskAndItsFileDecide) {
    const struct {
        const char* what;
        std::string mount;
        uint64_t recordSize;
        std::string file;  // "-": none
        bool sent, enabled;
    } cases[] = {
        {"no disk", "", 0, "xTEST_ENABLE=true", false, false},
        {"a disk under 10 MB", "D", 9999999, "xTEST_ENABLE=true", false, false},
        {"exactly 10 MB", "D", 10000000, "xTEST_ENABLE=true", true, true},
        {"size unknown", "D", 0, "xTEST_ENABLE=true", true, true},
        {"a size past 4 GiB", "D", (uint64_t{1} << 32) + 5, "xTEST_ENABLE=true", true, true},
        {"disabled", "D", 0, "xTEST_ENABLE=false", false, false},
        {"true anywhere", "D", 0, "xMODE=true TEST_ENABLE=no", true, true},
        {"no key at all: sent, flag unchanged", "D", 0, "xhello", true, false},
        {"a one-byte file", "D", 0, "x", true, false},
        {"no file", "D", 0, "-", false, false},
    };
    for (const auto& c : cases) {
        SCOPED_TRACE(c.what);
        service.Manager().OnSetAutoTest(0);
        service.ClearReceived();
        unlink(disk.File("AutoTest/AUTO_TEST_CFG").c_str());
        if (c.file != "-") {
            TestFile(c.file);
        }
        Disk(c.mount.empty() ? "" : disk.Path(), c.recordSize);
        EXPECT_EQ(Sent(EVENT_SERIAL_PARAM_CHANGED), c.sent ? 1u : 0u);
        EXPECT_EQ(service.Manager().m_ucTestEnable, c.enabled ? 1 : 0);
        EXPECT_EQ(service.Manager().m_ucisPlugIn, 0) << "the details arrived: no more asking";
    }
    EXPECT_TRUE(service.Logs().Contains("****mbeko,test, Read buf file fail,length = 0"));
}

TEST_F(SelfTest, EachProductTypePlacesItsTesters) {
    const struct {
        int productType;
        std::vector<std::pair<int, std::string>> ports;  // port, "main baud sub [ext...]"
    } cases[] = {
        {6, {{4, "01 05 00"}}},
        {18, {{4, "01 05 00"}}},
        {16, {{1, "24 01 00"}}},
        {20, {{1, "24 01 00"}, {0, "00 00 00"}}},
        {47, {{0, "22 05 00"}, {1, "24 01 00"}}},
        {14, {{4, "24 01 00"}}},
        {3, {{0, "24 01 00"}}},
    };
    TestFile("xTEST_ENABLE=true");
    for (const auto& c : cases) {
        SCOPED_TRACE(c.productType);
        service.Root().Write("usr/local/cfg/SYSTEM_CONFIG",
                             "{\"PRODUCT_TYPE\": " + std::to_string(c.productType) + "}");
        service.ClearReceived();
        Disk(disk.Path(), 0);
        ASSERT_EQ(Sent(EVENT_SERIAL_PARAM_CHANGED), 1u);
        const std::vector<uint8_t> record = service.Received(EVENT_SERIAL_PARAM_CHANGED)[0].payload;
        ASSERT_EQ(record.size(), sizeof(paramSerialSetting_t));
        for (const auto& [port, bytes] : c.ports) {
            EXPECT_EQ(pmtest::Hex(std::vector<uint8_t>(record.begin() + 72 * port,
                                                       record.begin() + 72 * port + 3)),
                      bytes);
        }
        if (c.productType == 6) {  // the testers behind the box
            EXPECT_EQ(pmtest::Hex(std::vector<uint8_t>(record.begin() + 4 * 72 + 8,
                                                       record.begin() + 4 * 72 + 19)),
                      "22 05 00 00 00 00 00 00 24 01 00");
        }
    }
}

TEST_F(SelfTest, UnplugAndPowerDownEndTheTestOnlyWhileItRuns) {
    Usb(0);
    service.Manager().OnProcessPowerdown(nullptr, 0);
    EXPECT_EQ(Sent(EVENT_GET_SERIAL_PARAM), 0u);

    TestFile("xTEST_ENABLE=true");
    Disk(disk.Path(), 0);
    Usb(1);
    EXPECT_EQ(Sent(EVENT_GET_SERIAL_PARAM), 0u);
    EXPECT_TRUE(service.Logs().Contains("Usb plugin  usbInfo->ucisPlugIn=1"));
    EXPECT_TRUE(service.Logs().Contains(
        "U\xc5\xcc\xb2\xe5\xc8\xeb \xb6\xc1\xce\xc4\xbc\xfe usbInfo->ucisPlugIn=1"));
    Usb(0);
    EXPECT_EQ(Sent(EVENT_GET_SERIAL_PARAM), 1u);
    service.Manager().OnProcessPowerdown(nullptr, 0);
    EXPECT_EQ(Sent(EVENT_GET_SERIAL_PARAM), 2u);
    Usb(0, 71);
    EXPECT_TRUE(service.Logs().Contains("phead->length =71"));
    EXPECT_EQ(Sent(EVENT_GET_SERIAL_PARAM), 2u);
}

TEST_F(SelfTest, DiskDetailsThatLieAreBounded) {
    // A mount directory of 40 bytes without its NUL, then the record size: read as 40.
    Disk(std::string(40, 'm'), 0);
    char path[32];
    service.Manager().GetUdiskPath(path);
    EXPECT_EQ(std::string(path, 31), std::string(31, 'm'));
    EXPECT_TRUE(service.Logs().Contains(" open parafd file failed !"));
    // The test file is a FIFO, then a folder: refused without waiting.
    mkdir(disk.File("AutoTest").c_str(), 0755);
    ASSERT_EQ(mkfifo(disk.File("AutoTest/AUTO_TEST_CFG").c_str(), 0600), 0);
    service.Logs().Clear();
    Disk(disk.Path(), 0, 3);
    EXPECT_TRUE(service.Logs().Contains(" open parafd file failed !"));
    unlink(disk.File("AutoTest/AUTO_TEST_CFG").c_str());
    mkdir(disk.File("AutoTest/AUTO_TEST_CFG").c_str(), 0755);
    service.Logs().Clear();
    Disk(disk.Path(), 0);
    EXPECT_TRUE(service.Logs().Contains(" open parafd file failed !"));
    // Heads that lie: too short a message, a length below 8.
    const std::vector<char> shortHead = Message(EventAnswerOf(EVENT_GET_UDISK_INFO), nullptr, 0, 7);
    service.Manager().OnGetUDiskInfo(shortHead.data(), static_cast<int>(shortHead.size()));
    EXPECT_TRUE(service.Logs().Contains("safety warning failed msgerror=7"));
    service.Manager().OnGetUDiskInfo(shortHead.data(), 15);
    EXPECT_TRUE(service.Logs().Contains("ipc param length error "));
    EXPECT_EQ(Sent(EVENT_SERIAL_PARAM_CHANGED), 0u);
}

// Plug-ins ask for the disk's folder and switch the test from their own threads.
TEST_F(SelfTest, PlugInsReachTheDiskStateFromTheirThreads) {
    TestFile("xTEST_ENABLE=true");
    std::atomic<bool> stop{false};
    std::thread plugin([&] {
        char path[32];
        for (unsigned i = 0; !stop; ++i) {
            service.Manager().GetUdiskPath(path);
            service.Manager().OnSetAutoTest(static_cast<unsigned char>(i % 2));
        }
    });
    for (int i = 0; i < 200; ++i) {
        Disk(i % 2 == 0 ? disk.Path() : "/media/none", 0);
        Usb(0);  // ends the test when it runs
    }
    stop = true;
    plugin.join();
    char path[32];
    service.Manager().GetUdiskPath(path);
    EXPECT_STREQ(path, "/media/none");
}

// A daemon host leads its session without a terminal: a disk whose test file is a link to a
// tty must not give it one (it would be hung up when that tty closes).
TEST(SelfTestDeathTest, ATestFileLinkedToATtyGivesTheHostNoTerminal) {
    GTEST_FLAG_SET(death_test_style, pmtest::DeathTestStyle());
    EXPECT_EXIT(
        {
            setsid();
            pmtest::Pty tty;
            ServiceHarness service;
            pmtest::TempDir disk;
            disk.Write("AutoTest/keep", "");
            if (symlink(tty.SlavePath().c_str(), disk.File("AutoTest/AUTO_TEST_CFG").c_str()) !=
                0) {
                _exit(2);
            }
            std::vector<uint8_t> payload(48 + 4 * 80);
            memcpy(payload.data() + 48, disk.Path().data(),
                   std::min<size_t>(disk.Path().size(), 40));
            const std::vector<char> m = Message(EventAnswerOf(EVENT_GET_UDISK_INFO), payload);
            service.Manager().OnGetUDiskInfo(m.data(), static_cast<int>(m.size()));
            const int terminal = open("/dev/tty", O_RDWR | O_NOCTTY);
            _exit(terminal < 0 ? 0 : 1);
        },
        ::testing::ExitedWithCode(0), "");
}

// What hex_dump prints on standard output.
std::string Dump(ServiceHarness& service, const std::vector<uint8_t>& bytes, int level) {
    pmtest::TempDir dir;
    fflush(stdout);
    const int saved = dup(STDOUT_FILENO);
    const int file = open(dir.File("out").c_str(), O_WRONLY | O_CREAT | O_TRUNC, 0600);
    dup2(file, STDOUT_FILENO);
    service.Manager().hex_dump("T", reinterpret_cast<const char*>(bytes.data()),
                               static_cast<unsigned>(bytes.size()), level);
    fflush(stdout);
    dup2(saved, STDOUT_FILENO);
    close(saved);
    close(file);
    std::ifstream in(dir.File("out"), std::ios::binary);
    return std::string(std::istreambuf_iterator<char>(in), std::istreambuf_iterator<char>());
}

TEST(HexDump, RowsAndTheirCharacterColumn) {
    ServiceHarness service;
    service.Manager().m_nDebugLevel = 3;
    EXPECT_EQ(Dump(service, {1, 2}, 4), "") << "above the debug level";
    std::vector<uint8_t> bytes(17);
    for (size_t i = 0; i < bytes.size(); ++i) {
        bytes[i] = static_cast<uint8_t>('a' + i);
    }
    bytes[1] = 0x01;
    // Seventeen bytes: two rows, characters only after the full one; a blank line at the end.
    EXPECT_EQ(Dump(service, bytes, 3),
              "T\n00: 61 01 63 64 65 66 67 68 69 6A 6B 6C 6D 6E 6F 70 a . c d e f g h i j k l m n "
              "o p \n10: 71 \n\n");
    // Past 256 bytes the character column shows the rows of the first 256 again.
    std::vector<uint8_t> many(300);
    for (size_t i = 0; i < many.size(); ++i) {
        many[i] = i < 16 ? 'A' : (i >= 256 && i < 272 ? 'Z' : '.');
    }
    const std::string out = Dump(service, many, 3);
    const size_t row = out.find("\n100: ");
    ASSERT_NE(row, std::string::npos);
    EXPECT_EQ(out.substr(row + 6 + 48, 32), "A A A A A A A A A A A A A A A A ");
}

}  // namespace
