// The upgrade session without a line or a bus: what a file record yields, how the image goes
// out line by line, and which state records a report leaves behind.
#include <gtest/gtest.h>

#include <string>
#include <vector>

#include "ExtendUpgradeSession.h"
#include "UpgradeFile.h"

namespace {

constexpr const char kTag[] = "TEST: ";

std::vector<uint8_t> Image(size_t size) {
    std::vector<uint8_t> image(size);
    for (size_t i = 0; i < size; ++i) {
        image[i] = static_cast<uint8_t>(i * 7 + 3);
    }
    return image;
}

std::vector<uint8_t> Record(const std::vector<uint8_t>& image, const std::string& name) {
    return pmtools::UpgradeFileRecord(name, pmtools::MakeUpgradeFile(image, name));
}

uint32_t Be32(const unsigned char* p) {
    return uint32_t(p[0]) << 24 | uint32_t(p[1]) << 16 | uint32_t(p[2]) << 8 | p[3];
}

}  // namespace

TEST(UpgradeSession, AFileGoesOutAsNumberedLinesThenEnd) {
    const std::vector<uint8_t> image = Image(150);
    const std::vector<uint8_t> record = Record(image, "BOX-MCU-V2.CRC");
    CExtendUpgradeSession session;
    ASSERT_EQ(session.TakeFile(record.data(), static_cast<unsigned>(record.size()), kTag), 0);
    EXPECT_STREQ(session.NewVersion(), "BOX-MCU-V2") << "the name up to .CRC";
    EXPECT_EQ(session.ImageLength(), 150u);
    EXPECT_EQ(session.ImageCrc(), static_cast<uint32_t>(Crc_32(0, image.data(), image.size())));

    std::vector<uint8_t> sent;
    std::vector<int> percents;
    for (int line = 1; line <= 3; ++line) {
        const CExtendUpgradeSession::Line next = session.NextLine(line);
        ASSERT_EQ(next.action, CExtendUpgradeSession::Line::kData) << line;
        EXPECT_EQ(Be32(next.data), static_cast<uint32_t>(line));
        sent.insert(sent.end(), next.data + 4, next.data + next.size);
        if (next.report) {
            percents.push_back(next.percent);
        }
    }
    EXPECT_EQ(sent, image) << "64 + 64 + 22 bytes, in order";
    EXPECT_EQ(percents, (std::vector<int>{42, 85, 100}));
    EXPECT_EQ(session.NextLine(4).action, CExtendUpgradeSession::Line::kEnd);
    EXPECT_EQ(session.ExpectedLine(), 1) << "after END the count starts again";
}

TEST(UpgradeSession, AnAcknowledgementOfAnotherLineIsRefusedAndChangesNothing) {
    const std::vector<uint8_t> record = Record(Image(200), "V3.CRC");
    CExtendUpgradeSession session;
    ASSERT_EQ(session.TakeFile(record.data(), static_cast<unsigned>(record.size()), kTag), 0);
    ASSERT_EQ(session.NextLine(1).action, CExtendUpgradeSession::Line::kData);
    const CExtendUpgradeSession::Line wrong = session.NextLine(3);
    EXPECT_EQ(wrong.action, CExtendUpgradeSession::Line::kWrongLine);
    EXPECT_EQ(wrong.expected, 2);
    const CExtendUpgradeSession::Line right = session.NextLine(2);
    ASSERT_EQ(right.action, CExtendUpgradeSession::Line::kData);
    EXPECT_EQ(right.sent, 128u);
}

TEST(UpgradeSession, ARecordThatLiesOrIsDamagedGivesNoImage) {
    const std::vector<uint8_t> good = Record(Image(300), "V4.CRC");
    CExtendUpgradeSession session;
    ASSERT_EQ(session.TakeFile(good.data(), static_cast<unsigned>(good.size()), kTag), 0);

    // Cut short: the image it announces did not all arrive.
    EXPECT_EQ(session.TakeFile(good.data(), static_cast<unsigned>(good.size() - 1), kTag), -1);
    EXPECT_EQ(session.NextLine(1).action, CExtendUpgradeSession::Line::kEnd)
        << "the refused file took the earlier image with it";
    EXPECT_EQ(session.TakeFile(good.data(), UPGRADE_FILE_MIN_SIZE - 1, kTag), -1);

    std::vector<uint8_t> flipped = good;
    flipped.back() ^= 0x01;
    EXPECT_EQ(session.TakeFile(flipped.data(), static_cast<unsigned>(flipped.size()), kTag), -1);

    std::vector<uint8_t> entries = good;
    entries[UPGRADE_FILE_COUNT_OFFSET + 3] = 0x7F;  // a count that points far past the record
    EXPECT_EQ(session.TakeFile(entries.data(), static_cast<unsigned>(entries.size()), kTag), -1);
}

TEST(UpgradeSession, ReportsKeepTheRecordOfSourcesZeroToThreeOnly) {
    CExtendUpgradeSession session;
    session.Identify(1, 0, EXTEND_BOX_DEV_ID, "flag");
    session.Begin(2);
    EXPECT_EQ(session.RecordOf(2).state, PERIPHERAL_UPGRADE_DOING);
    EXPECT_EQ(session.RecordOf(2).source, 2);
    EXPECT_EQ(session.RecordOf(1).source, 0xFF) << "never used";

    const ExtendUpgradeState_t sent = session.Report(PERIPHERAL_UPGRADE_FAILED, 2);
    EXPECT_EQ(sent.source, 2);
    EXPECT_EQ(sent.state, PERIPHERAL_UPGRADE_FAILED);
    EXPECT_EQ(sent.mainId, 1);
    EXPECT_EQ(sent.devId, EXTEND_BOX_DEV_ID);
    EXPECT_STREQ(sent.flag, "flag");
    EXPECT_EQ(sent.flagEnd, 4);
    EXPECT_EQ(session.RecordOf(2).state, PERIPHERAL_UPGRADE_FAILED);

    const ExtendUpgradeState_t other = session.Report(PERIPHERAL_UPGRADE_FAILED, 5);
    EXPECT_EQ(other.source, 5);
    for (unsigned char s = 4; s < EXTEND_BOX_STATE_RECORDS; ++s) {
        EXPECT_EQ(session.RecordOf(s).source, 0xFF) << int(s);
        EXPECT_EQ(session.RecordOf(s).state, 0) << "nobody's record: " << int(s);
    }
    session.End();
    EXPECT_EQ(session.RecordOf(2).state, PERIPHERAL_UPGRADE_FAILED) << "records outlive a session";
}

TEST(UpgradeSession, SilenceCountsFromTheLastAnswerEitherWay) {
    CExtendUpgradeSession session;
    session.Answered(1000000);
    EXPECT_FALSE(session.SilentFor(1009999, 9999));
    EXPECT_TRUE(session.SilentFor(1010000, 9999));
    EXPECT_TRUE(session.SilentFor(990000, 9999)) << "a clock set back counts too";
}
