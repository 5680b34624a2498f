#include <random>
#include <ostream>
#include <string>
#include <vector>

#include <gtest/gtest.h>

#include "GuiToolkit.h"

namespace {

using Bytes = std::vector<unsigned char>;

// Exactly sized buffers throughout, so that the sanitizers see any write past the bound.
int Stuff(const Bytes& in, Bytes* out) {
    out->assign(2 * in.size(), 0xAA);
    int n = serial_transfrom_7e7f(in.data(), out->data(), static_cast<int>(in.size()));
    out->resize(n > 0 ? static_cast<size_t>(n) : 0);
    return n;
}

int Unstuff(const Bytes& in, Bytes* out, int* state) {
    // An empty vector may have no storage, and null pointers are refused.
    static const unsigned char kNoInput = 0;
    out->assign(in.empty() ? 1 : in.size(), 0xAA);
    const unsigned char* src = in.empty() ? &kNoInput : in.data();
    int n = serial_retransfrom_7e7f(src, out->data(), static_cast<int>(in.size()), state);
    out->resize(n > 0 ? static_cast<size_t>(n) : 0);
    return n;
}

struct StuffCase {
    const char* name;
    Bytes frame;
    int result;  // -1, or the length of `stuffed`
    Bytes stuffed;
};

void PrintTo(const StuffCase& c, std::ostream* os) {
    *os << c.name;
}

class StuffTest : public testing::TestWithParam<StuffCase> {};

TEST_P(StuffTest, StuffsFrame) {
    const StuffCase& c = GetParam();
    Bytes out;
    EXPECT_EQ(Stuff(c.frame, &out), c.result);
    if (c.result > 0) {
        EXPECT_EQ(out, c.stuffed);
    }
}

INSTANTIATE_TEST_SUITE_P(
    Table, StuffTest,
    testing::Values(StuffCase{"NothingToEscape",
                              {0x7E, 0x80, 0x04, 0x37, 0x07, 0x7F},
                              6,
                              {0x7E, 0x80, 0x04, 0x37, 0x07, 0x7F}},
                    StuffCase{"EscapeInside",
                              {0x7E, 0x01, 0x7D, 0x02, 0x7F},
                              6,
                              {0x7E, 0x01, 0x7D, 0x5D, 0x02, 0x7F}},
                    StuffCase{"StartMarkInside", {0x7E, 0x7E, 0x7F}, 4, {0x7E, 0x7D, 0x5E, 0x7F}},
                    StuffCase{"EndMarkInside", {0x7E, 0x7F, 0x7F}, 4, {0x7E, 0x7D, 0x5F, 0x7F}},
                    StuffCase{"AllThreeInARow",
                              {0x7E, 0x7D, 0x7E, 0x7F, 0x7F},
                              8,
                              {0x7E, 0x7D, 0x5D, 0x7D, 0x5E, 0x7D, 0x5F, 0x7F}},
                    StuffCase{"EscapedFormsPassAsTheyAre",
                              {0x7E, 0x5D, 0x5E, 0x5F, 0x7F},
                              5,
                              {0x7E, 0x5D, 0x5E, 0x5F, 0x7F}},
                    StuffCase{"EmptyBody", {0x7E, 0x7F}, 2, {0x7E, 0x7F}},
                    StuffCase{"LeadingGarbage", {0x00, 0x7E, 0x01, 0x7F}, -1, {}},
                    StuffCase{"NoEndMark", {0x7E, 0x01, 0x02}, -1, {}},
                    StuffCase{"MarksSwapped", {0x7F, 0x01, 0x7E}, -1, {}},
                    StuffCase{"SingleMark", {0x7E}, -1, {}}, StuffCase{"Empty", {}, -1, {}}),
    [](const testing::TestParamInfo<StuffCase>& info) { return std::string(info.param.name); });

struct UnstuffCase {
    const char* name;
    Bytes stuffed;
    int result;  // -1, or the length of `frame`
    Bytes frame;
    int endState;  // after success
};

void PrintTo(const UnstuffCase& c, std::ostream* os) {
    *os << c.name;
}

class UnstuffTest : public testing::TestWithParam<UnstuffCase> {};

TEST_P(UnstuffTest, UnstuffsInOneGo) {
    const UnstuffCase& c = GetParam();
    Bytes out;
    int state = SERIAL_UNSTUFF_START;
    EXPECT_EQ(Unstuff(c.stuffed, &out, &state), c.result);
    if (c.result >= 0) {
        EXPECT_EQ(out, c.frame);
        EXPECT_EQ(state, c.endState);
    }
}

INSTANTIATE_TEST_SUITE_P(
    Table, UnstuffTest,
    testing::Values(UnstuffCase{"NothingEscaped",
                                {0x7E, 0x80, 0x04, 0x7F},
                                4,
                                {0x7E, 0x80, 0x04, 0x7F},
                                SERIAL_UNSTUFF_DONE},
                    UnstuffCase{"EachEscape",
                                {0x7E, 0x7D, 0x5D, 0x01, 0x7D, 0x5E, 0x7D, 0x5F, 0x7F},
                                6,
                                {0x7E, 0x7D, 0x01, 0x7E, 0x7F, 0x7F},
                                SERIAL_UNSTUFF_DONE},
                    UnstuffCase{"EmptyBody", {0x7E, 0x7F}, 2, {0x7E, 0x7F}, SERIAL_UNSTUFF_DONE},
                    UnstuffCase{"LeadingGarbage", {0x00, 0x7E, 0x01, 0x7F}, -1, {}, 0},
                    UnstuffCase{"NoStartMark", {0x01, 0x7F}, -1, {}, 0},
                    UnstuffCase{"DanglingEscape", {0x7E, 0x01, 0x7D, 0x7F}, -1, {}, 0},
                    UnstuffCase{"EscapeOfPlainByte", {0x7E, 0x7D, 0x01, 0x7F}, -1, {}, 0},
                    UnstuffCase{"EscapeOfEscape", {0x7E, 0x7D, 0x7D, 0x5D, 0x7F}, -1, {}, 0},
                    UnstuffCase{"EscapeOfStartMark", {0x7E, 0x7D, 0x7E, 0x7F}, -1, {}, 0},
                    UnstuffCase{"StartMarkInside", {0x7E, 0x01, 0x7E, 0x02, 0x7F}, -1, {}, 0},
                    UnstuffCase{"ByteAfterEndMark", {0x7E, 0x01, 0x7F, 0x00}, -1, {}, 0},
                    UnstuffCase{"TwoFrames", {0x7E, 0x7F, 0x7E, 0x7F}, -1, {}, 0},
                    // Without its end mark a frame is merely unfinished: the state says so.
                    UnstuffCase{
                        "NoEndMarkYet", {0x7E, 0x01, 0x7D}, 2, {0x7E, 0x01}, SERIAL_UNSTUFF_ESCAPE},
                    UnstuffCase{"Empty", {}, 0, {}, SERIAL_UNSTUFF_START}),
    [](const testing::TestParamInfo<UnstuffCase>& info) { return std::string(info.param.name); });

// Frames whose bodies are full of the three special bytes.
Bytes RandomFrame(std::mt19937& rng) {
    std::uniform_int_distribution<int> length(0, 300);
    std::uniform_int_distribution<int> byte(0, 255);
    std::uniform_int_distribution<int> special(0x7D, 0x7F);
    Bytes frame{0x7E};
    for (int n = length(rng); n > 0; --n) {
        frame.push_back(static_cast<unsigned char>(rng() % 2 ? special(rng) : byte(rng)));
    }
    frame.push_back(0x7F);
    return frame;
}

TEST(ByteStuffing, RoundTripOfRandomFrames) {
    std::mt19937 rng(20240611);
    for (int i = 0; i < 2000; ++i) {
        Bytes frame = RandomFrame(rng);
        Bytes stuffed;
        ASSERT_GT(Stuff(frame, &stuffed), 0);
        ASSERT_EQ(stuffed.front(), 0x7E);
        ASSERT_EQ(stuffed.back(), 0x7F);
        for (size_t k = 1; k + 1 < stuffed.size(); ++k) {
            ASSERT_NE(stuffed[k], 0x7E) << "frame " << i << " byte " << k;
            ASSERT_NE(stuffed[k], 0x7F) << "frame " << i << " byte " << k;
        }
        Bytes back;
        int state = SERIAL_UNSTUFF_START;
        ASSERT_EQ(Unstuff(stuffed, &back, &state), static_cast<int>(frame.size()));
        ASSERT_EQ(back, frame) << "frame " << i;
        ASSERT_EQ(state, SERIAL_UNSTUFF_DONE);
    }
}

// Concatenated outputs of the pieces; -1 as soon as one piece fails.
int UnstuffInPieces(const Bytes& stuffed, const std::vector<size_t>& cuts, Bytes* out, int* state) {
    out->clear();
    size_t begin = 0;
    std::vector<size_t> ends(cuts);
    ends.push_back(stuffed.size());
    for (size_t end : ends) {
        Bytes piece(stuffed.begin() + static_cast<long>(begin),
                    stuffed.begin() + static_cast<long>(end));
        Bytes part;
        if (Unstuff(piece, &part, state) < 0) {
            return -1;
        }
        out->insert(out->end(), part.begin(), part.end());
        begin = end;
    }
    return static_cast<int>(out->size());
}

TEST(ByteStuffing, PiecesAtEverySplitPointEqualOneGo) {
    const Bytes stuffed{0x7E, 0x7D, 0x5D, 0x7D, 0x5E, 0x01, 0x7D, 0x5F, 0x7F};
    const Bytes frame{0x7E, 0x7D, 0x7E, 0x01, 0x7F, 0x7F};
    for (size_t cut = 0; cut <= stuffed.size(); ++cut) {
        Bytes out;
        int state = SERIAL_UNSTUFF_START;
        EXPECT_EQ(UnstuffInPieces(stuffed, {cut}, &out, &state), 6) << "cut at " << cut;
        EXPECT_EQ(out, frame) << "cut at " << cut;
        EXPECT_EQ(state, SERIAL_UNSTUFF_DONE);
    }
    std::vector<size_t> everyByte;
    for (size_t cut = 1; cut < stuffed.size(); ++cut) {
        everyByte.push_back(cut);
    }
    Bytes out;
    int state = SERIAL_UNSTUFF_START;
    EXPECT_EQ(UnstuffInPieces(stuffed, everyByte, &out, &state), 6);
    EXPECT_EQ(out, frame);
}

TEST(ByteStuffing, MalformedFrameFailsWhereverItIsCut) {
    const Bytes dangling{0x7E, 0x01, 0x7D, 0x7F};
    for (size_t cut = 0; cut <= dangling.size(); ++cut) {
        Bytes out;
        int state = SERIAL_UNSTUFF_START;
        EXPECT_EQ(UnstuffInPieces(dangling, {cut}, &out, &state), -1) << "cut at " << cut;
    }
}

TEST(ByteStuffing, BoundedStuffingRefusesWhatDoesNotFit) {
    const Bytes frame{0x7E, 0x7D, 0x01, 0x7F};  // stuffs to 5 bytes
    Bytes out(5, 0xAA);
    EXPECT_EQ(serial_transfrom_7e7f_n(frame.data(), out.data(), 4, 5), 5);
    EXPECT_EQ(out, (Bytes{0x7E, 0x7D, 0x5D, 0x01, 0x7F}));

    Bytes small(4, 0xAA);
    EXPECT_EQ(serial_transfrom_7e7f_n(frame.data(), small.data(), 4, 4), -1);
    EXPECT_EQ(small, Bytes(4, 0xAA)) << "nothing is written when refused";
    EXPECT_EQ(serial_transfrom_7e7f_n(frame.data(), small.data(), 4, -1), -1);
}

TEST(ByteStuffing, RefusesNullPointersAndBadArguments) {
    const Bytes frame{0x7E, 0x01, 0x7F};
    Bytes out(6);
    int state = SERIAL_UNSTUFF_START;
    EXPECT_EQ(serial_transfrom_7e7f(nullptr, out.data(), 3), -1);
    EXPECT_EQ(serial_transfrom_7e7f(frame.data(), nullptr, 3), -1);
    EXPECT_EQ(serial_transfrom_7e7f(frame.data(), out.data(), -3), -1);
    EXPECT_EQ(serial_transfrom_7e7f_n(nullptr, out.data(), 3, 6), -1);
    EXPECT_EQ(serial_retransfrom_7e7f(nullptr, out.data(), 3, &state), -1);
    EXPECT_EQ(serial_retransfrom_7e7f(frame.data(), nullptr, 3, &state), -1);
    EXPECT_EQ(serial_retransfrom_7e7f(frame.data(), out.data(), 3, nullptr), -1);
    EXPECT_EQ(serial_retransfrom_7e7f(frame.data(), out.data(), -1, &state), -1);
    state = 42;
    EXPECT_EQ(serial_retransfrom_7e7f(frame.data(), out.data(), 3, &state), -1);
}

}  // namespace
