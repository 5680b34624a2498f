// The manager's record readers without a bus: the speech document, the U-disk record and test
// file, the status records and the plug-in folder, each called directly.
#include <stdlib.h>
#include <string.h>
#include <sys/stat.h>

#include <gtest/gtest.h>

#include <string>
#include <vector>

#include "AlarmSpeech.h"
#include "PluginLoader.h"
#include "StatusRecords.h"
#include "TestSupport.h"
#include "UDiskSelfTest.h"

namespace {

Json::Value Parse(const std::string& text) {
    Json::Value value;
    Json::CharReaderBuilder builder;
    std::string errors;
    std::unique_ptr<Json::CharReader> reader(builder.newCharReader());
    EXPECT_TRUE(reader->parse(text.data(), text.data() + text.size(), &value, &errors)) << errors;
    return value;
}

}  // namespace

TEST(AlarmSpeechRecords, CompleteEntriesMakeRecordsTheRestNothing) {
    const Json::Value document = Parse(R"({"ALARM_TTS_PARAM": [
        {"CONTENT": "Brake", "PLAY_TIMES": 2, "INTERVAL": 5, "HANDLE_TYPE": 1, "AO_CHN": 3,
         "LABABIT": 1, "MAIN_ID": 12, "SUB_ID": 4, "EXCUTE_TYPE": true, "VOLUMN": 80.5},
        {"CONTENT": "No sub id", "PLAY_TIMES": 1, "INTERVAL": 1, "HANDLE_TYPE": 1, "AO_CHN": 1,
         "LABABIT": 1, "MAIN_ID": 12},
        {"CONTENT": 7, "PLAY_TIMES": 1, "INTERVAL": 1, "HANDLE_TYPE": 1, "AO_CHN": 1,
         "LABABIT": 1, "MAIN_ID": 12, "SUB_ID": 0},
        "not an object"]})");
    std::vector<speech::Entry> entries = speech::RecordsFrom(document);
    ASSERT_EQ(entries.size(), 1u);
    const speech::Entry& e = entries[0];
    EXPECT_EQ(e.mainId, 12u);
    EXPECT_EQ(e.subId, 4u);
    const LinkSpeech_t* r = e.record;
    EXPECT_EQ(r->ucPlayTimes, 2);
    EXPECT_EQ(r->ucInterval, 5);
    EXPECT_EQ(r->ucExcuteType, 1) << "true reads as 1";
    EXPECT_EQ(r->ucVolumn, 80) << "80.5 reads as 80";
    EXPECT_EQ(r->ucAoChn, 3);
    EXPECT_STREQ(r->szText, "Brake\n");
    EXPECT_EQ(speech::RecordSize(r), strlen("Brake\n") + speech::kTailSize);
    const auto* tail = reinterpret_cast<const uint8_t*>(r->szText) + strlen("Brake\n");
    EXPECT_EQ(tail[1], 3) << "the channel again after the text";
    EXPECT_EQ(tail[2], 80) << "and the volume";
    free(entries[0].record);

    EXPECT_TRUE(speech::RecordsFrom(Parse(R"({"ALARM_TTS_PARAM": 5})")).empty());
    EXPECT_TRUE(speech::RecordsFrom(Parse("[1, 2]")).empty());
}

TEST(UDiskSelfTestUnit, TheFirstNamedMountIsTakenWithItsSize) {
    std::vector<char> payload(48 + 80 * 4, 0);
    strcpy(&payload[48 + 80 * 2], "/mnt/usb3");
    payload[48 + 80 * 2 + 40] = 0x10;
    payload[48 + 80 * 2 + 44] = 0x01;  // the high word
    strcpy(&payload[48 + 80 * 3], "/mnt/usb4");
    const selftest::Mount mount =
        selftest::FirstMount(MsgView(static_cast<const void*>(payload.data()), payload.size()));
    EXPECT_EQ(mount.directory, "/mnt/usb3");
    EXPECT_EQ(mount.recordSize, 0x100000010ull);

    std::vector<char> unterminated(48 + 80, 'x');
    EXPECT_EQ(selftest::FirstMount(
                  MsgView(static_cast<const void*>(unterminated.data()), unterminated.size()))
                  .directory,
              std::string(40, 'x'))
        << "a directory ends at its 40 bytes";
    EXPECT_TRUE(selftest::FirstMount(MsgView(static_cast<const void*>(payload.data()), size_t{48}))
                    .directory.empty());
}

TEST(UDiskSelfTestUnit, OnlyAPlainFileIsReadAndItsFirstByteIsSkipped) {
    pmtest::TempDir dir;
    char text[16] = {};
    ssize_t got = -2;
    ASSERT_TRUE(selftest::ReadFile(dir.Write("plain", "#TEST_ENABLE").c_str(), text, 15, got));
    EXPECT_EQ(got, 11);
    EXPECT_STREQ(text, "TEST_ENABLE");

    EXPECT_FALSE(selftest::ReadFile(dir.Path().c_str(), text, 15, got)) << "a directory";
    const std::string fifo = dir.File("fifo");
    ASSERT_EQ(mkfifo(fifo.c_str(), 0600), 0);
    EXPECT_FALSE(selftest::ReadFile(fifo.c_str(), text, 15, got)) << "a FIFO, never waited on";
    EXPECT_FALSE(selftest::ReadFile(dir.File("missing").c_str(), text, 15, got));
}

TEST(UDiskSelfTestUnit, TheLayoutOfABoxProductGoesOnTheBoxAndItsSubPorts) {
    paramSerialSetting_t setting{};
    setting.port[0].mainFun = 60;
    selftest::ApplyLayout(setting, 6);
    EXPECT_EQ(setting.port[4].mainFun, 1);
    EXPECT_EQ(setting.port[4].baudrate, 5);
    EXPECT_EQ(setting.port[4].extend[0].mainFun, 34);
    EXPECT_EQ(setting.port[4].extend[1].mainFun, 36);
    EXPECT_EQ(setting.port[4].extend[1].baudrate, 1);
    EXPECT_EQ(setting.port[0].mainFun, 60) << "the rest of the setting stays";

    paramSerialSetting_t plain{};
    selftest::ApplyLayout(plain, 99);
    EXPECT_EQ(plain.port[0].mainFun, 36);
}

TEST(StatusRecordsUnit, VideoLossBitsFollowTheChannelKinds) {
    // Channel 1 is digital with protocol 9; the others are analog.
    std::vector<uint8_t> ipc(8 + 200 * 4, 0);
    ipc[8 + 200] = 1;
    ipc[8 + 200 + 6] = 9;
    EXPECT_EQ(status::MergeAnalogVideoLoss(0x2, 0xF, 4, ipc.data(), ipc.size()), 0xFu);
    EXPECT_EQ(status::MergeAnalogVideoLoss(0x2, 0x0, 4, ipc.data(), ipc.size()), 0x2u)
        << "the digital channel keeps its bit";
    EXPECT_EQ(status::MergeAnalogVideoLoss(0, 0xFF, 2, ipc.data(), ipc.size()), 0x1u)
        << "only the channels there are";

    const uint8_t lost[] = {0, 9, 0, 0, 1, 1, 1, 1};  // protocols, then lost flags
    EXPECT_EQ(
        status::MergeDigitalVideoLoss(0, MsgView(lost, sizeof lost), 4, ipc.data(), ipc.size()),
        0x2u);
    const uint8_t otherProtocol[] = {0, 8, 0, 0, 1, 1, 1, 1};
    EXPECT_EQ(status::MergeDigitalVideoLoss(0, MsgView(otherProtocol, sizeof otherProtocol), 4,
                                            ipc.data(), ipc.size()),
              0x0u);
    const uint8_t found[] = {0, 9, 0, 0, 1, 0, 1, 1};
    EXPECT_EQ(
        status::MergeDigitalVideoLoss(0xF, MsgView(found, sizeof found), 4, ipc.data(), ipc.size()),
        0xDu);
    EXPECT_EQ(status::IpcChannelOf(ipc.data(), ipc.size(), 4).digital, 0) << "past the record";
}

TEST(StatusRecordsUnit, CardsAndLights) {
    std::vector<uint8_t> storage(32, 0);
    EXPECT_FALSE(status::SdCardUsable(MsgView(storage.data(), storage.size())));
    for (uint8_t state : {2, 5, 6}) {
        storage[28] = state;  // the second card: state, -, type, valid
        storage[30] = 1;
        storage[31] = 1;
        EXPECT_TRUE(status::SdCardUsable(MsgView(storage.data(), storage.size()))) << int(state);
    }
    storage[28] = 3;
    EXPECT_FALSE(status::SdCardUsable(MsgView(storage.data(), storage.size())));

    std::vector<uint8_t> vehicle(64, 0);
    vehicle[0] = 0x08;
    vehicle[48] = 0x08;
    EXPECT_TRUE(status::VehicleLightsOff(MsgView(vehicle.data(), vehicle.size())));
    vehicle[52] = 0x10;
    EXPECT_FALSE(status::VehicleLightsOff(MsgView(vehicle.data(), vehicle.size())));
    vehicle[52] = 0x18;
    EXPECT_TRUE(status::VehicleLightsOff(MsgView(vehicle.data(), vehicle.size())));
}

TEST(PluginFolder, TheFirstRegularFileWhoseNameHoldsTheLibrary) {
    pmtest::TempDir dir;
    const std::string folder = dir.Path() + "/";
    ASSERT_EQ(mkdir((folder + "libgps_dir").c_str(), 0700), 0);
    ASSERT_EQ(mkfifo((folder + "libgps_fifo").c_str(), 0600), 0);
    const plugin::Found none = plugin::FindFile(folder.c_str(), "gps", 1, 0, 0);
    EXPECT_TRUE(none.listed);
    EXPECT_EQ(none.result, 0);
    EXPECT_TRUE(none.path.empty()) << "a folder or a FIFO never loads";

    dir.Write("libgps.so", "");
    const plugin::Found found = plugin::FindFile(folder.c_str(), "gps", 1, 0, 0);
    EXPECT_EQ(found.path, folder + "libgps.so");

    EXPECT_FALSE(plugin::FindFile((folder + "nowhere/").c_str(), "gps", 1, 0, 0).listed);
    EXPECT_STREQ(plugin::Directory(PERIPHERAL_TYPE_CANPORT), "../plugin/can/");
}
