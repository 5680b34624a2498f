// Byte stuffing of the extension box frame.
#include <algorithm>
#include <random>
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

// Feeds `in` cut at `cuts` (ascending); the pieces' outputs concatenated, or -1 once one fails.
int Unstuff(const Bytes& in, Bytes* out, int* state, std::vector<size_t> cuts = {}) {
    static const unsigned char kNoInput = 0;  // an empty vector may have no storage
    out->clear();
    cuts.push_back(in.size());
    size_t begin = 0;
    for (size_t end : cuts) {
        Bytes piece(end > begin ? end - begin : 1, 0xAA);
        const unsigned char* src = end > begin ? in.data() + begin : &kNoInput;
        int n = serial_retransfrom_7e7f(src, piece.data(), static_cast<int>(end - begin), state);
        if (n < 0) {
            return -1;
        }
        out->insert(out->end(), piece.begin(), piece.begin() + n);
        begin = end;
    }
    return static_cast<int>(out->size());
}

Bytes Hex(const char* hex) {
    Bytes bytes;
    for (size_t i = 0; hex[i] != '\0' && hex[i + 1] != '\0'; i += 2) {
        bytes.push_back(
            static_cast<unsigned char>(std::stoi(std::string(hex + i, 2), nullptr, 16)));
    }
    return bytes;
}

TEST(ByteStuffing, Table) {
    struct Case {
        const char* what;
        const char* frame;    // nullptr: `stuffed` is refused by unstuffing
        const char* stuffed;  // nullptr: `frame` is refused by stuffing
    };
    const Case cases[] = {
        {"all three inside", "7E7D7E7F017F", "7E7D5D7D5E7D5F017F"},
        {"escaped forms pass as they are", "7E5D5E5F7F", "7E5D5E5F7F"},
        {"empty body", "7E7F", "7E7F"},
        {"leading garbage", "007E017F", nullptr},
        {"no end mark", "7E0102", nullptr},
        {"a single mark", "7E", nullptr},
        {"leading garbage", nullptr, "007E017F"},
        {"dangling escape", nullptr, "7E017D7F"},
        {"escape of a plain byte", nullptr, "7E7D017F"},
        {"escape of an escape", nullptr, "7E7D7D5D7F"},
        {"start mark inside", nullptr, "7E017E027F"},
        {"two frames", nullptr, "7E7F7E7F"},
    };
    for (const Case& c : cases) {
        SCOPED_TRACE(c.what);
        const Bytes frame = Hex(c.frame ? c.frame : "");
        const Bytes stuffed = Hex(c.stuffed ? c.stuffed : "");
        Bytes out;
        if (c.frame != nullptr) {
            EXPECT_EQ(Stuff(frame, &out), c.stuffed ? static_cast<int>(stuffed.size()) : -1);
            EXPECT_EQ(out, stuffed);
        }
        // In one go (cut at the end) and in two pieces cut anywhere, with the same outcome.
        for (size_t cut = 0; c.stuffed != nullptr && cut <= stuffed.size(); ++cut) {
            int state = SERIAL_UNSTUFF_START;
            ASSERT_EQ(Unstuff(stuffed, &out, &state, {cut}),
                      c.frame ? static_cast<int>(frame.size()) : -1)
                << "cut at " << cut;
            if (c.frame != nullptr) {
                EXPECT_EQ(out, frame) << "cut at " << cut;
                EXPECT_EQ(state, SERIAL_UNSTUFF_DONE) << "cut at " << cut;
            }
        }
    }
}

TEST(ByteStuffing, RoundTripOfRandomFramesFullOfMarks) {
    std::mt19937 rng(20240611);
    for (int i = 0; i < 2000; ++i) {
        Bytes frame{0x7E};
        for (size_t n = rng() % 300; n > 0; --n) {
            frame.push_back(static_cast<unsigned char>(rng() % 2 ? 0x7D + rng() % 3 : rng()));
        }
        frame.push_back(0x7F);
        Bytes stuffed;
        ASSERT_GT(Stuff(frame, &stuffed), 0);
        ASSERT_EQ(std::count(stuffed.begin() + 1, stuffed.end() - 1, 0x7E), 0) << i;
        ASSERT_EQ(std::count(stuffed.begin() + 1, stuffed.end() - 1, 0x7F), 0) << i;

        std::vector<size_t> cuts{rng() % stuffed.size(), rng() % stuffed.size()};
        std::sort(cuts.begin(), cuts.end());
        for (const auto& pieces : {std::vector<size_t>{}, cuts}) {
            Bytes back;
            int state = SERIAL_UNSTUFF_START;
            ASSERT_EQ(Unstuff(stuffed, &back, &state, pieces), static_cast<int>(frame.size()));
            ASSERT_EQ(back, frame) << i;
            ASSERT_EQ(state, SERIAL_UNSTUFF_DONE);
        }
    }
}

TEST(ByteStuffing, RefusesBadArguments) {
    const Bytes frame = Hex("7E7D017F");
    Bytes out(8, 0xAA);
    EXPECT_EQ(serial_transfrom_7e7f(frame.data(), out.data(), -4), -1);
    int state = 42;
    EXPECT_EQ(serial_retransfrom_7e7f(frame.data(), out.data(), 4, &state), -1);
    EXPECT_EQ(serial_retransfrom_7e7f(frame.data(), out.data(), 4, nullptr), -1);
    EXPECT_EQ(serial_retransfrom_7e7f(nullptr, out.data(), 4, &state), -1);
}

}  // namespace
